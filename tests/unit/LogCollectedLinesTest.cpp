// Tests of collected lines: they look like all others and keep their order.
#include "LogCollectingFixture.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <map>
#include <regex>
#include <thread>

using namespace logtest;
using namespace OrvLogLib;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{
class LogCollectedLines : public LogCollectingFixture
{
};

std::atomic<int> s_nWrites{0};

ssize_t countWrites(int nFile, const void* pBytes, size_t nBytes)
{
    ++s_nWrites;
    return reallyWrite(nFile, pBytes, nBytes);
}
} // namespace

TEST_F(LogCollectedLines, LinesThatCannotBeCollectedNeitherOvertakeNorAreOvertaken)
{
    const int nNull = open("/dev/null", O_WRONLY);
    const CStderrInto quiet(nNull);
    close(nNull);
    m_settings.nStderrMask = LogLib_Low;
    m_settings.nSyslogMask = LogLib_High;
    m_settings.nMaxLineLength = 80000;
    const auto pLog = makeCollectingLog();
    const std::string strLong(70000, 'l');
    const std::string strTooLong(90000, 't');
    const char* apszAlarm[] = {"alarm"};
    uintmax_t ullExpected = logSize();
    std::vector<std::string> vExpected;
    const auto wrote = [&](int nBytes, const std::string& strText) {
        EXPECT_GT(nBytes, static_cast<int>(strText.size()));
        ullExpected += static_cast<uintmax_t>(nBytes);
        vExpected.push_back(strText);
    };
    for (int n = 0; n < 3; ++n)
    {
        wrote(pLog->TraceString(TRACE, LogLib_Normal, "collected"), "collected");
        wrote(logFrom(*pLog, "CSource", "line"), "CSource: line");
        wrote(pLog->TraceString(TRACE, LogLib_Normal, "after source"), "after source");
        wrote(pLog->TraceString(TRACE, LogLib_Normal, "%s", strLong.c_str()), strLong);
        wrote(pLog->TraceString(TRACE, LogLib_Normal, "after long"), "after long");
        wrote(pLog->TraceString(TRACE, LogLib_Normal, "%s", strTooLong.c_str()), strTooLong.substr(0, 80000));
        wrote(pLog->TraceString(TRACE, LogLib_Normal, "after too long"), "after too long");
        wrote(pLog->TraceString(TRACE, LogLib_Low, "standard error"), "standard error");
        wrote(pLog->TraceString(TRACE, LogLib_Normal, "after standard error"), "after standard error");
        wrote(pLog->TraceString(TRACE, LogLib_High, "syslog"), "syslog");
        wrote(pLog->TraceString(TRACE, LogLib_Normal, "after syslog"), "after syslog");
        pLog->flush();
        EXPECT_EQ(logSize(), ullExpected) << "each returned its bytes";
        EXPECT_EQ(pLog->ReportEventToWIN32Log(1, 1, 0, apszAlarm, nullptr), 1);
        ullExpected = logSize();
        vExpected.push_back("event 0x00000001: alarm");
    }
    EXPECT_EQ(texts(), vExpected);
    EXPECT_THAT(syslogCalls(), SizeIs(3));
}

TEST_F(LogCollectedLines, CollectedLinesLookLikeAllOthers)
{
    setenv("TZ", "Asia/Kolkata", 1);
    tzset();
    const auto pLog = makeCollectingLog();
    const std::string strText = "controls \x01\n\r\x7f \x80 and more than the maximum";
    for (const bool bUtc : {false, true})
        for (const bool bMicroseconds : {false, true})
            for (const char* const pszPrefix : {"", "[line\tprefix] "})
                for (const unsigned int uMaximum : {0u, 20u, 10000u})
                {
                    m_settings.nUtc = bUtc;
                    m_settings.nMicroseconds = bMicroseconds;
                    m_settings.pszLinePrefix = pszPrefix;
                    m_settings.nMaxLineLength = uMaximum;
                    pLog->applySettings(m_settings);
                    unlink(m_strLog.c_str());
                    registryOf(pLog.get(), m_settings); // looks for the file
                    int nWritten = pLog->TraceString(TRACE, LogLib_Normal, "%s", strText.c_str());
                    nWritten += pLog->TraceString(TRACE, LogLib_Normal, "%s", strText.c_str());
                    EXPECT_THAT(linesOf(m_strLog), SizeIs(1)) << "the other is collected";
                    pLog->flush();
                    EXPECT_EQ(logSize(), static_cast<uintmax_t>(nWritten));
                    const std::vector<std::string> vLines = linesOf(m_strLog);
                    ASSERT_THAT(vLines, SizeIs(2));
                    EXPECT_EQ(vLines[0].substr(vLines[0].find(' ', 20)), vLines[1].substr(vLines[1].find(' ', 20)));
                    tm parts = {};
                    ASSERT_NE(strptime(vLines[1].c_str(), "%Y-%m-%d %H:%M:%S.", &parts), nullptr);
                    parts.tm_isdst = 0;
                    EXPECT_NEAR(static_cast<double>(bUtc ? timegm(&parts) : mktime(&parts)),
                                static_cast<double>(time(nullptr)), 5);
                    EXPECT_EQ(vLines[1].find(' ', 20), bMicroseconds ? 26u : 23u);
                }
    unsetenv("TZ");
}

TEST_F(LogCollectedLines, HeadShowsTheThreadAndThePriority)
{
    const auto pLog = makeCollectingLog();
    std::thread([&] { EXPECT_GT(pLog->TraceString(TRACE, LogLib_High, "from a thread"), 0); }).join();
    EXPECT_GT(pLog->TraceString(TRACE, LogLib_Low, "from this one"), 0);
    EXPECT_THAT(texts(), IsEmpty());
    pLog->flush();
    const std::vector<std::string> vLines = linesOf(m_strLog);
    const std::string strPid = std::to_string(getpid());
    EXPECT_TRUE(std::regex_match(vLines.back(), std::regex(".* p" + strPid + " t" + strPid + " 4 from this one")));
    const std::string& strOther = vLines[vLines.size() - 2];
    EXPECT_TRUE(std::regex_match(strOther, std::regex(".* p" + strPid + " t\\d+ 64 from a thread")));
    EXPECT_EQ(strOther.find(" t" + strPid + " "), std::string::npos);
}

TEST_F(LogCollectedLines, ErrnoIsShownAndKept)
{
    const auto pLog = makeCollectingLog();
    for (const int nError : {EPIPE, ENOSPC, 0})
    {
        advanceClock(20); // so that some of the calls also move lines
        errno = nError;
        EXPECT_GT(logFrom(*pLog, nullptr, "error: %m"), 0);
        EXPECT_EQ(errno, nError);
    }
    errno = EBADF;
    pLog->flush();
    EXPECT_EQ(errno, EBADF);
    EXPECT_THAT(texts(), ElementsAre(std::string("error: ") + strerror(EPIPE),
                                     std::string("error: ") + strerror(ENOSPC), std::string("error: ") + strerror(0)));
}

TEST_F(LogCollectedLines, MasksHoldForCollectedLines)
{
    m_settings.nFileMask = LogLib_Normal | LogLib_High;
    const auto pLog = makeCollectingLog();
    EXPECT_EQ(pLog->TraceString(TRACE, LogLib_Low, "not meant for the file"), 0);
    EXPECT_EQ(pLog->TraceString(1 << 20, LogLib_Normal, "a trace class that is off"), 0);
    EXPECT_GT(pLog->TraceString(TRACE, LogLib_High, "high"), 0);
    pLog->flush();
    EXPECT_THAT(texts(), ElementsAre("high"));
}

TEST_F(LogCollectedLines, ManyThreadsKeepTheirOrderAcrossRotationsInFewWrites)
{
    constexpr int THREADS = 16;
    constexpr int LINES = 2000;
    m_settings.nMaxFileMegabytes = 1;
    m_settings.nRotatedFiles = 20;
    const auto pLog = makeCollectingLog();
    s_nWrites = 0;
    interceptWrites(countWrites);
    std::vector<std::thread> vThreads;
    for (int nThread = 0; nThread < THREADS; ++nThread)
        vThreads.emplace_back([&, nThread] {
            for (int n = 0; n < LINES; ++n)
            {
                const std::string strPad(static_cast<size_t>(n * 7 % 150), static_cast<char>('a' + nThread));
                EXPECT_GT(pLog->TraceString(TRACE, LogLib_Normal, "%d %d %s.", nThread, n, strPad.c_str()), 0);
            }
        });
    for (std::thread& thread : vThreads)
        thread.join();
    pLog->flush();
    interceptWrites(nullptr);
    EXPECT_LT(s_nWrites, THREADS * LINES / 50);

    std::map<int, int> mapNext;
    int nFiles = 0;
    for (int nFile = 20; nFile >= 0; --nFile)
    {
        const std::string strPath = m_strLog + (nFile ? "." + std::to_string(nFile) : "");
        nFiles += exists(strPath);
        EXPECT_TRUE(!exists(strPath) || std::filesystem::file_size(strPath) <= 1048576u);
        for (const std::string& strText : textsIn(strPath))
        {
            int nThread = -1;
            int n = -1;
            ASSERT_EQ(sscanf(strText.c_str(), "%d %d", &nThread, &n), 2) << strText;
            ASSERT_EQ(n, mapNext[nThread]++) << "in the order of the calls";
            const std::string strPad(static_cast<size_t>(n * 7 % 150), static_cast<char>('a' + nThread));
            ASSERT_EQ(strText, std::to_string(nThread) + " " + std::to_string(n) + " " + strPad + ".");
        }
    }
    EXPECT_GT(nFiles, 3);
    EXPECT_THAT(mapNext, SizeIs(THREADS));
    for (const auto& [nThread, nCount] : mapNext)
        EXPECT_EQ(nCount, LINES) << nThread;
}
