// Tests of lines that come fast: when they are collected, and when they are moved into the file.
#include "LogCollectingFixture.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <gmock/gmock.h>
#include <map>
#include <sys/stat.h>
#include <thread>

using namespace logtest;
using namespace OrvLogLib;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{
class LogCollecting : public LogCollectingFixture
{
};
} // namespace

TEST_F(LogCollecting, TenThousandLinesInOneGoAreInTheFileAtOnce)
{
    const auto pLog = makeLog();
    uintmax_t ullSize = 0;
    for (int n = 0; n <= DIRECT_LINES; ++n)
    {
        ASSERT_FALSE(exists(m_strPending)) << n;
        ullSize += static_cast<uintmax_t>(logNumber(*pLog, n));
        ASSERT_EQ(logSize(), ullSize) << n;
    }
    EXPECT_GT(logNumber(*pLog, 1), 0);
    EXPECT_EQ(logSize(), ullSize) << "it is collected";
    EXPECT_TRUE(exists(m_strPending));
}

TEST_F(LogCollecting, EightLinesEachMillisecondAreInTheFileAtOnceForEver)
{
    const auto pLog = makeLog();
    uintmax_t ullSize = 0;
    for (int n = 0; n < 20000; ++n)
    {
        if (n % 8 == 0)
            advanceClock(1);
        ullSize += static_cast<uintmax_t>(logNumber(*pLog, n));
        ASSERT_EQ(logSize(), ullSize) << n;
    }
    EXPECT_FALSE(exists(m_strPending));
}

TEST_F(LogCollecting, SlowLinesAfterFastOnesAreInTheFileAtOnce)
{
    for (const bool bFlush : {false, true})
    {
        auto pLog = makeCollectingLog();
        logNumbers(*pLog, 0, 5);
        if (bFlush)
            pLog->flush();
        advanceClock(32);
        logNumbers(*pLog, 5, 1);
        ASSERT_EQ(texts(), numbers(0, 6)) << bFlush;
        for (int n = 6; n < 1000; ++n)
        {
            const uintmax_t ullSize = logSize();
            const int nWritten = logNumber(*pLog, n);
            ASSERT_EQ(logSize(), ullSize + static_cast<uintmax_t>(nWritten)) << n << bFlush;
            advanceClock(n % 8 == 0);
        }
        pLog.reset();
        unlink(m_strLog.c_str());
    }
}

TEST_F(LogCollecting, LinesAreMovedByTheFirstLineAfterThirtyTwoMilliseconds)
{
    const auto pLog = makeCollectingLog();
    logNumbers(*pLog, 0, 3);
    advanceClock(31);
    logNumbers(*pLog, 3, 1);
    EXPECT_THAT(texts(), IsEmpty());
    advanceClock(1);
    logNumbers(*pLog, 4, 1);
    EXPECT_EQ(texts(), numbers(0, 5));
}

TEST_F(LogCollecting, LinesAreMovedInTimeAlsoWhenTheyGoOnComingFast)
{
    const auto pLog = makeCollectingLog();
    int n = 0;
    for (int nTime = 0; nTime < 100; ++nTime)
    {
        logNumbers(*pLog, n, 20);
        n += 20;
        if (nTime % 20 == 0)
            EXPECT_GE(texts().size() + 20 * 33, static_cast<size_t>(n)) << nTime;
        advanceClock(1);
    }
    pLog->flush();
    EXPECT_EQ(texts(), numbers(0, n));
}

TEST_F(LogCollecting, LinesAreMovedWhenThereAreTooManyOfThem)
{
    const auto pLog = makeCollectingLog();
    logNumbers(*pLog, 0, 2000);
    EXPECT_GT(texts().size(), 500u);
    EXPECT_LT(texts().size(), 2000u);
    pLog->flush();
    EXPECT_EQ(texts(), numbers(0, 2000));
}

TEST_F(LogCollecting, FlushMovesLinesAndRemovesThePendingFileAfterTenSecondsWithoutAny)
{
    const auto pLog = makeCollectingLog();
    logNumbers(*pLog, 0, 3);
    pLog->flush();
    EXPECT_EQ(texts(), numbers(0, 3));
    advanceClock(9999);
    pLog->flush();
    EXPECT_TRUE(exists(m_strPending));
    advanceClock(1);
    pLog->flush();
    EXPECT_FALSE(exists(m_strPending));
    EXPECT_EQ(descriptorOf(m_strPending), -1);
    startCollecting(*pLog);
    logNumbers(*pLog, 3, 3);
    EXPECT_EQ(texts(), numbers(0, 3)) << "collected once more";
}

TEST_F(LogCollecting, FlushWithoutCollectedLinesIsHarmless)
{
    auto pLog = makeLog();
    pLog->flush();
    EXPECT_FALSE(exists(m_strLog));
    logNumbers(*pLog, 0, 1);
    pLog->flush();
    EXPECT_THAT(texts(), SizeIs(1));
    CLogFile noFile("Media", nullptr, false, false, false);
    noFile.flush();
}

TEST_F(LogCollecting, EndOfTheLogFileMovesLines)
{
    auto pLog = makeCollectingLog();
    logNumbers(*pLog, 0, 3);
    pLog.reset();
    EXPECT_EQ(texts(), numbers(0, 3));
    EXPECT_FALSE(exists(m_strPending));
}

TEST_F(LogCollecting, SettingsMoveLinesAndEndCollecting)
{
    const auto pLog = makeCollectingLog();
    logNumbers(*pLog, 0, 3);
    pLog->applySettings(m_settings);
    EXPECT_EQ(texts(), numbers(0, 3));
    EXPECT_FALSE(exists(m_strPending));
}

TEST_F(LogCollecting, SettingsThatMoveTheFileLeaveLinesWhereTheyBelong)
{
    const auto pLog = makeCollectingLog();
    logNumbers(*pLog, 0, 3);
    ASSERT_EQ(mkdir(path("other").c_str(), 0700), 0);
    const std::string strOther = path("other");
    m_settings.pszFolder = strOther.c_str();
    pLog->applySettings(m_settings);
    logNumbers(*pLog, 3, 3);
    EXPECT_TRUE(exists(strOther + "/Media.log.pending"));
    pLog->flush();
    EXPECT_EQ(texts(), numbers(0, 3));
    EXPECT_FALSE(exists(m_strPending));
    EXPECT_EQ(textsIn(strOther + "/Media.log"), numbers(3, 3));
}

TEST_F(LogCollecting, SettingsThatSyncEachLineCollectNone)
{
    m_settings.nSyncEachLine = 1;
    const auto pLog = makeCollectingLog();
    logNumbers(*pLog, 0, 3);
    EXPECT_EQ(texts(), numbers(0, 3));
    EXPECT_FALSE(exists(m_strPending));
}

TEST_F(LogCollecting, EndOfTheProcessMovesLinesOfLogFilesThatNobodyDeletes)
{
    EXPECT_EQ(inChild([&] {
                  static CLogFile* const s_pLog = makeCollectingLog().release();
                  logNumbers(*s_pLog, 0, 3);
                  exit(0);
              }),
              0);
    EXPECT_EQ(texts(), numbers(0, 3));
    EXPECT_FALSE(exists(m_strPending));
}

TEST_F(LogCollecting, EndOfTheProcessLosesNoLineOfThreadsThatGoOn)
{
    struct CReturned
    {
        std::atomic<int> anLines[3];
    };
    const CShared<CReturned> returned;
    EXPECT_EQ(inChild([&] {
                  static CLogFile* const s_pLog = makeCollectingLog().release();
                  for (int nThread = 0; nThread < 3; ++nThread)
                      std::thread([&, nThread] {
                          for (int n = 0; n < 20000; ++n)
                          {
                              s_pLog->TraceString(TRACE, LogLib_Normal, "%d %d", nThread, n);
                              returned->anLines[nThread] = n + 1;
                          }
                      }).detach();
                  while (returned->anLines[0] < 2000)
                      std::this_thread::yield();
                  exit(0);
              }),
              0);
    std::map<int, int> mapNext;
    for (const std::string& strText : texts())
    {
        int nThread = -1;
        int n = -1;
        ASSERT_EQ(sscanf(strText.c_str(), "%d %d", &nThread, &n), 2) << strText;
        ASSERT_EQ(n, mapNext[nThread]++);
    }
    for (int nThread = 0; nThread < 3; ++nThread)
        EXPECT_GE(mapNext[nThread], returned->anLines[nThread]);
    EXPECT_FALSE(exists(m_strPending));
}
