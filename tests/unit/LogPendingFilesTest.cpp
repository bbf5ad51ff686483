// Tests of which pending files are made, recovered and removed, and which are left alone.
#include "LogCollectingFixture.h"
#include "LogPending.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace logtest;
using OrvLogLib::CLogPending;

namespace
{
class LogPendingFiles : public LogPendingFixture
{
protected:
    void makeFile(const std::string& strPath, const std::string& strContent) const
    {
        const int nFile = open(strPath.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        EXPECT_EQ(reallyWrite(nFile, strContent.data(), strContent.size()), static_cast<ssize_t>(strContent.size()));
        close(nFile);
    }

    // A pending file with one line, as a killed process leaves it.
    void leave(const std::string& strLog) const
    {
        inChild([&] {
            CLogPending pending;
            ASSERT_TRUE(pending.open(strLog.c_str()));
            memcpy(pending.end(), "left\n", 5);
            pending.add(5);
            raise(SIGKILL);
        });
    }

    // Neither used nor recovered; what is at its path stays the same.
    void leavesAlone(const char* pszWhat) const
    {
        struct stat before;
        ASSERT_EQ(lstat(m_strPending.c_str(), &before), 0) << pszWhat;
        const std::string strContent = S_ISREG(before.st_mode) ? contentOf(m_strPending) : "";
        CLogPending pending;
        EXPECT_FALSE(pending.open(m_strLog.c_str())) << pszWhat;
        CLogPending::recover(m_strLog.c_str());
        CLogPending::recoverAll(m_strFolder.c_str(), "Media", ".log");
        EXPECT_FALSE(exists(m_strLog)) << pszWhat;
        EXPECT_EQ(descriptorOf(m_strPending), -1) << pszWhat;
        struct stat after;
        ASSERT_EQ(lstat(m_strPending.c_str(), &after), 0) << pszWhat;
        EXPECT_EQ(after.st_ino, before.st_ino) << pszWhat;
        EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec) << pszWhat;
        EXPECT_TRUE(!S_ISREG(after.st_mode) || contentOf(m_strPending) == strContent) << pszWhat;
    }
};
} // namespace

TEST_F(LogPendingFiles, FolderIsLeftAlone)
{
    ASSERT_EQ(mkdir(m_strPending.c_str(), 0700), 0);
    leavesAlone("folder");
}

TEST_F(LogPendingFiles, SymbolicLinksAreLeftAlone)
{
    ASSERT_EQ(symlink(path("target").c_str(), m_strPending.c_str()), 0);
    leavesAlone("link to nothing");
    EXPECT_FALSE(exists(path("target")));
    leave(path("other"));
    ASSERT_EQ(rename(path("other.pending").c_str(), path("target").c_str()), 0);
    leavesAlone("link to a pending file");
}

TEST_F(LogPendingFiles, SecondHardLinkIsLeftAlone)
{
    leave(m_strLog);
    ASSERT_EQ(link(m_strPending.c_str(), path("second").c_str()), 0);
    leavesAlone("hard link");
}

TEST_F(LogPendingFiles, FifoIsLeftAloneWithoutBlocking)
{
    ASSERT_EQ(mkfifo(m_strPending.c_str(), 0600), 0);
    leavesAlone("FIFO");
}

TEST_F(LogPendingFiles, FileOfAnotherUserIsLeftAlone)
{
    leave(m_strLog);
    if (chown(m_strPending.c_str(), 12345, static_cast<gid_t>(-1)) != 0)
        GTEST_SKIP() << "this environment forbids chown";
    leavesAlone("foreign file");
}

TEST_F(LogPendingFiles, FileWithAnyOtherContentIsLeftAlone)
{
    makeFile(m_strPending, "my own notes");
    leavesAlone("notes");
    makeFile(m_strPending, std::string(70000, 'x'));
    leavesAlone("long notes");
    leave(path("other"));
    const std::string strCut = contentOf(path("other.pending")).substr(0, 5000);
    makeFile(m_strPending, strCut);
    leavesAlone("a pending file of another size");
}

TEST_F(LogPendingFiles, FileOfAProcessThatWasKilledWhileItMadeItIsTakenOver)
{
    for (const size_t nSize : {size_t{0}, size_t{5}, CLogPending::CAPACITY + 64})
    {
        makeFile(m_strPending, std::string(nSize, '\0'));
        CLogPending::recover(m_strLog.c_str());
        EXPECT_FALSE(exists(m_strLog)) << nSize;
        CLogPending pending;
        EXPECT_TRUE(pending.open(m_strLog.c_str())) << nSize;
        EXPECT_EQ(pending.length(), 0u) << nSize;
        pending.close();
        EXPECT_FALSE(exists(m_strPending)) << nSize;
    }
}

TEST_F(LogPendingFiles, FileInUseIsLeftAlone)
{
    CLogPending inUse;
    ASSERT_TRUE(inUse.open(m_strLog.c_str()));
    memcpy(inUse.end(), "mine\n", 5);
    inUse.add(5);
    const auto tryFromOutside = [&] {
        CLogPending pending;
        EXPECT_FALSE(pending.open(m_strLog.c_str()));
        CLogPending::recover(m_strLog.c_str());
        CLogPending::recoverAll(m_strFolder.c_str(), "Media", ".log");
    };
    tryFromOutside();
    EXPECT_EQ(inChild([&] {
                  inUse.abandon();
                  tryFromOutside();
              }),
              0);
    EXPECT_FALSE(exists(m_strLog));
    EXPECT_TRUE(exists(m_strPending));
    EXPECT_EQ(inUse.length(), 5u);
}

TEST_F(LogPendingFiles, FileThatSomeoneReplacedIsNotRemoved)
{
    CLogPending pending;
    ASSERT_TRUE(pending.open(m_strLog.c_str()));
    ASSERT_EQ(unlink(m_strPending.c_str()), 0);
    CLogPending other;
    ASSERT_TRUE(other.open(m_strLog.c_str()));
    pending.close();
    EXPECT_TRUE(exists(m_strPending));
    other.close();
    EXPECT_FALSE(exists(m_strPending));
}

TEST_F(LogPendingFiles, NumbersThatMakeNoSenseMoveNothingThatIsNotThere)
{
    struct
    {
        char szMagic[16];
        uint32_t auNumbers[4];
        uint64_t aullLog[2];
    } header;
    leave(m_strLog);
    const std::string strLeft = contentOf(m_strPending);
    for (const uint32_t uBegin : {0u, 65537u, 0xffffffffu})
        for (const uint32_t uEnd : {0u, 1u, 65536u, 0xffffffffu})
            for (const uint32_t uMovedFrom : {0u, 65537u, 0xffffffffu})
                for (const uint32_t bMoving : {0u, 1u})
                {
                    std::string strContent = strLeft;
                    memcpy(&header, strContent.data(), sizeof(header));
                    const uint32_t auNumbers[] = {uBegin, uEnd, bMoving, uMovedFrom};
                    memcpy(header.auNumbers, auNumbers, sizeof(auNumbers));
                    memcpy(strContent.data(), &header, sizeof(header));
                    makeFile(m_strPending, strContent);
                    CLogPending::recover(m_strLog.c_str());
                    EXPECT_LE(contentOf(m_strLog).size(), CLogPending::CAPACITY);
                    EXPECT_FALSE(exists(m_strPending));
                    unlink(m_strLog.c_str());
                }
}

TEST_F(LogPendingFiles, FolderThatTakesNoFilesHasNone)
{
    CLogPending pending;
    EXPECT_FALSE(pending.open(path("missing/Media.log").c_str()));
    EXPECT_FALSE(pending.open(("/proc/" + std::to_string(getpid()) + "/Media.log").c_str()));
    EXPECT_FALSE(pending.open(path(std::string(250, 'n').c_str()).c_str()));
    EXPECT_FALSE(pending.open(("/" + std::string(PATH_MAX - 3, 'n')).c_str()));
}

TEST_F(LogPendingFiles, FileSystemThatMayTakeSpaceBackHasNone)
{
    ASSERT_EQ(mkdir(path("ram").c_str(), 0700), 0);
    if (!ownMounts() || mount("ramfs", path("ram").c_str(), "ramfs", 0, nullptr) != 0)
        GTEST_SKIP() << "this environment forbids mounts";
    CLogPending pending;
    EXPECT_FALSE(pending.open(path("ram/Media.log").c_str()));
    EXPECT_FALSE(exists(path("ram/Media.log.pending")));
    umount2(path("ram").c_str(), MNT_DETACH);
}

TEST_F(LogPendingFiles, FullDiskHasNone)
{
    ASSERT_EQ(mkdir(path("full").c_str(), 0700), 0);
    if (!ownMounts() || mount("tmpfs", path("full").c_str(), "tmpfs", 0, "size=48k") != 0)
        GTEST_SKIP() << "this environment forbids mounts";
    CLogPending pending;
    EXPECT_FALSE(pending.open(path("full/Media.log").c_str()));
    EXPECT_FALSE(exists(path("full/Media.log.pending")));
    umount2(path("full").c_str(), MNT_DETACH);
}

TEST_F(LogPendingFiles, FileSizeLimitOfTheProcessRaisesNoSignal)
{
    EXPECT_EQ(inChild([&] {
                  const rlimit limit = {5000, RLIM_INFINITY};
                  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
                  CLogPending pending;
                  EXPECT_FALSE(pending.open(m_strLog.c_str()));
                  EXPECT_FALSE(exists(m_strPending));
              }),
              0);
}

TEST_F(LogPendingFiles, RecoveryRespectsTheFileSizeLimitOfTheProcess)
{
    leave(m_strLog);
    makeFile(m_strLog, std::string(4999, 'x'));
    EXPECT_EQ(inChild([&] {
                  const rlimit limit = {5000, RLIM_INFINITY};
                  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
                  CLogPending::recover(m_strLog.c_str());
              }),
              0);
    CLogPending::recover(m_strLog.c_str());
    EXPECT_EQ(contentOf(m_strLog).substr(4999), "left\n");
}

TEST_F(LogPendingFiles, RecoveryOfAllTakesTheNamesThatDifferInTheProcessIDOnly)
{
    const char* const aszOurs[] = {"Media-p1.log", "Media-p123456.log"};
    const char* const aszOthers[] = {"Media.log",     "Media-p.log",   "Media-play.log",
                                     "Media-p12.txt", "Other-p12.log", "Media-p1x.log",
                                     "Media-p-1.log", "Media-p12",     "xMedia-p12.log"};
    for (const char* const pszName : aszOurs)
        leave(path(pszName));
    for (const char* const pszName : aszOthers)
        leave(path(pszName));
    CLogPending::recoverAll(m_strFolder.c_str(), "Media-p", ".log");
    for (const char* const pszName : aszOurs)
    {
        EXPECT_EQ(contentOf(path(pszName)), "left\n") << pszName;
        EXPECT_FALSE(exists(path(pszName) + ".pending")) << pszName;
    }
    for (const char* const pszName : aszOthers)
    {
        EXPECT_FALSE(exists(path(pszName))) << pszName;
        EXPECT_TRUE(exists(path(pszName) + ".pending")) << pszName;
    }
    CLogPending::recoverAll(path("missing").c_str(), "Media-p", ".log");
}
