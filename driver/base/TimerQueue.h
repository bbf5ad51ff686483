// Functions to be called after some time, by a clock that tests can replace.
#ifndef DRIVER_TIMER_QUEUE_H
#define DRIVER_TIMER_QUEUE_H

#include <chrono>
#include <functional>
#include <map>
#include <optional>

class CClock
{
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    virtual ~CClock() = default;

    virtual TimePoint now() const = 0; // never goes back
};

class CSteadyClock : public CClock
{
public:
    TimePoint now() const override;
};

// Not thread-safe: everything happens on the loop's thread.
class CTimerQueue
{
public:
    using Function = std::function<void()>;

    // The clock must outlive the queue.
    explicit CTimerQueue(const CClock& clock);

    // Has runDue call the function once, not before the delay has passed. What is not due when the
    // queue ends is never called.
    void after(std::chrono::milliseconds delay, Function function);

    // Calls what is due in the order of the due times, for equal times in the order of after. What the
    // functions add waits for the next runDue, even if it is due at once.
    void runDue();

    // The time until the next function is due, rounded up: a wait that long is never too short.
    // Nothing when none waits.
    std::optional<std::chrono::milliseconds> nextDue() const;

private:
    const CClock& m_clock;
    std::multimap<CClock::TimePoint, Function> m_mapFunctionByTime;
};

#endif
