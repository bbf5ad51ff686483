// Tests of collected lines for which there is no room, and of lines that cannot be collected.
#include "LogCollectingFixture.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace logtest;
using namespace OrvLogLib;
using testing::SizeIs;

namespace
{
// In a folder on a small disk of its own.
class LogCollectingLoss : public LogCollectingFixture
{
protected:
    void SetUp() override
    {
        m_bMounted = ownMounts() && mount("tmpfs", m_strFolder.c_str(), "tmpfs", 0, "size=2m,mode=0755") == 0;
        if (!m_bMounted)
            GTEST_SKIP() << "this environment forbids mounts";
    }
    ~LogCollectingLoss() override
    {
        if (m_bMounted)
            umount2(m_strFolder.c_str(), MNT_DETACH);
    }

    void fillDisk(off_t nLeft = 0) const
    {
        const int nBlock = open(path("block").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
        const std::string strPage(4096, 'b');
        while (reallyWrite(nBlock, strPage.data(), strPage.size()) > 0)
            continue;
        EXPECT_EQ(ftruncate(nBlock, lseek(nBlock, 0, SEEK_END) - nLeft), 0);
        close(nBlock);
    }
    void makeRoom() const { EXPECT_EQ(unlink(path("block").c_str()), 0); }

    // Logs numbered lines; returns those that were accepted and counts the others.
    std::vector<std::string> logToFullDisk(CLogFile& log, int nCount)
    {
        const std::string strPad(80, 'x');
        std::vector<std::string> vAccepted;
        for (int n = 0; n < nCount; ++n)
        {
            const bool bAccepted = log.TraceString(TRACE, LogLib_Normal, "%d %s", n, strPad.c_str()) > 0;
            m_nLost += !bAccepted;
            if (bAccepted)
                vAccepted.push_back(std::to_string(n) + " " + strPad);
        }
        return vAccepted;
    }

    // The log's texts without the lines that tell of lost ones; counts both.
    std::vector<std::string> textsWithoutTold()
    {
        std::vector<std::string> vTexts;
        for (const std::string& strText : texts())
        {
            const bool bTells = strText.find(" lost: ") != std::string::npos;
            m_nTold += bTells ? std::stoi(strText) : 0;
            m_nTellingLines += bTells;
            if (!bTells)
                vTexts.push_back(strText);
        }
        return vTexts;
    }

    void expectOneByOne(CLogFile& log)
    {
        for (int n = 0; n < 20; ++n)
        {
            const uintmax_t ullSize = logSize();
            const int nWritten = logNumber(log, n);
            ASSERT_GT(nWritten, 0);
            ASSERT_EQ(logSize(), ullSize + static_cast<uintmax_t>(nWritten));
        }
    }

    bool m_bMounted = false;
    int m_nLost = 0;
    int m_nTold = 0;
    int m_nTellingLines = 0;
};

class LogCollectingFullDisk : public LogCollectingLoss, public testing::WithParamInterface<bool>
{
};
} // namespace

TEST_P(LogCollectingFullDisk, LosesOnlyLinesThatWereRefusedAndTellsTheirNumber)
{
    const bool bTruncationFails = GetParam();
    const auto pLog = makeCollectingLog();
    fillDisk(8192);
    failTruncation(bTruncationFails);
    std::vector<std::string> vAccepted = logToFullDisk(*pLog, 2000);
    EXPECT_GT(vAccepted.size(), 400u);
    EXPECT_GT(m_nLost, 400);
    failTruncation(false);
    makeRoom();
    EXPECT_GT(pLog->TraceString(TRACE, LogLib_Normal, "again"), 0);
    EXPECT_GT(pLog->TraceString(TRACE, LogLib_Normal, "and again"), 0);
    pLog->flush();
    vAccepted.insert(vAccepted.end(), {"again", "and again"});
    EXPECT_EQ(textsWithoutTold(), vAccepted);
    EXPECT_EQ(m_nTold, m_nLost);
    EXPECT_TRUE(bTruncationFails || m_nTellingLines == 1) << m_nTellingLines;
}

INSTANTIATE_TEST_SUITE_P(Truncation, LogCollectingFullDisk, testing::Bool(),
                         [](const auto& test) { return test.param ? "Fails" : "Works"; });

TEST_F(LogCollectingLoss, FullDiskShowsWholeLinesOnly)
{
    const auto pLog = makeCollectingLog();
    fillDisk(8192);
    logToFullDisk(*pLog, 2000);
    const size_t nTexts = texts().size(); // fails unless the last line has its end
    EXPECT_GT(nTexts, 30u);
}

TEST_F(LogCollectingLoss, LinesOfALogFileThatEndsOnAFullDiskAreRecovered)
{
    auto pLog = makeCollectingLog();
    fillDisk(8192);
    std::vector<std::string> vAccepted = logToFullDisk(*pLog, 2000);
    pLog.reset();
    EXPECT_TRUE(exists(m_strPending));
    makeRoom();
    pLog = makeLog();
    EXPECT_GT(pLog->TraceString(TRACE, LogLib_Normal, "again"), 0);
    vAccepted.emplace_back("again");
    EXPECT_EQ(textsWithoutTold(), vAccepted);
    EXPECT_FALSE(exists(m_strPending));
}

TEST_F(LogCollectingLoss, SettingsOnAFullDiskChangeNoOrder)
{
    const auto pLog = makeCollectingLog();
    fillDisk();
    std::vector<std::string> vAccepted = logToFullDisk(*pLog, 100);
    EXPECT_EQ(m_nLost, 0);
    pLog->applySettings(m_settings);
    makeRoom();
    EXPECT_GT(pLog->TraceString(TRACE, LogLib_Normal, "again"), 0);
    pLog->flush();
    vAccepted.emplace_back("again");
    EXPECT_EQ(textsWithoutTold(), vAccepted);
}

TEST_F(LogCollectingLoss, ProcessThatStartsOnAFullDiskRecoversTheLinesOfAnotherWhenItCollects)
{
    inChild([&] {
        const auto pLog = makeCollectingLog();
        fillDisk();
        logNumbers(*pLog, 0, 100);
        endChild(0);
    });
    const auto pLog = makeLog();
    EXPECT_EQ(logNumber(*pLog, 100), -1);
    makeRoom();
    startCollecting(*pLog);
    logNumbers(*pLog, 100, 5);
    EXPECT_EQ(textsWithoutTold(), numbers(0, 100));
    pLog->flush();
    EXPECT_EQ(textsWithoutTold(), numbers(0, 105));
}

TEST_F(LogCollectingLoss, FileSizeLimitOfTheProcessRaisesNoSignal)
{
    m_settings.nMaxFileMegabytes = 0;
    const auto pLog = makeCollectingLog();
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit limit = {logSize() + 5000, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    std::vector<std::string> vAccepted = logToFullDisk(*pLog, 1000);
    EXPECT_GT(vAccepted.size(), 400u);
    EXPECT_GT(m_nLost, 100);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_GT(pLog->TraceString(TRACE, LogLib_Normal, "again"), 0);
    vAccepted.emplace_back("again");
    EXPECT_EQ(textsWithoutTold(), vAccepted);
    EXPECT_EQ(m_nTold, m_nLost);
}

TEST_F(LogCollectingLoss, WithoutRoomForThePendingFileLinesAreWrittenOneByOne)
{
    const auto pLog = makeLog();
    logNumbers(*pLog, 0, DIRECT_LINES);
    fillDisk(40960);
    expectOneByOne(*pLog);
    EXPECT_FALSE(exists(m_strPending));
    makeRoom();
    logNumbers(*pLog, 0, 1);
    EXPECT_TRUE(exists(m_strPending)) << "tried again";
}

TEST_F(LogCollectingLoss, WhereThePathIsTakenLinesAreWrittenOneByOne)
{
    ASSERT_EQ(mkdir(m_strPending.c_str(), 0700), 0);
    const auto pLog = makeCollectingLog();
    expectOneByOne(*pLog);
    EXPECT_THAT(texts(), SizeIs(20));
    ASSERT_EQ(rmdir(m_strPending.c_str()), 0);
    logNumbers(*pLog, 0, 1);
    EXPECT_TRUE(exists(m_strPending)) << "tried again";
}

TEST_F(LogCollectingLoss, PauseAfterAFailureHoldsForThePendingFileToo)
{
    ASSERT_EQ(mkdir(m_strPending.c_str(), 0700), 0);
    m_settings.nRetryMilliseconds = 1000;
    const auto pLog = makeCollectingLog();
    ASSERT_EQ(rmdir(m_strPending.c_str()), 0);
    expectOneByOne(*pLog);
    EXPECT_FALSE(exists(m_strPending));
    advanceClock(1000);
    startCollecting(*pLog);
    EXPECT_TRUE(exists(m_strPending));
}

TEST_F(LogCollectingLoss, InAFolderThatIsNotWritableLinesAreWrittenOneByOne)
{
    close(open(m_strLog.c_str(), O_CREAT | O_WRONLY, 0600));
    if (chown(m_strLog.c_str(), 65534, static_cast<gid_t>(-1)) != 0)
        GTEST_SKIP() << "this environment forbids chown";
    EXPECT_EQ(inChild([&] {
                  ASSERT_EQ(seteuid(65534), 0);
                  const auto pLog = makeCollectingLog();
                  expectOneByOne(*pLog);
                  EXPECT_FALSE(exists(m_strPending));
              }),
              0);
}

TEST_F(LogCollectingLoss, LogFileThatIsRefusedHasNoPendingFile)
{
    ASSERT_EQ(mkdir(m_strLog.c_str(), 0700), 0);
    const auto pLog = makeLog();
    for (int n = 0; n <= DIRECT_LINES; ++n)
        ASSERT_EQ(logNumber(*pLog, n), -1);
    EXPECT_FALSE(exists(m_strPending));
}
