// CMIntf's exchange with the driver: one request at a time, answered within ten seconds.
#include "MIntf.h"
#include "PipeWait.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <unistd.h>

using namespace OrvLogLib;

namespace
{
const unsigned int RESPONSE_BUDGET_MS = 10000;
const int MAX_RESPONSES_READ = 5;

bool isImmediate(MICMD micmd)
{
    const CCommandInfo* pInfo = commandInfo(micmd);
    return pInfo && !pInfo->m_bActive;
}
} // namespace

// How an exchange ended. A transport failure is one that leaves the pipes in doubt; a refusal by
// the driver is none.
struct CMIntf::CExchangeResult
{
    MCSTATUS mcstatus;
    bool bTransportFailed;
};

MCSTATUS CMIntf::getResponseMCCSTATUS(structMIRSP* psrsp)
{
    if (psrsp->s_mirsp != MIRSP_STATUS)
        return MCS_OK;
    return psrsp->s_nResult == MISTATUS_FAILED ? MCS_REFUSED : MCS_OK;
}

MCSTATUS CMIntf::getEventMCCSTATUS(structMIEVT* psevt)
{
    return psevt->s_mievt == MIEVT_DONE ? psevt->s_mcstatus : MCS_OK;
}

bool CMIntf::driverFatalError(MCSTATUS mcstatus)
{
    return mcstatus >= MCS_PIPECREATE && mcstatus <= MCS_PIPEWRITE;
}

MCSTATUS CMIntf::sendCommand(int nStreamID, structMICMD* psmicmd, structMIRSP* psrsp, unsigned long ulTimeout,
                             CMIntfCompletionHandler* pcomplHandler, int nNoDone, int bUsePlayQueue)
{
    CCommand* const pcommand = new (std::nothrow) CCommand;
    if (!pcommand)
        return MCS_OUTOFMEMORY;
    ZEL_TRACE(TRACE_INFO, LogLib_Normal, "(Info) CMIntf::sendCommand nStreamID = %d, pcommand = 0x%x", nStreamID,
              addressForLog(pcommand));

    pcommand->m_nStreamID = nStreamID;
    pcommand->m_bDone = nNoDone == 0;
    pcommand->m_nTimeout = static_cast<uint32_t>(ulTimeout);
    pcommand->m_ullTimeoutTick = 0;
    pcommand->m_pcomplHandler = pcomplHandler;
    pcommand->m_cmd = *psmicmd;

    const MCSTATUS mcstatus = sendCommand(pcommand, psrsp, bUsePlayQueue);
    if (mcstatus != MCS_OK)
    {
        ZEL_TRACE(TRACE_INFO, LogLib_Normal,
                  "(Info) CMIntf::sendCommand nStreamID = %d, mcstatus=%d : DELETING pcommand = 0x%x", nStreamID,
                  mcstatus, addressForLog(pcommand));
        delete pcommand;
    }
    return mcstatus;
}

MCSTATUS CMIntf::sendImmediate(structMICMD* psmicmd, structMIRSP* psrsp, int nStreamID)
{
    return sendCommand(nStreamID, psmicmd, psrsp, DEFAULT_TIMEOUT, nullptr, 0, 0);
}

MCSTATUS CMIntf::sendCommand(CCommand* pcommand, structMIRSP* psrsp, int bUsePlayQueue)
{
    const int nStreamID = pcommand->m_nStreamID;
    const MICMD micmd = pcommand->m_cmd.s_micmd;

    int bSend = 0;
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::sendCommand (%d), cmd %s", nStreamID, MICMDToString(micmd));
    memset(psrsp, 0, sizeof(*psrsp));
    CCritSecHold hold(m_pCritSecCMIntf);

    const MCSTATUS mcstatusAdmitted = admitCommand(pcommand, bUsePlayQueue, bSend);
    if (mcstatusAdmitted != MCS_OK || !bSend)
        traceResult(nStreamID, psrsp, mcstatusAdmitted);
    if (mcstatusAdmitted != MCS_OK)
        return mcstatusAdmitted;

    if (bSend)
    {
        // Composed while the event thread was connecting: no driver could answer the id -1.
        if (micmd != MICMD_CONNECT && pcommand->m_cmd.nConnectID == -1)
            pcommand->m_cmd.nConnectID = m_nConnectID;
        const CExchangeResult result = exchange(pcommand->m_cmd, psrsp, nStreamID);
        traceResult(nStreamID, psrsp, result.mcstatus);
        if (result.mcstatus != MCS_OK)
            withdrawCommand(pcommand);
        if (result.bTransportFailed)
            clearAfterTransportFailure(result.mcstatus);
        if (result.mcstatus != MCS_OK)
            return result.mcstatus;
    }

    if (isImmediate(micmd))
    {
        ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::sendCommand deleting pcommand  pcommand=0X%x : cmd %s",
                  addressForLog(pcommand), MICMDToString(micmd));
        delete pcommand;
    }
    return MCS_OK;
}

// Decides whether a command goes out now (bSend 1, numbered), waits in a queue, or fails, and is in no
// container then.
MCSTATUS CMIntf::admitCommand(CCommand* pcommand, int bUsePlayQueue, int& bSend)
{
    const MICMD micmd = pcommand->m_cmd.s_micmd;
    const bool bConnected = m_nConnectID != -1;

    if (!bConnected && micmd != MICMD_CONNECT)
    {
        ZEL_TRACE(TRACE_INFO, LogLib_Normal,
                  " (Error) CMIntf::sendCommand - media driver not running or not connected");
        return MCS_NOTCONNECTED;
    }
    if (bConnected && (bUsePlayQueue || micmd == MICMD_PLAYCLIP || micmd == MICMD_PLAYFILE))
        return processPlayActiveCommand(pcommand, bSend);
    if (bConnected && micmd == MICMD_RECORDFILE)
        return processRecordActiveCommand(pcommand, bSend);

    bSend = 1;
    pcommand->m_cmd.nSequenceNo = m_nNextSequenceNo++;
    return MCS_OK;
}

// Writes the request and reads its response. psrsp is left as the last response read made it.
CMIntf::CExchangeResult CMIntf::exchange(const structMICMD& cmd, structMIRSP* psrsp, int nStreamID)
{
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::sendCommand - sending");
    m_ullLastResponseTick = 0;
    ZEL_TRACE(TRACE_INFO, LogLib_Normal, "(Info) CMIntf::sendCommand, cmd %s, sequence number %lu, m_nStreamID = %d",
              MICMDToString(cmd.s_micmd), static_cast<unsigned long>(cmd.nSequenceNo), nStreamID);

    if (write(m_npipeReq, &cmd, sizeof(cmd)) != static_cast<ssize_t>(sizeof(cmd)))
    {
        ZEL_TRACE(TRACE_INFO, LogLib_High, "(Error) CMIntf::sendCommand, error writing request pipe %d", errno);
        return {MCS_PIPEWRITE, true};
    }
    return awaitResponse(cmd.nSequenceNo, psrsp);
}

CMIntf::CExchangeResult CMIntf::awaitResponse(uint32_t nSequenceNo, structMIRSP* psrsp)
{
    CPipeWait wait(m_npipeRsp, RESPONSE_BUDGET_MS);
    MCSTATUS mcstatus = MCS_OK;
    bool bMatched = false;
    int nTryCount = 0;
    while (!bMatched && nTryCount < MAX_RESPONSES_READ)
    {
        const int nReady = wait.waitReadable();
        if (nReady == 0)
        {
            ZEL_TRACE(TRACE_INFO, LogLib_High, "(Error) CMIntf::sendCommand, timeout reading response pipe %d", errno);
            return {MCS_NORESPONSE, true};
        }
        if (nReady < 0)
        {
            ZEL_TRACE(TRACE_INFO, LogLib_High, "(Error) CMIntf::sendCommand.2, error reading response pipe %d", errno);
            return {MCS_PIPEREAD, true};
        }
        if (read(m_npipeRsp, psrsp, sizeof(*psrsp)) != static_cast<ssize_t>(sizeof(*psrsp)))
        {
            ZEL_TRACE(TRACE_INFO, LogLib_High, "(Error) CMIntf::sendCommand, error reading response pipe %d", errno);
            return {MCS_PIPEREAD, true};
        }
        m_ullLastResponseTick = CPortable::GetTickCountULL();

        // Not reset between tries: after a late response a matching one other than MIRSP_STATUS
        // leaves the request failed, although the driver has accepted it.
        if (psrsp->s_mirsp == MIRSP_STATUS)
            mcstatus = getResponseMCCSTATUS(psrsp);
        bMatched = psrsp->nRespSequenceNo == nSequenceNo;
        if (!bMatched)
        {
            memset(psrsp, 0, sizeof(*psrsp));
            mcstatus = MCS_NORESPONSE;
            ZEL_TRACE(
                TRACE_INFO, LogLib_High,
                "(Error) CMIntf::sendCommand, got response for the previous issued cmd, ignoring it trycount = %d, "
                "psrsp->nRespSequenceNo = %lu, psrsp->s_mirsp = %s",
                nTryCount, static_cast<unsigned long>(psrsp->nRespSequenceNo), MIRSPToString(psrsp->s_mirsp));
        }
        ++nTryCount;
    }
    ZEL_TRACE(TRACE_OPERATION, LogLib_High,
              "(Info) CMIntf::sendCommand, tried to get correct response, trycount = %d, psrsp->nRespSequenceNo = %lu, "
              "psrsp->s_mirsp = %s",
              nTryCount, static_cast<unsigned long>(psrsp->nRespSequenceNo), MIRSPToString(psrsp->s_mirsp));
    return {mcstatus, false};
}

// Takes a command that failed after it was numbered out of the active tables; its caller keeps it.
void CMIntf::withdrawCommand(CCommand* pcommand)
{
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal,
              "CMIntf::sendCommand - removing from active command, calling remActiveCommand");
    unlinkActiveCommand(pcommand);
}

void CMIntf::clearAfterTransportFailure(MCSTATUS mcstatus)
{
    if (mcstatus != MCS_NORESPONSE)
    {
        ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::sendCommand - closing request pipe");
        closeDescriptor(m_npipeReq);
        storeUnlocked(m_nConnectID, -1);
        clearCommandQueues();
        clearActiveCommands(mcstatus);
    }
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::sendCommand - oops timeout clear cmd");
    clearCommandQueues();
    clearActiveCommands(mcstatus);
}

void CMIntf::traceResult(int nStreamID, const structMIRSP* psrsp, MCSTATUS mcstatus)
{
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "<<<CMIntf::sendCommand (%d), rsp %s, mcstatus 0x%08X", nStreamID,
              MIRSPToString(psrsp->s_mirsp), static_cast<unsigned int>(mcstatus));
}
