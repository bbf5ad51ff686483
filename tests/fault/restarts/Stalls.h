// When the machine let a thread wait that wanted to run: time that a limit has to be stretched by.
#ifndef STALLS_H
#define STALLS_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

class CStalls
{
public:
    using CClock = std::chrono::steady_clock;

    ~CStalls()
    {
        m_bStop = true;
        m_thread.join();
    }

    // How much of this time was stalled.
    std::chrono::milliseconds within(CClock::time_point from, CClock::time_point to) const
    {
        std::lock_guard hold(m_mutex);
        CClock::duration stalled{0};
        for (const CStall& stall : m_vStalls)
            stalled += std::max(CClock::duration(0), std::min(stall.end, to) - std::max(stall.begin, from));
        return std::chrono::duration_cast<std::chrono::milliseconds>(stalled);
    }

private:
    struct CStall
    {
        CClock::time_point begin;
        CClock::time_point end;
    };

    void run()
    {
        const std::chrono::milliseconds STEP(10);
        const std::chrono::milliseconds LATE(20);
        while (!m_bStop)
        {
            const CClock::time_point due = CClock::now() + STEP;
            std::this_thread::sleep_until(due);
            const CClock::time_point now = CClock::now();
            if (now - due < LATE)
                continue;
            std::lock_guard hold(m_mutex);
            m_vStalls.push_back({due, now});
        }
    }

    std::atomic<bool> m_bStop{false};
    mutable std::mutex m_mutex;
    std::vector<CStall> m_vStalls;
    std::thread m_thread{[this] { run(); }};
};

#endif
