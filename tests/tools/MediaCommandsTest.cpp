// The subcommands play, record and phrase play of zelmedia, with the reference driver.
#include "ReferenceDriver.h"
#include "SampleFiles.h"
#include "ToolRun.h"
#include "WaitUntil.h"
#include "base/Duration.h"
#include "media/ProgressLine.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>
#include <unistd.h>

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace
{
const char HEARD[] = "/tmp/calls/c-1.heard.wav";
const char NO_PIPES[] = "no pipes";

// A pipe that a client process has left.
std::string clientPipe()
{
    for (const auto& entry : std::filesystem::directory_iterator("/tmp"))
    {
        const std::string strName = entry.path().filename();
        if (strName.starts_with("OrvMediaIntf-Rsp-") || strName.starts_with("OrvMediaIntf-Evt-"))
            return strName;
    }
    return NO_PIPES;
}

std::vector<nlohmann::json> jsonLines(const std::string& strText)
{
    std::vector<nlohmann::json> vLines;
    std::istringstream lines(strText);
    for (std::string strLine; std::getline(lines, strLine);)
        vLines.push_back(nlohmann::json::parse(strLine, nullptr, false));
    return vLines;
}

class MediaCommands : public testing::Test
{
protected:
    MediaCommands()
    {
        std::filesystem::create_directory("/tmp/calls");
        writeFile("/tmp/a.ul", m_a);
        writeFile("/tmp/b.ul", m_b);
        writeFile("/tmp/long.ul", noise(600 * 8000, 3));
    }

    void start(std::vector<std::string> vOptions = {"--speed", "max"})
    {
        vOptions.insert(vOptions.end(), {"--audio", "/tmp/calls", "--log", "/tmp/driver.log"});
        ASSERT_TRUE(m_driver.start(vOptions));
    }

    // Every one on call c.
    static std::vector<std::string> onCall(std::vector<std::string> vArguments)
    {
        vArguments.insert(vArguments.end(), {"--call", "c", "--wait", "30s"});
        return vArguments;
    }

    void callerSays(const CSamples& samples)
    {
        writeFile("/tmp/caller.ul", samples);
        ASSERT_EQ(CToolRun({"play", "/tmp/caller.ul", "--call", "caller", "--wait", "30s"}).waitExit(), 0);
        std::filesystem::rename("/tmp/calls/caller-1.heard.wav", "/tmp/calls/c.in.wav");
    }

    static void buildPhrases()
    {
        CToolRun run({"phrases", "build", "/tmp/a.ul", "/tmp/b.ul", "/tmp/long.ul", "-o", "/tmp/p.ul", "--index",
                      "/tmp/p.json"});
        ASSERT_EQ(run.waitExit(), 0) << run.errors();
    }

    // Whether the driver still has a stream of the call.
    static bool isCallOpen() { return CReferenceDriver::control({"hangup", "call=c"}); }

    const CSamples m_a = noise(3000, 1);
    const CSamples m_b = noise(4321, 2);
    CReferenceDriver m_driver;
};
} // namespace

TEST_F(MediaCommands, PlayPlaysFilesOneAfterTheOtherBitExact)
{
    start();
    CToolRun run(onCall({"play", "/tmp/a.ul", "/tmp/b.ul"}));
    EXPECT_EQ(run.waitExit(), 0) << run.errors();
    EXPECT_TRUE(samplesOf(HEARD) == m_a + m_b);
}

TEST_F(MediaCommands, PlayWritesPlainLinesIntoAPipe)
{
    start();
    CToolRun run(onCall({"play", "/tmp/a.ul", "/tmp/b.ul"}));
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_THAT(run.output(), MatchesRegex("playing /tmp/a.ul\nplayed /tmp/a.ul: MCS_OK, [0-9]+\\.[0-9]{3} s\n"
                                           "playing /tmp/b.ul\nplayed /tmp/b.ul: MCS_OK, [0-9]+\\.[0-9]{3} s\n"));
    EXPECT_EQ(run.errors(), "");
}

TEST_F(MediaCommands, PlayLeavesNoPipes)
{
    start();
    EXPECT_EQ(CToolRun(onCall({"play", "/tmp/a.ul"})).waitExit(), 0);
    EXPECT_EQ(clientPipe(), NO_PIPES);
}

TEST_F(MediaCommands, PlayDrawsABarOnATerminal)
{
    start({});
    writeFile("/tmp/three.ul", noise(3 * 8000, 5));
    CToolRun run(onCall({"play", "/tmp/three.ul", "/tmp/a.ul"}), CToolRun::TO_TERMINAL);
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_THAT(run.output(), AllOf(HasSubstr("\rthree.ul [#"), HasSubstr(" / 3.0 s  1 of 2\033[K"),
                                    HasSubstr("played /tmp/a.ul: MCS_OK, "), Not(HasSubstr("playing"))));
}

TEST_F(MediaCommands, PlayAnswersAJsonObjectALine)
{
    start();
    CToolRun run(onCall({"play", "/tmp/a.ul", "--json"}));
    EXPECT_EQ(run.waitExit(), 0);
    const auto vLines = jsonLines(run.output());
    ASSERT_EQ(vLines.size(), 2u);
    EXPECT_EQ(
        vLines[0],
        nlohmann::json({{"event", "playing"}, {"name", "/tmp/a.ul"}, {"number", 1}, {"of", 1}, {"total_s", 0.375}}));
    EXPECT_EQ(vLines[1].at("event"), "played");
    EXPECT_EQ(vLines[1].at("status_name"), "MCS_OK");
    EXPECT_GE(vLines[1].at("elapsed_s"), 0.0);
}

TEST_F(MediaCommands, PlayBeginsInTheFirstFileWhereItIsTold)
{
    start();
    CToolRun run(onCall({"play", "/tmp/a.ul", "/tmp/b.ul", "--from", "125ms"}));
    EXPECT_EQ(run.waitExit(), 0) << run.errors();
    EXPECT_TRUE(samplesOf(HEARD) == m_a.substr(1000) + m_b);
}

TEST_F(MediaCommands, PlayFromBehindTheEndSaysHowLongTheFileIs)
{
    start();
    CToolRun run(onCall({"play", "/tmp/a.ul", "--from", "1s"}));
    EXPECT_EQ(run.waitExit(), 1);
    EXPECT_THAT(run.errors(), HasSubstr("/tmp/a.ul: MCS_REFUSED (34), the driver refused; its log says why; "
                                        "it has only 0.375 s"));
}

TEST_F(MediaCommands, PlayUsesTheLeg)
{
    start();
    EXPECT_EQ(CToolRun(onCall({"play", "/tmp/a.ul", "--leg", "7"})).waitExit(), 0);
    EXPECT_TRUE(samplesOf("/tmp/calls/c-7.heard.wav") == m_a);
}

TEST_F(MediaCommands, PlayTakesARelativePathFromTheWorkingDirectory)
{
    start();
    ASSERT_EQ(chdir("/tmp/calls"), 0);
    EXPECT_EQ(CToolRun(onCall({"play", "../a.ul"})).waitExit(), 0);
    EXPECT_TRUE(samplesOf(HEARD) == m_a);
}

TEST_F(MediaCommands, PlayOfAFileThatIsMissingFailsAfterThoseBeforeIt)
{
    start();
    CToolRun run(onCall({"play", "/tmp/a.ul", "/tmp/none.ul", "/tmp/b.ul"}));
    EXPECT_EQ(run.waitExit(), 1);
    EXPECT_THAT(run.errors(), AllOf(HasSubstr("/tmp/none.ul: MCS_REFUSED (34)"),
                                    HasSubstr("here there is no such file either"), HasSubstr("not played: 1 more")));
    EXPECT_TRUE(samplesOf(HEARD) == m_a);
}

TEST_F(MediaCommands, PlayOnACallThatIsRefusedFails)
{
    start();
    CToolRun run({"play", "/tmp/a.ul", "--call", "a/b", "--wait", "30s", "--json"});
    EXPECT_EQ(run.waitExit(), 1);
    EXPECT_THAT(run.json().at("error"), HasSubstr("call a/b, leg 1 cannot be opened: MCS_REFUSED (34)"));
}

TEST_F(MediaCommands, PlayWithoutADriverExits3)
{
    CToolRun run({"play", "/tmp/a.ul", "--call", "c", "--wait", "200ms"});
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_THAT(run.errors(), HasSubstr("no media driver answers within 0.200 s"));
    EXPECT_EQ(clientPipe(), NO_PIPES);
}

TEST_F(MediaCommands, PlayThatIsInterruptedWhileItWaitsForTheDriverExits130)
{
    CToolRun run(onCall({"play", "/tmp/a.ul"}));
    ASSERT_TRUE(waitUntil([] { return clientPipe() != NO_PIPES; }));
    run.signal(SIGINT);
    EXPECT_EQ(run.waitExit(), 130);
    EXPECT_EQ(clientPipe(), NO_PIPES);
}

TEST_F(MediaCommands, PlayThatIsInterruptedCancelsAndClosesTheChannel)
{
    start({});
    for (const int nSignal : {SIGINT, SIGTERM})
    {
        CToolRun run(onCall({"play", "/tmp/long.ul", "/tmp/a.ul"}));
        ASSERT_TRUE(run.waitOutput("playing")) << run.errors();
        EXPECT_TRUE(CReferenceDriver::control({"streams", "call=c"}));
        run.signal(nSignal);
        EXPECT_EQ(run.waitExit(), 130);
        EXPECT_THAT(run.output(), AllOf(HasSubstr("played /tmp/long.ul: MCS_CANCELLED (3)"), Not(HasSubstr("a.ul: "))));
        EXPECT_FALSE(isCallOpen());
        EXPECT_EQ(clientPipe(), NO_PIPES);
    }
}

TEST_F(MediaCommands, CtrlCOnATerminalInterrupts)
{
    start({});
    CToolRun run(onCall({"play", "/tmp/long.ul"}), CToolRun::TO_TERMINAL);
    ASSERT_TRUE(run.waitOutput("/ 600.0 s"));
    run.signal(SIGINT);
    EXPECT_EQ(run.waitExit(), 130);
    EXPECT_THAT(run.output(), HasSubstr("MCS_CANCELLED (3)"));
}

TEST_F(MediaCommands, PlayOnACallThatHangsUpFails)
{
    start({});
    CToolRun run(onCall({"play", "/tmp/long.ul"}));
    ASSERT_TRUE(run.waitOutput("playing"));
    EXPECT_TRUE(CReferenceDriver::control({"hangup", "call=c"}));
    EXPECT_EQ(run.waitExit(), 1);
    EXPECT_THAT(run.errors(), HasSubstr("status 5, a status of the driver's own"));
}

TEST_F(MediaCommands, PlayNoticesThatTheDriverDies)
{
    start({});
    CToolRun run(onCall({"play", "/tmp/long.ul"}));
    ASSERT_TRUE(run.waitOutput("playing"));
    m_driver.stop(SIGKILL);
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_THAT(run.errors(), HasSubstr("the media driver is lost"));
}

TEST_F(MediaCommands, PlayThatTheDriverDoesNotAnswerExits3)
{
    start({"--speed", "max", "--fault", "do=drop,on=playfile"});
    CToolRun run(onCall({"play", "/tmp/a.ul"}));
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_THAT(run.errors(), HasSubstr("/tmp/a.ul: MCS_NORESPONSE (16), the driver did not answer in time"));
}

TEST_F(MediaCommands, PlayThatPassesItsTimeoutFails)
{
    start({});
    CToolRun run(onCall({"play", "/tmp/long.ul", "--timeout", "1s"}));
    EXPECT_EQ(run.waitExit(), 1);
    EXPECT_THAT(run.errors(), HasSubstr("MCS_TIMEDOUT (46)"));
}

TEST_F(MediaCommands, PhrasePlayPlaysTheSamplesThatTheFilesHad)
{
    start();
    buildPhrases();
    CToolRun run(onCall({"phrase", "play", "b", "a", "--phrases", "/tmp/p.json"}));
    EXPECT_EQ(run.waitExit(), 0) << run.errors();
    EXPECT_TRUE(samplesOf(HEARD) == m_b + m_a);
}

TEST_F(MediaCommands, PhrasePlayRefusesAPhraseThatIsNotInTheIndex)
{
    buildPhrases();
    CToolRun run(onCall({"phrase", "play", "a", "x", "--phrases", "/tmp/p.json"}));
    EXPECT_EQ(run.waitExit(), 2);
    EXPECT_THAT(run.errors(), HasSubstr("/tmp/p.json: there is no phrase x"));
}

TEST_F(MediaCommands, RecordTakesWhatTheCallerSays)
{
    start();
    callerSays(m_b);
    CToolRun run(onCall({"record", "/tmp/message.ul"}));
    EXPECT_EQ(run.waitExit(), 0) << run.errors();
    EXPECT_EQ(run.output(), "recording /tmp/message.ul\nrecorded /tmp/message.ul: MCS_OK, 0.540 s\n");
    EXPECT_TRUE(readFile("/tmp/message.ul") == m_b);
}

TEST_F(MediaCommands, RecordEndsAtItsLimit)
{
    start();
    CToolRun run(onCall({"record", "/tmp/message.ul", "--max", "2s", "--json"}));
    EXPECT_EQ(run.waitExit(), 0) << run.errors();
    EXPECT_EQ(jsonLines(run.output()).back().at("recorded_s"), 2.0);
    EXPECT_TRUE(readFile("/tmp/message.ul") == CSamples(16000, '\xFF'));
}

TEST_F(MediaCommands, RecordBehindAPromptPlaysAndRecords)
{
    start();
    callerSays(m_b);
    buildPhrases();
    CToolRun run(onCall({"record", "/tmp/message.ul", "--prompt", "a", "--phrases", "/tmp/p.json"}));
    EXPECT_EQ(run.waitExit(), 0) << run.errors();
    EXPECT_EQ(run.output(), "playing a\nrecording /tmp/message.ul\nrecorded /tmp/message.ul: MCS_OK, 0.540 s\n");
    EXPECT_TRUE(samplesOf(HEARD) == m_a);
    EXPECT_TRUE(readFile("/tmp/message.ul") == m_b);
}

TEST_F(MediaCommands, RecordThatIsInterruptedKeepsWhatItHas)
{
    start({});
    CToolRun run(onCall({"record", "/tmp/message.ul", "--max", "10m"}), CToolRun::TO_TERMINAL);
    ASSERT_TRUE(run.waitOutput(" 1.")) << run.output(); // 0.95 s at least
    run.signal(SIGINT);
    EXPECT_EQ(run.waitExit(), 130);
    EXPECT_THAT(run.output(), HasSubstr("recorded /tmp/message.ul: MCS_CANCELLED (3)"));
    EXPECT_TRUE(waitUntil([] { return std::filesystem::file_size("/tmp/message.ul") >= 7600; }));
    EXPECT_FALSE(isCallOpen());
}

TEST_F(MediaCommands, RecordThatIsInterruptedBehindItsPromptKeepsWhatItHas)
{
    start({});
    buildPhrases();
    CToolRun run(onCall({"record", "/tmp/message.ul", "--prompt", "a", "--phrases", "/tmp/p.json"}),
                 CToolRun::TO_TERMINAL);
    ASSERT_TRUE(run.waitOutput("/ 30.0 s")) << run.output();
    ASSERT_TRUE(run.waitOutput(" 1.")) << run.output(); // 0.95 s at least
    run.signal(SIGINT);
    EXPECT_EQ(run.waitExit(), 130);
    EXPECT_THAT(run.output(), HasSubstr("recorded /tmp/message.ul: MCS_CANCELLED (3)"));
    EXPECT_GE(std::filesystem::file_size("/tmp/message.ul"), 7600u);
    EXPECT_FALSE(isCallOpen());
}

TEST_F(MediaCommands, RecordThatIsInterruptedInItsPromptRecordsNothing)
{
    start({});
    buildPhrases();
    CToolRun run(onCall({"record", "/tmp/message.ul", "--prompt", "long", "--phrases", "/tmp/p.json"}));
    ASSERT_TRUE(run.waitOutput("playing long")) << run.errors();
    run.signal(SIGINT);
    EXPECT_EQ(run.waitExit(), 130);
    EXPECT_THAT(run.errors(), HasSubstr("interrupted before the recording began"));
    EXPECT_FALSE(std::filesystem::exists("/tmp/message.ul"));
    EXPECT_FALSE(isCallOpen());
}

TEST_F(MediaCommands, RecordIntoAFileThatTheDriverRefusesFails)
{
    start();
    CToolRun run(onCall({"record", "/tmp/message.doc"}));
    EXPECT_EQ(run.waitExit(), 1);
    EXPECT_THAT(run.errors(), HasSubstr("/tmp/message.doc: MCS_REFUSED (34)"));
}

TEST_F(MediaCommands, RecordNoticesThatTheDriverDies)
{
    start({});
    CToolRun run(onCall({"record", "/tmp/message.ul"}));
    ASSERT_TRUE(run.waitOutput("recording"));
    m_driver.stop(SIGKILL);
    EXPECT_EQ(run.waitExit(), 3);
}

TEST(MediaUsage, WhatCannotReachTheDriverIsWrongUsage)
{
    CToolRun longCall({"play", "/tmp/a.ul", "--call", std::string(32, 'c')});
    EXPECT_EQ(longCall.waitExit(), 2);
    EXPECT_THAT(longCall.errors(), HasSubstr("only 31 characters reach the driver"));
    CToolRun longPath({"play", "/tmp/" + std::string(255, 'f'), "--call", "c"});
    EXPECT_EQ(longPath.waitExit(), 2);
    EXPECT_THAT(longPath.errors(), HasSubstr("only 255 characters reach the driver"));
    EXPECT_EQ(CToolRun({"play", "a.ul", "--call", ""}).waitExit(), 2);
    EXPECT_EQ(CToolRun({"play", "a.ul", "--call", "c", "--leg", "-1"}).waitExit(), 2);
    EXPECT_EQ(CToolRun({"play", "a.ul", "--call", "c", "--leg", "4294967296"}).waitExit(), 2);
    EXPECT_EQ(CToolRun({"record", "a.ul", "--call", "c", "--prompt", "p"}).waitExit(), 2);
    CToolRun fraction({"record", "a.ul", "--call", "c", "--max", "1.5s"});
    EXPECT_EQ(fraction.waitExit(), 2);
    EXPECT_THAT(fraction.errors(), HasSubstr("--max: '1.5s' is not a number of whole seconds"));
    CToolRun minus({"play", "a.ul", "--call", "c", "--from", "-1s"});
    EXPECT_EQ(minus.waitExit(), 2);
    EXPECT_THAT(minus.errors(), HasSubstr("--from: '-1s' is no duration"));
}

TEST(Duration, TakesUnitsAndSeconds)
{
    EXPECT_EQ(parseDuration("1.5s"), CMilliseconds(1500));
    EXPECT_EQ(parseDuration("250ms"), CMilliseconds(250));
    EXPECT_EQ(parseDuration("2m"), CMilliseconds(120000));
    EXPECT_EQ(parseDuration("24h"), MAX_DURATION);
    EXPECT_EQ(parseDuration("3"), CMilliseconds(3000));
    EXPECT_EQ(parseDuration("0"), CMilliseconds(0));
    EXPECT_EQ(parseDuration("3723.456s"), CMilliseconds(3723456)); // no digit is lost
}

TEST(Duration, RefusesEverythingElse)
{
    for (const char* const pszText : {"", "s", "1x", "1 s", "-1s", "-0", "+1", "1e3", "nan", "inf", "0x10", "25h",
                                      "1s ", "99999999999999999999999999s", "1..5s", "1S"})
        EXPECT_EQ(parseDuration(pszText), std::nullopt) << pszText;
}

TEST(ProgressText, FitsIntoEveryWidth)
{
    const std::string strLabel = "ein sehr langer Name mit \xC3\xA4\xC3\xB6\xC3\xBC\n\033[2J.wav";
    for (int nColumns = 1; nColumns < 200; ++nColumns)
    {
        const std::string strText =
            progressText(strLabel, CMilliseconds(61000), CMilliseconds(120000), "1 of 2", nColumns);
        const auto nCharacters =
            std::count_if(strText.begin(), strText.end(), [](char c) { return (c & 0xC0) != 0x80; });
        EXPECT_LE(nCharacters, std::max(1, nColumns - 1));
        EXPECT_THAT(strText, AllOf(Not(HasSubstr("\n")), Not(HasSubstr("\033"))));
    }
}

TEST(ProgressText, ShowsTheTimesAndHowFarItIs)
{
    EXPECT_EQ(progressText("a.wav", CMilliseconds(1000), CMilliseconds(2000), "1 of 2", 40),
              "a.wav [#####------] 1.0 / 2.0 s  1 of 2");
    EXPECT_EQ(progressText("a.wav", CMilliseconds(1250), std::nullopt, "", 40), "a.wav 1.2 s");
    EXPECT_THAT(progressText("a.wav", CMilliseconds(9000), CMilliseconds(2000), "", 80), HasSubstr("2.0 / 2.0 s"));
}
