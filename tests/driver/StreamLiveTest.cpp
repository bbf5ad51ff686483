// Streams of callers who wait for nobody: what is said while the disk or we are late keeps its time.
#include "NullChannel.h"
#include "StreamFixture.h"

#include <gmock/gmock.h>

#include <map>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{
// In its tick n the caller says n, and may interrupt.
class CLiveChannel : public CNullChannel
{
public:
    bool isLive() const override { return true; }
    bool isInterrupted() const override { return m_bInterrupts; }

    size_t listen(std::span<uint8_t> samples) override
    {
        std::fill(samples.begin(), samples.end(), static_cast<uint8_t>(++m_nTick % 250));
        return samples.size();
    }
    size_t hear(std::span<const uint8_t> samples) override
    {
        m_nHeard += samples.size();
        return samples.size();
    }

    bool m_bInterrupts = false;
    size_t m_nTick = 0;
    size_t m_nHeard = 0;
};

class StreamLive : public CStreamFixture
{
protected:
    StreamLive()
    {
        auto pChannel = std::make_unique<CLiveChannel>();
        m_pChannel = pChannel.get();
        m_pStream = openOn(std::move(pChannel), m_slowDisk);
    }

    void beginRecord(uint32_t nMaxSamples)
    {
        m_pStream->startRecord(
            m_folder.path("msg.ul"), nMaxSamples, 9, [](bool bOk, const std::string&) { EXPECT_TRUE(bOk); });
    }

    // The tick in which each of the file's ticks was said; 0: silence.
    std::vector<int> saidIn()
    {
        std::vector<int> vTicks;
        const CSamples file = readBytes(m_folder.path("msg.ul"));
        EXPECT_EQ(file.size() % 160, 0U);
        for (size_t n = 0; n + 160 <= file.size(); n += 160)
        {
            EXPECT_EQ(file[n], file[n + 159]);
            vTicks.push_back(file[n] == ULAW_SILENCE ? 0 : file[n]);
        }
        return vTicks;
    }

    CManualExecutor m_slowDisk;
    CLiveChannel* m_pChannel = nullptr;
    std::shared_ptr<CStream> m_pStream;
};
} // namespace

TEST_F(StreamLive, StalledDiskLeavesSilenceAndNoDelay)
{
    constexpr int ROOM = static_cast<int>(CAudioSink::CAPACITY / 160);
    beginRecord(0xFFFFFFFF);
    m_slowDisk.runAll();
    ticks(ROOM + 20);
    EXPECT_EQ(m_pStream->recordedMs(), (ROOM + 20) * 20);
    m_slowDisk.runAll();
    ticks(10);
    m_pStream->cancelRecord([] {});
    m_slowDisk.runAll();
    const CSamples file = readBytes(m_folder.path("msg.ul"));
    ASSERT_EQ(file.size(), (ROOM + 30) * 160U);
    EXPECT_EQ(file[160 * 3], 4);
    EXPECT_EQ(file[160 * (ROOM + 5)], ULAW_SILENCE);
    EXPECT_EQ(file[160 * (ROOM + 21)], (ROOM + 22) % 250);
    EXPECT_EQ(file.back(), (ROOM + 30) % 250);
}

TEST_F(StreamLive, SilenceThatIsDueWhenARecordingEndsIsInItsFile)
{
    constexpr int ROOM = static_cast<int>(CAudioSink::CAPACITY / 160);
    beginRecord(0xFFFFFFFF);
    m_slowDisk.runAll();
    ticks(ROOM + 20);
    m_slowDisk.runAll();
    m_pStream->cancelRecord([] {});
    m_slowDisk.runAll();
    const CSamples file = readBytes(m_folder.path("msg.ul"));
    ASSERT_EQ(file.size(), (ROOM + 20) * 160U);
    EXPECT_EQ(file.back(), ULAW_SILENCE);
}

TEST_F(StreamLive, StalledDiskDoesNotKeepARecordingFromItsEnd)
{
    beginRecord(100000);
    m_slowDisk.runAll();
    ticks(100000 / 160 + 1);
    EXPECT_TRUE(m_pStream->isRecording());
    m_slowDisk.runAll();
    EXPECT_FALSE(m_pStream->isRecording());
    EXPECT_EQ(m_vEvents.size(), 1U);
    EXPECT_EQ(m_pStream->recordedMs(), 12500);
}

TEST_F(StreamLive, RecordingGoesOnInSkippedTicksAndAPlayStandsStill)
{
    beginRecord(0xFFFFFFFF);
    m_slowDisk.runAll();
    m_pStream->startPlay(clip(noise(1600)), 0, 1600, 1);
    ticks(2);
    m_clock.skipRealTime(3);
    EXPECT_EQ(m_pChannel->m_nHeard, 320U);
    EXPECT_EQ(m_pStream->recordedMs(), 100);
    ticks(1);
    EXPECT_EQ(m_pStream->state().m_nPlayPosition, 480U);
    m_pStream->cancelRecord([] {});
    m_slowDisk.runAll();
    EXPECT_THAT(saidIn(), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(StreamLive, LongStallIsSilenceInTheRecording)
{
    beginRecord(0xFFFFFFFF);
    m_slowDisk.runAll();
    ticks(1);
    m_clock.skipRealTime(200 + 3);
    EXPECT_EQ(m_pStream->recordedMs(), 204 * 20);
    m_slowDisk.runAll();
    m_pStream->cancelRecord([] {});
    m_slowDisk.runAll();
    const std::vector<int> vTicks = saidIn();
    ASSERT_EQ(vTicks.size(), 204U);
    EXPECT_EQ(vTicks[0], 1);
    EXPECT_EQ(vTicks[1], 0);
    EXPECT_EQ(vTicks[3], 0);
    EXPECT_EQ(vTicks[4], 2);
}

TEST_F(StreamLive, LongStallEndsARecordingAtItsLimit)
{
    beginRecord(1600);
    m_slowDisk.runAll();
    m_clock.skipRealTime(100000);
    m_slowDisk.runAll();
    EXPECT_FALSE(m_pStream->isRecording());
    EXPECT_EQ(readBytes(m_folder.path("msg.ul")).size(), 1600U);
}

TEST_F(StreamLive, CallerWhoInterruptsEndsThePlayInTheSameTick)
{
    m_pStream->startPlay(clip(noise(1600)), 0, 1600, 7);
    ticks(2);
    m_pChannel->m_bInterrupts = true;
    ticks(1);
    EXPECT_EQ(m_pChannel->m_nHeard, 320U);
    EXPECT_FALSE(m_pStream->isPlaying());
    ASSERT_EQ(m_vEvents.size(), 1U);
    EXPECT_EQ(m_vEvents[0].s_mcstatus, DONE_CANCELLED);
    EXPECT_EQ(m_vEvents[0].nSequenceID, 7U);
}

TEST_F(StreamLive, NothingThatWasSaidBeforeTheFileWasOpenIsInIt)
{
    beginRecord(480);
    for (int n = 0; n < 30; ++n)
        m_pChannel->m_nTick++; // the line goes on
    m_slowDisk.runAll();
    ticks(3);
    m_slowDisk.runAll();
    EXPECT_THAT(saidIn(), ElementsAre(31, 32, 33));
}
