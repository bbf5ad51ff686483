// The subcommands status, clean and dump of zelmedia: beside no driver, a reference one, a scripted one.
#include "MachineFixture.h"
#include "ReferenceDriver.h"
#include "ScriptedDriver.h"

#include <gmock/gmock.h>

#include <csignal>
#include <fcntl.h>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace
{
const std::vector<std::string> NULL_CHANNELS = {"--channels", "/tmp/channels.json", "--log", "/tmp/driver.log"};

// A reference driver whose channels need no files.
void startNullDriver(CReferenceDriver& driver)
{
    writeFile("/tmp/channels.json", R"({"channels": [{"call": "*", "type": "null"}]})");
    ASSERT_TRUE(driver.start(NULL_CHANNELS));
}

// The request pipe of a driver that reads nothing.
class CDeafDriver
{
public:
    CDeafDriver()
    {
        mkfifo(MI_REQUEST_PIPE, 0666);
        m_nPipe = open(MI_REQUEST_PIPE, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    }
    ~CDeafDriver() { close(m_nPipe); }
    CDeafDriver(const CDeafDriver&) = delete;
    CDeafDriver& operator=(const CDeafDriver&) = delete;
    int pipe() const { return m_nPipe; }

private:
    int m_nPipe;
};
} // namespace

TEST(Status, WithoutRequestPipeThereIsNoDriver)
{
    CToolRun run({"status"});
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_THAT(run.output(), HasSubstr("driver   absent: there is no /tmp/OrvMediaIntf-Req\n"));
    EXPECT_THAT(run.output(), HasSubstr("clients  0\n"));
}

TEST(Status, ARequestPipeThatNobodyReadsIsNoDriver)
{
    mkfifo(MI_REQUEST_PIPE, 0666);
    CToolRun run({"status"});
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_THAT(run.output(), HasSubstr("absent: nobody reads"));
}

TEST(Status, AFileInPlaceOfTheRequestPipeIsNoDriver)
{
    writeFile(MI_REQUEST_PIPE, "");
    CToolRun run({"status"});
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_THAT(run.output(), HasSubstr("is no FIFO"));
    EXPECT_EQ(std::filesystem::file_size(MI_REQUEST_PIPE), 0U);
}

TEST(Status, MeasuresTheRoundTripsOfADriverThatAnswers)
{
    CReferenceDriver driver;
    ASSERT_NO_FATAL_FAILURE(startNullDriver(driver));
    CToolRun run({"status", "--json", "--pings", "7", "--timeout", "30s"});
    ASSERT_EQ(run.waitExit(), 0) << run.output();
    const nlohmann::json json = run.json();
    EXPECT_EQ(json["driver"]["state"], "answers");
    EXPECT_GT(json["driver"]["connect_ms"], 0.0);
    EXPECT_GT(json["driver"]["round_trip_ms"], 0.0);
    EXPECT_THAT(json["driver"]["pings_ms"], SizeIs(7));
}

TEST(Status, LeavesNoPipesAndNoClient)
{
    CScriptedDriver driver;
    CToolRun run({"status", "--timeout", "30s", "--pings", "2"});
    EXPECT_EQ(run.waitExit(), 0) << run.output();
    EXPECT_THAT(run.output(), HasSubstr("driver   answers, round trip "));
    EXPECT_EQ(driver.count(MICMD_PING), 2U);
    EXPECT_EQ(driver.count(MICMD_DISCONNECT), 1U);
    EXPECT_THAT(clientPipes(), IsEmpty());
}

TEST(Status, EndsBesideADriverThatNeverAnswers)
{
    const CDeafDriver driver;
    CToolRun run({"status", "--json", "--timeout", "100ms"});
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_EQ(run.json()["driver"]["state"], "silent");
    EXPECT_EQ(run.json()["driver"]["reason"], "no answer within 100 ms");
    structMICMD request = {};
    EXPECT_EQ(read(driver.pipe(), &request, sizeof(request)), static_cast<ssize_t>(sizeof(request)));
    EXPECT_EQ(request.s_micmd, MICMD_CONNECT);
    EXPECT_THAT(clientPipes(), IsEmpty());
}

TEST(Status, EndsBesideADriverThatStopsAnswering)
{
    CScriptedDriver driver;
    driver.ignore(MICMD_PING);
    CToolRun run({"status", "--timeout", "500ms"});
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_THAT(run.output(), HasSubstr("driver   silent: no answer within 500 ms\n"));
}

TEST(Status, AFullRequestPipeIsToldAsSuch)
{
    const CDeafDriver driver;
    const std::string strRecord(sizeof(structMICMD), '\0');
    while (write(driver.pipe(), strRecord.data(), strRecord.size()) > 0)
        continue;
    CToolRun run({"status", "--timeout", "60s"});
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_THAT(run.output(), HasSubstr("silent: the request pipe is full"));
}

TEST(Status, ARefusalIsToldAsSuch)
{
    CScriptedDriver driver;
    driver.refuse(MICMD_CONNECT);
    CToolRun run({"status", "--timeout", "30s", "--json"});
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_EQ(run.json()["driver"]["state"], "refuses");
}

TEST(Status, AnswersToOthersAreNoAnswers)
{
    CScriptedDriver driver;
    driver.onCommand(MICMD_CONNECT, [&driver](const structMICMD& request) {
        driver.accept(request);
        driver.respondTo(77, MIRSP_STATUS, MISTATUS_FAILED);
    });
    CToolRun run({"status", "--timeout", "30s"});
    EXPECT_EQ(run.waitExit(), 0) << run.output();
}

TEST(Status, HalfAnAnswerIsNoAnswer)
{
    CScriptedDriver driver;
    driver.onCommand(MICMD_PING, [&driver](const structMICMD&) { driver.respondRaw("1234", 4); });
    CToolRun run({"status", "--timeout", "30s"});
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_THAT(run.output(), HasSubstr("is no response"));
}

TEST(Status, AnInterruptLeavesNoPipes)
{
    const CDeafDriver driver;
    CToolRun run({"status", "--timeout", "10m"});
    ASSERT_TRUE(waitUntil([] { return clientPipes().size() == 2; }));
    ASSERT_TRUE(waitUntil([&driver] { return bytesIn(driver.pipe()) > 0; }));
    run.signal(SIGINT);
    EXPECT_EQ(run.waitExit(), 130);
    EXPECT_THAT(clientPipes(), IsEmpty());
}

TEST(Status, OpensItsPipesToADriverOfAnotherUserOnly)
{
    const uid_t NOBODY = 65534;
    umask(022);
    const CDeafDriver driver;
    if (chown(MI_REQUEST_PIPE, NOBODY, NOBODY) != 0)
        GTEST_SKIP() << "no other user here";
    for (const auto& [nOwner, nMode] : {std::pair<uid_t, int>(NOBODY, 0666), {geteuid(), 0644}})
    {
        ASSERT_EQ(chown(MI_REQUEST_PIPE, nOwner, static_cast<gid_t>(-1)), 0);
        CToolRun run({"status", "--timeout", "10m"});
        ASSERT_TRUE(waitUntil([] { return clientPipes().size() == 2; }));
        for (const std::string& strPipe : clientPipes())
            EXPECT_EQ(static_cast<int>(std::filesystem::status(strPipe).permissions()), nMode) << strPipe;
        run.signal(SIGINT);
        EXPECT_EQ(run.waitExit(), 130);
    }
}

TEST(Status, ListsLivingAndEndedClients)
{
    const CPipeHolder holder;
    const pid_t nEnded = endedProcess();
    makePipes(nEnded);
    CToolRun run({"status", "--json"});
    EXPECT_EQ(run.waitExit(), 3);
    const nlohmann::json json = run.json();
    const nlohmann::json living = clientIn(json, holder.processID());
    EXPECT_EQ(living["alive"], true);
    EXPECT_EQ(living["state"], "in use");
    EXPECT_THAT(living["command"].get<std::string>(), HasSubstr("tool_test"));
    ASSERT_THAT(living["pipes"], SizeIs(2));
    EXPECT_EQ(living["pipes"][0]["kind"], "response");
    EXPECT_EQ(living["pipes"][1]["path"], pipePath("Evt", holder.processID()));
    const nlohmann::json ended = clientIn(json, nEnded);
    EXPECT_EQ(ended["alive"], false);
    EXPECT_EQ(ended["state"], "stale");
    EXPECT_EQ(ended["command"], "");
    EXPECT_EQ(json["stale_pipes"], 2);
}

TEST(Status, TheTableShowsWhatIsStale)
{
    const pid_t nEnded = endedProcess();
    makePipes(nEnded);
    CToolRun run({"status"});
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_THAT(run.output(), HasSubstr("clients  1, stale pipes: 2 (zelmedia clean removes them)"));
    EXPECT_THAT(run.output(), testing::ContainsRegex(std::to_string(nEnded) + "  \\(ended\\) +stale +[0-9]+ s  "
                                                                              "response, event\n"));
}

TEST(Status, StalePipesFailItOnlyWhenAsked)
{
    CReferenceDriver driver;
    ASSERT_NO_FATAL_FAILURE(startNullDriver(driver));
    makePipes(endedProcess());
    CToolRun run({"status", "--timeout", "30s"});
    EXPECT_EQ(run.waitExit(), 0);
    CToolRun strict({"status", "--timeout", "30s", "--fail-on-stale"});
    EXPECT_EQ(strict.waitExit(), 1);
}

TEST(Status, WrongOptionsAreWrongUsage)
{
    for (const std::vector<std::string>& vArguments :
         {std::vector<std::string>{"status", "--timeout", "soon"}, {"status", "--pings", "0"}, {"status", "all"}})
    {
        CToolRun run(vArguments);
        EXPECT_EQ(run.waitExit(), 2);
    }
}

TEST(Dump, ListsTheLibraryAndTheDriver)
{
    CReferenceDriver driver;
    ASSERT_NO_FATAL_FAILURE(startNullDriver(driver));
    CToolRun run({"dump", "--json", "--timeout", "30s"});
    ASSERT_EQ(run.waitExit(), 0) << run.output() << run.errors();
    const nlohmann::json json = run.json();
    EXPECT_EQ(json["library"]["status"], "MCS_OK");
    EXPECT_THAT(json["library"]["listing"], testing::Contains("-- m_mapStreamByStreamID"));
    EXPECT_EQ(json["driver"]["control"], "/tmp/zelmedia-driver.sock");
    EXPECT_EQ(json["driver"]["clients"][0]["process"], json["library"]["process"]);
    EXPECT_TRUE(json["driver"]["streams"].is_array());
    EXPECT_TRUE(json["driver"]["stats"].is_object());
    EXPECT_THAT(clientPipes(), IsEmpty());
}

TEST(Dump, ADriverWithoutControlSocketHasItsListingInItsLog)
{
    CScriptedDriver driver;
    CToolRun run({"dump", "--timeout", "30s"});
    EXPECT_EQ(run.waitExit(), 0) << run.output() << run.errors();
    EXPECT_THAT(run.output(), HasSubstr("\n-- m_mapClipFileByID\n"));
    EXPECT_THAT(run.output(), HasSubstr("driver: its listing is in its log"));
    EXPECT_EQ(driver.count(MICMD_DUMP), 1U);
}

TEST(Dump, WithoutDriverTheLibraryIsListedAllTheSame)
{
    CToolRun run({"dump"});
    EXPECT_EQ(run.waitExit(), 3);
    EXPECT_THAT(run.output(), HasSubstr("MCS_NOTCONNECTED"));
    EXPECT_THAT(run.output(), HasSubstr("\n-- m_mapCommandQueue\n"));
    EXPECT_THAT(run.output(), HasSubstr("driver: there is no /tmp/OrvMediaIntf-Req"));
    EXPECT_THAT(clientPipes(), IsEmpty());
}

TEST(Dump, AControlSocketThatIsAskedForHasToAnswer)
{
    CReferenceDriver driver;
    ASSERT_NO_FATAL_FAILURE(startNullDriver(driver));
    CToolRun run({"dump", "--timeout", "30s", "--control", "/tmp/other.sock"});
    EXPECT_EQ(run.waitExit(), 1);
    EXPECT_THAT(run.output(), HasSubstr("/tmp/other.sock: No such file or directory"));
}
