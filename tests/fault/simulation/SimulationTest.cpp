// Thousands of random runs of the bookkeeping, each step held against a model of its rules.
//
// ZELMEDIA_SEED    the first seed (1)
// ZELMEDIA_RUNS    how many seeds
//
// A seed that fails: ZELMEDIA_SEED=<seed> ZELMEDIA_RUNS=1 tests/support/private-tmp .../simulation_test
#include "SimRun.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>

#if defined(__SANITIZE_THREAD__) // there is one thread
static const uint64_t RUNS = 500;
#elif defined(__SANITIZE_ADDRESS__)
static const uint64_t RUNS = 2000;
#else
static const uint64_t RUNS = 10000;
#endif

// What a sanitizer calls before it ends the program.
extern "C" void __sanitizer_set_death_callback(void (*pCallBack)()) __attribute__((weak));

namespace
{
uint64_t s_ullSeed = 0;

uint64_t setting(const char* pszName, uint64_t ullDefault)
{
    const char* const psz = getenv(pszName);
    return psz ? strtoull(psz, nullptr, 0) : ullDefault;
}

void tellSeed()
{
    fprintf(stderr, "simulation: seed %llu\n", static_cast<unsigned long long>(s_ullSeed));
}

void onCrash(int nSignal)
{
    tellSeed();
    signal(nSignal, SIG_DFL);
    raise(nSignal);
}

void tellSeedIfItCrashes()
{
    if (__sanitizer_set_death_callback)
        return __sanitizer_set_death_callback(tellSeed);
    for (const int nSignal : {SIGABRT, SIGBUS, SIGFPE, SIGSEGV})
        signal(nSignal, onCrash);
}
} // namespace

TEST(Simulation, TheLibraryDoesStepByStepWhatTheModelOfTheRulesForetells)
{
    const uint64_t ullFirst = setting("ZELMEDIA_SEED", 1);
    const uint64_t ullRuns = setting("ZELMEDIA_RUNS", RUNS);
    printf("seeds %llu to %llu\n", static_cast<unsigned long long>(ullFirst),
           static_cast<unsigned long long>(ullFirst + ullRuns - 1));
    fflush(stdout);
    tellSeedIfItCrashes();
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
