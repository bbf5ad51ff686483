// The library inside a process that makes it hard: thousands of descriptors, signals, children, odd
// permissions, occupied names.
#include "SystemFixture.h"

#include <csignal>
#include <cstdio>
#include <fstream>
#include <future>
#include <map>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace
{
const int MANY_FILES = 1500;

struct CManyFiles
{
    CManyFiles()
    {
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        for (int n = 0; n < MANY_FILES; ++n)
            m_vFiles.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    ~CManyFiles()
    {
        for (const int nFile : m_vFiles)
            close(nFile);
    }
    std::vector<int> m_vFiles;
};

struct CUmask077
{
    CUmask077() : m_nOld(umask(077)) {}
    ~CUmask077() { umask(m_nOld); }
    const mode_t m_nOld;
};

// CSystemTest whose services are created in a process prepared like this.
template <class PREPARATION> class CPreparedTest : protected PREPARATION, public CSystemTest
{
};

std::map<int, std::string> pipesOfThisProcess()
{
    std::map<int, std::string> mapPipes;
    for (const std::string& strName : namesIn("/proc/self/fd"))
    {
        char szTarget[256] = {};
        if (readlink(("/proc/self/fd/" + strName).c_str(), szTarget, sizeof(szTarget) - 1) > 0 &&
            strstr(szTarget, "OrvMediaIntf-"))
            mapPipes[std::stoi(strName)] = szTarget;
    }
    return mapPipes;
}

unsigned int modeOf(const std::string& strPath)
{
    struct stat status = {};
    EXPECT_EQ(0, lstat(strPath.c_str(), &status)) << strPath;
    EXPECT_TRUE(S_ISFIFO(status.st_mode)) << strPath;
    return status.st_mode & 07777;
}

// The line of the log that was open while the services were constructed.
bool defaultLogHas(const std::string& strText)
{
    for (const char* const pszFolder : {"/var/log/zelmedia", "/tmp"})
    {
        std::ifstream file(std::string(pszFolder) + "/Media-p" + std::to_string(getpid()) + ".log");
        std::stringstream all;
        all << file.rdbuf();
        if (all.str().find(strText) != std::string::npos)
            return true;
    }
    return false;
}
} // namespace

class ManyDescriptors : public CPreparedTest<CManyFiles>
{
};

TEST_F(ManyDescriptors, PipesWithNumbersAbove1023Work)
{
    if (m_vFiles.back() < MANY_FILES)
        GTEST_SKIP() << "this system allows too few descriptors";
    size_t nOfLibrary = 0;
    for (const auto& entry : pipesOfThisProcess())
    {
        EXPECT_GT(entry.first, 1023) << entry.second;
        ++nOfLibrary;
    }
    EXPECT_LE(3u, nOfLibrary);

    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, play(pStream, "/p/2.wav"));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, 1));
    ASSERT_TRUE(m_completions.waitCount(2));

    // Connecting again and timing out are waits of their own.
    EXPECT_EQ(MCS_OK, play(pStream, "/p/3.wav", 0));
    ASSERT_TRUE(m_completions.waitCount(3));
    EXPECT_EQ(MCS_TIMEDOUT, m_completions.all()[2].mcstatus);
    loseDriver();
    m_driver.start();
    ASSERT_TRUE(waitConnected(2));
    EXPECT_EQ(MCS_OK, tryOpen());
}

namespace
{
std::atomic<long> s_nSignals{0};
std::atomic<pid_t> s_nEventThread{0};
std::atomic<long> s_nOnEventThread{0};
thread_local volatile long t_nSignals = 0;

pid_t threadID()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

void countSignal(int)
{
    ++s_nSignals;
    t_nSignals = t_nSignals + 1;
    if (threadID() == s_nEventThread)
        ++s_nOnEventThread;
}

// Interrupts this process a thousand times a second.
class CSignalStorm
{
public:
    explicit CSignalStorm(bool bRestart)
    {
        struct sigaction action = {};
        action.sa_handler = countSignal;
        action.sa_flags = bRestart ? SA_RESTART : 0;
        sigaction(SIGALRM, &action, &m_old);
        set(1000);
    }
    ~CSignalStorm()
    {
        set(0);
        // A last signal may be on its way.
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGALRM, &ignore, nullptr);
    }

private:
    static void set(int nMicroseconds)
    {
        const itimerval timer = {{0, nMicroseconds}, {0, nMicroseconds}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    struct sigaction m_old;
};

// The thread that the library started, by its name.
pid_t eventThread()
{
    for (const std::string& strTask : namesIn("/proc/self/task"))
    {
        std::ifstream file("/proc/self/task/" + strTask + "/comm");
        std::string strName;
        if (std::getline(file, strName) && strName == "ZelMedia")
            return std::stoi(strTask);
    }
    return 0;
}
} // namespace

class SignalStorm : public CSystemTest, public testing::WithParamInterface<bool>
{
protected:
    SignalStorm() { s_nEventThread = eventThread(); }
};

TEST_P(SignalStorm, DoesNotBreakOffAnExchangeThatIsAnsweredLate)
{
    CZelMediaStream* const pStream = open();
    for (const MICMD micmd : {MICMD_PLAYFILE, MICMD_RECORDGETTIME})
    {
        m_driver.onCommand(
            micmd,
            [this](const structMICMD& request) {
                const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
                while (std::chrono::steady_clock::now() < end)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                m_driver.accept(request);
            });
    }
    const CSignalStorm storm(GetParam());
    for (size_t n = 0; n < 3; ++n)
    {
        const long nBefore = t_nSignals;
        EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
        EXPECT_LT(nBefore + 10, t_nSignals) << "no signal reached the waiting thread";
        m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, n));
        ASSERT_TRUE(m_completions.waitCount(n + 1));
    }
    unsigned long ulMilliSeconds = 0;
    EXPECT_EQ(MCS_OK, pStream->recordGetTimeMilliseconds(&ulMilliSeconds));
    EXPECT_EQ(1234u, ulMilliSeconds);
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
    EXPECT_EQ(0, s_nOnEventThread);
}

TEST_P(SignalStorm, DoesNotStretchTheBudgetOfAnExchangeThatIsNeverAnswered)
{
    CZelMediaStream* const pStream = open();
    m_driver.ignore(MICMD_PLAYFILE);
    const CSignalStorm storm(GetParam());
    const long nBefore = t_nSignals;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(MCS_NORESPONSE, play(pStream, "/p/1.wav"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(9900));
    EXPECT_LT(nBefore + 100, t_nSignals);
    m_driver.acceptAgain(MICMD_PLAYFILE);
    EXPECT_EQ(MCS_OK, play(pStream, "/p/2.wav"));
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
}

TEST_P(SignalStorm, DoesNotKeepTheEventThreadFromReconnectingAndTimingOut)
{
    CZelMediaStream* const pStream = open();
    const CSignalStorm storm(GetParam());
    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav", 0));
    ASSERT_TRUE(m_completions.waitCount(1));
    loseDriver();
    m_driver.start();
    ASSERT_TRUE(waitConnected(2));
    EXPECT_EQ(MCS_OK, tryOpen());
    EXPECT_LT(100, s_nSignals);
    EXPECT_EQ(0, s_nOnEventThread);
    EXPECT_EQ(0u, m_pLog->count("(Error) CMIntf::eventThreadFunc - error"));
}

INSTANTIATE_TEST_SUITE_P(Restart, SignalStorm, testing::Bool(),
                         [](const auto& how) { return how.param ? "WithRestart" : "WithoutRestart"; });

class HostileProcess : public CSystemTest
{
};

TEST_F(HostileProcess, EventThreadHasEverySignalBlocked)
{
    const pid_t nThread = eventThread();
    ASSERT_NE(0, nThread);
    std::ifstream file("/proc/self/task/" + std::to_string(nThread) + "/status");
    std::string strLine;
    uint64_t ullBlocked = 0;
    while (std::getline(file, strLine))
        if (strLine.rfind("SigBlk:", 0) == 0)
            ullBlocked = std::stoull(strLine.substr(7), nullptr, 16);
    for (int nSignal = 1; nSignal <= 64; ++nSignal)
    {
        const bool bOfTheThreadLibrary = nSignal == 32 || nSignal == 33;
        if (nSignal != SIGKILL && nSignal != SIGSTOP && !bOfTheThreadLibrary)
            EXPECT_TRUE(ullBlocked >> (nSignal - 1) & 1) << nSignal;
    }
}

TEST_F(HostileProcess, ChildProgramHoldsNoPipeAndNoLogFile)
{
    ASSERT_EQ(3u, [] {
        size_t nPipes = 0;
        for (const auto& entry : pipesOfThisProcess())
            nPipes += entry.second == responsePipe() || entry.second == eventPipe() || entry.second == MI_REQUEST_PIPE;
        return nPipes - 3; // the scripted driver has one end of each open as well
    }());
    FILE* const pList = popen("ls -l /proc/self/fd", "r");
    ASSERT_NE(nullptr, pList);
    std::string strList;
    for (int nChar = fgetc(pList); nChar != EOF; nChar = fgetc(pList))
        strList += static_cast<char>(nChar);
    EXPECT_EQ(0, pclose(pList));
    EXPECT_NE(std::string::npos, strList.find("1 -> ")) << strList;
    EXPECT_EQ(std::string::npos, strList.find("OrvMediaIntf")) << strList;
    EXPECT_EQ(std::string::npos, strList.find("Media-p")) << strList;
}

TEST_F(HostileProcess, ParentGoesOnWhileItsChildrenStartPrograms)
{
    CZelMediaStream* const pStream = open();
    for (size_t n = 0; n < 20; ++n)
    {
        EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
        const pid_t nChild = fork();
        if (nChild == 0)
        {
            execl("/bin/true", "true", nullptr);
            _exit(127);
        }
        m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, n));
        ASSERT_TRUE(m_completions.waitCount(n + 1));
        int nStatus = -1;
        EXPECT_EQ(nChild, waitpid(nChild, &nStatus, 0));
        EXPECT_EQ(0, nStatus);
    }
}

TEST_F(HostileProcess, BrokenPipeDoesNotKillTheProcess)
{
    loseDriver();
    struct sigaction action = {};
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(SIG_IGN, action.sa_handler);
}

class RestrictiveUmask : public CPreparedTest<CUmask077>
{
};

TEST_F(RestrictiveUmask, AppliesToThePipes)
{
    EXPECT_EQ(0600u, modeOf(responsePipe()));
    EXPECT_EQ(0600u, modeOf(eventPipe()));
    EXPECT_EQ(MCS_OK, tryOpen());
}

TEST(PermissiveUmask, LeavesThePipesOpenToEverybody)
{
    const mode_t nOld = umask(0);
    CCompletions completions;
    CZelMediaServices services(&completions);
    umask(nOld);
    EXPECT_EQ(0666u, modeOf(responsePipe()));
    EXPECT_EQ(0666u, modeOf(eventPipe()));
}

namespace
{
enum class Obstacle
{
    Fifo,
    File,
    Folder,
    Link,
    DanglingLink,
    Socket
};

const char* const OBSTACLE_NAMES[] = {"Fifo", "File", "Folder", "Link", "DanglingLink", "Socket"};

void PrintTo(Obstacle obstacle, std::ostream* pStream)
{
    *pStream << OBSTACLE_NAMES[static_cast<int>(obstacle)];
}

void occupy(const std::string& strPath, Obstacle obstacle)
{
    const char* const pszPath = strPath.c_str();
    switch (obstacle)
    {
    case Obstacle::Fifo: ASSERT_EQ(0, mkfifo(pszPath, 0600)); break;
    case Obstacle::File: ASSERT_EQ(0, mknod(pszPath, S_IFREG | 0600, 0)); break;
    case Obstacle::Folder: ASSERT_EQ(0, mkdir(pszPath, 0700)); break;
    case Obstacle::Link:
        ASSERT_EQ(0, mknod("/tmp/target", S_IFREG | 0600, 0));
        ASSERT_EQ(0, symlink("/tmp/target", pszPath));
        break;
    case Obstacle::DanglingLink: ASSERT_EQ(0, symlink("/tmp/nowhere", pszPath)); break;
    case Obstacle::Socket:
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, pszPath, sizeof(address.sun_path) - 1);
        const int nSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(0, bind(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
        close(nSocket);
        break;
    }
    }
}

ino_t inodeOf(const std::string& strPath)
{
    struct stat status = {};
    EXPECT_EQ(0, lstat(strPath.c_str(), &status)) << strPath;
    return status.st_ino;
}
} // namespace

class OccupiedName : public testing::TestWithParam<Obstacle>
{
protected:
    // The library works on as one that is never connected.
    void expectNeverConnected(CZelMediaServices& services)
    {
        CScriptedDriver driver;
        CZelMediaStream* pStream = nullptr;
        unsigned long ulFileID = 0;
        EXPECT_EQ(MCS_NOTCONNECTED, services.openMediaStream(&pStream, "call", 1));
        EXPECT_EQ(nullptr, pStream);
        EXPECT_EQ(MCS_NOTCONNECTED, services.openPhraseFile(text("/p/a.ul"), &ulFileID));
        EXPECT_EQ(0, eventThread());
        // Far longer than a library that could connect would take.
        EXPECT_FALSE(driver.waitCount(MICMD_CONNECT, 1, std::chrono::milliseconds(1500)));
        EXPECT_EQ(MCS_NOTCONNECTED, services.dump());
    }

    CCompletions m_completions;
};

TEST_P(OccupiedName, ResponsePipesNameTakenIs47Forever)
{
    occupy(responsePipe(), GetParam());
    const ino_t nInode = inodeOf(responsePipe());
    CZelMediaServices services(&m_completions);
    EXPECT_TRUE(
        defaultLogHas("(Error) CMIntf::initialize, can't create response pipe \"" + responsePipe() + "\" (17)"));
    EXPECT_NE(0, access(eventPipe().c_str(), F_OK));
    expectNeverConnected(services);
    EXPECT_EQ(nInode, inodeOf(responsePipe()));
}

TEST_P(OccupiedName, EventPipesNameTakenIs47ForeverAndTheResponsePipeStays)
{
    occupy(eventPipe(), GetParam());
    const ino_t nInode = inodeOf(eventPipe());
    CZelMediaServices services(&m_completions);
    EXPECT_TRUE(defaultLogHas("(Error) CMIntf::initialize, can't create event pipe \"" + responsePipe() + "\" (17)"));
    EXPECT_TRUE(S_ISFIFO([] {
        struct stat status = {};
        lstat(responsePipe().c_str(), &status);
        return status.st_mode;
    }()));
    expectNeverConnected(services);
    EXPECT_EQ(nInode, inodeOf(eventPipe()));
}

// What is not a pipe with a reader is tried again until a driver takes its place.
class OccupiedRequestPipe : public OccupiedName
{
};

TEST_P(OccupiedRequestPipe, IsTriedUntilADriverTakesItsPlace)
{
    occupy(MI_REQUEST_PIPE, GetParam());
    const auto pLog = std::make_shared<CLogRecord>();
    CZelMediaServices services(&m_completions);
    services.setLogger(new CLogCapture(pLog), nullptr);
    ASSERT_TRUE(pLog->waitFor("(Error) CMIntf::eventThreadFunc, can't open request pipe", 2));
    if (GetParam() == Obstacle::Folder)
        ASSERT_EQ(0, rmdir(MI_REQUEST_PIPE));
    CScriptedDriver driver;
    ASSERT_TRUE(driver.waitCount(MICMD_CONNECT, 1));
}

INSTANTIATE_TEST_SUITE_P(
    By, OccupiedRequestPipe,
    testing::Values(Obstacle::Fifo, Obstacle::File, Obstacle::Folder, Obstacle::Link, Obstacle::DanglingLink,
                    Obstacle::Socket),
    [](const auto& by) { return OBSTACLE_NAMES[static_cast<int>(by.param)]; });

INSTANTIATE_TEST_SUITE_P(By, OccupiedName,
                         testing::Values(Obstacle::Fifo, Obstacle::File, Obstacle::Folder, Obstacle::Link,
                                         Obstacle::DanglingLink, Obstacle::Socket),
                         [](const auto& by) { return OBSTACLE_NAMES[static_cast<int>(by.param)]; });
