// Rates: per source and over all, and that floods cost no memory.
#include "RateLimiter.h"

#include <gtest/gtest.h>

using std::chrono::seconds;

namespace
{
const CRate s_none = {};
const CTokenBucket::TimePoint s_start(seconds(1000));
} // namespace

TEST(RateLimiter, BurstIsTakenThenTheRateHolds)
{
    CRateLimiter limiter;
    const CRate rate = {1, 3};
    for (int n = 0; n < 3; ++n)
        EXPECT_TRUE(limiter.admits("a", rate, s_none, s_start));
    EXPECT_FALSE(limiter.admits("a", rate, s_none, s_start));
    EXPECT_TRUE(limiter.admits("a", rate, s_none, s_start + seconds(1)));
    EXPECT_FALSE(limiter.admits("a", rate, s_none, s_start + seconds(1)));
}

TEST(RateLimiter, OneSourceDoesNotUseUpWhatIsAnothers)
{
    CRateLimiter limiter;
    const CRate rate = {1, 1};
    EXPECT_TRUE(limiter.admits("a", rate, s_none, s_start));
    EXPECT_FALSE(limiter.admits("a", rate, s_none, s_start));
    EXPECT_TRUE(limiter.admits("b", rate, s_none, s_start));
}

TEST(RateLimiter, AllSourcesTogetherHaveALimit)
{
    CRateLimiter limiter;
    const CRate rate = {1, 2};
    EXPECT_TRUE(limiter.admits("a", s_none, rate, s_start));
    EXPECT_TRUE(limiter.admits("b", s_none, rate, s_start));
    EXPECT_FALSE(limiter.admits("c", s_none, rate, s_start));
}

TEST(RateLimiter, ManySourcesAreStillServed)
{
    CRateLimiter limiter;
    const CRate rate = {1, 1};
    for (int n = 0; n < 20000; ++n)
        EXPECT_TRUE(limiter.admits(std::to_string(n), rate, s_none, s_start));
}
