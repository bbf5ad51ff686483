// CMIntf's registries that tie the library's handles to the driver's: clip files and streams.
#include "MIntf.h"
#include "MIntfSide.h"

#include <memory>

using namespace OrvLogLib;

int CMIntf::openFile(char* name, int* pFileID)
{
    *pFileID = -1;
    const std::string strName = name;
    MCSTATUS mcstatus = MCS_OK;
    {
        CCritSecHold hold(m_pCritSecClipFiles);
        for (const auto& entry : m_mapClipFileByID)
        {
            if (entry.second->m_strName == strName)
            {
                ++entry.second->m_nUseCount;
                *pFileID = entry.first;
                break;
            }
        }
        if (*pFileID == -1)
            mcstatus = addClipFile(strName, *pFileID);
    }
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "<<<CMIntf::openFile %s, id %d", name, *pFileID);
    return mcstatus;
}

// The record stays also when the driver refuses the file, for the next connect to open it. It is
// entered before the driver is asked: from there on nothing can fail that the driver would not know.
MCSTATUS CMIntf::addClipFile(const std::string& strName, int& nFileID)
{
    auto pClipFile = std::make_unique<CClipFile>();
    pClipFile->m_strName = strName;
    m_mapClipFileByID.emplace(m_nNextFileID, pClipFile.get());
    CClipFile& clipFile = *pClipFile.release();
    nFileID = m_nNextFileID++;
    return requestOpenFile(clipFile);
}

MCSTATUS CMIntf::requestOpenFile(CClipFile& clipFile)
{
    structMICMD cmd = {};
    structMIRSP rsp;
    cmd.s_micmd = MICMD_OPENFILE;
    cmd.nConnectID = connectID();
    copyText(cmd.openFile.szFileName, clipFile.m_strName.c_str());
    const MCSTATUS mcstatus = sendImmediate(&cmd, &rsp);
    if (mcstatus == MCS_OK)
        clipFile.m_nCMIntfFileID = rsp.s_nFileID;
    return mcstatus;
}

int CMIntf::closeFile(int fileID)
{
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::closeFile, id %d", fileID);
    CCritSecHold hold(m_pCritSecClipFiles);
    const auto it = m_mapClipFileByID.find(fileID);
    if (it == m_mapClipFileByID.end() || --it->second->m_nUseCount > 0)
        return MCS_OK;

    const int nCMIntfFileID = it->second->m_nCMIntfFileID;
    delete it->second;
    m_mapClipFileByID.erase(it);
    if (nCMIntfFileID == -1)
        return MCS_OK;

    structMICMD cmd = {};
    structMIRSP rsp;
    cmd.s_micmd = MICMD_CLOSEFILE;
    cmd.nConnectID = connectID();
    cmd.closeFile.nFileID = nCMIntfFileID;
    return sendImmediate(&cmd, &rsp);
}

int CMIntf::mapFileIDToCMIntfFileID(int fileID)
{
    CCritSecHold hold(m_pCritSecClipFiles);
    const auto it = m_mapClipFileByID.find(fileID);
    return it == m_mapClipFileByID.end() ? -1 : it->second->m_nCMIntfFileID;
}

void CMIntf::reopenClipFiles()
{
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::reopenClipFiles");
    CCritSecHold hold(m_pCritSecClipFiles);
    ZEL_TRACE(TRACE_INFO, LogLib_Normal, "(Info) CMIntf::reopenClipFiles, m_nConnectID= \"%d\" ", connectID());
    for (const auto& entry : m_mapClipFileByID)
    {
        if (requestOpenFile(*entry.second) != MCS_OK)
        {
            for (const auto& entryLost : m_mapClipFileByID)
                entryLost.second->m_nCMIntfFileID = -1;
            return;
        }
        ZEL_TRACE(TRACE_INFO, LogLib_Normal, "(Info) CMIntf::reopenClipFiles, m_nCMIntfFileID= \"%d\" ",
                  entry.second->m_nCMIntfFileID);
    }
}

int CMIntf::openStream(CZelMediaStreamImpl* pImpl, int* pStreamID, char* callID, unsigned long legID)
{
    *pStreamID = -1;
    structMICMD cmd = {};
    structMIRSP rsp;
    cmd.s_micmd = MICMD_OPENSTREAM;
    cmd.nConnectID = connectID();
    copyText(cmd.openStream.szCallID, callID);
    cmd.openStream.nLegID = static_cast<uint32_t>(legID);
    const MCSTATUS mcstatus = sendImmediate(&cmd, &rsp);
    if (mcstatus == MCS_OK)
    {
        *pStreamID = rsp.s_nStreamID;
        CCritSecHold hold(m_pCritSecCMIntf);
        m_mapStreamByStreamID[*pStreamID] = pImpl;
    }
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "<<<CMIntf::openConferenceStream (callid %s, legid %u), streamid %d",
              callID, static_cast<unsigned int>(legID), *pStreamID);
    return mcstatus;
}

// Destroys what waits for its turn, in the queues and in the hands of the event thread.
void CMIntf::dropWaiting(int streamID)
{
    dropInHand(streamID);
    clearCommandQueuePlay(streamID, 0);
    clearCommandQueueRecord(streamID);
}

int CMIntf::closeStream(int streamID)
{
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::closeStream, id %d", streamID);
    {
        CCritSecHold hold(m_pCritSecCMIntf);
        dropWaiting(streamID);
        m_mapStreamByStreamID.erase(streamID);
        ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "Brudel702 CMIntf::closeStream, calling remActiveCommand id %d",
                  streamID);
        remActiveCommand(streamID, static_cast<int>(ANY_SEQUENCE_NO), 1);
    }
    structMICMD cmd = {};
    structMIRSP rsp;
    cmd.s_micmd = MICMD_CLOSESTREAM;
    cmd.nConnectID = connectID();
    cmd.stream.nStreamID = streamID;
    return sendImmediate(&cmd, &rsp);
}

void CMIntf::forgetStream(int streamID)
{
    CCritSecHold hold(m_pCritSecCMIntf);
    dropWaiting(streamID);
    m_mapStreamByStreamID.erase(streamID);
    if (activeCommand(s_sidePlay, streamID) || activeCommand(s_sideRecord, streamID))
        remActiveCommand(streamID, static_cast<int>(ANY_SEQUENCE_NO), 1);
}
