// The stream's life and its play operations.
#include "ZelMediaServicesImpl.h"
#include "ZelMediaStreamImpl.h"

CZelMediaStreamImpl::CZelMediaStreamImpl()
    : m_pServices(nullptr), m_pStream(nullptr), m_nStreamID(0), m_bInitialized(0), m_bPlayCancelled(0),
      m_ullPlayStartTick(0), m_ullPlayElapsed(0)
{
}

CZelMediaStreamImpl::~CZelMediaStreamImpl()
{
    traceOperation("CZelMediaStreamImpl::~CZelMediaStreamImpl, m_nStreamID =%d", m_nStreamID);
    // Without services the object was never initialised, whatever its id.
    if (m_pServices && m_nStreamID >= 0)
        m_pServices->remStream(m_nStreamID);
    // A driver out of its mind may have given a negative id: commands and events would outlive this object.
    else if (m_bOpened)
        m_pServices->forgetStream(m_nStreamID);
}

int CZelMediaStreamImpl::initialize(CZelMediaServicesImpl* pServices, CZelMediaStream* pStream, std::string strInDev,
                                    std::string strOutDev)
{
    traceOperation("CZelMediaStreamImpl::initialize (0x%08X), indev %s, outdev %s", addressForLog(pStream),
                   strInDev.c_str(), strOutDev.c_str());
    return openAndRegister(pServices, pStream, strInDev, 0);
}

int CZelMediaStreamImpl::initialize(CZelMediaServicesImpl* pServices, CZelMediaStream* pStream, std::string strCallID,
                                    unsigned long ulLegID)
{
    traceOperation("CZelMediaStreamImpl::initialize (0x%08X), callid %s, legid %u", addressForLog(pStream),
                   strCallID.c_str(), static_cast<unsigned int>(ulLegID));
    return openAndRegister(pServices, pStream, strCallID, ulLegID);
}

int CZelMediaStreamImpl::openAndRegister(CZelMediaServicesImpl* pServices, CZelMediaStream* pStream,
                                         std::string& strCallID, unsigned long ulLegID)
{
    m_bPlayCancelled = 0;
    m_pStream = pStream;
    m_pServices = pServices;
    const int nStatus = driverInterface()->openStream(this, &m_nStreamID, strCallID.data(), ulLegID);
    m_bOpened = nStatus == MCS_OK;
    if (!m_bOpened)
        return nStatus;
    const int nAdded = m_pServices->addStream(m_pStream, m_nStreamID);
    if (nAdded == MCS_OK)
        storeUnlocked(m_bInitialized, 1);
    return nAdded;
}

// A request to this stream; all streams bodies begin with the stream id.
structMICMD CZelMediaStreamImpl::request(MICMD micmd) const
{
    structMICMD cmd = {};
    cmd.s_micmd = micmd;
    cmd.nConnectID = driverInterface()->connectID();
    cmd.stream.nStreamID = m_nStreamID;
    return cmd;
}

int CZelMediaStreamImpl::playAddFile(char* pszFile, unsigned long ulStartPos, unsigned long ulTimeout, int nFlag,
                                     int nStartPosInMs, unsigned long ulPlayParam)
{
    traceOperation("CZelMediaStreamImpl::playAddFile (0x%08X), file %s, startpos %d, timeout %d",
                   addressForLog(m_pStream), pszFile, static_cast<int>(ulStartPos), static_cast<int>(ulTimeout));
    if (!m_bInitialized)
        return MCS_NOTINITIALIZED;

    structMICMD cmd = request(MICMD_PLAYFILE);
    copyText(cmd.playFile.szFileName, pszFile);
    cmd.playFile.nStartPos = static_cast<uint32_t>(ulStartPos) *
                             static_cast<uint32_t>(nStartPosInMs ? MI_SAMPLES_PER_MILLISECOND : MI_SAMPLES_PER_SECOND);
    cmd.playFile.nPlayParam = static_cast<uint32_t>(ulPlayParam);
    return sendPlay(cmd, ulTimeout, nFlag);
}

int CZelMediaStreamImpl::playAddPhrase(unsigned long ulFileID, unsigned long ulOffset, unsigned long ulLength,
                                       unsigned long ulTimeout, int nFlag, unsigned long ulPlayParam)
{
    traceOperation("CZelMediaStreamImpl::playAddPhrase (0x%08X), fid %d, offset %d, len %d, timeout %d",
                   addressForLog(m_pStream), static_cast<int>(ulFileID), static_cast<int>(ulOffset),
                   static_cast<int>(ulLength), static_cast<int>(ulTimeout));
    if (!m_bInitialized)
        return MCS_NOTINITIALIZED;

    structMICMD cmd = request(MICMD_PLAYCLIP);
    cmd.playClip.nFileID = driverInterface()->mapFileIDToCMIntfFileID(static_cast<int>(ulFileID));
    if (cmd.playClip.nFileID == -1)
        return MCS_UNKNOWNPHRASEFILE;
    cmd.playClip.nOffset = static_cast<uint32_t>(ulOffset);
    cmd.playClip.nLength = static_cast<uint32_t>(ulLength);
    cmd.playClip.nPlayParam = static_cast<uint32_t>(ulPlayParam);
    return sendPlay(cmd, ulTimeout, nFlag);
}

// The elapsed time of an earlier play stays: it is what the time queries report until this one ends.
int CZelMediaStreamImpl::sendPlay(structMICMD& cmd, unsigned long ulTimeout, int nFlag)
{
    structMIRSP rsp;
    const int nStatus = driverInterface()->sendCommand(m_nStreamID, &cmd, &rsp, ulTimeout, m_pServices, nFlag, 0);
    if (nStatus == MCS_OK)
        m_ullPlayStartTick = CPortable::GetTickCountULL();
    return nStatus;
}

int CZelMediaStreamImpl::playAddBuffer(unsigned char*, unsigned long, unsigned long, int, unsigned long)
{
    return MCS_NOTSUPPORTED;
}

int CZelMediaStreamImpl::playCancel()
{
    traceOperation("CZelMediaStreamImpl::playCancel (0x%08X)", addressForLog(m_pStream));
    if (!m_bInitialized)
        return MCS_NOTINITIALIZED;
    return driverInterface()->cancel(m_nStreamID, MICANCEL_PLAY);
}

int CZelMediaStreamImpl::playGetMilliSeconds(unsigned long* pulMilliSeconds)
{
    traceOperation("CZelMediaStreamImpl::playGetMilliSeconds (0x%08X)", addressForLog(m_pStream));
    if (!m_bInitialized)
        return MCS_NOTINITIALIZED;
    *pulMilliSeconds = static_cast<uint32_t>(playedMilliSeconds());
    return MCS_OK;
}

int CZelMediaStreamImpl::playGetSeconds(unsigned long* pulSeconds)
{
    traceOperation("CZelMediaStreamImpl::playGetSeconds (0x%08X)", addressForLog(m_pStream));
    if (!m_bInitialized)
        return MCS_NOTINITIALIZED;
    const uint32_t nMilliSeconds = static_cast<uint32_t>(playedMilliSeconds());
    *pulSeconds = (nMilliSeconds + 1000) / 1000;
    return MCS_OK;
}

uint64_t CZelMediaStreamImpl::playedMilliSeconds() const
{
    if (m_ullPlayElapsed != 0)
        return m_ullPlayElapsed;
    return m_ullPlayStartTick == 0 ? 0 : CPortable::GetTickCountULL() - m_ullPlayStartTick;
}

void CZelMediaStreamImpl::freezePlayTime(uint64_t ullNow)
{
    if (m_ullPlayStartTick == 0)
        return;
    m_ullPlayElapsed = ullNow - m_ullPlayStartTick;
    m_ullPlayStartTick = 0;
}

void CZelMediaStreamImpl::invalidate()
{
    m_bInitialized = 0;
}

int CZelMediaStreamImpl::playGetInfo(_CHANNEL_PLAY_DATA*)
{
    traceOperation("CZelMediaStreamImpl::playGetInfo (0x%08X)", addressForLog(m_pStream));
    return m_bInitialized ? MCS_OK : MCS_NOTINITIALIZED;
}

int CZelMediaStreamImpl::playGetCancelled(int* pnCancelled)
{
    traceOperation("CZelMediaStreamImpl::playGetCancelled (0x%08X) %d", addressForLog(m_pStream), m_bPlayCancelled);
    if (!m_bInitialized)
        return MCS_NOTINITIALIZED;
    *pnCancelled = m_bPlayCancelled;
    return MCS_OK;
}

int CZelMediaStreamImpl::playSetCancelled(int nCancelled)
{
    traceOperation("CZelMediaStreamImpl::playSetCancelled (0x%08X) %d", addressForLog(m_pStream), nCancelled);
    if (!m_bInitialized)
        return MCS_NOTINITIALIZED;
    storeUnlocked(m_bPlayCancelled, nCancelled);
    return MCS_OK;
}

int CZelMediaStreamImpl::playResetBuffers()
{
    traceOperation("CZelMediaStreamImpl::playResetBuffers (0x%08X)", addressForLog(m_pStream));
    return m_bInitialized ? MCS_OK : MCS_NOTINITIALIZED;
}
