// The subcommand clean of zelmedia removes what ended processes left, and nothing else.
#include "MachineFixture.h"
#include "Places.h"
#include "ReferenceDriver.h"
#include "ZelMediaServices.h"
#include "base/Tool.h"
#include "driver/OwnPipes.h"
#include "driver/PipeTable.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace
{
// Runs a command of the shell; its exit code.
int shell(const std::string& strCommand)
{
    const int nStatus = std::system(strCommand.c_str());
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}
} // namespace

TEST(Clean, WithoutPipesThereIsNothingToDo)
{
    CToolRun run({"clean"});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_EQ(run.output(), "no stale pipes\n");
}

TEST(Clean, RemovesThePipesOfAKilledProcessAndOfNoLivingOne)
{
    auto pKilled = std::make_unique<CPipeHolder>();
    const CPipeHolder living;
    CToolRun before({"clean"});
    EXPECT_EQ(before.waitExit(), 0);
    EXPECT_EQ(before.output(), "no stale pipes\n");
    EXPECT_THAT(clientPipes(), SizeIs(4));

    const pid_t nKilled = pKilled->processID();
    pKilled.reset();
    CToolRun after({"clean"});
    EXPECT_EQ(after.waitExit(), 0);
    EXPECT_THAT(after.output(), HasSubstr("removed " + pipePath("Rsp", nKilled) + ": there is no process " +
                                          std::to_string(nKilled) + "\n"));
    EXPECT_THAT(clientPipes(), ElementsAre(pipePath("Evt", living.processID()), pipePath("Rsp", living.processID())));
}

TEST(Clean, ADryRunOnlyTells)
{
    const pid_t nEnded = endedProcess();
    makePipes(nEnded);
    CToolRun run({"clean", "--dry-run"});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_THAT(run.output(), HasSubstr("would remove " + pipePath("Evt", nEnded)));
    EXPECT_THAT(clientPipes(), SizeIs(2));
}

TEST(Clean, AnswersInJson)
{
    const pid_t nEnded = endedProcess();
    makePipes(nEnded);
    const CPipeHolder living;
    CToolRun run({"clean", "--json"});
    EXPECT_EQ(run.waitExit(), 0);
    const nlohmann::json json = run.json();
    EXPECT_EQ(json["dry_run"], false);
    ASSERT_THAT(json["removed"], SizeIs(2));
    EXPECT_EQ(json["removed"][0]["path"], pipePath("Rsp", nEnded));
    EXPECT_EQ(json["kept"], 2);
}

TEST(Clean, LooksAtOneProcessIdWhenAsked)
{
    const pid_t nEnded = endedProcess();
    const pid_t nOther = endedProcess();
    ASSERT_NE(nEnded, nOther);
    makePipes(nEnded);
    makePipes(nOther);
    CToolRun run({"clean", "--process-id", std::to_string(nEnded)});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_THAT(clientPipes(), ElementsAre(pipePath("Evt", nOther), pipePath("Rsp", nOther)));
}

TEST(Clean, LeavesFilesLinksAndFoldersAlone)
{
    const pid_t nEnded = endedProcess();
    const pid_t nOther = endedProcess();
    mkfifo("/tmp/elsewhere", 0666);
    writeFile(pipePath("Rsp", nEnded), "kept");
    ASSERT_EQ(symlink("/tmp/elsewhere", pipePath("Evt", nEnded).c_str()), 0);
    ASSERT_EQ(mkdir(pipePath("Rsp", nOther).c_str(), 0700), 0);
    CToolRun run({"clean"});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_THAT(run.errors(), HasSubstr(pipePath("Rsp", nEnded) + " is no pipe: left alone\n"));
    EXPECT_THAT(clientPipes(), SizeIs(3));
    EXPECT_TRUE(std::filesystem::is_fifo("/tmp/elsewhere"));
}

TEST(Clean, TakesOnlyExactNames)
{
    const std::string strEnded = std::to_string(endedProcess());
    const std::vector<std::string> vNames = {
        MI_REQUEST_PIPE,
        MI_RESPONSE_PIPE_PREFIX,
        MI_RESPONSE_PIPE_PREFIX "0",
        MI_RESPONSE_PIPE_PREFIX "-5",
        MI_RESPONSE_PIPE_PREFIX "99999999999",
        MI_RESPONSE_PIPE_PREFIX "0" + strEnded,
        MI_EVENT_PIPE_PREFIX + strEnded + "x",
        MI_EVENT_PIPE_PREFIX + strEnded + ".old",
    };
    for (const std::string& strName : vNames)
        ASSERT_EQ(mkfifo(strName.c_str(), 0600), 0) << strName;
    CToolRun run({"clean"});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_EQ(run.output(), "no stale pipes\n");
    for (const std::string& strName : vNames)
        EXPECT_TRUE(std::filesystem::is_fifo(strName)) << strName;
}

TEST(Clean, KeepsAPipeThatItsProcessIsAboutToOpen)
{
    makePipes(getpid());
    CToolRun run({"clean", "--json"});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_EQ(run.json()["kept"], 2);
    CToolRun status({"status", "--json"});
    status.waitExit();
    EXPECT_EQ(clientIn(status.json(), getpid())["state"], "starting");
}

// As in a container: the process always has the same id, and meets the pipes of its forerunner.
TEST(Clean, RemovesWhatAForerunnerOfALivingProcessLeft)
{
    makePipes(1);
    const std::string strUnshare = "unshare --pid --fork --mount-proc ";
    if (shell(strUnshare + "true 2> /dev/null") != 0)
        GTEST_SKIP() << "no process namespaces here";
    EXPECT_TRUE(waitUntil([&strUnshare] {
        EXPECT_EQ(shell(strUnshare + "sh -c '" + ZELMEDIA_PROGRAM + " clean --process-id $$ > /tmp/out; true'"), 0);
        return clientPipes().empty();
    }));
    EXPECT_THAT(readFile("/tmp/out"), HasSubstr(pipePath("Evt", 1) + ": process 1, sh, is not its owner"));
}

TEST(Clean, TellsWhatItMayNotRemove)
{
    const pid_t nEnded = endedProcess();
    makePipes(nEnded);
    const std::string strOther = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
    if (shell(strOther + ZELMEDIA_PROGRAM + " --version > /dev/null 2>&1") != 0)
        GTEST_SKIP() << "no other user here";
    EXPECT_EQ(shell(strOther + ZELMEDIA_PROGRAM + " clean > /tmp/out 2> /tmp/err"), 1);
    EXPECT_THAT(readFile("/tmp/err"),
                HasSubstr("zelmedia: cannot remove " + pipePath("Rsp", nEnded) + ": Operation not permitted\n"));
    EXPECT_THAT(clientPipes(), SizeIs(2));
}

TEST(Clean, ALivingApplicationGoesOnAsBefore)
{
    CReferenceDriver driver;
    writeFile("/tmp/channels.json", R"({"channels": [{"call": "*", "type": "null"}]})");
    ASSERT_TRUE(driver.start({"--channels", "/tmp/channels.json", "--log", "/tmp/driver.log"}));
    CZelMediaServices services(nullptr);
    CZelMediaStream* pStream = nullptr;
    ASSERT_TRUE(waitUntil([&] { return services.openMediaStream(&pStream, "call-1", 1) == MCS_OK; }));
    for (const char* const pszCommand : {"status", "clean", "status"})
    {
        CToolRun run({pszCommand});
        EXPECT_EQ(run.waitExit(), 0) << run.output();
    }
    EXPECT_THAT(clientPipes(), SizeIs(2));
    EXPECT_EQ(services.dump(), MCS_OK);
    services.closeMediaStream(pStream);
    EXPECT_EQ(services.openMediaStream(&pStream, "call-1", 1), MCS_OK);
    services.closeMediaStream(pStream);
}

TEST(PipeTable, APipeThatBecameAnotherOneIsNotRemoved)
{
    const pid_t nEnded = endedProcess();
    makePipes(nEnded);
    const std::vector<CClientPipe> vPipes = listClientPipes(nEnded);
    ASSERT_THAT(vPipes, SizeIs(2));
    const int nReader = open(vPipes[0].strPath.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(rename(vPipes[1].strPath.c_str(), "/tmp/kept"), 0);
    ASSERT_EQ(mkfifo(vPipes[1].strPath.c_str(), 0600), 0);
    std::string strError;
    EXPECT_FALSE(removeStalePipe(vPipes[0], strError)) << "it is read by now";
    EXPECT_FALSE(removeStalePipe(vPipes[1], strError)) << "it is not the one that was judged";
    EXPECT_EQ(strError, "");
    EXPECT_THAT(clientPipes(), SizeIs(2));
    close(nReader);
}

TEST(OwnPipes, MakeWayAndAreRemovedAtTheEnd)
{
    makePipes(getpid());
    {
        const COwnPipes pipes;
        EXPECT_THAT(clientPipes(), IsEmpty());
        makePipes(getpid());
        EXPECT_THAT(clientPipes(), ElementsAre(pipes.eventPipe(), pipes.responsePipe()));
    }
    EXPECT_THAT(clientPipes(), IsEmpty());
}

TEST(OwnPipes, WhatIsInTheWayIsTold)
{
    writeFile(pipePath("Evt", getpid()), "kept");
    EXPECT_THROW(COwnPipes(), CToolError);
    EXPECT_EQ(readFile(pipePath("Evt", getpid())), "kept");
}
