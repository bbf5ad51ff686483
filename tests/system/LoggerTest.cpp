// The log file of a running library: the default one, and replacing it while threads write lines.
#include "SystemFixture.h"

#include <atomic>
#include <fstream>
#include <regex.h>
#include <stdexcept>
#include <sys/syscall.h>

namespace
{
using namespace OrvLogLib;

// What happened to the log files and registries of a test.
struct CHistory
{
    std::atomic<long> nLines{0};
    std::atomic<long> nLogsAlive{0};
    std::atomic<long> nRegistriesAlive{0};
    std::atomic<long> nLinesAfterDeath{0};
    std::atomic<long> nDeathsWithinALine{0};

    void died(const char* pszWhat)
    {
        std::lock_guard hold(m_mutex);
        m_vDeaths.push_back(pszWhat);
    }
    std::vector<std::string> deaths() const
    {
        std::lock_guard hold(m_mutex);
        return m_vDeaths;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_vDeaths;
};

// Tells when it is deleted while a thread is inside, or entered after that.
class CWatchedLog : public CLogFile
{
public:
    explicit CWatchedLog(CHistory& history)
        : CLogFile("Watched", nullptr, false, false, false), m_history(history), m_pState(std::make_shared<CState>())
    {
        ++m_history.nLogsAlive;
    }
    ~CWatchedLog() override
    {
        m_pState->bDead = true;
        if (m_pState->nInside != 0)
            ++m_history.nDeathsWithinALine;
        --m_history.nLogsAlive;
        m_history.died("log");
    }
    int LogStringArgListX(LogLib_Priority, const char*, const char*, va_list) override
    {
        const std::shared_ptr<CState> pState = m_pState; // survives what must not happen
        CHistory& history = m_history;
        ++pState->nInside;
        if (pState->bDead)
            ++history.nLinesAfterDeath;
        ++history.nLines;
        std::this_thread::yield();
        if (pState->bDead)
            ++history.nLinesAfterDeath;
        --pState->nInside;
        return 1;
    }

private:
    struct CState
    {
        std::atomic<bool> bDead{false};
        std::atomic<int> nInside{0};
    };
    CHistory& m_history;
    const std::shared_ptr<CState> m_pState;
};

class CWatchedRegistry : public CLogFileRegistry
{
public:
    CWatchedRegistry(CHistory& history, CLogFile* pLogFile)
        : CLogFileRegistry(pLogFile, "Watched", nullptr, nullptr, nullptr, 0, 1, 100, 1000, 3, 1023, 0, 1023, 0, 10000,
                           0, 1, 40000, 1, 0),
          m_history(history)
    {
        ++m_history.nRegistriesAlive;
    }
    ~CWatchedRegistry() override
    {
        --m_history.nRegistriesAlive;
        m_history.died("registry");
    }

private:
    CHistory& m_history;
};

// Threads that write lines without a pause, until the end of the scope.
class CWriters
{
public:
    CWriters(CZelMediaServices& services, int nThreads) : m_vLines(static_cast<size_t>(nThreads))
    {
        for (std::atomic<long>& nLines : m_vLines)
        {
            m_vThreads.emplace_back([&] {
                while (!m_bStop)
                {
                    services.setMinimumSilenceDuration(1);
                    ++nLines;
                }
            });
        }
    }
    ~CWriters()
    {
        m_bStop = true;
        for (std::thread& thread : m_vThreads)
            thread.join();
    }
    bool waitAllWrote() const
    {
        return waitUntil([&] {
            for (const std::atomic<long>& nLines : m_vLines)
                if (nLines == 0)
                    return false;
            return true;
        });
    }

private:
    std::vector<std::atomic<long>> m_vLines;
    std::vector<std::thread> m_vThreads;
    std::atomic<bool> m_bStop{false};
};

class CThrowingLog : public CLogFile
{
public:
    explicit CThrowingLog(std::atomic<long>& nLines)
        : CLogFile("Throwing", nullptr, false, false, false), m_nLines(nLines)
    {
    }
    int LogStringArgListX(LogLib_Priority, const char*, const char*, va_list) override
    {
        if (++m_nLines % 2 == 0)
            throw std::runtime_error("log");
        throw 1;
    }
    long ReportEventToWIN32Log(long, unsigned short, unsigned long, const char**, void*) override
    {
        throw std::runtime_error("alarm");
    }

private:
    std::atomic<long>& m_nLines;
};
} // namespace

class Logger : public CSystemTest
{
protected:
    void expectNoThreadMetADeletedLog() const
    {
        EXPECT_EQ(0, m_history.nDeathsWithinALine);
        EXPECT_EQ(0, m_history.nLinesAfterDeath);
    }

    ~Logger() override
    {
        // The event thread may write a line at any time: it must not find this test's history gone.
        m_pServices->setLogger(new CLogCapture(m_pLog), new CLogFileRegistry(nullptr, "", nullptr, nullptr, nullptr, 0,
                                                                             0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
    }

    CHistory m_history;
};

TEST_F(Logger, ThousandReplacementsWhileEightThreadsWriteNeverMeetADeletedLogFile)
{
    m_pServices->setLogger(new CWatchedLog(m_history), nullptr);
    const CWriters writers(*m_pServices, 8);
    ASSERT_TRUE(writers.waitAllWrote());
    for (int n = 0; n < 1000; ++n)
    {
        m_pServices->setLogger(new CWatchedLog(m_history), nullptr);
        ASSERT_EQ(1, m_history.nLogsAlive);
    }
    expectNoThreadMetADeletedLog();
    EXPECT_LT(0, m_history.nLines);
    EXPECT_EQ(1000u, m_history.deaths().size());
}

TEST_F(Logger, ReplacementsByManyThreadsDeleteEachLogFileOnce)
{
    {
        m_pServices->setLogger(new CWatchedLog(m_history), nullptr);
        const CWriters writers(*m_pServices, 2);
        std::vector<std::thread> vReplacers;
        for (int nThread = 0; nThread < 4; ++nThread)
        {
            vReplacers.emplace_back([this] {
                for (int n = 0; n < 100; ++n)
                    m_pServices->setLogger(new CWatchedLog(m_history), nullptr);
            });
        }
        for (std::thread& thread : vReplacers)
            thread.join();
    }
    expectNoThreadMetADeletedLog();
    EXPECT_EQ(400u, m_history.deaths().size());
    EXPECT_EQ(1, m_history.nLogsAlive);
}

TEST_F(Logger, LogFileIsReplacedWithoutItsRegistryAndThenTheRegistry)
{
    auto* const pLog = new CWatchedLog(m_history);
    m_pServices->setLogger(pLog, new CWatchedRegistry(m_history, pLog));
    const CWriters writers(*m_pServices, 4);
    ASSERT_TRUE(writers.waitAllWrote());
    m_pServices->setLogger(new CWatchedLog(m_history), nullptr);
    EXPECT_EQ((std::vector<std::string>{"log"}), m_history.deaths());
    // The registry outlives the log file that it was made for.
    m_pServices->setLogger(nullptr, new CWatchedRegistry(m_history, nullptr));
    EXPECT_EQ((std::vector<std::string>{"log", "registry"}), m_history.deaths());
    expectNoThreadMetADeletedLog();
}

TEST_F(Logger, RegistryIsReplacedWithoutItsLogFileAndThenTheLogFile)
{
    auto* const pLog = new CWatchedLog(m_history);
    m_pServices->setLogger(pLog, new CWatchedRegistry(m_history, pLog));
    const CWriters writers(*m_pServices, 4);
    ASSERT_TRUE(writers.waitAllWrote());
    m_pServices->setLogger(nullptr, new CWatchedRegistry(m_history, pLog));
    EXPECT_EQ((std::vector<std::string>{"registry"}), m_history.deaths());
    const long nLines = m_history.nLines;
    ASSERT_TRUE(waitUntil([&] { return m_history.nLines > nLines; }));
    m_pServices->setLogger(new CWatchedLog(m_history), nullptr);
    EXPECT_EQ((std::vector<std::string>{"registry", "log"}), m_history.deaths());
    expectNoThreadMetADeletedLog();
}

TEST_F(Logger, BothAreReplacedTheLogFileBeforeItsRegistry)
{
    auto* const pFirst = new CWatchedLog(m_history);
    m_pServices->setLogger(pFirst, new CWatchedRegistry(m_history, pFirst));
    auto* const pSecond = new CWatchedLog(m_history);
    m_pServices->setLogger(pSecond, new CWatchedRegistry(m_history, pSecond));
    EXPECT_EQ((std::vector<std::string>{"log", "registry"}), m_history.deaths());
}

TEST_F(Logger, NothingGivenReplacesNothing)
{
    auto* const pLog = new CWatchedLog(m_history);
    auto* const pRegistry = new CWatchedRegistry(m_history, pLog);
    m_pServices->setLogger(pLog, pRegistry);
    m_pServices->setLogger(nullptr, nullptr);
    m_pServices->setLogger(pLog, pRegistry);
    EXPECT_TRUE(m_history.deaths().empty());
    const long nLines = m_history.nLines;
    m_pServices->setMinimumSilenceDuration(1);
    EXPECT_LT(nLines, m_history.nLines);
}

TEST_F(Logger, LogFileThatThrowsLosesLinesAndAlarmsAndNothingElse)
{
    static std::atomic<long> s_nLines{0};
    m_pServices->setLogger(new CThrowingLog(s_nLines), nullptr);
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, play(pStream, "/p/2.wav"));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, 1));
    ASSERT_TRUE(m_completions.waitCount(2));
    EXPECT_EQ(MCS_OK, play(pStream, "/p/3.wav"));
    loseDriver(); // raises alarms
    ASSERT_TRUE(waitUntil([&] { return pStream->playGetInfo(nullptr) == MCS_NOTINITIALIZED; }));
    m_driver.start();
    ASSERT_TRUE(m_driver.waitCount(MICMD_CONNECT, 2));
    ASSERT_TRUE(waitUntil([&] { return tryOpen() == MCS_OK; }));
    EXPECT_LT(0, s_nLines);
}

namespace
{
std::vector<std::string> linesOfDefaultLog()
{
    std::vector<std::string> vLines;
    for (const char* const pszFolder : {"/var/log/zelmedia", "/tmp"})
    {
        std::ifstream file(std::string(pszFolder) + "/Media-p" + std::to_string(getpid()) + ".log");
        std::string strLine;
        while (std::getline(file, strLine))
            vLines.push_back(strLine);
    }
    return vLines;
}
} // namespace

TEST(DefaultLog, HasALineOfTheRightShapeForEachCall)
{
    CCompletions completions;
    CZelMediaServices services(&completions);
    services.setMinimumSilenceDuration(500);
    ASSERT_TRUE(waitUntil([] {
        for (const std::string& strLine : linesOfDefaultLog())
            if (strLine.find("can't open request pipe") != std::string::npos)
                return true;
        return false;
    }));
    const std::vector<std::string> vLines = linesOfDefaultLog();
    const std::string strMe = " p" + std::to_string(getpid()) + " t" + std::to_string(syscall(SYS_gettid)) + " ";
    const std::string strShape = "^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6} p" +
                                 std::to_string(getpid()) + " t[0-9]+ [0-9]+ .*$";
    regex_t shape;
    ASSERT_EQ(0, regcomp(&shape, strShape.c_str(), REG_EXTENDED | REG_NOSUB));
    std::vector<std::string> vMine;
    for (const std::string& strLine : vLines)
    {
        EXPECT_EQ(0, regexec(&shape, strLine.c_str(), 0, nullptr, 0)) << strLine;
        const size_t nText = strLine.find(strMe);
        if (nText != std::string::npos)
            vMine.push_back(strLine.substr(nText + strMe.size()));
    }
    regfree(&shape);
    EXPECT_EQ(
        (std::vector<std::string>{"2 CMIntf::initialize", "2 CZelMediaServicesImpl::setMinimumSilenceDuration d"}),
        vMine);
}

TEST(DefaultLog, IsDeletedByItsReplacementAndGetsNoMoreLines)
{
    CCompletions completions;
    const auto pLog = std::make_shared<CLogRecord>();
    CZelMediaServices services(&completions);
    services.setLogger(new CLogCapture(pLog), nullptr);
    const size_t nLines = linesOfDefaultLog().size();
    services.setMinimumSilenceDuration(500);
    ASSERT_TRUE(pLog->waitFor("setMinimumSilenceDuration d"));
    ASSERT_TRUE(pLog->waitFor("can't open request pipe", 2));
    EXPECT_EQ(nLines, linesOfDefaultLog().size());
    for (const std::string& strName : namesIn("/proc/self/fd"))
    {
        char szTarget[256] = {};
        if (readlink(("/proc/self/fd/" + strName).c_str(), szTarget, sizeof(szTarget) - 1) > 0)
            EXPECT_EQ(nullptr, strstr(szTarget, "Media-p")) << szTarget;
    }
}
