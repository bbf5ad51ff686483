// The library's log in the log of an application: plays a file, with lines and alarms in LOGFILE.
//
//   own_log FILE LOGFILE [CALLID]
//
// The media driver opens FILE: give an absolute path. What the library says before it has this log, when the first
// services object is made, is in its own file: Media-p<process id>.log.
#include "OrvException.h"
#include "OrvLogLib.h"
#include "ZelMediaServices.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace
{
const unsigned long LEG = 1;
const unsigned long TIMEOUT_S = 60;

// The application's log, which has been there before.
class CApplicationLog
{
public:
    explicit CApplicationLog(const char* pszFile) : m_pFile(std::fopen(pszFile, "a"))
    {
        if (!m_pFile)
            throw std::runtime_error(std::string("cannot open ") + pszFile);
    }
    CApplicationLog(const CApplicationLog&) = delete;
    CApplicationLog& operator=(const CApplicationLog&) = delete;

    void write(const char* pszLevel, const std::string& strText)
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        std::fprintf(m_pFile, "%-5s %s\n", pszLevel, strText.c_str());
        std::fflush(m_pFile);
    }

private:
    std::mutex m_mutex;
    std::FILE* m_pFile;
};

// Its operations are called on any thread, several at a time, and must not call the library.
class CMediaLog : public OrvLogLib::CLogFile
{
public:
    // No file of its own. Trace class 1 has the events in the library's life and errors, 8 has the operations.
    explicit CMediaLog(CApplicationLog& log) : CLogFile("Media", nullptr, false, false, false), m_log(log)
    {
        setTraceMask(1 | 8);
    }

    int LogStringArgListX(OrvLogLib::LogLib_Priority priority, const char* pszFormat, const char*,
                          va_list arguments) override
    {
        char szText[1024];
        const int nLength = std::vsnprintf(szText, sizeof(szText), pszFormat, arguments);
        // Priority LogLib_High has dumps and answers, too: errors say so.
        const char* const pszLevel = std::strstr(szText, "(Error)")      ? "ERROR"
                                     : priority == OrvLogLib::LogLib_Low ? "DEBUG"
                                                                         : "INFO";
        std::string strText(szText);
        strText.erase(strText.find_last_not_of(" \n") + 1);
        m_log.write(pszLevel, "media: " + strText);
        return nLength;
    }

    // What an operator should see at once.
    long ReportEventToWIN32Log(long, unsigned short nStrings, unsigned long, const char** ppszStrings, void*) override
    {
        m_log.write("ALARM", std::string("media: ") + (nStrings > 0 ? ppszStrings[0] : ""));
        return 1;
    }

private:
    CApplicationLog& m_log;
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

// The play of a driver that is gone gets no completion. Any request tells whether the driver is there.
int waitEnd(CZelMediaStream& stream, std::future<MCSTATUS> ended)
{
    unsigned long ulMilliSeconds;
    int nStatus = MCS_OK;
    while (nStatus == MCS_OK && ended.wait_for(std::chrono::milliseconds(500)) != std::future_status::ready)
        nStatus = stream.recordGetTimeMilliseconds(&ulMilliSeconds);
    if (nStatus == MCS_OK)
        return ended.get();
    ended.wait_for(std::chrono::seconds(2)); // the event thread hears of it, too: no stream is closed before
    return nStatus;
}
} // namespace

int main(int argc, char** argv)
try
{
    if (argc < 3 || argc > 4)
    {
        std::fprintf(stderr, "usage: own_log FILE LOGFILE [CALLID]\n");
        return 2;
    }
    // The connection, and with it the log, lives until the process ends: it is never deleted.
    CApplicationLog& log = *new CApplicationLog(argv[2]);
    CPlayer player;
    CZelMediaServices services(&player);
    services.setLogger(new CMediaLog(log), nullptr); // from here on the library's

    log.write("INFO", "application: opening the channel");
    CZelMediaStream* pStream = nullptr;
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    int nStatus;
    while ((nStatus = services.openMediaStream(&pStream, argc > 3 ? argv[3] : "call", LEG)) == MCS_NOTCONNECTED &&
           std::chrono::steady_clock::now() < giveUp)
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the driver may still be starting
    if (nStatus == MCS_OK)
        nStatus = pStream->playAddFile(argv[1], 0, TIMEOUT_S, 0, 0, 0);
    if (nStatus == MCS_OK)
        nStatus = waitEnd(*pStream, player.m_ended.get_future());
    services.closeMediaStream(pStream);
    log.write(nStatus == MCS_OK ? "INFO" : "ERROR",
              std::string("application: ended with ") + MCSTATUSToString(nStatus));
    return nStatus == MCS_OK ? 0 : 1;
}
catch (const std::exception& exception) // OrvException, too
{
    std::fprintf(stderr, "own_log: %s\n", exception.what());
    return 1;
}
