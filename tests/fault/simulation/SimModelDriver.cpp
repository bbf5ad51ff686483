// The model's exchange with the driver, and what its event thread does.
#include "SimModel.h"

#include <cerrno>
#include <cstring>

namespace
{
const int NORESPONSE = 16;
const int REFUSED = 34;
const int PIPEREAD = 44;
const int PIPEWRITE = 45;
const int TIMEDOUT = 46;
const int NOTCONNECTED = 47;

bool isFatal(int nStatus)
{
    return nStatus >= 42 && nStatus <= 45;
}
} // namespace

CSimAct& CSimModel::expect(CSimAct::Kind kind)
{
    m_pScript->emplace_back();
    m_pScript->back().kind = kind;
    return m_pScript->back();
}

int CSimModel::sendRequest(const structMICMD& request, structMIRSP& rsp)
{
    CCommand command;
    command.request = request;
    command.nTimeout = 0xFFFFFFFFu;
    return send(command, false, rsp);
}

int CSimModel::send(CCommand command, bool bUsePlayQueue, structMIRSP& rsp)
{
    const MICMD micmd = command.request.s_micmd;
    const int nStreamID = command.nStreamID;
    rsp = {};
    if (m_nConnectID == -1 && micmd != MICMD_CONNECT)
        return NOTCONNECTED;

    uint64_t ullEntered = UINT64_MAX; // of an immediate command: that of none
    const bool bPlay = bUsePlayQueue || micmd == MICMD_PLAYCLIP || micmd == MICMD_PLAYFILE;
    if (m_nConnectID != -1 && (bPlay || micmd == MICMD_RECORDFILE))
    {
        if (active(bPlay ? Place::ActivePlay : Place::ActiveRecord, nStreamID))
        {
            enter(command, bPlay ? Place::QueuedPlay : Place::QueuedRecord);
            return 0;
        }
        ullEntered = m_ullNextEntry;
        enter(command, bPlay ? Place::ActivePlay : Place::ActiveRecord);
        command.request.nSequenceNo = m_vCommands.back().request.nSequenceNo;
    }
    else
        command.request.nSequenceNo = m_nNextSequenceNo++;

    bool bLost = false;
    const int nStatus = exchange(command.request, rsp, bLost);
    if (nStatus != 0)
        removeEntered(ullEntered);
    if (bLost)
        clearAfter(nStatus);
    return nStatus;
}

void CSimModel::clearAfter(int nStatus)
{
    if (nStatus != NORESPONSE)
    {
        m_bRequestPipe = false;
        m_nConnectID = -1;
        clearQueues();
        clearActive(nStatus);
    }
    clearQueues();
    clearActive(nStatus);
}

int CSimModel::exchange(const structMICMD& request, structMIRSP& rsp, bool& bLost)
{
    m_ullLastResponse = 0;
    const bool bFails = m_pRandom->perMille(m_nFaults / 4);
    CSimAct& act = expect(CSimAct::WriteRequest);
    act.request = request;
    act.nOutcome = static_cast<ssize_t>(sizeof(request));
    if (bFails)
    {
        const int anErrors[] = {EPIPE, EAGAIN, EBADF, 0};
        act.nError = m_pRandom->pick(anErrors);
        act.nOutcome = act.nError ? -1 : 100;
        bLost = true;
        return PIPEWRITE;
    }
    return readResponses(request, rsp, bLost);
}

int CSimModel::readResponses(const structMICMD& request, structMIRSP& rsp, bool& bLost)
{
    const unsigned int nLate = m_pRandom->perMille(m_nFaults / 2) ? 1 + m_pRandom->below(5) : 0;
    int nStatus = 0;
    for (unsigned int nTry = 0; nTry < 5; ++nTry)
    {
        const bool bFails = m_pRandom->perMille(m_nFaults / 4);
        const int anOutcomes[] = {0, -1, 1, 1};
        CSimAct& wait = expect(CSimAct::WaitResponse);
        wait.nOutcome = bFails ? m_pRandom->pick(anOutcomes) : 1;
        wait.nError = wait.nOutcome < 0 ? EBADF : 0;
        wait.ullAdvance = wait.nOutcome == 0 ? 10000 : m_pRandom->oneIn(4) ? m_pRandom->below(3000) : 0;
        m_ullTick += wait.ullAdvance;
        if (wait.nOutcome != 1)
        {
            bLost = true;
            return wait.nOutcome == 0 ? NORESPONSE : PIPEREAD;
        }

        const ssize_t anLengths[] = {-1, 0, 1, 47};
        const bool bLate = nTry < nLate;
        CSimAct& act = expect(CSimAct::ReadResponse);
        act.rsp = bLate ? lateAnswer(request.nSequenceNo) : answerTo(request);
        act.nOutcome = bFails ? m_pRandom->pick(anLengths) : static_cast<ssize_t>(sizeof(act.rsp));
        if (bFails)
        {
            act.nError = EIO;
            bLost = true;
            return PIPEREAD;
        }
        rsp = act.rsp;
        m_ullLastResponse = m_ullTick;
        if (bLate)
        {
            nStatus = NORESPONSE;
            rsp = {};
            continue;
        }
        if (rsp.s_mirsp == MIRSP_STATUS)
            nStatus = rsp.s_nResult == MISTATUS_FAILED ? REFUSED : 0;
        return nStatus;
    }
    return nStatus;
}

structMIRSP CSimModel::lateAnswer(uint32_t nSequenceNo)
{
    const uint32_t anOff[] = {0xFFFFFFFFu, 1, 2, 0x80000000u};
    structMIRSP rsp = {};
    rsp.s_mirsp = static_cast<MIRSP>(m_pRandom->below(10));
    rsp.nRespSequenceNo = nSequenceNo + m_pRandom->pick(anOff);
    rsp.s_nResult = static_cast<int32_t>(m_pRandom->below(3));
    return rsp;
}

structMIRSP CSimModel::answerTo(const structMICMD& request)
{
    const int32_t anGood[] = {0, 0, 2, -1};
    const CCommandInfo* const pInfo = commandInfo(request.s_micmd);
    structMIRSP rsp = {};
    rsp.s_mirsp = pInfo ? pInfo->m_mirsp : MIRSP_STATUS;
    rsp.nRespSequenceNo = request.nSequenceNo;
    rsp.s_nResult = m_pRandom->pick(anGood);
    if (rsp.s_mirsp != MIRSP_STATUS)
        rsp.s_nResult = static_cast<int32_t>(1 + m_pRandom->below(m_nHighestStream));
    if (m_pRandom->perMille(m_nFaults / 4))
        rsp.s_mirsp = static_cast<MIRSP>(m_pRandom->below(10));
    else if (m_pRandom->perMille(m_nFaults / 2))
    {
        rsp.s_mirsp = MIRSP_STATUS;
        rsp.s_nResult = MISTATUS_FAILED;
    }
    return rsp;
}

void CSimModel::idle(const CSimOperation& operation)
{
    m_ullTick += operation.ullAdvance;
    const bool bJustOpened = !m_bRequestPipe && operation.bDriverThere;
    m_bRequestPipe = m_bRequestPipe || bJustOpened;
    structMIRSP rsp;
    if (m_bRequestPipe && m_ullLastResponse != 0 && m_ullTick > m_ullLastResponse + 20000)
        sendRequest({MICMD_PING, m_nConnectID, 0, {}}, rsp);
    const bool bConnected = bJustOpened && connect();
    if (m_nIdleCount++ > 60)
        m_nIdleCount = 0;
    if (bConnected)
        reopen();
    sweep();
    reportUntold();
}

bool CSimModel::connect()
{
    structMICMD request = {MICMD_CONNECT, 0, 0, {}};
    strncpy(request.connect.szRspPipe, m_strResponsePipe.c_str(), sizeof(request.connect.szRspPipe) - 1);
    strncpy(request.connect.szEvtPipe, m_strEventPipe.c_str(), sizeof(request.connect.szEvtPipe) - 1);
    structMIRSP rsp;
    if (sendRequest(request, rsp) != 0)
        return false;
    m_nConnectID = rsp.s_nConnectID;
    return true;
}

void CSimModel::sweep()
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
            expect(CSimAct::Alarm);
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
        structMICMD request = {MICMD_CANCEL, m_nConnectID, 0, {}};
        request.cancel.nStreamID = command.nStreamID;
        request.cancel.nCancelType = command.request.s_micmd == MICMD_RECORDFILE ? MICANCEL_RECORD : MICANCEL_PLAY;
        structMIRSP rsp;
        sendRequest(request, rsp);
        removeEntered(command.ullEntered);
        report(command, TIMEDOUT);
    }
}

void CSimModel::done(const structMIEVT& evt)
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
    if (nStatus == 3 || (nStatus == 0 && !bNextPlay && !bNextRecord))
        freezeTime(nStreamID);
    if (completed && (completed->bDone || nStatus != 0))
        report(*completed, nStatus);
    startNext(Place::QueuedPlay, Place::NextPlay, nStreamID);
    startNext(Place::QueuedRecord, Place::NextRecord, nStreamID);
}

bool CSimModel::takeNext(Place queue, Place next, int nStreamID)
{
    CCommand* const pCommand = active(queue, nStreamID);
    if (pCommand)
        pCommand->place = next;
    return pCommand != nullptr;
}

// Of a stream that the handler has closed meanwhile nothing is there any more.
void CSimModel::startNext(Place queue, Place next, int nStreamID)
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
void CSimModel::reportUntold()
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

void CSimModel::report(const CCommand& command, int nStatus)
{
    if (!command.bHandler)
        return;
    const MICMD micmd = command.request.s_micmd;
    const auto pCallBack = m_pRandom->perMille(m_nCallBacks) ? std::make_shared<CSimAct::CCallBack>() : nullptr;
    CSimAct& act = expect(CSimAct::Report);
    act.nStreamID = command.nStreamID;
    act.nStatus = nStatus;
    act.nReason = micmd == MICMD_PLAYCLIP || micmd == MICMD_PLAYFILE ? 1 : micmd == MICMD_RECORDFILE ? 2 : 0;
    act.pCallBack = pCallBack;
    if (pCallBack)
    {
        pCallBack->operation = chooseOperation(*this, *m_pRandom, true);
        pCallBack->result = apply(pCallBack->operation, *m_pRandom, *m_pScript);
    }
}

void CSimModel::markInvalid(int nStreamID)
{
    if (const CStream* const pStream = stream(nStreamID))
        m_vObjects[static_cast<size_t>(pStream->nObject)].bInitialized = 0;
    expect(CSimAct::Alarm);
}

void CSimModel::freezeTime(int nStreamID)
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
