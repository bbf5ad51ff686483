// What the model's event thread does.
#include "RulesModel.h"

#include <cstring>

namespace
{
const int CANCELLED = 3;
const int TIMEDOUT = 46;

bool isFatal(int nStatus)
{
    return nStatus >= 42 && nStatus <= 45;
}
} // namespace

void CRulesModel::idle(bool bDriverThere)
{
    const bool bJustOpened = !m_bRequestPipe && bDriverThere;
    m_bRequestPipe = m_bRequestPipe || bJustOpened;
    if (m_bRequestPipe && m_ullLastResponse != 0 && m_ullTick > m_ullLastResponse + 20000)
        ping();
    const bool bConnected = bJustOpened && connect();
    if (m_nIdleCount++ > 60)
        m_nIdleCount = 0;
    if (bConnected)
        reopen();
    sweep();
    reportUntold();
}

bool CRulesModel::connect()
{
    structMICMD cmd = {MICMD_CONNECT, 0, 0, {}};
    strncpy(cmd.connect.szRspPipe, m_strResponsePipe.c_str(), sizeof(cmd.connect.szRspPipe) - 1);
    strncpy(cmd.connect.szEvtPipe, m_strEventPipe.c_str(), sizeof(cmd.connect.szEvtPipe) - 1);
    structMIRSP rsp;
    if (request(cmd, rsp) != 0)
        return false;
    m_nConnectID = rsp.s_nConnectID;
    return true;
}

void CRulesModel::sweep()
{
    std::vector<CCommand> vOverdue;
    bool bAlarm = false;
    for (const CCommand* const pCommand : byDeadline())
    {
        const MICMD micmd = pCommand->request.s_micmd;
        if (pCommand->ullDeadline > m_ullTick || micmd < MICMD_CONNECT || micmd > MICMD_RECORDGETSTATUS)
            continue;
        if (!bAlarm && m_ullTick - pCommand->ullDeadline >= 300000)
        {
            alarm();
            bAlarm = true;
        }
        vOverdue.push_back(*pCommand);
    }
    for (const CCommand& command : vOverdue)
    {
        entered(command.ullEntered)->place = Place::Overdue;
        dropQueue(Place::QueuedPlay, command.nStreamID);
        dropQueue(Place::QueuedRecord, command.nStreamID);
    }
    for (const CCommand& command : vOverdue)
    {
        if (!entered(command.ullEntered)) // its stream was closed
            continue;
        structMICMD cmd = {MICMD_CANCEL, m_nConnectID, 0, {}};
        cmd.cancel.nStreamID = command.nStreamID;
        cmd.cancel.nCancelType = command.request.s_micmd == MICMD_RECORDFILE ? MICANCEL_RECORD : MICANCEL_PLAY;
        structMIRSP rsp;
        request(cmd, rsp);
        removeEntered(command.ullEntered);
        report(command, TIMEDOUT);
    }
}

void CRulesModel::done(const structMIEVT& evt)
{
    const int nStreamID = evt.nStreamID;
    const int nStatus = evt.s_mcstatus;
    std::optional<CCommand> completed;
    const CCommand* const pActive = active(Place::ActivePlay, nStreamID);
    if (pActive && pActive->request.nSequenceNo == evt.nSequenceID)
        completed = takeFirst(Place::ActivePlay, nStreamID);

    bool bNextPlay = false;
    bool bNextRecord = false;
    if (nStatus == 0)
    {
        bNextPlay = takeNext(Place::QueuedPlay, Place::NextPlay, nStreamID);
        bNextRecord = takeNext(Place::QueuedRecord, Place::NextRecord, nStreamID);
    }
    else
    {
        dropQueue(Place::QueuedPlay, nStreamID);
        dropQueue(Place::QueuedRecord, nStreamID);
    }
    if (isFatal(nStatus))
    {
        markInvalid(nStreamID);
        if (completed)
            dropActive(Place::ActiveRecord, nStreamID);
        return;
    }
    if (nStatus == CANCELLED || (nStatus == 0 && !bNextPlay && !bNextRecord))
        freezeTime(nStreamID);
    if (completed && (completed->bDone || nStatus != 0))
        report(*completed, nStatus);
    startNext(Place::QueuedPlay, Place::NextPlay, nStreamID);
    startNext(Place::QueuedRecord, Place::NextRecord, nStreamID);
}

bool CRulesModel::takeNext(Place queue, Place next, int nStreamID)
{
    CCommand* const pCommand = active(queue, nStreamID);
    if (pCommand)
        pCommand->place = next;
    return pCommand != nullptr;
}

// Of a stream that the handler has closed meanwhile nothing is there any more.
void CRulesModel::startNext(Place queue, Place next, int nStreamID)
{
    const std::optional<CCommand> command = takeFirst(next, nStreamID);
    if (!command)
        return;
    structMIRSP rsp;
    const int nStatus = send(*command, queue == Place::QueuedPlay, rsp);
    if (nStatus == 0)
        return;
    dropQueue(queue, nStreamID);
    report(*command, nStatus);
}

// Completions that setDone could not write, by ascending streams.
void CRulesModel::reportUntold()
{
    for (;;)
    {
        const CCommand* pFirst = nullptr;
        for (const CCommand& command : m_vCommands)
            if (command.bUntold && (!pFirst || command.nStreamID < pFirst->nStreamID))
                pFirst = &command;
        if (!pFirst)
            return;
        done({MIEVT_DONE, pFirst->nStreamID, pFirst->request.nSequenceNo, 0});
    }
}

void CRulesModel::report(const CCommand& command, int nStatus)
{
    if (command.nHandler == NO_HANDLER)
        return;
    const MICMD micmd = command.request.s_micmd;
    tell(command, nStatus, micmd == MICMD_PLAYCLIP || micmd == MICMD_PLAYFILE ? 1 : micmd == MICMD_RECORDFILE ? 2 : 0);
}

void CRulesModel::markInvalid(int nStreamID)
{
    if (const CStream* const pStream = stream(nStreamID))
        m_vObjects[static_cast<size_t>(pStream->nObject)].bInitialized = false;
    alarm();
}

void CRulesModel::freezeTime(int nStreamID)
{
    const CStream* const pStream = stream(nStreamID);
    if (!pStream)
        return;
    CObject& object = m_vObjects[static_cast<size_t>(pStream->nObject)];
    if (object.ullPlayStart == 0)
        return;
    object.ullPlayElapsed = m_ullTick - object.ullPlayStart;
    object.ullPlayStart = 0;
}
