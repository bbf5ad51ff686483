// Millions of records that no honest driver writes: each answer, status and completion is what the rules
// make of the bytes.
//
// ZELMEDIA_SEED     the first seed (1)
// ZELMEDIA_RECORDS  how many responses and events together
//
// A seed that fails: ZELMEDIA_SEED=<seed> ZELMEDIA_RECORDS=1 tests/support/private-tmp .../hostile_test
#include "HostileRun.h"
#include "RandomRun.h"

#include <cstdio>
#include <gtest/gtest.h>

#if defined(ZELMEDIA_TSAN) || defined(ZELMEDIA_ASAN)
static const uint64_t RECORDS = 50000;
#else
static const uint64_t RECORDS = 200000;
#endif

namespace
{
uint64_t s_ullSeed = 0;

struct CTotal
{
    uint64_t ullRecords = 0;
    uint64_t ullSteps = 0;
    std::map<int, uint64_t> mapStatuses;
};

void live(uint64_t ullSeed, CTotal& total)
{
    static const CHostileRun::Kind aKinds[] = {
        CHostileRun::Request,     CHostileRun::Request,  CHostileRun::Request,    CHostileRun::Start,
        CHostileRun::Start,       CHostileRun::Start,    CHostileRun::Start,      CHostileRun::Events,
        CHostileRun::Events,      CHostileRun::Events,   CHostileRun::Responses,  CHostileRun::Responses,
        CHostileRun::Cancel,      CHostileRun::SetDone,  CHostileRun::OpenStream, CHostileRun::OpenStream,
        CHostileRun::CloseStream, CHostileRun::OpenFile, CHostileRun::CloseFile,  CHostileRun::Idle,
    };
    CRandomChoices choices(ullSeed);
    CHostileRun run(choices, choices.oneIn(8) ? 0xFFFFFF00u + choices.below(256) : 1);
    const uint32_t nSteps = 100 + choices.below(2000);
    for (uint32_t n = 0; n < nSteps; ++n)
    {
        ASSERT_TRUE(run.step(choices.oneIn(100) ? CHostileRun::Driver : choices.pick(aKinds)))
            << "seed " << ullSeed << ", step " << n << ": " << run.fault();
    }
    ASSERT_TRUE(run.recover()) << "seed " << ullSeed << ", with an honest driver again: " << run.fault();
    total.ullRecords += run.records();
    total.ullSteps += nSteps;
    for (const auto& [nStatus, ullTimes] : run.statuses())
        total.mapStatuses[nStatus] += ullTimes;
}
} // namespace

TEST(HostileBytes, GiveNoRequestAnotherOnesAnswerAndNoCommandAnotherOnesEnd)
{
    const uint64_t ullFirst = setting("ZELMEDIA_SEED", uint64_t{1});
    const uint64_t ullRecords = setting("ZELMEDIA_RECORDS", RECORDS);
    printf("hostile bytes: from seed %llu\n", static_cast<unsigned long long>(ullFirst));
    fflush(stdout);
    tellSeedIfItCrashes(s_ullSeed);
    CTotal total;
    for (s_ullSeed = ullFirst; total.ullRecords < ullRecords && !HasFatalFailure(); ++s_ullSeed)
        live(s_ullSeed, total);
    printf("hostile bytes: %llu records in %llu operations, to seed %llu; returned:",
           static_cast<unsigned long long>(total.ullRecords), static_cast<unsigned long long>(total.ullSteps),
           static_cast<unsigned long long>(s_ullSeed - 1));
    for (const auto& [nStatus, ullTimes] : total.mapStatuses)
        printf(" %d %llu times", nStatus, static_cast<unsigned long long>(ullTimes));
    printf("\n");
    for (const int nStatus : {0, 16, 34, 44, 45, 47})
        EXPECT_TRUE(ullRecords < RECORDS || total.mapStatuses[nStatus] > 0) << nStatus << " never occurred";
}
