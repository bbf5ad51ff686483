// CMIntf's event thread: connects, reads completions, starts what is queued, times out, pings.
#include "MIntf.h"
#include "MIntfSide.h"
#include "PipeWait.h"
#include "ZelMediaStreamImpl.h"

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

using namespace OrvLogLib;

namespace
{
const unsigned int FIRST_WAIT_MS = 100;
const unsigned int WAIT_MS = 1000;
const uint64_t PING_AFTER_MS = 20000;
const int IDLE_LINE_PASSES = 60;

CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON completionReason(MICMD micmd)
{
    switch (micmd)
    {
    case MICMD_PLAYCLIP:
    case MICMD_PLAYFILE: return CZelMediaStreamCompletionHandler::MCCR_PLAY;
    case MICMD_RECORDFILE: return CZelMediaStreamCompletionHandler::MCCR_RECORD;
    default: return CZelMediaStreamCompletionHandler::MCCR_OTHER;
    }
}

// Fails while nobody reads the pipe, and, as if nobody did, for anything else under its name: whoever
// may write into /tmp could have us write into another file.
int openPipeForWriting(const char* pszPath)
{
    const int nDescriptor = open(pszPath, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat status;
    if (nDescriptor == -1 || (fstat(nDescriptor, &status) == 0 && S_ISFIFO(status.st_mode)))
        return nDescriptor;
    close(nDescriptor);
    errno = ENXIO;
    return -1;
}

// Whether another event is likely to be there already: reading it at once saves a wait, which costs as
// much as the read. Where events come one by one, few reads are in vain.
class CBurstGuess
{
public:
    bool expected() { return m_bBurst || ++m_nWaits >= WAITS_BETWEEN_TRIES; }
    void seen(bool bRead)
    {
        m_bBurst = bRead;
        m_nWaits = 0;
    }

private:
    static const int WAITS_BETWEEN_TRIES = 16;
    bool m_bBurst = false;
    int m_nWaits = 0;
};
} // namespace

void* CMIntf::eventThread(void* pCMIntf)
{
    const intptr_t nResult = static_cast<CMIntf*>(pCMIntf)->eventThreadFunc();
    return reinterpret_cast<void*>(nResult);
}

int CMIntf::eventThreadFunc()
{
    storeUnlocked(m_bEventThreadRunning, 1);
    ZEL_TRACE(TRACE_INFO, LogLib_Normal, "CMIntf::eventThreadFunc - starting");
    try
    {
        eventLoop();
    }
    catch (...)
    {
        dropAllInHand();
        ZEL_TRACE(TRACE_INFO, LogLib_High, "(Error) CMIntf::eventThreadFunc had an exception");
    }
    const int nResult = ZEL_TRACE(TRACE_INFO, LogLib_Normal, "CMIntf::eventThreadFunc - stopping");
    // From here on finalize may destroy everything.
    storeUnlocked(m_bEventThreadRunning, 0);
    return nResult;
}

void CMIntf::eventLoop()
{
    unsigned int nWaitMs = FIRST_WAIT_MS;
    CBurstGuess burst;
    structMIEVT evt = {};
    for (;;)
    {
        if (burst.expected())
        {
            if (loadUnlocked(m_bEventThreadStop))
                return;
            const bool bRead = read(m_npipeEvt, &evt, sizeof(evt)) > 0;
            burst.seen(bRead);
            if (bRead)
            {
                eventRead(evt);
                continue;
            }
        }
        const int nReady = CPipeWait(m_npipeEvt, nWaitMs).waitReadable();
        const int nError = errno;
        nWaitMs = WAIT_MS;
        if (loadUnlocked(m_bEventThreadStop))
            return;
        if (nReady < 0)
            ZEL_TRACE(TRACE_INFO, LogLib_High, "(Error) CMIntf::eventThreadFunc - error %d", nError);
        else if (nReady == 0)
            idlePass();
        else if (read(m_npipeEvt, &evt, sizeof(evt)) > 0)
            eventRead(evt);
        else
            ZEL_TRACE(TRACE_INFO, LogLib_High, "(Error) CMIntf::eventThreadFunc, error reading event pipe %d", errno);
    }
}

void CMIntf::eventRead(const structMIEVT& evt)
{
    if (evt.s_mievt == MIEVT_DONE)
        doneEventPass(evt);
    reportUntold();
}

void CMIntf::idlePass()
{
    flushLog(); // before anything that may have to wait
    const bool bJustOpened = openRequestPipe();
    if (pingDue(CPortable::GetTickCountULL()))
        ping();

    int nConnectID = -1;
    const bool bConnected = bJustOpened && connectDriver(nConnectID);
    countIdlePass(bConnected, nConnectID);
    if (bConnected)
        reopenClipFiles();

    sweepOverdueCommands();
    reportUntold();
    if (m_nIdleCount > IDLE_LINE_PASSES)
    {
        ZEL_TRACE(TRACE_OPERATION, LogLib_Low,
                  "(Info) CMIntf::eventThreadFunc - select on m_npipeEvt timed out, no data to read ");
    }
}

// Opens the request pipe if it is closed and a driver reads it. True when it was opened just now.
bool CMIntf::openRequestPipe()
{
    {
        CCritSecHold hold(m_pCritSecCMIntf);
        if (m_npipeReq != -1)
            return false;
    }
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::eventThreadFunc, about to open request pipe \"%s\"\n",
              MI_REQUEST_PIPE);
    const int npipeReq = openPipeForWriting(MI_REQUEST_PIPE);
    if (npipeReq == -1)
    {
        ZEL_TRACE(TRACE_INFO, LogLib_High, "(Error) CMIntf::eventThreadFunc, can't open request pipe \"%s\" (%d)",
                  MI_REQUEST_PIPE, errno);
        return false;
    }
    CCritSecHold hold(m_pCritSecCMIntf);
    m_npipeReq = npipeReq;
    return true;
}

bool CMIntf::pingDue(uint64_t ullNow)
{
    CCritSecHold hold(m_pCritSecCMIntf);
    return m_npipeReq != -1 && m_ullLastResponseTick != 0 && ullNow > m_ullLastResponseTick + PING_AFTER_MS;
}

bool CMIntf::connectDriver(int& nConnectID)
{
    structMICMD cmd = {};
    structMIRSP rsp;
    cmd.s_micmd = MICMD_CONNECT;
    copyText(cmd.connect.szRspPipe, m_szRspPipe);
    copyText(cmd.connect.szEvtPipe, m_szEvtPipe);
    if (sendImmediate(&cmd, &rsp) != MCS_OK)
        return false;
    nConnectID = rsp.s_nConnectID;
    ZEL_TRACE(TRACE_INFO, LogLib_Normal,
              "(Info) CMIntf::eventThreadFunc, MICMD_CONNECT returned s_nConnectID = \"%d\", : fileid = (%d)",
              nConnectID, nConnectID);
    return true;
}

// Stores only what this pass obtained: an id that another thread dropped meanwhile stays dropped.
void CMIntf::countIdlePass(bool bConnected, int nConnectID)
{
    CCritSecHold hold(m_pCritSecCMIntf);
    forgetSpareEntries();
    if (bConnected)
        storeUnlocked(m_nConnectID, nConnectID);
    if (m_nIdleCount++ > IDLE_LINE_PASSES)
    {
        ZEL_TRACE(TRACE_INFO, LogLib_Normal, "(Info) CMIntf::eventThreadFunc, m_nConnectID= \"%d\" ", m_nConnectID);
        m_nIdleCount = 0;
    }
}

// A quiet process has the memory that it began with.
void CMIntf::forgetSpareEntries()
{
    m_poolActive.clear();
    m_poolDeadline.clear();
    m_listSpareEntries.clear();
}

void CMIntf::doneEventPass(const structMIEVT& evt)
{
    const int nStreamID = evt.nStreamID;
    ZEL_TRACE(TRACE_INFO, LogLib_Normal,
              "CMIntf::eventThreadFunc, read event, nSequenceID = (%d), nStreamID = (%d), evt %s, stat %d\n",
              static_cast<int>(evt.nSequenceID), nStreamID, MIEVTToString(evt.s_mievt), evt.s_mcstatus);

    structMIEVT evtDone = evt;
    const MCSTATUS mcstatus = getEventMCCSTATUS(&evtDone);
    bool bNotify = true;
    CCommandOwner pcommandCompleted;
    bool bNextPlay = false;
    bool bNextRecord = false;
    {
        CCritSecHold hold(m_pCritSecCMIntf);
        pcommandCompleted = retireCompleted(evt, mcstatus, bNotify);
        if (mcstatus == MCS_OK)
        {
            bNextPlay = takeNextCommand(s_sidePlay, nStreamID);
            bNextRecord = takeNextCommand(s_sideRecord, nStreamID);
            if (!bNextPlay && !bNextRecord)
                updateStreamTiming(nStreamID);
        }
        else
        {
            clearCommandQueuePlay(nStreamID, 0);
            clearCommandQueueRecord(nStreamID);
            if (driverFatalError(mcstatus))
                dropAfterFatalStatus(nStreamID, pcommandCompleted);
            else if (mcstatus == MCS_CANCELLED)
                updateStreamTiming(nStreamID);
        }
    }

    if (pcommandCompleted && bNotify)
    {
        const int nSequenceID = static_cast<int>(pcommandCompleted->m_cmd.nSequenceNo);
        ZEL_TRACE(
            TRACE_INFO, LogLib_Normal,
            " (Info) CMIntf::eventThreadFunc before OnCMIntfCompletion,m_pcomplHandler ,sid = %d, nSequenceID = %d",
            pcommandCompleted->m_nStreamID, nSequenceID);
        if (!reportCompletion(*pcommandCompleted, mcstatus,
                              " (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion ,sid = %d, nSequenceID = %d"))
        {
            ZEL_TRACE(
                TRACE_INFO, LogLib_Normal,
                "Brudel502 (Info) CMIntf::eventThreadFunc OnCMIntfCompletion, pcommandCompleted->m_pcomplHandler is "
                "NULL ,sid = %d, nSequenceID = %d",
                pcommandCompleted->m_nStreamID, nSequenceID);
        }
    }
    pcommandCompleted.reset();
    if (bNextPlay)
        startNextCommand(s_sidePlay);
    if (bNextRecord)
        startNextCommand(s_sideRecord);
}

// Unlinks the active play-side command that the event finishes; null for a late or stale event.
// bNotify: whether its end is to be reported.
CMIntf::CCommandOwner CMIntf::retireCompleted(const structMIEVT& evt, MCSTATUS mcstatus, bool& bNotify)
{
    const auto it = m_mapActiveCommandByStreamIDPlay.find(evt.nStreamID);
    if (it == m_mapActiveCommandByStreamIDPlay.end() || it->second->m_cmd.nSequenceNo != evt.nSequenceID)
        return nullptr;
    CCommand* const pcommand = it->second;
    const int nSequenceNo = static_cast<int>(pcommand->m_cmd.nSequenceNo);
    ZEL_TRACE(
        TRACE_INFO, LogLib_Normal,
        "801(Info) CMIntf::eventThreadFunc:: pcommandCompleted is set for all active cmd, cmd seq %d, done seq %d : "
        "pcommandCompleted=0x%x",
        nSequenceNo, nSequenceNo, addressForLog(pcommand));
    bNotify = pcommand->m_bDone != 0 || mcstatus != MCS_OK;
    ZEL_TRACE(TRACE_INFO, LogLib_Normal, "(Info) CMIntf::eventThreadFunc:: calling remActiveCommand");
    removeFound(evt.nStreamID, evt.nSequenceID, 0, it, m_mapActiveCommandByStreamIDRecord.end());
    return CCommandOwner(pcommand);
}

// The pipes are lost: the stream becomes unusable, and no completion is delivered.
void CMIntf::dropAfterFatalStatus(int nStreamID, CCommandOwner& pcommandCompleted)
{
    markStreamInvalid(nStreamID);
    if (pcommandCompleted)
    {
        ZEL_TRACE(TRACE_INFO, LogLib_Normal,
                  "(Info) CMIntf::eventThreadFunc:: pcommandCompleted->m_pcomplHandler is set to NULL");
        pcommandCompleted->m_pcomplHandler = nullptr;
        // The play side was retired before; a record still active is unlinked now and has no owner.
        const CCommandOwner pcommandRecord(activeCommand(s_sideRecord, nStreamID));
        remActiveCommand(nStreamID, static_cast<int>(ANY_SEQUENCE_NO), 0);
        pcommandCompleted.reset();
    }
    ZEL_TRACE(TRACE_INFO, LogLib_High,
              "test124 (Error) CMIntf::eventThreadFunc, driverFatalError, setting mcstatus = MCS_INVALIDHANDLE");
}

void CMIntf::updateStreamTiming(int nStreamID)
{
    const auto it = m_mapStreamByStreamID.find(nStreamID);
    if (it != m_mapStreamByStreamID.end())
        it->second->freezePlayTime(CPortable::GetTickCountULL());
}

// Tells the command's handler, if it has one. pszFormat is the line that precedes the call.
bool CMIntf::reportCompletion(const CCommand& command, MCSTATUS mcstatus, const char* pszFormat)
{
    if (!command.m_pcomplHandler)
        return false;
    ZEL_TRACE(TRACE_INFO, LogLib_Normal, pszFormat, command.m_nStreamID, static_cast<int>(command.m_cmd.nSequenceNo));
    command.m_pcomplHandler->OnCMIntfCompletion(command.m_nStreamID, mcstatus, completionReason(command.m_cmd.s_micmd));
    return true;
}
