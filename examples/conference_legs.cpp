// Announcements to all legs of a conference: many streams, one completion handler.
//
//   conference_legs CALLID LEGS FILE...
//
// Plays the files one after the other on the legs 1 to LEGS of the call, each leg at its own pace. A leg that fails
// does not disturb the others. The media driver opens the files: give absolute paths.
#include "OrvException.h"
#include "ZelMediaServices.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{
const unsigned long TIMEOUT_S = 60;

class CConference : public CZelMediaStreamCompletionHandler
{
public:
    explicit CConference(const std::vector<std::string>& vFiles) : m_vFiles(vFiles) {}

    // All legs are there before the first play: the map does not change while they play.
    void addLeg(CZelMediaStream* pStream, unsigned long ulLeg)
    {
        m_legs[pStream].m_ulLeg = ulLeg;
        ++m_nActive;
    }

    void start()
    {
        for (auto& entry : m_legs)
            play(entry.first, entry.second, 0);
    }

    // On the library's event thread, for all streams: it plays on, and does nothing that takes long.
    void OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON) override
    {
        CLeg& leg = m_legs.at(pStream);
        if (mcstatus == MCS_OK)
            play(pStream, leg, ++leg.m_nPlayed);
        else
            end(leg, mcstatus);
    }

    // No completion comes when the driver is lost: the streams that played answer MCS_NOTINITIALIZED then.
    void waitEnd()
    {
        std::unique_lock<std::mutex> hold(m_mutex);
        while (!m_ended.wait_for(hold, std::chrono::seconds(1), [this] { return m_nActive == 0; }))
        {
            hold.unlock();
            unsigned long ulMilliSeconds;
            for (auto& entry : m_legs)
                if (entry.first->playGetMilliSeconds(&ulMilliSeconds) == MCS_NOTINITIALIZED)
                    end(entry.second, MCS_NOTINITIALIZED);
            hold.lock();
        }
    }

    // Returns how many legs did not hear everything.
    int close(CZelMediaServices& services)
    {
        for (auto& entry : m_legs)
            services.closeMediaStream(entry.first);
        return m_nFailed;
    }

private:
    struct CLeg
    {
        unsigned long m_ulLeg = 0;
        size_t m_nPlayed = 0;  // files
        bool m_bEnded = false; // guarded by m_mutex
    };

    // Once a play is accepted its completion goes on, perhaps before this returns.
    void play(CZelMediaStream* pStream, CLeg& leg, size_t nFile)
    {
        if (nFile == m_vFiles.size())
            return end(leg, MCS_OK);
        const MCSTATUS mcstatus = pStream->playAddFile(&m_vFiles[nFile][0], 0, TIMEOUT_S, 0, 0, 0);
        if (mcstatus != MCS_OK)
            end(leg, mcstatus);
    }

    void end(CLeg& leg, MCSTATUS mcstatus)
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (leg.m_bEnded)
            return;
        leg.m_bEnded = true;
        std::printf("leg %lu: %s (%d)\n", leg.m_ulLeg, MCSTATUSToString(mcstatus), mcstatus);
        m_nFailed += mcstatus != MCS_OK;
        --m_nActive;
        m_ended.notify_all();
    }

    std::vector<std::string> m_vFiles;
    std::map<CZelMediaStream*, CLeg> m_legs;
    std::mutex m_mutex; // guards the two numbers while legs play
    std::condition_variable m_ended;
    int m_nActive = 0;
    int m_nFailed = 0;
};
} // namespace

int main(int argc, char** argv)
try
{
    if (argc < 4)
    {
        std::fprintf(stderr, "usage: conference_legs CALLID LEGS FILE...\n");
        return 2;
    }
    CConference conference(std::vector<std::string>(argv + 3, argv + argc)); // outlives the services
    CZelMediaServices services(&conference);
    const unsigned long ulLegs = std::strtoul(argv[2], nullptr, 10);
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    int nFailed = 0;
    for (unsigned long ulLeg = 1; ulLeg <= ulLegs; ++ulLeg)
    {
        CZelMediaStream* pStream = nullptr;
        int nStatus;
        while ((nStatus = services.openMediaStream(&pStream, argv[1], ulLeg)) == MCS_NOTCONNECTED &&
               std::chrono::steady_clock::now() < giveUp)
            std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the driver may still be starting
        if (nStatus == MCS_OK)
            conference.addLeg(pStream, ulLeg);
        else
            nFailed += std::printf("leg %lu: no channel, %s (%d)\n", ulLeg, MCSTATUSToString(nStatus), nStatus) > 0;
    }
    conference.start();
    conference.waitEnd();
    nFailed += conference.close(services);
    return nFailed > 0 ? 1 : 0;
}
catch (const OrvException& exception)
{
    std::fprintf(stderr, "conference_legs: no media services: %s\n", exception.what());
    return 1;
}
