// Counts the library's calls and decides which of them fails.
#include "CallTally.h"
#include "Child.h"

#include <cerrno>
#include <mutex>

namespace faults
{

namespace
{
// A signal interrupts a call now and then; one that is never let through does not exist.
constexpr unsigned int MAX_INTERRUPTIONS = 200;

std::mutex s_mutex;
std::atomic<bool> s_bArmed{false};
CBoard* s_pBoard;
CPlan s_plan;
unsigned int s_uInterruptions;

unsigned int count(const CSite& site)
{
    for (unsigned int n = 0; n < s_pBoard->nSeen; ++n)
        if (s_pBoard->aSeen[n].site == site)
            return ++s_pBoard->aSeen[n].nCalls;
    if (s_pBoard->nSeen < CBoard::MAX_SITES)
        s_pBoard->aSeen[s_pBoard->nSeen++] = {site, 1};
    return 1;
}

bool hits(const CFault& fault, bool bFired, const CSite& site, unsigned int nth)
{
    if (bFired)
        return fault.bForEver && fault.site.call == site.call && fault.site.object == site.object &&
               (fault.nError != EINTR || ++s_uInterruptions < MAX_INTERRUPTIONS);
    return fault.site == site && fault.nth == nth;
}
} // namespace

void arm(CBoard& board, const CPlan& plan)
{
    const std::lock_guard hold(s_mutex);
    s_pBoard = &board;
    s_plan = plan;
    s_uInterruptions = 0;
    s_bArmed = true;
}

void disarm()
{
    const std::lock_guard hold(s_mutex);
    s_bArmed = false;
}

bool hasFired()
{
    const std::lock_guard hold(s_mutex);
    return s_pBoard && s_pBoard->abFired[0];
}

int nextFault(const CSite& site)
{
    if (!s_bArmed)
        return 0;
    const int nErrno = errno;
    int nError = 0;
    {
        const std::lock_guard hold(s_mutex);
        const unsigned int nth = s_bArmed ? count(site) : 0;
        // The second one first: the other may go on for ever, and would have its call.
        for (unsigned int n = s_bArmed ? s_plan.nFaults : 0; n-- > 0 && nError == 0;)
        {
            if (!hits(s_plan.aFaults[n], s_pBoard->abFired[n], site, nth))
                continue;
            s_pBoard->abFired[n] = true;
            nError = s_plan.aFaults[n].nError;
        }
    }
    errno = nErrno;
    return nError;
}

void endRun(int nStatus)
{
    endChild(nStatus);
}

} // namespace faults
