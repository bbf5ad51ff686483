// The fortified header declares poll as an inline function.
#undef _FORTIFY_SOURCE

#include "ResponseBudget.h"

#include <atomic>
#include <chrono>
#include <dlfcn.h>
#include <poll.h>
#include <thread>

namespace
{
using CClock = std::chrono::steady_clock;
typedef int (*PollFunction)(pollfd*, nfds_t, int);

const int SHORTEST_BUDGET_MS = 5000; // every other wait of the library is shorter
const int SLICE_MS = 5;

std::atomic<bool> s_bDead{false};
std::atomic<int> s_nExpired{0};
std::atomic<int> s_nWaiting{0};
std::atomic<unsigned int> s_nEnded{0};

int realPoll(pollfd* pEntries, nfds_t nEntries, int nTimeout)
{
    static const PollFunction function = reinterpret_cast<PollFunction>(dlsym(RTLD_NEXT, "poll"));
    return function(pEntries, nEntries, nTimeout);
}

int pollInSlices(pollfd* pEntries, nfds_t nEntries, int nTimeout)
{
    const CClock::time_point end = CClock::now() + std::chrono::milliseconds(nTimeout);
    const int nExpired = s_nExpired;
    for (;;)
    {
        // Looked at before the pipe: what a driver wrote before it died is found.
        const bool bOver = s_bDead || s_nExpired != nExpired || CClock::now() >= end;
        const int nReady = realPoll(pEntries, nEntries, bOver ? 0 : SLICE_MS);
        if (nReady != 0 || bOver)
            return nReady;
    }
}
} // namespace

extern "C" __attribute__((visibility("default"))) int poll(pollfd* pEntries, nfds_t nEntries, int nTimeout)
{
    if (nTimeout < SHORTEST_BUDGET_MS)
        return realPoll(pEntries, nEntries, nTimeout);
    ++s_nWaiting;
    const int nReady = pollInSlices(pEntries, nEntries, nTimeout);
    --s_nWaiting;
    ++s_nEnded;
    return nReady;
}

namespace response_budget
{
// The next driver may be there before a wait has looked.
void driverDied()
{
    s_bDead = true;
    ++s_nExpired;
}

void driverStarts()
{
    s_bDead = false;
}

void expire()
{
    const unsigned int nEnded = s_nEnded;
    ++s_nExpired;
    while (s_nWaiting > 0 && s_nEnded == nEnded)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

int waiting()
{
    return s_nWaiting;
}
} // namespace response_budget
