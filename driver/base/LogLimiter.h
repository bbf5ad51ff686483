// Keeps others from filling the log: lets through so many warnings of a kind, and counts the rest.
#ifndef DRIVER_LOG_LIMITER_H
#define DRIVER_LOG_LIMITER_H

#include <spdlog/spdlog.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

// For warnings that bad input causes: 100 at once, and 10 more per second in the long run. How many were
// left out is said in one line, once a second has passed in which none was left out. Not thread-safe.
class CLogLimiter
{
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    static constexpr int64_t BURST = 100;
    static constexpr int64_t PER_SECOND = 10;

    // strSubject completes "left out 5 warnings about ...".
    explicit CLogLimiter(std::string strSubject, Clock clock = &std::chrono::steady_clock::now);

    template <class... TArguments> void warn(spdlog::format_string_t<TArguments...> format, TArguments&&... arguments)
    {
        if (mayLog())
            spdlog::warn(format, std::forward<TArguments>(arguments)...);
    }

    // Says how many warnings were left out, if it is time to. Call it about once a second; it happens
    // by itself when the next warning comes.
    void reportLeftOut();

private:
    using Time = std::chrono::steady_clock::time_point;

    bool mayLog();
    void reportLeftOut(Time now);

    const std::string m_strSubject;
    const Clock m_clock;
    Time m_refilled; // the tokens are those of this time
    Time m_leftOut;  // when a warning was last left out
    int64_t m_nTokens = BURST;
    uint64_t m_ullLeftOut = 0;
};

#endif
