// Plays a file on a call and tells how it ended.
//
//   play_file FILE [CALLID]
//
// FILE is opened by the media driver: give an absolute path.
#include "OrvException.h"
#include "ZelMediaServices.h"

#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <thread>

namespace
{
const unsigned long LEG = 1;
const unsigned long TIMEOUT_S = 600;

class CPlayer : public CZelMediaStreamCompletionHandler
{
public:
    std::future<MCSTATUS> ended() { return m_ended.get_future(); }

    // On the library's event thread. It is called once, as there is one play.
    void OnMediaStreamCompletion(CZelMediaStream*, MCSTATUS mcstatus, MCCOMPLETION_REASON) override
    {
        m_ended.set_value(mcstatus);
    }

private:
    std::promise<MCSTATUS> m_ended;
};

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

// No completion comes when the driver is lost: the stream answers MCS_NOTINITIALIZED from then on.
int waitEnd(CZelMediaStream& stream, std::future<MCSTATUS>& ended)
{
    while (ended.wait_for(std::chrono::seconds(1)) != std::future_status::ready)
    {
        unsigned long ulMilliSeconds = 0;
        const int nStatus = stream.playGetMilliSeconds(&ulMilliSeconds);
        if (nStatus != MCS_OK)
            return nStatus;
        std::printf("  %lu.%lu s\n", ulMilliSeconds / 1000, ulMilliSeconds / 100 % 10);
        std::fflush(stdout);
    }
    return ended.get();
}

int fail(const char* pszWhat, int nStatus)
{
    std::fprintf(stderr, "play_file: %s: %s (%d)\n", pszWhat, MCSTATUSToString(nStatus), nStatus);
    return 1;
}
} // namespace

int main(int argc, char** argv)
try
{
    if (argc < 2 || argc > 3)
    {
        std::fprintf(stderr, "usage: play_file FILE [CALLID]\n");
        return 2;
    }
    CPlayer player; // outlives the services
    std::future<MCSTATUS> ended = player.ended();
    CZelMediaServices services(&player);
    CZelMediaStream* pStream = nullptr;
    int nStatus = openStream(services, argc > 2 ? argv[2] : "play", &pStream);
    if (nStatus != MCS_OK)
        return fail("no channel", nStatus);

    nStatus = pStream->playAddFile(argv[1], 0, TIMEOUT_S, 0, 0, 0);
    if (nStatus == MCS_OK)
    {
        std::printf("playing %s\n", argv[1]);
        std::fflush(stdout);
        nStatus = waitEnd(*pStream, ended);
    }
    unsigned long ulMilliSeconds = 0;
    pStream->playGetMilliSeconds(&ulMilliSeconds);
    services.closeMediaStream(pStream);
    if (nStatus != MCS_OK)
        return fail(argv[1], nStatus);
    std::printf("played %lu ms: %s\n", ulMilliSeconds, MCSTATUSToString(nStatus));
    return 0;
}
catch (const OrvException& exception)
{
    std::fprintf(stderr, "play_file: no media services: %s\n", exception.what());
    return 1;
}
