// The command line: values, defaults and mistakes.
#include "Options.h"

#include <gmock/gmock.h>

#include <vector>

using testing::HasSubstr;

namespace
{
std::optional<int> Parse(const std::vector<const char*>& vArguments, COptions& options)
{
    std::vector<const char*> vAll = {"zelmedia-driver"};
    for (const char* pArgument : vArguments)
    {
        vAll.push_back(pArgument);
    }
    return ParseOptions(static_cast<int>(vAll.size()), vAll.data(), options);
}
} // namespace

TEST(Options, HaveDefaults)
{
    COptions options;
    EXPECT_EQ(Parse({}, options), std::nullopt);
    EXPECT_EQ(options.m_strAudioFolder, ".");
    EXPECT_EQ(options.m_eSpeed, ESpeed::RealTime);
    EXPECT_EQ(options.m_strLogFile, "");
    EXPECT_EQ(options.m_eLogLevel, spdlog::level::info);
}

TEST(Options, AreTakenFromTheCommandLine)
{
    COptions options;
    EXPECT_EQ(Parse({"--audio", "/tmp", "--speed=max", "--log", "a.log", "--log-level", "debug"}, options),
              std::nullopt);
    EXPECT_EQ(options.m_strAudioFolder, "/tmp");
    EXPECT_EQ(options.m_eSpeed, ESpeed::Max);
    EXPECT_EQ(options.m_strLogFile, "a.log");
    EXPECT_EQ(options.m_eLogLevel, spdlog::level::debug);
}

TEST(Options, HelpShowsEveryOptionAndAnExample)
{
    COptions options;
    testing::internal::CaptureStdout();
    EXPECT_EQ(Parse({"--help"}, options), 0);
    const std::string strHelp = testing::internal::GetCapturedStdout();
    for (const char* pText : {"--audio", "--speed", "--log ", "--log-level", "--version", "Example:", ".heard.wav"})
    {
        EXPECT_THAT(strHelp, HasSubstr(pText));
    }
}

TEST(Options, VersionIsPrinted)
{
    COptions options;
    testing::internal::CaptureStdout();
    EXPECT_EQ(Parse({"--version"}, options), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "zelmedia-driver " ZELMEDIA_VERSION "\n");
}

TEST(Options, MistakesAreNamed)
{
    const std::vector<std::vector<const char*>> vMistakes = {
        {"--audio", "/tmp/no-such-folder"}, {"--speed", "slow"}, {"--log-level", "loud"}, {"--colour"}, {"word"}};
    for (const auto& vArguments : vMistakes)
    {
        COptions options;
        testing::internal::CaptureStderr();
        EXPECT_EQ(Parse(vArguments, options), 2);
        EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(vArguments.back()));
    }
}
