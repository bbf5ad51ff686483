// The one loop of the process: the SIP stack's, with descriptors and timers of our own.
#ifndef SIP_LOOP_H
#define SIP_LOOP_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>

struct su_root_s;

class CLoop
{
public:
    using Clock = std::chrono::steady_clock;
    using Ready = std::function<void(short nEvents)>;
    using Task = std::function<void()>;

    CLoop(); // throws std::system_error
    ~CLoop();
    CLoop(const CLoop&) = delete;
    CLoop& operator=(const CLoop&) = delete;

    // Calls ready with the poll events that hold, until unwatch.
    void watch(int nDescriptor, short nEvents, Ready ready);
    void change(int nDescriptor, short nEvents);
    // May be called from within ready. To be called before the descriptor is closed.
    void unwatch(int nDescriptor);

    // Timers are on the monotonic clock. Numbers are never used twice, and cancelling one that ran does nothing.
    uint64_t after(std::chrono::milliseconds delay, Task task);
    void cancel(uint64_t ullTimer);
    // Runs the task when the stack is back in the loop.
    void post(Task task);

    void run(); // until stop
    void stop();
    // One turn, for tests.
    void step(std::chrono::milliseconds limit);

    su_root_s* root() const { return m_pRoot; }

private:
    struct CWatch;
    using Timers = std::multimap<std::pair<Clock::time_point, uint64_t>, Task>;

    void runTimers();
    void arm();

    su_root_s* m_pRoot;
    int m_nTimer;
    uint64_t m_ullLastTimer = 0;
    Timers m_timers;
    std::map<uint64_t, Clock::time_point> m_mapDue;
    std::map<int, std::unique_ptr<CWatch>> m_mapWatches;
};

// A timer that ends with its owner.
class CTimer
{
public:
    explicit CTimer(CLoop& loop) : m_loop(loop) {}
    ~CTimer() { stop(); }
    CTimer(const CTimer&) = delete;
    CTimer& operator=(const CTimer&) = delete;

    void start(std::chrono::milliseconds delay, CLoop::Task task)
    {
        stop();
        m_ullTimer = m_loop.after(delay, std::move(task));
    }
    void stop()
    {
        m_loop.cancel(m_ullTimer);
        m_ullTimer = 0;
    }

private:
    CLoop& m_loop;
    uint64_t m_ullTimer = 0;
};

#endif
