// The log: its formats, its file, and opening that file anew.
#include "Log.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::SizeIs;

namespace
{
class Log : public testing::Test
{
protected:
    Log()
    {
        char szFolder[] = "/tmp/log-test-XXXXXX";
        m_strFolder = ::mkdtemp(szFolder);
        m_options.m_strLogFile = path("driver.log");
    }

    ~Log() override
    {
        spdlog::set_default_logger(m_pBefore);
        std::filesystem::remove_all(m_strFolder);
    }

    std::string path(const std::string& strName) const { return m_strFolder + "/" + strName; }

    std::vector<std::string> lines(const std::string& strName) const
    {
        EXPECT_TRUE(flushLog());
        std::ifstream file(path(strName));
        std::vector<std::string> vLines;
        for (std::string strLine; std::getline(file, strLine);)
            vLines.push_back(strLine);
        return vLines;
    }

    bool setUpLogWithJson()
    {
        m_options.m_eLogFormat = ELogFormat::Json;
        return setUpLog(m_options, m_strError);
    }

    COptions m_options;
    std::string m_strError;

private:
    std::string m_strFolder;
    const std::shared_ptr<spdlog::logger> m_pBefore = spdlog::default_logger();
};
} // namespace

TEST_F(Log, TextLinesHaveTimeLevelAndMessage)
{
    ASSERT_TRUE(setUpLog(m_options, m_strError));
    spdlog::warn("client {} is slow", 7);
    EXPECT_THAT(lines("driver.log"),
                ElementsAre(MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
                                         "warning: client 7 is slow")));
}

TEST_F(Log, LeavesOutLinesBelowItsLevel)
{
    m_options.m_eLogLevel = spdlog::level::err;
    ASSERT_TRUE(setUpLog(m_options, m_strError));
    spdlog::warn("small");
    spdlog::error("big");
    EXPECT_THAT(lines("driver.log"), ElementsAre(EndsWith("error: big")));
}

TEST_F(Log, JsonLinesAreObjectsWithUtcTimeLevelAndMessage)
{
    ASSERT_TRUE(setUpLogWithJson());
    spdlog::info("client {} connected", 7);
    EXPECT_THAT(
        lines("driver.log"),
        ElementsAre(MatchesRegex("\\{\"time\":\"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z\","
                                 "\"level\":\"info\",\"message\":\"client 7 connected\"\\}")));
}

TEST_F(Log, JsonLinesCanBeReadBackWhateverTheirBytes)
{
    ASSERT_TRUE(setUpLogWithJson());
    std::string strBytes;
    for (int nByte = 0; nByte < 256; ++nByte)
        strBytes += static_cast<char>(nByte);
    spdlog::info("{}", strBytes);
    spdlog::info("\"quoted\" \\ gr\u00fc\u00df\nsecond line");
    spdlog::info("\xe2\x82"); // a character cut off
    const auto vLines = lines("driver.log");
    ASSERT_THAT(vLines, SizeIs(3));
    const std::string strRead = nlohmann::json::parse(vLines[0]).at("message");
    EXPECT_EQ(strRead.substr(0, 128), strBytes.substr(0, 128));
    EXPECT_EQ(nlohmann::json::parse(vLines[1]).at("message"), "\"quoted\" \\ gr\u00fc\u00df\nsecond line");
    EXPECT_EQ(nlohmann::json::parse(vLines[2]).at("message"), "\ufffd");
}

TEST_F(Log, GoesToTheStandardErrorWithoutAFile)
{
    m_options.m_strLogFile.clear();
    testing::internal::CaptureStderr();
    ASSERT_TRUE(setUpLog(m_options, m_strError));
    spdlog::info("hello");
    reopenLog();
    EXPECT_TRUE(flushLog());
    EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith("info: hello\n"));
}

TEST_F(Log, AppendsToWhatTheFileHolds)
{
    std::ofstream(path("driver.log")) << "earlier\n";
    ASSERT_TRUE(setUpLog(m_options, m_strError));
    spdlog::info("later");
    EXPECT_THAT(lines("driver.log"), ElementsAre("earlier", EndsWith("later")));
}

TEST_F(Log, FollowsALink)
{
    std::filesystem::create_symlink(path("elsewhere.log"), path("driver.log"));
    ASSERT_TRUE(setUpLog(m_options, m_strError));
    spdlog::info("hello");
    EXPECT_THAT(lines("elsewhere.log"), SizeIs(1));
}

TEST_F(Log, NamesTheFileThatCannotBeOpened)
{
    m_options.m_strLogFile = path("none/driver.log");
    EXPECT_FALSE(setUpLog(m_options, m_strError));
    EXPECT_THAT(m_strError, HasSubstr(m_options.m_strLogFile));
    EXPECT_THAT(m_strError, HasSubstr("No such file or directory"));
}

TEST_F(Log, DoesNotWaitForAPipesReader)
{
    ASSERT_EQ(::mkfifo(path("driver.log").c_str(), 0600), 0);
    EXPECT_FALSE(setUpLog(m_options, m_strError));
    EXPECT_THAT(m_strError, HasSubstr(path("driver.log")));
}

TEST_F(Log, GoesOnInANewFileAfterTheOldOneWasMovedAway)
{
    ASSERT_TRUE(setUpLog(m_options, m_strError));
    spdlog::info("first");
    std::filesystem::rename(path("driver.log"), path("driver.log.1"));
    spdlog::info("second");
    reopenLog();
    spdlog::info("third");
    EXPECT_THAT(lines("driver.log.1"), ElementsAre(EndsWith("first"), EndsWith("second")));
    EXPECT_THAT(lines("driver.log"), ElementsAre(EndsWith("the log file was opened anew"), EndsWith("third")));
}

TEST_F(Log, StaysInTheOldFileWhenTheNewOneCannotBeOpened)
{
    ASSERT_TRUE(setUpLog(m_options, m_strError));
    std::filesystem::rename(path("driver.log"), path("driver.log.1"));
    std::filesystem::create_directory(path("driver.log"));
    reopenLog();
    spdlog::info("still here");
    EXPECT_THAT(lines("driver.log.1"),
                ElementsAre(AllOf(HasSubstr(" error: "), HasSubstr("Is a directory")), EndsWith("still here")));
}

TEST_F(Log, LinesOfManyThreadsStayWholeWhileTheFileIsOpenedAnew)
{
    ASSERT_TRUE(setUpLogWithJson());
    const std::string strLong(300, 'x');
    std::vector<std::thread> vThreads;
    for (int nThread = 0; nThread < 4; ++nThread)
    {
        vThreads.emplace_back([&strLong] {
            for (int nLine = 0; nLine < 200; ++nLine)
                spdlog::info("{}", strLong);
        });
    }
    for (int nTime = 0; nTime < 20; ++nTime)
        reopenLog();
    for (std::thread& thread : vThreads)
        thread.join();
    const auto vLines = lines("driver.log");
    EXPECT_THAT(vLines, SizeIs(4 * 200 + 20));
    for (const std::string& strLine : vLines)
        EXPECT_TRUE(nlohmann::json::accept(strLine)) << strLine;
}

TEST_F(Log, ALineThatDidNotFitLeavesTheNextOneWhole)
{
    ASSERT_TRUE(setUpLogWithJson());
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small = {100, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    testing::internal::CaptureStderr();
    spdlog::info("{}", std::string(200, 'x'));
    EXPECT_TRUE(flushLog());
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("cannot be written"));
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    spdlog::info("whole");
    const auto vLines = lines("driver.log");
    ASSERT_THAT(vLines, SizeIs(2));
    EXPECT_THAT(vLines[0], SizeIs(100));
    EXPECT_EQ(nlohmann::json::parse(vLines[1]).at("message"), "whole");
}

TEST_F(Log, AFullDiskIsReportedOnTheStandardError)
{
    m_options.m_strLogFile = "/dev/full";
    ASSERT_TRUE(setUpLog(m_options, m_strError));
    testing::internal::CaptureStderr();
    spdlog::info("lost");
    EXPECT_TRUE(flushLog());
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                ContainsRegex("/dev/full.* cannot be written: No space left on device"));
}
