// Keeps others from filling the log: lets through so many warnings of a kind, and counts the rest.
#include "LogLimiter.h"

#include <algorithm>

namespace
{
constexpr std::chrono::milliseconds TOKEN_TIME(1000 / CLogLimiter::PER_SECOND);
constexpr std::chrono::seconds QUIET_TIME(1);
} // namespace

CLogLimiter::CLogLimiter(std::string strSubject, Clock clock)
    : m_strSubject(std::move(strSubject)), m_clock(std::move(clock)), m_refilled(m_clock())
{
}

bool CLogLimiter::mayLog()
{
    const Time now = m_clock();
    reportLeftOut(now);
    const int64_t nTokens = (now - m_refilled) / TOKEN_TIME;
    m_refilled += nTokens * TOKEN_TIME;
    m_nTokens = std::min(BURST, m_nTokens + nTokens);
    if (m_nTokens > 0)
    {
        --m_nTokens;
        return true;
    }
    ++m_ullLeftOut;
    m_leftOut = now;
    return false;
}

void CLogLimiter::reportLeftOut()
{
    reportLeftOut(m_clock());
}

void CLogLimiter::reportLeftOut(Time now)
{
    if (m_ullLeftOut > 0 && now - m_leftOut >= QUIET_TIME)
        spdlog::warn("left out {} warnings about {}", std::exchange(m_ullLeftOut, 0), m_strSubject);
}
