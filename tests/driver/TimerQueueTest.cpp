// Functions called after some time, by a clock that stands still until it is told.
#include "TimerQueue.h"

#include <gmock/gmock.h>

#include <memory>
#include <vector>

using std::chrono::microseconds;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{
class CVirtualClock : public CClock
{
public:
    TimePoint Now() const override { return m_now; }

    TimePoint m_now{std::chrono::hours(1)};
};

class TimerQueue : public testing::Test
{
protected:
    void AddAfter(int nMs, int nMark)
    {
        m_queue.After(milliseconds(nMs), [this, nMark] { m_vMarks.push_back(nMark); });
    }
    void Pass(microseconds time)
    {
        m_clock.m_now += time;
        m_queue.RunDue();
    }

    CVirtualClock m_clock;
    CTimerQueue m_queue{m_clock};
    std::vector<int> m_vMarks;
};
} // namespace

TEST_F(TimerQueue, CallsAFunctionOnceAndNotBeforeItsTime)
{
    AddAfter(5, 1);
    Pass(microseconds(4999));
    EXPECT_THAT(m_vMarks, IsEmpty());
    Pass(microseconds(1));
    EXPECT_THAT(m_vMarks, ElementsAre(1));
    Pass(milliseconds(100));
    EXPECT_THAT(m_vMarks, ElementsAre(1));
}

TEST_F(TimerQueue, CallsInTheOrderOfTheDueTimesAndThenOfTheirAdding)
{
    AddAfter(20, 4);
    AddAfter(10, 2);
    AddAfter(10, 3);
    AddAfter(0, 1);
    AddAfter(30, 5);
    Pass(milliseconds(25));
    EXPECT_THAT(m_vMarks, ElementsAre(1, 2, 3, 4));
}

TEST_F(TimerQueue, LeavesWhatAFunctionAddsToTheNextRun)
{
    m_queue.After(milliseconds(1), [this] {
        m_vMarks.push_back(1);
        AddAfter(0, 2);
    });
    Pass(milliseconds(1));
    EXPECT_THAT(m_vMarks, ElementsAre(1));
    EXPECT_EQ(m_queue.NextDue(), milliseconds(0));
    Pass(milliseconds(0));
    EXPECT_THAT(m_vMarks, ElementsAre(1, 2));
}

TEST_F(TimerQueue, SaysHowLongToWaitRoundedUp)
{
    EXPECT_EQ(m_queue.NextDue(), std::nullopt);
    AddAfter(50, 1);
    AddAfter(10, 2);
    EXPECT_EQ(m_queue.NextDue(), milliseconds(10));
    Pass(microseconds(9001));
    EXPECT_EQ(m_queue.NextDue(), milliseconds(1));
    m_clock.m_now += milliseconds(500);
    EXPECT_EQ(m_queue.NextDue(), milliseconds(0));
    m_queue.RunDue();
    EXPECT_EQ(m_queue.NextDue(), std::nullopt);
}

TEST_F(TimerQueue, ForgetsWhatIsNotDueAtItsEnd)
{
    const auto pHeld = std::make_shared<int>(0);
    {
        CTimerQueue queue(m_clock);
        queue.After(milliseconds(1), [this, pHeld] { m_vMarks.push_back(1); });
        EXPECT_EQ(pHeld.use_count(), 2);
    }
    EXPECT_EQ(pHeld.use_count(), 1);
    EXPECT_THAT(m_vMarks, IsEmpty());
}

TEST(SteadyClock, NeverGoesBack)
{
    const CSteadyClock clock;
    const CClock::TimePoint before = clock.Now();
    EXPECT_LE(before, clock.Now());
    EXPECT_GT(before.time_since_epoch().count(), 0);
}
