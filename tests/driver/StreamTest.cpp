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

void nothing() {}
} // namespace

TEST_F(StreamTest, PlayDeliversTheSamplesBitExact)
{
    const auto pStream = open();
    pStream->startPlay(clip(noise(1000)), 0, 1000, 17);
    Run(*pStream);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 17, DONE_FINISHED}));
    EXPECT_EQ(readULawWav(m_folder.path("call-1.heard.wav")), noise(1000));
}

TEST_F(StreamTest, PlayMovesByTheTickAndEndsInTheTickOfItsLastSample)
{
    const auto pStream = open();
    pStream->startPlay(clip(noise(480)), 0, 480, 17);
    ticks();
    ticks();
    EXPECT_THAT(m_vEvents, IsEmpty());
    EXPECT_TRUE(pStream->isPlaying());
    ticks();
    EXPECT_EQ(m_vEvents.size(), 1U);
    EXPECT_FALSE(pStream->isPlaying());
}

TEST_F(StreamTest, PlaysFollowEachOtherWithoutAGap)
{
    const auto pStream = open();
    pStream->startPlay(clip(noise(333, 1)), 0, 333, 1);
    Run(*pStream);
    ticks();
    pStream->startPlay(clip(noise(500, 2)), 100, 201, 2);
    Run(*pStream);
    EXPECT_EQ(readULawWav(m_folder.path("call-1.heard.wav")), noise(333, 1) + slice(noise(500, 2), 100, 301));
}

TEST_F(StreamTest, EmptyPlayEndsAtTheNextTick)
{
    const auto pStream = open();
    pStream->startPlay(clip(noise(100)), 100, 0, 17);
    EXPECT_TRUE(pStream->isPlaying());
    ticks();
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 17, DONE_FINISHED}));
}

TEST_F(StreamTest, CancelledPlayKeepsWhatWasHeard)
{
    const auto pStream = open();
    pStream->startPlay(clip(noise(1000)), 0, 1000, 17);
    ticks();
    pStream->cancelRecord(nothing);
    EXPECT_TRUE(pStream->isPlaying());
    pStream->cancelPlay(nothing);
    EXPECT_FALSE(pStream->isPlaying());
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 17, DONE_CANCELLED}));
    EXPECT_EQ(readULawWav(m_folder.path("call-1.heard.wav")), slice(noise(1000), 0, 160));
}

TEST_F(StreamTest, CancelOfNothingHasNoEvent)
{
    const auto pStream = open();
    pStream->cancelPlay(nothing);
    pStream->cancelRecord(nothing);
    EXPECT_THAT(m_vEvents, IsEmpty());
}

TEST_F(StreamTest, PlayIntoAFullDiskEndsWithFailure)
{
    const auto pStream = open();
    pStream->startPlay(clip(noise(1000)), 0, 1000, 17);
    const CFileSizeLimit limit(300);
    Run(*pStream);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 17, DONE_FAILED}));
    EXPECT_THAT(m_log.text(), HasSubstr("error: stream 5 play failed"));
}

TEST_F(StreamTest, RecordingEndsAtItsLimitBitExact)
{
    callerSays(noise(5000));
    const auto pStream = open();
    EXPECT_EQ(pStream->recordStatus(), ERecordStatus::None);
    EXPECT_EQ(pStream->recordedMs(), 0);
    record(*pStream, "msg.wav", 1001);
    EXPECT_EQ(pStream->recordStatus(), ERecordStatus::Recording);
    ticks();
    EXPECT_EQ(pStream->recordedMs(), 20);
    Run(*pStream);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FINISHED}));
    EXPECT_EQ(pStream->recordStatus(), ERecordStatus::Finished);
    EXPECT_EQ(pStream->recordedMs(), 125);
    EXPECT_EQ(readULawWav(m_folder.path("msg.wav")), slice(noise(5000), 0, 1001));
}

TEST_F(StreamTest, RecordingEndsWithTheCaller)
{
    callerSays(noise(700));
    const auto pStream = open();
    record(*pStream, "msg.ul", 80000);
    Run(*pStream);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FINISHED}));
    EXPECT_EQ(readBytes(m_folder.path("msg.ul")), noise(700));
}

TEST_F(StreamTest, NextRecordingContinuesWhereTheFormerStopped)
{
    callerSays(noise(1000));
    const auto pStream = open();
    ticks();
    record(*pStream, "a.ul", 300);
    Run(*pStream);
    ticks(10);
    record(*pStream, "b.ul", 300);
    Run(*pStream);
    EXPECT_EQ(readBytes(m_folder.path("a.ul")), slice(noise(1000), 0, 300));
    EXPECT_EQ(readBytes(m_folder.path("b.ul")), slice(noise(1000), 300, 600));
}

TEST_F(StreamTest, CallerWhoHasEndedIsSilent)
{
    callerSays(noise(200));
    const auto pStream = open();
    record(*pStream, "a.ul", 200);
    Run(*pStream);
    record(*pStream, "b.ul", 500);
    Run(*pStream);
    EXPECT_EQ(readBytes(m_folder.path("a.ul")), noise(200));
    EXPECT_EQ(readBytes(m_folder.path("b.ul")), CSamples(500, ULAW_SILENCE));
}

TEST_F(StreamTest, CallerWithoutAFileIsSilentUpToTheLimit)
{
    const auto pStream = open();
    record(*pStream, "msg.ul", 12345);
    Run(*pStream);
    EXPECT_EQ(readBytes(m_folder.path("msg.ul")), CSamples(12345, ULAW_SILENCE));
}

TEST_F(StreamTest, UnreadableCallerRefusesTheRecording)
{
    writeBytes(m_folder.path("call.in.wav"), {'h', 'e', 'l', 'l', 'o'});
    const auto pStream = open();
    EXPECT_THAT(startRecord(*pStream, "msg.wav", 100), HasSubstr("call.in.wav"));
    EXPECT_EQ(pStream->recordStatus(), ERecordStatus::None);
    EXPECT_FALSE(pStream->isRecording());
}

TEST_F(StreamTest, DamagedCallerEndsTheRecordingWithFailure)
{
    writeDamagedFlac(m_folder.path("call.in.wav"));
    const auto pStream = open();
    record(*pStream, "msg.ul", 1000000);
    Run(*pStream);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FAILED}));
    EXPECT_EQ(pStream->recordStatus(), ERecordStatus::Failed);
    EXPECT_GT(readBytes(m_folder.path("msg.ul")).size(), 50000U);
}

TEST_F(StreamTest, RecordingOfNoSamplesEndsAtTheNextTick)
{
    callerSays(noise(200));
    const auto pStream = open();
    record(*pStream, "msg.wav", 0);
    ticks();
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FINISHED}));
    EXPECT_THAT(readULawWav(m_folder.path("msg.wav")), IsEmpty());
}

TEST_F(StreamTest, CancelledRecordingIsKept)
{
    callerSays(noise(5000));
    const auto pStream = open();
    record(*pStream, "msg.wav", 5000);
    ticks();
    pStream->cancelPlay(nothing);
    ticks();
    pStream->cancelRecord(nothing);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_CANCELLED}));
    EXPECT_EQ(pStream->recordStatus(), ERecordStatus::Finished);
    EXPECT_EQ(readULawWav(m_folder.path("msg.wav")), slice(noise(5000), 0, 320));
}

TEST_F(StreamTest, RecordingIntoAFullDiskEndsWithFailure)
{
    callerSays(noise(5000));
    const auto pStream = open();
    record(*pStream, "msg.wav", 5000);
    {
        const CFileSizeLimit limit(1000);
        Run(*pStream);
    }
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 9, DONE_FAILED}));
    EXPECT_EQ(pStream->recordStatus(), ERecordStatus::Failed);
    const CSamples kept = readULawWav(m_folder.path("msg.wav"));
    ASSERT_GE(kept.size(), 640U);
    EXPECT_EQ(slice(kept, 0, 640), slice(noise(5000), 0, 640));
}

TEST_F(StreamTest, ClosingAStreamCompletesItsFiles)
{
    callerSays(noise(5000));
    auto pStream = open();
    pStream->startPlay(clip(noise(1000, 2)), 0, 1000, 17);
    record(*pStream, "msg.wav", 5000);
    ticks();
    pStream.reset();
    EXPECT_EQ(readULawWav(m_folder.path("msg.wav")), slice(noise(5000), 0, 160));
    EXPECT_EQ(readULawWav(m_folder.path("call-1.heard.wav")), slice(noise(1000, 2), 0, 160));
    EXPECT_THAT(m_vEvents, IsEmpty());
}

TEST_F(StreamTest, PlayAndRecordingRunSideBySide)
{
    callerSays(noise(1000));
    const auto pStream = open();
    pStream->startPlay(clip(noise(400, 2)), 0, 400, 17);
    record(*pStream, "msg.ul", 500);
    Run(*pStream);
    EXPECT_THAT(m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, 5, 17, DONE_FINISHED},
                                       structMIEVT{MIEVT_DONE, 5, 9, DONE_FINISHED}));
    EXPECT_EQ(readBytes(m_folder.path("msg.ul")), slice(noise(1000), 0, 500));
}

TEST_F(StreamTest, LegsOfACallHearApartAndListenToTheSameCaller)
{
    callerSays(noise(1000));
    const auto pFirst = open("call", 1);
    const auto pSecond = open("call", 4000000000U);
    pFirst->startPlay(clip(noise(100, 2)), 0, 100, 1);
    pSecond->startPlay(clip(noise(100, 3)), 0, 100, 2);
    record(*pFirst, "a.ul", 50);
    record(*pSecond, "b.ul", 50);
    Run(*pFirst);
    Run(*pSecond);
    EXPECT_EQ(readULawWav(m_folder.path("call-1.heard.wav")), noise(100, 2));
    EXPECT_EQ(readULawWav(m_folder.path("call-4000000000.heard.wav")), noise(100, 3));
    EXPECT_EQ(readBytes(m_folder.path("a.ul")), readBytes(m_folder.path("b.ul")));
}

TEST_F(StreamTest, OpeningAChannelAgainBeginsAnew)
{
    callerSays(noise(1000));
    auto pStream = open();
    pStream->startPlay(clip(noise(100, 2)), 0, 100, 1);
    record(*pStream, "a.ul", 50);
    Run(*pStream);
    pStream.reset();
    pStream = open();
    EXPECT_THAT(readULawWav(m_folder.path("call-1.heard.wav")), IsEmpty());
    record(*pStream, "a.ul", 50);
    Run(*pStream);
    EXPECT_EQ(readBytes(m_folder.path("a.ul")), slice(noise(1000), 0, 50));
}

TEST_F(StreamTest, ChannelRefusesCallIDsThatAreNoFileNames)
{
    std::string strError;
    for (const char* pCallID : {"", "a/b", "/etc/passwd", "..", "a..b", "a\nb", "\x7f"})
    {
        EXPECT_FALSE(openChannel(m_channels, pCallID, 1, strError)) << pCallID;
        EXPECT_THAT(strError, HasSubstr("file name"));
    }
    EXPECT_TRUE(openChannel(m_channels, "sip:+49 30 12345@host", 1, strError)) << strError;
}

TEST_F(StreamTest, ChannelIsOpenOnlyOnce)
{
    const auto pStream = open();
    std::string strError;
    EXPECT_FALSE(openChannel(m_channels, "call", 1, strError));
    EXPECT_THAT(strError, HasSubstr("being written already"));
    EXPECT_TRUE(openChannel(m_channels, "call", 2, strError)) << strError;
}
