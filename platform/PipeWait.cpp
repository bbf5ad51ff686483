#include "PipeWait.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <poll.h>
#include <utility>

namespace
{
// The clock of the last timer interrupt: asked before every response, it must cost next to nothing.
const clockid_t CLOCK = CLOCK_MONOTONIC_COARSE;
const int64_t CLOCK_STEP_MS = 10; // at most

int64_t monotonicMilliseconds()
{
    timespec now;
    clock_gettime(CLOCK, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}
} // namespace

CPipeWait::CPipeWait(int nDescriptor, unsigned int nBudgetMilliseconds)
    : m_nDescriptor(nDescriptor), m_llDeadline(monotonicMilliseconds() + CLOCK_STEP_MS + nBudgetMilliseconds),
      m_nWholeBudget(static_cast<int>(nBudgetMilliseconds))
{
}

int CPipeWait::nextTimeout()
{
    if (m_nWholeBudget >= 0)
        return std::exchange(m_nWholeBudget, -1);
    return static_cast<int>(std::max<int64_t>(m_llDeadline - monotonicMilliseconds(), 0));
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
        nReady = poll(&entry, 1, nextTimeout());
    } while (nReady < 0 && errno == EINTR);

    if (nReady > 0 && (entry.revents & POLLNVAL))
    {
        errno = EBADF;
        return -1;
    }
    return nReady;
}
