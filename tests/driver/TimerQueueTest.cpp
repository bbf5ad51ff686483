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
    TimePoint now() const override { return m_now; }

    TimePoint m_now{std::chrono::hours(1)};
};

class TimerQueue : public testing::Test
{
protected:
    void addAfter(int nMs, int nMark)
    {
        m_queue.after(
            milliseconds(nMs), [this, nMark] { m_vMarks.push_back(nMark); });
    }
    void pass(microseconds time)
    {
        m_clock.m_now += time;
        m_queue.runDue();
    }

    CVirtualClock m_clock;
    CTimerQueue m_queue{m_clock};
    std::vector<int> m_vMarks;
};
} // namespace

TEST_F(TimerQueue, CallsAFunctionOnceAndNotBeforeItsTime)
{
    addAfter(5, 1);
    pass(microseconds(4999));
    EXPECT_THAT(m_vMarks, IsEmpty());
    pass(microseconds(1));
    EXPECT_THAT(m_vMarks, ElementsAre(1));
    pass(milliseconds(100));
    EXPECT_THAT(m_vMarks, ElementsAre(1));
}

TEST_F(TimerQueue, CallsInTheOrderOfTheDueTimesAndThenOfTheirAdding)
{
    addAfter(20, 4);
    addAfter(10, 2);
    addAfter(10, 3);
    addAfter(0, 1);
    addAfter(30, 5);
    pass(milliseconds(25));
    EXPECT_THAT(m_vMarks, ElementsAre(1, 2, 3, 4));
}

TEST_F(TimerQueue, LeavesWhatAFunctionAddsToTheNextRun)
{
    m_queue.after(milliseconds(1), [this] {
        m_vMarks.push_back(1);
        addAfter(0, 2);
    });
    pass(milliseconds(1));
    EXPECT_THAT(m_vMarks, ElementsAre(1));
    EXPECT_EQ(m_queue.nextDue(), milliseconds(0));
    pass(milliseconds(0));
    EXPECT_THAT(m_vMarks, ElementsAre(1, 2));
}

TEST_F(TimerQueue, SaysHowLongToWaitRoundedUp)
{
    EXPECT_EQ(m_queue.nextDue(), std::nullopt);
    addAfter(50, 1);
    addAfter(10, 2);
    EXPECT_EQ(m_queue.nextDue(), milliseconds(10));
    pass(microseconds(9001));
    EXPECT_EQ(m_queue.nextDue(), milliseconds(1));
    m_clock.m_now += milliseconds(500);
    EXPECT_EQ(m_queue.nextDue(), milliseconds(0));
    m_queue.runDue();
    EXPECT_EQ(m_queue.nextDue(), std::nullopt);
}

TEST_F(TimerQueue, ForgetsWhatIsNotDueAtItsEnd)
{
    const auto pHeld = std::make_shared<int>(0);
    {
        CTimerQueue queue(m_clock);
        queue.after(milliseconds(1), [this, pHeld] { m_vMarks.push_back(1); });
        EXPECT_EQ(pHeld.use_count(), 2);
    }
    EXPECT_EQ(pHeld.use_count(), 1);
    EXPECT_THAT(m_vMarks, IsEmpty());
}

TEST(SteadyClock, NeverGoesBack)
{
    const CSteadyClock clock;
    const CClock::TimePoint before = clock.now();
    EXPECT_LE(before, clock.now());
    EXPECT_GT(before.time_since_epoch().count(), 0);
}
