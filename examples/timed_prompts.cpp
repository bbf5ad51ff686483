// Plays files one after the other and gives each so many seconds: what takes longer is skipped, the rest is heard.
//
//   timed_prompts SECONDS CALLID FILE...
//
// The files are opened by the media driver: give absolute paths.
#include "OrvException.h"
#include "ZelMediaServices.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{
const unsigned long LEG = 1;

class CEnds : public CZelMediaStreamCompletionHandler
{
public:
    // On the library's event thread.
    void OnMediaStreamCompletion(CZelMediaStream*, MCSTATUS mcstatus, MCCOMPLETION_REASON) override
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_dequeEnds.push_back(mcstatus);
        m_ended.notify_all();
    }

    // How the next play has ended. No completion comes when the driver is lost.
    MCSTATUS next(std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> hold(m_mutex);
        if (!m_ended.wait_for(hold, limit, [this] { return !m_dequeEnds.empty(); }))
            return MCS_NORESPONSE;
        const MCSTATUS mcstatus = m_dequeEnds.front();
        m_dequeEnds.pop_front();
        return mcstatus;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_ended;
    std::deque<MCSTATUS> m_dequeEnds;
};

void tell(const std::string& strWhat, int nStatus)
{
    std::printf("%s: %s\n", strWhat.c_str(), MCSTATUSToString(nStatus));
    std::fflush(stdout);
}

// Plays all files, and tells how each has ended.
//
// With MCS_TIMEDOUT the rest of the queue is gone, and the driver's own event for the play that it had to end is still
// to come: it drops whatever is queued by then, and nobody hears of it. So the next file is played alone. Events of a
// stream come in their order: once that play has ended by itself nothing old can follow, and the rest can be queued.
int playAll(CZelMediaStream& stream, CEnds& ends, std::vector<std::string>& vFiles, unsigned long ulSeconds)
{
    bool bAlone = false;
    size_t nQueued = 0;
    for (size_t nEnded = 0; nEnded < vFiles.size(); ++nEnded)
    {
        // Each is reported, so that it is known which one took too long.
        for (const size_t nEnd = bAlone ? nEnded + 1 : vFiles.size(); nQueued < nEnd; ++nQueued)
        {
            const int nStatus = stream.playAddFile(&vFiles[nQueued][0], 0, ulSeconds, 0, 0, 0);
            if (nStatus != MCS_OK)
            {
                tell(vFiles[nQueued], nStatus);
                return nStatus;
            }
        }
        // A time-out is looked after in the first quiet second behind it.
        const MCSTATUS mcstatus = ends.next(std::chrono::seconds(ulSeconds + 15));
        tell(vFiles[nEnded], mcstatus);
        if (mcstatus != MCS_OK && mcstatus != MCS_TIMEDOUT)
            return mcstatus;
        bAlone = mcstatus == MCS_TIMEDOUT;
        if (bAlone)
            nQueued = nEnded + 1;
    }
    return MCS_OK;
}

// The driver may still be starting: until the library is connected every request ends with MCS_NOTCONNECTED.
int openStream(CZelMediaServices& services, const std::string& strCallID, CZelMediaStream** ppStream)
{
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    int nStatus;
    while ((nStatus = services.openMediaStream(ppStream, strCallID, LEG)) == MCS_NOTCONNECTED &&
           std::chrono::steady_clock::now() < giveUp)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return nStatus;
}
} // namespace

int main(int argc, char** argv)
try
{
    const unsigned long ulSeconds = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 0;
    if (argc < 4 || ulSeconds == 0)
    {
        std::fprintf(stderr, "usage: timed_prompts SECONDS CALLID FILE...\n");
        return 2;
    }
    CEnds ends; // outlives the services
    CZelMediaServices services(&ends);
    CZelMediaStream* pStream = nullptr;
    int nStatus = openStream(services, argv[2], &pStream);
    if (nStatus != MCS_OK)
    {
        tell("no channel", nStatus);
        return 1;
    }
    std::vector<std::string> vFiles(argv + 3, argv + argc);
    nStatus = playAll(*pStream, ends, vFiles, ulSeconds);
    services.closeMediaStream(pStream);
    return nStatus == MCS_OK ? 0 : 1;
}
catch (const OrvException& exception)
{
    std::fprintf(stderr, "timed_prompts: no media services: %s\n", exception.what());
    return 1;
}
