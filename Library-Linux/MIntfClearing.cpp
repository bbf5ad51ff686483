// CMIntf's ways to end commands in bulk or on request: clearing and cancelling.
#include "MIntf.h"
#include "MIntfSide.h"

#include <algorithm>
#include <new>

using namespace OrvLogLib;

namespace
{
bool byStreamID(const CMIntf::CCommand* pleft, const CMIntf::CCommand* pright)
{
    return pleft->m_nStreamID < pright->m_nStreamID;
}
} // namespace

void CMIntf::clearActiveCommands(MIRESULT result)
{
    ZEL_TRACE(TRACE_INFO, LogLib_Normal, "(Info) CMIntf::CMIntf::clearActiveCommand ENTRY");
    const std::vector<CCommand*> vPlays = injectCompletions(s_sidePlay, result);
    const std::vector<CCommand*> vRecords = injectCompletions(s_sideRecord, result);
    for (CCommand* const pcommand : vPlays)
        destroyUntold(pcommand, vRecords);
    for (CCommand* const pcommand : vRecords)
        destroyUntold(pcommand, {});
}

// Writes a completion event for each active command of a side. Returns those that it could not
// write, in ascending order of streams; a command that finds no memory there stays active until its
// deadline.
std::vector<CMIntf::CCommand*> CMIntf::injectCompletions(const CSide& side, MIRESULT result)
{
    std::vector<CCommand*> vUntold;
    for (const auto& entry : this->*side.pmapActive)
    {
        CCommand* const pcommand = entry.second;
        structMIEVT evt = {};
        evt.s_mievt = MIEVT_DONE;
        evt.nStreamID = pcommand->m_nStreamID;
        evt.nSequenceID = pcommand->m_cmd.nSequenceNo;
        evt.s_mcstatus = result;
        if (sendEvent(&evt) == MCS_OK)
            continue;
        try
        {
            vUntold.push_back(pcommand);
        }
        catch (const std::bad_alloc&)
        {
            continue;
        }
    }
    return vUntold;
}

// Destroys a command that nobody could be told of. The other command of its stream is unlinked
// with it: it has no owner either then, unless it is a record whose own turn is to come.
void CMIntf::destroyUntold(CCommand* pcommand, const std::vector<CCommand*>& vRecordsToCome)
{
    unlinkActiveCommand(pcommand);
    ZEL_TRACE(TRACE_INFO, LogLib_Normal,
              "test123 (Info) CMIntf::CMIntf::clearActiveCommand calling erase on mapActiveCommands");
    ZEL_TRACE(TRACE_INFO, LogLib_Normal,
              "801(Info) CMIntf::clearActiveCommands m_mapActiveCommandByStreamIDPlay,pcommand =0x%x",
              addressForLog(pcommand));
    for (const CSide* const pside : {&s_sidePlay, &s_sideRecord})
    {
        CCommand* const pcommandOther = eraseActive(*pside, pcommand->m_nStreamID);
        if (pcommandOther &&
            !std::binary_search(vRecordsToCome.begin(), vRecordsToCome.end(), pcommandOther, byStreamID))
        {
            eraseDeadline(pcommandOther, nullptr);
            delete pcommandOther;
        }
    }
    ZEL_TRACE(TRACE_INFO, LogLib_Normal, "(Info) CMIntf::CMIntf::clearActiveCommand calling delete pcommand");
    delete pcommand;
}

CMIntf::CCommand* CMIntf::eraseActive(const CSide& side, int nStreamID)
{
    CCommand* const pcommand = activeCommand(side, nStreamID);
    (this->*side.pmapActive).erase(nStreamID);
    return pcommand;
}

void CMIntf::clearCommandQueues()
{
    clearQueues(m_mapCommandQueue);
    clearQueues(m_mapCommandQueueRecord);
}

void CMIntf::clearCommandQueuePlay(int nStreamID, int bRecordOnly)
{
    clearQueue(m_mapCommandQueue, nStreamID, bRecordOnly);
}

void CMIntf::clearCommandQueueRecord(int nStreamID)
{
    clearQueue(m_mapCommandQueueRecord, nStreamID, 0);
}

void CMIntf::clearQueues(CQueueMap& mapQueue)
{
    for (const auto& entry : mapQueue)
        destroyList(entry.second, 0);
    mapQueue.clear();
}

void CMIntf::clearQueue(CQueueMap& mapQueue, int nStreamID, int bRecordOnly)
{
    const auto it = mapQueue.find(nStreamID);
    if (it == mapQueue.end())
        return;
    destroyList(it->second, bRecordOnly);
    mapQueue.erase(it);
}

// With bRecordOnly the commands other than records are left to the caller, who knows them.
void CMIntf::destroyList(CCommandList* plist, int bRecordOnly)
{
    for (CCommand* const pcommand : *plist)
        if (!bRecordOnly || pcommand->m_cmd.s_micmd == MICMD_RECORDFILE)
            delete pcommand;
    delete plist;
}

// Looks at the play side alone, for both types: a recording without a play before it goes on.
MCSTATUS CMIntf::cancel(int nStreamID, unsigned long nCancelType)
{
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::cancel, id %d", nStreamID);
    CCritSecHold hold(m_pCritSecCMIntf);

    clearCommandQueuePlay(nStreamID, 0);
    CCommand* const pcommand = activeCommand(s_sidePlay, nStreamID);
    if (!pcommand)
        return MCS_OK;
    pcommand->m_bDone = 1;
    return sendCancel(nStreamID, static_cast<uint32_t>(nCancelType));
}

MCSTATUS CMIntf::sendCancel(int nStreamID, uint32_t nCancelType)
{
    structMICMD cmd = {};
    structMIRSP rsp;
    cmd.s_micmd = MICMD_CANCEL;
    cmd.nConnectID = connectID();
    cmd.cancel.nStreamID = nStreamID;
    cmd.cancel.nCancelType = nCancelType;
    return sendImmediate(&cmd, &rsp);
}
