#include "ChildRun.h"
#include "FailingAllocations.h"
#include "Files.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <set>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace faults;

#if defined(ZELMEDIA_ASAN)
extern "C" int __lsan_do_recoverable_leak_check();
#endif

namespace
{
constexpr int64_t SPEED = 50;
constexpr std::chrono::seconds LIMIT(60);

bool mountTmp()
{
#ifdef ZELMEDIA_COVERAGE
    return false; // it may hide where the counts are written
#endif
    return unshare(CLONE_NEWNS) == 0 && mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777,size=128m") == 0;
}

void removePipesAndLogs()
{
    for (const auto& entry : std::filesystem::directory_iterator("/tmp"))
    {
        const std::string strName = entry.path().filename().string();
        std::error_code error;
        if (strName.starts_with("OrvMediaIntf-") || strName.starts_with("Media-p") || strName == "calls")
            std::filesystem::remove_all(entry.path(), error);
    }
}

// Each with what it is open for; without the one that reads the folder.
std::set<std::string> openDescriptors()
{
    std::set<std::string> setDescriptors;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
        std::error_code error;
        const std::string strTarget = std::filesystem::read_symlink(entry.path(), error).string();
        if (!strTarget.ends_with("/fd"))
            setDescriptors.insert(entry.path().filename().string() + " " + strTarget);
    }
    return setDescriptors;
}

struct CUsage
{
    std::set<std::string> setDescriptors = openDescriptors();
    size_t nThreads = namesIn("/proc/self/task").size();
    std::vector<std::string> vNames = namesIn("/tmp");
};

void checkNothingLeft(const CUsage& before, const CScenario& scenario)
{
    // A thread has ended a moment after it said so.
    if (!waitUntil([&] { return namesIn("/proc/self/task").size() <= before.nThreads; }, std::chrono::seconds(10)))
        complain("a thread is left");
    const CUsage after;
    for (const std::string& strDescriptor : after.setDescriptors)
        if (!before.setDescriptors.count(strDescriptor))
            complain("a descriptor is left: " + strDescriptor);
    for (const std::string& strName : after.vNames)
        if (!std::count(before.vNames.begin(), before.vNames.end(), strName) && !scenario.mayRemain(strName))
            complain("a name is left in /tmp: " + strName);
}

// A driver that cannot answer has to do with the fault, one that gets a part of a record has not.
int failuresOfDriver(bool bFaulty)
{
    const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
    int nFailures = 0;
    for (int n = 0; n < result.total_part_count(); ++n)
        nFailures += !bFaulty || strstr(result.GetTestPartResult(n).message(), "a request of") != nullptr;
    return nFailures;
}

void runWithFaults(CScenario& scenario, const CPlan& plan, CBoard& board)
{
    arm(board, plan);
    CLibraryAllocations::arm(plan.nAllocation, plan.bFromThenOn ? Failing::FromThenOn : Failing::Once);
    scenario.run();
    CLibraryAllocations::disarm();
    disarm();
    board.nAllocations = CLibraryAllocations::counted();
    board.bAllocationFailed = CLibraryAllocations::happened();
}

bool live(const CScenarioEntry& entry, const CPlan& plan, CBoard& board)
{
    const bool bFaulty = plan.nFaults > 0 || plan.nAllocation > 0;
    const int nFailuresBefore = failuresOfDriver(bFaulty);
    if (CChildRun::havePrivateTmp() && !mountTmp())
        complain("no /tmp");
    if (!CChildRun::havePrivateTmp())
        removePipesAndLogs();
#if defined(ZELMEDIA_TSAN)
    std::thread([] {}).join(); // with the first one the sanitizer starts one of its own
#endif
    const CUsage before;
    setSpeed(SPEED);
    const long nBlocks = CLibraryAllocations::blocks();
    {
        const std::unique_ptr<CScenario> pScenario = entry.make();
        pScenario->m_plan = plan;
        pScenario->prepare();
        runWithFaults(*pScenario, plan, board);
        pScenario->check();
        pScenario->end();
        checkNothingLeft(before, *pScenario);
    }
    board.nBlocksLeft = CLibraryAllocations::blocks() - nBlocks;
#if defined(ZELMEDIA_ASAN)
    if (__lsan_do_recoverable_leak_check())
        complain("memory is left");
#endif
    if (failuresOfDriver(bFaulty) > nFailuresBefore)
        complain("the driver did not like it");
    fflush(stdout);
    return complaints() == 0;
}
} // namespace

bool CChildRun::havePrivateTmp()
{
    static const bool s_bHave = [] {
        const pid_t nProcess = fork();
        if (nProcess == 0)
            _exit(mountTmp() ? 0 : 1);
        int nStatus = -1;
        return waitpid(nProcess, &nStatus, 0) == nProcess && nStatus == 0;
    }();
    return s_bHave;
}

CChildRun::CChildRun()
{
    m_pBoard =
        static_cast<CBoard*>(mmap(nullptr, sizeof(CBoard), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

CChildRun::~CChildRun()
{
    munmap(m_pBoard, sizeof(CBoard));
}

void CChildRun::start(const CScenarioEntry& scenario, const CPlan& plan)
{
    memset(static_cast<void*>(m_pBoard), 0, sizeof(*m_pBoard));
    m_plan = plan;
    m_strOutput.clear();
    m_strFailure.clear();
    m_bOverdue = false;
    havePrivateTmp();
    int anPipe[2];
    ASSERT_EQ(0, pipe2(anPipe, O_CLOEXEC));
    fflush(stdout);
    m_nProcess = fork();
    ASSERT_GE(m_nProcess, 0);
    if (m_nProcess == 0)
    {
        dup2(anPipe[1], STDOUT_FILENO);
        dup2(anPipe[1], STDERR_FILENO);
        close(anPipe[0]);
        close(anPipe[1]);
        endRun(live(scenario, plan, *m_pBoard) ? 0 : 1);
    }
    close(anPipe[1]);
    m_nOutput = anPipe[0];
    m_limit = std::chrono::steady_clock::now() + LIMIT;
}

bool CChildRun::advance()
{
    char szBuffer[4096];
    const ssize_t nRead = read(m_nOutput, szBuffer, sizeof(szBuffer));
    if (nRead > 0)
    {
        m_strOutput.append(szBuffer, static_cast<size_t>(nRead));
        return false;
    }
    close(m_nOutput);
    m_nOutput = -1;
    int nStatus = 0;
    waitpid(m_nProcess, &nStatus, 0);
    m_nProcess = -1;
    if (m_bOverdue)
        m_strFailure = "    it hangs\n";
    else if (WIFSIGNALED(nStatus))
        m_strFailure = std::string("    it crashes: ") + strsignal(WTERMSIG(nStatus)) + "\n";
    else if (WEXITSTATUS(nStatus) != 0)
        m_strFailure = "    it fails:\n";
    if (!m_strFailure.empty())
        m_strFailure += m_strOutput;
    return true;
}

bool CChildRun::killIfOverdue()
{
    if (m_bOverdue || std::chrono::steady_clock::now() < m_limit)
        return false;
    m_bOverdue = true;
    kill(m_nProcess, SIGKILL);
    return true;
}

void CChildRun::runMany(const CScenarioEntry& scenario, size_t nJobs, const std::function<bool(CPlan&)>& next,
                        const std::function<void(const CChildRun&)>& ended)
{
    std::vector<CChildRun> vRuns(havePrivateTmp() ? std::max<size_t>(nJobs, 1) : 1);
    for (;;)
    {
        std::vector<pollfd> vEntries;
        for (CChildRun& run : vRuns)
        {
            CPlan plan = {};
            if (!run.isRunning() && next(plan))
                run.start(scenario, plan);
            vEntries.push_back({run.isRunning() ? run.descriptor() : -1, POLLIN, 0});
        }
        if (std::all_of(vEntries.begin(), vEntries.end(), [](const pollfd& entry) { return entry.fd < 0; }))
            return;
        poll(vEntries.data(), vEntries.size(), 1000);
        for (size_t n = 0; n < vRuns.size(); ++n)
        {
            CChildRun& run = vRuns[n];
            if (run.isRunning() && (vEntries[n].revents || run.killIfOverdue()) && run.advance())
                ended(run);
        }
    }
}
