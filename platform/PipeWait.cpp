#include "PipeWait.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <poll.h>

namespace
{
const int64_t NANOSECONDS = 1000000000;

int64_t monotonicNow()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * NANOSECONDS + now.tv_nsec;
}
} // namespace

CPipeWait::CPipeWait(int nDescriptor, unsigned int nBudgetMilliseconds)
    : m_nDescriptor(nDescriptor),
      m_llDeadline(monotonicNow() + static_cast<int64_t>(nBudgetMilliseconds) * (NANOSECONDS / 1000))
{
}

int CPipeWait::waitReadable()
{
    // poll passes over negative descriptors, which would turn a lost pipe into a time-out.
    if (m_nDescriptor < 0)
    {
        errno = EBADF;
        return -1;
    }
    pollfd entry = {m_nDescriptor, POLLIN, 0};
    int nReady;
    do
    {
        const int64_t llLeft = std::max<int64_t>(m_llDeadline - monotonicNow(), 0);
        const timespec left = {static_cast<time_t>(llLeft / NANOSECONDS), static_cast<long>(llLeft % NANOSECONDS)};
        nReady = ppoll(&entry, 1, &left, nullptr);
    } while (nReady < 0 && errno == EINTR);

    if (nReady > 0 && (entry.revents & POLLNVAL))
    {
        errno = EBADF;
        return -1;
    }
    return nReady;
}
