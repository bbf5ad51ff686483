#include "Scenario.h"
#include "FailingAllocations.h"

#include <atomic>
#include <cstdio>
#include <thread>

namespace
{
std::atomic<int> s_nComplaints{0};
}

void complain(const std::string& strText)
{
    const CAllocationsSpared spared;
    ++s_nComplaints;
    printf("    %s\n", strText.c_str());
}

int complaints()
{
    return s_nComplaints;
}

bool CScenario::failsFor(faults::Call call) const
{
    for (unsigned int n = 0; n < m_plan.nFaults; ++n)
        if (m_plan.aFaults[n].site.call == call)
            return true;
    return false;
}

bool CScenario::waitFor(const std::function<bool()>& condition) const
{
    const bool bForEver = isFaulty() && (m_plan.aFaults[0].bForEver || m_plan.bFromThenOn);
    const bool bCame = waitUntil(condition, std::chrono::milliseconds(bForEver ? 60 : isFaulty() ? 200 : 10000));
    if (!bCame && !isFaulty())
        complain("the scenario does not get on although no call fails");
    return bCame;
}
