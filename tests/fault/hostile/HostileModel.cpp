#include "HostileModel.h"

#include <algorithm>

// Whatever is in the pipe is read in the order in which it came, 48 bytes at a time, five times at
// most, until one has the number of the request.
CHostileModel::COutcome CHostileModel::exchange(const structMICMD& request, structMIRSP& rsp)
{
    if (!m_bDriver || !m_bRequestPipe)
        return {PIPEWRITE, true};
    m_vExchanges.push_back({request.s_micmd, request.nConnectID, request.nSequenceNo, {}, false});
    CPlannedExchange& plan = m_vExchanges.back();
    int nStatus = 0;
    for (int nTry = 0; nTry < ANSWERS_READ; ++nTry)
    {
        plan.vWaits.push_back(m_driver.answer(request, nTry, m_pipeResponse.empty()));
        m_pipeResponse.append(plan.vWaits.back());
        if (m_pipeResponse.empty())
        {
            plan.bTimeOut = true;
            return {NORESPONSE, true};
        }
        if (m_pipeResponse.read(rsp) != sizeof(rsp))
            return {PIPEREAD, true};
        m_ullLastResponse = m_ullTick;
        if (rsp.s_mirsp == MIRSP_STATUS)
            nStatus = rsp.s_nResult == MISTATUS_FAILED ? REFUSED : 0;
        if (rsp.nRespSequenceNo == request.nSequenceNo)
            break;
        rsp = {};
        nStatus = NORESPONSE;
    }
    return {nStatus, false};
}

bool CHostileModel::sendEvent(const structMIEVT& evt)
{
    m_pipeEvent.append(evt);
    return true;
}

void CHostileModel::tell(const CCommand& command, int nStatus, int nReason)
{
    m_vReports.push_back({command.nHandler, command.nStreamID, nStatus, nReason});
}

int CHostileModel::openObject(int nObject)
{
    m_vObjects[static_cast<size_t>(nObject)] = {};
    int nStreamID = -1;
    const int nStatus = openStream(nObject, "call", 1, nStreamID);
    m_aObjects[nObject] = {true, nStatus == 0, nStreamID};
    return nStatus;
}

// Of a stream with a negative id the driver is told nothing.
void CHostileModel::destroyObject(int nObject)
{
    const CApplicationStream object = m_aObjects[nObject];
    m_aObjects[nObject] = {};
    if (object.nStreamID >= 0)
        closeStream(object.nStreamID);
    else if (object.bOpened)
        forgetStream(object.nStreamID);
}

// A record that came short leaves the end of the one before it in place.
void CHostileModel::readEvents()
{
    structMIEVT evt = {};
    while (m_pipeEvent.read(evt) > 0)
        if (evt.s_mievt == MIEVT_DONE)
            done(evt);
}

std::vector<CRunning> CHostileModel::running() const
{
    std::vector<CRunning> vRunning;
    for (const CCommand* const pCommand : byDeadline())
        vRunning.push_back({pCommand->nStreamID, pCommand->request.nSequenceNo});
    return vRunning;
}

bool CHostileModel::isHandlerUsed(int nHandler) const
{
    return std::any_of(
        m_vCommands.begin(), m_vCommands.end(),
        [nHandler](const CCommand& command) { return command.nHandler == nHandler; });
}
