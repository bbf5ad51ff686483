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
        WriteULaw(m_driver.Path("clip.wav"), SF_FORMAT_WAV, m_clip);
        WriteULaw(m_driver.Path("call.in.wav"), SF_FORMAT_WAV, m_said);
        m_driver.m_nConnectID = m_driver.Connect(100);
        structMICMD cmd = m_driver.Next(MICMD_OPENSTREAM);
        SetText(cmd.openStream.szCallID, "call");
        cmd.openStream.nLegID = 1;
        m_driver.Send(cmd);
        RunBoth();
        m_nStreamID = LastResponse().s_nStreamID;
        Client().m_vOrder.clear();
    }

    CMemoryClient& Client() { return m_driver.Client(); }
    structMIRSP LastResponse() { return Client().m_vResponses.back(); }

    void RunBoth()
    {
        m_loader.RunAll();
        m_disk.RunAll();
        m_loader.RunAll();
        m_driver.Pass({});
    }

    std::uint32_t SendPlay() { return m_driver.SendPlayFile(m_nStreamID, m_driver.Path("clip.wav")); }

    std::uint32_t SendRecord(const std::string& strName)
    {
        structMICMD cmd = m_driver.Next(MICMD_RECORDFILE);
        cmd.recordFile.nStreamID = m_nStreamID;
        SetText(cmd.recordFile.szFileName, m_driver.Path(strName));
        cmd.recordFile.nMaxSamples = 80000;
        m_driver.Send(cmd);
        return cmd.nSequenceNo;
    }

    void SendStream(MICMD micmd)
    {
        structMICMD cmd = m_driver.Next(micmd);
        cmd.stream.nStreamID = m_nStreamID;
        m_driver.Send(cmd);
        RunBoth();
    }

    void ExpectRefusal(std::uint32_t nSequenceNo)
    {
        EXPECT_EQ(LastResponse().nRespSequenceNo, nSequenceNo);
        EXPECT_EQ(LastResponse().s_mirsp, MIRSP_STATUS);
        EXPECT_EQ(LastResponse().s_nResult, MISTATUS_FAILED);
        EXPECT_THAT(m_driver.m_log.Text(),
                    HasSubstr("sequence " + std::to_string(nSequenceNo) + ": the caller has hung up"));
    }

    void HangItUp() { m_driver.Stream(m_nStreamID)->HangUp(); }

    const CSamples m_clip = Noise(1000);
    const CSamples m_said = Noise(2000, 2);
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
    const std::uint32_t nPlay = SendPlay();
    RunBoth();
    const std::uint32_t nRecord = SendRecord("msg.wav");
    RunBoth();
    m_driver.Ticks(3);
    HangItUp();
    m_driver.Ticks(3);
    EXPECT_THAT(Client().m_vEvents, IsEmpty()) << "the files are not complete";
    RunBoth();
    EXPECT_THAT(Client().m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, nPlay, DONE_HUNG_UP},
                                                structMIEVT{MIEVT_DONE, m_nStreamID, nRecord, DONE_HUNG_UP}));
    EXPECT_EQ(ReadULawWav(m_driver.Path("msg.wav")), Slice(m_said, 0, 480));
    EXPECT_EQ(ReadULawWav(m_driver.Path("call-1.heard.wav")), Slice(m_clip, 0, 480));
    EXPECT_THAT(m_driver.m_log.Text(), HasSubstr("ended with the call"));
}

TEST_F(HangUp, RefusesFurtherPlaysAndRecordingsWithTheReason)
{
    HangItUp();
    const std::uint32_t nPlay = SendPlay();
    ExpectRefusal(nPlay);
    const std::uint32_t nRecord = SendRecord("msg.wav");
    ExpectRefusal(nRecord);
    RunBoth();
    EXPECT_NE(::access(m_driver.Path("msg.wav").c_str(), F_OK), 0);
    EXPECT_THAT(Client().m_vEvents, IsEmpty());
}

TEST_F(HangUp, WhileTheClipIsLoadedRefusesThePlay)
{
    const std::uint32_t nPlay = SendPlay();
    EXPECT_THAT(Client().m_vOrder, IsEmpty());
    HangItUp();
    RunBoth();
    ExpectRefusal(nPlay);
    m_driver.Ticks(3);
    EXPECT_THAT(Client().m_vEvents, IsEmpty());
}

TEST_F(HangUp, WhileTheRecordingFileIsOpenedRefusesTheRecordingAndClosesTheFile)
{
    const std::uint32_t nRecord = SendRecord("msg.wav");
    m_loader.RunAll();
    HangItUp();
    EXPECT_TRUE(m_disk.RunOne());
    ExpectRefusal(nRecord);
    EXPECT_TRUE(m_disk.RunOne()) << "the file is not closed where it may block";
    std::string strError;
    EXPECT_TRUE(CAudioWriter::Create(m_driver.Path("msg.wav"), strError)) << strError;
    m_driver.Ticks(3);
    EXPECT_THAT(Client().m_vEvents, IsEmpty());
    EXPECT_FALSE(m_driver.m_mediaClock.HasFast());
}

TEST_F(HangUp, WhileTheCallerIsLoadedRefusesTheRecordingAndTouchesNoFile)
{
    WriteULaw(m_driver.Path("msg.wav"), SF_FORMAT_WAV, Noise(77));
    const std::uint32_t nRecord = SendRecord("msg.wav");
    HangItUp();
    RunBoth();
    ExpectRefusal(nRecord);
    EXPECT_EQ(ReadULawWav(m_driver.Path("msg.wav")), Noise(77));
}

TEST_F(HangUp, AfterTheEndChangesNoStatus)
{
    const std::uint32_t nPlay = SendPlay();
    RunBoth();
    m_driver.Ticks(7);
    HangItUp();
    HangItUp();
    RunBoth();
    EXPECT_THAT(Client().m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, nPlay, DONE_FINISHED}));
}

TEST_F(HangUp, LeavesACancelItsAnswerBehindTheEvent)
{
    SendPlay();
    RunBoth();
    m_driver.Ticks(1);
    HangItUp();
    structMICMD cmd = m_driver.Next(MICMD_CANCEL);
    cmd.cancel.nStreamID = m_nStreamID;
    cmd.cancel.nCancelType = MICANCEL_PLAY;
    m_driver.Send(cmd);
    const std::size_t nResponses = Client().m_vResponses.size();
    RunBoth();
    ASSERT_EQ(Client().m_vResponses.size(), nResponses + 1);
    EXPECT_EQ(LastResponse().nRespSequenceNo, cmd.nSequenceNo);
    EXPECT_EQ(LastResponse().s_nResult, MISTATUS_OK);
    EXPECT_EQ(Client().m_vEvents.size(), 1U);
    EXPECT_EQ(Client().m_vEvents.back().s_mcstatus, DONE_HUNG_UP);
}

TEST_F(HangUp, LeavesTheStreamToBeAskedAndClosed)
{
    SendRecord("msg.wav");
    RunBoth();
    m_driver.Ticks(2);
    HangItUp();
    RunBoth();
    SendStream(MICMD_RECORDGETTIME);
    EXPECT_EQ(LastResponse().s_nTimeMs, 40);
    SendStream(MICMD_RECORDGETSTATUS);
    EXPECT_EQ(LastResponse().s_nRecordStatus, 2);
    EXPECT_TRUE(m_driver.Stream(m_nStreamID)->State().m_bHungUp);
    SendStream(MICMD_CLOSESTREAM);
    EXPECT_EQ(LastResponse().s_nResult, MISTATUS_OK);
}

TEST_F(HangUp, IsOfOneStreamOnly)
{
    structMICMD cmd = m_driver.Next(MICMD_OPENSTREAM);
    SetText(cmd.openStream.szCallID, "other");
    cmd.openStream.nLegID = 1;
    m_driver.Send(cmd);
    RunBoth();
    HangItUp();
    m_nStreamID = LastResponse().s_nStreamID;
    SendPlay();
    RunBoth();
    EXPECT_EQ(LastResponse().s_nResult, MISTATUS_OK);
}

TEST_F(HangUpOfAStream, FailsTheRecordingWhoseDiskIsFull)
{
    CallerSays(Noise(5000));
    const auto pStream = Open();
    Record(*pStream, "msg.ul", 5000);
    Ticks(10);
    {
        const CFileSizeLimit limit(1000);
        pStream->HangUp();
    }
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FAILED}));
    EXPECT_EQ(ReadBytes(m_folder.Path("msg.ul")), Slice(Noise(5000), 0, 1000));
}

TEST_F(HangUpOfAStream, EndsARecordingOfTheSilenceBehindTheCaller)
{
    CallerSays(Noise(200));
    CFileChannelFactory channels(m_clipStore, m_executor, {m_folder.Folder(), false, true});
    std::string strError;
    const auto pStream = OpenOn(OpenChannel(channels, "call", 1, strError), m_executor);
    Record(*pStream, "msg.ul", 80000);
    Ticks(5);
    EXPECT_THAT(m_vEvents, IsEmpty()) << "silence follows";
    pStream->HangUp();
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_HUNG_UP}));
    EXPECT_EQ(ReadBytes(m_folder.Path("msg.ul")), Noise(200) + CSamples(600, ULAW_SILENCE));
}

TEST_F(HangUpOfAStream, CallerWithSilenceBehindIsRecordedUpToTheLimit)
{
    CallerSays(Noise(200));
    CFileChannelFactory channels(m_clipStore, m_executor, {m_folder.Folder(), false, true});
    std::string strError;
    const auto pStream = OpenOn(OpenChannel(channels, "call", 1, strError), m_executor);
    Record(*pStream, "a.ul", 150);
    Run(*pStream);
    Record(*pStream, "b.ul", 1001);
    Run(*pStream);
    Record(*pStream, "c.ul", 99);
    Run(*pStream);
    EXPECT_EQ(ReadBytes(m_folder.Path("a.ul")), Slice(Noise(200), 0, 150));
    EXPECT_EQ(ReadBytes(m_folder.Path("b.ul")), Slice(Noise(200), 150, 200) + CSamples(951, ULAW_SILENCE));
    EXPECT_EQ(ReadBytes(m_folder.Path("c.ul")), CSamples(99, ULAW_SILENCE));
    EXPECT_EQ(m_vEvents.size(), 3U);
}
