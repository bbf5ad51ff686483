#include "ReadSection.h"

#include "Portable.h"

#include <atomic>
#include <cerrno>
#include <linux/membarrier.h>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

constinit thread_local CReadSection::CThread* CReadSection::CThread::t_pThread = nullptr;

namespace
{
using CThread = CReadSection::CThread;

std::atomic<CThread*> s_pFirst{nullptr};

// Sections of threads without a record: memory ran out, or the thread is past its end.
std::atomic<unsigned int> s_uUnrecorded{0};
thread_local unsigned int t_uUnrecorded = 0; // of this thread

thread_local bool t_bEnded = false;

void threadEnds(void*)
{
    t_bEnded = true;
    if (CThread::t_pThread)
        CThread::t_pThread->m_bOwned.store(false, std::memory_order_release);
    CThread::t_pThread = nullptr;
}

// Has threadEnds called when this thread ends; false when there is no memory for that. Not left to the
// destructor of a thread_local object: where the C library has no memory to note one, it ends the process.
bool hearOfThreadEnd()
{
    static pthread_key_t s_key;
    static const bool s_bKey = pthread_key_create(&s_key, threadEnds) == 0;
    return s_bKey && pthread_setspecific(s_key, &s_key) == 0;
}

int membarrier(int nCommand)
{
    return static_cast<int>(syscall(SYS_membarrier, nCommand, 0, 0));
}

// A child process has only the thread that called fork; the sections of the others never end there.
void forgetOtherThreads()
{
    for (CThread* pThread = s_pFirst.load(); pThread; pThread = pThread->m_pNext)
    {
        if (pThread == CThread::t_pThread)
            continue;
        pThread->m_uDepth = 0;
        pThread->m_uCounter = (pThread->m_uCounter + 1) & ~1U;
        pThread->m_bOwned = false;
    }
    s_uUnrecorded = t_uUnrecorded;
}

// With expedited barriers the thread that waits makes every running thread pass a full barrier, so
// that readers need none of their own.
bool barrierWorks()
{
    static const bool s_bWorks = [] {
        pthread_atfork(nullptr, nullptr, forgetOtherThreads);
        return membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
    }();
    return s_bWorks;
}

void passBarriers()
{
    if (!barrierWorks() || membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0)
        return;
    // Someone took the call away since (a sandbox): the slow one, or time enough for every processor
    // to write back what it holds.
    if (membarrier(MEMBARRIER_CMD_GLOBAL) != 0)
        CPortable::Sleep(50);
}

CThread* claimRecord()
{
    const bool bBarrier = barrierWorks();
    for (CThread* pThread = s_pFirst.load(); pThread; pThread = pThread->m_pNext)
    {
        bool bOwned = false;
        if (pThread->m_bOwned.compare_exchange_strong(bOwned, true))
            return pThread;
    }
    auto* const pThread = new (std::nothrow) CThread(bBarrier);
    if (!pThread)
        return nullptr;
    pThread->m_pNext = s_pFirst.load();
    while (!s_pFirst.compare_exchange_weak(pThread->m_pNext, pThread))
    {
    }
    return pThread;
}

CThread* threadRecord()
{
    if (CThread::t_pThread || t_bEnded)
        return CThread::t_pThread;
    const int nErrno = errno;
    if (hearOfThreadEnd())
        CThread::t_pThread = claimRecord();
    errno = nErrno;
    return CThread::t_pThread;
}

void pauseBeforeTry(unsigned int uTry)
{
    if (uTry < 100)
        sched_yield();
    else
        CPortable::Sleep(1);
}
} // namespace

// The thread's first section, and all that cannot rely on the barriers of the other side.
void CReadSection::enterSlowly() noexcept
{
    m_pThread = threadRecord();
    if (!m_pThread)
    {
        ++t_uUnrecorded;
        s_uUnrecorded.fetch_add(1);
    }
    else if (m_pThread->m_uDepth++ == 0)
    {
        m_pThread->m_uCounter.exchange(m_pThread->counter() + 1);
    }
}

void CReadSection::leaveSlowly() noexcept
{
    s_uUnrecorded.fetch_sub(1);
    --t_uUnrecorded;
}

void CReadSection::waitForReaders() noexcept
{
    const int nErrno = errno;
    passBarriers();
    // Reading by adding 0 orders this thread and a reader that enters now: either its counter is
    // seen to be odd, or it sees what was stored before this call.
    CThread* pThread = s_pFirst.fetch_add(0);
    for (; pThread; pThread = pThread->m_pNext)
    {
        if (pThread == CThread::t_pThread)
            continue;
        const unsigned int uCounter = pThread->m_uCounter.fetch_add(0);
        if ((uCounter & 1U) == 0)
            continue;
        for (unsigned int uTry = 0; pThread->m_uCounter.load(std::memory_order_acquire) == uCounter; ++uTry)
            pauseBeforeTry(uTry);
    }
    for (unsigned int uTry = 0; s_uUnrecorded.fetch_add(0) > t_uUnrecorded; ++uTry)
        pauseBeforeTry(uTry);
    errno = nErrno;
}
