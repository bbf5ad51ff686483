// Streams and file channels under a clock of the test's own: plays, recordings, cancels, failures.
#include "G711.h"
#include "StreamFixture.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
class StreamTest : public CStreamFixture
{
};

void Nothing() {}
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
    Ticks();
    Ticks();
    EXPECT_THAT(m_vEvents, IsEmpty());
    EXPECT_TRUE(pStream->IsPlaying());
    Ticks();
    EXPECT_EQ(m_vEvents.size(), 1U);
    EXPECT_FALSE(pStream->IsPlaying());
}

TEST_F(StreamTest, PlaysFollowEachOtherWithoutAGap)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(333, 1)), 0, 333, 1);
    Run(*pStream);
    Ticks();
    pStream->StartPlay(Clip(Noise(500, 2)), 100, 201, 2);
    Run(*pStream);
    EXPECT_EQ(ReadULawWav(m_folder.Path("call-1.heard.wav")), Noise(333, 1) + Slice(Noise(500, 2), 100, 301));
}

TEST_F(StreamTest, EmptyPlayEndsAtTheNextTick)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(100)), 100, 0, 17);
    EXPECT_TRUE(pStream->IsPlaying());
    Ticks();
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 17, DONE_FINISHED}));
}

TEST_F(StreamTest, CancelledPlayKeepsWhatWasHeard)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(1000)), 0, 1000, 17);
    Ticks();
    pStream->CancelRecord(Nothing);
    EXPECT_TRUE(pStream->IsPlaying());
    pStream->CancelPlay(Nothing);
    EXPECT_FALSE(pStream->IsPlaying());
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 17, DONE_CANCELLED}));
    EXPECT_EQ(ReadULawWav(m_folder.Path("call-1.heard.wav")), Slice(Noise(1000), 0, 160));
}

TEST_F(StreamTest, CancelOfNothingHasNoEvent)
{
    const auto pStream = Open();
    pStream->CancelPlay(Nothing);
    pStream->CancelRecord(Nothing);
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
    Ticks();
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
    Ticks();
    Record(*pStream, "a.ul", 300);
    Run(*pStream);
    Ticks(10);
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
    EXPECT_THAT(StartRecord(*pStream, "msg.wav", 100), HasSubstr("call.in.wav"));
    EXPECT_EQ(pStream->RecordStatus(), ERecordStatus::None);
    EXPECT_FALSE(pStream->IsRecording());
}

TEST_F(StreamTest, DamagedCallerEndsTheRecordingWithFailure)
{
    WriteDamagedFlac(m_folder.Path("call.in.wav"));
    const auto pStream = Open();
    Record(*pStream, "msg.ul", 1000000);
    Run(*pStream);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FAILED}));
    EXPECT_EQ(pStream->RecordStatus(), ERecordStatus::Failed);
    EXPECT_GT(ReadBytes(m_folder.Path("msg.ul")).size(), 50000U);
}

TEST_F(StreamTest, RecordingOfNoSamplesEndsAtTheNextTick)
{
    CallerSays(Noise(200));
    const auto pStream = Open();
    Record(*pStream, "msg.wav", 0);
    Ticks();
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FINISHED}));
    EXPECT_THAT(ReadULawWav(m_folder.Path("msg.wav")), IsEmpty());
}

TEST_F(StreamTest, CancelledRecordingIsKept)
{
    CallerSays(Noise(5000));
    const auto pStream = Open();
    Record(*pStream, "msg.wav", 5000);
    Ticks();
    pStream->CancelPlay(Nothing);
    Ticks();
    pStream->CancelRecord(Nothing);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_CANCELLED}));
    EXPECT_EQ(pStream->RecordStatus(), ERecordStatus::Finished);
    EXPECT_EQ(ReadULawWav(m_folder.Path("msg.wav")), Slice(Noise(5000), 0, 320));
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
    Ticks();
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
        EXPECT_FALSE(OpenChannel(m_channels, pCallID, 1, strError)) << pCallID;
        EXPECT_THAT(strError, HasSubstr("file name"));
    }
    EXPECT_TRUE(OpenChannel(m_channels, "sip:+49 30 12345@host", 1, strError)) << strError;
}

TEST_F(StreamTest, ChannelIsOpenOnlyOnce)
{
    const auto pStream = Open();
    std::string strError;
    EXPECT_FALSE(OpenChannel(m_channels, "call", 1, strError));
    EXPECT_THAT(strError, HasSubstr("being written already"));
    EXPECT_TRUE(OpenChannel(m_channels, "call", 2, strError)) << strError;
}
