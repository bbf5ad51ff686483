// Every allocation of the library fails in turn, that one alone and then all from it on, until a scenario
// comes to its end without a failure.
//
// ZELMEDIA_ALLOCATIONS  runs of each scenario, "all" for every allocation; a few by default
// ZELMEDIA_SEED         chooses which
#include "ChildRun.h"
#include "FailingAllocations.h"
#include "Files.h"
#include "RandomRun.h"
#include "ZelMediaServices.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <thread>
#include <utility>
#include <vector>

using namespace faults;

namespace
{
constexpr unsigned long DEFAULT_RUNS = 6;
constexpr unsigned long ALL_JOBS = 4; // processes at a time; a few runs are made beside other tests
constexpr int MAX_FAILURES = 20;
constexpr int MAX_ALLOCATIONS = 2000;
// A thread may come to fewer allocations than another time.
constexpr int RUNS_WITHOUT_A_FAILURE = 3;
constexpr int LEAKS_TO_BELIEVE = 3;
constexpr long MAX_RECORDS = 4;

bool wantsAll()
{
    return settingIsAll("ZELMEDIA_ALLOCATIONS");
}

std::vector<CScenarioEntry> allScenarios()
{
    std::vector<CScenarioEntry> vScenarios = libraryScenarios();
    for (const CScenarioEntry& scenario : logScenarios())
        vScenarios.push_back(scenario);
    return vScenarios;
}
} // namespace

class Allocations : public testing::TestWithParam<CScenarioEntry>
{
protected:
    void SetUp() override { m_ulSeed = setting<unsigned long>("ZELMEDIA_SEED", std::random_device()()); }

    // Without a fault: how many allocations there are, and what a scenario leaves in any case.
    void runDry()
    {
        runAll({CPlan()});
        m_nBlocksLeft = m_nMostBlocksLeft;
        EXPECT_GE(MAX_RECORDS, m_nBlocksLeft) << "more than a record for each thread";
        m_nAllocations = m_nMostAllocations;
        m_nRuns = 0;
    }

    void runAll(const std::vector<CPlan>& vPlans)
    {
        size_t n = 0;
        runWhile([&](CPlan& plan) {
            if (n == vPlans.size())
                return false;
            plan = vPlans[n++];
            return true;
        });
    }

    // Until there is none left to fail.
    void runEach(bool bFromThenOn)
    {
        m_nWithoutFailure = 0;
        int nth = 0;
        runWhile([&](CPlan& plan) {
            if (m_nWithoutFailure >= RUNS_WITHOUT_A_FAILURE || nth == MAX_ALLOCATIONS)
                return false;
            plan = planFor(++nth, bFromThenOn);
            return true;
        });
        EXPECT_GT(MAX_ALLOCATIONS, nth) << "it never comes to an end";
    }

    // Some of them, every one as likely.
    void runSome()
    {
        std::mt19937 random(static_cast<std::mt19937::result_type>(m_ulSeed));
        std::vector<CPlan> vPlans;
        for (int nth = 1; nth <= m_nAllocations; ++nth)
        {
            vPlans.push_back(planFor(nth, false));
            vPlans.push_back(planFor(nth, true));
        }
        std::shuffle(vPlans.begin(), vPlans.end(), random);
        vPlans.resize(std::min<size_t>(vPlans.size(), setting<unsigned long>("ZELMEDIA_ALLOCATIONS", DEFAULT_RUNS)));
        runAll(vPlans);
    }

    void report() const
    {
        printf("%s: %d allocations without a fault, %d failed in %d runs, seed %lu\n", GetParam().pszName,
               m_nAllocations, m_nFailed, m_nRuns, m_ulSeed);
    }

private:
    void runWhile(const std::function<bool(CPlan&)>& next)
    {
        const auto nextOrAgain = [&](CPlan& plan) {
            if (m_nFailures >= MAX_FAILURES)
                return false;
            if (m_vAgain.empty())
                return next(plan);
            plan = m_vAgain.back();
            m_vAgain.pop_back();
            return true;
        };
        CChildRun::runMany(GetParam(), wantsAll() ? ALL_JOBS : 1, nextOrAgain,
                           [this](const CChildRun& run) { ended(run); });
    }

    static CPlan planFor(int nth, bool bFromThenOn)
    {
        CPlan plan = {};
        plan.nAllocation = nth;
        plan.bFromThenOn = bFromThenOn;
        return plan;
    }

    void ended(const CChildRun& run)
    {
        const CPlan& plan = run.plan();
        const CBoard& board = run.board();
        ++m_nRuns;
        m_nFailed += board.bAllocationFailed;
        m_nWithoutFailure = board.bAllocationFailed ? 0 : m_nWithoutFailure + 1;
        m_nMostAllocations = std::max(m_nMostAllocations, board.nAllocations);
        m_nMostBlocksLeft = std::max(m_nMostBlocksLeft, board.nBlocksLeft);
        const bool bLeaked = plan.nAllocation > 0 && board.nBlocksLeft > m_nBlocksLeft;
        if (run.wentWell() && !bLeaked)
            return;
        // A thread that starts before another one is quite gone leaves its record, too; that does not happen often.
        if (run.wentWell() && ++m_mapLeaks[{plan.nAllocation, plan.bFromThenOn}] < LEAKS_TO_BELIEVE)
            return m_vAgain.push_back(plan);
        ++m_nFailures;
        ADD_FAILURE() << "allocation " << plan.nAllocation << (plan.bFromThenOn ? " and all after it" : "") << ", seed "
                      << m_ulSeed << "\n"
                      << run.failure() << "    blocks left: " << board.nBlocksLeft << " instead of " << m_nBlocksLeft;
    }

    unsigned long m_ulSeed = 0;
    int m_nAllocations = 0;
    long m_nBlocksLeft = 0;
    int m_nRuns = 0;
    int m_nFailed = 0;
    int m_nWithoutFailure = 0; // the last ones
    int m_nFailures = 0;
    std::vector<CPlan> m_vAgain;
    std::map<std::pair<int, bool>, int> m_mapLeaks;
    int m_nMostAllocations = 0;
    long m_nMostBlocksLeft = 0;
};

TEST_P(Allocations, FailInTurnAndTheLibraryLivesOn)
{
    runDry();
    if (HasFailure())
        return;
    if (wantsAll())
    {
        runEach(false);
        runEach(true);
    }
    else
    {
        runSome();
    }
    report();
}

INSTANTIATE_TEST_SUITE_P(Of, Allocations, testing::ValuesIn(allScenarios()),
                         [](const auto& scenario) { return scenario.param.pszName; });

// Where the C library has no memory to note the destructor of a thread_local object, it ends the process.
TEST(AllocationsOfANewThread, FailAndItsFirstLineIsLostAtMost)
{
    constexpr int THREADS = 10;
    {
        CZelMediaServices services(nullptr);
        for (int nth = 1; nth <= THREADS; ++nth)
        {
            std::thread([&] {
                CLibraryAllocations::arm(nth, Failing::FromThenOn);
                {
                    const CInsideLibrary inside;
                    EXPECT_EQ(MCS_OK, services.setMinimumSilenceDuration(1));
                }
                CLibraryAllocations::disarm();
                std::string strFile = "second line of thread " + std::to_string(nth) + ".";
                unsigned long ulFileID = 0;
                EXPECT_EQ(MCS_NOTCONNECTED, services.openPhraseFile(strFile.data(), &ulFileID));
                services.closePhraseFile(ulFileID);
            }).join();
        }
    }
    stopLibrary();
    const std::string strLog = contentOf(defaultLog());
    for (int nth = 1; nth <= THREADS; ++nth)
        EXPECT_NE(std::string::npos, strLog.find("second line of thread " + std::to_string(nth) + ".")) << nth;
}
