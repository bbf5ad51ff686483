// The limit on warnings: how many get through, when more do, and what is said of the rest.
#include "LogLimiter.h"
#include "DriverTestSupport.h"

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::Not;

namespace
{
class LogLimiter : public testing::Test
{
protected:
    void warn(int nTimes)
    {
        for (int n = 0; n < nTimes; ++n)
            m_limiter.warn("bad {}", "input");
    }
    void pass(std::chrono::milliseconds time) { m_now += time; }
    size_t lines(const std::string& strPart) const
    {
        size_t nCount = 0;
        const std::string strText = m_log.text();
        for (size_t n = strText.find(strPart); n != std::string::npos; n = strText.find(strPart, n + 1))
            ++nCount;
        return nCount;
    }

    CLogCapture m_log;
    std::chrono::steady_clock::time_point m_now;
    CLogLimiter m_limiter{"bad input", [this] { return m_now; }};
};
} // namespace

TEST_F(LogLimiter, LetsABurstThroughWhole)
{
    warn(100);
    EXPECT_EQ(lines("warning: bad input\n"), 100U);
    EXPECT_THAT(m_log.text(), Not(HasSubstr("left out")));
}

TEST_F(LogLimiter, LetsTenPerSecondThroughAfterTheBurst)
{
    warn(150);
    EXPECT_EQ(lines("bad input\n"), 100U);
    for (int nSecond = 1; nSecond <= 5; ++nSecond)
    {
        for (int nStep = 0; nStep < 50; ++nStep)
        {
            pass(std::chrono::milliseconds(20));
            warn(3);
        }
        EXPECT_EQ(lines("warning: bad input\n"), 100U + 10U * static_cast<size_t>(nSecond));
    }
}

TEST_F(LogLimiter, AllowsNoMoreThanABurstAfterALongRest)
{
    warn(100);
    pass(std::chrono::hours(1));
    warn(200);
    EXPECT_EQ(lines("warning: bad input\n"), 200U);
}

TEST_F(LogLimiter, SaysOnceHowManyWereLeftOutWhenItIsQuietAgain)
{
    warn(123);
    m_limiter.reportLeftOut();
    pass(std::chrono::milliseconds(999));
    m_limiter.reportLeftOut();
    EXPECT_THAT(m_log.text(), Not(HasSubstr("left out")));
    pass(std::chrono::milliseconds(1));
    m_limiter.reportLeftOut();
    m_limiter.reportLeftOut();
    EXPECT_EQ(lines("warning: left out 23 warnings about bad input\n"), 1U);
}

TEST_F(LogLimiter, SaysHowManyWereLeftOutBeforeTheNextWarning)
{
    warn(105);
    pass(std::chrono::seconds(2));
    warn(1);
    EXPECT_THAT(m_log.text(), testing::EndsWith("warning: left out 5 warnings about bad input\n"
                                                "warning: bad input\n"));
}

TEST_F(LogLimiter, SaysNothingWhenNothingWasLeftOut)
{
    pass(std::chrono::seconds(5));
    m_limiter.reportLeftOut();
    EXPECT_EQ(m_log.text(), "");
}
