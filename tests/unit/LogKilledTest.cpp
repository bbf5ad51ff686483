// Tests of processes that are killed while they collect lines.
#include "LogCollectingFixture.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <gmock/gmock.h>
#include <numeric>
#include <random>
#include <sched.h>
#include <thread>

using namespace logtest;
using namespace OrvLogLib;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

namespace
{
constexpr int MAX_THREADS = 4;
constexpr int MAX_LINES = 50000;

// Lines that were logged and whose calls have returned, by thread.
struct CReturned
{
    std::atomic<int> anLines[MAX_THREADS];

    int sum() const { return std::accumulate(anLines, anLines + MAX_THREADS, 0); }
};

class LogKilled : public LogCollectingFixture
{
protected:
    // Logs "<thread> <number>" many times and waits for the end.
    static void logOnThread(CLogFile& log, CReturned& returned, int nThread)
    {
        for (int n = 0; n < MAX_LINES; ++n)
        {
            log.TraceString(TRACE, LogLib_Normal, "%d %d", nThread, n);
            returned.anLines[nThread] = n + 1;
        }
        for (;;)
            pause();
    }

    // Lines of each thread in order, each once, at least those whose calls had returned. Returns texts
    // of other lines.
    static std::vector<std::string> checkThreads(const std::string& strPath, const CReturned& returned)
    {
        std::vector<std::string> vOthers;
        int anNext[MAX_THREADS] = {};
        int nDisorder = 0;
        for (const std::string& strText : textsIn(strPath))
        {
            int nThread = 0;
            int n = 0;
            if (sscanf(strText.c_str(), "%d %d", &nThread, &n) == 2)
                nDisorder += n != anNext[nThread]++;
            else
                vOthers.push_back(strText);
        }
        EXPECT_EQ(nDisorder, 0);
        for (int nThread = 0; nThread < MAX_THREADS; ++nThread)
        {
            EXPECT_GE(anNext[nThread], returned.anLines[nThread]) << nThread;
            EXPECT_LE(anNext[nThread], returned.anLines[nThread] + 1) << nThread;
        }
        return vOthers;
    }

    // Starts a process that logs until it is killed.
    void startLogging(CChild& child, CReturned& returned, int nThreads, bool bProcessID = false) const
    {
        startChild(
            child,
            [&] {
                const auto pLog = makeLog(bProcessID);
                for (int nThread = 1; nThread < nThreads; ++nThread)
                    std::thread([&, nThread] { logOnThread(*pLog, returned, nThread); }).detach();
                logOnThread(*pLog, returned, 0);
                FAIL();
            });
    }

    static void killAfter(CChild& child, const CReturned& returned, int nLines, int nMicroseconds)
    {
        while (returned.sum() < nLines)
            sched_yield();
        std::this_thread::sleep_for(std::chrono::microseconds(nMicroseconds));
        child.signal(SIGKILL);
        EXPECT_EQ(signalOf(child), SIGKILL);
    }

    int random(int nMost) { return std::uniform_int_distribution<int>(0, nMost)(m_random); }

    const unsigned int m_uSeed = std::random_device()();
    std::mt19937 m_random{m_uSeed};
};

class LogKilledAtRandom : public LogKilled, public testing::WithParamInterface<int>
{
};
} // namespace

TEST_P(LogKilledAtRandom, LosesNoLineWhoseCallHasReturnedAndDoublesNone)
{
    SCOPED_TRACE("seed " + std::to_string(m_uSeed));
    int nWithPending = 0;
    for (int nRound = 0; nRound < 15 && !HasFailure(); ++nRound)
    {
        const CShared<CReturned> returned;
        CChild child;
        startLogging(child, *returned, GetParam());
        killAfter(child, *returned, DIRECT_LINES + random(5000), random(500));
        nWithPending += exists(m_strPending);
        const auto pLog = makeLog();
        EXPECT_GT(pLog->TraceString(TRACE, LogLib_Normal, "next process"), 0);
        EXPECT_THAT(checkThreads(m_strLog, *returned), ElementsAre("next process"));
        EXPECT_THAT(contentOf(m_strLog), EndsWith(" next process\n"));
        EXPECT_FALSE(exists(m_strPending));
        unlink(m_strLog.c_str());
    }
    EXPECT_GT(nWithPending, 7);
}

INSTANTIATE_TEST_SUITE_P(Threads, LogKilledAtRandom, testing::Values(1, 4));

TEST_F(LogKilled, LinesOfProcessesWithOtherIDsAreRecoveredUnlessTheyLive)
{
    const CShared<CReturned> killed;
    const CShared<CReturned> living;
    CChild killedChild;
    CChild livingChild;
    startLogging(killedChild, *killed, 1, true);
    startLogging(livingChild, *living, 1, true);
    const pid_t nKilled = killedChild.processID();
    const pid_t nLiving = livingChild.processID();
    while (living->sum() < DIRECT_LINES + 100)
        sched_yield();
    livingChild.freeze();
    killAfter(killedChild, *killed, DIRECT_LINES + 100, 0);
    const auto pathOf = [&](pid_t nProcess) { return path("Media-p") + std::to_string(nProcess) + ".log"; };
    EXPECT_TRUE(exists(pathOf(nKilled) + ".pending"));
    EXPECT_TRUE(exists(pathOf(nLiving) + ".pending"));
    const uintmax_t ullLivingSize = std::filesystem::file_size(pathOf(nLiving));

    const auto pLog = makeLog(true);
    EXPECT_GT(pLog->TraceString(TRACE, LogLib_Normal, "next process"), 0);
    EXPECT_THAT(textsIn(pathOf(getpid())), ElementsAre("next process"));
    EXPECT_THAT(checkThreads(pathOf(nKilled), *killed), IsEmpty());
    EXPECT_FALSE(exists(pathOf(nKilled) + ".pending"));
    EXPECT_TRUE(exists(pathOf(nLiving) + ".pending"));
    EXPECT_EQ(std::filesystem::file_size(pathOf(nLiving)), ullLivingSize);

    livingChild.signal(SIGCONT);
    killAfter(livingChild, *living, living->sum(), 0);
    const auto pNext = makeLog(true);
    EXPECT_GT(pNext->TraceString(TRACE, LogLib_Normal, "next process"), 0);
    EXPECT_THAT(checkThreads(pathOf(nLiving), *living), IsEmpty());
}

TEST_F(LogKilled, LinesAreRecoveredBeforeTheOldFileIsRotatedOrEmptied)
{
    for (const bool bStartFresh : {false, true})
    {
        const CShared<CReturned> returned;
        CChild child;
        startLogging(child, *returned, 1);
        killAfter(child, *returned, DIRECT_LINES + 100, 0);
        m_settings.nStartFresh = bStartFresh;
        CLogFile log("Media", "Media", !bStartFresh, false, false);
        log.applySettings(m_settings);
        EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "next process"), 0);
        EXPECT_THAT(texts(), ElementsAre("next process"));
        EXPECT_FALSE(exists(m_strPending));
        if (bStartFresh)
            checkThreads(m_strLog + ".1", *returned);
        m_settings.nStartFresh = 0;
    }
}

TEST_F(LogKilled, LinesOfALogWithAPathOfItsOwnAreRecovered)
{
    const std::string strPath = path("any.name");
    inChild([&] {
        CLogFile log("Media", strPath.c_str(), false, true, false);
        startCollecting(log);
        logNumbers(log, 0, 50);
        raise(SIGKILL);
    });
    EXPECT_TRUE(exists(strPath + ".pending"));
    CLogFile log("Media", strPath.c_str(), false, true, false);
    logNumbers(log, 50, 1);
    EXPECT_EQ(textsIn(strPath), numbers(0, 51));
    EXPECT_FALSE(exists(strPath + ".pending"));
}

TEST_F(LogKilled, SecondLogFileOfOnePathInAProcessCollectsNothing)
{
    auto pFirst = makeCollectingLog();
    auto pSecond = makeCollectingLog();
    for (int n = 0; n < 1000; ++n)
    {
        EXPECT_GT(pFirst->TraceString(TRACE, LogLib_Normal, "0 %d", n), 0);
        const uintmax_t ullSize = logSize();
        EXPECT_GT(pSecond->TraceString(TRACE, LogLib_Normal, "1 %d", n), 0);
        ASSERT_GT(logSize(), ullSize);
    }
    pFirst.reset();
    EXPECT_FALSE(exists(m_strPending));
    EXPECT_GT(pSecond->TraceString(TRACE, LogLib_Normal, "1 1000"), 0);
    EXPECT_TRUE(exists(m_strPending)) << "now it can";
    pSecond.reset();
    const CShared<CReturned> returned;
    returned->anLines[0] = 1000;
    returned->anLines[1] = 1001;
    EXPECT_THAT(checkThreads(m_strLog, *returned), IsEmpty());
}
