// ZelCritSec: a named lock that its owner may enter again, with diagnostics for a debugger.
#ifndef ZEL_CRIT_SEC_H
#define ZEL_CRIT_SEC_H

#include "ThreadSafety.h"

#include <atomic>
#include <pthread.h>
#include <sys/types.h>

class CAPABILITY("lock") ZelCritSec
{
public:
    // pszName is not copied: give a literal. nKeepOwner non-zero keeps owner, depth and tags.
    ZelCritSec(const char* pszName, int nKeepOwner);
    ~ZelCritSec();
    ZelCritSec(const ZelCritSec&) = delete;
    ZelCritSec& operator=(const ZelCritSec&) = delete;

    // Waits until the lock is free or the calling thread has it already. nTag tells the call site,
    // by its source line.
    void enter(long nTag) ACQUIRE();

    // Undoes one enter() of the calling thread.
    void leave(long nTag) RELEASE();

    // What a debugger wants to see. Exact only for the thread that has the lock.
    const char* name() const { return m_pszName; }
    pid_t owner() const { return m_bKeepOwner ? m_nOwner.load(std::memory_order_relaxed) : 0; } // 0 while free
    int depth() const { return m_bKeepOwner ? m_nDepth : 0; }
    long enterTag() const { return m_nEnterTag; } // of the last enter
    long leaveTag() const { return m_nLeaveTag; } // of the last leave

private:
    const char* const m_pszName;
    const bool m_bKeepOwner;
    pthread_mutex_t m_mutex;

    // Written by the thread that has the lock.
    std::atomic<pid_t> m_nOwner{0}; // kernel thread id, read by who asks whether it is his own
    int m_nDepth = 0;
    long m_nEnterTag = 0;
    long m_nLeaveTag = 0;
};

// Holds a lock for a scope. A null lock is held by doing nothing: an object whose set-up ran out of
// memory has no lock, and no second thread either.
class SCOPED_CAPABILITY CCritSecHold
{
public:
    explicit CCritSecHold(ZelCritSec* pCritSec, long nTag = __builtin_LINE()) ACQUIRE(pCritSec)
        : CCritSecHold(pCritSec, nTag, nTag)
    {
    }
    CCritSecHold(ZelCritSec* pCritSec, long nEnterTag, long nLeaveTag) ACQUIRE(pCritSec)
        : m_pCritSec(pCritSec), m_nLeaveTag(nLeaveTag)
    {
        if (m_pCritSec)
            m_pCritSec->enter(nEnterTag);
    }
    ~CCritSecHold() RELEASE()
    {
        if (m_pCritSec)
            m_pCritSec->leave(m_nLeaveTag);
    }
    CCritSecHold(const CCritSecHold&) = delete;
    CCritSecHold& operator=(const CCritSecHold&) = delete;

private:
    ZelCritSec* const m_pCritSec;
    const long m_nLeaveTag;
};

#endif
