// Thousands of random runs of the bookkeeping, each step held against a model of its rules.
//
// ZELMEDIA_SEED    the first seed (1)
// ZELMEDIA_RUNS    how many seeds
//
// A seed that fails: ZELMEDIA_SEED=<seed> ZELMEDIA_RUNS=1 tests/support/private-tmp .../simulation_test
#include "RandomRun.h"
#include "SimRun.h"

#include <cstdio>
#include <gtest/gtest.h>

#if defined(ZELMEDIA_TSAN) // there is one thread
static const uint64_t RUNS = 500;
#elif defined(ZELMEDIA_ASAN)
static const uint64_t RUNS = 2000;
#else
static const uint64_t RUNS = 10000;
#endif

namespace
{
uint64_t s_ullSeed = 0;
} // namespace

TEST(Simulation, TheLibraryDoesStepByStepWhatTheModelOfTheRulesForetells)
{
    const uint64_t ullFirst = setting("ZELMEDIA_SEED", uint64_t{1});
    const uint64_t ullRuns = setting("ZELMEDIA_RUNS", RUNS);
    printf("seeds %llu to %llu\n", static_cast<unsigned long long>(ullFirst),
           static_cast<unsigned long long>(ullFirst + ullRuns - 1));
    fflush(stdout);
    tellSeedIfItCrashes(s_ullSeed);
    uint64_t ullSteps = 0;
    for (s_ullSeed = ullFirst; s_ullSeed < ullFirst + ullRuns; ++s_ullSeed)
    {
        const CSimPlan plan(s_ullSeed);
        const CSimOutcome outcome = runSimulation(plan, false);
        ullSteps += outcome.nSteps;
        ASSERT_EQ("", outcome.strFault) << reportFailure(plan);
    }
    printf("%llu steps\n", static_cast<unsigned long long>(ullSteps));
}
