// CMIntf's bookkeeping of play and record commands: active, queued, by deadline.
#include "MIntf.h"
#include "MIntfSide.h"

#include <new>

using namespace OrvLogLib;

namespace
{
const uint64_t DEFAULT_TIMEOUT_MS = 300000;
const uint32_t MS_PER_SECOND = 1000;

unsigned long sequenceNo(const CMIntf::CCommand* pcommand)
{
    return pcommand->m_cmd.nSequenceNo;
}

const char* commandName(const CMIntf::CCommand* pcommand)
{
    return MICMDToString(pcommand->m_cmd.s_micmd);
}
} // namespace

CMIntf::CCommand::CCommand()
{
    CMIntf* const pmintf = driverInterface();
    if (pmintf && pmintf->isTraced(TRACE_INFO))
        pmintf->trace(TRACE_INFO, LogLib_Normal, "(Info) CCommand::CCommand this = 0x%x", addressForLog(this));
}

CMIntf::CCommand::~CCommand()
{
    CMIntf* const pmintf = driverInterface();
    if (pmintf && pmintf->isTraced(TRACE_INFO))
        pmintf->trace(TRACE_INFO, LogLib_Normal, "(Info) CCommand::~CCommand this = 0x%x", addressForLog(this));
}

const CMIntf::CSide CMIntf::s_sidePlay = {
    &CMIntf::m_mapActiveCommandByStreamIDPlay,
    &CMIntf::m_mapCommandQueue,
    &CMIntf::m_pcommandNextPlay,
    true,
    "CMIntf::processPlayActiveCommand - Entering, pcommand->m_nStreamID = %d",
    "CMIntf::processPlayActiveCommand - queueing",
    "CMIntf::processPlayActiveCommand - Current active command",
    " (Info) CMIntf::processPlayActiveCommand called, SequenceNo = %lu, sid = %d, cmd = %s",
    "801(Info) CMIntf::remActiveCommand m_mapActiveCommandByStreamIDPlay,pcommand =0x%x",
    "(Info) CMIntf::remActiveCommand:calling m_mmapActiveCommandByTimeout.erase, SequenceNo = %lu, sid = %d, cmd = %s",
    " (Info) CMIntf::CMIntf::remActiveCommand sid = %d, 1- deleting pcommand 0x%x",
    " (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion-2 ,sid = %d, nSequenceID = %d"};

const CMIntf::CSide CMIntf::s_sideRecord = {
    &CMIntf::m_mapActiveCommandByStreamIDRecord,
    &CMIntf::m_mapCommandQueueRecord,
    &CMIntf::m_pcommandNextRecord,
    false,
    "CMIntf::processRecordActiveCommand - Entering",
    "CMIntf::processRecordActiveCommand - queueing",
    "CMIntf::processRecordActiveCommand - Current active command",
    " (Info) CMIntf::processRecordActiveCommand called, SequenceNo = %lu, sid = %d, cmd = %s",
    "(Info) CMIntf::remActiveCommand:=> going to erase CCommand ptr = 0x%x",
    "(Info) CMIntf::remActiveCommand called for RECORD, SequenceNo = %lu, sid = %d, cmd = %s",
    " (Info) CMIntf::CMIntf::remActiveCommand sid = %d, 2- deleting pcommand 0x%x",
    " (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion-3 ,sid = %d, nSequenceID = %d"};

int CMIntf::processPlayActiveCommand(CCommand* pcommand, int& bSend)
{
    return processActiveCommand(s_sidePlay, pcommand, bSend);
}

int CMIntf::processRecordActiveCommand(CCommand* pcommand, int& bSend)
{
    return processActiveCommand(s_sideRecord, pcommand, bSend);
}

int CMIntf::processActiveCommand(const CSide& side, CCommand* pcommand, int& bSend)
{
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, side.pszEntering, pcommand->m_nStreamID);
    try
    {
        CActiveMap& mapActive = this->*side.pmapActive;
        const auto it = mapActive.lower_bound(pcommand->m_nStreamID);
        if (it != mapActive.end() && it->first == pcommand->m_nStreamID)
        {
            queueCommand(side, pcommand, it->second);
            return MCS_OK;
        }
        ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, side.pszCurrentActive, pcommand->m_nStreamID);
        activateCommand(side, pcommand, it);
        bSend = 1;
        return MCS_OK;
    }
    catch (const std::bad_alloc&)
    {
        return MCS_OUTOFMEMORY;
    }
}

void CMIntf::queueCommand(const CSide& side, CCommand* pcommand, const CCommand* pcommandActive)
{
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, side.pszQueueing, pcommand->m_nStreamID);
    if (side.bPlay)
    {
        ZEL_TRACE(TRACE_INFO, LogLib_Normal,
                  "Brudel (Info) CMIntf::processPlayActiveCommand, queueing because, SequenceNo = %lu, sid = %d, "
                  "cmd = %s, pcommand->m_nStreamID = %d",
                  sequenceNo(pcommandActive), pcommandActive->m_nStreamID, commandName(pcommandActive),
                  pcommand->m_nStreamID);
    }

    CQueueMap& mapQueue = this->*side.pmapQueue;
    auto it = mapQueue.lower_bound(pcommand->m_nStreamID);
    if (it == mapQueue.end() || it->first != pcommand->m_nStreamID)
    {
        auto plistNew = std::make_unique<CCommandList>();
        it = mapQueue.emplace_hint(it, pcommand->m_nStreamID, plistNew.get());
        static_cast<void>(plistNew.release()); // the map has it
    }
    CCommandList& listQueue = *it->second;
    if (m_listSpareEntries.empty())
    {
        listQueue.push_back(pcommand);
    }
    else
    {
        m_listSpareEntries.front() = pcommand;
        listQueue.splice(listQueue.end(), m_listSpareEntries, m_listSpareEntries.begin());
    }
}

// itNext is where the stream's entry belongs. Throws std::bad_alloc with the command in no container
// and no number used up.
void CMIntf::activateCommand(const CSide& side, CCommand* pcommand, CActiveMap::iterator itNext)
{
    pcommand->m_cmd.nSequenceNo = m_nNextSequenceNo++;
    ZEL_TRACE(TRACE_INFO, LogLib_Normal, side.pszCalled, sequenceNo(pcommand), pcommand->m_nStreamID,
              commandName(pcommand));
    CActiveMap& mapActive = this->*side.pmapActive;
    CActiveMap::iterator itEntered = mapActive.end();
    try
    {
        itEntered = m_poolActive.insert(mapActive, itNext, pcommand->m_nStreamID, pcommand);
        if (side.bPlay)
        {
            ZEL_TRACE(TRACE_INFO, LogLib_Normal,
                      "801(Info) CMIntf::processPlayActiveCommand m_mapActiveCommandByStreamIDPlay,pcommand =0x%x",
                      addressForLog(pcommand));
        }
        enterDeadline(pcommand);
    }
    catch (const std::bad_alloc&)
    {
        if (itEntered != mapActive.end())
            m_poolActive.erase(mapActive, itEntered);
        --m_nNextSequenceNo;
        throw;
    }
    if (side.bPlay)
    {
        ZEL_TRACE(TRACE_INFO, LogLib_Normal, "CMIntf::processPlayActiveCommand TimeOut %d",
                  static_cast<int>(pcommand->m_ullTimeoutTick));
    }
}

void CMIntf::addActiveCommand(CCommand* pcommand)
{
    ZEL_TRACE(TRACE_INFO, LogLib_Normal,
              " (Info) CMIntf::addActiveCommand called, SequenceNo = %lu, sid = %d, cmd = %s", sequenceNo(pcommand),
              pcommand->m_nStreamID, commandName(pcommand));
    const MICMD micmd = pcommand->m_cmd.s_micmd;
    if (micmd == MICMD_PLAYCLIP || micmd == MICMD_PLAYFILE)
    {
        m_mapActiveCommandByStreamIDPlay[pcommand->m_nStreamID] = pcommand;
        ZEL_TRACE(TRACE_INFO, LogLib_Normal,
                  "801(Info) CMIntf::addActiveCommand m_mapActiveCommandByStreamIDPlay,pcommand =0x%x",
                  addressForLog(pcommand));
    }
    else
    {
        m_mapActiveCommandByStreamIDRecord[pcommand->m_nStreamID] = pcommand;
    }
    enterDeadline(pcommand);
    ZEL_TRACE(TRACE_INFO, LogLib_Normal, " (Info) CMIntf::addActiveCommand TimeOut %d",
              static_cast<int>(pcommand->m_ullTimeoutTick));
}

void CMIntf::enterDeadline(CCommand* pcommand)
{
    // The product of a given time-out wraps in 32 bits before it is added to the 64-bit tick.
    const uint64_t ullTimeoutMs = pcommand->m_nTimeout == DEFAULT_TIMEOUT
                                      ? DEFAULT_TIMEOUT_MS
                                      : static_cast<uint32_t>(pcommand->m_nTimeout * MS_PER_SECOND);
    pcommand->m_ullTimeoutTick = CPortable::GetTickCountULL() + ullTimeoutMs;
    pcommand->m_itDeadline = m_poolDeadline.insert(m_mmapActiveCommandByTimeout, pcommand->m_ullTimeoutTick, pcommand);
    pcommand->m_bEntered = true;
    ++m_nDeadlines;
}

// Removes the command's own entry from the deadline index, never another one of the same deadline.
// pszFormatBefore, if any, is traced before the entry goes.
bool CMIntf::eraseDeadline(CCommand* pcommand, const char* pszFormatBefore)
{
    const auto it = findDeadline(pcommand);
    if (it == m_mmapActiveCommandByTimeout.end())
        return false;
    if (pszFormatBefore)
    {
        ZEL_TRACE(TRACE_INFO, LogLib_Normal, pszFormatBefore, sequenceNo(pcommand), pcommand->m_nStreamID,
                  commandName(pcommand));
    }
    m_poolDeadline.erase(m_mmapActiveCommandByTimeout, it);
    m_nDeadlines -= pcommand->m_bEntered;
    pcommand->m_bEntered = false;
    return true;
}

// Plays that start in the same millisecond end in the same one: hundreds of them may share a deadline,
// and walking to one of those costs more than all else. What each remembers is good as long as nobody
// else changed the index.
CMIntf::CDeadlineMap::iterator CMIntf::findDeadline(const CCommand* pcommand)
{
    const uint64_t ullTick = pcommand->m_ullTimeoutTick;
    CDeadlineMap& mmap = m_mmapActiveCommandByTimeout;
    if (ullTick == 0)
        return mmap.end();
    if (pcommand->m_bEntered && m_nDeadlines == mmap.size() && pcommand->m_itDeadline->first == ullTick)
        return pcommand->m_itDeadline;
    for (auto it = mmap.lower_bound(ullTick); it != mmap.end() && it->first == ullTick; ++it)
        if (it->second == pcommand)
            return it;
    return mmap.end();
}

void CMIntf::remActiveCommand(int nStreamID, int nSequenceIDParam, int bDelete)
{
    const uint32_t nSequenceNo = static_cast<uint32_t>(nSequenceIDParam);
    removeFound(nStreamID, nSequenceNo, bDelete, findActive(s_sidePlay, nStreamID, nSequenceNo, nullptr),
                findActive(s_sideRecord, nStreamID, nSequenceNo, nullptr));
}

// The stream's active command of that number, else the end of the map. The number that means any can be
// a command's own, once in 2^32: with pcommandOnly no other command is found.
CMIntf::CActiveMap::iterator CMIntf::findActive(const CSide& side, int nStreamID, uint32_t nSequenceNo,
                                                const CCommand* pcommandOnly)
{
    CActiveMap& mapActive = this->*side.pmapActive;
    const auto it = mapActive.find(nStreamID);
    if (it == mapActive.end() || (nSequenceNo != ANY_SEQUENCE_NO && nSequenceNo != it->second->m_cmd.nSequenceNo) ||
        (pcommandOnly && pcommandOnly != it->second))
        return mapActive.end();
    return it;
}

// Does what remActiveCommand does, with what the maps are known to have.
void CMIntf::removeFound(int nStreamID, uint32_t nSequenceNo, int bDelete, CActiveMap::iterator itPlay,
                         CActiveMap::iterator itRecord)
{
    const int nSequenceIDParam = static_cast<int>(nSequenceNo);
    ZEL_TRACE(TRACE_INFO, LogLib_Normal,
              " (Info) CMIntf::CMIntf::remActiveCommand called, sid = %d, nSequenceIDParam = %d", nStreamID,
              nSequenceIDParam);
    removeFoundOfSide(s_sidePlay, nStreamID, bDelete, itPlay);
    ZEL_TRACE(TRACE_INFO, LogLib_Normal,
              " (Info) CMIntf::CMIntf::remActiveCommand  before active record,sid = %d, nSequenceIDParam = %d",
              nStreamID, nSequenceIDParam);
    removeFoundOfSide(s_sideRecord, nStreamID, bDelete, itRecord);
    ZEL_TRACE(TRACE_INFO, LogLib_Normal,
              " (Info) CMIntf::CMIntf::remActiveCommand EXIT: sid = %d, nSequenceIDParam = %d", nStreamID,
              nSequenceIDParam);
}

void CMIntf::removeFoundOfSide(const CSide& side, int nStreamID, int bDelete, CActiveMap::iterator it)
{
    CActiveMap& mapActive = this->*side.pmapActive;
    if (it == mapActive.end())
        return;
    CCommand* const pcommand = it->second;

    // The play side tells of the map entry after it is gone and of the deadline entry before, the
    // record side the other way round.
    if (!side.bPlay)
        ZEL_TRACE(TRACE_INFO, LogLib_Normal, side.pszEraseActive, addressForLog(pcommand));
    m_poolActive.erase(mapActive, it);
    if (side.bPlay)
        ZEL_TRACE(TRACE_INFO, LogLib_Normal, side.pszEraseActive, addressForLog(pcommand));

    const bool bErased = eraseDeadline(pcommand, side.bPlay ? side.pszEraseDeadline : nullptr);
    if (bErased && !side.bPlay)
    {
        ZEL_TRACE(TRACE_INFO, LogLib_Normal, side.pszEraseDeadline, sequenceNo(pcommand), pcommand->m_nStreamID,
                  commandName(pcommand));
    }

    if (bDelete)
    {
        ZEL_TRACE(TRACE_INFO, LogLib_Normal, side.pszDeleting, nStreamID, addressForLog(pcommand));
        delete pcommand;
    }
}

void CMIntf::unlinkActiveCommand(CCommand* pcommand)
{
    const int nStreamID = pcommand->m_nStreamID;
    const uint32_t nSequenceNo = pcommand->m_cmd.nSequenceNo;
    const auto itPlay = findActive(s_sidePlay, nStreamID, nSequenceNo, pcommand);
    const auto itRecord = findActive(s_sideRecord, nStreamID, nSequenceNo, pcommand);
    const bool bFound =
        itPlay != m_mapActiveCommandByStreamIDPlay.end() || itRecord != m_mapActiveCommandByStreamIDRecord.end();
    removeFound(nStreamID, nSequenceNo, 0, itPlay, itRecord);
    if (!bFound)
        eraseDeadline(pcommand, nullptr);
}

CMIntf::CCommand* CMIntf::activeCommand(const CSide& side, int nStreamID)
{
    const auto& mapActive = this->*side.pmapActive;
    const auto it = mapActive.find(nStreamID);
    return it == mapActive.end() ? nullptr : it->second;
}

int CMIntf::setDone(int nStreamID, CMIntfCompletionHandler* pcomplHandler)
{
    ZEL_TRACE(TRACE_OPERATION, LogLib_Normal, "CMIntf::setDone, id %d", nStreamID);
    CCritSecHold hold(m_pCritSecCMIntf);

    bool bCreate = true;
    for (const CSide* const pside : {&s_sideRecord, &s_sidePlay})
    {
        const auto& mapQueue = this->*pside->pmapQueue;
        const auto itQueue = mapQueue.find(nStreamID);
        if (itQueue != mapQueue.end() && !itQueue->second->empty())
        {
            itQueue->second->back()->m_bDone = 1;
            bCreate = false;
        }
        if (markInHand(*pside, nStreamID))
            bCreate = false;
        if (CCommand* const pcommandActive = activeCommand(*pside, nStreamID))
        {
            pcommandActive->m_bDone = 1;
            bCreate = false;
        }
    }
    return bCreate ? injectCompletion(nStreamID, pcomplHandler) : MCS_OK;
}

// Reports an operation of which nothing is left to wait for: a command that the driver never sees,
// finished by an event from ourselves.
int CMIntf::injectCompletion(int nStreamID, CMIntfCompletionHandler* pcomplHandler)
{
    CCommandOwner pcommand(new (std::nothrow) CCommand);
    if (!pcommand)
        return MCS_OUTOFMEMORY;
    pcommand->m_nStreamID = nStreamID;
    pcommand->m_bDone = 1;
    pcommand->m_nTimeout = DEFAULT_TIMEOUT;
    pcommand->m_ullTimeoutTick = 0;
    pcommand->m_pcomplHandler = pcomplHandler;
    pcommand->m_cmd = structMICMD();
    ZEL_TRACE(TRACE_INFO, LogLib_Normal,
              "(Info) CMIntf::setDone calling addActiveCommand called RECORD, seqno = %d, sid = %d",
              static_cast<int>(pcommand->m_cmd.nSequenceNo), nStreamID);

    int bSend = 0;
    const int nStatus = processPlayActiveCommand(pcommand.get(), bSend);
    if (nStatus != MCS_OK)
        return nStatus;
    CCommand* const pcommandActive = pcommand.release();

    structMIEVT evt = {};
    evt.s_mievt = MIEVT_DONE;
    evt.nStreamID = nStreamID;
    evt.nSequenceID = pcommandActive->m_cmd.nSequenceNo;
    evt.s_mcstatus = MCS_OK;
    if (sendEvent(&evt) != MCS_OK)
    {
        pcommandActive->m_bUntold = true;
        storeUnlocked(m_bAnyUntold, 1);
    }
    return MCS_OK;
}
