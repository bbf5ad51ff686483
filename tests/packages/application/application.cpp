// Plays a file on the channel of a call and says how it ended; has a log of its own: application CALLID FILE
#include <OrvException.h>
#include <OrvLogLib.h>
#include <ZelMediaServices.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <thread>

static std::atomic<int> s_nLines(0);

class CCountingLog : public OrvLogLib::CLogFile
{
public:
    CCountingLog() : CLogFile("application", nullptr, false, false, false) {}
    int LogStringArgListX(OrvLogLib::LogLib_Priority, const char*, const char*, va_list) override { return ++s_nLines; }
};

class CPlayer : public CZelMediaStreamCompletionHandler
{
public:
    std::promise<MCSTATUS> m_ended;
    void OnMediaStreamCompletion(CZelMediaStream*, MCSTATUS mcstatus, MCCOMPLETION_REASON) override
    {
        m_ended.set_value(mcstatus);
    }
};

int main(int argc, char** argv)
try
{
    if (argc != 3)
        return 2;
    CPlayer player;
    std::future<MCSTATUS> ended = player.m_ended.get_future();
    CZelMediaServices services(&player);
    services.setLogger(new CCountingLog, nullptr);
    CZelMediaStream* pStream = nullptr;
    MCSTATUS mcstatus = MCS_NOTCONNECTED;
    for (int nTry = 0; nTry < 600 && mcstatus == MCS_NOTCONNECTED; ++nTry)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        mcstatus = services.openMediaStream(&pStream, argv[1], 1);
    }
    if (mcstatus == MCS_OK)
        mcstatus = pStream->playAddFile(argv[2], 0, 60, 0, 0, 0);
    if (mcstatus == MCS_OK)
        mcstatus = ended.wait_for(std::chrono::seconds(90)) == std::future_status::ready ? ended.get() : MCS_NORESPONSE;
    services.closeMediaStream(pStream);
    std::printf("%d bits: %s, %s\n", static_cast<int>(sizeof(void*) * 8), MCSTATUSToString(mcstatus),
                s_nLines > 0 ? "logged" : "no line");
    return mcstatus;
}
catch (const OrvException& exception)
{
    std::fprintf(stderr, "application: %s\n", exception.what());
    return 1;
}
