// A semaphore: how one thread of a probe tells another that something has come.
#ifndef SEMAPHORE_H
#define SEMAPHORE_H

#include <semaphore.h>

class CSemaphore
{
public:
    CSemaphore() { ::sem_init(&m_semaphore, 0, 0); }
    ~CSemaphore() { ::sem_destroy(&m_semaphore); }
    CSemaphore(const CSemaphore&) = delete;
    CSemaphore& operator=(const CSemaphore&) = delete;

    void post() { ::sem_post(&m_semaphore); }
    void wait()
    {
        while (::sem_wait(&m_semaphore) != 0)
        {
        }
    }

private:
    sem_t m_semaphore;
};

#endif
