// Load for a media driver: many streams play a file over and over.
//
//   load STREAMS SECONDS FILE
//
// The streams have the call ids load-1, load-2 and so on. The media driver opens FILE: give an absolute path.
#include "OrvException.h"
#include "ZelMediaServices.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace
{
const unsigned long LEG = 1;
const unsigned long TIMEOUT_S = 60;
typedef std::chrono::steady_clock Clock;

class CLoad : public CZelMediaStreamCompletionHandler
{
public:
    explicit CLoad(const char* pszFile) : m_strFile(pszFile) {}

    void start(CZelMediaStream* pStream)
    {
        ++m_nActive;
        play(pStream);
    }

    // On the library's event thread: the next play of the stream starts here.
    void OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON) override
    {
        if (mcstatus == MCS_OK)
            ++m_nPlayed;
        else if (mcstatus != MCS_CANCELLED || !m_bStop)
            ++m_nFailed;
        if (m_bStop)
            --m_nActive;
        else
            play(pStream);
    }

    void stop() { m_bStop = true; }
    int active() const { return m_nActive; }
    unsigned long played() const { return m_nPlayed; }
    unsigned long failed() const { return m_nFailed; }
    double meanMicroseconds() const
    {
        return m_nAsked == 0 ? 0 : static_cast<double>(m_nNanoseconds) / 1000 / static_cast<double>(m_nAsked);
    }
    double longestMicroseconds() const { return static_cast<double>(m_nLongest) / 1000; }

private:
    void play(CZelMediaStream* pStream)
    {
        const Clock::time_point before = Clock::now();
        const int nStatus = pStream->playAddFile(&m_strFile[0], 0, TIMEOUT_S, 0, 0, 0);
        count(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - before).count());
        if (nStatus == MCS_OK)
            return;
        ++m_nFailed;
        --m_nActive;
    }

    void count(long long nNanoseconds)
    {
        ++m_nAsked;
        m_nNanoseconds += nNanoseconds;
        long long nLongest = m_nLongest;
        while (nNanoseconds > nLongest && !m_nLongest.compare_exchange_weak(nLongest, nNanoseconds))
        {
        }
    }

    std::string m_strFile;
    std::atomic<bool> m_bStop{false};
    std::atomic<int> m_nActive{0}; // streams that play
    std::atomic<unsigned long> m_nPlayed{0}, m_nFailed{0}, m_nAsked{0};
    std::atomic<long long> m_nNanoseconds{0}, m_nLongest{0};
};

// Returns the streams that the driver has opened.
std::vector<CZelMediaStream*> openStreams(CZelMediaServices& services, unsigned long ulStreams)
{
    std::vector<CZelMediaStream*> vStreams;
    const Clock::time_point giveUp = Clock::now() + std::chrono::seconds(15);
    while (vStreams.size() < ulStreams)
    {
        CZelMediaStream* pStream = nullptr;
        const std::string strCallID = "load-" + std::to_string(vStreams.size() + 1);
        const int nStatus = services.openMediaStream(&pStream, strCallID, LEG);
        if (nStatus == MCS_OK)
            vStreams.push_back(pStream);
        else if (nStatus == MCS_NOTCONNECTED && Clock::now() < giveUp)
            std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the driver may still be starting
        else
        {
            std::fprintf(stderr, "load: %s: %s (%d)\n", strCallID.c_str(), MCSTATUSToString(nStatus), nStatus);
            break;
        }
    }
    return vStreams;
}
} // namespace

int main(int argc, char** argv)
try
{
    if (argc != 4)
    {
        std::fprintf(stderr, "usage: load STREAMS SECONDS FILE\n");
        return 2;
    }
    CLoad load(argv[3]); // outlives the services
    CZelMediaServices services(&load);
    const unsigned long ulStreams = std::strtoul(argv[1], nullptr, 10);
    const std::vector<CZelMediaStream*> vStreams = openStreams(services, ulStreams);
    const Clock::time_point start = Clock::now();
    for (CZelMediaStream* const pStream : vStreams)
        load.start(pStream);
    while (load.active() > 0 && Clock::now() < start + std::chrono::seconds(std::strtol(argv[2], nullptr, 10)))
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const double dSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    const unsigned long nPlayed = load.played();

    load.stop();
    const Clock::time_point giveUp = Clock::now() + std::chrono::seconds(TIMEOUT_S + 15);
    for (CZelMediaStream* const pStream : vStreams)
        pStream->playCancel();
    while (load.active() > 0 && Clock::now() < giveUp) // close no stream before its completion
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (CZelMediaStream* const pStream : vStreams)
        services.closeMediaStream(pStream);

    std::printf("streams: %zu of %lu\nplays: %lu, %.1f a second\nfailed: %lu\nplayAddFile: %.1f us, longest %.1f us\n",
                vStreams.size(), ulStreams, nPlayed, static_cast<double>(nPlayed) / dSeconds, load.failed(),
                load.meanMicroseconds(), load.longestMicroseconds());
    return load.failed() == 0 && vStreams.size() == ulStreams ? 0 : 1;
}
catch (const OrvException& exception)
{
    std::fprintf(stderr, "load: no media services: %s\n", exception.what());
    return 1;
}
