// Streams whose disk and decoder take their time: waiting, ending meanwhile, and being closed meanwhile.
#include "StreamFixture.h"

#include <gmock/gmock.h>

#include <filesystem>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
constexpr size_t CAPACITY = CAudioSink::CAPACITY;

// Loading and writing happen when the test says so.
class StreamAsync : public CStreamFixture
{
protected:
    std::shared_ptr<CStream> Open()
    {
        std::unique_ptr<CChannel> pOpened;
        m_slowChannels.open("call", 1, [&](std::unique_ptr<CChannel> pChannel, const std::string& strError) {
            EXPECT_TRUE(pChannel) << strError;
            pOpened = std::move(pChannel);
        });
        m_disk.runAll();
        return std::make_shared<CStream>(
            5, "call", 1, std::move(pOpened), m_clock, m_disk, [this](bool bRecord, const structMIEVT& evt) {
                m_vOrder.push_back((bRecord ? "record " : "play ") + std::to_string(evt.s_mcstatus));
            });
    }

    // Notes "started" or the error.
    void beginRecord(CStream& stream, const std::string& strName, uint32_t nMaxSamples = 80000)
    {
        stream.startRecord(
            m_folder.path(strName), nMaxSamples, 9,
            [this](bool bOk, const std::string& strError) { m_vOrder.push_back(bOk ? "started" : strError); });
    }

    void runBoth()
    {
        m_loader.runAll();
        m_disk.runAll();
    }

    CStream::DoneFunction note(const char* pText)
    {
        return [this, pText] { m_vOrder.push_back(pText); };
    }

    CSamples heard() { return readULawWav(m_folder.path("call-1.heard.wav")); }

    static size_t openDescriptors()
    {
        const std::filesystem::directory_iterator it("/proc/self/fd");
        return static_cast<size_t>(std::distance(begin(it), end(it)));
    }

    // A clip of which nothing is there yet.
    static std::shared_ptr<CClip> emptyClip() { return std::make_shared<CClip>("clip", 100000); }

    static void append(CClip& clip, const CSamples& samples)
    {
        std::copy(samples.begin(), samples.end(), clip.room().begin());
        clip.publish(samples.size());
    }

    CManualExecutor m_loader;
    CManualExecutor m_disk;
    CClipStore m_slowStore{m_loader};
    CFileChannelFactory m_slowChannels{m_slowStore, m_disk, {m_folder.folder(), false, false}};
    std::vector<std::string> m_vOrder; // of events, starts and cancels
};
} // namespace

TEST_F(StreamAsync, PlayWaitsForTheDecoderAndGoesOnWithTheNextSample)
{
    const CSamples noise = ::noise(1234);
    const auto pClip = emptyClip();
    const auto pStream = Open();
    append(*pClip, slice(noise, 0, 100));
    pStream->startPlay(pClip, 50, 5000, 1);
    ticks(3);
    EXPECT_EQ(pStream->state().m_nPlayPosition, 100U);
    append(*pClip, slice(noise, 100, 400));
    ticks();
    EXPECT_EQ(pStream->state().m_nPlayPosition, 260U);
    append(*pClip, slice(noise, 400, 1234));
    ticks(20);
    EXPECT_EQ(pStream->state().m_nPlayPosition, 1234U);
    runBoth();
    EXPECT_THAT(m_vOrder, IsEmpty()) << "more might come";
    pClip->end(false);
    ticks();
    runBoth();
    EXPECT_THAT(m_vOrder, ElementsAre("play 0"));
    EXPECT_EQ(heard(), slice(noise, 50, 1234));
}

TEST_F(StreamAsync, PlayOfALongFileCatchesUpWithItsDecodingBitExact)
{
    const CSamples noise = ::noise(200000);
    writeULaw(m_folder.path("long.wav"), SF_FORMAT_WAV, noise);
    const auto pStream = Open();
    m_slowStore.load(m_folder.path("long.wav"), 1000, [&](const CClipPtr& pClip, const std::string& strError) {
        ASSERT_TRUE(pClip) << strError;
        EXPECT_FALSE(pClip->isDecoded());
        pStream->startPlay(pClip, 1000, 1000000, 1);
    });
    m_loader.runOne();
    m_loader.runOne();
    for (int nTick = 0; nTick < 1000; ++nTick)
    {
        ticks();
        m_disk.runAll();
    }
    ASSERT_TRUE(pStream->isPlaying()) << "the rest is not decoded";
    EXPECT_LT(pStream->state().m_nPlayPosition, 200000U);
    m_loader.runAll();
    for (int nTick = 0; nTick < 1500; ++nTick)
    {
        ticks();
        m_disk.runAll();
    }
    EXPECT_THAT(m_vOrder, ElementsAre("play 0"));
    EXPECT_EQ(heard(), slice(noise, 1000, 200000));
}

TEST_F(StreamAsync, ClipThatBreaksEndsThePlayThereWithFailure)
{
    const CSamples noise = ::noise(500);
    const auto pClip = emptyClip();
    const auto pStream = Open();
    append(*pClip, noise);
    pStream->startPlay(pClip, 0, 5000, 1);
    ticks();
    pClip->end(true);
    ticks(2);
    runBoth();
    EXPECT_THAT(m_vOrder, IsEmpty());
    ticks();
    runBoth();
    EXPECT_THAT(m_vOrder, ElementsAre("play 1"));
    EXPECT_EQ(heard(), noise);
}

TEST_F(StreamAsync, PlayThatEndsBeforeTheBreakIsFinished)
{
    const auto pClip = emptyClip();
    const auto pStream = Open();
    append(*pClip, noise(500));
    pClip->end(true);
    pStream->startPlay(pClip, 0, 500, 1);
    ticks(4);
    runBoth();
    EXPECT_THAT(m_vOrder, ElementsAre("play 0"));
}

TEST_F(StreamAsync, PlayWaitsForAStalledDiskAndGoesOnBitExact)
{
    const CSamples noise = ::noise(3 * CAPACITY + 77);
    const auto pStream = Open();
    pStream->startPlay(clip(noise), 0, noise.size(), 1);
    for (size_t nStall = 1; nStall <= 3; ++nStall)
    {
        ticks(500);
        EXPECT_EQ(pStream->state().m_nPlayPosition, nStall * CAPACITY);
        EXPECT_FALSE(m_clock.tickFast());
        m_disk.runAll();
    }
    ticks();
    m_disk.runAll();
    EXPECT_THAT(m_vOrder, ElementsAre("play 0"));
    EXPECT_EQ(heard(), noise);
}

TEST_F(StreamAsync, RecordingWaitsForAStalledDiskAndGoesOnBitExact)
{
    const CSamples noise = ::noise(3 * CAPACITY + 77);
    callerSays(noise);
    const auto pStream = Open();
    beginRecord(*pStream, "msg.ul", 1000000);
    runBoth();
    for (size_t nStall = 1; nStall <= 3; ++nStall)
    {
        ticks(500);
        EXPECT_EQ(pStream->state().m_ullRecorded, nStall * CAPACITY);
        EXPECT_FALSE(m_clock.tickFast());
        m_disk.runAll();
    }
    ticks();
    m_disk.runAll();
    EXPECT_THAT(m_vOrder, ElementsAre("started", "record 0"));
    EXPECT_EQ(readBytes(m_folder.path("msg.ul")), noise);
}

TEST_F(StreamAsync, EventsWaitUntilTheFilesAreComplete)
{
    callerSays(noise(300, 2));
    const auto pStream = Open();
    pStream->startPlay(clip(noise(200)), 0, 200, 1);
    beginRecord(*pStream, "msg.wav");
    runBoth();
    ticks(2);
    EXPECT_TRUE(pStream->isPlaying());
    EXPECT_TRUE(pStream->isRecording());
    EXPECT_THAT(m_vOrder, ElementsAre("started"));
    EXPECT_FALSE(m_clock.hasFast()) << "there is nothing to move any more";
    EXPECT_TRUE(m_disk.runOne());
    EXPECT_THAT(m_vOrder, ElementsAre("started", "play 0"));
    EXPECT_EQ(heard(), noise(200));
    EXPECT_TRUE(m_disk.runOne());
    EXPECT_THAT(m_vOrder, ElementsAre("started", "play 0", "record 0"));
    EXPECT_EQ(readULawWav(m_folder.path("msg.wav")), noise(300, 2));
}

TEST_F(StreamAsync, CancelIsDoneRightAfterItsEvent)
{
    const auto pStream = Open();
    pStream->startPlay(clip(noise(1000)), 0, 1000, 1);
    beginRecord(*pStream, "msg.ul");
    runBoth();
    ticks();
    pStream->cancelPlay(note("play cancelled"));
    pStream->cancelRecord(note("record cancelled"));
    EXPECT_THAT(m_vOrder, ElementsAre("started"));
    ticks(5);
    m_disk.runAll();
    EXPECT_THAT(m_vOrder, ElementsAre("started", "play 3", "play cancelled", "record 3", "record cancelled"));
    EXPECT_EQ(heard(), slice(noise(1000), 0, 160));
    EXPECT_EQ(readBytes(m_folder.path("msg.ul")).size(), 160U);
}

TEST_F(StreamAsync, SecondCancelWaitsForTheSameEvent)
{
    const auto pStream = Open();
    pStream->startPlay(clip(noise(1000)), 0, 1000, 1);
    beginRecord(*pStream, "msg.ul");
    runBoth();
    m_vOrder.clear();
    pStream->cancelPlay(note("first"));
    pStream->cancelPlay(note("second"));
    m_disk.runAll();
    EXPECT_THAT(m_vOrder, ElementsAre("play 3", "first", "second"));
    m_vOrder.clear();
    pStream->cancelRecord(note("first"));
    pStream->cancelRecord(note("second"));
    m_disk.runAll();
    EXPECT_THAT(m_vOrder, ElementsAre("record 3", "first", "second"));
    pStream->cancelRecord(note("nothing"));
    EXPECT_EQ(m_vOrder.back(), "nothing");
}

TEST_F(StreamAsync, CancelOfWhatHasJustEndedWaitsForItsEventAndChangesNothing)
{
    const auto pStream = Open();
    pStream->startPlay(clip(noise(100)), 0, 100, 1);
    beginRecord(*pStream, "msg.ul", 100);
    runBoth();
    m_vOrder.clear();
    ticks();
    pStream->cancelPlay(note("play cancelled"));
    pStream->cancelRecord(note("record cancelled"));
    EXPECT_THAT(m_vOrder, IsEmpty());
    m_disk.runAll();
    EXPECT_THAT(m_vOrder, ElementsAre("play 0", "play cancelled", "record 0", "record cancelled"));
    EXPECT_EQ(pStream->recordStatus(), ERecordStatus::Finished);
}

TEST_F(StreamAsync, DiskThatFailsAtTheVeryEndFailsTheRecording)
{
    const auto pStream = Open();
    beginRecord(*pStream, "msg.ul", 2000);
    runBoth();
    ticks(13);
    {
        const CFileSizeLimit limit(1000);
        m_disk.runAll();
    }
    EXPECT_THAT(m_vOrder, ElementsAre("started", "record 1"));
    EXPECT_EQ(pStream->recordStatus(), ERecordStatus::Failed);
}

TEST_F(StreamAsync, DiskThatFailsAtTheVeryEndFailsThePlay)
{
    const auto pStream = Open();
    pStream->startPlay(clip(noise(2000)), 0, 2000, 1);
    ticks(13);
    {
        const CFileSizeLimit limit(1000);
        m_disk.runAll();
    }
    EXPECT_THAT(m_vOrder, ElementsAre("play 1"));
}

TEST_F(StreamAsync, RecordingIsCancelledAsSoonAsItsFileIsOpen)
{
    callerSays(noise(1000));
    const auto pStream = Open();
    beginRecord(*pStream, "msg.wav");
    pStream->cancelRecord(note("cancelled"));
    m_loader.runAll();
    ticks(3);
    EXPECT_THAT(m_vOrder, IsEmpty());
    m_disk.runAll();
    EXPECT_THAT(m_vOrder, ElementsAre("started", "record 3", "cancelled"));
    EXPECT_THAT(readULawWav(m_folder.path("msg.wav")), IsEmpty());
    EXPECT_FALSE(m_clock.hasFast());
}

TEST_F(StreamAsync, CancelOfARecordingThatCannotStartIsDoneAfterTheRefusal)
{
    const auto pStream = Open();
    beginRecord(*pStream, "msg.mp3");
    pStream->cancelRecord(note("cancelled"));
    runBoth();
    EXPECT_THAT(m_vOrder, ElementsAre(HasSubstr("ending"), "cancelled"));
    EXPECT_FALSE(pStream->isRecording());
}

TEST_F(StreamAsync, ClosedWhileItsRecordingFileIsOpenedLeavesNothingOpen)
{
    const size_t nDescriptors = openDescriptors();
    auto pStream = Open();
    beginRecord(*pStream, "msg.wav");
    m_loader.runAll();
    pStream.reset();
    runBoth();
    EXPECT_THAT(m_vOrder, IsEmpty());
    EXPECT_THAT(readULawWav(m_folder.path("msg.wav")), IsEmpty());
    EXPECT_EQ(openDescriptors(), nDescriptors);
    // Nobody holds the file's lock either.
    pStream = Open();
    beginRecord(*pStream, "msg.wav");
    runBoth();
    EXPECT_THAT(m_vOrder, ElementsAre("started"));
}

TEST_F(StreamAsync, ClosedWhileItsCallerIsLoadedTouchesNoFile)
{
    callerSays(noise(1000));
    writeBytes(m_folder.path("msg.ul"), noise(10));
    const size_t nDescriptors = openDescriptors();
    auto pStream = Open();
    beginRecord(*pStream, "msg.ul");
    pStream.reset();
    runBoth();
    runBoth();
    EXPECT_THAT(m_vOrder, IsEmpty());
    EXPECT_EQ(readBytes(m_folder.path("msg.ul")), noise(10));
    EXPECT_EQ(openDescriptors(), nDescriptors);
    EXPECT_EQ(m_slowStore.count(), 0U);
}

TEST_F(StreamAsync, ClosedWhileItEndsCompletesItsFilesWithoutEvents)
{
    callerSays(noise(1000, 2));
    const size_t nDescriptors = openDescriptors();
    auto pStream = Open();
    pStream->startPlay(clip(noise(1000)), 0, 1000, 1);
    beginRecord(*pStream, "msg.wav");
    runBoth();
    ticks(2);
    pStream->cancelPlay(note("play cancelled"));
    pStream->cancelRecord(note("record cancelled"));
    pStream.reset();
    runBoth();
    EXPECT_THAT(m_vOrder, ElementsAre("started"));
    EXPECT_EQ(heard(), slice(noise(1000), 0, 320));
    EXPECT_EQ(readULawWav(m_folder.path("msg.wav")), slice(noise(1000, 2), 0, 320));
    EXPECT_EQ(openDescriptors(), nDescriptors);
}

TEST_F(StreamAsync, ClosedWhileActiveCompletesItsFilesAndLeavesTheClock)
{
    callerSays(noise(1000, 2));
    auto pStream = Open();
    pStream->startPlay(clip(noise(1000)), 0, 1000, 1);
    beginRecord(*pStream, "msg.wav");
    runBoth();
    ticks(2);
    pStream.reset();
    EXPECT_FALSE(m_clock.hasFast());
    runBoth();
    EXPECT_EQ(heard(), slice(noise(1000), 0, 320));
    EXPECT_EQ(readULawWav(m_folder.path("msg.wav")), slice(noise(1000, 2), 0, 320));
}
