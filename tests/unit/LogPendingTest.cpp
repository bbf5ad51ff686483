// Tests of lines on their way into a log file: each arrives once, whenever its process is killed.
#include "LogPending.h"
#include "LogCollectingFixture.h"
#include "LogTarget.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <ostream>
#include <sys/stat.h>

using namespace logtest;
using OrvLogLib::CLogPending;
using OrvLogLib::openLogFile;

namespace
{
// What becomes of the process in its next write.
enum class Killed
{
    BeforeWriting,
    WithinALine,
    BetweenLines,
    AfterWriting
};

constexpr Killed KILLINGS[] = {Killed::BeforeWriting, Killed::WithinALine, Killed::BetweenLines, Killed::AfterWriting};

std::ostream& operator<<(std::ostream& os, Killed killed)
{
    constexpr const char* NAMES[] = {"BeforeWriting", "WithinALine", "BetweenLines", "AfterWriting"};
    return os << NAMES[static_cast<int>(killed)];
}

Killed s_killed;

ssize_t killWriter(int nFile, const void* pBytes, size_t nBytes)
{
    const char* const pBegin = static_cast<const char*>(pBytes);
    const char* const pLineEnd = static_cast<const char*>(memchr(pBegin, '\n', nBytes));
    const size_t nLine = static_cast<size_t>(pLineEnd - pBegin) + 1;
    const size_t nWritten = s_killed == Killed::BeforeWriting  ? 0
                            : s_killed == Killed::WithinALine  ? nLine + 3
                            : s_killed == Killed::BetweenLines ? nLine
                                                               : nBytes;
    if (nWritten > 0)
        reallyWrite(nFile, pBytes, nWritten);
    raise(SIGKILL);
    return -1;
}

void killAtNextWrite(Killed killed)
{
    s_killed = killed;
    interceptWrites(killWriter);
}

ssize_t findNoRoom(int nFile, const void* pBytes, size_t)
{
    static bool s_bFull = false; // it fills up within the second line
    const ssize_t nWritten = s_bFull ? -1 : reallyWrite(nFile, pBytes, 13);
    s_bFull = !s_bFull;
    errno = ENOSPC;
    return nWritten;
}

class LogPending : public LogPendingFixture
{
protected:
    static void put(CLogPending& pending, const std::string& strText)
    {
        ASSERT_LE(strText.size(), pending.room());
        memcpy(pending.end(), strText.data(), strText.size());
        pending.add(strText.size());
    }

    // Into the log file as it is now.
    bool move(CLogPending& pending) const
    {
        const int nLog = openLogFile(m_strLog.c_str());
        const bool bMoved = pending.moveInto(nLog);
        close(nLog);
        return bMoved;
    }

    void appendToLog(const std::string& strText) const
    {
        const int nLog = openLogFile(m_strLog.c_str());
        EXPECT_EQ(reallyWrite(nLog, strText.data(), strText.size()), static_cast<ssize_t>(strText.size()));
        close(nLog);
    }

    // A process leaves these lines when it is killed.
    void leave(const std::string& strText) const
    {
        inChild([&] {
            CLogPending pending;
            ASSERT_TRUE(pending.open(m_strLog.c_str()));
            put(pending, strText);
            raise(SIGKILL);
        });
    }

    void leaveWhileMoving(const std::string& strText, Killed killed) const
    {
        EXPECT_EQ(inChild([&] {
                      CLogPending pending;
                      ASSERT_TRUE(pending.open(m_strLog.c_str()));
                      put(pending, strText);
                      killAtNextWrite(killed);
                      move(pending);
                  }),
                  SIGKILL);
    }

    void recover() const { CLogPending::recover(m_strLog.c_str()); }
};

const char* const LINES = "line one\nline two\nline three\n";
} // namespace

TEST_F(LogPending, IsAFileOfItsOwnUntilItIsMovedAndClosed)
{
    CLogPending pending;
    EXPECT_EQ(pending.length(), 0u);
    ASSERT_TRUE(pending.open(m_strLog.c_str()));
    EXPECT_EQ(pending.room(), CLogPending::CAPACITY);
    put(pending, LINES);
    EXPECT_EQ(pending.length(), strlen(LINES));
    EXPECT_FALSE(exists(m_strLog));
    EXPECT_TRUE(move(pending));
    EXPECT_EQ(contentOf(m_strLog), LINES);
    EXPECT_EQ(pending.length(), 0u);
    EXPECT_EQ(pending.room(), CLogPending::CAPACITY);
    EXPECT_TRUE(exists(m_strPending));
    pending.close();
    EXPECT_FALSE(exists(m_strPending));
    EXPECT_EQ(descriptorOf(m_strPending), -1);
}

TEST_F(LogPending, LinesStayWhereTheyAreWhenTheLogFileIsLost)
{
    CLogPending pending;
    ASSERT_TRUE(pending.open(m_strLog.c_str()));
    put(pending, LINES);
    EXPECT_FALSE(pending.moveInto(-1));
    EXPECT_EQ(pending.length(), strlen(LINES));
    EXPECT_TRUE(move(pending));
    EXPECT_EQ(contentOf(m_strLog), LINES);
}

TEST_F(LogPending, HasItsDiskSpaceFromTheBeginningAndIsForItsUserOnly)
{
    CLogPending pending;
    ASSERT_TRUE(pending.open(m_strLog.c_str()));
    struct stat status;
    ASSERT_EQ(stat(m_strPending.c_str(), &status), 0);
    EXPECT_GE(status.st_blocks * 512, static_cast<blkcnt_t>(CLogPending::CAPACITY));
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_NE(fcntl(descriptorOf(m_strPending), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(LogPending, TakesAsManyBytesAsItSays)
{
    CLogPending pending;
    ASSERT_TRUE(pending.open(m_strLog.c_str()));
    const std::string strAll = std::string(CLogPending::CAPACITY - 1, 'x') + "\n";
    put(pending, strAll);
    EXPECT_EQ(pending.room(), 0u);
    EXPECT_TRUE(move(pending));
    EXPECT_EQ(contentOf(m_strLog), strAll);
}

TEST_F(LogPending, LinesOfAKilledProcessAreRecoveredOnce)
{
    appendToLog("before\n");
    leave(LINES);
    EXPECT_TRUE(exists(m_strPending));
    EXPECT_EQ(contentOf(m_strLog), "before\n");
    recover();
    EXPECT_EQ(contentOf(m_strLog), std::string("before\n") + LINES);
    EXPECT_FALSE(exists(m_strPending));
    recover();
    EXPECT_EQ(contentOf(m_strLog), std::string("before\n") + LINES);
}

TEST_F(LogPending, ClosedWithLinesItIsLeftForRecovery)
{
    {
        CLogPending pending;
        ASSERT_TRUE(pending.open(m_strLog.c_str()));
        put(pending, LINES);
    }
    recover();
    EXPECT_EQ(contentOf(m_strLog), LINES);
    EXPECT_FALSE(exists(m_strPending));
}

TEST_F(LogPending, NoneButTheRecoveredLinesAreMovedLater)
{
    leave(LINES);
    CLogPending pending;
    EXPECT_FALSE(pending.open(m_strLog.c_str())) << "what is left there has not been recovered";
    recover();
    ASSERT_TRUE(pending.open(m_strLog.c_str()));
    put(pending, "next\n");
    EXPECT_TRUE(move(pending));
    EXPECT_EQ(contentOf(m_strLog), std::string(LINES) + "next\n");
}

TEST_F(LogPending, RecoveryMakesALogFileThatWasRemoved)
{
    appendToLog("before\n");
    leave(LINES);
    ASSERT_EQ(unlink(m_strLog.c_str()), 0);
    recover();
    EXPECT_EQ(contentOf(m_strLog), LINES);
}

TEST_F(LogPending, RecoveryWritesIntoTheNewLogFileAfterARotation)
{
    appendToLog("before\n");
    leave(LINES);
    ASSERT_EQ(rename(m_strLog.c_str(), path("Media.log.1").c_str()), 0);
    appendToLog("a new file, and longer than the one before\n");
    recover();
    EXPECT_EQ(contentOf(m_strLog), std::string("a new file, and longer than the one before\n") + LINES);
    EXPECT_EQ(contentOf(path("Media.log.1")), "before\n");
}

TEST_F(LogPending, RecoveryLeavesLinesWhereTheyAreWhenTheLogFileIsRefused)
{
    leave(LINES);
    ASSERT_EQ(mkdir(m_strLog.c_str(), 0700), 0);
    recover();
    EXPECT_TRUE(exists(m_strPending));
    ASSERT_EQ(rmdir(m_strLog.c_str()), 0);
    recover();
    EXPECT_EQ(contentOf(m_strLog), LINES);
}

class LogPendingKilled : public LogPending, public testing::WithParamInterface<Killed>
{
};

TEST_P(LogPendingKilled, InAMoveItLosesNothingAndDoublesNothing)
{
    appendToLog("before\n");
    leaveWhileMoving(LINES, GetParam());
    recover();
    EXPECT_EQ(contentOf(m_strLog), std::string("before\n") + LINES);
    EXPECT_FALSE(exists(m_strPending));
}

TEST_P(LogPendingKilled, InASecondMoveItLosesNothingAndDoublesNothing)
{
    EXPECT_EQ(inChild([&] {
                  CLogPending pending;
                  ASSERT_TRUE(pending.open(m_strLog.c_str()));
                  put(pending, "first move\n");
                  EXPECT_TRUE(move(pending));
                  put(pending, LINES);
                  killAtNextWrite(GetParam());
                  move(pending);
              }),
              SIGKILL);
    recover();
    EXPECT_EQ(contentOf(m_strLog), std::string("first move\n") + LINES);
}

TEST_P(LogPendingKilled, InAMoveAfterAFailedOneItLosesNothingAndDoublesNothing)
{
    EXPECT_EQ(inChild([&] {
                  CLogPending pending;
                  ASSERT_TRUE(pending.open(m_strLog.c_str()));
                  put(pending, LINES);
                  put(pending, LINES);
                  interceptWrites(findNoRoom);
                  EXPECT_FALSE(move(pending));
                  put(pending, "added later\n");
                  killAtNextWrite(GetParam());
                  move(pending);
              }),
              SIGKILL);
    recover();
    EXPECT_EQ(contentOf(m_strLog), std::string(LINES) + LINES + "added later\n");
}

TEST_P(LogPendingKilled, LinesThatOthersAppendMeanwhileHideNone)
{
    leaveWhileMoving(LINES, GetParam());
    appendToLog("of another process, and longer than everything that is pending\n");
    recover();
    const std::string strContent = contentOf(m_strLog);
    for (const char* const pszLine : {"line one\n", "line three\n", "of another process"})
        EXPECT_NE(strContent.find(pszLine), std::string::npos) << pszLine << " in:\n" << strContent;
    EXPECT_EQ(strContent.find("line one\n"), strContent.rfind("line one\n")) << strContent;
}

INSTANTIATE_TEST_SUITE_P(Processes, LogPendingKilled, testing::ValuesIn(KILLINGS), testing::PrintToStringParamName());

TEST_F(LogPending, ProcessesMayBeKilledInTheRecoveryTooAnyNumberOfTimes)
{
    for (const Killed first : KILLINGS)
        for (const Killed second : KILLINGS)
        {
            appendToLog("before\n");
            leaveWhileMoving(LINES, Killed::BeforeWriting);
            for (const Killed killed : {first, second})
            {
                const int nSignal = inChild([&] {
                    killAtNextWrite(killed);
                    recover();
                });
                EXPECT_TRUE(nSignal == SIGKILL || contentOf(m_strLog) == std::string("before\n") + LINES);
            }
            recover();
            EXPECT_EQ(contentOf(m_strLog), std::string("before\n") + LINES);
            EXPECT_FALSE(exists(m_strPending));
            unlink(m_strLog.c_str());
        }
}

TEST_F(LogPending, FullDiskLeavesWholeLinesInTheLogFile)
{
    CLogPending pending;
    ASSERT_TRUE(pending.open(m_strLog.c_str()));
    put(pending, LINES);
    interceptWrites(findNoRoom);
    EXPECT_FALSE(move(pending));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(contentOf(m_strLog), "line one\n");
    EXPECT_EQ(pending.length(), strlen(LINES) - strlen("line one\n"));
    put(pending, "added later\n");
    interceptWrites(nullptr);
    EXPECT_TRUE(move(pending));
    EXPECT_EQ(contentOf(m_strLog), std::string(LINES) + "added later\n");
}

TEST_F(LogPending, FullDiskLosesNothingWhereBytesCannotBeTakenBack)
{
    CLogPending pending;
    ASSERT_TRUE(pending.open(m_strLog.c_str()));
    put(pending, LINES);
    interceptWrites(findNoRoom);
    failTruncation(true);
    EXPECT_FALSE(move(pending));
    interceptWrites(nullptr);
    EXPECT_TRUE(move(pending));
    EXPECT_EQ(contentOf(m_strLog), LINES);
}

TEST_F(LogPending, FullDiskLeavesTheRestOfARecoveryForTheNext)
{
    leave(LINES);
    interceptWrites(findNoRoom);
    recover();
    EXPECT_EQ(contentOf(m_strLog), "line one\n");
    EXPECT_TRUE(exists(m_strPending));
    interceptWrites(nullptr);
    appendToLog("between\n");
    recover();
    EXPECT_EQ(contentOf(m_strLog), "line one\nbetween\nline two\nline three\n");
    EXPECT_FALSE(exists(m_strPending));
}
