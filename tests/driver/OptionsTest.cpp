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

std::optional<int> Parse(const CArguments& vArguments, COptions& options)
{
    CArguments vAll = {"zelmedia-driver"};
    vAll.insert(vAll.end(), vArguments.begin(), vArguments.end());
    return ParseOptions(static_cast<int>(vAll.size()), vAll.data(), options);
}

std::string Printed(const CArguments& vArguments)
{
    COptions options;
    testing::internal::CaptureStdout();
    EXPECT_EQ(Parse(vArguments, options), 0);
    return testing::internal::GetCapturedStdout();
}

void ExpectMistake(const CArguments& vArguments, const char* pNamed)
{
    SCOPED_TRACE(testing::PrintToString(vArguments));
    COptions options;
    testing::internal::CaptureStderr();
    EXPECT_EQ(Parse(vArguments, options), 2);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(pNamed));
}
} // namespace

TEST(Options, HaveDefaults)
{
    COptions options;
    EXPECT_EQ(Parse({}, options), std::nullopt);
    EXPECT_EQ(options.m_strAudioFolder, ".");
    EXPECT_EQ(options.m_strChannelsFile, "");
    EXPECT_EQ(options.m_eSpeed, ESpeed::RealTime);
    EXPECT_FALSE(options.m_bSilenceAfterCaller);
    EXPECT_THAT(options.m_vstrFaults, IsEmpty());
    EXPECT_EQ(options.m_strControlPath, "/tmp/zelmedia-driver.sock");
    EXPECT_EQ(options.m_strLogFile, "");
    EXPECT_EQ(options.m_eLogLevel, spdlog::level::info);
    EXPECT_EQ(options.m_eLogFormat, ELogFormat::Text);
    EXPECT_FALSE(options.m_bCtl);
}

TEST(Options, AreTakenFromTheCommandLine)
{
    COptions options;
    EXPECT_EQ(Parse({"--audio", "/tmp", "--speed=max", "--log", "a.log", "--log-level", "debug", "--log-format", "json",
                     "--channels", "/dev/null", "--caller-end", "silence", "--control", "/tmp/c"},
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
}

TEST(Options, FaultRulesAreKeptAsTheyAre)
{
    COptions options;
    EXPECT_EQ(Parse({"--fault", "do=refuse,on=playfile,nth=3", "--fault", "[a,b]"}, options), std::nullopt);
    EXPECT_THAT(options.m_vstrFaults, ElementsAre("do=refuse,on=playfile,nth=3", "[a,b]"));
}

TEST(Options, AFaultRuleDoesNotTakeTheSubcommandAlong)
{
    COptions options;
    ExpectMistake({"--fault", "do=die", "word"}, "word");
}

TEST(Options, ControlNoneMeansNoSocket)
{
    COptions options;
    EXPECT_EQ(Parse({"--control", "none"}, options), std::nullopt);
    EXPECT_EQ(options.m_strControlPath, "");
}

TEST(Options, CtlTakesAllWordsBehindItsOptions)
{
    COptions options;
    EXPECT_EQ(Parse({"ctl", "--control", "/tmp/c", "fault", "do=refuse", "call=a b", "[x,y]", "ctl", "++"}, options),
              std::nullopt);
    EXPECT_TRUE(options.m_bCtl);
    EXPECT_EQ(options.m_strControlPath, "/tmp/c");
    EXPECT_THAT(options.m_vstrCtlWords, ElementsAre("fault", "do=refuse", "call=a b", "[x,y]", "ctl", "++"));
}

TEST(Options, CtlTakesTheSocketInFrontOfItToo)
{
    COptions options;
    EXPECT_EQ(Parse({"--control", "/tmp/c", "ctl", "stats"}, options), std::nullopt);
    EXPECT_EQ(options.m_strControlPath, "/tmp/c");
    EXPECT_THAT(options.m_vstrCtlWords, ElementsAre("stats"));
}

TEST(Options, CtlRefusesOptionsAmongItsWords)
{
    ExpectMistake({"ctl", "stats", "--control", "/tmp/c"}, "--control");
    ExpectMistake({"ctl", "stats", "--log=x"}, "--log=x");
    ExpectMistake({"ctl", "stats", "-h"}, "-h");
    ExpectMistake({"ctl", "--log", "stats"}, "--log");
    ExpectMistake({"ctl", "--", "--control"}, "--control");
}

TEST(Options, CtlRefusesOptionsOfADriverThatServes)
{
    ExpectMistake({"--audio", "/tmp", "ctl", "stats"}, "--audio");
    ExpectMistake({"--fault", "do=die", "ctl", "stats"}, "--fault");
}

TEST(Options, CtlNeedsAWordAndASocket)
{
    ExpectMistake({"ctl"}, "WORD");
    ExpectMistake({"ctl", ""}, "WORD");
    ExpectMistake({"ctl", "--control", "none", "stats"}, "--control");
}

TEST(Options, HelpShowsEveryOptionAndExamples)
{
    const std::string strHelp = Printed({"--help"});
    for (const char* pText :
         {"--audio", "--channels", "--speed", "--caller-end", "--fault", "--control", "--log ", "--log-level",
          "--log-format", "--version", "Examples:", ".heard.wav", "ctl", "SIGTERM", "SIGHUP"})
    {
        EXPECT_THAT(strHelp, HasSubstr(pText));
    }
}

TEST(Options, HelpOfCtlShowsItsOptionAndExamples)
{
    const std::string strHelp = Printed({"ctl", "--help"});
    for (const char* pText : {"ctl [OPTIONS] WORD...", "--control", "Examples:", "ctl hangup call=1001"})
    {
        EXPECT_THAT(strHelp, HasSubstr(pText));
    }
}

TEST(Options, VersionIsPrinted)
{
    EXPECT_EQ(Printed({"--version"}), "zelmedia-driver " ZELMEDIA_VERSION "\n");
}

TEST(Options, MistakesAreNamed)
{
    ExpectMistake({"--audio", "/tmp/no-such-folder"}, "/tmp/no-such-folder");
    ExpectMistake({"--channels", "/tmp/no-such-file"}, "/tmp/no-such-file");
    ExpectMistake({"--channels", "/tmp"}, "/tmp");
    ExpectMistake({"--speed", "slow"}, "slow");
    ExpectMistake({"--caller-end", "loop"}, "loop");
    ExpectMistake({"--log-level", "loud"}, "loud");
    ExpectMistake({"--log-format", "xml"}, "xml");
    ExpectMistake({"--control", ""}, "--control");
    ExpectMistake({"--fault"}, "--fault");
    ExpectMistake({"--colour"}, "--colour");
    ExpectMistake({"word"}, "word");
}
