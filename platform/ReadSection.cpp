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

// What other threads see of one thread's sections. Records are never freed; the next thread takes
// over the record of one that ended.
struct CReadSection::CThread
{
    explicit CThread(bool bBarrier) : m_bBarrier(bBarrier) {}

    alignas(64) std::atomic<unsigned int> m_uCounter{0}; // odd while the thread is inside a section
    unsigned int m_uDepth = 0;                           // of the owning thread only
    const bool m_bBarrier;                               // waitForReaders has barriers for both sides
    std::atomic<bool> m_bOwned{true};
    CThread* m_pNext = nullptr;
};

namespace
{
using CThread = CReadSection::CThread;

std::atomic<CThread*> s_pFirst{nullptr};

// Sections of threads without a record: memory ran out, or the thread is past its end.
std::atomic<unsigned int> s_uUnrecorded{0};
thread_local unsigned int t_uUnrecorded = 0; // of this thread

// Trivially destructible, so that sections of later destructors of the thread still find them.
thread_local CThread* t_pThread = nullptr;
thread_local bool t_bEnded = false;

struct CThreadEnd
{
    ~CThreadEnd()
    {
        t_bEnded = true;
        if (t_pThread)
            t_pThread->m_bOwned.store(false, std::memory_order_release);
        t_pThread = nullptr;
    }
};

int membarrier(int nCommand)
{
    return static_cast<int>(syscall(SYS_membarrier, nCommand, 0, 0));
}

// A child process has only the thread that called fork; the sections of the others never end there.
void forgetOtherThreads()
{
    for (CThread* pThread = s_pFirst.load(); pThread; pThread = pThread->m_pNext)
    {
        if (pThread == t_pThread)
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
    if (t_pThread || t_bEnded)
        return t_pThread;
    static thread_local CThreadEnd t_end; // for its destructor, which runs when the thread ends
    const int nErrno = errno;
    t_pThread = claimRecord();
    errno = nErrno;
    return t_pThread;
}

void pauseBeforeTry(unsigned int uTry)
{
    if (uTry < 100)
        sched_yield();
    else
        CPortable::Sleep(1);
}
} // namespace

CReadSection::CReadSection() noexcept : m_pThread(threadRecord())
{
    if (!m_pThread)
    {
        ++t_uUnrecorded;
        s_uUnrecorded.fetch_add(1);
        return;
    }
    if (m_pThread->m_uDepth++ != 0)
        return;
    const unsigned int uInside = m_pThread->m_uCounter.load(std::memory_order_relaxed) + 1;
    if (m_pThread->m_bBarrier)
    {
        // Releases what the previous section did, for a thread that waits for that one and finds
        // this one.
        m_pThread->m_uCounter.store(uInside, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    else
    {
        m_pThread->m_uCounter.exchange(uInside);
    }
}

CReadSection::~CReadSection()
{
    if (!m_pThread)
    {
        s_uUnrecorded.fetch_sub(1);
        --t_uUnrecorded;
        return;
    }
    if (--m_pThread->m_uDepth != 0)
        return;
    const unsigned int uOutside = m_pThread->m_uCounter.load(std::memory_order_relaxed) + 1;
    m_pThread->m_uCounter.store(uOutside, std::memory_order_release);
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
        if (pThread == t_pThread)
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
