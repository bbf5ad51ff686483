// CMIntf from construction to shutdown: log, locks, pipes, event thread; ping and alarms.
#include "MIntf.h"
#include "ReadSection.h"
#include "ZelMediaStreamImpl.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

using namespace OrvLogLib;

CMIntf* g_pmintf = nullptr;

namespace
{
const long ALARM_EVENT_ID = static_cast<long>(0xC1030190);

// The constructors of platform objects may run out of memory in ways of their own; to the
// interface each of them is an object that could not be had.
template <class T, class... ARGUMENTS> T* createOrNull(ARGUMENTS&&... arguments) noexcept
{
    try
    {
        return new T(std::forward<ARGUMENTS>(arguments)...);
    }
    catch (...)
    {
        return nullptr;
    }
}

// A thread that holds the main lock writes events for all active commands at a time, so their pipe
// takes as many as the system allows.
void enlargePipe(int nDescriptor)
{
    for (int nBytes = 4 << 20; nBytes > 64 << 10; nBytes /= 2)
        if (fcntl(nDescriptor, F_SETPIPE_SZ, nBytes) >= 0)
            return;
}
} // namespace

CMIntf::CMIntf()
    : m_pCritSecCMIntf(nullptr), m_bEventThreadRunning(0), m_bEventThreadStop(0), m_szRspPipe(), m_szEvtPipe(),
      m_npipeReq(-1), m_npipeRsp(-1), m_npipeEvt(-1), m_nConnectID(-1), m_ullLastResponseTick(0), m_nNextFileID(1),
      m_pCritSecClipFiles(nullptr), m_pLogFile(nullptr), m_pLogFileRegistry(nullptr), m_nNextSequenceNo(1),
      m_nIdleCount(0)
{
    initialize();
}

CMIntf::~CMIntf()
{
    finalize();
}

MCSTATUS CMIntf::initialize() NO_THREAD_SAFETY_ANALYSIS
{
    m_pLogFile = createOrNull<CLogFile>("Media", "Media", false, true, true);
    if (m_pLogFile)
    {
        const char* const pszNone = nullptr;
        m_pLogFileRegistry = createOrNull<CLogFileRegistry>(m_pLogFile, "Media", pszNone, pszNone, pszNone, 0, 1, 100,
                                                            1000, 3, 1023, 0, 1023, 0, 10000, 0, 1, 40000, 1, 0);
    }
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::initialize");

    signal(SIGPIPE, SIG_IGN);
    m_ullLastResponseTick = CPortable::GetTickCountULL();

    m_pCritSecCMIntf = createOrNull<ZelCritSec>("CMIntf", 1);
    if (!m_pCritSecCMIntf)
        return MCS_LOCKFAILED;
    m_pCritSecClipFiles = createOrNull<ZelCritSec>("CMIntfClipFiles", 1);
    if (!m_pCritSecClipFiles)
        return MCS_LOCKFAILED;

    const int nProcessID = CPortable::GetCurrentProcessId();
    const size_t NAME_LIMIT = MI_PIPE_NAME_SIZE - 1;

    snprintf(m_szRspPipe, NAME_LIMIT, "%s%d", MI_RESPONSE_PIPE_PREFIX, nProcessID);
    if (!createPipe(m_szRspPipe, "(Error) CMIntf::initialize, can't create response pipe \"%s\" (%d)"))
        return MCS_PIPECREATE;
    if (!openPipe(m_szRspPipe, "(Error) CMIntf::initialize, can't open response pipe \"%s\" (%d)", m_npipeRsp))
    {
        unlink(m_szRspPipe);
        m_szRspPipe[0] = '\0';
        return MCS_PIPEOPEN;
    }

    snprintf(m_szEvtPipe, NAME_LIMIT, "%s%d", MI_EVENT_PIPE_PREFIX, nProcessID);
    if (!createPipe(m_szEvtPipe, "(Error) CMIntf::initialize, can't create event pipe \"%s\" (%d)"))
        return MCS_PIPECREATE;
    if (!openPipe(m_szEvtPipe, "(Error) CMIntf::initialize, can't open event pipe \"%s\" (%d)", m_npipeEvt))
    {
        unlink(m_szRspPipe);
        unlink(m_szEvtPipe);
        m_szRspPipe[0] = '\0';
        m_szEvtPipe[0] = '\0';
        return MCS_PIPEOPEN;
    }
    enlargePipe(m_npipeEvt);

    storeUnlocked(m_bEventThreadRunning, 1);
    if (!CPortable::CreateThread(eventThread, this, nullptr, ""))
    {
        storeUnlocked(m_bEventThreadRunning, 0);
        ZEL_TRACE(TRACE_INFO, LogLib_High, "(Error) CMIntf::initialize, CPortable::CreateThread - 0x%08X",
                  static_cast<unsigned int>(MCS_THREADFAILED));
        return MCS_THREADFAILED;
    }
    return MCS_OK;
}

// The error lines name the response pipe, whichever pipe failed: log scanners match them so.
bool CMIntf::createPipe(const char* pszPath, const char* pszErrorFormat)
{
    if (mknod(pszPath, S_IFIFO | 0666, 0) == 0)
        return true;
    ZEL_TRACE(TRACE_INFO, LogLib_High, pszErrorFormat, m_szRspPipe, errno);
    return false;
}

// Opened for reading and writing, so that the open never waits and the pipe never ends. Writes must
// not wait either: an event that does not fit is a failed write.
bool CMIntf::openPipe(const char* pszPath, const char* pszErrorFormat, int& nDescriptor)
{
    nDescriptor = open(pszPath, O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (nDescriptor >= 0)
        return true;
    ZEL_TRACE(TRACE_INFO, LogLib_High, pszErrorFormat, m_szRspPipe, errno);
    return false;
}

void CMIntf::closeDescriptor(int& nDescriptor)
{
    if (nDescriptor != -1)
        close(nDescriptor);
    nDescriptor = -1;
}

MCSTATUS CMIntf::finalize() NO_THREAD_SAFETY_ANALYSIS
{
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::finalize");
    storeUnlocked(m_bEventThreadStop, 1);

    if (m_npipeEvt != -1)
    {
        structMIEVT evt = {};
        evt.s_mievt = MIEVT_NULL;
        errno = 0;
        // A pipe too full for the record wakes the thread as well as the record would.
        if (sendEvent(&evt) == MCS_OK || errno == EAGAIN)
            while (loadUnlocked(m_bEventThreadRunning))
                CPortable::Sleep(100);
        closeDescriptor(m_npipeEvt);
    }

    {
        CCritSecHold hold(m_pCritSecCMIntf);
        clearActiveCommands(MCS_OK);
        clearCommandQueues();
    }

    if (m_nConnectID != -1)
    {
        structMICMD cmd = {};
        structMIRSP rsp;
        cmd.s_micmd = MICMD_DISCONNECT;
        cmd.nConnectID = m_nConnectID;
        sendImmediate(&cmd, &rsp);
        storeUnlocked(m_nConnectID, -1);
    }

    closeDescriptor(m_npipeReq);
    closeDescriptor(m_npipeRsp);
    if (m_szRspPipe[0])
        unlink(m_szRspPipe);
    if (m_szEvtPipe[0])
        unlink(m_szEvtPipe);

    delete std::exchange(m_pCritSecCMIntf, nullptr);
    delete std::exchange(m_pCritSecClipFiles, nullptr);
    replaceLogFile(nullptr);
    replaceLogFileRegistry(nullptr);

    storeUnlocked(m_bEventThreadStop, 0);
    return MCS_OK;
}

MCSTATUS CMIntf::sendEvent(structMIEVT* evt)
{
    ZEL_TRACE(TRACE_INFO, LogLib_Normal, "CMIntf::sendEvent, evt %d", static_cast<int>(evt->s_mievt));
    if (m_npipeEvt == -1)
        return MCS_PIPEWRITE;
    if (write(m_npipeEvt, evt, sizeof(*evt)) < 0)
    {
        const int nError = errno;
        ZEL_TRACE(TRACE_INFO, LogLib_High, "(Error) CMIntf::sendEvent, error writing event pipe %d", nError);
        errno = nError;
        return MCS_PIPEWRITE;
    }
    return MCS_OK;
}

MCSTATUS CMIntf::ping()
{
    structMICMD cmd = {};
    structMIRSP rsp;
    cmd.s_micmd = MICMD_PING;
    cmd.nConnectID = connectID();
    return sendImmediate(&cmd, &rsp);
}

long CMIntf::markStreamInvalid(int nStreamID)
{
    const int nError = errno;
    const auto it = m_mapStreamByStreamID.find(nStreamID);
    if (it != m_mapStreamByStreamID.end())
    {
        it->second->invalidate();
        ZEL_TRACE(TRACE_INFO, LogLib_High,
                  "(Error) CMIntf::markStreamInvalid, cannot open/create/read/write pipe, errrno= %d", nError);
    }
    return raiseAlarm("ZelMediaServices CMIntf::markStreamInvalid, cannot open/create/read/write pipe");
}

// Most calls of a process that does not trace end at the mask.
int CMIntf::trace(unsigned long ulMask, LogLib_Priority priority, const char* pszFormat, ...) noexcept
{
    const CReadSection section;
    CLogFile* const pLogFile = loadUnlocked(m_pLogFile);
    if (!pLogFile || (pLogFile->traceMask() & ulMask) == 0)
        return 0;
    va_list arguments;
    va_start(arguments, pszFormat);
    const int nResult = traceInto(*pLogFile, ulMask, priority, pszFormat, arguments);
    va_end(arguments);
    return nResult;
}

int CMIntf::traceInto(CLogFile& logFile, unsigned long ulMask, LogLib_Priority priority, const char* pszFormat,
                      va_list arguments) noexcept
{
    try
    {
        return logFile.TraceStringArgList(ulMask, priority, pszFormat, arguments);
    }
    catch (...)
    {
        // The application's log file threw: its line is lost, the call that wrote it is not.
        return 0;
    }
}

void traceOperation(const char* pszFormat, ...) noexcept
{
    CMIntf* const pmintf = driverInterface();
    const CReadSection section;
    CLogFile* const pLogFile = pmintf ? loadUnlocked(pmintf->m_pLogFile) : nullptr;
    if (!pLogFile || (pLogFile->traceMask() & TRACE_OPERATION) == 0)
        return;
    va_list arguments;
    va_start(arguments, pszFormat);
    CMIntf::traceInto(*pLogFile, TRACE_OPERATION, LogLib_Normal, pszFormat, arguments);
    va_end(arguments);
}

void CMIntf::flushLog() noexcept
{
    const CReadSection section;
    if (CLogFile* const pLogFile = loadUnlocked(m_pLogFile))
        pLogFile->flush();
}

long CMIntf::raiseAlarm(const char* pszText) noexcept
{
    CReadSection section;
    CLogFile* const pLogFile = loadUnlocked(m_pLogFile);
    try
    {
        return pLogFile ? pLogFile->ReportEventToWIN32Log(ALARM_EVENT_ID, 1, 0, &pszText, nullptr) : 0;
    }
    catch (...)
    {
        return 0;
    }
}

void CMIntf::replaceLogFile(CLogFile* pLogFile)
{
    CLogFile* const pReplaced = exchangeUnlocked(m_pLogFile, pLogFile);
    if (pReplaced == pLogFile)
        return;
    CReadSection::waitForReaders();
    delete pReplaced;
}

void CMIntf::replaceLogFileRegistry(CLogFileRegistry* pLogFileRegistry)
{
    CLogFileRegistry* const pReplaced = exchangeUnlocked(m_pLogFileRegistry, pLogFileRegistry);
    if (pReplaced != pLogFileRegistry)
        delete pReplaced;
}
