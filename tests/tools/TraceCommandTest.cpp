// The subcommand trace: filters, following, and files that are no log.
#include "SampleLog.h"
#include "ToolRun.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace
{

std::string trace(std::vector<std::string> vOptions, int nExit = 0)
{
    vOptions.insert(vOptions.begin(), {"trace", SAMPLE_LOG});
    CToolRun run(vOptions);
    EXPECT_EQ(run.waitExit(), nExit) << run.errors();
    return nExit == 0 ? run.output() : run.errors();
}

size_t linesOf(const std::string& strText)
{
    return static_cast<size_t>(std::count(strText.begin(), strText.end(), '\n'));
}

// Two streams, on each a play, the second of which times out an hour later.
void writeTwoPlays()
{
    CSampleLog log(SAMPLE_LOG);
    log.connect();
    log.openStream(1, "call-1");
    log.openStream(2, "call-2");
    log.complete(1, log.play(1, "first.wav"), 0);
    log.pass(int64_t(3600) * 1000000);
    log.complete(2, log.play(2, "second.wav"), 46);
}

void writeBytes(const std::string& strBytes)
{
    std::ofstream(SAMPLE_LOG, std::ios::binary) << strBytes;
}
} // namespace

TEST(TraceCommand, FoldsEachCommandIntoALine)
{
    writeTwoPlays();
    const std::string strOutput = trace({});
    // The process starts, connects and is connected, opens two streams, plays twice.
    EXPECT_EQ(linesOf(strOutput), 7U);
    EXPECT_THAT(strOutput, HasSubstr("2026-11-21 14:05:06.000290 p4711 stream 1   #4     PLAYFILE     file first.wav"));
    EXPECT_THAT(strOutput, HasSubstr("sent +0.000070 s  answered +0.000090 s"));
    EXPECT_THAT(strOutput, HasSubstr("completed +0.000130 s MCS_OK\n"));
    EXPECT_THAT(strOutput, HasSubstr("completed +0.000130 s MCS_TIMEDOUT\n"));
    EXPECT_THAT(strOutput, Not(HasSubstr("\033"))); // no colours in a file
}

TEST(TraceCommand, ShowsColoursOnATerminal)
{
    writeTwoPlays();
    CToolRun run({"trace", SAMPLE_LOG}, CToolRun::TO_TERMINAL);
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_THAT(run.output(), AllOf(HasSubstr("\033[32mcompleted"), HasSubstr("\033[31mcompleted")));
}

TEST(TraceCommand, ShowsNoColoursWhereTheyAreNotWanted)
{
    writeTwoPlays();
    setenv("NO_COLOR", "1", 1);
    CToolRun run({"trace", SAMPLE_LOG}, CToolRun::TO_TERMINAL);
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_THAT(run.output(), AllOf(HasSubstr("completed"), Not(HasSubstr("\033"))));
}

TEST(TraceCommand, ChoosesByStream)
{
    writeTwoPlays();
    EXPECT_THAT(trace({"--stream", "2"}), AllOf(HasSubstr("second.wav"), Not(HasSubstr("first.wav"))));
    EXPECT_THAT(trace({"--stream", "2", "--stream", "1"}), AllOf(HasSubstr("second.wav"), HasSubstr("first.wav")));
}

TEST(TraceCommand, ChoosesByTheBeginningOfACommandsName)
{
    writeTwoPlays();
    EXPECT_EQ(linesOf(trace({"--command", "play"})), 2U);
    EXPECT_EQ(linesOf(trace({"--command", "MICMD_OPENSTREAM"})), 2U);
    EXPECT_EQ(linesOf(trace({"--command", "RECORD"})), 0U);
    EXPECT_THAT(trace({"--command", "SING"}, 2), HasSubstr("no command 'SING'"));
}

TEST(TraceCommand, ChoosesByTime)
{
    writeTwoPlays();
    EXPECT_THAT(trace({"--since", "15:00"}), AllOf(HasSubstr("second.wav"), Not(HasSubstr("first.wav"))));
    EXPECT_THAT(trace({"--until", "2026-11-21 15:00:00"}), AllOf(Not(HasSubstr("second.wav")), HasSubstr("first.wav")));
    EXPECT_EQ(linesOf(trace({"--since", "2026-11-22"})), 0U);
    EXPECT_THAT(trace({"--since", "soon"}, 2), HasSubstr("'soon' is no time"));
}

TEST(TraceCommand, ChoosesByKind)
{
    writeTwoPlays();
    EXPECT_THAT(trace({"--kind", "errors"}), AllOf(HasSubstr("second.wav"), Not(HasSubstr("first.wav"))));
    EXPECT_EQ(linesOf(trace({"--kind", "completions"})), 2U);
    EXPECT_EQ(linesOf(trace({"--kind", "connection,completions"})), 5U);
    EXPECT_THAT(trace({"--kind", "noise"}, 2), HasSubstr("noise not in {calls,"));
}

TEST(TraceCommand, NotesAreChosenByKindAndStream)
{
    {
        CSampleLog log(SAMPLE_LOG);
        log.text(LOG_EVENT_DRIVER_LOST);
        log.text(LOG_EVENT_ALARM);
    }
    EXPECT_EQ(linesOf(trace({"--kind", "connection"})), 1U);
    EXPECT_EQ(linesOf(trace({"--kind", "errors"})), 2U);
    EXPECT_EQ(linesOf(trace({"--stream", "1"})), 0U);
    EXPECT_THAT(trace({"--json"}), HasSubstr("\"text\":\"the media driver is lost\""));
}

TEST(TraceCommand, RawShowsTheLinesThemselves)
{
    writeTwoPlays();
    const std::string strOutput = trace({"--raw", "--stream", "1", "--kind", "events"});
    EXPECT_EQ(strOutput, "2026-11-21 14:05:06.000400 p4711 t4712 2 CMIntf::eventThreadFunc, read event, nSequenceID = "
                         "(4), nStreamID = (1), evt MIEVT_DONE, stat 0 \n");
}

TEST(TraceCommand, PassesOverForeignLinesAndCountsThem)
{
    {
        CSampleLog log(SAMPLE_LOG);
        log.raw("Nov 21 04:05:06 host kernel: something else\n\n");
        log.connect();
        log.raw("2026-99-99 00:00:00.000000 p1 t1 2 CMIntf::initialize\n");
    }
    CToolRun run({"trace", SAMPLE_LOG});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_EQ(linesOf(run.output()), 3U);
    EXPECT_THAT(run.errors(), HasSubstr("passed over 3 of "));
}

TEST(TraceCommand, FollowsAFileThatIsNotThereYetAndItsRotationAndTruncation)
{
    std::filesystem::remove(SAMPLE_LOG);
    CToolRun run({"trace", "-f", SAMPLE_LOG});
    {
        CSampleLog log(SAMPLE_LOG);
        log.connect();
        log.openStream(1, "one");
        log.flush();
        ASSERT_TRUE(run.waitOutput("callid one")) << run.errors();
        std::filesystem::rename(SAMPLE_LOG, "/tmp/sample.log.1");
        log.openStream(2, "two"); // still into the old file
    }
    {
        CSampleLog log(SAMPLE_LOG);
        log.openStream(3, "three");
    }
    ASSERT_TRUE(run.waitOutput("callid three"));
    EXPECT_THAT(run.output(), HasSubstr("callid two"));
    {
        CSampleLog log(SAMPLE_LOG); // shorter than it was
        log.line("7 lines lost: No space left on device");
    }
    ASSERT_TRUE(run.waitOutput("7 lines lost"));
    run.signal(SIGINT);
    EXPECT_EQ(run.waitExit(), 130);
}

TEST(TraceCommand, WaitsForTheRestOfALine)
{
    std::ofstream log(SAMPLE_LOG);
    const std::string strLine = "2026-11-21 04:05:06.000000 p1 t1 2 CMIntf::finalize\n";
    CToolRun run({"trace", "--follow", SAMPLE_LOG});
    log << "2026-11-21 04:05:06.000000 p1 t1 2 CMIntf::initialize\n" << strLine.substr(0, 30) << std::flush;
    ASSERT_TRUE(run.waitOutput("the process starts"));
    log << strLine.substr(30) << std::flush;
    EXPECT_TRUE(run.waitOutput("the process ends"));
    run.signal(SIGTERM);
    EXPECT_EQ(run.waitExit(), 130);
}

TEST(TraceCommand, TwoFilesAreOneLog)
{
    {
        CSampleLog log("/tmp/old.log");
        log.connect();
        log.openStream(1, "one");
        log.play(1, "long.wav");
    }
    {
        CSampleLog log(SAMPLE_LOG);
        log.complete(1, 3, 0);
    }
    CToolRun run({"trace", "/tmp/old.log", SAMPLE_LOG, "--command", "PLAY"});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_THAT(run.output(), AllOf(HasSubstr("long.wav"), HasSubstr("completed")));
    EXPECT_EQ(linesOf(run.output()), 1U);
}

TEST(TraceCommand, AProcessThatStartsAgainUnderItsOldIdHasLostItsCommands)
{
    {
        CSampleLog log(SAMPLE_LOG);
        for (int n = 0; n < 2; ++n)
        {
            log.connect();
            log.openStream(1, "one");
            log.play(1, "hello.wav");
        }
    }
    const std::string strOutput = trace({"--command", "PLAY"});
    EXPECT_THAT(strOutput, AllOf(HasSubstr("the process ended"), HasSubstr("still running")));
}

TEST(TraceCommand, AFileThatCannotBeReadIsWrongUsage)
{
    for (const char* pszFile : {"/tmp/not-there.log", "/tmp", "/dev/zero"})
    {
        CToolRun run({"trace", pszFile});
        EXPECT_EQ(run.waitExit(), 2) << pszFile;
        EXPECT_THAT(run.errors(), HasSubstr(pszFile));
    }
}

TEST(TraceCommand, SurvivesBytesOfAllKinds)
{
    std::mt19937 random(7);
    std::string strBytes;
    for (int n = 0; n < 1 << 20; ++n)
        strBytes += static_cast<char>(random());
    writeBytes(strBytes);
    EXPECT_EQ(linesOf(trace({})), 0U);
}

TEST(TraceCommand, SurvivesALineWithoutEnd)
{
    writeBytes("2026-11-21 04:05:06.000000 p1 t1 2 CMIntf::initialize" + std::string(10 << 20, 'x') +
               "\n2026-11-21 04:05:06.000000 p1 t1 2 CMIntf::finalize");
    EXPECT_THAT(trace({}), HasSubstr("the process ends"));
}

// Each line of a log cut at each place, and with each byte changed.
TEST(TraceCommand, SurvivesLinesThatAreDamaged)
{
    writeTwoPlays();
    std::ifstream log(SAMPLE_LOG);
    std::mt19937 random(11);
    std::string strDamaged;
    for (std::string strLine; std::getline(log, strLine);)
    {
        for (size_t n = 0; n < strLine.size(); ++n)
        {
            strDamaged += strLine.substr(0, n) + "\n";
            std::string strChanged = strLine;
            strChanged[n] = static_cast<char>(random());
            strDamaged += strChanged + "\n" + strLine + "\n";
        }
    }
    log.close();
    writeBytes(strDamaged);
    EXPECT_GT(linesOf(trace({})), 10U);
    EXPECT_GT(linesOf(trace({"--raw", "--json"})), 10U);
    CToolRun run({"timeline", SAMPLE_LOG, "-o", "/tmp/page.html"});
    EXPECT_EQ(run.waitExit(), 0);
}

TEST(TraceCommand, NamesWithControlCharactersDoNotSteerTheTerminal)
{
    {
        CSampleLog log(SAMPLE_LOG);
        log.connect();
        log.openStream(1, "one");
        log.play(1, "\033[2Jclear.wav\xC2\x9B!");
    }
    EXPECT_THAT(trace({}), AllOf(HasSubstr("?[2Jclear.wav"), Not(HasSubstr("\033")), Not(HasSubstr("\xC2\x9B"))));
}
