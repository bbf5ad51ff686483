// A thread that does one piece of work after the other, and is left behind when one does not end.
#include "Worker.h"

#include "Mutex.h"

#include <pthread.h>

#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <list>
#include <system_error>
#include <thread>

namespace
{
// The system takes no longer names of threads.
constexpr size_t MAX_NAME = 15;
} // namespace

// Shared with the thread, which may outlive the worker.
struct CWorker::CState
{
    static void run(const std::shared_ptr<CState>& pState);
    bool take(std::list<Function>& work); // waits; false at the end
    void done();

    std::thread m_thread;
    mutable CMutex m_mutex;
    std::condition_variable_any m_wake; // there is work, or the end
    std::condition_variable_any m_idle; // a piece of work is done, or the thread has ended
    std::list<Function> m_queue GUARDED_BY(m_mutex);
    size_t m_nWaiting GUARDED_BY(m_mutex) = 0;
    uint64_t m_ullDone GUARDED_BY(m_mutex) = 0;
    bool m_bStop GUARDED_BY(m_mutex) = false;
};

void CWorker::CState::run(const std::shared_ptr<CState>& pState)
{
    std::list<Function> work;
    while (pState->take(work))
    {
        work.front()();
        work.clear();
        pState->done();
    }
}

bool CWorker::CState::take(std::list<Function>& work)
{
    const CMutexHold hold(m_mutex);
    while (m_queue.empty())
    {
        if (m_bStop)
            return false;
        m_wake.wait(m_mutex);
    }
    work.splice(work.begin(), m_queue, m_queue.begin());
    return true;
}

void CWorker::CState::done()
{
    {
        const CMutexHold hold(m_mutex);
        --m_nWaiting;
        ++m_ullDone;
    }
    m_idle.notify_all();
}

CWorker::CWorker(std::chrono::milliseconds patience) : m_patience(patience), m_pState(std::make_shared<CState>()) {}

CWorker::~CWorker()
{
    if (!m_pState->m_thread.joinable())
        return;
    {
        const CMutexHold hold(m_pState->m_mutex);
        m_pState->m_bStop = true;
    }
    m_pState->m_wake.notify_one();
    finish() ? m_pState->m_thread.join() : m_pState->m_thread.detach();
}

bool CWorker::start(const std::string& strName, std::string& strError)
{
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &former);
    try
    {
        m_pState->m_thread = std::thread(&CState::run, m_pState);
        ::pthread_setname_np(m_pState->m_thread.native_handle(), strName.substr(0, MAX_NAME).c_str());
    }
    catch (const std::system_error& error)
    {
        strError = std::string("cannot start a worker: ") + error.what();
    }
    ::pthread_sigmask(SIG_SETMASK, &former, nullptr);
    return m_pState->m_thread.joinable();
}

void CWorker::post(Function work)
{
    std::list<Function> one;
    one.push_back(std::move(work));
    {
        const CMutexHold hold(m_pState->m_mutex);
        m_pState->m_queue.splice(m_pState->m_queue.end(), one);
        ++m_pState->m_nWaiting;
    }
    m_pState->m_wake.notify_one();
}

size_t CWorker::waiting() const
{
    const CMutexHold hold(m_pState->m_mutex);
    return m_pState->m_nWaiting;
}

bool CWorker::finish()
{
    const CMutexHold hold(m_pState->m_mutex);
    while (m_pState->m_nWaiting > 0)
    {
        const uint64_t ullDone = m_pState->m_ullDone;
        const auto end = std::chrono::steady_clock::now() + (m_bGivenUp ? m_patience.zero() : m_patience);
        while (m_pState->m_ullDone == ullDone)
            if (m_pState->m_idle.wait_until(m_pState->m_mutex, end) == std::cv_status::timeout &&
                m_pState->m_ullDone == ullDone)
            {
                m_bGivenUp = true;
                return false;
            }
    }
    return true;
}
