// Plays a phrase on a call again and again, and goes on when the media driver is started anew meanwhile.
//
//   survive_restart PROMPTS ROUNDS [CALLID]
//
// PROMPTS is a folder with phrases.ul and phrases.index; the media driver opens the former: give an absolute
// path.
#include "PhraseBook.h"
#include "ZelMediaServices.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace
{
const unsigned long LEG = 1;
const unsigned long TIMEOUT_S = 60;
typedef std::chrono::steady_clock Clock;

void say(const std::string& strText)
{
    std::printf("%s\n", strText.c_str());
    std::fflush(stdout);
}

class CCaller : public CZelMediaStreamCompletionHandler
{
public:
    CCaller() = default;

    // On the library's event thread.
    void OnMediaStreamCompletion(CZelMediaStream*, MCSTATUS mcstatus, MCCOMPLETION_REASON) override
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_bEnded = true;
        m_mcstatus = mcstatus;
        m_ended.notify_all();
    }

    // Plays the phrase and waits for its end.
    int play(CZelMediaStream& stream, const CPhraseBook& phrases)
    {
        m_bEnded = false; // nothing plays now
        int nStatus = phrases.play(stream, "you-have", TIMEOUT_S, 0);
        while (nStatus == MCS_OK && !waitEnd(1))
        {
            // The play of a driver that is gone gets no completion. Any request tells whether the driver is there.
            unsigned long ulMilliSeconds;
            nStatus = stream.recordGetTimeMilliseconds(&ulMilliSeconds);
        }
        if (nStatus == MCS_OK)
            return m_mcstatus;
        waitEnd(2); // the event thread hears of it, too: the stream must not be closed before
        return nStatus;
    }

private:
    bool waitEnd(int nSeconds)
    {
        std::unique_lock<std::mutex> hold(m_mutex);
        return m_ended.wait_for(hold, std::chrono::seconds(nSeconds), [this] { return m_bEnded; });
    }

    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_bEnded = false;
    MCSTATUS m_mcstatus = MCS_OK;
};

// Whether the stream is worth nothing any more, and a new one will help in a while.
bool isDriverLost(int nStatus)
{
    switch (nStatus)
    {
    case MCS_NORESPONSE:        // it died, or hangs
    case MCS_PIPEREAD:          // it is gone
    case MCS_PIPEWRITE:         // the same
    case MCS_NOTCONNECTED:      // there is none yet
    case MCS_NOTINITIALIZED:    // the stream was lost with it
    case MCS_UNKNOWNPHRASEFILE: // the new one has not got our phrases open yet
    case MCS_REFUSED:           // the new one does not know the stream
        return true;
    default: return false;
    }
}

void callAgainAndAgain(CZelMediaServices& services, CCaller& caller, const CPhraseBook& phrases,
                       const std::string& strCallID, unsigned long ulRounds)
{
    CZelMediaStream* pStream = nullptr;
    Clock::time_point lastGood = Clock::now();
    for (unsigned long ulRound = 1; ulRound <= ulRounds;)
    {
        int nStatus = pStream ? MCS_OK : services.openMediaStream(&pStream, strCallID, LEG);
        if (nStatus == MCS_OK)
            nStatus = caller.play(*pStream, phrases);
        if (nStatus == MCS_OK)
        {
            say("round " + std::to_string(ulRound++) + ": played");
            lastGood = Clock::now();
            continue;
        }
        const bool bWasOpen = pStream != nullptr;
        if (bWasOpen)
            say(std::string("lost the channel: ") + MCSTATUSToString(nStatus));
        // Before another one is opened: a new driver gives out the same numbers again, and closing a stream of the
        // old one later would close that one. An application with many streams closes all of them here.
        services.closeMediaStream(pStream);
        pStream = nullptr;
        if (!isDriverLost(nStatus) || (nStatus == MCS_REFUSED && !bWasOpen) ||
            Clock::now() - lastGood > std::chrono::seconds(60))
            check("giving up", nStatus);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    services.closeMediaStream(pStream);
}
} // namespace

int main(int argc, char** argv)
try
{
    if (argc < 3 || argc > 4)
    {
        std::fprintf(stderr, "usage: survive_restart PROMPTS ROUNDS [CALLID]\n");
        return 2;
    }
    CCaller caller; // outlives the services
    CZelMediaServices services(&caller);
    const CPhraseBook phrases(services, argv[1]); // its id stays good: the library opens the file at each driver
    callAgainAndAgain(services, caller, phrases, argc > 3 ? argv[3] : "call", std::strtoul(argv[2], nullptr, 10));
    return 0;
}
catch (const std::exception& exception) // OrvException, too
{
    std::fprintf(stderr, "survive_restart: %s\n", exception.what());
    return 1;
}
