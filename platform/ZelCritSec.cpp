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
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

ZelCritSec::~ZelCritSec()
{
    pthread_mutex_destroy(&m_mutex);
}

void ZelCritSec::enter(long nTag) NO_THREAD_SAFETY_ANALYSIS
{
    pthread_mutex_lock(&m_mutex);
    if (!m_bKeepOwner)
        return;
    m_nOwner = threadID();
    ++m_nDepth;
    m_nEnterTag = nTag;
}

void ZelCritSec::leave(long nTag) NO_THREAD_SAFETY_ANALYSIS
{
    if (m_bKeepOwner)
    {
        m_nLeaveTag = nTag;
        if (--m_nDepth == 0)
            m_nOwner = 0;
    }
    pthread_mutex_unlock(&m_mutex);
}
