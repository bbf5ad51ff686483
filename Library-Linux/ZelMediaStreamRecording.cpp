// The stream's record operations.
#include "ZelMediaServicesImpl.h"
#include "ZelMediaStreamImpl.h"

// The lines of the two record operations have a place less than there are values: what stands
// behind "timeout" is the length in seconds. Log scanners know them so.
#pragma GCC diagnostic ignored "-Wformat-extra-args"

int CZelMediaStreamImpl::recordToFile(char* pszFileName, int nRlen, unsigned long ulMaxSeconds, unsigned long ulTimeout,
                                      int nFlag)
{
    traceOperation("CZelMediaStreamImpl::recordToFile (0x%08X), fname %s, rlen %d, timeout %d",
                   addressForLog(m_pStream), pszFileName, nRlen, static_cast<int>(ulMaxSeconds),
                   static_cast<int>(ulTimeout));
    if (!m_bInitialized)
        return MCS_NOTINITIALIZED;

    structMICMD cmd = request(MICMD_RECORDFILE);
    return sendRecord(cmd, pszFileName, ulMaxSeconds, ulTimeout, nFlag, 0);
}

int CZelMediaStreamImpl::recordToFileWithPromptPhrase(unsigned long ulFileID, unsigned long ulOffset,
                                                      unsigned long ulLength, char* pszFileName, int nRlen,
                                                      unsigned long ulMaxSeconds, unsigned long ulTimeout, int nFlag)
{
    traceOperation(" calling recordToFile: CZelMediaStreamImpl::recordToFileWithPromptPhrase (0x%08X), fid %d, "
                   "offset %d, plen %d, fname %s, rlen %d, timeout %d",
                   addressForLog(m_pStream), static_cast<int>(ulFileID), static_cast<int>(ulOffset),
                   static_cast<int>(ulLength), pszFileName, nRlen, static_cast<int>(ulMaxSeconds),
                   static_cast<int>(ulTimeout));
    if (!m_bInitialized)
        return MCS_NOTINITIALIZED;

    structMICMD cmd = request(MICMD_PLAYCLIP);
    structMIRSP rsp;
    cmd.playClip.nFileID = driverInterface()->mapFileIDToCMIntfFileID(static_cast<int>(ulFileID));
    cmd.playClip.nOffset = static_cast<uint32_t>(ulOffset);
    cmd.playClip.nLength = static_cast<uint32_t>(ulLength);
    if (cmd.playClip.nFileID == -1)
        return MCS_UNKNOWNPHRASEFILE;
    const int nStatus = driverInterface()->sendCommand(m_nStreamID, &cmd, &rsp, ulTimeout, m_pServices, nFlag, 0);
    if (nStatus != MCS_OK)
        return nStatus;

    cmd = request(MICMD_RECORDFILE);
    return sendRecord(cmd, pszFileName, ulMaxSeconds, ulTimeout, nFlag, 1);
}

int CZelMediaStreamImpl::sendRecord(structMICMD& cmd, const char* pszFileName, unsigned long ulMaxSeconds,
                                    unsigned long ulTimeout, int nFlag, int bUsePlayQueue)
{
    structMIRSP rsp;
    copyText(cmd.recordFile.szFileName, pszFileName);
    cmd.recordFile.nMaxSamples = static_cast<uint32_t>(ulMaxSeconds) * static_cast<uint32_t>(MI_SAMPLES_PER_SECOND);
    const int nStatus =
        driverInterface()->sendCommand(m_nStreamID, &cmd, &rsp, ulTimeout, m_pServices, nFlag, bUsePlayQueue);
    if (nStatus == MCS_OK)
        driverInterface()->setDone(m_nStreamID, m_pServices);
    else
        driverInterface()->cancel(m_nStreamID, MICANCEL_RECORD);
    return nStatus;
}

int CZelMediaStreamImpl::recordToBuffer(unsigned char*, unsigned long, unsigned long, int)
{
    return MCS_NOTSUPPORTED;
}

int CZelMediaStreamImpl::recordToBufferWithPromptPhrase(unsigned long, unsigned long, unsigned long, unsigned char*,
                                                        unsigned long, unsigned long, int)
{
    return MCS_NOTSUPPORTED;
}

int CZelMediaStreamImpl::recordGetTimeMilliseconds(unsigned long* pulMilliSeconds)
{
    traceOperation("CZelMediaStreamImpl::recordGetTimeMilliseconds (0x%08X)", addressForLog(m_pStream));
    if (!m_bInitialized)
        return MCS_NOTINITIALIZED;

    structMICMD cmd = request(MICMD_RECORDGETTIME);
    structMIRSP rsp;
    const int nStatus = driverInterface()->sendImmediate(&cmd, &rsp, m_nStreamID);
    const int nTimeMs = nStatus == MCS_OK ? rsp.s_nTimeMs : 0;
    *pulMilliSeconds = static_cast<uint32_t>(nTimeMs);
    traceOperation("CZelMediaStreamImpl::recordGetTimeMilliseconds result = (%d)", nTimeMs);
    return nStatus;
}

int CZelMediaStreamImpl::recordGetStatus()
{
    traceOperation("CZelMediaStreamImpl::recordGetStatus (0x%08X)", addressForLog(m_pStream));
    if (!m_bInitialized)
        return MCS_NOTINITIALIZED;

    structMICMD cmd = request(MICMD_RECORDGETSTATUS);
    structMIRSP rsp;
    const int nStatus = driverInterface()->sendImmediate(&cmd, &rsp, m_nStreamID);
    const int nResult = nStatus == MCS_OK ? rsp.s_nRecordStatus : nStatus;
    traceOperation("CZelMediaStreamImpl::recordGetStatus result = (%d)", nResult);
    return nResult;
}

int CZelMediaStreamImpl::recordCancel()
{
    traceOperation("CZelMediaStreamImpl::recordCancel (0x%08X)", addressForLog(m_pStream));
    if (!m_bInitialized)
        return MCS_NOTINITIALIZED;
    return driverInterface()->cancel(m_nStreamID, MICANCEL_RECORD);
}

int CZelMediaStreamImpl::recordSetSilenceParameters(unsigned short usLimitMs, unsigned char ucUlawLimit,
                                                    unsigned long ulLimitMs)
{
    traceOperation("CZelMediaStreamImpl::recordSetSilenceParameters (0x%08X), limitms %d, ulawlimit %d, dwlimitms %d",
                   addressForLog(m_pStream), static_cast<int>(usLimitMs), static_cast<int>(ucUlawLimit),
                   static_cast<int>(ulLimitMs));
    return m_bInitialized ? MCS_OK : MCS_NOTINITIALIZED;
}

int CZelMediaStreamImpl::recordGetInfo(_CHANNEL_RECORD_DATA*)
{
    traceOperation("CZelMediaStreamImpl::recordGetInfo (0x%08X)", addressForLog(m_pStream));
    return m_bInitialized ? MCS_OK : MCS_NOTINITIALIZED;
}
