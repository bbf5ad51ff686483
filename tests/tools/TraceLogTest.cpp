// The subcommands trace and timeline on a log that the library has just written, beside the reference driver.
#include "Completions.h"
#include "ReferenceDriver.h"
#include "ToolRun.h"
#include "WaitUntil.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <unistd.h>

using nlohmann::json;
using testing::HasSubstr;

namespace
{
const unsigned long TIMEOUT_S = 60;
const unsigned long PHRASE_SAMPLES = 80; // 10 ms

// An application with one stream. What it does is in the log of this process.
class TraceLog : public testing::Test
{
protected:
    TraceLog()
    {
        std::filesystem::create_directory("/tmp/calls");
        std::ofstream("/tmp/phrases.ul", std::ios::binary) << std::string(8000 * 60, '\x7F');
        EXPECT_TRUE(startDriver());
        m_pServices = std::make_unique<CZelMediaServices>(&m_completions);
        openStream();
    }
    ~TraceLog() override { m_driver.stop(SIGKILL); }

    bool startDriver() { return m_driver.start({"--audio", "/tmp/calls", "--caller-end", "silence"}); }

    // Waits for the connection.
    void openStream()
    {
        ASSERT_TRUE(waitUntil([this] { return m_pServices->openMediaStream(&m_pStream, "call-17", 2) == MCS_OK; }));
    }

    int play(const char* pszFile, unsigned long ulTimeout = TIMEOUT_S)
    {
        std::string strFile = pszFile;
        return m_pStream->playAddFile(strFile.data(), 0, ulTimeout, 0, 0, 0);
    }

    unsigned long openPhrases()
    {
        char szFile[] = "/tmp/phrases.ul";
        unsigned long ulFileID = 0;
        EXPECT_EQ(m_pServices->openPhraseFile(szFile, &ulFileID), MCS_OK);
        return ulFileID;
    }

    void playPhrase(unsigned long ulFileID, unsigned long ulSamples = PHRASE_SAMPLES)
    {
        EXPECT_EQ(m_pStream->playAddPhrase(ulFileID, 0, ulSamples, TIMEOUT_S, 0, 0), MCS_OK);
    }

    static std::string log() { return "/tmp/Media-p" + std::to_string(getpid()) + ".log"; }

    // What trace --json says of all commands of this kind, in the order of their ends.
    static std::vector<json> commands(const std::string& strCommand)
    {
        CToolRun run({"trace", "--json", log(), "--command", strCommand});
        EXPECT_EQ(run.waitExit(), 0);
        std::vector<json> vCommands;
        std::istringstream lines(run.output());
        for (std::string strLine; std::getline(lines, strLine);)
        {
            const json line = json::parse(strLine);
            if (line["type"] == "command")
                vCommands.push_back(line);
            else
                EXPECT_EQ(line.value("other_lines", 0), 0);
        }
        return vCommands;
    }

    static std::string outcome(const json& command)
    {
        return command.value("outcome", "") + " " + command.value("status_name", "");
    }

    CCompletions m_completions;
    CReferenceDriver m_driver;
    std::unique_ptr<CZelMediaServices> m_pServices;
    CZelMediaStream* m_pStream = nullptr;
};
} // namespace

TEST_F(TraceLog, APlayIsOneLineWithAllItsSteps)
{
    playPhrase(openPhrases());
    ASSERT_TRUE(m_completions.waitCount(1));
    const std::vector<json> vPlays = commands("PLAY");
    ASSERT_EQ(vPlays.size(), 1U);
    const json& play = vPlays[0];
    EXPECT_EQ(outcome(play), "completed MCS_OK");
    EXPECT_EQ(play["command"], "PLAYCLIP");
    EXPECT_EQ(play["call"], "playAddPhrase");
    EXPECT_THAT(play["detail"].get<std::string>(), HasSubstr("len 80"));
    EXPECT_GT(play["sequence"], 0);
    const std::vector<std::string> vTimes = {play["requested"], play["sent"], play["answered"], play["event"],
                                             play["completed"]};
    EXPECT_TRUE(std::is_sorted(vTimes.begin(), vTimes.end()));
    EXPECT_FALSE(play.contains("queued"));
}

TEST_F(TraceLog, AQueuedPlayTellsOfItsWait)
{
    const unsigned long ulFileID = openPhrases();
    for (int n = 0; n < 4; ++n)
        playPhrase(ulFileID, 4000);
    ASSERT_TRUE(m_completions.waitCount(4));
    const std::vector<json> vPlays = commands("PLAYCLIP");
    ASSERT_EQ(vPlays.size(), 4U);
    for (size_t n = 1; n < vPlays.size(); ++n)
    {
        EXPECT_EQ(outcome(vPlays[n]), "completed MCS_OK");
        EXPECT_LT(vPlays[n]["queued"], vPlays[n]["sent"]);
        EXPECT_GE(vPlays[n]["sent"], vPlays[n - 1]["event"]);
    }
}

TEST_F(TraceLog, ACancelEndsThePlayAndDropsTheQueue)
{
    const unsigned long ulFileID = openPhrases();
    for (int n = 0; n < 3; ++n)
        playPhrase(ulFileID, 8000 * 50);
    ASSERT_EQ(m_pStream->playCancel(), MCS_OK);
    ASSERT_TRUE(m_completions.waitCount(1));
    const std::vector<json> vPlays = commands("PLAY");
    ASSERT_EQ(vPlays.size(), 3U);
    EXPECT_EQ(outcome(vPlays[0]), "dropped ");
    EXPECT_EQ(vPlays[0]["why"], "cancelled");
    EXPECT_EQ(outcome(vPlays[1]), "dropped ");
    EXPECT_EQ(outcome(vPlays[2]), "completed MCS_CANCELLED");
    const std::vector<json> vCancels = commands("CANCEL");
    ASSERT_EQ(vCancels.size(), 1U);
    EXPECT_EQ(outcome(vCancels[0]), "answered MCS_OK");
    EXPECT_EQ(vCancels[0]["stream"], vPlays[2]["stream"]);
    EXPECT_EQ(vCancels[0]["call"], "playCancel");
}

TEST_F(TraceLog, ACancelOfNothingWasNotSent)
{
    ASSERT_EQ(m_pStream->playCancel(), MCS_OK);
    const std::vector<json> vCancels = commands("CANCEL");
    ASSERT_EQ(vCancels.size(), 1U);
    EXPECT_EQ(outcome(vCancels[0]), "not sent ");
    EXPECT_EQ(vCancels[0]["why"], "nothing was playing");
}

TEST_F(TraceLog, ATimeOutEndsThePlayAndNamesItselfToTheQueue)
{
    const unsigned long ulFileID = openPhrases();
    ASSERT_EQ(m_pStream->playAddPhrase(ulFileID, 0, 8000 * 50, 0, 0, 0), MCS_OK);
    playPhrase(ulFileID);
    ASSERT_TRUE(m_completions.waitCount(1));
    const std::vector<json> vPlays = commands("PLAY");
    ASSERT_EQ(vPlays.size(), 2U);
    EXPECT_EQ(outcome(vPlays[0]), "dropped ");
    EXPECT_EQ(vPlays[0]["why"], "the time-out of the stream's command");
    EXPECT_EQ(outcome(vPlays[1]), "completed MCS_TIMEDOUT");
    const std::vector<json> vCancels = commands("CANCEL");
    ASSERT_EQ(vCancels.size(), 1U);
    EXPECT_EQ(vCancels[0]["stream"], vPlays[1]["stream"]);
    EXPECT_FALSE(vCancels[0].contains("call"));
}

TEST_F(TraceLog, ARefusedPlayFailsWithItsStatus)
{
    EXPECT_EQ(play("/tmp/not-there.wav"), MCS_REFUSED);
    const std::vector<json> vPlays = commands("PLAYFILE");
    ASSERT_EQ(vPlays.size(), 1U);
    EXPECT_EQ(outcome(vPlays[0]), "failed MCS_REFUSED");
    EXPECT_THAT(vPlays[0]["detail"].get<std::string>(), HasSubstr("/tmp/not-there.wav"));
}

TEST_F(TraceLog, APromptedRecordingIsAPlayAndARecordOfOneCall)
{
    char szFile[] = "/tmp/recorded.wav";
    ASSERT_EQ(m_pStream->recordToFileWithPromptPhrase(openPhrases(), 0, PHRASE_SAMPLES, szFile, 0, 1, TIMEOUT_S, 0),
              MCS_OK);
    ASSERT_TRUE(m_completions.waitCount(2));
    const std::vector<json> vPlays = commands("PLAY");
    const std::vector<json> vRecords = commands("RECORDFILE");
    ASSERT_EQ(vPlays.size(), 1U);
    ASSERT_EQ(vRecords.size(), 1U);
    EXPECT_EQ(outcome(vPlays[0]), "completed MCS_OK");
    EXPECT_EQ(outcome(vRecords[0]), "completed MCS_OK");
    EXPECT_EQ(vRecords[0]["call"], "recordToFileWithPromptPhrase");
    EXPECT_THAT(vRecords[0]["detail"].get<std::string>(), HasSubstr(szFile));
}

TEST_F(TraceLog, AClosedStreamDropsItsPlays)
{
    const unsigned long ulFileID = openPhrases();
    playPhrase(ulFileID, 8000 * 50);
    playPhrase(ulFileID, 8000 * 50);
    m_pServices->closeMediaStream(m_pStream);
    for (const json& play : commands("PLAY"))
    {
        EXPECT_EQ(outcome(play), "dropped ");
        EXPECT_EQ(play["why"], "the stream was closed");
    }
    EXPECT_EQ(commands("PLAY").size(), 2U);
    ASSERT_EQ(commands("CLOSESTREAM").size(), 1U);
    EXPECT_EQ(commands("CLOSESTREAM")[0]["stream"], commands("PLAY")[0]["stream"]);
}

TEST_F(TraceLog, ADriverThatIsKilledAndStartedAgainIsLostAndConnected)
{
    playPhrase(openPhrases(), 8000 * 50);
    m_driver.stop(SIGKILL);
    EXPECT_EQ(m_pStream->playCancel(), MCS_PIPEWRITE);
    ASSERT_TRUE(startDriver());
    m_pServices->closeMediaStream(m_pStream);
    openStream();
    playPhrase(openPhrases());
    ASSERT_TRUE(m_completions.waitCount(1));
    const std::vector<json> vPlays = commands("PLAY");
    ASSERT_EQ(vPlays.size(), 2U);
    EXPECT_EQ(outcome(vPlays[0]), "dropped MCS_PIPEWRITE");
    EXPECT_EQ(vPlays[0]["why"], "the media driver was lost");
    EXPECT_EQ(outcome(vPlays[1]), "completed MCS_OK");
    EXPECT_EQ(commands("CONNECT").size(), 2U);

    CToolRun run({"trace", log(), "--kind", "connection"});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_LT(run.output().find("-- the media driver is lost"), run.output().rfind("-- connected to the media driver"));

    CToolRun timeline({"timeline", "--json", log(), "-o", "/tmp/timeline.html"});
    EXPECT_EQ(timeline.waitExit(), 0);
    const json summary = timeline.json();
    EXPECT_EQ(summary["driver_losses"], 1);
    EXPECT_EQ(summary["plays"], 2);
    EXPECT_EQ(summary["streams"], 2);
    EXPECT_EQ(summary["completions"], 1);
}

TEST_F(TraceLog, ALogThatEndsTooEarlyLeavesAPlayOpen)
{
    playPhrase(openPhrases(), 8000 * 50);
    const std::vector<json> vPlays = commands("PLAY");
    ASSERT_EQ(vPlays.size(), 1U);
    EXPECT_EQ(outcome(vPlays[0]), "open ");
    EXPECT_FALSE(vPlays[0].contains("ended"));
}
