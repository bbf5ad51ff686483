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

    bool IsRealTime() const override { return m_bRealTime; }

    std::size_t Hear(std::span<const std::uint8_t> samples) override
    {
        m_vNotes.push_back("hear " + std::to_string(samples.size()));
        return samples.size();
    }

    bool WantsService() const override { return m_bWantsService; }

    void Service() override
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

    bool NeedsTicks() const override { return m_bNeedsTicks; }
    void BeforeTick() override { m_vNotes.push_back(m_strName + " before"); }
    void AfterTick() override { m_vNotes.push_back(m_strName + " after"); }

    bool m_bNeedsTicks = false;

private:
    CWords& m_vNotes;
    const std::string m_strName;
};

class MediaClock : public CStreamFixture
{
protected:
    std::shared_ptr<CStream> Make(int nID, bool bRealTime = true)
    {
        return std::make_shared<CStream>(nID, "call", 1, std::make_unique<CNotingChannel>(m_vNotes, bRealTime), m_clock,
                                         m_executor, [this](bool, const structMIEVT& evt) {
                                             m_vNotes.push_back("event");
                                             m_vEnded.push_back(evt.nStreamID);
                                             if (m_onEvent)
                                             {
                                                 m_onEvent(evt.nStreamID);
                                             }
                                         });
    }

    static void Play(CStream& stream, std::size_t nSamples) { stream.StartPlay(Clip(Noise(nSamples)), 0, nSamples, 1); }

    static std::size_t PositionOf(const CStream& stream) { return stream.State().m_nPlayPosition; }

    CWords m_vNotes;
    std::vector<int> m_vEnded; // ids of streams
    std::function<void(int nStreamID)> m_onEvent;
};
} // namespace

TEST_F(MediaClock, TicksOfRealTimeMoveRealTimeStreamsAndFastTicksTheOthers)
{
    const auto pReal = Make(1, true);
    const auto pFast = Make(2, false);
    EXPECT_FALSE(m_clock.HasRealTime());
    EXPECT_FALSE(m_clock.HasFast());
    Play(*pReal, 1000);
    EXPECT_TRUE(m_clock.HasRealTime());
    EXPECT_FALSE(m_clock.HasFast());
    Play(*pFast, 1000);
    EXPECT_TRUE(m_clock.HasFast());
    m_clock.TickRealTime();
    EXPECT_EQ(PositionOf(*pReal), 160U);
    EXPECT_EQ(PositionOf(*pFast), 0U);
    EXPECT_TRUE(m_clock.TickFast());
    EXPECT_TRUE(m_clock.TickFast());
    EXPECT_EQ(PositionOf(*pReal), 160U);
    EXPECT_EQ(PositionOf(*pFast), 320U);
    pReal->CancelPlay([] {});
    EXPECT_FALSE(m_clock.HasRealTime());
    EXPECT_TRUE(m_clock.HasFast());
}

TEST_F(MediaClock, ListenersAreCalledAroundTheMovingAndEndsComeAfterwards)
{
    CNotingListener first(m_vNotes, "first");
    CNotingListener second(m_vNotes, "second");
    m_clock.AddListener(first);
    m_clock.AddListener(second);
    const auto pStream = Make(1);
    const auto pOther = Make(2);
    Play(*pStream, 100);
    Play(*pOther, 160);
    m_clock.TickRealTime();
    EXPECT_THAT(m_vNotes, ElementsAre("first before", "second before", "hear 100", "hear 160", "first after",
                                      "second after", "event", "event"));
    m_vNotes.clear();
    EXPECT_FALSE(m_clock.TickFast());
    EXPECT_THAT(m_vNotes, IsEmpty());
}

TEST_F(MediaClock, ServesAChannelThatWantsItAfterTheTick)
{
    CNotingListener listener(m_vNotes, "listener");
    m_clock.AddListener(listener);
    auto pChannel = std::make_unique<CNotingChannel>(m_vNotes, true);
    CNotingChannel& channel = *pChannel;
    const auto pStream = OpenOn(std::move(pChannel), m_executor);
    Play(*pStream, 1000);
    m_clock.TickRealTime();
    channel.m_bWantsService = true;
    m_clock.TickRealTime();
    m_clock.TickRealTime();
    EXPECT_THAT(m_vNotes, ElementsAre("listener before", "hear 160", "listener after", "listener before", "hear 160",
                                      "listener after", "service", "listener before", "hear 160", "listener after"));
}

TEST_F(MediaClock, ListenerThatNeedsTicksGetsThemWithoutAStream)
{
    CNotingListener listener(m_vNotes, "listener");
    m_clock.AddListener(listener);
    EXPECT_FALSE(m_clock.HasRealTime());
    listener.m_bNeedsTicks = true;
    EXPECT_TRUE(m_clock.HasRealTime());
    m_clock.TickRealTime();
    EXPECT_THAT(m_vNotes, ElementsAre("listener before", "listener after"));
}

TEST_F(MediaClock, FastTickSaysWhetherAnyStreamCouldMove)
{
    EXPECT_FALSE(m_clock.TickFast());
    const auto pClip = std::make_shared<CClip>("clip", 1000);
    const auto pWaiting = Make(1, false);
    pWaiting->StartPlay(pClip, 0, 1000, 1);
    EXPECT_FALSE(m_clock.TickFast());
    pClip->Publish(10);
    EXPECT_TRUE(m_clock.TickFast());
    EXPECT_FALSE(m_clock.TickFast());
    const auto pOther = Make(2, false);
    Play(*pOther, 1000);
    EXPECT_TRUE(m_clock.TickFast());
    pOther->CancelPlay([] {});
    pClip->End(false);
    EXPECT_TRUE(m_clock.TickFast()) << "an end is a move, too";
}

TEST_F(MediaClock, StreamThatEndsMayEndOthersOfTheSameTick)
{
    std::vector<std::shared_ptr<CStream>> vStreams;
    for (int nID = 1; nID <= 5; ++nID)
    {
        vStreams.push_back(Make(nID));
        Play(*vStreams.back(), 100);
    }
    m_onEvent = [&](int nStreamID) {
        if (nStreamID == 2)
        {
            vStreams[0].reset();
            vStreams[2].reset();
            vStreams[4].reset();
        }
    };
    m_clock.TickRealTime();
    EXPECT_THAT(m_vEnded, ElementsAre(1, 2, 4));
    EXPECT_FALSE(m_clock.HasRealTime());
    m_clock.TickRealTime();
    EXPECT_THAT(m_vEnded, SizeIs(3));
}

TEST_F(MediaClock, StreamMayEndItselfWhenItsPlayHasEnded)
{
    auto pStream = Make(1);
    const std::weak_ptr<CStream> pWatch = pStream;
    Play(*pStream, 100);
    m_onEvent = [&](int) { pStream.reset(); };
    m_clock.TickRealTime();
    EXPECT_TRUE(pWatch.expired());
    EXPECT_FALSE(m_clock.HasRealTime());
}

TEST_F(MediaClock, StreamThatIsCancelledByTheEndOfAnotherEndsOnce)
{
    const auto pFirst = Make(1);
    const auto pSecond = Make(2);
    Play(*pFirst, 100);
    Play(*pSecond, 100);
    m_onEvent = [&](int nStreamID) {
        if (nStreamID == 1)
        {
            pSecond->CancelPlay([this] { m_vNotes.push_back("cancelled"); });
        }
    };
    m_clock.TickRealTime();
    m_clock.TickRealTime();
    EXPECT_THAT(m_vEnded, ElementsAre(1, 2));
    EXPECT_THAT(m_vNotes, ElementsAre("hear 100", "hear 100", "event", "event", "cancelled"));
}

TEST_F(MediaClock, PlayThatBeginsAtTheEndOfAnotherIsMovedByTheNextTick)
{
    std::vector<std::shared_ptr<CStream>> vStreams = {Make(1)};
    Play(*vStreams[0], 100);
    // Many at once, so that the lists grow while they are gone through.
    m_onEvent = [&](int nStreamID) {
        for (int nID = 2; nStreamID == 1 && nID <= 200; ++nID)
        {
            vStreams.push_back(Make(nID));
            Play(*vStreams.back(), 160);
        }
        if (nStreamID == 1)
        {
            Play(*vStreams[0], 500);
        }
    };
    m_clock.TickRealTime();
    EXPECT_THAT(m_vEnded, ElementsAre(1));
    EXPECT_EQ(PositionOf(*vStreams[0]), 0U);
    m_onEvent = nullptr;
    m_clock.TickRealTime();
    EXPECT_THAT(m_vEnded, SizeIs(200));
    EXPECT_EQ(PositionOf(*vStreams[0]), 160U);
}

TEST_F(MediaClock, RecordingOfAStreamGoesOnWhenItsPlayHasEnded)
{
    const auto pStream = Make(1);
    Play(*pStream, 100);
    Record(*pStream, "a.ul", 400);
    m_clock.TickRealTime();
    EXPECT_TRUE(m_clock.HasRealTime());
    m_clock.TickRealTime();
    m_clock.TickRealTime();
    EXPECT_FALSE(m_clock.HasRealTime());
    EXPECT_EQ(ReadBytes(m_folder.Path("a.ul")).size(), 400U);
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
        std::size_t m_nLeft = 0; // samples; the stream plays while there are any
    };

    void Act(CModel& model)
    {
        const auto nAction = m_random() % 8;
        if (nAction == 0)
        {
            const bool bRealTime = m_random() % 2 == 0;
            model = {Make(m_nNextID++, bRealTime), bRealTime, 0};
        }
        else if (nAction < 3 && model.m_nLeft > 0)
        {
            model.m_pStream->CancelPlay([] {});
            m_vExpected.push_back(model.m_pStream->ID());
            model.m_nLeft = 0;
        }
        else if (nAction < 7 && model.m_nLeft == 0)
        {
            model.m_nLeft = 1 + m_random() % 800;
            Play(*model.m_pStream, model.m_nLeft);
        }
    }

    void Move(std::vector<CModel>& vModels, bool bRealTime)
    {
        bRealTime ? m_clock.TickRealTime() : static_cast<void>(m_clock.TickFast());
        for (CModel& model : vModels)
        {
            if (model.m_bRealTime == bRealTime && model.m_nLeft > 0)
            {
                model.m_nLeft -= std::min<std::size_t>(model.m_nLeft, TICK_SAMPLES);
                if (model.m_nLeft == 0)
                {
                    m_vExpected.push_back(model.m_pStream->ID());
                }
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
    {
        model = {Make(m_nNextID++), true, 0};
    }
    for (int nStep = 0; nStep < 3000; ++nStep)
    {
        Act(vModels[m_random() % vModels.size()]);
        if (m_random() % 4 == 0)
        {
            Move(vModels, m_random() % 2 == 0);
        }
        const auto plays = [&](bool bRealTime) {
            return std::any_of(vModels.begin(), vModels.end(), [bRealTime](const CModel& model) {
                return model.m_bRealTime == bRealTime && model.m_nLeft > 0;
            });
        };
        ASSERT_EQ(m_clock.HasRealTime(), plays(true)) << "step " << nStep;
        ASSERT_EQ(m_clock.HasFast(), plays(false)) << "step " << nStep;
        for (const CModel& model : vModels)
        {
            const CStreamState state = model.m_pStream->State();
            ASSERT_EQ(state.m_nPlayEnd - state.m_nPlayPosition, model.m_nLeft) << "step " << nStep;
        }
        ASSERT_THAT(m_vEnded, testing::UnorderedElementsAreArray(m_vExpected)) << "step " << nStep;
        m_vEnded.clear();
        m_vExpected.clear();
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, MediaClockMix, testing::Range(1U, 6U));
