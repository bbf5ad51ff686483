#include "SimModel.h"

#include <cerrno>

CSimModel::CSimModel(const std::string& strResponsePipe, const std::string& strEventPipe, uint64_t ullTick)
    : CRulesModel(OBJECTS, ullTick)
{
    m_strResponsePipe = strResponsePipe;
    m_strEventPipe = strEventPipe;
}

void CSimModel::setMood(unsigned int nFaults, unsigned int nCallBacks, unsigned int nHighestStream)
{
    m_nFaults = nFaults;
    m_nCallBacks = nCallBacks;
    m_nHighestStream = nHighestStream;
}

CSimResult CSimModel::apply(const CSimOperation& operation, CRandomChoices& random, CSimScript& script)
{
    m_pRandom = &random;
    m_pScript = &script;
    const int nStreamID = operation.nStreamID;
    int nID = -1;
    int nStatus = 0;
    switch (operation.kind)
    {
    case CSimOperation::Send: return applySend(operation);
    case CSimOperation::SetDone: setDone(nStreamID, operation.bHandler ? HANDLER : NO_HANDLER); break;
    case CSimOperation::Cancel: nStatus = cancel(nStreamID, static_cast<uint32_t>(operation.nArgument)); break;
    case CSimOperation::OpenStream:
        nStatus = openStream(operation.nObject, operation.strName, static_cast<uint32_t>(operation.nArgument), nID);
        return {nStatus, nID};
    case CSimOperation::CloseStream: nStatus = closeStream(nStreamID); break;
    case CSimOperation::OpenFile: nStatus = openFile(operation.strName, nID); return {nStatus, nID};
    case CSimOperation::CloseFile: nStatus = closeFile(operation.nArgument); break;
    case CSimOperation::MapFile: return {0, driverFile(operation.nArgument)};
    case CSimOperation::Reopen: reopen(); break;
    case CSimOperation::Ping: nStatus = ping(); break;
    case CSimOperation::ClearActive: clearActive(operation.nArgument); break;
    case CSimOperation::ClearQueues: clearQueues(); break;
    case CSimOperation::ClearPlay: dropQueue(Place::QueuedPlay, nStreamID); break;
    case CSimOperation::ClearRecord: dropQueue(Place::QueuedRecord, nStreamID); break;
    case CSimOperation::DriverEvent: m_vEvents.push_back(operation.evt); break;
    case CSimOperation::DeliverEvent:
        m_vEvents.erase(m_vEvents.begin());
        if (operation.evt.s_mievt == MIEVT_DONE)
            done(operation.evt);
        break;
    case CSimOperation::Idle:
        m_ullTick += operation.ullAdvance;
        idle(operation.bDriverThere);
        break;
    case CSimOperation::LoseDriver: loseConnection(); break;
    }
    return {nStatus, 0};
}

void CSimModel::finalize(CRandomChoices& random, CSimScript& script)
{
    m_pRandom = &random;
    m_pScript = &script;
    CRulesModel::finalize();
}

// A play starts the clock of its stream, as the stream's own operations do.
CSimResult CSimModel::applySend(const CSimOperation& operation)
{
    CCommand command;
    command.request = operation.request;
    command.nStreamID = operation.nStreamID;
    command.bDone = operation.nNoDone == 0;
    command.nTimeout = operation.nTimeout;
    command.nHandler = operation.bHandler ? HANDLER : NO_HANDLER;
    structMIRSP rsp;
    const int nStatus = send(command, operation.bUsePlayQueue != 0, rsp);
    const MICMD micmd = operation.request.s_micmd;
    CStream* const pStream = stream(operation.nStreamID);
    if (nStatus == 0 && (micmd == MICMD_PLAYCLIP || micmd == MICMD_PLAYFILE) && pStream)
        m_vObjects[static_cast<size_t>(pStream->nObject)].ullPlayStart = m_ullTick;
    return {nStatus, nStatus == 0 ? rsp.s_nResult : 0};
}

bool CSimModel::sendEvent(const structMIEVT& evt)
{
    CSimAct& act = expect(CSimAct::WriteEvent);
    act.evt = evt;
    const bool bFails = m_pRandom->perMille(m_nFaults / 2);
    act.nOutcome = bFails ? -1 : static_cast<ssize_t>(sizeof(evt));
    act.nError = bFails ? EAGAIN : 0;
    if (!bFails)
        m_vEvents.push_back(evt);
    return !bFails;
}

CSimAct& CSimModel::expect(CSimAct::Kind kind)
{
    m_pScript->emplace_back();
    m_pScript->back().kind = kind;
    return m_pScript->back();
}

CSimModel::COutcome CSimModel::exchange(const structMICMD& request, structMIRSP& rsp)
{
    const bool bFails = m_pRandom->perMille(m_nFaults / 4);
    CSimAct& act = expect(CSimAct::WriteRequest);
    act.request = request;
    act.nOutcome = static_cast<ssize_t>(sizeof(request));
    if (bFails)
    {
        const int anErrors[] = {EPIPE, EAGAIN, EBADF, 0};
        act.nError = m_pRandom->pick(anErrors);
        act.nOutcome = act.nError ? -1 : 100;
        return {PIPEWRITE, true};
    }
    return readResponses(request, rsp);
}

CSimModel::COutcome CSimModel::readResponses(const structMICMD& request, structMIRSP& rsp)
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
            return {wait.nOutcome == 0 ? NORESPONSE : PIPEREAD, true};

        const ssize_t anLengths[] = {-1, 0, 1, 47};
        const bool bLate = nTry < nLate;
        CSimAct& act = expect(CSimAct::ReadResponse);
        act.rsp = bLate ? lateAnswer(request.nSequenceNo) : answerTo(request);
        act.nOutcome = bFails ? m_pRandom->pick(anLengths) : static_cast<ssize_t>(sizeof(act.rsp));
        if (bFails)
        {
            act.nError = EIO;
            return {PIPEREAD, true};
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
        return {nStatus, false};
    }
    return {nStatus, false};
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

void CSimModel::tell(const CCommand& command, int nStatus, int nReason)
{
    const auto pCallBack = m_pRandom->perMille(m_nCallBacks) ? std::make_shared<CSimAct::CCallBack>() : nullptr;
    CSimAct& act = expect(CSimAct::Report);
    act.nStreamID = command.nStreamID;
    act.nStatus = nStatus;
    act.nReason = nReason;
    act.pCallBack = pCallBack;
    if (pCallBack)
    {
        pCallBack->operation = chooseOperation(*this, *m_pRandom, true);
        pCallBack->result = apply(pCallBack->operation, *m_pRandom, *m_pScript);
    }
}
