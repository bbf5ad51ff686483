// Tests of lines that cannot be written, and of lines that a killed process wrote.
#include "LogFileSupport.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace logtest;
using namespace OrvLogLib;
using testing::ElementsAre;
using testing::EndsWith;
using testing::SizeIs;

namespace
{
class LogLoss : public LogFileTest
{
};

// The process may write no file beyond this size while it lives.
class CFileSizeLimit
{
public:
    explicit CFileSizeLimit(rlim_t nBytes)
    {
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit = {nBytes, m_before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~CFileSizeLimit() { setrlimit(RLIMIT_FSIZE, &m_before); }

private:
    rlimit m_before;
};
} // namespace

TEST_F(LogLoss, LostLinesAreToldOnceWritingWorksAgain)
{
    CLogFile log("Media", "Media", false, false, false);
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    ASSERT_EQ(mkdir(path("Media.log").c_str(), 0700), 0);
    for (int n = 0; n < 3; ++n)
        EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "lost"), -1);
    ASSERT_EQ(rmdir(path("Media.log").c_str()), 0);
    EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "first"), 0);
    EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "second"), 0);
    EXPECT_THAT(linesOf(path("Media.log")),
                ElementsAre(EndsWith(" 64 3 lines lost: Is a directory"), EndsWith(" 2 first"), EndsWith(" 2 second")));
}

TEST_F(LogLoss, LostLinesAreToldWhenTheLogFileEnds)
{
    {
        CLogFile log("Media", "Media", false, false, false);
        const CLogFileRegistry registry = registryOf(&log, m_settings);
        ASSERT_EQ(mkdir(path("Media.log").c_str(), 0700), 0);
        EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "lost"), -1);
        ASSERT_EQ(rmdir(path("Media.log").c_str()), 0);
    }
    EXPECT_THAT(linesOf(path("Media.log")), ElementsAre(EndsWith(" 64 1 line lost: Is a directory")));
}

TEST_F(LogLoss, NothingIsTriedDuringThePauseAfterAFailure)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nRetryMilliseconds = 3600000;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    ASSERT_EQ(mkdir(path("Media.log").c_str(), 0700), 0);
    EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "lost"), -1);
    ASSERT_EQ(rmdir(path("Media.log").c_str()), 0);
    EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "lost"), -1);
    EXPECT_FALSE(exists(path("Media.log")));
}

class LogLossFullDisk : public LogLoss, public testing::WithParamInterface<bool>
{
};

TEST_P(LogLossFullDisk, LosesWholeLinesAndTellsTheirNumber)
{
    ASSERT_EQ(mkdir(path("full").c_str(), 0700), 0);
    if (!ownMounts() || mount("tmpfs", path("full").c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "this environment forbids mounts";
    const bool bTruncationFails = GetParam();
    CLogFile log("Media", path("full/Media").c_str(), false, false, false);
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    const int nBlock = open(path("full/block").c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_EQ(write(nBlock, std::string(20000, 'b').data(), 20000), 20000);

    failTruncation(bTruncationFails);
    const std::string strPad(3000, 'x'); // lines that cross pages, so that some are written in part
    int nWritten = 0;
    int nLost = 0;
    for (int n = 0; n < 40; ++n)
        (log.TraceString(TRACE, LogLib_Normal, "%06d %s", n, strPad.c_str()) > 0 ? nWritten : nLost) += 1;
    ASSERT_GT(nWritten, 5);
    ASSERT_GT(nLost, 5);
    if (!bTruncationFails)
        EXPECT_THAT(linesOf(path("full/Media")), SizeIs(static_cast<size_t>(nWritten))) << "no part of a line stays";
    failTruncation(false);
    close(nBlock);
    ASSERT_EQ(unlink(path("full/block").c_str()), 0);
    EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "again"), 0);

    int nTold = 0;
    int nTellingLines = 0;
    const std::vector<std::string> vLines = linesOf(path("full/Media"));
    for (const std::string& strLine : vLines)
    {
        const bool bTells = strLine.size() < 200 && strLine.find(" lost: No space left on device") != std::string::npos;
        nTellingLines += bTells;
        nTold += bTells ? std::stoi(textOf(strLine)) : 0;
    }
    EXPECT_EQ(nTold, nLost) << "each lost line is told once";
    if (!bTruncationFails)
        EXPECT_EQ(nTellingLines, 1);
    EXPECT_THAT(vLines.back(), EndsWith(" 2 again")) << "also when part of a line had to stay";
    umount2(path("full").c_str(), MNT_DETACH);
}

INSTANTIATE_TEST_SUITE_P(Truncation, LogLossFullDisk, testing::Bool(),
                         [](const auto& test) { return test.param ? "Fails" : "Works"; });

TEST_F(LogLoss, FileSizeLimitOfTheProcessLosesLinesAndRaisesNoSignal)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nMaxFileMegabytes = 0;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    {
        const CFileSizeLimit limit(4096);
        EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "%s", std::string(3000, 'x').c_str()), 0);
        EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "%s", std::string(3000, 'x').c_str()), -1);
    }
    EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "again"), 0);
    const std::vector<std::string> vLines = linesOf(path("Media.log"));
    ASSERT_THAT(vLines, SizeIs(3));
    EXPECT_EQ(textOf(vLines[1]), "1 line lost: File too large");
}

TEST_F(LogLoss, FileSizeLimitOfTheProcessRotatesEarlier)
{
    CLogFile log("Media", "Media", false, false, false);
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    const CFileSizeLimit limit(4096);
    for (int n = 0; n < 3; ++n)
        EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "%s", std::string(3000, 'x').c_str()), 0);
    EXPECT_THAT(linesOf(path("Media.log.2")), SizeIs(1));
}

TEST_F(LogLoss, KilledProcessLosesNoLine)
{
    const std::string strPath = path("killed");
    EXPECT_EQ(inChild([&] {
                  CLogFile log("Media", strPath.c_str(), false, false, false);
                  log.TraceString(TRACE, LogLib_Normal, "last words");
                  kill(getpid(), SIGKILL);
              }),
              SIGKILL);
    EXPECT_THAT(linesOf(strPath), ElementsAre(EndsWith(" 2 last words")));
}
