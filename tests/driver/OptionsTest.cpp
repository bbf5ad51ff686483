// The command line: values, defaults and mistakes.
#include "Options.h"

#include <gmock/gmock.h>

#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
using CArguments = std::vector<const char*>;

std::optional<int> parse(const CArguments& vArguments, COptions& options)
{
    CArguments vAll = {"zelmedia-driver"};
    vAll.insert(vAll.end(), vArguments.begin(), vArguments.end());
    return parseOptions(static_cast<int>(vAll.size()), vAll.data(), options);
}

std::string printed(const CArguments& vArguments)
{
    COptions options;
    testing::internal::CaptureStdout();
    EXPECT_EQ(parse(vArguments, options), 0);
    return testing::internal::GetCapturedStdout();
}

void expectMistake(const CArguments& vArguments, const char* pNamed)
{
    SCOPED_TRACE(testing::PrintToString(vArguments));
    COptions options;
    testing::internal::CaptureStderr();
    EXPECT_EQ(parse(vArguments, options), 2);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(pNamed));
}
} // namespace

TEST(Options, HaveDefaults)
{
    COptions options;
    EXPECT_EQ(parse({}, options), std::nullopt);
    EXPECT_EQ(options.m_strAudioFolder, ".");
    EXPECT_EQ(options.m_strChannelsFile, "");
    EXPECT_EQ(options.m_eSpeed, ESpeed::RealTime);
    EXPECT_FALSE(options.m_bSilenceAfterCaller);
    EXPECT_THAT(options.m_vstrFaults, IsEmpty());
    EXPECT_EQ(options.m_strControlPath, "/tmp/zelmedia-driver.sock");
    EXPECT_EQ(options.m_strCallsPath, "/tmp/zelmedia-calls.sock");
    EXPECT_EQ(options.m_strRtpAddress, "127.0.0.1");
    EXPECT_EQ(options.m_nFirstRtpPort, 20000);
    EXPECT_EQ(options.m_nLastRtpPort, 29999);
    EXPECT_EQ(options.m_strLogFile, "");
    EXPECT_EQ(options.m_eLogLevel, spdlog::level::info);
    EXPECT_EQ(options.m_eLogFormat, ELogFormat::Text);
    EXPECT_EQ(options.m_eLinks, ELinks::Trusted);
    EXPECT_EQ(options.m_nMaxStreams, 10000U);
    EXPECT_EQ(options.m_nMaxFiles, 10000U);
    EXPECT_EQ(options.m_nClipMegabytes, 1024U);
    EXPECT_FALSE(options.m_bCtl);
}

TEST(Options, AreTakenFromTheCommandLine)
{
    COptions options;
    EXPECT_EQ(parse({"--audio", "/tmp",         "--speed=max", "--log",         "a.log",     "--log-level",
                     "debug",   "--log-format", "json",        "--channels",    "/dev/null", "--caller-end",
                     "silence", "--control",    "/tmp/c",      "--links",       "all",       "--max-streams",
                     "3",       "--max-files",  "4",           "--clip-memory", "5"},
                    options),
              std::nullopt);
    EXPECT_EQ(options.m_strAudioFolder, "/tmp");
    EXPECT_EQ(options.m_eSpeed, ESpeed::Max);
    EXPECT_EQ(options.m_strLogFile, "a.log");
    EXPECT_EQ(options.m_eLogLevel, spdlog::level::debug);
    EXPECT_EQ(options.m_eLogFormat, ELogFormat::Json);
    EXPECT_EQ(options.m_strChannelsFile, "/dev/null");
    EXPECT_TRUE(options.m_bSilenceAfterCaller);
    EXPECT_EQ(options.m_strControlPath, "/tmp/c");
    EXPECT_EQ(options.m_eLinks, ELinks::All);
    EXPECT_EQ(options.m_nMaxStreams, 3U);
    EXPECT_EQ(options.m_nMaxFiles, 4U);
    EXPECT_EQ(options.m_nClipMegabytes, 5U);
}

TEST(Options, SayWhereCallsAreAndReceive)
{
    COptions options;
    EXPECT_EQ(parse({"--calls", "/tmp/k", "--rtp-address", "::1", "--rtp-ports", "4000-4001"}, options), std::nullopt);
    EXPECT_EQ(options.m_strCallsPath, "/tmp/k");
    EXPECT_EQ(options.m_strRtpAddress, "::1");
    EXPECT_EQ(options.m_nFirstRtpPort, 4000);
    EXPECT_EQ(options.m_nLastRtpPort, 4001);
    EXPECT_EQ(parse({"--calls", "none"}, options), std::nullopt);
    EXPECT_EQ(options.m_strCallsPath, "");
    expectMistake({"--calls", ""}, "--calls");
    for (const char* pAddress : {"", "localhost", "127.0.0.1:5", "1.2.3"})
        expectMistake({"--rtp-address", pAddress}, "--rtp-address");
    for (const char* pPorts :
         {"", "4000", "4000-", "-4000", "4001-4002", "4000-4000", "0-10", "4000-65536", "4000-4001x"})
        expectMistake({std::string("--rtp-ports=").append(pPorts).c_str()}, "--rtp-ports");
}

TEST(Options, FaultRulesAreKeptAsTheyAre)
{
    COptions options;
    EXPECT_EQ(parse({"--fault", "do=refuse,on=playfile,nth=3", "--fault", "[a,b]"}, options), std::nullopt);
    EXPECT_THAT(options.m_vstrFaults, ElementsAre("do=refuse,on=playfile,nth=3", "[a,b]"));
}

TEST(Options, AFaultRuleDoesNotTakeTheSubcommandAlong)
{
    COptions options;
    expectMistake({"--links", "some"}, "--links");
    expectMistake({"--max-files", "0"}, "--max-files");
    expectMistake({"--clip-memory", "x"}, "--clip-memory");
    expectMistake({"--fault", "do=die", "word"}, "word");
}

TEST(Options, ControlNoneMeansNoSocket)
{
    COptions options;
    EXPECT_EQ(parse({"--control", "none"}, options), std::nullopt);
    EXPECT_EQ(options.m_strControlPath, "");
}

TEST(Options, CtlTakesAllWordsBehindItsOptions)
{
    COptions options;
    EXPECT_EQ(parse({"ctl", "--control", "/tmp/c", "fault", "do=refuse", "call=a b", "[x,y]", "ctl", "++"}, options),
              std::nullopt);
    EXPECT_TRUE(options.m_bCtl);
    EXPECT_EQ(options.m_strControlPath, "/tmp/c");
    EXPECT_THAT(options.m_vstrCtlWords, ElementsAre("fault", "do=refuse", "call=a b", "[x,y]", "ctl", "++"));
}

TEST(Options, CtlTakesTheSocketInFrontOfItToo)
{
    COptions options;
    EXPECT_EQ(parse({"--control", "/tmp/c", "ctl", "stats"}, options), std::nullopt);
    EXPECT_EQ(options.m_strControlPath, "/tmp/c");
    EXPECT_THAT(options.m_vstrCtlWords, ElementsAre("stats"));
}

TEST(Options, CtlRefusesOptionsAmongItsWords)
{
    expectMistake({"ctl", "stats", "--control", "/tmp/c"}, "--control");
    expectMistake({"ctl", "stats", "--log=x"}, "--log=x");
    expectMistake({"ctl", "stats", "-h"}, "-h");
    expectMistake({"ctl", "--log", "stats"}, "--log");
    expectMistake({"ctl", "--", "--control"}, "--control");
}

TEST(Options, CtlRefusesOptionsOfADriverThatServes)
{
    expectMistake({"--audio", "/tmp", "ctl", "stats"}, "--audio");
    expectMistake({"--fault", "do=die", "ctl", "stats"}, "--fault");
}

TEST(Options, CtlNeedsAWordAndASocket)
{
    expectMistake({"ctl"}, "WORD");
    expectMistake({"ctl", ""}, "WORD");
    expectMistake({"ctl", "--control", "none", "stats"}, "--control");
}

TEST(Options, HelpShowsEveryOptionAndExamples)
{
    const std::string strHelp = printed({"--help"});
    for (const char* pText :
         {"--audio", "--channels", "--speed", "--caller-end", "--fault", "--control", "--log ", "--log-level",
          "--log-format", "--version", "Examples:", ".heard.wav", "ctl", "SIGTERM", "SIGHUP"})
        EXPECT_THAT(strHelp, HasSubstr(pText));
}

TEST(Options, HelpOfCtlShowsItsOptionAndExamples)
{
    const std::string strHelp = printed({"ctl", "--help"});
    for (const char* pText : {"ctl [OPTIONS] WORD...", "--control", "Examples:", "ctl hangup call=1001"})
        EXPECT_THAT(strHelp, HasSubstr(pText));
}

TEST(Options, VersionIsPrinted)
{
    EXPECT_EQ(printed({"--version"}), "zelmedia-driver " ZELMEDIA_VERSION "\n");
}

TEST(Options, MistakesAreNamed)
{
    expectMistake({"--audio", "/tmp/no-such-folder"}, "/tmp/no-such-folder");
    expectMistake({"--channels", "/tmp/no-such-file"}, "/tmp/no-such-file");
    expectMistake({"--channels", "/tmp"}, "/tmp");
    expectMistake({"--speed", "slow"}, "slow");
    expectMistake({"--caller-end", "loop"}, "loop");
    expectMistake({"--log-level", "loud"}, "loud");
    expectMistake({"--log-format", "xml"}, "xml");
    expectMistake({"--control", ""}, "--control");
    expectMistake({"--fault"}, "--fault");
    expectMistake({"--colour"}, "--colour");
    expectMistake({"word"}, "word");
}
