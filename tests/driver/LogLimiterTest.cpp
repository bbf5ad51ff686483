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
    void Warn(int nTimes)
    {
        for (int n = 0; n < nTimes; ++n)
        {
            m_limiter.Warn("bad {}", "input");
        }
    }
    void Pass(std::chrono::milliseconds time) { m_now += time; }
    std::size_t Lines(const std::string& strPart) const
    {
        std::size_t nCount = 0;
        const std::string strText = m_log.Text();
        for (std::size_t n = strText.find(strPart); n != std::string::npos; n = strText.find(strPart, n + 1))
        {
            ++nCount;
        }
        return nCount;
    }

    CLogCapture m_log;
    std::chrono::steady_clock::time_point m_now;
    CLogLimiter m_limiter{"bad input", [this] { return m_now; }};
};
} // namespace

TEST_F(LogLimiter, LetsABurstThroughWhole)
{
    Warn(100);
    EXPECT_EQ(Lines("warning: bad input\n"), 100U);
    EXPECT_THAT(m_log.Text(), Not(HasSubstr("left out")));
}

TEST_F(LogLimiter, LetsTenPerSecondThroughAfterTheBurst)
{
    Warn(150);
    EXPECT_EQ(Lines("bad input\n"), 100U);
    for (int nSecond = 1; nSecond <= 5; ++nSecond)
    {
        for (int nStep = 0; nStep < 50; ++nStep)
        {
            Pass(std::chrono::milliseconds(20));
            Warn(3);
        }
        EXPECT_EQ(Lines("warning: bad input\n"), 100U + 10U * static_cast<std::size_t>(nSecond));
    }
}

TEST_F(LogLimiter, AllowsNoMoreThanABurstAfterALongRest)
{
    Warn(100);
    Pass(std::chrono::hours(1));
    Warn(200);
    EXPECT_EQ(Lines("warning: bad input\n"), 200U);
}

TEST_F(LogLimiter, SaysOnceHowManyWereLeftOutWhenItIsQuietAgain)
{
    Warn(123);
    m_limiter.ReportLeftOut();
    Pass(std::chrono::milliseconds(999));
    m_limiter.ReportLeftOut();
    EXPECT_THAT(m_log.Text(), Not(HasSubstr("left out")));
    Pass(std::chrono::milliseconds(1));
    m_limiter.ReportLeftOut();
    m_limiter.ReportLeftOut();
    EXPECT_EQ(Lines("warning: left out 23 warnings about bad input\n"), 1U);
}

TEST_F(LogLimiter, SaysHowManyWereLeftOutBeforeTheNextWarning)
{
    Warn(105);
    Pass(std::chrono::seconds(2));
    Warn(1);
    EXPECT_THAT(m_log.Text(), testing::EndsWith("warning: left out 5 warnings about bad input\n"
                                                "warning: bad input\n"));
}

TEST_F(LogLimiter, SaysNothingWhenNothingWasLeftOut)
{
    Pass(std::chrono::seconds(5));
    m_limiter.ReportLeftOut();
    EXPECT_EQ(m_log.Text(), "");
}
