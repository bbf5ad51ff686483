// Streams whose disk and decoder take their time: waiting, ending meanwhile, and being closed meanwhile.
#include "StreamFixture.h"

#include <gmock/gmock.h>

#include <filesystem>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
constexpr std::size_t CAPACITY = CAudioSink::CAPACITY;

// Loading and writing happen when the test says so.
class StreamAsync : public CStreamFixture
{
protected:
    std::shared_ptr<CStream> Open()
    {
        std::unique_ptr<CChannel> pOpened;
        m_slowChannels.Open("call", 1, [&](std::unique_ptr<CChannel> pChannel, const std::string& strError) {
            EXPECT_TRUE(pChannel) << strError;
            pOpened = std::move(pChannel);
        });
        m_disk.RunAll();
        return std::make_shared<CStream>(
            5, "call", 1, std::move(pOpened), m_clock, m_disk, [this](bool bRecord, const structMIEVT& evt) {
                m_vOrder.push_back((bRecord ? "record " : "play ") + std::to_string(evt.s_mcstatus));
            });
    }

    // Notes "started" or the error.
    void BeginRecord(CStream& stream, const std::string& strName, std::uint32_t nMaxSamples = 80000)
    {
        stream.StartRecord(m_folder.Path(strName), nMaxSamples, 9, [this](bool bOk, const std::string& strError) {
            m_vOrder.push_back(bOk ? "started" : strError);
        });
    }

    void RunBoth()
    {
        m_loader.RunAll();
        m_disk.RunAll();
    }

    CStream::DoneFunction Note(const char* pText)
    {
        return [this, pText] { m_vOrder.push_back(pText); };
    }

    CSamples Heard() { return ReadULawWav(m_folder.Path("call-1.heard.wav")); }

    static std::size_t OpenDescriptors()
    {
        const std::filesystem::directory_iterator it("/proc/self/fd");
        return static_cast<std::size_t>(std::distance(begin(it), end(it)));
    }

    // A clip of which nothing is there yet.
    static std::shared_ptr<CClip> EmptyClip() { return std::make_shared<CClip>("clip", 100000); }

    static void Append(CClip& clip, const CSamples& samples)
    {
        std::copy(samples.begin(), samples.end(), clip.Room().begin());
        clip.Publish(samples.size());
    }

    CManualExecutor m_loader;
    CManualExecutor m_disk;
    CClipStore m_slowStore{m_loader};
    CFileChannelFactory m_slowChannels{m_slowStore, m_disk, {m_folder.Folder(), false, false}};
    std::vector<std::string> m_vOrder; // of events, starts and cancels
};
} // namespace

TEST_F(StreamAsync, PlayWaitsForTheDecoderAndGoesOnWithTheNextSample)
{
    const CSamples noise = Noise(1234);
    const auto pClip = EmptyClip();
    const auto pStream = Open();
    Append(*pClip, Slice(noise, 0, 100));
    pStream->StartPlay(pClip, 50, 5000, 1);
    Ticks(3);
    EXPECT_EQ(pStream->State().m_nPlayPosition, 100U);
    Append(*pClip, Slice(noise, 100, 400));
    Ticks();
    EXPECT_EQ(pStream->State().m_nPlayPosition, 260U);
    Append(*pClip, Slice(noise, 400, 1234));
    Ticks(20);
    EXPECT_EQ(pStream->State().m_nPlayPosition, 1234U);
    RunBoth();
    EXPECT_THAT(m_vOrder, IsEmpty()) << "more might come";
    pClip->End(false);
    Ticks();
    RunBoth();
    EXPECT_THAT(m_vOrder, ElementsAre("play 0"));
    EXPECT_EQ(Heard(), Slice(noise, 50, 1234));
}

TEST_F(StreamAsync, PlayOfALongFileCatchesUpWithItsDecodingBitExact)
{
    const CSamples noise = Noise(200000);
    WriteULaw(m_folder.Path("long.wav"), SF_FORMAT_WAV, noise);
    const auto pStream = Open();
    m_slowStore.Load(m_folder.Path("long.wav"), 1000, [&](const CClipPtr& pClip, const std::string& strError) {
        ASSERT_TRUE(pClip) << strError;
        EXPECT_FALSE(pClip->IsDecoded());
        pStream->StartPlay(pClip, 1000, 1000000, 1);
    });
    m_loader.RunOne();
    m_loader.RunOne();
    for (int nTick = 0; nTick < 1000; ++nTick)
    {
        Ticks();
        m_disk.RunAll();
    }
    ASSERT_TRUE(pStream->IsPlaying()) << "the rest is not decoded";
    EXPECT_LT(pStream->State().m_nPlayPosition, 200000U);
    m_loader.RunAll();
    for (int nTick = 0; nTick < 1500; ++nTick)
    {
        Ticks();
        m_disk.RunAll();
    }
    EXPECT_THAT(m_vOrder, ElementsAre("play 0"));
    EXPECT_EQ(Heard(), Slice(noise, 1000, 200000));
}

TEST_F(StreamAsync, ClipThatBreaksEndsThePlayThereWithFailure)
{
    const CSamples noise = Noise(500);
    const auto pClip = EmptyClip();
    const auto pStream = Open();
    Append(*pClip, noise);
    pStream->StartPlay(pClip, 0, 5000, 1);
    Ticks();
    pClip->End(true);
    Ticks(2);
    RunBoth();
    EXPECT_THAT(m_vOrder, IsEmpty());
    Ticks();
    RunBoth();
    EXPECT_THAT(m_vOrder, ElementsAre("play 1"));
    EXPECT_EQ(Heard(), noise);
}

TEST_F(StreamAsync, PlayThatEndsBeforeTheBreakIsFinished)
{
    const auto pClip = EmptyClip();
    const auto pStream = Open();
    Append(*pClip, Noise(500));
    pClip->End(true);
    pStream->StartPlay(pClip, 0, 500, 1);
    Ticks(4);
    RunBoth();
    EXPECT_THAT(m_vOrder, ElementsAre("play 0"));
}

TEST_F(StreamAsync, PlayWaitsForAStalledDiskAndGoesOnBitExact)
{
    const CSamples noise = Noise(3 * CAPACITY + 77);
    const auto pStream = Open();
    pStream->StartPlay(Clip(noise), 0, noise.size(), 1);
    for (std::size_t nStall = 1; nStall <= 3; ++nStall)
    {
        Ticks(500);
        EXPECT_EQ(pStream->State().m_nPlayPosition, nStall * CAPACITY);
        EXPECT_FALSE(m_clock.TickFast());
        m_disk.RunAll();
    }
    Ticks();
    m_disk.RunAll();
    EXPECT_THAT(m_vOrder, ElementsAre("play 0"));
    EXPECT_EQ(Heard(), noise);
}

TEST_F(StreamAsync, RecordingWaitsForAStalledDiskAndGoesOnBitExact)
{
    const CSamples noise = Noise(3 * CAPACITY + 77);
    CallerSays(noise);
    const auto pStream = Open();
    BeginRecord(*pStream, "msg.ul", 1000000);
    RunBoth();
    for (std::size_t nStall = 1; nStall <= 3; ++nStall)
    {
        Ticks(500);
        EXPECT_EQ(pStream->State().m_ullRecorded, nStall * CAPACITY);
        EXPECT_FALSE(m_clock.TickFast());
        m_disk.RunAll();
    }
    Ticks();
    m_disk.RunAll();
    EXPECT_THAT(m_vOrder, ElementsAre("started", "record 0"));
    EXPECT_EQ(ReadBytes(m_folder.Path("msg.ul")), noise);
}

TEST_F(StreamAsync, EventsWaitUntilTheFilesAreComplete)
{
    CallerSays(Noise(300, 2));
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(200)), 0, 200, 1);
    BeginRecord(*pStream, "msg.wav");
    RunBoth();
    Ticks(2);
    EXPECT_TRUE(pStream->IsPlaying());
    EXPECT_TRUE(pStream->IsRecording());
    EXPECT_THAT(m_vOrder, ElementsAre("started"));
    EXPECT_FALSE(m_clock.HasFast()) << "there is nothing to move any more";
    EXPECT_TRUE(m_disk.RunOne());
    EXPECT_THAT(m_vOrder, ElementsAre("started", "play 0"));
    EXPECT_EQ(Heard(), Noise(200));
    EXPECT_TRUE(m_disk.RunOne());
    EXPECT_THAT(m_vOrder, ElementsAre("started", "play 0", "record 0"));
    EXPECT_EQ(ReadULawWav(m_folder.Path("msg.wav")), Noise(300, 2));
}

TEST_F(StreamAsync, CancelIsDoneRightAfterItsEvent)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(1000)), 0, 1000, 1);
    BeginRecord(*pStream, "msg.ul");
    RunBoth();
    Ticks();
    pStream->CancelPlay(Note("play cancelled"));
    pStream->CancelRecord(Note("record cancelled"));
    EXPECT_THAT(m_vOrder, ElementsAre("started"));
    Ticks(5);
    m_disk.RunAll();
    EXPECT_THAT(m_vOrder, ElementsAre("started", "play 3", "play cancelled", "record 3", "record cancelled"));
    EXPECT_EQ(Heard(), Slice(Noise(1000), 0, 160));
    EXPECT_EQ(ReadBytes(m_folder.Path("msg.ul")).size(), 160U);
}

TEST_F(StreamAsync, SecondCancelWaitsForTheSameEvent)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(1000)), 0, 1000, 1);
    BeginRecord(*pStream, "msg.ul");
    RunBoth();
    m_vOrder.clear();
    pStream->CancelPlay(Note("first"));
    pStream->CancelPlay(Note("second"));
    m_disk.RunAll();
    EXPECT_THAT(m_vOrder, ElementsAre("play 3", "first", "second"));
    m_vOrder.clear();
    pStream->CancelRecord(Note("first"));
    pStream->CancelRecord(Note("second"));
    m_disk.RunAll();
    EXPECT_THAT(m_vOrder, ElementsAre("record 3", "first", "second"));
    pStream->CancelRecord(Note("nothing"));
    EXPECT_EQ(m_vOrder.back(), "nothing");
}

TEST_F(StreamAsync, CancelOfWhatHasJustEndedWaitsForItsEventAndChangesNothing)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(100)), 0, 100, 1);
    BeginRecord(*pStream, "msg.ul", 100);
    RunBoth();
    m_vOrder.clear();
    Ticks();
    pStream->CancelPlay(Note("play cancelled"));
    pStream->CancelRecord(Note("record cancelled"));
    EXPECT_THAT(m_vOrder, IsEmpty());
    m_disk.RunAll();
    EXPECT_THAT(m_vOrder, ElementsAre("play 0", "play cancelled", "record 0", "record cancelled"));
    EXPECT_EQ(pStream->RecordStatus(), ERecordStatus::Finished);
}

TEST_F(StreamAsync, DiskThatFailsAtTheVeryEndFailsTheRecording)
{
    const auto pStream = Open();
    BeginRecord(*pStream, "msg.ul", 2000);
    RunBoth();
    Ticks(13);
    {
        const CFileSizeLimit limit(1000);
        m_disk.RunAll();
    }
    EXPECT_THAT(m_vOrder, ElementsAre("started", "record 1"));
    EXPECT_EQ(pStream->RecordStatus(), ERecordStatus::Failed);
}

TEST_F(StreamAsync, DiskThatFailsAtTheVeryEndFailsThePlay)
{
    const auto pStream = Open();
    pStream->StartPlay(Clip(Noise(2000)), 0, 2000, 1);
    Ticks(13);
    {
        const CFileSizeLimit limit(1000);
        m_disk.RunAll();
    }
    EXPECT_THAT(m_vOrder, ElementsAre("play 1"));
}

TEST_F(StreamAsync, RecordingIsCancelledAsSoonAsItsFileIsOpen)
{
    CallerSays(Noise(1000));
    const auto pStream = Open();
    BeginRecord(*pStream, "msg.wav");
    pStream->CancelRecord(Note("cancelled"));
    m_loader.RunAll();
    Ticks(3);
    EXPECT_THAT(m_vOrder, IsEmpty());
    m_disk.RunAll();
    EXPECT_THAT(m_vOrder, ElementsAre("started", "record 3", "cancelled"));
    EXPECT_THAT(ReadULawWav(m_folder.Path("msg.wav")), IsEmpty());
    EXPECT_FALSE(m_clock.HasFast());
}

TEST_F(StreamAsync, CancelOfARecordingThatCannotStartIsDoneAfterTheRefusal)
{
    const auto pStream = Open();
    BeginRecord(*pStream, "msg.mp3");
    pStream->CancelRecord(Note("cancelled"));
    RunBoth();
    EXPECT_THAT(m_vOrder, ElementsAre(HasSubstr("ending"), "cancelled"));
    EXPECT_FALSE(pStream->IsRecording());
}

TEST_F(StreamAsync, ClosedWhileItsRecordingFileIsOpenedLeavesNothingOpen)
{
    const std::size_t nDescriptors = OpenDescriptors();
    auto pStream = Open();
    BeginRecord(*pStream, "msg.wav");
    pStream.reset();
    RunBoth();
    EXPECT_THAT(m_vOrder, IsEmpty());
    EXPECT_THAT(ReadULawWav(m_folder.Path("msg.wav")), IsEmpty());
    EXPECT_EQ(OpenDescriptors(), nDescriptors);
    // Nobody holds the file's lock either.
    pStream = Open();
    BeginRecord(*pStream, "msg.wav");
    RunBoth();
    EXPECT_THAT(m_vOrder, ElementsAre("started"));
}

TEST_F(StreamAsync, ClosedWhileItsCallerIsLoadedTouchesNoFile)
{
    CallerSays(Noise(1000));
    WriteBytes(m_folder.Path("msg.ul"), Noise(10));
    const std::size_t nDescriptors = OpenDescriptors();
    auto pStream = Open();
    BeginRecord(*pStream, "msg.ul");
    pStream.reset();
    RunBoth();
    RunBoth();
    EXPECT_THAT(m_vOrder, IsEmpty());
    EXPECT_EQ(ReadBytes(m_folder.Path("msg.ul")), Noise(10));
    EXPECT_EQ(OpenDescriptors(), nDescriptors);
    EXPECT_EQ(m_slowStore.Count(), 0U);
}

TEST_F(StreamAsync, ClosedWhileItEndsCompletesItsFilesWithoutEvents)
{
    CallerSays(Noise(1000, 2));
    const std::size_t nDescriptors = OpenDescriptors();
    auto pStream = Open();
    pStream->StartPlay(Clip(Noise(1000)), 0, 1000, 1);
    BeginRecord(*pStream, "msg.wav");
    RunBoth();
    Ticks(2);
    pStream->CancelPlay(Note("play cancelled"));
    pStream->CancelRecord(Note("record cancelled"));
    pStream.reset();
    RunBoth();
    EXPECT_THAT(m_vOrder, ElementsAre("started"));
    EXPECT_EQ(Heard(), Slice(Noise(1000), 0, 320));
    EXPECT_EQ(ReadULawWav(m_folder.Path("msg.wav")), Slice(Noise(1000, 2), 0, 320));
    EXPECT_EQ(OpenDescriptors(), nDescriptors);
}

TEST_F(StreamAsync, ClosedWhileActiveCompletesItsFilesAndLeavesTheClock)
{
    CallerSays(Noise(1000, 2));
    auto pStream = Open();
    pStream->StartPlay(Clip(Noise(1000)), 0, 1000, 1);
    BeginRecord(*pStream, "msg.wav");
    RunBoth();
    Ticks(2);
    pStream.reset();
    EXPECT_FALSE(m_clock.HasFast());
    RunBoth();
    EXPECT_EQ(Heard(), Slice(Noise(1000), 0, 320));
    EXPECT_EQ(ReadULawWav(m_folder.Path("msg.wav")), Slice(Noise(1000, 2), 0, 320));
}
