// Tests of processes that fork while their lines are collected.
#include "LogCollectingFixture.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/wait.h>
#include <thread>

using namespace logtest;
using namespace OrvLogLib;
using testing::SizeIs;

namespace
{
class LogFork : public LogCollectingFixture
{
};

// Instead of hanging for ever.
void endSoon()
{
    signal(SIGALRM, SIG_DFL);
    alarm(30);
}
} // namespace

TEST_F(LogFork, ChildWritesItsLinesAtOnceAndLeavesThoseOfItsParentAlone)
{
    const auto pLog = makeCollectingLog();
    logNumbers(*pLog, 0, 10);
    EXPECT_EQ(inChild([&] {
                  endSoon();
                  EXPECT_GT(pLog->TraceString(TRACE, LogLib_Normal, "child"), 0);
                  EXPECT_EQ(texts().back(), "child");
                  static CLogFile* const s_pLog = makeLog().release(); // ends with the process, too
                  EXPECT_GT(s_pLog->TraceString(TRACE, LogLib_Normal, "new log of the child"), 0);
                  EXPECT_TRUE(exists(m_strPending));
                  exit(HasFailure() ? 1 : 0);
              }),
              0);
    logNumbers(*pLog, 10, 10);
    EXPECT_TRUE(exists(m_strPending));
    pLog->flush();
    std::vector<std::string> vTexts = texts();
    std::erase(vTexts, "child");
    std::erase(vTexts, "new log of the child");
    EXPECT_EQ(vTexts, numbers(0, 20));
    EXPECT_THAT(texts(), SizeIs(22));
}

TEST_F(LogFork, LinesOfAParentThatEndsLikeADaemonAreInTheFile)
{
    int anPipe[2]; // open as long as the daemon lives
    ASSERT_EQ(pipe(anPipe), 0);
    inChild([&] {
        auto pLog = makeCollectingLog();
        logNumbers(*pLog, 0, 10);
        const pid_t nParent = getpid();
        if (fork() != 0)
            endChild(0);
        while (getppid() == nParent)
            sched_yield();
        logNumbers(*pLog, 10, 10);
        pLog.reset();
    });
    close(anPipe[1]);
    char c;
    EXPECT_EQ(read(anPipe[0], &c, 1), 0);
    close(anPipe[0]);
    EXPECT_EQ(texts(), numbers(0, 20));
}

TEST_F(LogFork, LinesShowTheIDsOfTheirProcess)
{
    const auto pLog = makeCollectingLog();
    logNumbers(*pLog, 0, 1);
    const auto ids = [](pid_t nProcess) {
        return " p" + std::to_string(nProcess) + " t" + std::to_string(nProcess) + " 2 ";
    };
    inChild([&] {
        logNumbers(*pLog, 1, 1);
        EXPECT_NE(linesOf(m_strLog).back().find(ids(getpid())), std::string::npos);
        inChild([&] {
            logNumbers(*pLog, 2, 1);
            EXPECT_NE(linesOf(m_strLog).back().find(ids(getpid())), std::string::npos);
        });
    });
    logNumbers(*pLog, 3, 1);
    pLog->flush();
    EXPECT_NE(linesOf(m_strLog).back().find(ids(getpid())), std::string::npos);
}

TEST_F(LogFork, ManyChildrenOfAProcessWhoseThreadsAreLogging)
{
    constexpr int THREADS = 3;
    constexpr int CHILDREN = 100;
    auto pLog = makeCollectingLog();
    std::atomic<bool> bStop{false};
    std::atomic<int> nMayLog{0}; // lines of each thread: some for each child
    std::atomic<int> anLines[THREADS] = {};
    std::vector<std::thread> vThreads;
    for (int nThread = 0; nThread < THREADS; ++nThread)
        vThreads.emplace_back([&, nThread] {
            while (!bStop)
                if (anLines[nThread] >= nMayLog)
                    std::this_thread::yield();
                else
                    pLog->TraceString(TRACE, LogLib_Normal, "%d %d", nThread, anLines[nThread]++);
        });
    for (int n = 0; n < CHILDREN && !HasFailure(); ++n)
    {
        nMayLog += 300;
        EXPECT_EQ(inChild([&] {
                      endSoon();
                      EXPECT_GT(pLog->TraceString(TRACE, LogLib_Normal, "child %d of %d", n, getpid()), 0);
                  }),
                  0);
    }
    bStop = true;
    for (std::thread& thread : vThreads)
        thread.join();
    pLog.reset();

    int anNext[THREADS] = {};
    int nNextChild = 0;
    for (const std::string& strLine : linesOf(m_strLog))
    {
        const std::string strText = textOf(strLine);
        int nFirst = 0;
        int nSecond = 0;
        if (sscanf(strText.c_str(), "child %d of %d", &nFirst, &nSecond) == 2)
        {
            EXPECT_EQ(nFirst, nNextChild++);
            EXPECT_NE(strLine.find(" p" + std::to_string(nSecond) + " "), std::string::npos) << strLine;
        }
        else if (strText != "filler")
        {
            ASSERT_EQ(sscanf(strText.c_str(), "%d %d", &nFirst, &nSecond), 2) << strLine;
            ASSERT_EQ(nSecond, anNext[nFirst]++) << strLine;
        }
    }
    EXPECT_EQ(nNextChild, CHILDREN);
    for (int nThread = 0; nThread < THREADS; ++nThread)
        EXPECT_EQ(anNext[nThread], anLines[nThread]);
    EXPECT_FALSE(exists(m_strPending));
}
