// The gate at which the application's threads wait while they are without a driver.
#ifndef GATE_H
#define GATE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

// A thread that learns of the loss says so; each of them then closes its streams and comes here. No
// stream may be opened before all of them are closed: a new driver may give out the same numbers.
class CGate
{
public:
    explicit CGate(int nThreads) : m_nThreads(nThreads) {}

    void lost() { m_bShut = true; }
    bool isShut() const { return m_bShut; }
    bool isOver() const { return m_bOver; }

    // Waits until the gate is opened again.
    void wait()
    {
        std::unique_lock hold(m_mutex);
        ++m_nWaiting;
        m_changed.notify_all();
        m_changed.wait(hold, [this] { return !m_bShut || m_bOver; });
        --m_nWaiting;
        m_changed.notify_all();
    }

    bool waitAllHere(std::chrono::milliseconds limit)
    {
        std::unique_lock hold(m_mutex);
        return m_changed.wait_for(hold, limit, [this] { return m_nWaiting == m_nThreads; });
    }

    // Returns when all have gone through.
    void open(bool bOver = false)
    {
        std::unique_lock hold(m_mutex);
        m_bShut = false;
        m_bOver = bOver;
        m_changed.notify_all();
        m_changed.wait(hold, [this] { return m_nWaiting == 0; });
    }

private:
    const int m_nThreads;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_nWaiting = 0;
    std::atomic<bool> m_bShut{true};
    std::atomic<bool> m_bOver{false};
};

#endif
