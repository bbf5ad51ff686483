// CMIntf::finalize, and the small operations: events to itself, alarms, the log in use.
#include "ExpectedLines.h"
#include "MIntfFixture.h"
#include "PlatformSeams.h"
#include "ZelMediaServicesImpl.h"
#include "ZelMediaStreamImpl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace OrvLogLib;

namespace
{
bool isOpen(int nDescriptor)
{
    return fcntl(nDescriptor, F_GETFD) != -1;
}

// Tells when it is destroyed, and what is left of its owner then.
class CDyingLog : public CLogCapture
{
public:
    CDyingLog(std::shared_ptr<CLogRecord> pRecord, std::function<void()> onEnd)
        : CLogCapture(std::move(pRecord)), m_onEnd(std::move(onEnd))
    {
    }
    ~CDyingLog() override { m_onEnd(); }

private:
    const std::function<void()> m_onEnd;
};

class CDyingRegistry : public CLogFileRegistry
{
public:
    explicit CDyingRegistry(std::function<void()> onEnd)
        : CLogFileRegistry(nullptr, "Dying", nullptr, nullptr, nullptr, 0, 1, 100, 1000, 3, 1023, 0, 1023, 0, 10000, 0,
                           1, 40000, 1, 0),
          m_onEnd(std::move(onEnd))
    {
    }
    ~CDyingRegistry() override { m_onEnd(); }

private:
    const std::function<void()> m_onEnd;
};

class CThrowingLog : public CLogCapture
{
public:
    using CLogCapture::CLogCapture;
    int LogStringArgListX(LogLib_Priority, const char*, const char*, va_list) override
    {
        throw std::runtime_error("line");
    }
    long ReportEventToWIN32Log(long, unsigned short, unsigned long, const char**, void*) override { throw 1; }
};

class CAlarmLog : public CLogCapture
{
public:
    using CLogCapture::CLogCapture;
    long ReportEventToWIN32Log(long, unsigned short, unsigned long, const char**, void*) override { return 4711; }
};
} // namespace

class MIntfLifecycle : public CMIntfTest
{
protected:
    void fillEventPipe()
    {
        ASSERT_NE(0, fcntl(m_pmintf->m_npipeEvt, F_GETFL) & O_NONBLOCK);
        const char szFill[16] = {};
        while (write(m_pmintf->m_npipeEvt, szFill, sizeof(szFill)) > 0)
        {
        }
    }

    void closeEventPipe()
    {
        close(m_pmintf->m_npipeEvt);
        m_pmintf->m_npipeEvt = -1;
    }

    // Stands in for the event thread until it is told to stop.
    std::thread threadUntilStop(const std::function<void()>& beforeEnd)
    {
        m_pmintf->m_bEventThreadRunning = 1;
        return std::thread([this, beforeEnd] {
            while (!loadUnlocked(m_pmintf->m_bEventThreadStop))
                std::this_thread::yield();
            beforeEnd();
            storeUnlocked(m_pmintf->m_bEventThreadRunning, 0);
        });
    }
};

TEST_F(MIntfLifecycle, LocksAreNamedReentrantAndKeepTheirOwner)
{
    EXPECT_STREQ("CMIntf", m_pmintf->m_pCritSecCMIntf->name());
    EXPECT_STREQ("CMIntfClipFiles", m_pmintf->m_pCritSecClipFiles->name());
    for (ZelCritSec* const pCritSec : {m_pmintf->m_pCritSecCMIntf, m_pmintf->m_pCritSecClipFiles})
    {
        pCritSec->enter(11);
        pCritSec->enter(12);
        EXPECT_EQ(2, pCritSec->depth());
        EXPECT_EQ(gettid(), pCritSec->owner());
        EXPECT_EQ(12, pCritSec->enterTag());
        pCritSec->leave(13);
        pCritSec->leave(14);
        EXPECT_EQ(0, pCritSec->depth());
    }
}

TEST_F(MIntfLifecycle, FinalizeWakesTheEventThreadAndWaitsUntilItHasEnded)
{
    const int npipeEvt = m_pmintf->m_npipeEvt;
    structMIEVT evt = {};
    evt.s_mievt = MIEVT_DONE;
    size_t nCleared = 1;
    std::thread thread = threadUntilStop([&] {
        pollfd entry = {npipeEvt, POLLIN, 0};
        if (poll(&entry, 1, 30000) != 1 || read(npipeEvt, &evt, sizeof(evt)) != 16)
            ADD_FAILURE() << "no event came";
        nCleared = m_pLog->count("clearActiveCommand ENTRY");
    });
    m_pmintf->m_nConnectID = -1;
    EXPECT_EQ(MCS_OK, m_pmintf->finalize());
    thread.join();
    EXPECT_EQ(MIEVT_NULL, evt.s_mievt);
    EXPECT_EQ(0u, nCleared);
    EXPECT_EQ(0, m_pmintf->m_bEventThreadStop);
}

TEST_F(MIntfLifecycle, FinalizeStopsARealEventThread)
{
    seams::setThreads(seams::Threads::Real);
    auto pmintf = std::make_unique<CMIntf>(); // has the names of the fixture's pipes, so it has no thread
    EXPECT_EQ(0, pmintf->m_bEventThreadRunning);
    pmintf.reset();
    unlink(m_pmintf->m_szRspPipe);
    unlink(m_pmintf->m_szEvtPipe);

    pmintf = std::make_unique<CMIntf>();
    pmintf->replaceLogFile(new CLogCapture(m_pLog));
    EXPECT_EQ(MCS_OK, pmintf->finalize());
    EXPECT_EQ(0, pmintf->m_bEventThreadRunning);
    const std::vector<std::string> vTexts = m_pLog->texts();
    const auto stopping = std::find(vTexts.begin(), vTexts.end(), "CMIntf::eventThreadFunc - stopping");
    ASSERT_NE(vTexts.end(), stopping);
    EXPECT_NE(vTexts.end(), std::find(stopping, vTexts.end(), clearActiveLine().strText));
}

TEST_F(MIntfLifecycle, FinalizeDoesNotWaitWhenTheEventPipeIsClosed)
{
    closeEventPipe();
    m_pmintf->m_bEventThreadRunning = 1; // for ever
    m_pmintf->m_nConnectID = -1;
    EXPECT_EQ(MCS_OK, m_pmintf->finalize());
    EXPECT_EQ((CLogLines{{8, 2, "CMIntf::finalize"}, clearActiveLine()}), m_pLog->lines());
}

TEST_F(MIntfLifecycle, FinalizeDoesNotWaitWhenTheThreadCannotBeWoken)
{
    closeEventPipe();
    m_pmintf->m_npipeEvt = open("/dev/null", O_RDONLY | O_CLOEXEC);
    m_pmintf->m_bEventThreadRunning = 1; // for ever
    m_pmintf->m_nConnectID = -1;
    EXPECT_EQ(MCS_OK, m_pmintf->finalize());
    EXPECT_EQ((CLogLines{{8, 2, "CMIntf::finalize"}, wakeUpLine(0), wakeUpFailedLine(EBADF), clearActiveLine()}),
              m_pLog->lines());
    EXPECT_EQ(-1, m_pmintf->m_npipeEvt);
}

TEST_F(MIntfLifecycle, FullEventPipeNeitherBlocksFinalizeNorLetsItOvertakeTheThread)
{
    fillEventPipe();
    size_t nCleared = 1;
    std::thread thread = threadUntilStop([&] {
        if (!m_pLog->waitFor("error writing event pipe"))
            ADD_FAILURE() << "nothing was written";
        nCleared = m_pLog->count("clearActiveCommand ENTRY");
    });
    m_pmintf->m_nConnectID = -1;
    EXPECT_EQ(MCS_OK, m_pmintf->finalize());
    thread.join();
    EXPECT_EQ(0u, nCleared);
}

TEST_F(MIntfLifecycle, FinalizeClearsCommandsThenDisconnectsThenClosesAndRemovesThePipes)
{
    CHandlerRecorder handler;
    const CMIntf::CCommand* const pplay = sendCommand(5, MICMD_PLAYFILE, 300, &handler);
    const CLogLine queuedLine = destroyedLine(sendCommand(5, MICMD_PLAYCLIP, 300, &handler));
    const CLogLine playLine = destroyedLine(pplay);
    const CLogLines vRemoval = removalLines(5, 1, pplay, nullptr);
    const CLogLines vDirect = directRemovalLines(addressOf(pplay));
    takeRequests();
    m_pLog->clear();
    const int anDescriptors[] = {m_pmintf->m_npipeReq, m_pmintf->m_npipeRsp, m_pmintf->m_npipeEvt};
    respondNext(MIRSP_STATUS, MISTATUS_FAILED); // the status of the disconnect does not count

    EXPECT_EQ(MCS_OK, m_pmintf->finalize());

    const std::string strDisconnect = createdAddresses(m_pLog->lines()).at(0);
    EXPECT_EQ((CLogLines{{8, 2, "CMIntf::finalize"}, wakeUpLine(0), clearActiveLine(), wakeUpLine(1)}) + vRemoval +
                  vDirect + (CLogLines{playLine, queuedLine}) +
                  immediateRefusedLines(strDisconnect, "MICMD_DISCONNECT", 2),
              m_pLog->lines());
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_DISCONNECT, vRequests[0].s_micmd);
    EXPECT_TRUE(vRequests[0].nConnectID == CONNECT_ID);
    EXPECT_TRUE(handler.m_vReports.empty());

    for (const int nDescriptor : anDescriptors)
        EXPECT_FALSE(isOpen(nDescriptor));
    EXPECT_EQ(-1, m_pmintf->m_npipeReq);
    EXPECT_EQ(-1, m_pmintf->m_npipeRsp);
    EXPECT_EQ(-1, m_pmintf->m_npipeEvt);
    EXPECT_EQ(-1, m_pmintf->m_nConnectID);
    EXPECT_NE(0, m_pmintf->m_szRspPipe[0]);
    EXPECT_NE(0, m_pmintf->m_szEvtPipe[0]);
    EXPECT_NE(0, access(m_pmintf->m_szRspPipe, F_OK));
    EXPECT_NE(0, access(m_pmintf->m_szEvtPipe, F_OK));
}

TEST_F(MIntfLifecycle, FinalizeWithoutAConnectionSendsNothing)
{
    m_pmintf->m_nConnectID = -1;
    EXPECT_EQ(MCS_OK, m_pmintf->finalize());
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(1u, m_pmintf->m_nNextSequenceNo);
}

TEST_F(MIntfLifecycle, FinalizeRemovesOnlyPipesThatItHasNamesOf)
{
    const std::string strRspPipe = m_pmintf->m_szRspPipe;
    const std::string strEvtPipe = m_pmintf->m_szEvtPipe;
    m_pmintf->m_szRspPipe[0] = '\0';
    m_pmintf->m_nConnectID = -1;
    m_pmintf->finalize();
    EXPECT_EQ(0, access(strRspPipe.c_str(), F_OK));
    EXPECT_NE(0, access(strEvtPipe.c_str(), F_OK));
    unlink(strRspPipe.c_str());
}

TEST_F(MIntfLifecycle, LogIsDeletedAfterTheLocksAndBeforeItsRegistry)
{
    std::vector<std::string> vDeleted;
    bool bLocksGone = false;
    m_pmintf->replaceLogFile(new CDyingLog(
        m_pLog,
        [&] {
            vDeleted.push_back("log");
            bLocksGone = !m_pmintf->m_pCritSecCMIntf && !m_pmintf->m_pCritSecClipFiles;
        }));
    m_pmintf->replaceLogFileRegistry(new CDyingRegistry([&] { vDeleted.push_back("registry"); }));
    m_pmintf->m_nConnectID = -1;
    EXPECT_TRUE(vDeleted.empty());
    m_pmintf->finalize();
    EXPECT_EQ((std::vector<std::string>{"log", "registry"}), vDeleted);
    EXPECT_TRUE(bLocksGone);
    EXPECT_EQ(nullptr, m_pmintf->m_pCritSecCMIntf);
    EXPECT_EQ(nullptr, m_pmintf->m_pCritSecClipFiles);
    EXPECT_EQ(nullptr, m_pmintf->m_pLogFile);
    EXPECT_EQ(nullptr, m_pmintf->m_pLogFileRegistry);
}

TEST_F(MIntfLifecycle, StreamsAndClipFilesAreNotDestroyed)
{
    CZelMediaStreamImpl stream;
    CMIntf::CClipFile clipFile;
    m_pmintf->m_mapStreamByStreamID[3] = &stream;
    m_pmintf->m_mapClipFileByID[1] = &clipFile;
    m_pmintf->m_nConnectID = -1;
    m_pmintf->finalize();
    EXPECT_EQ(&stream, m_pmintf->m_mapStreamByStreamID.at(3));
    EXPECT_EQ(&clipFile, m_pmintf->m_mapClipFileByID.at(1));
    EXPECT_EQ(1, clipFile.m_nUseCount);
}

TEST_F(MIntfLifecycle, SecondServicesObjectSharesTheInterface)
{
    CMIntf* const pmintfOfFixture = g_pmintf;
    m_pmintf->m_nConnectID = -1;
    m_pmintf->finalize(); // makes room for the names of the pipes
    g_pmintf = nullptr;
    CZelMediaServicesImpl servicesFirst(nullptr);
    CMIntf* const pmintf = g_pmintf;
    ASSERT_NE(nullptr, pmintf);
    const int npipeEvt = pmintf->m_npipeEvt;
    EXPECT_NE(-1, npipeEvt);
    {
        CZelMediaServicesImpl servicesSecond(nullptr);
        EXPECT_EQ(pmintf, g_pmintf);
        EXPECT_EQ(npipeEvt, pmintf->m_npipeEvt);
        EXPECT_FALSE(isOpen(npipeEvt + 1));
    }
    EXPECT_EQ(pmintf, g_pmintf);
    EXPECT_TRUE(isOpen(npipeEvt));
    pmintf->m_bEventThreadRunning = 0;
    delete pmintf;
    g_pmintf = pmintfOfFixture;
}

TEST_F(MIntfLifecycle, SentEventIsTracedAndInThePipe)
{
    structMIEVT evt = {MIEVT_DONE, 1, 2, 3};
    EXPECT_EQ(MCS_OK, m_pmintf->sendEvent(&evt));
    EXPECT_EQ((CLogLines{wakeUpLine(1)}), m_pLog->lines());
    EXPECT_EQ(1u, takeEvents().size());
}

TEST_F(MIntfLifecycle, EventWithoutAPipeFailsWithItsFirstLineAlone)
{
    closeEventPipe();
    structMIEVT evt = {MIEVT_NULL, 1, 2, 3};
    EXPECT_EQ(MCS_PIPEWRITE, m_pmintf->sendEvent(&evt));
    EXPECT_EQ((CLogLines{wakeUpLine(0)}), m_pLog->lines());
}

TEST_F(MIntfLifecycle, FullEventPipeFailsTheEventAtOnce)
{
    fillEventPipe();
    structMIEVT evt = {MIEVT_DONE, 1, 2, 3};
    EXPECT_EQ(MCS_PIPEWRITE, m_pmintf->sendEvent(&evt));
    EXPECT_EQ((CLogLines{wakeUpLine(1), wakeUpFailedLine(EAGAIN)}), m_pLog->lines());
}

TEST_F(MIntfLifecycle, ShortEventWriteCountsAsWritten)
{
    // A file that may not grow beyond 8 bytes stands in for the pipe.
    closeEventPipe();
    m_pmintf->m_npipeEvt = open("/tmp/short-event", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &limit));
    const rlimit limitSmall = {8, limit.rlim_max};
    structMIEVT evt = {MIEVT_DONE, 1, 2, 3};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limitSmall));
    const MCSTATUS mcstatus = m_pmintf->sendEvent(&evt);
    setrlimit(RLIMIT_FSIZE, &limit);
    unlink("/tmp/short-event");
    EXPECT_EQ(MCS_OK, mcstatus);
    EXPECT_EQ((CLogLines{wakeUpLine(1)}), m_pLog->lines());
}

TEST_F(MIntfLifecycle, PingReturnsTheStatusOfItsRequest)
{
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->ping());
    EXPECT_EQ(immediateLines(createdAddresses(m_pLog->lines()).at(0), "MICMD_PING", 1), m_pLog->lines());
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_pmintf->ping());
    disconnect();
    EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->ping());
}

TEST_F(MIntfLifecycle, InvalidStreamIsUnusableTracedAndAnAlarm)
{
    CZelMediaStreamImpl stream;
    CZelMediaStreamImpl streamOther;
    stream.m_bInitialized = streamOther.m_bInitialized = 1;
    m_pmintf->m_mapStreamByStreamID = {{3, &stream}, {4, &streamOther}};
    {
        CCritSecHold hold(m_pmintf->m_pCritSecCMIntf);
        errno = EPIPE;
        EXPECT_EQ(1, m_pmintf->markStreamInvalid(3));
    }
    EXPECT_EQ(
        (CLogLines{
            {1, 64, text("(Error) CMIntf::markStreamInvalid, cannot open/create/read/write pipe, errrno= %d", EPIPE)}}),
        m_pLog->lines());
    const std::vector<CAlarm> vAlarms = m_pLog->alarms();
    ASSERT_EQ(1u, vAlarms.size());
    EXPECT_EQ(0xC1030190u, vAlarms[0].nEventID);
    EXPECT_EQ(
        (std::vector<std::string>{"ZelMediaServices CMIntf::markStreamInvalid, cannot open/create/read/write pipe"}),
        vAlarms[0].vStrings);
    EXPECT_EQ(0u, vAlarms[0].ulDataSize);
    EXPECT_TRUE(vAlarms[0].bDataNull);

    EXPECT_EQ(0, stream.m_bInitialized);
    EXPECT_EQ(MCS_NOTINITIALIZED, stream.playCancel());
    EXPECT_EQ(1, streamOther.m_bInitialized);
    m_pmintf->m_mapStreamByStreamID.clear();
}

TEST_F(MIntfLifecycle, UnknownInvalidStreamIsAnAlarmWithoutALine)
{
    m_pmintf->replaceLogFile(new CAlarmLog(m_pLog));
    CCritSecHold hold(m_pmintf->m_pCritSecCMIntf);
    EXPECT_EQ(4711, m_pmintf->markStreamInvalid(3));
    EXPECT_TRUE(m_pLog->lines().empty());
}

TEST_F(MIntfLifecycle, LogThatThrowsLosesItsLineAndNothingElse)
{
    m_pmintf->replaceLogFile(new CThrowingLog(m_pLog));
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->ping());
    EXPECT_EQ(0, m_pmintf->raiseAlarm("x"));
    m_pmintf->replaceLogFile(nullptr);
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->ping());
    EXPECT_EQ(0, m_pmintf->raiseAlarm("x"));
    EXPECT_TRUE(m_pLog->lines().empty());
}

TEST_F(MIntfLifecycle, ReplacedLogIsDeletedAndTheSameOneIsKept)
{
    int nDeleted = 0;
    CLogFile* const pLogFile = new CDyingLog(m_pLog, [&] { ++nDeleted; });
    m_pmintf->replaceLogFile(pLogFile);
    m_pmintf->replaceLogFile(pLogFile);
    EXPECT_EQ(0, nDeleted);
    m_pmintf->replaceLogFile(new CLogCapture(m_pLog));
    EXPECT_EQ(1, nDeleted);
}
