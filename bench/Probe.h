// What the measuring worker offers: probes, each of which runs one operation many times.
#ifndef PROBE_H
#define PROBE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

class CProbe
{
public:
    virtual ~CProbe() = default;

    // Carries out the operation so many times and returns how long that took, without what has to be
    // set up before or put away after. Throws std::runtime_error when the operation fails.
    virtual std::chrono::nanoseconds run(int64_t nOperations) = 0;
};

// By name. A probe is made when it is first asked for and kept until another of its group is.
class CProbeTable
{
public:
    using CMake = std::function<std::unique_ptr<CProbe>()>;

    void add(const std::string& strName, CMake make) { m_mapMake[strName] = std::move(make); }
    const std::map<std::string, CMake>& all() const { return m_mapMake; }

private:
    std::map<std::string, CMake> m_mapMake;
};

// A function for each file of probes; the worker's main calls them all.
void addBareProbes(CProbeTable& table);     // the limits: what the pipes themselves cost
void addExchangeProbes(CProbeTable& table); // requests and their answers, plays and their completions
void addEventProbes(CProbeTable& table);    // completions in storms, queues that move on
void addLogProbes(CProbeTable& table);      // lines of the log, and what else could write them
void addGrowthProbes(CProbeTable& table);   // the same operations among ever more streams and files
void addPeerProbes(CProbeTable& table);     // the same exchange through D-Bus and ZeroMQ; native worker only

#endif
