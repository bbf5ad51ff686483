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

// What the world knows of one thread's sections. Records are never freed: the next thread takes over
// the record of one that ended.
struct CReadSection::CThread
{
    alignas(64) std::atomic<unsigned int> m_uCounter{0}; // odd while the thread is inside a section
    unsigned int m_uDepth = 0;                           // of the owning thread only
    std::atomic<bool> m_bOwned{true};
    CThread* m_pNext = nullptr;
};

struct CThreadSlot
{
    using CThread = CReadSection::CThread;

    ~CThreadSlot();
    static CThread* find();
    static CThread* claim();
    static bool barrierWorks();
    static void barrier();
    static void forgetOtherThreads();

    static constinit std::atomic<CThread*> s_pFirst;

    // Sections of threads without a record: memory ran out, or the thread is past its end.
    static constinit std::atomic<unsigned int> s_uUnrecorded;

    static constinit thread_local CThread* t_pThread;
    static constinit thread_local bool t_bEnded;
    static constinit thread_local unsigned int t_uUnrecorded;
};

constinit std::atomic<CReadSection::CThread*> CThreadSlot::s_pFirst{nullptr};
constinit std::atomic<unsigned int> CThreadSlot::s_uUnrecorded{0};
constinit thread_local CReadSection::CThread* CThreadSlot::t_pThread = nullptr;
constinit thread_local bool CThreadSlot::t_bEnded = false;
constinit thread_local unsigned int CThreadSlot::t_uUnrecorded = 0;

namespace
{
// Only its destructor matters: it runs when the thread ends.
thread_local CThreadSlot t_slot;

int membarrier(int nCommand)
{
    return static_cast<int>(syscall(SYS_membarrier, nCommand, 0, 0));
}
} // namespace

CThreadSlot::~CThreadSlot()
{
    t_bEnded = true;
    CThread* const pThread = t_pThread;
    t_pThread = nullptr;
    if (pThread)
        pThread->m_bOwned.store(false, std::memory_order_release);
}

// With expedited barriers the thread that waits makes every running thread pass a full barrier, so
// that readers need none of their own.
bool CThreadSlot::barrierWorks()
{
    static const bool s_bWorks = []
    {
        pthread_atfork(nullptr, nullptr, forgetOtherThreads);
        return membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
    }();
    return s_bWorks;
}

void CThreadSlot::barrier()
{
    if (!barrierWorks() || membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0)
        return;
    // Someone took the call away since (a sandbox): the slow one, or time enough for every processor
    // to write back what it holds.
    if (membarrier(MEMBARRIER_CMD_GLOBAL) != 0)
        CPortable::Sleep(50);
}

// A child process has only the thread that called fork.
void CThreadSlot::forgetOtherThreads()
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

CThreadSlot::CThread* CThreadSlot::find()
{
    if (t_pThread || t_bEnded)
        return t_pThread;
    const int nErrno = errno;
    static_cast<void>(&t_slot == nullptr); // constructs it
    t_pThread = claim();
    errno = nErrno;
    return t_pThread;
}

CThreadSlot::CThread* CThreadSlot::claim()
{
    barrierWorks();
    for (CThread* pThread = s_pFirst.load(std::memory_order_acquire); pThread; pThread = pThread->m_pNext)
    {
        bool bOwned = false;
        if (pThread->m_bOwned.compare_exchange_strong(bOwned, true, std::memory_order_acquire))
            return pThread;
    }
    CThread* const pThread = new (std::nothrow) CThread;
    if (!pThread)
        return nullptr;
    pThread->m_pNext = s_pFirst.load(std::memory_order_relaxed);
    while (!s_pFirst.compare_exchange_weak(pThread->m_pNext, pThread))
    {
    }
    return pThread;
}
