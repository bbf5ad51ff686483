// Tests of the file behind the log: where it is, what is refused, rotation, many threads.
#include "LogFileSupport.h"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <map>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace logtest;
using namespace OrvLogLib;
using testing::ElementsAre;
using testing::EndsWith;
using testing::SizeIs;

namespace
{
class LogWriter : public LogFileTest
{
protected:
    void refuses(const char* pszWhat)
    {
        CLogFile log("Media", "Media", false, false, false);
        const CLogFileRegistry registry = registryOf(&log, m_settings);
        EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "line"), -1) << pszWhat;
        EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "line"), -1) << pszWhat;
        EXPECT_EQ(descriptorOf(path("Media.log")), -1) << pszWhat;
    }
};

void fill(CLogFile& log, int nFirst, int nCount)
{
    const std::string strPad(9000, 'x');
    for (int n = nFirst; n < nFirst + nCount; ++n)
        ASSERT_GT(log.TraceString(TRACE, LogLib_Normal, "%06d %s", n, strPad.c_str()), 9000);
}
} // namespace

TEST_F(LogWriter, DefaultFolderIsTmpAndTheNameHasTheProcessID)
{
    if (!ownMounts() || mount("tmpfs", "/var/log", "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "this environment forbids mounts";
    const std::string strPath = "/tmp/Media-p" + std::to_string(getpid()) + ".log";
    unlink(strPath.c_str());
    CLogFile log("Media", "Media", false, true, true);
    EXPECT_FALSE(exists(strPath)) << "the first line makes the file";
    EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "line"), 0);
    EXPECT_THAT(linesOf(strPath), SizeIs(1));
    unlink(strPath.c_str());
}

TEST_F(LogWriter, DefaultFolderIsTheSystemsWhereItExists)
{
    if (!ownMounts() || mount("tmpfs", "/var/log", "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "this environment forbids mounts";
    ASSERT_EQ(mkdir("/var/log/zelmedia", 0755), 0);
    CLogFile log("Media", "Media", false, true, true);
    EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "line"), 0);
    EXPECT_THAT(linesOf("/var/log/zelmedia/Media-p" + std::to_string(getpid()) + ".log"), SizeIs(1));
}

TEST_F(LogWriter, PathWithSlashIsTakenAsItStands)
{
    const std::string strPath = path("any.name");
    CLogFile log("Media", strPath.c_str(), false, true, false);
    EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "line"), 0);
    EXPECT_THAT(linesOf(strPath), SizeIs(1));
}

TEST_F(LogWriter, NamesThatAreTooLongLoseLinesOnly)
{
    for (const size_t nLength : {300u, 5000u})
    {
        CLogFile log("Media", std::string(nLength, 'n').c_str(), false, true, false);
        const CLogFileRegistry registry = registryOf(&log, m_settings);
        EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "line"), -1);
    }
    CLogFile log("Media", ("/" + std::string(5000, 'n')).c_str(), false, true, false);
    EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "line"), -1);
}

TEST_F(LogWriter, FileModeIs0640LessTheUmask)
{
    const mode_t before = umask(0);
    for (const mode_t mask : {0u, 077u})
    {
        umask(mask);
        CLogFile log("Media", path("masked").c_str(), false, false, false);
        EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "line"), 0);
        struct stat status;
        ASSERT_EQ(stat(path("masked").c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0640u & ~mask);
        unlink(path("masked").c_str());
    }
    umask(before);
}

TEST_F(LogWriter, DescriptorIsNotInheritedAndClosedWithTheLogFile)
{
    auto pLog = std::make_unique<CLogFile>("Media", "Media", false, false, false);
    const CLogFileRegistry registry = registryOf(pLog.get(), m_settings);
    pLog->TraceString(TRACE, LogLib_Normal, "line");
    const int nFile = descriptorOf(path("Media.log"));
    ASSERT_GE(nFile, 0);
    EXPECT_NE(fcntl(nFile, F_GETFD) & FD_CLOEXEC, 0);
    pLog.reset();
    EXPECT_EQ(descriptorOf(path("Media.log")), -1);
}

TEST_F(LogWriter, SymbolicLinkIsRefusedAndItsTargetUntouched)
{
    ASSERT_EQ(symlink(path("target").c_str(), path("Media.log").c_str()), 0);
    refuses("link to nothing");
    EXPECT_FALSE(exists(path("target")));
}

TEST_F(LogWriter, SecondHardLinkIsRefused)
{
    close(open(path("target").c_str(), O_CREAT | O_WRONLY, 0600));
    ASSERT_EQ(link(path("target").c_str(), path("Media.log").c_str()), 0);
    refuses("hard link");
    EXPECT_EQ(contentOf(path("target")), "");
}

TEST_F(LogWriter, FifoIsRefusedWithoutBlockingReaderOrNot)
{
    ASSERT_EQ(mkfifo(path("Media.log").c_str(), 0600), 0);
    refuses("FIFO without reader");
    const int nReader = open(path("Media.log").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(nReader, 0);
    CLogFile log("Media", "Media", false, false, false);
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "line"), -1);
    char c;
    EXPECT_LE(read(nReader, &c, 1), 0) << "nothing was written into it";
    close(nReader);
}

TEST_F(LogWriter, DirectoryIsRefused)
{
    ASSERT_EQ(mkdir(path("Media.log").c_str(), 0700), 0);
    refuses("directory");
}

TEST_F(LogWriter, FileOfAnotherUserIsRefused)
{
    close(open(path("Media.log").c_str(), O_CREAT | O_WRONLY, 0666));
    if (chown(path("Media.log").c_str(), 12345, static_cast<gid_t>(-1)) != 0)
        GTEST_SKIP() << "this environment forbids chown";
    refuses("foreign file");
    EXPECT_EQ(contentOf(path("Media.log")), "");
}

TEST_F(LogWriter, AppendsToAnExistingFileUnlessToldToTruncate)
{
    for (const bool bTruncate : {false, false, true})
    {
        CLogFile log("Media", "Media", bTruncate, false, false);
        const CLogFileRegistry registry = registryOf(&log, m_settings);
        log.TraceString(TRACE, LogLib_Normal, "first");
        log.TraceString(TRACE, LogLib_Normal, "second");
        EXPECT_THAT(linesOf(path("Media.log")), SizeIs(exists(path("seen")) && !bTruncate ? 4 : 2));
        close(open(path("seen").c_str(), O_CREAT | O_WRONLY, 0600));
    }
}

TEST_F(LogWriter, StartFreshRotatesTheOldFileBeforeTheFirstLine)
{
    m_settings.nStartFresh = 1;
    for (const char* pszText : {"one", "two"})
    {
        CLogFile log("Media", "Media", false, false, false);
        const CLogFileRegistry registry = registryOf(&log, m_settings);
        log.TraceString(TRACE, LogLib_Normal, "%s", pszText);
        log.TraceString(TRACE, LogLib_Normal, "%s again", pszText);
    }
    EXPECT_THAT(linesOf(path("Media.log")), ElementsAre(EndsWith("two"), EndsWith("two again")));
    EXPECT_THAT(linesOf(path("Media.log.1")), ElementsAre(EndsWith("one"), EndsWith("one again")));
    EXPECT_FALSE(exists(path("Media.log.2")));
}

TEST_F(LogWriter, RotatesBySizeAndKeepsTheGivenNumber)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nMaxFileMegabytes = 1;
    m_settings.nRotatedFiles = 2;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    fill(log, 0, 600); // a megabyte takes 115 lines

    EXPECT_FALSE(exists(path("Media.log.3")));
    std::vector<std::string> vLines;
    for (const char* pszName : {"Media.log.2", "Media.log.1", "Media.log"})
    {
        EXPECT_LE(std::filesystem::file_size(path(pszName)), 1048576u);
        for (const std::string& strLine : linesOf(path(pszName)))
            vLines.push_back(textOf(strLine).substr(0, 6));
    }
    ASSERT_GT(vLines.size(), 230u);
    for (size_t n = 0; n < vLines.size(); ++n)
        EXPECT_EQ(std::stoul(vLines[n]), 600 - vLines.size() + n) << "the newest lines, in order, none missing";
}

TEST_F(LogWriter, KeepingNoRotatedFileEmptiesTheFile)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nMaxFileMegabytes = 1;
    m_settings.nRotatedFiles = 0;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    fill(log, 0, 120);
    EXPECT_FALSE(exists(path("Media.log.1")));
    const std::vector<std::string> vLines = linesOf(path("Media.log"));
    ASSERT_THAT(vLines, testing::Not(testing::IsEmpty()));
    EXPECT_LT(vLines.size(), 20u);
    EXPECT_EQ(textOf(vLines.back()).substr(0, 6), "000119");
}

TEST_F(LogWriter, NoMaximumMeansNoRotation)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nMaxFileMegabytes = 0;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    const int nFile = open(path("Media.log").c_str(), O_CREAT | O_WRONLY, 0600);
    const off_t nSize = off_t{3} << 30;
    ASSERT_EQ(ftruncate(nFile, nSize), 0);
    close(nFile);
    const int nWritten = log.TraceString(TRACE, LogLib_Normal, "line");
    EXPECT_GT(nWritten, 0);
    EXPECT_EQ(std::filesystem::file_size(path("Media.log")), static_cast<uintmax_t>(nSize + nWritten));
    EXPECT_FALSE(exists(path("Media.log.1")));
}

TEST_F(LogWriter, FileGrowsOnWhenRotationIsRefused)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nMaxFileMegabytes = 1;
    m_settings.nRotatedFiles = 1;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    ASSERT_EQ(mkdir(path("Media.log.1").c_str(), 0700), 0);
    fill(log, 0, 130);
    EXPECT_THAT(linesOf(path("Media.log")), SizeIs(130));
    ASSERT_EQ(rmdir(path("Media.log.1").c_str()), 0);
    fill(log, 130, 1);
    EXPECT_THAT(linesOf(path("Media.log.1")), SizeIs(130));
    EXPECT_THAT(linesOf(path("Media.log")), SizeIs(1));
}

TEST_F(LogWriter, FileGrowsOnWhenAnOlderOneCannotBeMoved)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nMaxFileMegabytes = 1;
    m_settings.nRotatedFiles = 2;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    fill(log, 0, 120);
    ASSERT_TRUE(exists(path("Media.log.1")));
    ASSERT_EQ(mkdir(path("Media.log.2").c_str(), 0700), 0);
    fill(log, 120, 130);
    const size_t nLines = linesOf(path("Media.log")).size();
    EXPECT_EQ(linesOf(path("Media.log.1")).size() + nLines, 250u);
    EXPECT_GT(nLines, 120u);
}

TEST_F(LogWriter, FileGrowsOnWhenItCannotBeEmptied)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nMaxFileMegabytes = 1;
    m_settings.nRotatedFiles = 0;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    failTruncation(true);
    fill(log, 0, 130);
    failTruncation(false);
    EXPECT_THAT(linesOf(path("Media.log")), SizeIs(130));
    fill(log, 130, 1);
    EXPECT_THAT(linesOf(path("Media.log")), SizeIs(1));
}

TEST_F(LogWriter, FileThatWasMovedAwayIsMadeAnew)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nReopenMilliseconds = 1;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    log.TraceString(TRACE, LogLib_Normal, "line");
    ASSERT_EQ(rename(path("Media.log").c_str(), path("moved").c_str()), 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!exists(path("Media.log")) && std::chrono::steady_clock::now() < deadline)
        ASSERT_GT(log.TraceString(TRACE, LogLib_Normal, "line"), 0);
    EXPECT_THAT(linesOf(path("Media.log")), SizeIs(1));
}

TEST_F(LogWriter, MovedFileIsKeptWhenLookingIsOff)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nReopenMilliseconds = 0;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    log.TraceString(TRACE, LogLib_Normal, "line");
    ASSERT_EQ(rename(path("Media.log").c_str(), path("moved").c_str()), 0);
    registryOf(&log, m_settings); // would look at once
    log.TraceString(TRACE, LogLib_Normal, "line");
    EXPECT_THAT(linesOf(path("moved")), SizeIs(2));
    EXPECT_FALSE(exists(path("Media.log")));
}

TEST_F(LogWriter, FileThatSomeoneCutIsNotRotatedTooEarly)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nMaxFileMegabytes = 1;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    fill(log, 0, 100);
    ASSERT_EQ(truncate(path("Media.log").c_str(), 0), 0);
    registryOf(&log, m_settings); // looks at once
    fill(log, 100, 100);
    EXPECT_THAT(linesOf(path("Media.log")), SizeIs(100));
    EXPECT_FALSE(exists(path("Media.log.1")));
}

TEST_F(LogWriter, SettingsThatMoveTheFileOpenAnother)
{
    CLogFile log("Media", "Media", false, false, false);
    registryOf(&log, m_settings);
    log.TraceString(TRACE, LogLib_Normal, "line");
    m_settings.pszExtension = ".other";
    registryOf(&log, m_settings);
    log.TraceString(TRACE, LogLib_Normal, "line");
    EXPECT_THAT(linesOf(path("Media.log")), SizeIs(1));
    EXPECT_THAT(linesOf(path("Media.other")), SizeIs(1));
    EXPECT_EQ(descriptorOf(path("Media.log")), -1);
}

TEST_F(LogWriter, SyncIsAskedForEachLineOnlyWhenSet)
{
    CLogFile log("Media", "Media", false, false, false);
    registryOf(&log, m_settings);
    log.TraceString(TRACE, LogLib_Normal, "line");
    EXPECT_EQ(syncCalls(), 0);
    m_settings.nSyncEachLine = 1;
    registryOf(&log, m_settings);
    log.TraceString(TRACE, LogLib_Normal, "line");
    log.TraceString(TRACE, LogLib_Normal, "line");
    EXPECT_EQ(syncCalls(), 2);
}

TEST_F(LogWriter, LinesOfManyThreadsNeverMixAlsoAcrossRotations)
{
    constexpr int THREADS = 16;
    constexpr int LINES = 500;
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nMaxFileMegabytes = 1;
    m_settings.nRotatedFiles = 20;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    std::vector<std::thread> vThreads;
    for (int nThread = 0; nThread < THREADS; ++nThread)
        vThreads.emplace_back([&log, nThread] {
            for (int n = 0; n < LINES; ++n)
            {
                const std::string strPad(static_cast<size_t>(n * 7 % 1500), static_cast<char>('a' + nThread));
                log.TraceString(TRACE, LogLib_Normal, "%d %d %s.", nThread, n, strPad.c_str());
            }
        });
    for (std::thread& thread : vThreads)
        thread.join();

    std::map<int, int> mapNext;
    int nFiles = 0;
    for (int nFile = 20; nFile >= 0; --nFile)
    {
        const std::string strPath = path("Media.log") + (nFile ? "." + std::to_string(nFile) : "");
        nFiles += exists(strPath);
        for (const std::string& strLine : linesOf(strPath))
        {
            int nThread = -1;
            int n = -1;
            ASSERT_EQ(sscanf(textOf(strLine).c_str(), "%d %d", &nThread, &n), 2) << strLine;
            EXPECT_EQ(n, mapNext[nThread]++) << "in the order of the calls";
            const std::string strPad(static_cast<size_t>(n * 7 % 1500), static_cast<char>('a' + nThread));
            EXPECT_EQ(textOf(strLine), std::to_string(nThread) + " " + std::to_string(n) + " " + strPad + ".");
        }
    }
    EXPECT_GT(nFiles, 3);
    EXPECT_THAT(mapNext, SizeIs(THREADS));
    for (const auto& [nThread, nCount] : mapNext)
        EXPECT_EQ(nCount, LINES) << nThread;
}
