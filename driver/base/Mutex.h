// A mutex whose use clang checks at compile time.
#ifndef DRIVER_MUTEX_H
#define DRIVER_MUTEX_H

#include <mutex>

#if defined(__clang__)
#define DRIVER_ANNOTATE(x) __attribute__((x))
#else
#define DRIVER_ANNOTATE(x)
#endif

#define GUARDED_BY(mutex) DRIVER_ANNOTATE(guarded_by(mutex))

class DRIVER_ANNOTATE(capability("mutex")) CMutex
{
public:
    void lock() DRIVER_ANNOTATE(acquire_capability()) { m_mutex.lock(); }
    void unlock() DRIVER_ANNOTATE(release_capability()) { m_mutex.unlock(); }

private:
    std::mutex m_mutex;
};

class DRIVER_ANNOTATE(scoped_lockable) CMutexHold
{
public:
    explicit CMutexHold(CMutex& mutex) DRIVER_ANNOTATE(acquire_capability(mutex)) : m_mutex(mutex) { m_mutex.lock(); }
    ~CMutexHold() DRIVER_ANNOTATE(release_capability()) { m_mutex.unlock(); }
    CMutexHold(const CMutexHold&) = delete;
    CMutexHold& operator=(const CMutexHold&) = delete;

private:
    CMutex& m_mutex;
};

#endif
