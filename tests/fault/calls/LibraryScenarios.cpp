// The scenarios of an application: from the start of the library to its stop.
#include "LibraryScenario.h"
#include "OrvLogLib.h"

#include <new>
#include <string>
#include <thread>

namespace
{
class CStart : public CLibraryScenario
{
public:
    void prepare() override { m_driver.start(); }
    void run() override
    {
        start();
        play(connect());
        waitCompletions(1);
    }
};

class CConnectLate : public CLibraryScenario
{
public:
    void run() override
    {
        start();
        const unsigned long ulFileID = openPhraseFile("/p/a.ul", MCS_NOTCONNECTED);
        m_driver.start();
        CZelMediaStream* const pStream = connect();
        waitFor([&] { return m_driver.count(MICMD_OPENFILE) > 0; });
        playPhrase(pStream, ulFileID);
        waitCompletions(1);
    }
};

class CPrepared : public CLibraryScenario
{
public:
    void prepare() override { m_pStream = startedStream(); }

protected:
    CZelMediaStream* m_pStream = nullptr;
};

class CPlay : public CPrepared
{
public:
    void run() override
    {
        CZelMediaStream* const pOther = open();
        play(m_pStream);
        waitCompletions(1);
        play(pOther);
        unsigned long ulPlayed = 0;
        call("playGetMilliSeconds", [&] { return m_pStream->playGetMilliSeconds(&ulPlayed); });
        if (waitCompletions(2))
            close(m_pStream);
    }
};

class CQueue : public CPrepared
{
public:
    void run() override
    {
        hold();
        play(m_pStream, LONG, 1);
        play(m_pStream, LONG, 1);
        play(m_pStream);
        record(m_pStream);
        record(m_pStream);
        release();
        waitCompletions(1);
    }
};

class CCancel : public CPrepared
{
public:
    void run() override
    {
        hold();
        play(m_pStream);
        play(m_pStream);
        call("playCancel", [&] { return m_pStream->playCancel(); });
        waitCompletions(1);
        call("playCancel", [&] { return m_pStream->playCancel(); });
    }
};

class CRecord : public CPrepared
{
public:
    void run() override
    {
        hold();
        record(m_pStream);
        unsigned long ulRecorded = 0;
        call(
            "recordGetTimeMilliseconds", [&] { return m_pStream->recordGetTimeMilliseconds(&ulRecorded); });
        const int nStatus = inside([&] { return m_pStream->recordGetStatus(); });
        if (nStatus != 1) // which is the driver's own
            expect("recordGetStatus", nStatus, 1);
        call("recordCancel", [&] { return m_pStream->recordCancel(); });
        close(m_pStream);
    }
};

class CPhrase : public CPrepared
{
public:
    void run() override
    {
        const unsigned long ulFileID = openPhraseFile("/p/a.ul");
        playPhrase(m_pStream, ulFileID);
        waitCompletions(1);
        hold(); // a recording that has ended before the call returns is reported by reason 0 as well
        recordWithPrompt(m_pStream, ulFileID);
        release();
        waitCompletions(2);
        call("closePhraseFile", [&] { return m_services->closePhraseFile(ulFileID); });
    }
};

class CReconnect : public CPrepared
{
public:
    void prepare() override
    {
        CPrepared::prepare();
        m_ulFileID = openPhraseFile("/p/a.ul");
        hold();
        play(m_pStream);
        play(m_pStream);
        record(m_pStream);
    }
    void run() override
    {
        m_driver.die();
        forgetHeld();
        dump(MCS_PIPEWRITE);
        m_driver.start();
        waitFor([&] { return m_driver.count(MICMD_OPENFILE) > 1; });
        CZelMediaStream* const pStream = connect();
        playPhrase(pStream, m_ulFileID);
        waitCompletions(1);
    }

private:
    unsigned long m_ulFileID = 0;
};

class CTimeOut : public CPrepared
{
public:
    void run() override
    {
        hold();
        play(m_pStream, 1);
        play(m_pStream, 1);
        record(m_pStream, 1);
        waitCompletions(2);
    }
    void end() override
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(isFaulty() ? 100 : 0)); // the last one may time out now
        CPrepared::end();
    }
};

class CNoAnswer : public CPrepared
{
public:
    void run() override
    {
        hold();
        play(m_pStream);
        m_driver.ignore(MICMD_RECORDGETTIME);
        faults::setAnswerWait(30);
        unsigned long ulRecorded = 0;
        call(
            "recordGetTimeMilliseconds", [&] { return m_pStream->recordGetTimeMilliseconds(&ulRecorded); },
            MCS_NORESPONSE);
        faults::setAnswerWait(5000);
        waitCompletions(1);
    }
};

// An answer that came too late is skipped, but an answer other than a plain status does not count behind it.
// Where it is the connect that meets it, nothing is left but to start anew, as the check does.
class CLateAnswer : public CPrepared
{
public:
    CLateAnswer() { m_bLateAnswers = true; }
    void run() override
    {
        answerLate();
        unsigned long ulRecorded = 0;
        call(
            "recordGetTimeMilliseconds", [&] { return m_pStream->recordGetTimeMilliseconds(&ulRecorded); },
            MCS_NORESPONSE);
        answerLate();
        dump();
        answerLate();
        m_driver.die();
        dump(MCS_PIPEWRITE);
        const size_t nConnects = m_driver.count(MICMD_CONNECT);
        m_driver.start();
        waitFor([&] { return m_driver.count(MICMD_CONNECT) > nConnects; });
        dump(MCS_NOTCONNECTED);
    }

private:
    void answerLate()
    {
        m_driver.ignore(MICMD_RECORDGETTIME);
        faults::setAnswerWait(30);
        unsigned long ulRecorded = 0;
        call(
            "recordGetTimeMilliseconds", [&] { return m_pStream->recordGetTimeMilliseconds(&ulRecorded); },
            MCS_NORESPONSE);
        faults::setAnswerWait(5000);
        m_driver.acceptAgain(MICMD_RECORDGETTIME);
        const std::vector<structMICMD> vRequests = m_driver.requests(MICMD_RECORDGETTIME);
        if (!vRequests.empty())
            m_driver.accept(vRequests.back());
    }
};

class CPing : public CPrepared
{
public:
    void run() override
    {
        faults::advanceClock(21000);
        waitFor([&] { return m_driver.count(MICMD_PING) > 0; });
    }
};

class CDump : public CPrepared
{
public:
    void run() override
    {
        hold();
        play(m_pStream);
        play(m_pStream);
        dump();
        release();
        waitCompletions(2);
    }
};

// The application's own log instead of the library's.
class CSetLogger : public CPrepared
{
public:
    void run() override
    {
        setLogger("Media-p1.log");
        play(m_pStream);
        waitCompletions(1);
        setLogger("Media-p2.log");
        dump();
    }

private:
    void setLogger(const char* pszName)
    {
        const std::string strPath = std::string("/tmp/") + pszName;
        inside([&] {
            auto* const pLogFile = new (std::nothrow) OrvLogLib::CLogFile("Own", strPath.c_str(), false, false, true);
            m_services->setLogger(pLogFile, nullptr);
            return MCS_OK;
        });
    }
};

class CStop : public CPrepared
{
public:
    void prepare() override
    {
        CPrepared::prepare();
        openPhraseFile("/p/a.ul");
        hold();
        play(m_pStream);
        play(m_pStream);
        record(m_pStream);
    }
    void run() override { stop(); }
};

template <class SCENARIO> CScenarioEntry entry(const char* pszName)
{
    return {pszName, [] { return std::unique_ptr<CScenario>(std::make_unique<SCENARIO>()); }};
}
} // namespace

std::vector<CScenarioEntry> libraryScenarios()
{
    return {entry<CStart>("Start"),       entry<CConnectLate>("ConnectLate"), entry<CPlay>("Play"),
            entry<CQueue>("Queue"),       entry<CCancel>("Cancel"),           entry<CRecord>("Record"),
            entry<CPhrase>("Phrase"),     entry<CReconnect>("Reconnect"),     entry<CTimeOut>("TimeOut"),
            entry<CNoAnswer>("NoAnswer"), entry<CLateAnswer>("LateAnswer"),   entry<CPing>("Ping"),
            entry<CDump>("Dump"),         entry<CSetLogger>("SetLogger"),     entry<CStop>("Stop")};
}
