// CMIntf::initialize: log, locks, pipes, thread; each way in which it fails and what that leaves.
#include "ExpectedLines.h"
#include "MIntfFixture.h"
#include "PlatformSeams.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <new>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using OrvLogLib::CLogFile;

namespace
{
// What the constructors of the log library were given, and how a test changes them.
struct CLogFileArguments
{
    std::string strName;
    std::string strFileName;
    std::vector<bool> vFlags;
};
struct CRegistryArguments
{
    const void* pLogFile = nullptr;
    std::string strName;
    bool bTextsNull = false;
    std::vector<int> vNumbers;
};
const int ALL = -1;
CLogFileArguments s_logFile;
CRegistryArguments s_registry;
int s_nRegistries = 0;
bool s_bNoLogFile = false;
unsigned long s_ulTraceMask = 0; // 0: as the library sets it
int s_nDescriptorsLeft = ALL;    // once the log file is open

// The lowest descriptor that is free.
int freeDescriptor()
{
    const int nDescriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(nDescriptor);
    return nDescriptor;
}

void limitDescriptors(int nLeft)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = static_cast<rlim_t>(freeDescriptor() + nLeft);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
        ADD_FAILURE() << "no limit: " << strerror(errno);
}

typedef void (*LogFileConstructor)(void*, const char*, const char*, bool, bool, bool);
typedef void (*RegistryConstructor)(void*, CLogFile*, const char*, const char*, const char*, const char*, int, int, int,
                                    int, int, int, int, int, int, int, int, int, int, int, int);
} // namespace

// These stand in front of the log library's constructors, like the functions of LogCapture.cpp. The
// names are the linker's.
extern "C"
{
    __attribute__((visibility("default"))) void _ZN9OrvLogLib8CLogFileC1EPKcS2_bbb(void* pThis, const char* pszName,
                                                                                   const char* pszFileName, bool b1,
                                                                                   bool b2, bool b3)
    {
        static const auto constructor =
            reinterpret_cast<LogFileConstructor>(dlsym(RTLD_NEXT, "_ZN9OrvLogLib8CLogFileC1EPKcS2_bbb"));
        if (s_bNoLogFile)
            throw std::bad_alloc();
        s_logFile = {pszName ? pszName : "", pszFileName ? pszFileName : "", {b1, b2, b3}};
        constructor(pThis, pszName, pszFileName, b1, b2, b3);
    }

    __attribute__((visibility("default"))) void
    _ZN9OrvLogLib16CLogFileRegistryC1EPNS_8CLogFileEPKcS4_S4_S4_iiiiiiiiiiiiiii(
        void* pThis, CLogFile* pLogFile, const char* pszName, const char* psz1, const char* psz2, const char* psz3,
        int n1, int n2, int n3, int n4, int n5, int n6, int n7, int n8, int n9, int n10, int n11, int n12, int n13,
        int n14, int n15)
    {
        static const auto constructor = reinterpret_cast<RegistryConstructor>(
            dlsym(RTLD_NEXT, "_ZN9OrvLogLib16CLogFileRegistryC1EPNS_8CLogFileEPKcS4_S4_S4_iiiiiiiiiiiiiii"));
        ++s_nRegistries;
        s_registry = {pLogFile,
                      pszName,
                      !psz1 && !psz2 && !psz3,
                      {n1, n2, n3, n4, n5, n6, n7, n8, n9, n10, n11, n12, n13, n14, n15}};
        constructor(pThis, pLogFile, pszName, psz1, psz2, psz3, n1, n2, n3, n4, n5, n6, n7, n8, n9, n10, n11, n12, n13,
                    n14, n15);
        if (s_ulTraceMask || s_nDescriptorsLeft != ALL)
            pLogFile->TraceString(1023, OrvLogLib::LogLib_Normal, "opened");
        if (s_ulTraceMask)
            pLogFile->setTraceMask(s_ulTraceMask);
        if (s_nDescriptorsLeft != ALL)
            limitDescriptors(s_nDescriptorsLeft);
    }
}

// Each test starts an interface of its own, without its event thread.
class MIntfStart : public testing::Test
{
protected:
    MIntfStart()
    {
        seams::setThreads(seams::Threads::Pretend);
        getrlimit(RLIMIT_NOFILE, &m_limit);
        const std::string strProcessID = std::to_string(getpid());
        m_strRspPipe = "/tmp/OrvMediaIntf-Rsp-p" + strProcessID;
        m_strEvtPipe = "/tmp/OrvMediaIntf-Evt-p" + strProcessID;
        m_strLog = "/Media-p" + strProcessID + ".log";
        m_strLog = (access("/var/log/zelmedia", W_OK | X_OK) == 0 ? "/var/log/zelmedia" : "/tmp") + m_strLog;
    }

    ~MIntfStart() override
    {
        stop();
        seams::setThreads(seams::Threads::Real);
        seams::setProcessID(0);
        seams::realTick();
        s_bNoLogFile = false;
        unlink(m_strRspPipe.c_str());
        unlink(m_strEvtPipe.c_str());
    }

    void start() { m_pmintf = std::make_unique<CMIntf>(); }

    void stop()
    {
        if (m_pmintf)
            storeUnlocked(m_pmintf->m_bEventThreadRunning, 0); // nobody to wait for
        m_pmintf.reset();
    }

    // The status of initialize, in an interface whose constructor's own call is undone.
    MCSTATUS statusOfInitialize(const std::function<void()>& prepare)
    {
        start();
        m_pmintf->m_bEventThreadRunning = 0;
        m_pmintf->finalize();
        m_pmintf->m_szRspPipe[0] = m_pmintf->m_szEvtPipe[0] = '\0';
        prepare();
        return m_pmintf->initialize();
    }

    // What one start writes into the log file. The mask of a line is found by further starts with
    // that trace class alone.
    CLogLines linesOfStart(const std::function<void()>& begin)
    {
        CLogLines vLines = linesOfStart(begin, 1023);
        for (unsigned long ulMask = 1; ulMask < 1024; ulMask *= 2)
        {
            const CLogLines vOfMask = linesOfStart(begin, ulMask);
            for (CLogLine& line : vLines)
            {
                CLogLine lineUnmasked = line;
                lineUnmasked.ulMask = 0;
                if (std::find(vOfMask.begin(), vOfMask.end(), lineUnmasked) != vOfMask.end())
                    line.ulMask |= ulMask;
            }
        }
        return vLines;
    }

    bool exists(const std::string& strPath) const
    {
        struct stat status;
        return lstat(strPath.c_str(), &status) == 0;
    }

    // Starts with that many descriptors left for the pipes: with 1 the event pipe has none.
    void startWithDescriptors(int nLeft)
    {
        s_nDescriptorsLeft = nLeft;
        start();
        unlimitDescriptors();
    }

    void unlimitDescriptors()
    {
        s_nDescriptorsLeft = ALL;
        setrlimit(RLIMIT_NOFILE, &m_limit);
    }

    // Every command of an interface that never connects fails alike.
    void expectEveryCommandNotConnected()
    {
        int nID = 0;
        char szName[] = "x";
        EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->ping());
        EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->dump());
        EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->openStream(nullptr, &nID, szName, 1));
        EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->closeStream(1));
        EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->openFile(szName, &nID));
        EXPECT_EQ(MCS_OK, m_pmintf->closeFile(nID));
        structMICMD cmd = structMICMD();
        structMIRSP rsp;
        cmd.s_micmd = MICMD_PLAYFILE;
        EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->sendCommand(1, &cmd, &rsp, 10, nullptr, 0, 0));
    }

    std::string m_strRspPipe;
    std::string m_strEvtPipe;
    std::string m_strLog;
    std::unique_ptr<CMIntf> m_pmintf;

private:
    rlimit m_limit;

    CLogLines linesOfStart(const std::function<void()>& begin, unsigned long ulMask)
    {
        unlink(m_strLog.c_str());
        s_ulTraceMask = ulMask;
        begin();
        std::ifstream file(m_strLog);
        CLogLines vLines;
        for (std::string strLine; std::getline(file, strLine);)
        {
            // date, time, process, thread, priority, text
            std::istringstream words(strLine);
            std::string strWord;
            words >> strWord >> strWord >> strWord >> strWord;
            CLogLine line = {0, 0, ""};
            words >> line.nPriority;
            words.get();
            std::getline(words, line.strText);
            vLines.push_back(line);
        }
        if (!vLines.empty())
            vLines.erase(vLines.begin()); // "opened"
        stop();
        s_ulTraceMask = 0;
        return vLines;
    }
};

TEST_F(MIntfStart, MembersHaveTheirFirstValues)
{
    seams::freezeTick(987654321);
    start();
    EXPECT_EQ(-1, m_pmintf->m_npipeReq);
    EXPECT_EQ(-1, m_pmintf->m_nConnectID);
    EXPECT_EQ(1, m_pmintf->m_nNextFileID);
    EXPECT_EQ(1u, m_pmintf->m_nNextSequenceNo);
    EXPECT_EQ(0, m_pmintf->m_nIdleCount);
    EXPECT_EQ(0, m_pmintf->m_bEventThreadStop);
    EXPECT_EQ(1, m_pmintf->m_bEventThreadRunning);
    EXPECT_EQ(987654321u, m_pmintf->m_ullLastResponseTick);
    EXPECT_TRUE(m_pmintf->m_mapStreamByStreamID.empty());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
    EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueueRecord.empty());
    EXPECT_TRUE(m_pmintf->m_mapClipFileByID.empty());
    EXPECT_STREQ("", seams::lastThreadName());
}

TEST_F(MIntfStart, WritesOneLineWhenAllIsWell)
{
    EXPECT_EQ((CLogLines{{8, 2, "CMIntf::initialize"}}), linesOfStart([this] { start(); }));
}

TEST_F(MIntfStart, LogFileAndRegistryAreMadeAsTheLogLibraryKnowsThem)
{
    start();
    EXPECT_EQ("Media", s_logFile.strName);
    EXPECT_EQ("Media", s_logFile.strFileName);
    EXPECT_EQ((std::vector<bool>{false, true, true}), s_logFile.vFlags);
    EXPECT_NE(nullptr, m_pmintf->m_pLogFile);
    EXPECT_NE(nullptr, m_pmintf->m_pLogFileRegistry);
    EXPECT_EQ(m_pmintf->m_pLogFile, s_registry.pLogFile);
    EXPECT_EQ("Media", s_registry.strName);
    EXPECT_TRUE(s_registry.bTextsNull);
    EXPECT_EQ((std::vector<int>{0, 1, 100, 1000, 3, 1023, 0, 1023, 0, 10000, 0, 1, 40000, 1, 0}), s_registry.vNumbers);
}

TEST_F(MIntfStart, WithoutALogFileThereIsNoRegistryAndAllElseWorks)
{
    s_bNoLogFile = true;
    s_nRegistries = 0;
    start();
    EXPECT_EQ(nullptr, m_pmintf->m_pLogFile);
    EXPECT_EQ(nullptr, m_pmintf->m_pLogFileRegistry);
    EXPECT_EQ(0, s_nRegistries);
    EXPECT_EQ(1, m_pmintf->m_bEventThreadRunning);
    EXPECT_NE(-1, m_pmintf->m_npipeEvt);
    expectEveryCommandNotConnected();
    CCritSecHold hold(m_pmintf->m_pCritSecCMIntf);
    EXPECT_EQ(0, m_pmintf->markStreamInvalid(1));
}

TEST_F(MIntfStart, BrokenPipesDoNotKillTheProcess)
{
    signal(SIGPIPE, SIG_DFL);
    start();
    EXPECT_EQ(SIG_IGN, signal(SIGPIPE, SIG_IGN));
}

TEST_F(MIntfStart, PipesAreNamedByTheProcess)
{
    start();
    EXPECT_EQ(m_strRspPipe, m_pmintf->m_szRspPipe);
    EXPECT_EQ(m_strEvtPipe, m_pmintf->m_szEvtPipe);
    EXPECT_TRUE(exists(m_strRspPipe));
    EXPECT_TRUE(exists(m_strEvtPipe));
}

TEST_F(MIntfStart, NameOfAProcessOfManyDigitsIsCutAt30Bytes)
{
    seams::setProcessID(123456789);
    start();
    EXPECT_STREQ("/tmp/OrvMediaIntf-Rsp-p1234567", m_pmintf->m_szRspPipe);
    EXPECT_STREQ("/tmp/OrvMediaIntf-Evt-p1234567", m_pmintf->m_szEvtPipe);
    EXPECT_EQ(30u, strlen(m_pmintf->m_szRspPipe));
    EXPECT_TRUE(exists("/tmp/OrvMediaIntf-Rsp-p1234567"));
    EXPECT_TRUE(exists("/tmp/OrvMediaIntf-Evt-p1234567"));
    stop();
    EXPECT_FALSE(exists("/tmp/OrvMediaIntf-Rsp-p1234567"));
    EXPECT_FALSE(exists("/tmp/OrvMediaIntf-Evt-p1234567"));
}

TEST_F(MIntfStart, PipesAreFifosOfMode0666LessTheUmask)
{
    for (const mode_t mask : {mode_t(0), mode_t(027), mode_t(077)})
    {
        const mode_t maskBefore = umask(mask);
        start();
        umask(maskBefore);
        for (const std::string& strPath : {m_strRspPipe, m_strEvtPipe})
        {
            struct stat status;
            ASSERT_EQ(0, lstat(strPath.c_str(), &status));
            EXPECT_EQ(S_IFIFO | (0666 & ~mask), status.st_mode);
        }
        stop();
    }
}

TEST_F(MIntfStart, DescriptorsReadAndWriteAndStayBehindAtExec)
{
    start();
    for (const int nDescriptor : {m_pmintf->m_npipeRsp, m_pmintf->m_npipeEvt})
    {
        EXPECT_EQ(O_RDWR, fcntl(nDescriptor, F_GETFL) & O_ACCMODE);
        EXPECT_NE(0, fcntl(nDescriptor, F_GETFD) & FD_CLOEXEC);
    }
    ASSERT_EQ(0, mkfifo(MI_REQUEST_PIPE, 0600));
    const int nReader = open(MI_REQUEST_PIPE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    structMIRSP rsp = structMIRSP();
    rsp.s_mirsp = MIRSP_CONNECT;
    rsp.nRespSequenceNo = 1;
    rsp.s_nConnectID = -1; // connected to nobody: nothing is sent at the end
    ASSERT_EQ(48, write(m_pmintf->m_npipeRsp, &rsp, sizeof(rsp)));
    m_pmintf->idlePass();
    EXPECT_EQ(O_WRONLY | O_NONBLOCK, fcntl(m_pmintf->m_npipeReq, F_GETFL) & (O_ACCMODE | O_NONBLOCK));
    EXPECT_NE(0, fcntl(m_pmintf->m_npipeReq, F_GETFD) & FD_CLOEXEC);
    close(nReader);
    unlink(MI_REQUEST_PIPE);
}

TEST_F(MIntfStart, EventPipeIsLargerThanPipesAre)
{
    start();
    EXPECT_GT(fcntl(m_pmintf->m_npipeEvt, F_GETPIPE_SZ), 64 << 10);
}

class MIntfStartFailures : public MIntfStart
{
};

TEST_F(MIntfStartFailures, AnythingUnderTheResponsePipesNameIsLeftAlone)
{
    const std::vector<std::function<int()>> vMake = {
        [this] { return mkfifo(m_strRspPipe.c_str(), 0600); },
        [this] { return mkdir(m_strRspPipe.c_str(), 0700); },
        [this] { return symlink("/tmp/nowhere", m_strRspPipe.c_str()); },
        [this] { return symlink("/dev/null", m_strRspPipe.c_str()); },
        [this] { return std::ofstream(m_strRspPipe).good() ? 0 : -1; },
    };
    for (const auto& make : vMake)
    {
        EXPECT_EQ(MCS_PIPECREATE, statusOfInitialize([&] { EXPECT_EQ(0, make()); }));
        struct stat status;
        EXPECT_EQ(0, lstat(m_strRspPipe.c_str(), &status));
        EXPECT_FALSE(exists(m_strEvtPipe));
        EXPECT_FALSE(exists("/tmp/nowhere"));
        EXPECT_EQ(-1, m_pmintf->m_npipeRsp);
        EXPECT_EQ(-1, m_pmintf->m_npipeEvt);
        EXPECT_STREQ("", m_pmintf->m_szEvtPipe);
        EXPECT_EQ(0, m_pmintf->m_bEventThreadRunning);
        stop();
        remove(m_strRspPipe.c_str());
    }
}

TEST_F(MIntfStartFailures, StaleResponsePipeLeavesAnObjectWhoseCommandsAreNotConnected)
{
    const auto startStale = [this] {
        mkfifo(m_strRspPipe.c_str(), 0600);
        start();
    };
    EXPECT_EQ((CLogLines{{8, 2, "CMIntf::initialize"},
                         {1, 64,
                          text("(Error) CMIntf::initialize, can't create response pipe \"%s\" (%d)",
                               m_strRspPipe.c_str(), EEXIST)}}),
              linesOfStart(startStale));
    startStale();
    expectEveryCommandNotConnected();
}

TEST_F(MIntfStartFailures, StaleEventPipeLeavesTheResponsePipeAndIsReportedUnderItsName)
{
    const auto startStale = [this] {
        mkfifo(m_strEvtPipe.c_str(), 0600);
        start();
    };
    EXPECT_EQ((CLogLines{{8, 2, "CMIntf::initialize"},
                         {1, 64,
                          text("(Error) CMIntf::initialize, can't create event pipe \"%s\" (%d)", m_strRspPipe.c_str(),
                               EEXIST)}}),
              linesOfStart(startStale));
    EXPECT_EQ(MCS_PIPECREATE, statusOfInitialize([this] { mkfifo(m_strEvtPipe.c_str(), 0600); }));
    EXPECT_TRUE(exists(m_strRspPipe));
    EXPECT_NE(-1, m_pmintf->m_npipeRsp);
    EXPECT_EQ(m_strRspPipe, m_pmintf->m_szRspPipe);
    EXPECT_EQ(-1, m_pmintf->m_npipeEvt);
    EXPECT_EQ(0, m_pmintf->m_bEventThreadRunning);
    expectEveryCommandNotConnected();
}

TEST_F(MIntfStartFailures, ResponsePipeThatCannotBeOpenedIsRemoved)
{
    EXPECT_EQ((CLogLines{{8, 2, "CMIntf::initialize"},
                         {1, 64,
                          text("(Error) CMIntf::initialize, can't open response pipe \"%s\" (%d)", m_strRspPipe.c_str(),
                               EMFILE)}}),
              linesOfStart([this] { startWithDescriptors(0); }));
    startWithDescriptors(0);
    EXPECT_FALSE(exists(m_strRspPipe));
    EXPECT_FALSE(exists(m_strEvtPipe));
    EXPECT_STREQ("", m_pmintf->m_szRspPipe);
    EXPECT_EQ(-1, m_pmintf->m_npipeRsp);
    EXPECT_EQ(0, m_pmintf->m_bEventThreadRunning);
    expectEveryCommandNotConnected();
}

TEST_F(MIntfStartFailures, EventPipeThatCannotBeOpenedTakesBothPipesAwayAndIsReportedUnderTheResponsePipesName)
{
    EXPECT_EQ((CLogLines{{8, 2, "CMIntf::initialize"},
                         {1, 64,
                          text("(Error) CMIntf::initialize, can't open event pipe \"%s\" (%d)", m_strRspPipe.c_str(),
                               EMFILE)}}),
              linesOfStart([this] { startWithDescriptors(1); }));
    startWithDescriptors(1);
    EXPECT_FALSE(exists(m_strRspPipe));
    EXPECT_FALSE(exists(m_strEvtPipe));
    EXPECT_STREQ("", m_pmintf->m_szRspPipe);
    EXPECT_STREQ("", m_pmintf->m_szEvtPipe);
    EXPECT_NE(-1, m_pmintf->m_npipeRsp);
    EXPECT_EQ(-1, m_pmintf->m_npipeEvt);
    EXPECT_EQ(0, m_pmintf->m_bEventThreadRunning);
    expectEveryCommandNotConnected();
}

TEST_F(MIntfStartFailures, PipesThatCannotBeOpenedHaveAStatusOfTheirOwn)
{
    for (const int nLeft : {0, 1})
    {
        EXPECT_EQ(MCS_PIPEOPEN, statusOfInitialize([nLeft] { s_nDescriptorsLeft = nLeft; }));
        unlimitDescriptors();
        stop();
    }
}

TEST_F(MIntfStartFailures, ThreadThatCannotBeStartedLeavesOpenPipes)
{
    const auto startThreadless = [this] {
        seams::setThreads(seams::Threads::Fail);
        start();
    };
    EXPECT_EQ((CLogLines{{8, 2, "CMIntf::initialize"},
                         {1, 64, "(Error) CMIntf::initialize, CPortable::CreateThread - 0x00000006"}}),
              linesOfStart(startThreadless));
    EXPECT_EQ(MCS_THREADFAILED, statusOfInitialize([] {}));
    EXPECT_EQ(0, m_pmintf->m_bEventThreadRunning);
    EXPECT_NE(-1, m_pmintf->m_npipeRsp);
    EXPECT_NE(-1, m_pmintf->m_npipeEvt);
    EXPECT_TRUE(exists(m_strRspPipe));
    EXPECT_TRUE(exists(m_strEvtPipe));
    expectEveryCommandNotConnected();
}
