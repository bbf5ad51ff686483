// Every system call of the library fails in turn, in each way it may, once and for ever.
//
// ZELMEDIA_CALLS       runs of each scenario, "all" for every call in every way; a few by default
// ZELMEDIA_SEED        chooses which
// ZELMEDIA_CALLS_ONLY  only runs of which the description contains this text
#include "ChildRun.h"
#include "RandomRun.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <map>
#include <poll.h>
#include <random>
#include <set>

using namespace faults;

namespace
{
#if defined(ZELMEDIA_ASAN)
constexpr unsigned long DEFAULT_RUNS = 2; // which take ten times as long
#else
constexpr unsigned long DEFAULT_RUNS = 10;
#endif
constexpr unsigned long ALL_JOBS = 8; // processes at a time; a few runs are made beside other tests
constexpr unsigned int MAX_FAILURES = 20;
constexpr unsigned int MAX_MISSED = 6; // runs that did not come to their call

bool wantsAll()
{
    return settingIsAll("ZELMEDIA_CALLS");
}

std::string errorName(int nError)
{
    if (nError == SHORT)
        return "SHORT";
    return nError == NOTHING ? "NOTHING" : strerrorname_np(nError);
}

// With the place in the library, for addr2line.
std::string describe(const CSite& site)
{
    const char* pszPath = nullptr;
    char szPlace[32];
    snprintf(szPlace, sizeof(szPlace), "0x%zx",
             static_cast<size_t>(reinterpret_cast<uintptr_t>(site.pAddress) - imageBegin(&pszPath)));
    return std::string(nameOf(site.call)) + nameOf(site.object) + " at " + szPlace;
}

std::string describe(const CPlan& plan)
{
    std::string str;
    for (unsigned int n = 0; n < plan.nFaults; ++n)
    {
        const CFault& fault = plan.aFaults[n];
        str += (n > 0 ? ", then " : "") + describe(fault.site) + ", call " + std::to_string(fault.nth) + ", " +
               errorName(fault.nError) + (fault.bForEver ? " for ever" : " once");
    }
    return str.empty() ? "no fault" : str;
}

std::string describe(const std::pair<CSite, int>& pair)
{
    return describe(pair.first) + ", " + errorName(pair.second);
}

// The function of a place in the library, by its symbol table.
std::string functionOf(const CSite& site)
{
    const char* pszPath = nullptr;
    const uintptr_t uPlace = reinterpret_cast<uintptr_t>(site.pAddress) - imageBegin(&pszPath);
    char szCommand[600];
    snprintf(szCommand, sizeof(szCommand), "addr2line -fC -e '%s' 0x%zx 2>/dev/null", pszPath,
             static_cast<size_t>(uPlace - 1));
    FILE* const pPipe = popen(szCommand, "r");
    char szLine[300] = "";
    if (pPipe && fgets(szLine, sizeof(szLine), pPipe))
        szLine[strcspn(szLine, "\n(")] = '\0';
    if (pPipe)
        pclose(pPipe);
    return szLine;
}

// A call site, and how its call fails.
using CPair = std::pair<CSite, int>;
using CWay = std::pair<CPair, bool>; // and whether for ever

struct CCoverage
{
    std::set<CPair> setPairs; // that there are
    std::set<CPair> setOnce;  // that did fail, once
    std::set<CPair> setForEver;
    unsigned int nRuns = 0;

    bool has(const CPair& pair) const { return setOnce.count(pair) && setForEver.count(pair); }
    void fired(const CFault& fault) { (fault.bForEver ? setForEver : setOnce).insert({fault.site, fault.nError}); }
    void add(const CCoverage& other)
    {
        setPairs.insert(other.setPairs.begin(), other.setPairs.end());
        setOnce.insert(other.setOnce.begin(), other.setOnce.end());
        setForEver.insert(other.setForEver.begin(), other.setForEver.end());
        nRuns += other.nRuns;
    }
    std::string text() const
    {
        return std::to_string(setPairs.size()) + " pairs of call site and error, " + std::to_string(setOnce.size()) +
               " of them failed once, " + std::to_string(setForEver.size()) + " for ever, in " + std::to_string(nRuns) +
               " runs";
    }
};
} // namespace

class CCallsTest : public testing::Test
{
protected:
    explicit CCallsTest(const CScenarioEntry& scenario) : m_scenario(scenario) {}

    void SetUp() override
    {
        m_ulSeed = setting<unsigned long>("ZELMEDIA_SEED", std::random_device()());
        m_random.seed(static_cast<std::mt19937::result_type>(m_ulSeed));
        m_bAll = wantsAll();
        m_ulRunsLeft = setting<unsigned long>("ZELMEDIA_CALLS", DEFAULT_RUNS);
    }

    // Without a fault; tells which calls there are.
    void runDry()
    {
        CChildRun run;
        run.start(m_scenario, CPlan());
        while (!run.advance())
        {
        }
        ASSERT_TRUE(run.wentWell()) << "no fault\n" << run.failure();
        for (unsigned int n = 0; n < run.board().nSeen; ++n)
        {
            const CBoard::CSeen& seen = run.board().aSeen[n];
            m_setKnown.insert(seen.site);
            for (unsigned int nth = 1; nth <= seen.nCalls; ++nth)
                addPlans({}, seen.site, nth);
        }
        m_setUsual = m_coverage.setPairs;
        ASSERT_GT(CBoard::MAX_SITES, run.board().nSeen);
    }

    void addPlans(const CPlan& before, const CSite& site, unsigned int nth)
    {
        for (const int nError : errorsOf(site.call, site.object))
        {
            m_coverage.setPairs.insert({site, nError});
            for (const bool bForEver : {false, true})
            {
                CPlan plan = before;
                plan.aFaults[plan.nFaults++] = {site, nth, nError, bForEver};
                m_mapPlans[{{site, nError}, bForEver}].push_back(plan);
            }
        }
    }

    // A call that is made only because another one failed.
    void addNewSites(const CChildRun& run)
    {
        for (unsigned int n = 0; n < run.board().nSeen && run.plan().nFaults == 1; ++n)
        {
            const CSite& site = run.board().aSeen[n].site;
            if (m_setKnown.insert(site).second)
                addPlans(run.plan(), site, 1);
        }
    }

    bool hasFired(const CWay& way) const
    {
        return (way.second ? m_coverage.setForEver : m_coverage.setOnce).count(way.first) > 0;
    }

    size_t any(size_t nOf) { return std::uniform_int_distribution<size_t>(0, nOf - 1)(m_random); }

    // Of any pair: where a call is made hundreds of times, the others get their turn all the same.
    bool takePlan(CPlan& plan)
    {
        if (m_mapPlans.empty() || (!m_bAll && m_ulRunsLeft == 0))
            return false;
        const auto itPair = std::next(m_mapPlans.begin(), any(m_mapPlans.size()));
        std::vector<CPlan>& vPlans = itPair->second;
        std::swap(vPlans[any(vPlans.size())], vPlans.back());
        plan = vPlans.back();
        vPlans.pop_back();
        if (vPlans.empty())
            m_mapPlans.erase(itPair);
        m_ulRunsLeft -= !m_bAll;
        return true;
    }

    void ended(const CChildRun& run)
    {
        ++m_coverage.nRuns;
        if (!run.wentWell())
        {
            ++m_nFailures;
            const CPlan& plan = run.plan();
            ADD_FAILURE() << describe(plan) << " (" << functionOf(plan.aFaults[0].site) << "), seed " << m_ulSeed
                          << "\n"
                          << run.failure();
        }
        for (unsigned int n = 0; n < run.plan().nFaults; ++n)
        {
            const CFault& fault = run.plan().aFaults[n];
            const CWay way = {{fault.site, fault.nError}, fault.bForEver};
            if (run.board().abFired[n])
                m_coverage.fired(fault);
            // It did not come to that call this time.
            else if (m_bAll && !hasFired(way) && ++m_mapMissed[way] < MAX_MISSED)
                m_mapPlans[way].push_back(run.plan());
        }
        addNewSites(run);
    }

    void runAll()
    {
        const char* const pszOnly = getenv("ZELMEDIA_CALLS_ONLY");
        const auto next = [&](CPlan& plan) {
            while (m_nFailures < MAX_FAILURES && takePlan(plan))
                if (!pszOnly || describe(plan).find(pszOnly) != std::string::npos)
                    return true;
            return false;
        };
        CChildRun::runMany(m_scenario, wantsAll() ? ALL_JOBS : 1, next, [this](const CChildRun& run) { ended(run); });
    }

    void report()
    {
        printf("%s: %zu call sites, %s, seed %lu\n", m_scenario.pszName, m_setKnown.size(), m_coverage.text().c_str(),
               m_ulSeed);
        s_coverage.add(m_coverage);
        if (!m_bAll || getenv("ZELMEDIA_CALLS_ONLY"))
            return;
        for (const CPair& pair : m_setUsual)
            EXPECT_TRUE(m_coverage.has(pair)) << "never failed: " << describe(pair);
    }

public:
    // Of all scenarios of this process. A call that one of them comes to only by chance is one that another
    // is made for.
    static void reportAll()
    {
        std::set<CSite> setSites;
        for (const CPair& pair : s_coverage.setPairs)
        {
            setSites.insert(pair.first);
            if (!s_coverage.has(pair))
                ADD_FAILURE() << "never failed: " << describe(pair);
        }
        for (const CSite& site : setSites)
            printf("  %s %s\n", describe(site).c_str(), functionOf(site).c_str());
        printf("All: %zu call sites, %s\n", setSites.size(), s_coverage.text().c_str());
    }

protected:
    const CScenarioEntry m_scenario;
    unsigned long m_ulSeed = 0;
    std::mt19937 m_random;
    bool m_bAll = false;
    unsigned long m_ulRunsLeft = 0;
    unsigned int m_nFailures = 0;
    std::map<CWay, std::vector<CPlan>> m_mapPlans; // to be tried
    std::set<CSite> m_setKnown;
    CCoverage m_coverage;
    std::set<CPair> m_setUsual; // of calls that are made although none fails
    std::map<CWay, unsigned int> m_mapMissed;

private:
    static inline CCoverage s_coverage;
};

class Calls : public CCallsTest, public testing::WithParamInterface<CScenarioEntry>
{
protected:
    Calls() : CCallsTest(GetParam()) {}
};

TEST_P(Calls, FailInTurnAndTheLibraryLivesOn)
{
    runDry();
    if (HasFatalFailure())
        return;
    runAll();
    report();
}

INSTANTIATE_TEST_SUITE_P(
    OfLibrary, Calls, testing::ValuesIn(libraryScenarios()),
    [](const auto& scenario) { return scenario.param.pszName; });
INSTANTIATE_TEST_SUITE_P(OfLog, Calls, testing::ValuesIn(logScenarios()),
                         [](const auto& scenario) { return scenario.param.pszName; });

// Those that once did harm, each time.
struct CHarmful
{
    const char* pszName;
    const char* pszScenario;
    Call call;
    int nError;
};

void PrintTo(const CHarmful& harmful, std::ostream* pStream)
{
    *pStream << harmful.pszName;
}

class HarmfulCall : public CCallsTest, public testing::WithParamInterface<CHarmful>
{
protected:
    HarmfulCall() : CCallsTest(scenarioOf(GetParam().pszScenario)) {}

private:
    static CScenarioEntry scenarioOf(const std::string& strName)
    {
        for (const CScenarioEntry& scenario : logScenarios())
            if (scenario.pszName == strName)
                return scenario;
        return libraryScenarios().front();
    }
};

TEST_P(HarmfulCall, DoesNoHarmAnyMore)
{
    runDry();
    if (HasFatalFailure())
        return;
    std::erase_if(m_mapPlans, [](const auto& entry) {
        const CPair& pair = entry.first.first;
        return pair.first.call != GetParam().call || pair.second != GetParam().nError;
    });
    EXPECT_FALSE(m_mapPlans.empty());
    m_bAll = true;
    runAll();
    EXPECT_FALSE(m_coverage.setOnce.empty());
}

INSTANTIATE_TEST_SUITE_P(
    OfLog, HarmfulCall,
    testing::Values(CHarmful{"StatusOfTheOpenFileLeftItsDescriptorOpen", "LogWriteLines", Call::Fstat, EIO},
                    CHarmful{"LookingForARotatedFileHadItOverwritten", "LogRotate", Call::Lstat, EACCES},
                    CHarmful{"ReadingANewPendingFileLeftItThere", "LogCollect", Call::Pread, EIO}),
    [](const auto& harmful) { return harmful.param.pszName; });

// What has never failed, after a run of all of them.
class CReport : public testing::Environment
{
public:
    void TearDown() override
    {
        if (wantsAll() && !getenv("ZELMEDIA_CALLS_ONLY") && testing::GTEST_FLAG(filter) == "*")
            CCallsTest::reportAll();
    }
};
static testing::Environment* const s_pReport = testing::AddGlobalTestEnvironment(new CReport);
