// What an application does while calls fail: one scenario per process.
#ifndef SCENARIO_H
#define SCENARIO_H

#include "CallFaults.h"
#include "WaitUntil.h"

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

// Lives in the child process.
class CScenario
{
public:
    CScenario() = default;
    virtual ~CScenario() = default;
    CScenario(const CScenario&) = delete;
    CScenario& operator=(const CScenario&) = delete;

    virtual void prepare() {} // before calls are counted
    virtual void run() = 0;   // while they fail
    virtual void check() = 0; // afterwards: it works again
    virtual void end() = 0;   // gives everything back; nothing may be left then

    // Of a name in /tmp that is still there.
    virtual bool mayRemain(const std::string& strName) const = 0;

    // To be set before prepare.
    faults::CPlan m_plan = {};

protected:
    bool isFaulty() const { return m_plan.nFaults > 0 || m_plan.nAllocation > 0; }
    bool failsFor(faults::Call call) const;
    // As long as it may take when all is well; where a call fails, it may never come to that.
    bool waitFor(const std::function<bool()>& condition) const;
};

// A failure of the run that is going on; counted.
void complain(const std::string& strText);
int complaints();

struct CScenarioEntry
{
    const char* pszName;
    std::unique_ptr<CScenario> (*make)();
};
inline void printTo(const CScenarioEntry& entry, std::ostream* pStream)
{
    *pStream << entry.pszName;
}
std::vector<CScenarioEntry> libraryScenarios();
std::vector<CScenarioEntry> logScenarios();

#endif
