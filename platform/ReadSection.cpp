#include "ReadSection.h"
#include "Portable.h"

#include <atomic>
#include <cerrno>
#include <linux/membarrier.h>
#include <new>
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
std::atomic<CReadSection::CThread*> s_pFirst{nullptr};

// Sections of threads without a record: memory ran out, or the thread is past its end.
std::atomic<unsigned int> s_uUnrecorded{0};

int membarrier(int nCommand)
{
    return static_cast<int>(syscall(SYS_membarrier, nCommand, 0, 0));
}

// With expedited barriers the thread that waits makes every running thread pass a full barrier, so
// that readers need none of their own.
bool barrierWorks()
{
    static const bool s_bWorks = membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
    return s_bWorks;
}

CReadSection::CThread* claimRecord()
{
    for (auto* pThread = s_pFirst.load(); pThread; pThread = pThread->m_pNext)
    {
        bool bOwned = false;
        if (pThread->m_bOwned.compare_exchange_strong(bOwned, true))
            return pThread;
    }
    auto* const pThread = new (std::nothrow) CReadSection::CThread;
    if (!pThread)
        return nullptr;
    pThread->m_pNext = s_pFirst.load();
    while (!s_pFirst.compare_exchange_weak(pThread->m_pNext, pThread))
    {
    }
    return pThread;
}

// Trivially destructible, so that sections of later destructors of the thread still find them.
thread_local CReadSection::CThread* t_pThread = nullptr;
thread_local bool t_bEnded = false;

struct CThreadEnd
{
    ~CThreadEnd()
    {
        t_bEnded = true;
        if (t_pThread)
            t_pThread->m_bOwned = false;
        t_pThread = nullptr;
    }
};

CReadSection::CThread* threadRecord()
{
    if (t_pThread || t_bEnded)
        return t_pThread;
    static thread_local CThreadEnd t_end;
    const int nError = errno;
    const bool bBarrier = barrierWorks();
    t_pThread = claimRecord();
    errno = nError;
    return t_pThread;
}
} // namespace

CReadSection::CReadSection() : m_pThread(threadRecord())
{
    if (!m_pThread)
    {
        s_uUnrecorded.fetch_add(1);
        return;
    }
    if (m_pThread->m_uDepth++ != 0)
        return;
    const unsigned int uInside = m_pThread->m_uCounter.load(std::memory_order_relaxed) + 1;
    if (barrierWorks())
    {
        m_pThread->m_uCounter.store(uInside, std::memory_order_relaxed);
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
        s_uUnrecorded.fetch_sub(1);
    else if (--m_pThread->m_uDepth == 0)
        m_pThread->m_uCounter.store(m_pThread->m_uCounter.load(std::memory_order_relaxed) + 1,
                                    std::memory_order_release);
}

void CReadSection::waitForReaders()
{
    if (barrierWorks())
        membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED);
    const CThread* const pOwn = threadRecord();
    for (const CThread* pThread = s_pFirst.load(); pThread; pThread = pThread->m_pNext)
    {
        const unsigned int uCounter = pThread->m_uCounter.load();
        while (pThread != pOwn && (uCounter & 1) && pThread->m_uCounter.load() == uCounter)
            CPortable::Sleep(1);
    }
    while (s_uUnrecorded.load() != 0)
        CPortable::Sleep(1);
}

CReadSection::CReadSection() : m_pThread(CThreadSlot::find())
{
    if (!m_pThread)
    {
        ++CThreadSlot::t_uUnrecorded;
        CThreadSlot::s_uUnrecorded.fetch_add(1);
        return;
    }
    if (m_pThread->m_uDepth++ != 0)
        return;
    const unsigned int uCounter = m_pThread->m_uCounter.load(std::memory_order_relaxed) + 1;
    if (m_pThread->m_bBarrier)
    {
        m_pThread->m_uCounter.store(uCounter, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    else
    {
        m_pThread->m_uCounter.exchange(uCounter);
    }
}

CReadSection::~CReadSection()
{
    if (!m_pThread)
    {
        CThreadSlot::s_uUnrecorded.fetch_sub(1);
        --CThreadSlot::t_uUnrecorded;
        return;
    }
    if (--m_pThread->m_uDepth != 0)
        return;
    const unsigned int uCounter = m_pThread->m_uCounter.load(std::memory_order_relaxed) + 1;
    m_pThread->m_uCounter.store(uCounter, std::memory_order_release);
}

void CReadSection::waitForReaders()
{
    const int nErrno = errno;
    int nTries = 0;
    const auto pause = [&nTries]
    {
        if (++nTries < 100)
            sched_yield();
        else
            CPortable::Sleep(1);
    };

    // Reading by adding 0 orders this thread and a reader that enters now: either its counter is
    // seen to be odd, or it sees what was stored before this call.
    CThreadSlot::barrier();
    CThread* pThread = CThreadSlot::s_pFirst.fetch_add(0);
    for (; pThread; pThread = pThread->m_pNext)
    {
        if (pThread == CThreadSlot::t_pThread)
            continue;
        const unsigned int uCounter = pThread->m_uCounter.fetch_add(0);
        while ((uCounter & 1U) != 0 && pThread->m_uCounter.load(std::memory_order_acquire) == uCounter)
            pause();
    }
    while (CThreadSlot::s_uUnrecorded.fetch_add(0) > CThreadSlot::t_uUnrecorded)
        pause();
    errno = nErrno;
}
