// Work that may block, done beside the loop.
#include "Executor.h"

#include "Text.h"

#include <pthread.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>
#include <utility>

void CInlineExecutor::post(Function work, Function done)
{
    m_queue.push_back(std::move(work));
    m_queue.push_back(std::move(done));
    if (m_bRunning)
        return;
    m_bRunning = true;
    while (!m_queue.empty())
    {
        const Function function = std::move(m_queue.front());
        m_queue.pop_front();
        function();
    }
    m_bRunning = false;
}

CThreadExecutor::~CThreadExecutor()
{
    if (m_thread.joinable())
    {
        {
            const CMutexHold hold(m_mutex);
            m_bStop = true;
        }
        m_wake.notify_one();
        m_thread.join();
    }
}

bool CThreadExecutor::start(const char* pThreadName, std::string& strError)
{
    m_fdDone = CFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!m_fdDone.isOpen())
    {
        strError = "cannot set up a worker: " + errnoText(errno);
        return false;
    }
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &former);
    try
    {
        m_thread = std::thread(&CThreadExecutor::run, this);
        ::pthread_setname_np(m_thread.native_handle(), pThreadName);
    }
    catch (const std::system_error& error)
    {
        strError = std::string("cannot start a worker: ") + error.what();
    }
    ::pthread_sigmask(SIG_SETMASK, &former, nullptr);
    return m_thread.joinable();
}

void CThreadExecutor::post(Function work, Function done)
{
    {
        const CMutexHold hold(m_mutex);
        m_queue.push_back({std::move(work), std::move(done)});
    }
    m_wake.notify_one();
}

int CThreadExecutor::fd() const
{
    return m_fdDone.get();
}

void CThreadExecutor::runDone()
{
    uint64_t ullCount = 0;
    [[maybe_unused]] const ssize_t nRead = ::read(m_fdDone.get(), &ullCount, sizeof(ullCount));
    std::vector<Function> vDone;
    {
        const CMutexHold hold(m_mutex);
        vDone.swap(m_vDone);
    }
    for (const Function& done : vDone)
        done();
}

void CThreadExecutor::finish()
{
    for (;;)
    {
        {
            const CMutexHold hold(m_mutex);
            while (!m_queue.empty() || m_bWorking)
                m_idle.wait(m_mutex);
            if (m_vDone.empty())
                return;
        }
        runDone(); // which may post again
    }
}

void CThreadExecutor::run()
{
    CJob job;
    while (take(job))
    {
        job.m_work();
        job.m_work = nullptr; // what it holds is let go of here, where it may block
        {
            const CMutexHold hold(m_mutex);
            m_bWorking = false;
            m_vDone.push_back(std::move(job.m_done));
        }
        const uint64_t ullOne = 1;
        [[maybe_unused]] const ssize_t nWritten = ::write(m_fdDone.get(), &ullOne, sizeof(ullOne));
        m_idle.notify_all();
    }
}

bool CThreadExecutor::take(CJob& job)
{
    const CMutexHold hold(m_mutex);
    while (m_queue.empty())
    {
        if (m_bStop)
            return false;
        m_wake.wait(m_mutex);
    }
    job = std::move(m_queue.front());
    m_queue.pop_front();
    m_bWorking = true;
    return true;
}
