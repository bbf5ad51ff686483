#include "ZelCritSec.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace
{
pid_t threadID()
{
    // The system call costs more than the lock itself, so each thread makes it once.
    static thread_local const pid_t nThreadID = static_cast<pid_t>(syscall(SYS_gettid));
    return nThreadID;
}
} // namespace

ZelCritSec::ZelCritSec(const char* pszName, int nKeepOwner) : m_pszName(pszName), m_bKeepOwner(nKeepOwner != 0)
{
    pthread_mutex_init(&m_mutex, nullptr);
}

ZelCritSec::~ZelCritSec()
{
    pthread_mutex_destroy(&m_mutex);
}

void ZelCritSec::enter(long nTag) NO_THREAD_SAFETY_ANALYSIS
{
    const pid_t nThread = threadID();
    // Only this thread can have stored its own id.
    if (m_nOwner.load(std::memory_order_relaxed) != nThread)
    {
        pthread_mutex_lock(&m_mutex);
        m_nOwner.store(nThread, std::memory_order_relaxed);
    }
    ++m_nDepth;
    if (m_bKeepOwner)
        m_nEnterTag = nTag;
}

void ZelCritSec::leave(long nTag) NO_THREAD_SAFETY_ANALYSIS
{
    if (m_bKeepOwner)
        m_nLeaveTag = nTag;
    if (--m_nDepth > 0)
        return;
    m_nOwner.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&m_mutex);
}
