// Token buckets: one for all, and one for each source.
#ifndef SIP_RATE_LIMITER_H
#define SIP_RATE_LIMITER_H

#include "Policy.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <string>

class CTokenBucket
{
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    bool take(const CRate& rate, TimePoint now)
    {
        if (rate.m_dPerSecond <= 0)
            return true;
        const double dBurst = std::max(rate.m_dBurst, 1.0);
        const double dSeconds = std::chrono::duration<double>(now - m_last).count();
        m_dTokens = m_bUsed ? std::min(dBurst, m_dTokens + dSeconds * rate.m_dPerSecond) : dBurst;
        m_bUsed = true;
        m_last = now;
        if (m_dTokens < 1)
            return false;
        m_dTokens -= 1;
        return true;
    }
    TimePoint last() const { return m_last; }

private:
    TimePoint m_last;
    double m_dTokens = 0;
    bool m_bUsed = false;
};

class CRateLimiter
{
public:
    using TimePoint = CTokenBucket::TimePoint;

    // Whether one more request of the source is within the limits.
    bool admits(const std::string& strSource, const CRate& sourceRate, const CRate& rate, TimePoint now)
    {
        // A flood from many addresses must not cost memory: then all share what is for all.
        if (m_mapSources.size() >= s_nMaxSources)
            std::erase_if(m_mapSources,
                          [now](const auto& entry) { return now - entry.second.last() > std::chrono::seconds(10); });
        if (m_mapSources.size() < s_nMaxSources || m_mapSources.contains(strSource))
            if (!m_mapSources[strSource].take(sourceRate, now))
                return false;
        return m_all.take(rate, now);
    }

private:
    static constexpr size_t s_nMaxSources = 10000;

    CTokenBucket m_all;
    std::map<std::string, CTokenBucket> m_mapSources;
};

#endif
