// The media tick: who is moved when, in which order, and streams that come and go meanwhile.
#include "NullChannel.h"
#include "StreamFixture.h"

#include <gmock/gmock.h>

#include <random>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace
{
using CWords = std::vector<std::string>;

// Notes when it is used.
class CNotingChannel : public CNullChannel
{
public:
    CNotingChannel(CWords& vNotes, bool bRealTime) : m_vNotes(vNotes), m_bRealTime(bRealTime) {}

    bool isRealTime() const override { return m_bRealTime; }

    size_t hear(std::span<const uint8_t> samples) override
    {
        m_vNotes.push_back("hear " + std::to_string(samples.size()));
        return samples.size();
    }

    bool wantsService() const override { return m_bWantsService; }

    void service() override
    {
        m_bWantsService = false;
        m_vNotes.push_back("service");
    }

    bool m_bWantsService = false;

private:
    CWords& m_vNotes;
    const bool m_bRealTime;
};

class CNotingListener : public CTickListener
{
public:
    CNotingListener(CWords& vNotes, std::string strName) : m_vNotes(vNotes), m_strName(std::move(strName)) {}

    bool needsTicks() const override { return m_bNeedsTicks; }
    void beforeTick() override { m_vNotes.push_back(m_strName + " before"); }
    void afterTick() override { m_vNotes.push_back(m_strName + " after"); }

    bool m_bNeedsTicks = false;

private:
    CWords& m_vNotes;
    const std::string m_strName;
};

class MediaClock : public CStreamFixture
{
protected:
    std::shared_ptr<CStream> make(int nID, bool bRealTime = true)
    {
        return std::make_shared<CStream>(
            nID, "call", 1, std::make_unique<CNotingChannel>(m_vNotes, bRealTime), m_clock, m_executor,
            [this](bool, const structMIEVT& evt) {
                m_vNotes.push_back("event");
                m_vEnded.push_back(evt.nStreamID);
                if (m_onEvent)
                    m_onEvent(evt.nStreamID);
            });
    }

    static void play(CStream& stream, size_t nSamples) { stream.startPlay(clip(noise(nSamples)), 0, nSamples, 1); }

    static size_t positionOf(const CStream& stream) { return stream.state().m_nPlayPosition; }

    CWords m_vNotes;
    std::vector<int> m_vEnded; // ids of streams
    std::function<void(int nStreamID)> m_onEvent;
};
} // namespace

TEST_F(MediaClock, TicksOfRealTimeMoveRealTimeStreamsAndFastTicksTheOthers)
{
    const auto pReal = make(1, true);
    const auto pFast = make(2, false);
    EXPECT_FALSE(m_clock.hasRealTime());
    EXPECT_FALSE(m_clock.hasFast());
    play(*pReal, 1000);
    EXPECT_TRUE(m_clock.hasRealTime());
    EXPECT_FALSE(m_clock.hasFast());
    play(*pFast, 1000);
    EXPECT_TRUE(m_clock.hasFast());
    m_clock.tickRealTime();
    EXPECT_EQ(positionOf(*pReal), 160U);
    EXPECT_EQ(positionOf(*pFast), 0U);
    EXPECT_TRUE(m_clock.tickFast());
    EXPECT_TRUE(m_clock.tickFast());
    EXPECT_EQ(positionOf(*pReal), 160U);
    EXPECT_EQ(positionOf(*pFast), 320U);
    pReal->cancelPlay([] {});
    EXPECT_FALSE(m_clock.hasRealTime());
    EXPECT_TRUE(m_clock.hasFast());
}

TEST_F(MediaClock, ListenersAreCalledAroundTheMovingAndEndsComeAfterwards)
{
    CNotingListener first(m_vNotes, "first");
    CNotingListener second(m_vNotes, "second");
    m_clock.addListener(first);
    m_clock.addListener(second);
    const auto pStream = make(1);
    const auto pOther = make(2);
    play(*pStream, 100);
    play(*pOther, 160);
    m_clock.tickRealTime();
    EXPECT_THAT(m_vNotes, ElementsAre("first before", "second before", "hear 100", "hear 160", "first after",
                                      "second after", "event", "event"));
    m_vNotes.clear();
    EXPECT_FALSE(m_clock.tickFast());
    EXPECT_THAT(m_vNotes, IsEmpty());
}

TEST_F(MediaClock, ServesAChannelThatWantsItAfterTheTick)
{
    CNotingListener listener(m_vNotes, "listener");
    m_clock.addListener(listener);
    auto pChannel = std::make_unique<CNotingChannel>(m_vNotes, true);
    CNotingChannel& channel = *pChannel;
    const auto pStream = openOn(std::move(pChannel), m_executor);
    play(*pStream, 1000);
    m_clock.tickRealTime();
    channel.m_bWantsService = true;
    m_clock.tickRealTime();
    m_clock.tickRealTime();
    EXPECT_THAT(m_vNotes, ElementsAre("listener before", "hear 160", "listener after", "listener before", "hear 160",
                                      "listener after", "service", "listener before", "hear 160", "listener after"));
}

TEST_F(MediaClock, ListenerThatNeedsTicksGetsThemWithoutAStream)
{
    CNotingListener listener(m_vNotes, "listener");
    m_clock.addListener(listener);
    EXPECT_FALSE(m_clock.hasRealTime());
    listener.m_bNeedsTicks = true;
    EXPECT_TRUE(m_clock.hasRealTime());
    m_clock.tickRealTime();
    EXPECT_THAT(m_vNotes, ElementsAre("listener before", "listener after"));
}

TEST_F(MediaClock, FastTickSaysWhetherAnyStreamCouldMove)
{
    EXPECT_FALSE(m_clock.tickFast());
    const auto pClip = std::make_shared<CClip>("clip", 1000);
    const auto pWaiting = make(1, false);
    pWaiting->startPlay(pClip, 0, 1000, 1);
    EXPECT_FALSE(m_clock.tickFast());
    pClip->publish(10);
    EXPECT_TRUE(m_clock.tickFast());
    EXPECT_FALSE(m_clock.tickFast());
    const auto pOther = make(2, false);
    play(*pOther, 1000);
    EXPECT_TRUE(m_clock.tickFast());
    pOther->cancelPlay([] {});
    pClip->end(false);
    EXPECT_TRUE(m_clock.tickFast()) << "an end is a move, too";
}

TEST_F(MediaClock, StreamThatEndsMayEndOthersOfTheSameTick)
{
    std::vector<std::shared_ptr<CStream>> vStreams;
    for (int nID = 1; nID <= 5; ++nID)
    {
        vStreams.push_back(make(nID));
        play(*vStreams.back(), 100);
    }
    m_onEvent = [&](int nStreamID) {
        if (nStreamID == 2)
        {
            vStreams[0].reset();
            vStreams[2].reset();
            vStreams[4].reset();
        }
    };
    m_clock.tickRealTime();
    EXPECT_THAT(m_vEnded, ElementsAre(1, 2, 4));
    EXPECT_FALSE(m_clock.hasRealTime());
    m_clock.tickRealTime();
    EXPECT_THAT(m_vEnded, SizeIs(3));
}

TEST_F(MediaClock, StreamMayEndItselfWhenItsPlayHasEnded)
{
    auto pStream = make(1);
    const std::weak_ptr<CStream> pWatch = pStream;
    play(*pStream, 100);
    m_onEvent = [&](int) { pStream.reset(); };
    m_clock.tickRealTime();
    EXPECT_TRUE(pWatch.expired());
    EXPECT_FALSE(m_clock.hasRealTime());
}

TEST_F(MediaClock, StreamThatIsCancelledByTheEndOfAnotherEndsOnce)
{
    const auto pFirst = make(1);
    const auto pSecond = make(2);
    play(*pFirst, 100);
    play(*pSecond, 100);
    m_onEvent = [&](int nStreamID) {
        if (nStreamID == 1)
            pSecond->cancelPlay([this] { m_vNotes.push_back("cancelled"); });
    };
    m_clock.tickRealTime();
    m_clock.tickRealTime();
    EXPECT_THAT(m_vEnded, ElementsAre(1, 2));
    EXPECT_THAT(m_vNotes, ElementsAre("hear 100", "hear 100", "event", "event", "cancelled"));
}

TEST_F(MediaClock, PlayThatBeginsAtTheEndOfAnotherIsMovedByTheNextTick)
{
    std::vector<std::shared_ptr<CStream>> vStreams = {make(1)};
    play(*vStreams[0], 100);
    // Many at once, so that the lists grow while they are gone through.
    m_onEvent = [&](int nStreamID) {
        for (int nID = 2; nStreamID == 1 && nID <= 200; ++nID)
        {
            vStreams.push_back(make(nID));
            play(*vStreams.back(), 160);
        }
        if (nStreamID == 1)
            play(*vStreams[0], 500);
    };
    m_clock.tickRealTime();
    EXPECT_THAT(m_vEnded, ElementsAre(1));
    EXPECT_EQ(positionOf(*vStreams[0]), 0U);
    m_onEvent = nullptr;
    m_clock.tickRealTime();
    EXPECT_THAT(m_vEnded, SizeIs(200));
    EXPECT_EQ(positionOf(*vStreams[0]), 160U);
}

TEST_F(MediaClock, RecordingOfAStreamGoesOnWhenItsPlayHasEnded)
{
    const auto pStream = make(1);
    play(*pStream, 100);
    record(*pStream, "a.ul", 400);
    m_clock.tickRealTime();
    EXPECT_TRUE(m_clock.hasRealTime());
    m_clock.tickRealTime();
    m_clock.tickRealTime();
    EXPECT_FALSE(m_clock.hasRealTime());
    EXPECT_EQ(readBytes(m_folder.path("a.ul")).size(), 400U);
}

namespace
{
// Random starts, cancels, ends and new streams, beside the same done by simple counting.
class MediaClockMix : public MediaClock, public testing::WithParamInterface<unsigned>
{
protected:
    struct CModel
    {
        std::shared_ptr<CStream> m_pStream;
        bool m_bRealTime = false;
        size_t m_nLeft = 0; // samples; the stream plays while there are any
    };

    void act(CModel& model)
    {
        const auto nAction = m_random() % 8;
        if (nAction == 0)
        {
            const bool bRealTime = m_random() % 2 == 0;
            model = {make(m_nNextID++, bRealTime), bRealTime, 0};
        }
        else if (nAction < 3 && model.m_nLeft > 0)
        {
            model.m_pStream->cancelPlay([] {});
            m_vExpected.push_back(model.m_pStream->id());
            model.m_nLeft = 0;
        }
        else if (nAction < 7 && model.m_nLeft == 0)
        {
            model.m_nLeft = 1 + m_random() % 800;
            play(*model.m_pStream, model.m_nLeft);
        }
    }

    void move(std::vector<CModel>& vModels, bool bRealTime)
    {
        bRealTime ? m_clock.tickRealTime() : static_cast<void>(m_clock.tickFast());
        for (CModel& model : vModels)
        {
            if (model.m_bRealTime == bRealTime && model.m_nLeft > 0)
            {
                model.m_nLeft -= std::min<size_t>(model.m_nLeft, TICK_SAMPLES);
                if (model.m_nLeft == 0)
                    m_vExpected.push_back(model.m_pStream->id());
            }
        }
    }

    std::mt19937 m_random{GetParam()};
    std::vector<int> m_vExpected;
    int m_nNextID = 1;
};
} // namespace

TEST_P(MediaClockMix, MovesExactlyTheStreamsThatPlay)
{
    std::vector<CModel> vModels(40);
    for (CModel& model : vModels)
        model = {make(m_nNextID++), true, 0};
    for (int nStep = 0; nStep < 3000; ++nStep)
    {
        act(vModels[m_random() % vModels.size()]);
        if (m_random() % 4 == 0)
            move(vModels, m_random() % 2 == 0);
        const auto plays = [&](bool bRealTime) {
            return std::any_of(vModels.begin(), vModels.end(), [bRealTime](const CModel& model) {
                return model.m_bRealTime == bRealTime && model.m_nLeft > 0;
            });
        };
        ASSERT_EQ(m_clock.hasRealTime(), plays(true)) << "step " << nStep;
        ASSERT_EQ(m_clock.hasFast(), plays(false)) << "step " << nStep;
        for (const CModel& model : vModels)
        {
            const CStreamState state = model.m_pStream->state();
            ASSERT_EQ(state.m_nPlayEnd - state.m_nPlayPosition, model.m_nLeft) << "step " << nStep;
        }
        ASSERT_THAT(m_vEnded, testing::UnorderedElementsAreArray(m_vExpected)) << "step " << nStep;
        m_vEnded.clear();
        m_vExpected.clear();
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, MediaClockMix, testing::Range(1U, 6U));
