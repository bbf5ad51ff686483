// Functions to be called after some time, by a clock that tests can replace.
#include "TimerQueue.h"

#include <algorithm>
#include <utility>
#include <vector>

CClock::TimePoint CSteadyClock::now() const
{
    return std::chrono::steady_clock::now();
}

CTimerQueue::CTimerQueue(const CClock& clock) : m_clock(clock) {}

void CTimerQueue::after(std::chrono::milliseconds delay, Function function)
{
    m_mapFunctionByTime.emplace(m_clock.now() + delay, std::move(function));
}

void CTimerQueue::runDue()
{
    if (m_mapFunctionByTime.empty())
        return;
    const auto itEnd = m_mapFunctionByTime.upper_bound(m_clock.now());
    std::vector<Function> vDue;
    for (auto it = m_mapFunctionByTime.begin(); it != itEnd; ++it)
        vDue.push_back(std::move(it->second));
    m_mapFunctionByTime.erase(m_mapFunctionByTime.begin(), itEnd);
    for (const Function& function : vDue)
        function();
}

std::optional<std::chrono::milliseconds> CTimerQueue::nextDue() const
{
    if (m_mapFunctionByTime.empty())
        return std::nullopt;
    const auto left = m_mapFunctionByTime.begin()->first - m_clock.now();
    return std::max(std::chrono::milliseconds(0), std::chrono::ceil<std::chrono::milliseconds>(left));
}
