// Hang-up: what is active ends, what was recorded is kept, and nothing begins any more.
#include "G711.h"
#include "StreamFixture.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace
{
// A driver whose loader and disk run when the test says so, and a client with a stream.
class HangUp : public testing::Test
{
protected:
    HangUp()
    {
        writeULaw(m_driver.path("clip.wav"), SF_FORMAT_WAV, m_clip);
        writeULaw(m_driver.path("call.in.wav"), SF_FORMAT_WAV, m_said);
        m_driver.m_nConnectID = m_driver.connect(100);
        structMICMD cmd = m_driver.next(MICMD_OPENSTREAM);
        setText(cmd.openStream.szCallID, "call");
        cmd.openStream.nLegID = 1;
        m_driver.send(cmd);
        runBoth();
        m_nStreamID = lastResponse().s_nStreamID;
        client().m_vOrder.clear();
    }

    CMemoryClient& client() { return m_driver.client(); }
    structMIRSP lastResponse() { return client().m_vResponses.back(); }

    void runBoth()
    {
        m_loader.runAll();
        m_disk.runAll();
        m_loader.runAll();
        m_driver.pass({});
    }

    uint32_t sendPlay() { return m_driver.sendPlayFile(m_nStreamID, m_driver.path("clip.wav")); }

    uint32_t sendRecord(const std::string& strName)
    {
        structMICMD cmd = m_driver.next(MICMD_RECORDFILE);
        cmd.recordFile.nStreamID = m_nStreamID;
        setText(cmd.recordFile.szFileName, m_driver.path(strName));
        cmd.recordFile.nMaxSamples = 80000;
        m_driver.send(cmd);
        return cmd.nSequenceNo;
    }

    void sendStream(MICMD micmd)
    {
        structMICMD cmd = m_driver.next(micmd);
        cmd.stream.nStreamID = m_nStreamID;
        m_driver.send(cmd);
        runBoth();
    }

    void expectRefusal(uint32_t nSequenceNo)
    {
        EXPECT_EQ(lastResponse().nRespSequenceNo, nSequenceNo);
        EXPECT_EQ(lastResponse().s_mirsp, MIRSP_STATUS);
        EXPECT_EQ(lastResponse().s_nResult, MISTATUS_FAILED);
        EXPECT_THAT(m_driver.m_log.text(),
                    HasSubstr("sequence " + std::to_string(nSequenceNo) + ": the caller has hung up"));
    }

    void hangItUp() { m_driver.stream(m_nStreamID)->hangUp(); }

    const CSamples m_clip = noise(1000);
    const CSamples m_said = noise(2000, 2);
    CManualExecutor m_loader;
    CManualExecutor m_disk;
    CDriverInMemory m_driver{m_loader, m_disk, {.m_bRealTime = false}};
    int m_nStreamID = 0;
};

// On the stream itself, with a disk that is done at once.
class HangUpOfAStream : public CStreamFixture
{
};
} // namespace

TEST_F(HangUp, EndsPlayAndRecordingAndKeepsWhatWasRecorded)
{
    const uint32_t nPlay = sendPlay();
    runBoth();
    const uint32_t nRecord = sendRecord("msg.wav");
    runBoth();
    m_driver.ticks(3);
    hangItUp();
    m_driver.ticks(3);
    EXPECT_THAT(client().m_vEvents, IsEmpty()) << "the files are not complete";
    runBoth();
    EXPECT_THAT(client().m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, nPlay, DONE_HUNG_UP},
                                                structMIEVT{MIEVT_DONE, m_nStreamID, nRecord, DONE_HUNG_UP}));
    EXPECT_EQ(readULawWav(m_driver.path("msg.wav")), slice(m_said, 0, 480));
    EXPECT_EQ(readULawWav(m_driver.path("call-1.heard.wav")), slice(m_clip, 0, 480));
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("ended with the call"));
}

TEST_F(HangUp, RefusesFurtherPlaysAndRecordingsWithTheReason)
{
    hangItUp();
    const uint32_t nPlay = sendPlay();
    expectRefusal(nPlay);
    const uint32_t nRecord = sendRecord("msg.wav");
    expectRefusal(nRecord);
    runBoth();
    EXPECT_NE(::access(m_driver.path("msg.wav").c_str(), F_OK), 0);
    EXPECT_THAT(client().m_vEvents, IsEmpty());
}

TEST_F(HangUp, WhileTheClipIsLoadedRefusesThePlay)
{
    const uint32_t nPlay = sendPlay();
    EXPECT_THAT(client().m_vOrder, IsEmpty());
    hangItUp();
    runBoth();
    expectRefusal(nPlay);
    m_driver.ticks(3);
    EXPECT_THAT(client().m_vEvents, IsEmpty());
}

TEST_F(HangUp, WhileTheRecordingFileIsOpenedRefusesTheRecordingAndClosesTheFile)
{
    const uint32_t nRecord = sendRecord("msg.wav");
    m_loader.runAll();
    hangItUp();
    EXPECT_TRUE(m_disk.runOne());
    expectRefusal(nRecord);
    EXPECT_TRUE(m_disk.runOne()) << "the file is not closed where it may block";
    std::string strError;
    EXPECT_TRUE(CAudioWriter::create(m_driver.path("msg.wav"), strError)) << strError;
    m_driver.ticks(3);
    EXPECT_THAT(client().m_vEvents, IsEmpty());
    EXPECT_FALSE(m_driver.m_mediaClock.hasFast());
}

TEST_F(HangUp, WhileTheCallerIsLoadedRefusesTheRecordingAndTouchesNoFile)
{
    writeULaw(m_driver.path("msg.wav"), SF_FORMAT_WAV, noise(77));
    const uint32_t nRecord = sendRecord("msg.wav");
    hangItUp();
    runBoth();
    expectRefusal(nRecord);
    EXPECT_EQ(readULawWav(m_driver.path("msg.wav")), noise(77));
}

TEST_F(HangUp, AfterTheEndChangesNoStatus)
{
    const uint32_t nPlay = sendPlay();
    runBoth();
    m_driver.ticks(7);
    hangItUp();
    hangItUp();
    runBoth();
    EXPECT_THAT(client().m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, nPlay, DONE_FINISHED}));
}

TEST_F(HangUp, LeavesACancelItsAnswerBehindTheEvent)
{
    sendPlay();
    runBoth();
    m_driver.ticks(1);
    hangItUp();
    structMICMD cmd = m_driver.next(MICMD_CANCEL);
    cmd.cancel.nStreamID = m_nStreamID;
    cmd.cancel.nCancelType = MICANCEL_PLAY;
    m_driver.send(cmd);
    const size_t nResponses = client().m_vResponses.size();
    runBoth();
    ASSERT_EQ(client().m_vResponses.size(), nResponses + 1);
    EXPECT_EQ(lastResponse().nRespSequenceNo, cmd.nSequenceNo);
    EXPECT_EQ(lastResponse().s_nResult, MISTATUS_OK);
    EXPECT_EQ(client().m_vEvents.size(), 1U);
    EXPECT_EQ(client().m_vEvents.back().s_mcstatus, DONE_HUNG_UP);
}

TEST_F(HangUp, LeavesTheStreamToBeAskedAndClosed)
{
    sendRecord("msg.wav");
    runBoth();
    m_driver.ticks(2);
    hangItUp();
    runBoth();
    sendStream(MICMD_RECORDGETTIME);
    EXPECT_EQ(lastResponse().s_nTimeMs, 40);
    sendStream(MICMD_RECORDGETSTATUS);
    EXPECT_EQ(lastResponse().s_nRecordStatus, 2);
    EXPECT_TRUE(m_driver.stream(m_nStreamID)->state().m_bHungUp);
    sendStream(MICMD_CLOSESTREAM);
    EXPECT_EQ(lastResponse().s_nResult, MISTATUS_OK);
}

TEST_F(HangUp, IsOfOneStreamOnly)
{
    structMICMD cmd = m_driver.next(MICMD_OPENSTREAM);
    setText(cmd.openStream.szCallID, "other");
    cmd.openStream.nLegID = 1;
    m_driver.send(cmd);
    runBoth();
    hangItUp();
    m_nStreamID = lastResponse().s_nStreamID;
    sendPlay();
    runBoth();
    EXPECT_EQ(lastResponse().s_nResult, MISTATUS_OK);
}

TEST_F(HangUpOfAStream, FailsTheRecordingWhoseDiskIsFull)
{
    callerSays(noise(5000));
    const auto pStream = open();
    record(*pStream, "msg.ul", 5000);
    ticks(10);
    {
        const CFileSizeLimit limit(1000);
        pStream->hangUp();
    }
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FAILED}));
    EXPECT_EQ(readBytes(m_folder.path("msg.ul")), slice(noise(5000), 0, 1000));
}

TEST_F(HangUpOfAStream, EndsARecordingOfTheSilenceBehindTheCaller)
{
    callerSays(noise(200));
    CFileChannelFactory channels(m_clipStore, m_executor, {m_folder.folder(), false, true});
    std::string strError;
    const auto pStream = openOn(openChannel(channels, "call", 1, strError), m_executor);
    record(*pStream, "msg.ul", 80000);
    ticks(5);
    EXPECT_THAT(m_vEvents, IsEmpty()) << "silence follows";
    pStream->hangUp();
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_HUNG_UP}));
    EXPECT_EQ(readBytes(m_folder.path("msg.ul")), noise(200) + CSamples(600, ULAW_SILENCE));
}

TEST_F(HangUpOfAStream, CallerWithSilenceBehindIsRecordedUpToTheLimit)
{
    callerSays(noise(200));
    CFileChannelFactory channels(m_clipStore, m_executor, {m_folder.folder(), false, true});
    std::string strError;
    const auto pStream = openOn(openChannel(channels, "call", 1, strError), m_executor);
    record(*pStream, "a.ul", 150);
    Run(*pStream);
    record(*pStream, "b.ul", 1001);
    Run(*pStream);
    record(*pStream, "c.ul", 99);
    Run(*pStream);
    EXPECT_EQ(readBytes(m_folder.path("a.ul")), slice(noise(200), 0, 150));
    EXPECT_EQ(readBytes(m_folder.path("b.ul")), slice(noise(200), 150, 200) + CSamples(951, ULAW_SILENCE));
    EXPECT_EQ(readBytes(m_folder.path("c.ul")), CSamples(99, ULAW_SILENCE));
    EXPECT_EQ(m_vEvents.size(), 3U);
}
