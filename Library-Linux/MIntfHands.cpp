// CMIntf's commands in the hands of the event thread: what it has taken out of the containers to start or to report.
#include "MIntf.h"
#include "MIntfSide.h"

#include <algorithm>
#include <new>
#include <utility>

using namespace OrvLogLib;

namespace
{
const uint64_t ALARM_OVERDUE_MS = 300000;
const size_t MAX_SPARE_ENTRIES = 256;

bool canTimeOut(MICMD micmd)
{
    return commandInfo(micmd) != nullptr;
}
} // namespace

bool CMIntf::takeNextCommand(const CSide& side, int nStreamID)
{
    const CQueueMap& mapQueue = this->*side.pmapQueue;
    const auto it = mapQueue.find(nStreamID);
    if (it == mapQueue.end() || it->second->empty())
        return false;
    CCommandList& listQueue = *it->second;
    (this->*side.ppcommandNext).reset(listQueue.front());
    if (m_listSpareEntries.size() < MAX_SPARE_ENTRIES)
        m_listSpareEntries.splice(m_listSpareEntries.end(), listQueue, listQueue.begin());
    else
        listQueue.pop_front();
    return true;
}

// Sends what was taken, unless its stream was closed meanwhile; the lock keeps a close out until it is sent.
void CMIntf::startNextCommand(const CSide& side)
{
    CCommandOwner pcommand;
    MCSTATUS mcstatus;
    {
        CCritSecHold hold(m_pCritSecCMIntf);
        CCommand* const pcommandSent = (this->*side.ppcommandNext).release();
        if (!pcommandSent)
            return;
        const int nStreamID = pcommandSent->m_nStreamID;
        structMIRSP rsp;
        mcstatus = sendCommand(pcommandSent, &rsp, side.bPlay ? 1 : 0);
        if (mcstatus == MCS_OK)
            return;
        pcommand.reset(pcommandSent);
        clearQueue(this->*side.pmapQueue, nStreamID, 0);
    }
    reportCompletion(*pcommand, mcstatus, side.pszNotSent);
}

void CMIntf::sweepOverdueCommands()
{
    try
    {
        CCritSecHold hold(m_pCritSecCMIntf);
        takeOverdueCommands(CPortable::GetTickCountULL());
        if (m_vOverdue.empty())
            return;
    }
    catch (const std::bad_alloc&)
    {
        return; // nothing was unlinked yet: the next pass finds them again
    }
    while (const CCommandOwner pcommand = cancelNextOverdue())
    {
        reportCompletion(*pcommand, MCS_TIMEDOUT,
                         " (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion-4 ,sid = %d, nSequenceID = %d");
    }
}

// Unlinks the active commands whose deadline has come, with what is queued on their streams.
void CMIntf::takeOverdueCommands(uint64_t ullNow)
{
    std::vector<CCommand*> vOverdue;
    bool bAlarmRaised = false;
    for (const auto& entry : m_mmapActiveCommandByTimeout)
    {
        if (entry.first > ullNow)
            break;
        if (!canTimeOut(entry.second->m_cmd.s_micmd))
            continue;
        if (!bAlarmRaised && ullNow - entry.first >= ALARM_OVERDUE_MS)
        {
            raiseAlarm("CMIntf::eventThreadFunc: ActiveCommand command timed out");
            bAlarmRaised = true;
        }
        vOverdue.push_back(entry.second);
    }

    m_vOverdue.reserve(vOverdue.size());
    for (CCommand* const pcommand : vOverdue)
    {
        unlinkActiveCommand(pcommand);
        m_vOverdue.emplace_back(pcommand);
        clearCommandQueuePlay(pcommand->m_nStreamID, 0);
        clearCommandQueueRecord(pcommand->m_nStreamID);
    }
    std::reverse(m_vOverdue.begin(), m_vOverdue.end());
}

// Asks the driver to end the next overdue command, which is the caller's to report. Null after the last one.
CMIntf::CCommandOwner CMIntf::cancelNextOverdue()
{
    CCritSecHold hold(m_pCritSecCMIntf);
    while (!m_vOverdue.empty() && !m_vOverdue.back())
        m_vOverdue.pop_back();
    if (m_vOverdue.empty())
    {
        m_vOverdue.shrink_to_fit();
        return nullptr;
    }
    CCommandOwner pcommand = std::move(m_vOverdue.back());
    m_vOverdue.pop_back();
    const MICMD micmd = pcommand->m_cmd.s_micmd;
    sendCancel(pcommand->m_nStreamID, micmd == MICMD_RECORDFILE ? MICANCEL_RECORD : MICANCEL_PLAY);
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal,
              "CMIntf::eventThreadFunc - Sending MICMD_CANCEL, m_nConnectID = %d, m_nStreamID = %d", connectID(),
              pcommand->m_nStreamID);
    return pcommand;
}

// A stream is closed: none of its commands is started or reported any more, nor taken for one of a later
// stream to which the driver gives the same id.
void CMIntf::dropInHand(int nStreamID)
{
    for (const CSide* const pside : {&s_sidePlay, &s_sideRecord})
    {
        CCommandOwner& pcommandNext = this->*pside->ppcommandNext;
        if (pcommandNext && pcommandNext->m_nStreamID == nStreamID)
            pcommandNext.reset();
    }
    for (CCommandOwner& pcommand : m_vOverdue)
        if (pcommand && pcommand->m_nStreamID == nStreamID)
            pcommand.reset();
}

// Nobody is left to start or report them.
void CMIntf::dropAllInHand()
{
    CCritSecHold hold(m_pCritSecCMIntf);
    m_pcommandNextPlay.reset();
    m_pcommandNextRecord.reset();
    m_vOverdue.clear();
}

// Whether a command of the stream is in hand that will be reported: what is overdue is in any case, what is
// to be started from now on.
bool CMIntf::markInHand(const CSide& side, int nStreamID)
{
    const CCommandOwner& pcommandNext = this->*side.ppcommandNext;
    if (pcommandNext && pcommandNext->m_nStreamID == nStreamID)
    {
        pcommandNext->m_bDone = 1;
        return true;
    }
    return std::any_of(m_vOverdue.begin(), m_vOverdue.end(), [nStreamID](const CCommandOwner& pcommand) {
        return pcommand && pcommand->m_nStreamID == nStreamID;
    });
}

// Completes what no event could be written for: a full event pipe, above all, loses nobody's completion.
void CMIntf::reportUntold()
{
    structMIEVT evt = {};
    while (loadUnlocked(m_bAnyUntold) && takeUntold(evt))
        doneEventPass(evt);
}

// The event that is missing, for the first command that misses one.
bool CMIntf::takeUntold(structMIEVT& evt)
{
    CCritSecHold hold(m_pCritSecCMIntf);
    for (const auto& entry : m_mapActiveCommandByStreamIDPlay)
    {
        const CCommand& command = *entry.second;
        if (!command.m_bUntold)
            continue;
        evt.s_mievt = MIEVT_DONE;
        evt.nStreamID = command.m_nStreamID;
        evt.nSequenceID = command.m_cmd.nSequenceNo;
        evt.s_mcstatus = MCS_OK;
        return true;
    }
    storeUnlocked(m_bAnyUntold, 0);
    return false;
}
