// Runs model and library side by side.
#include "SimRun.h"
#include "SimLibrary.h"
#include "SimModel.h"

#include <algorithm>

namespace
{
const uint64_t FIRST_TICK = 1000000;

void tell(CSimOutcome& outcome, const std::string& strStep, const CSimScript& script)
{
    outcome.vTold.push_back(strStep);
    for (const CSimAct& act : script)
        outcome.vTold.push_back("    " + toString(act));
}
} // namespace

CSimPlan::CSimPlan(uint64_t ullFromSeed) : ullSeed(ullFromSeed)
{
    CRandomChoices random(ullSeed);
    vSteps.resize(8 + random.below(random.oneIn(16) ? 400 : 56)); // long ones now and then
    for (uint64_t& ull : vSteps)
        ull = random.next();
}

CSimOutcome runSimulation(const CSimPlan& plan, bool bTell)
{
    static const unsigned int anFaults[] = {0, 0, 20, 60, 200};
    static const unsigned int anCallBacks[] = {0, 250, 700};
    CRandomChoices random(~plan.ullSeed);
    CSimLibrary library(FIRST_TICK, !random.oneIn(16));
    CSimModel model(library.responsePipe(), library.eventPipe(), FIRST_TICK);
    model.setMood(random.pick(anFaults), random.pick(anCallBacks), 1 + random.below(6));
    if (random.oneIn(8)) // the numbers begin anew within the run
        library.setNextSequenceNo(model.m_nNextSequenceNo = 0xFFFFFFF0u + random.below(16));

    CSimOutcome outcome;
    CSimScript script;
    for (const uint64_t ullStep : plan.vSteps)
    {
        CRandomChoices stepRandom(ullStep);
        script.clear();
        const CSimOperation operation = chooseOperation(model, stepRandom, false);
        const CSimResult expected = model.apply(operation, stepRandom, script);
        if (bTell)
            tell(outcome, toString(operation), script);
        outcome.strFault = library.run(operation, script, expected, model);
        ++outcome.nSteps;
        if (!outcome.strFault.empty())
            return outcome;
    }
    script.clear();
    model.finalize(random, script);
    if (bTell)
        tell(outcome, "finalize", script);
    outcome.strFault = library.finalize(script);
    return outcome;
}

CSimPlan shrink(CSimPlan plan)
{
    plan.vSteps.resize(runSimulation(plan, false).nSteps);
    for (size_t nChunk = std::max<size_t>(plan.vSteps.size() / 2, 1); nChunk > 0; nChunk /= 2)
    {
        for (size_t nAt = 0; nAt + nChunk <= plan.vSteps.size();)
        {
            CSimPlan shorter = plan;
            const auto itFirst = shorter.vSteps.begin() + static_cast<std::ptrdiff_t>(nAt);
            shorter.vSteps.erase(itFirst, itFirst + static_cast<std::ptrdiff_t>(nChunk));
            if (runSimulation(shorter, false).strFault.empty())
                nAt += nChunk;
            else
                plan = shorter;
        }
    }
    return plan;
}

std::string reportFailure(const CSimPlan& plan)
{
    const CSimPlan shortest = shrink(plan);
    const CSimOutcome outcome = runSimulation(shortest, true);
    std::string strReport = "seed " + std::to_string(plan.ullSeed) + ", " + std::to_string(shortest.vSteps.size()) +
                            " of " + std::to_string(plan.vSteps.size()) + " steps\n";
    for (const std::string& strStep : outcome.vTold)
        strReport += strStep + "\n";
    return strReport + "=> " + outcome.strFault;
}
