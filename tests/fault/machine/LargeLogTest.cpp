// Log files beyond 2 and 4 GiB, which are holes for the greatest part.
#include "../../unit/LogFileSupport.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace logtest;
using namespace OrvLogLib;

namespace
{
const off_t GIB = off_t{1} << 30;
const off_t MIB = off_t{1} << 20;

off_t sizeOf(const std::string& strPath)
{
    struct stat status = {};
    return stat(strPath.c_str(), &status) == 0 ? status.st_size : -1;
}

void makeLarge(const std::string& strPath, off_t nBytes)
{
    const int nFile = open(strPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
    ASSERT_EQ(1, pwrite(nFile, "\n", 1, nBytes - 1));
    close(nFile);
}

std::string contentFrom(const std::string& strPath, off_t nBegin)
{
    std::string strContent(static_cast<size_t>(sizeOf(strPath) - nBegin), '\0');
    const int nFile = open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(static_cast<ssize_t>(strContent.size()), pread(nFile, strContent.data(), strContent.size(), nBegin));
    close(nFile);
    return strContent;
}

size_t countLines(const std::string& strContent)
{
    return static_cast<size_t>(std::count(strContent.begin(), strContent.end(), '\n'));
}

class LargeLog : public LogFileTest, public testing::WithParamInterface<off_t>
{
protected:
    LargeLog() : m_strLog(path("Media.log"))
    {
        m_settings.nMaxFileMegabytes = 0;
        makeLarge(m_strLog, m_nBegin);
    }

    const off_t m_nBegin = GetParam() - 100; // the first line or two cross the limit
    const std::string m_strLog;
};
} // namespace

TEST_P(LargeLog, TakesLinesOneByOneAndCollected)
{
    const size_t LINES = 20000;
    size_t nBytes = 0;
    {
        CLogFile log("Media", "Media", false, false, false);
        log.applySettings(m_settings);
        for (size_t n = 0; n < LINES; ++n)
        {
            const int nLength = log.TraceString(TRACE, LogLib_Normal, "line %zu", n);
            ASSERT_LT(0, nLength);
            nBytes += static_cast<size_t>(nLength);
        }
    }
    const std::string strContent = contentFrom(m_strLog, m_nBegin);
    EXPECT_EQ(nBytes, strContent.size());
    EXPECT_EQ(LINES, countLines(strContent));
    EXPECT_EQ(strContent.size() - std::string("line 19999\n").size(), strContent.find("line 19999\n"));
    EXPECT_FALSE(exists(path("Media.log.1")));
}

TEST_P(LargeLog, GetsTheLinesThatAKilledProcessLeft)
{
    if (!keepsAllocatedSpace(m_strFolder))
        GTEST_SKIP() << "this file system may take back space that was allocated";
    const size_t LINES = 11000; // the last of them are pending
    EXPECT_EQ(SIGKILL, inChild([&] {
                  stopClock();
                  CLogFile log("Media", "Media", false, false, false);
                  log.applySettings(m_settings);
                  for (size_t n = 0; n < LINES; ++n)
                      log.TraceString(TRACE, LogLib_Normal, "line %zu", n);
                  kill(getpid(), SIGKILL);
              }));
    EXPECT_GT(LINES, countLines(contentFrom(m_strLog, m_nBegin)));
    CLogFile log("Media", "Media", false, false, false);
    log.applySettings(m_settings);
    EXPECT_LT(0, log.TraceString(TRACE, LogLib_Normal, "next"));
    const std::string strContent = contentFrom(m_strLog, m_nBegin);
    EXPECT_EQ(LINES + 1, countLines(strContent));
    EXPECT_LT(strContent.find("line 10999\n"), strContent.find(" 2 next\n"));
}

TEST_P(LargeLog, RotatesAtTheSizeThatIsSet)
{
    m_settings.nMaxFileMegabytes = static_cast<unsigned int>(GetParam() / MIB);
    CLogFile log("Media", "Media", false, false, false);
    log.applySettings(m_settings);
    ASSERT_LT(0, log.TraceString(TRACE, LogLib_Normal, "fits"));
    EXPECT_FALSE(exists(path("Media.log.1")));
    const off_t nSize = sizeOf(m_strLog);
    EXPECT_LT(m_nBegin, nSize);
    ASSERT_LT(0, log.TraceString(TRACE, LogLib_Normal, "%s", std::string(200, 'x').c_str()));
    EXPECT_EQ(nSize, sizeOf(path("Media.log.1")));
    EXPECT_EQ(1u, countLines(contentOf(m_strLog)));
}

TEST_P(LargeLog, OfAnEarlierProcessIsRotatedByTheFirstLineWhenItIsTooLarge)
{
    m_settings.nMaxFileMegabytes = 100;
    CLogFile log("Media", "Media", false, false, false);
    log.applySettings(m_settings);
    ASSERT_LT(0, log.TraceString(TRACE, LogLib_Normal, "first"));
    EXPECT_EQ(m_nBegin, sizeOf(path("Media.log.1")));
    EXPECT_EQ(1u, countLines(contentOf(m_strLog)));
}

TEST_P(LargeLog, HasNoPartOfALineOnAFullDisk)
{
    ASSERT_EQ(0, mkdir(path("full").c_str(), 0700));
    if (!ownMounts() || mount("tmpfs", path("full").c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "this environment forbids mounts";
    const std::string strFull = path("full/Media.log");
    makeLarge(strFull, m_nBegin);
    CLogFile log("Media", strFull.c_str(), false, false, false);
    log.applySettings(m_settings);
    const std::string strPad(3000, 'x'); // lines that cross pages, so that some are written in part
    size_t nWritten = 0;
    size_t nLost = 0;
    for (int n = 0; n < 40; ++n)
        (log.TraceString(TRACE, LogLib_Normal, "%s", strPad.c_str()) > 0 ? nWritten : nLost) += 1;
    EXPECT_LT(5u, nWritten);
    EXPECT_LT(5u, nLost);
    const std::string strContent = contentFrom(strFull, m_nBegin);
    EXPECT_EQ(nWritten, countLines(strContent));
    EXPECT_EQ('\n', strContent.back());
    umount2(path("full").c_str(), MNT_DETACH);
}

INSTANTIATE_TEST_SUITE_P(At, LargeLog, testing::Values(2 * GIB, 4 * GIB),
                         [](const auto& size) { return std::to_string(size.param / GIB) + "GiB"; });
