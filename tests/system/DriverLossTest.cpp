// A driver that dies, comes back, is replaced unnoticed, or refuses: what the application meets.
#include "SystemFixture.h"

#include <future>
#include <sys/stat.h>

namespace
{
const char WRITE_ERROR[] = "(Error) CMIntf::sendCommand, error writing request pipe 32"; // EPIPE
const char ALARM[] = "ZelMediaServices CMIntf::markStreamInvalid, cannot open/create/read/write pipe";
} // namespace

class DriverLoss : public CSystemTest
{
};

TEST_F(DriverLoss, DeathBetweenRequestAndResponseEndsPlaysWith16AfterTheBudgetAndWritesWith45Later)
{
    CZelMediaStream* const pPlaying = open("playing");
    CZelMediaStream* const pRecording = open("recording");
    CZelMediaStream* const pPrompted = open("prompted");
    CZelMediaStream* const pAsking = open("asking");
    const unsigned long ulPhrases = openPhraseFile("/p/a.ul");
    EXPECT_EQ(MCS_OK, play(pPlaying, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, play(pPlaying, "/p/2.wav"));
    EXPECT_EQ(MCS_OK, record(pRecording, "/r/1.wav"));
    EXPECT_EQ(MCS_OK, recordWithPrompt(pPrompted, ulPhrases, "/r/2.wav"));

    m_driver.ignore(MICMD_PLAYFILE);
    auto status = std::async(std::launch::async, [&] { return play(pAsking, "/p/unanswered.wav"); });
    m_driver.waitRequest(MICMD_PLAYFILE, 1);
    m_driver.die();
    EXPECT_EQ(MCS_NORESPONSE, status.get());
    drainEvents();

    // Plays and the prompt end; what waited is gone; a plain recording knows only its deadline.
    EXPECT_EQ((std::vector<CCompletion>{{pPlaying, MCS_NORESPONSE, CHandler::MCCR_PLAY},
                                        {pPrompted, MCS_NORESPONSE, CHandler::MCCR_PLAY}}),
              m_completions.all());
    EXPECT_TRUE(waitCommandsAlive(1));

    // The connection counts as alive until something has to be written.
    EXPECT_EQ(MCS_PIPEWRITE, play(pAsking, "/p/3.wav"));
    EXPECT_EQ(MCS_NOTCONNECTED, play(pAsking, "/p/4.wav"));
    m_driver.acceptAgain(MICMD_PLAYFILE);
    m_driver.start();
    ASSERT_TRUE(waitConnected(2));
    EXPECT_EQ(MCS_OK, play(open("new"), "/p/5.wav"));
    EXPECT_EQ(2u, m_completions.count());
}

TEST_F(DriverLoss, DeathBetweenResponseAndEventMakesTheStreamUnusableWithoutACompletion)
{
    CZelMediaStream* const pPlaying = open("playing");
    CZelMediaStream* const pIdle = open("idle");
    EXPECT_EQ(MCS_OK, play(pPlaying, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, play(pPlaying, "/p/2.wav"));
    m_driver.die();
    EXPECT_EQ(0u, m_pLog->alarms().size());

    EXPECT_EQ(MCS_PIPEWRITE, play(pIdle, "/p/3.wav"));
    drainEvents();
    EXPECT_TRUE(m_pLog->has({1, 64, WRITE_ERROR}));
    EXPECT_EQ(0u, m_completions.count());
    EXPECT_TRUE(waitCommandsAlive(0));
    EXPECT_EQ(MCS_NOTINITIALIZED, play(pPlaying, "/p/4.wav"));
    EXPECT_EQ(MCS_NOTCONNECTED, play(pIdle, "/p/4.wav"));
}

TEST_F(DriverLoss, EachPlayLostWithThePipesRaisesTheAlarmOfBothClearings)
{
    CZelMediaStream* const pPlaying = open("playing");
    EXPECT_EQ(MCS_OK, play(pPlaying, "/p/1.wav"));
    loseDriver();
    drainEvents();
    const std::vector<CAlarm> vAlarms = m_pLog->alarms();
    ASSERT_EQ(2u, vAlarms.size());
    for (const CAlarm& alarm : vAlarms)
    {
        EXPECT_EQ(0xC1030190u, alarm.nEventID);
        EXPECT_EQ(std::vector<std::string>{ALARM}, alarm.vStrings);
    }
    EXPECT_EQ(2u, m_pLog->count("evt MIEVT_DONE, stat 45"));
    EXPECT_EQ(1u, m_pLog->count("pcommandCompleted is set for all active cmd"));
    EXPECT_EQ(2u, m_pLog->count("test124 (Error) CMIntf::eventThreadFunc, driverFatalError"));
}

TEST_F(DriverLoss, ThousandWaitingCommandsAreDestroyedWithoutACompletionOrARequest)
{
    CZelMediaStream* const pStream = open("playing");
    CZelMediaStream* const pRecording = open("recording");
    for (int n = 0; n < 1000; ++n)
        ASSERT_EQ(MCS_OK, play(pStream, "/p/" + std::to_string(n)));
    EXPECT_EQ(MCS_OK, record(pRecording, "/r/1.wav"));
    EXPECT_EQ(MCS_OK, record(pRecording, "/r/2.wav"));
    EXPECT_EQ(1002, commandsAlive());
    loseDriver();
    drainEvents();
    // The active recording is matched by no event; closing its stream ends it.
    EXPECT_TRUE(waitCommandsAlive(1));

    m_driver.start();
    ASSERT_TRUE(waitConnected(2));
    drainEvents();
    EXPECT_EQ((std::vector<std::string>{"/p/0", "/r/1.wav"}), filesAtDriver());
    EXPECT_EQ(0u, m_completions.count());
}

TEST_F(DriverLoss, ThousandPlayingStreamsAllBecomeUnusableAndTheNextOnesWork)
{
    std::vector<CZelMediaStream*> vStreams;
    for (int n = 0; n < 1000; ++n)
    {
        vStreams.push_back(open("call-" + std::to_string(n)));
        ASSERT_EQ(MCS_OK, play(vStreams.back(), "/p/1.wav"));
    }
    m_pLog->clear();
    loseDriver();
    drainEvents();
    EXPECT_EQ(2000u, m_pLog->alarms().size());
    EXPECT_EQ(-1000, commandsAlive());
    for (CZelMediaStream* const pStream : vStreams)
        ASSERT_EQ(MCS_NOTINITIALIZED, pStream->playGetInfo(nullptr));
    EXPECT_EQ(0u, m_completions.count());

    m_driver.start();
    ASSERT_TRUE(waitConnected());
    CZelMediaStream* const pNew = open("new");
    EXPECT_EQ(MCS_OK, play(pNew, "/p/new.wav"));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, 1000));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ((std::vector<CCompletion>{{pNew, MCS_OK, CHandler::MCCR_PLAY}}), m_completions.all());
}

TEST_F(DriverLoss, NextPlayThatCannotBeWrittenIsReportedWith45)
{
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, play(pStream, "/p/2.wav"));
    EXPECT_EQ(MCS_OK, play(pStream, "/p/3.wav"));
    m_completions.m_onCompletion = [&](const CCompletion& completion) {
        if (completion.mcstatus == MCS_OK)
            m_driver.die();
    };
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    ASSERT_TRUE(m_completions.waitCount(2));
    drainEvents();
    EXPECT_EQ((std::vector<CCompletion>{{pStream, MCS_OK, CHandler::MCCR_PLAY},
                                        {pStream, MCS_PIPEWRITE, CHandler::MCCR_PLAY}}),
              m_completions.all());
    EXPECT_TRUE(waitCommandsAlive(0));
    // Nothing of the stream was active when the pipes were lost.
    EXPECT_EQ(MCS_OK, pStream->playGetInfo(nullptr));
}

TEST_F(DriverLoss, PhraseFilesAreReopenedInOrderAndPlayedByTheirNewDriverIds)
{
    const unsigned long ulA = openPhraseFile("/p/a.ul");
    const unsigned long ulB = openPhraseFile("/p/b.ul");
    EXPECT_EQ(MCS_OK, m_pServices->closePhraseFile(openPhraseFile("/p/closed.ul")));
    const int32_t nOldConnectID = m_driver.connectID();
    loseDriver();
    m_driver.start();
    ASSERT_TRUE(waitConnected(2));
    EXPECT_NE(nOldConnectID, m_driver.connectID());
    const structMICMD reopenedA = m_driver.waitRequest(MICMD_OPENFILE, 3);
    const structMICMD reopenedB = m_driver.waitRequest(MICMD_OPENFILE, 4);
    EXPECT_STREQ("/p/a.ul", reopenedA.openFile.szFileName);
    EXPECT_STREQ("/p/b.ul", reopenedB.openFile.szFileName);
    EXPECT_EQ(m_driver.connectID(), reopenedA.nConnectID);

    ASSERT_TRUE(m_pLog->waitFor("(Info) CMIntf::reopenClipFiles, m_nCMIntfFileID= ", 2));
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, pStream->playAddPhrase(ulB, 10, 20, 60, 0, 0));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYCLIP));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ(MCS_OK, pStream->playAddPhrase(ulA, 10, 20, 60, 0, 0));
    EXPECT_EQ(505, m_driver.waitRequest(MICMD_PLAYCLIP, 0).playClip.nFileID);
    EXPECT_EQ(504, m_driver.waitRequest(MICMD_PLAYCLIP, 1).playClip.nFileID);
    EXPECT_EQ(5u, m_driver.count(MICMD_OPENFILE));
}

TEST_F(DriverLoss, ReopeningThatFailsPartWayLosesEveryFileUntilTheNextConnect)
{
    const unsigned long ulA = openPhraseFile("/p/a.ul");
    const unsigned long ulB = openPhraseFile("/p/b.ul");
    openPhraseFile("/p/c.ul");
    m_driver.onCommand(MICMD_OPENFILE, [this](const structMICMD& request) {
        if (request.openFile.szFileName == std::string("/p/b.ul"))
            m_driver.respond(request, MIRSP_STATUS, MISTATUS_FAILED);
        else
            m_driver.accept(request);
    });
    loseDriver();
    m_driver.start();
    ASSERT_TRUE(waitConnected(2));
    m_driver.waitRequest(MICMD_OPENFILE, 4);
    CZelMediaStream* const pStream = open();
    // The operation waits for the clip file lock, which the reopening holds.
    EXPECT_EQ(MCS_UNKNOWNPHRASEFILE, pStream->playAddPhrase(ulA, 0, 1, 60, 0, 0));
    EXPECT_EQ(MCS_UNKNOWNPHRASEFILE, pStream->playAddPhrase(ulB, 0, 1, 60, 0, 0));
    EXPECT_EQ(5u, m_driver.count(MICMD_OPENFILE)); // the third file was not tried

    m_driver.acceptAgain(MICMD_OPENFILE);
    loseDriver();
    m_driver.start();
    ASSERT_TRUE(waitConnected(3));
    ASSERT_TRUE(m_driver.waitCount(MICMD_OPENFILE, 8));
    EXPECT_EQ(MCS_OK, pStream->playAddPhrase(ulA, 0, 1, 60, 0, 0));
}

TEST_F(DriverLoss, StreamsThatWereIdleStayUsableAndBecomeTheNewDriversBusiness)
{
    CZelMediaStream* const pStream = open();
    loseDriver();
    EXPECT_EQ(MCS_NOTCONNECTED, play(pStream, "/p/1.wav"));
    m_driver.start();
    ASSERT_TRUE(waitConnected(2));
    EXPECT_EQ(MCS_OK, play(pStream, "/p/2.wav"));
    const structMICMD request = m_driver.waitRequest(MICMD_PLAYFILE);
    EXPECT_EQ(1, request.playFile.nStreamID);
    EXPECT_EQ(m_driver.connectID(), request.nConnectID);
    m_driver.done(request);
    ASSERT_TRUE(m_completions.waitCount(1));
}

TEST_F(DriverLoss, SequenceNumbersGoOnAcrossAReconnect)
{
    open();
    loseDriver();
    m_driver.start();
    ASSERT_TRUE(waitConnected(2));
    open();
    // Connect and open; the open that was never read; connect and open at the new driver.
    std::vector<uint32_t> vNumbers;
    for (const structMICMD& request : m_driver.requests())
        vNumbers.push_back(request.nSequenceNo);
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 4, 5}), vNumbers);
}

TEST_F(DriverLoss, RestartedDriverIsNotNoticedUntilAWriteFails)
{
    m_driver.die();
    m_driver.start();
    ASSERT_TRUE(waitEventThreadRounds(2));
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
    EXPECT_EQ(0u, m_pLog->count("error writing request pipe"));
    EXPECT_EQ(MCS_PIPEWRITE, tryOpen());
    ASSERT_TRUE(waitConnected(2));
    EXPECT_EQ(MCS_OK, tryOpen());
}

// Without a driver at first.
class DriverMissing : public testing::Test
{
protected:
    DriverMissing()
        : m_driver(false), m_pLog(std::make_shared<CLogRecord>()), m_pServices(new CZelMediaServices(&m_completions))
    {
        m_pServices->setLogger(new CLogCapture(m_pLog), nullptr);
    }

    int tryOpen()
    {
        CZelMediaStream* pStream = nullptr;
        const int nStatus = m_pServices->openMediaStream(&pStream, "call", 1);
        m_pServices->closeMediaStream(pStream);
        return nStatus;
    }

    // The pair of lines of each try.
    void expectTries(int nError)
    {
        const std::string strError =
            "(Error) CMIntf::eventThreadFunc, can't open request pipe \"/tmp/OrvMediaIntf-Req\" (" +
            std::to_string(nError) + ")";
        ASSERT_TRUE(m_pLog->waitFor(strError));
        const size_t nFirst = m_pLog->lines().size();
        ASSERT_TRUE(m_pLog->waitFor(strError, m_pLog->count(strError) + 2));
        std::vector<CLogLine> vLines = m_pLog->lines();
        vLines.erase(vLines.begin(), vLines.begin() + static_cast<std::ptrdiff_t>(nFirst));
        const CLogLine about = {8, 2,
                                "CMIntf::eventThreadFunc, about to open request pipe \"/tmp/OrvMediaIntf-Req\"\n"};
        const CLogLine error = {1, 64, strError};
        EXPECT_EQ((std::vector<CLogLine>{about, error, about, error}), vLines);
    }

    CScriptedDriver m_driver;
    CCompletions m_completions;
    std::shared_ptr<CLogRecord> m_pLog;
    std::unique_ptr<CZelMediaServices> m_pServices;
};

TEST_F(DriverMissing, RequestPipeThatIsMissingIsTriedAgainAndAgain)
{
    expectTries(ENOENT);
}

TEST_F(DriverMissing, PipeThatNobodyReadsIsTriedAgainAndAgain)
{
    ASSERT_EQ(0, mkfifo(MI_REQUEST_PIPE, 0666));
    ASSERT_TRUE(m_pLog->waitFor("(6)"));
    expectTries(ENXIO);
}

TEST_F(DriverMissing, EveryRequestIs47UntilTheDriverStartsAndThenPhraseFilesAreOpened)
{
    unsigned long ulFileID = 0;
    EXPECT_EQ(MCS_NOTCONNECTED, tryOpen());
    EXPECT_EQ(MCS_NOTCONNECTED, m_pServices->dump());
    EXPECT_EQ(MCS_NOTCONNECTED, m_pServices->openPhraseFile(text("/p/a.ul"), &ulFileID));
    EXPECT_EQ(1u, ulFileID);
    EXPECT_TRUE(m_pLog->has({1, 2, " (Error) CMIntf::sendCommand - media driver not running or not connected"}));
    m_driver.start();
    EXPECT_STREQ("/p/a.ul", m_driver.waitRequest(MICMD_OPENFILE).openFile.szFileName);
    EXPECT_EQ(MCS_OK, tryOpen());
}

TEST_F(DriverMissing, RefusedConnectIsNotRetried)
{
    m_driver.refuse(MICMD_CONNECT);
    m_driver.start();
    ASSERT_TRUE(m_pLog->waitFor("<<<CMIntf::sendCommand (0), rsp MIRSP_STATUS, mcstatus 0x00000022"));
    const size_t nTries = m_pLog->count("about to open request pipe");
    m_driver.acceptAgain(MICMD_CONNECT);
    ASSERT_TRUE(waitEventThreadRounds(2));
    EXPECT_EQ(nTries, m_pLog->count("about to open request pipe"));
    EXPECT_EQ(MCS_NOTCONNECTED, tryOpen());

    // Nothing is written without a connection, so not even a new driver is noticed.
    m_driver.die();
    m_driver.start();
    ASSERT_TRUE(waitEventThreadRounds(2));
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
    EXPECT_EQ(MCS_NOTCONNECTED, tryOpen());
}

TEST_F(DriverMissing, FileUnderThePipesNameIsNeverWrittenIntoAndCountsAsAPipeThatNobodyReads)
{
    const int nFile = ::open(MI_REQUEST_PIPE, O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0666);
    ASSERT_GE(nFile, 0);
    ASSERT_TRUE(m_pLog->waitFor("(6)"));
    expectTries(ENXIO);
    EXPECT_EQ(MCS_NOTCONNECTED, tryOpen());
    EXPECT_EQ(0, lseek(nFile, 0, SEEK_END));
    close(nFile);
}
