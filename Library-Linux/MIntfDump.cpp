// CMIntf's diagnostic dump: every registry into the log, at a priority that passes every filter.
#include "MIntf.h"
#include "ZelMediaStreamImpl.h"

using namespace OrvLogLib;

int CMIntf::dump()
{
    dumpClipFiles();
    {
        CCritSecHold hold(m_pCritSecCMIntf);
        dumpStreams();
        dumpCommands();
    }
    structMICMD cmd = {};
    structMIRSP rsp;
    cmd.s_micmd = MICMD_DUMP;
    cmd.nConnectID = connectID();
    return sendImmediate(&cmd, &rsp);
}

void CMIntf::dumpClipFiles()
{
    CCritSecHold hold(m_pCritSecClipFiles);
    ZEL_TRACE(TRACE_INFO, LogLib_High, "-- m_mapClipFileByID");
    for (const auto& entry : m_mapClipFileByID)
    {
        const CClipFile& clipFile = *entry.second;
        ZEL_TRACE(TRACE_INFO, LogLib_High, "   fid %d, cmfid %d, name %s, usecount %d", entry.first,
                  clipFile.m_nCMIntfFileID, clipFile.m_strName.c_str(), clipFile.m_nUseCount);
    }
}

void CMIntf::dumpStreams()
{
    ZEL_TRACE(TRACE_INFO, LogLib_High, "-- m_mapStreamByStreamID");
    for (const auto& entry : m_mapStreamByStreamID)
    {
        const CZelMediaStreamImpl& stream = *entry.second;
        ZEL_TRACE(TRACE_INFO, LogLib_High, "   sid %d, impl 0x%08X, stream 0x%08X, valid %d, canflag %d", entry.first,
                  addressForLog(&stream), addressForLog(stream.m_pStream), loadUnlocked(stream.m_bInitialized),
                  loadUnlocked(stream.m_bPlayCancelled));
    }
}

void CMIntf::dumpCommands()
{
    ZEL_TRACE(TRACE_INFO, LogLib_High, "-- m_mapActiveCommandByStreamIDPlay");
    for (const auto& entry : m_mapActiveCommandByStreamIDPlay)
        dumpCommand(entry.first, *entry.second);

    ZEL_TRACE(TRACE_INFO, LogLib_High, "-- m_mmapActiveCommandByTimeout");
    for (const auto& entry : m_mmapActiveCommandByTimeout)
    {
        const CCommand& command = *entry.second;
        ZEL_TRACE(TRACE_INFO, LogLib_High, "   sid %d, cmd 0x%08X, cmd %s, done %d, timeout %s", command.m_nStreamID,
                  addressForLog(&command), MICMDToString(command.m_cmd.s_micmd), command.m_bDone,
                  CPortable::ulltos(entry.first).c_str());
    }

    ZEL_TRACE(TRACE_INFO, LogLib_High, "-- m_mapCommandQueue");
    for (const auto& entry : m_mapCommandQueue)
        for (const CCommand* const pcommand : *entry.second)
            dumpCommand(entry.first, *pcommand);
    // The queued records go on without a heading, and show the number of play queues as their sid.
    const int nPlayQueues = static_cast<int>(m_mapCommandQueue.size());
    for (const auto& entry : m_mapCommandQueueRecord)
        for (const CCommand* const pcommand : *entry.second)
            dumpCommand(nPlayQueues, *pcommand);
}

void CMIntf::dumpCommand(int nStreamIDShown, const CCommand& command)
{
    ZEL_TRACE(TRACE_INFO, LogLib_High, "   sid %d, cmd 0x%08X, cmd %s, done %d, timeout %d", nStreamIDShown,
              addressForLog(&command), MICMDToString(command.m_cmd.s_micmd), command.m_bDone,
              static_cast<int>(command.m_nTimeout));
}
