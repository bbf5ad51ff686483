// Streams and file channels under a clock of the test's own: plays, recordings, cancels, failures.
#include "Stream.h"
#include "DriverTestSupport.h"
#include "G711.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
class StreamTest : public testing::Test
{
protected:
    std::unique_ptr<CStream> Open(const std::string& strCallID = "call", std::uint32_t nLegID = 1)
    {
        std::string strError;
        auto pChannel = m_channels.Open(strCallID, nLegID, strError);
        EXPECT_TRUE(pChannel) << strError;
        return std::make_unique<CStream>(5, strCallID, nLegID, std::move(pChannel));
    }

    static CClipPtr Clip(const CSamples& samples) { return std::make_shared<CClip>(CClip{"clip", samples}); }

    void Record(CStream& stream, const std::string& strName, std::uint32_t nMaxSamples, std::uint32_t nSequenceNo = 9)
    {
        std::string strError;
        EXPECT_TRUE(stream.StartRecord(m_folder.Path(strName), nMaxSamples, nSequenceNo, strError)) << strError;
    }

    void CallerSays(const CSamples& samples) { WriteULaw(m_folder.Path("call.in.wav"), SF_FORMAT_WAV, samples); }

    // Ticks until the stream is idle.
    void Run(CStream& stream)
    {
        for (int nTick = 0; nTick < 10000 && stream.IsActive(); ++nTick)
        {
            stream.Advance(160, m_vEvents);
        }
        EXPECT_FALSE(stream.IsActive());
    }

    CTempFolder m_folder;
    CLogCapture m_log;
    CClipStore m_clipStore;
    CFileChannelFactory m_channels{m_clipStore, m_folder.Folder()};
    std::vector<structMIEVT> m_vEvents;
};
} // namespace

TEST_F(StreamTest, PlayDeliversTheSamplesBitExact)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(1000)), 0, 1000, 17);
    Run(*pStream);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 17, DONE_FINISHED}));
    EXPECT_EQ(ReadULawWav(m_folder.Path("call-1.heard.wav")), Noise(1000));
}

TEST_F(StreamTest, PlayMovesByTheTickAndEndsInTheTickOfItsLastSample)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(480)), 0, 480, 17);
    pStream->Advance(160, m_vEvents);
    pStream->Advance(160, m_vEvents);
    EXPECT_THAT(m_vEvents, IsEmpty());
    EXPECT_TRUE(pStream->IsPlaying());
    pStream->Advance(160, m_vEvents);
    EXPECT_EQ(m_vEvents.size(), 1U);
    EXPECT_FALSE(pStream->IsPlaying());
}

TEST_F(StreamTest, PlaysFollowEachOtherWithoutAGap)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(333, 1)), 0, 333, 1);
    Run(*pStream);
    pStream->Advance(160, m_vEvents);
    pStream->StartPlay(Clip(Noise(500, 2)), 100, 201, 2);
    Run(*pStream);
    EXPECT_EQ(ReadULawWav(m_folder.Path("call-1.heard.wav")), Noise(333, 1) + Slice(Noise(500, 2), 100, 301));
}

TEST_F(StreamTest, EmptyPlayEndsAtTheNextTick)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(100)), 100, 0, 17);
    EXPECT_TRUE(pStream->IsPlaying());
    pStream->Advance(160, m_vEvents);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 17, DONE_FINISHED}));
}

TEST_F(StreamTest, CancelledPlayKeepsWhatWasHeard)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(1000)), 0, 1000, 17);
    pStream->Advance(160, m_vEvents);
    pStream->CancelRecord(m_vEvents);
    EXPECT_TRUE(pStream->IsPlaying());
    pStream->CancelPlay(m_vEvents);
    EXPECT_FALSE(pStream->IsPlaying());
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 17, DONE_CANCELLED}));
    EXPECT_EQ(ReadULawWav(m_folder.Path("call-1.heard.wav")), Slice(Noise(1000), 0, 160));
}

TEST_F(StreamTest, CancelOfNothingHasNoEvent)
{
    const auto pStream = Open();
    pStream->CancelPlay(m_vEvents);
    pStream->CancelRecord(m_vEvents);
    EXPECT_THAT(m_vEvents, IsEmpty());
}

TEST_F(StreamTest, PlayIntoAFullDiskEndsWithFailure)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(1000)), 0, 1000, 17);
    const CFileSizeLimit limit(300);
    Run(*pStream);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 17, DONE_FAILED}));
    EXPECT_THAT(m_log.Text(), HasSubstr("error: stream 5 play failed"));
}

TEST_F(StreamTest, RecordingEndsAtItsLimitBitExact)
{
    CallerSays(Noise(5000));
    const auto pStream = Open();
    EXPECT_EQ(pStream->RecordStatus(), ERecordStatus::None);
    EXPECT_EQ(pStream->RecordedMs(), 0);
    Record(*pStream, "msg.wav", 1001);
    EXPECT_EQ(pStream->RecordStatus(), ERecordStatus::Recording);
    pStream->Advance(160, m_vEvents);
    EXPECT_EQ(pStream->RecordedMs(), 20);
    Run(*pStream);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FINISHED}));
    EXPECT_EQ(pStream->RecordStatus(), ERecordStatus::Finished);
    EXPECT_EQ(pStream->RecordedMs(), 125);
    EXPECT_EQ(ReadULawWav(m_folder.Path("msg.wav")), Slice(Noise(5000), 0, 1001));
}

TEST_F(StreamTest, RecordingEndsWithTheCaller)
{
    CallerSays(Noise(700));
    const auto pStream = Open();
    Record(*pStream, "msg.ul", 80000);
    Run(*pStream);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FINISHED}));
    EXPECT_EQ(ReadBytes(m_folder.Path("msg.ul")), Noise(700));
}

TEST_F(StreamTest, NextRecordingContinuesWhereTheFormerStopped)
{
    CallerSays(Noise(1000));
    const auto pStream = Open();
    pStream->Advance(160, m_vEvents);
    Record(*pStream, "a.ul", 300);
    Run(*pStream);
    pStream->Advance(1600, m_vEvents);
    Record(*pStream, "b.ul", 300);
    Run(*pStream);
    EXPECT_EQ(ReadBytes(m_folder.Path("a.ul")), Slice(Noise(1000), 0, 300));
    EXPECT_EQ(ReadBytes(m_folder.Path("b.ul")), Slice(Noise(1000), 300, 600));
}

TEST_F(StreamTest, CallerWhoHasEndedIsSilent)
{
    CallerSays(Noise(200));
    const auto pStream = Open();
    Record(*pStream, "a.ul", 200);
    Run(*pStream);
    Record(*pStream, "b.ul", 500);
    Run(*pStream);
    EXPECT_EQ(ReadBytes(m_folder.Path("a.ul")), Noise(200));
    EXPECT_EQ(ReadBytes(m_folder.Path("b.ul")), CSamples(500, ULAW_SILENCE));
}

TEST_F(StreamTest, CallerWithoutAFileIsSilentUpToTheLimit)
{
    const auto pStream = Open();
    Record(*pStream, "msg.ul", 12345);
    Run(*pStream);
    EXPECT_EQ(ReadBytes(m_folder.Path("msg.ul")), CSamples(12345, ULAW_SILENCE));
}

TEST_F(StreamTest, UnreadableCallerRefusesTheRecording)
{
    WriteBytes(m_folder.Path("call.in.wav"), {'h', 'e', 'l', 'l', 'o'});
    const auto pStream = Open();
    std::string strError;
    EXPECT_FALSE(pStream->StartRecord(m_folder.Path("msg.wav"), 100, 9, strError));
    EXPECT_THAT(strError, HasSubstr("call.in.wav"));
    EXPECT_EQ(pStream->RecordStatus(), ERecordStatus::None);
    EXPECT_FALSE(pStream->IsActive());
}

TEST_F(StreamTest, RecordingOfNoSamplesEndsAtTheNextTick)
{
    CallerSays(Noise(200));
    const auto pStream = Open();
    Record(*pStream, "msg.wav", 0);
    pStream->Advance(160, m_vEvents);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FINISHED}));
    EXPECT_THAT(ReadULawWav(m_folder.Path("msg.wav")), IsEmpty());
}

TEST_F(StreamTest, CancelledRecordingIsKept)
{
    CallerSays(Noise(5000));
    const auto pStream = Open();
    Record(*pStream, "msg.wav", 5000);
    pStream->Advance(160, m_vEvents);
    pStream->CancelPlay(m_vEvents);
    pStream->Advance(161, m_vEvents);
    pStream->CancelRecord(m_vEvents);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_CANCELLED}));
    EXPECT_EQ(pStream->RecordStatus(), ERecordStatus::Finished);
    EXPECT_EQ(ReadULawWav(m_folder.Path("msg.wav")), Slice(Noise(5000), 0, 321));
}

TEST_F(StreamTest, RecordingIntoAFullDiskEndsWithFailure)
{
    CallerSays(Noise(5000));
    const auto pStream = Open();
    Record(*pStream, "msg.wav", 5000);
    {
        const CFileSizeLimit limit(1000);
        Run(*pStream);
    }
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FAILED}));
    EXPECT_EQ(pStream->RecordStatus(), ERecordStatus::Failed);
    const CSamples kept = ReadULawWav(m_folder.Path("msg.wav"));
    ASSERT_GE(kept.size(), 640U);
    EXPECT_EQ(Slice(kept, 0, 640), Slice(Noise(5000), 0, 640));
}

TEST_F(StreamTest, ClosingAStreamCompletesItsFiles)
{
    CallerSays(Noise(5000));
    auto pStream = Open();
    pStream->StartPlay(Clip(Noise(1000, 2)), 0, 1000, 17);
    Record(*pStream, "msg.wav", 5000);
    pStream->Advance(160, m_vEvents);
    pStream.reset();
    EXPECT_EQ(ReadULawWav(m_folder.Path("msg.wav")), Slice(Noise(5000), 0, 160));
    EXPECT_EQ(ReadULawWav(m_folder.Path("call-1.heard.wav")), Slice(Noise(1000, 2), 0, 160));
    EXPECT_THAT(m_vEvents, IsEmpty());
}

TEST_F(StreamTest, PlayAndRecordingRunSideBySide)
{
    CallerSays(Noise(1000));
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(400, 2)), 0, 400, 17);
    Record(*pStream, "msg.ul", 500);
    Run(*pStream);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 17, DONE_FINISHED},
                                       structMIEVT{MIEVT_DONE, 5, 9, DONE_FINISHED}));
    EXPECT_EQ(ReadBytes(m_folder.Path("msg.ul")), Slice(Noise(1000), 0, 500));
}

TEST_F(StreamTest, LegsOfACallHearApartAndListenToTheSameCaller)
{
    CallerSays(Noise(1000));
    const auto pFirst = Open("call", 1);
    const auto pSecond = Open("call", 4000000000U);
    pFirst->StartPlay(Clip(Noise(100, 2)), 0, 100, 1);
    pSecond->StartPlay(Clip(Noise(100, 3)), 0, 100, 2);
    Record(*pFirst, "a.ul", 50);
    Record(*pSecond, "b.ul", 50);
    Run(*pFirst);
    Run(*pSecond);
    EXPECT_EQ(ReadULawWav(m_folder.Path("call-1.heard.wav")), Noise(100, 2));
    EXPECT_EQ(ReadULawWav(m_folder.Path("call-4000000000.heard.wav")), Noise(100, 3));
    EXPECT_EQ(ReadBytes(m_folder.Path("a.ul")), ReadBytes(m_folder.Path("b.ul")));
}

TEST_F(StreamTest, OpeningAChannelAgainBeginsAnew)
{
    CallerSays(Noise(1000));
    auto pStream = Open();
    pStream->StartPlay(Clip(Noise(100, 2)), 0, 100, 1);
    Record(*pStream, "a.ul", 50);
    Run(*pStream);
    pStream.reset();
    pStream = Open();
    EXPECT_THAT(ReadULawWav(m_folder.Path("call-1.heard.wav")), IsEmpty());
    Record(*pStream, "a.ul", 50);
    Run(*pStream);
    EXPECT_EQ(ReadBytes(m_folder.Path("a.ul")), Slice(Noise(1000), 0, 50));
}

TEST_F(StreamTest, ChannelRefusesCallIDsThatAreNoFileNames)
{
    std::string strError;
    for (const char* pCallID : {"", "a/b", "/etc/passwd", "..", "a..b", "a\nb", "\x7f"})
    {
        EXPECT_FALSE(m_channels.Open(pCallID, 1, strError)) << pCallID;
        EXPECT_THAT(strError, HasSubstr("file name"));
    }
    EXPECT_TRUE(m_channels.Open("sip:+49 30 12345@host", 1, strError)) << strError;
}

TEST_F(StreamTest, ChannelIsOpenOnlyOnce)
{
    const auto pStream = Open();
    std::string strError;
    EXPECT_FALSE(m_channels.Open("call", 1, strError));
    EXPECT_THAT(strError, HasSubstr("being written already"));
    EXPECT_TRUE(m_channels.Open("call", 2, strError)) << strError;
}
