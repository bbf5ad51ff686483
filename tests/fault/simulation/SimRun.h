// Simulations by seed: a run of steps, and the shortest run that still fails.
#ifndef SIM_RUN_H
#define SIM_RUN_H

#include <cstdint>
#include <string>
#include <vector>

// Everything in a run follows from it. A step that is dropped changes no other step's chances.
struct CSimPlan
{
    explicit CSimPlan(uint64_t ullFromSeed);

    uint64_t ullSeed;
    std::vector<uint64_t> vSteps; // a seed for each
};

struct CSimOutcome
{
    std::string strFault;           // empty: the library did what the model foretold
    size_t nSteps = 0;              // that were run
    std::vector<std::string> vTold; // the steps, if asked for
};

CSimOutcome runSimulation(const CSimPlan& plan, bool bTell);

// Leaves out steps as long as the run fails.
CSimPlan shrink(CSimPlan plan);

// The report of a run that fails, after shrinking it.
std::string reportFailure(const CSimPlan& plan);

#endif
