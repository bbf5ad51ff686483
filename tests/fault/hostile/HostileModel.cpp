#include "HostileModel.h"

#include <algorithm>

namespace
{
const int NORESPONSE = 16;
const int REFUSED = 34;
const int PIPEREAD = 44;
const int PIPEWRITE = 45;
const int NOTCONNECTED = 47;
const int ANSWERS_READ = 5;

bool isPlay(MICMD micmd)
{
    return micmd == MICMD_PLAYCLIP || micmd == MICMD_PLAYFILE;
}
} // namespace

int CHostileModel::send(CCommand command, bool bUsePlayQueue, structMIRSP& rsp)
{
    const MICMD micmd = command.request.s_micmd;
    rsp = {};
    if (m_nConnectID == -1 && micmd != MICMD_CONNECT)
        return NOTCONNECTED;

    CSideState* pSide = nullptr;
    if (m_nConnectID != -1 && (bUsePlayQueue || isPlay(micmd)))
        pSide = &m_aSides[Play];
    else if (m_nConnectID != -1 && micmd == MICMD_RECORDFILE)
        pSide = &m_aSides[Record];
    if (pSide && pSide->mapActive.contains(command.nStreamID))
    {
        pSide->mapQueue[command.nStreamID].push_back(command);
        return 0;
    }

    command.request.nSequenceNo = m_nNextSequenceNo++;
    if (pSide)
    {
        command.ullDeadline = m_ullTick + (command.nTimeout == 0xFFFFFFFFu ? 300000u : command.nTimeout * 1000u);
        command.ullEntered = m_ullEntered++;
        pSide->mapActive[command.nStreamID] = command;
    }
    if (micmd != MICMD_CONNECT && command.request.nConnectID == -1)
        command.request.nConnectID = m_nConnectID;
    const COutcome outcome = exchange(command.request, rsp);
    if (outcome.nStatus != 0 && pSide)
        pSide->mapActive.erase(command.nStreamID);
    if (outcome.bLost)
        clearAfter(outcome.nStatus);
    return outcome.nStatus;
}

int CHostileModel::request(MICMD micmd, structMIRSP& rsp, int nStreamID)
{
    CCommand command;
    command.request.s_micmd = micmd;
    command.request.nConnectID = m_nConnectID;
    command.nStreamID = nStreamID;
    return send(command, false, rsp);
}

CHostileModel::COutcome CHostileModel::exchange(const structMICMD& request, structMIRSP& rsp)
{
    m_ullLastResponse = 0;
    if (!m_bDriver || !m_bRequestPipe)
        return {PIPEWRITE, true};
    m_vExchanges.push_back({request.s_micmd, request.nConnectID, request.nSequenceNo, {}, false});
    return readAnswers(request, rsp);
}

// Whatever is in the pipe is read in the order in which it came, 48 bytes at a time, five times at
// most, until one has the number of the request.
CHostileModel::COutcome CHostileModel::readAnswers(const structMICMD& request, structMIRSP& rsp)
{
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

void CHostileModel::clearAfter(int nStatus)
{
    const bool bClosed = nStatus != NORESPONSE;
    if (bClosed)
    {
        m_bRequestPipe = false;
        m_nConnectID = -1;
        clearActive(nStatus);
    }
    for (CSideState& side : m_aSides)
        side.mapQueue.clear();
    clearActive(nStatus); // once more after a loss: the events are there twice then
}

void CHostileModel::clearActive(int nStatus)
{
    for (const CSideState& side : m_aSides)
        for (const auto& [nStreamID, command] : side.mapActive)
            m_pipeEvent.append(structMIEVT{MIEVT_DONE, nStreamID, command.request.nSequenceNo, nStatus});
}

int CHostileModel::setDone(int nStreamID, int nToken)
{
    bool bFound = false;
    for (CSideState& side : m_aSides)
    {
        const auto itQueue = side.mapQueue.find(nStreamID);
        if (itQueue != side.mapQueue.end() && !itQueue->second.empty())
        {
            itQueue->second.back().bDone = true;
            bFound = true;
        }
        const auto itActive = side.mapActive.find(nStreamID);
        if (itActive != side.mapActive.end())
        {
            itActive->second.bDone = true;
            bFound = true;
        }
    }
    if (bFound)
        return 0;
    CCommand command;
    command.nStreamID = nStreamID;
    command.nToken = nToken;
    command.request.nSequenceNo = m_nNextSequenceNo++;
    command.ullDeadline = m_ullTick + 300000;
    command.ullEntered = m_ullEntered++;
    m_aSides[Play].mapActive[nStreamID] = command;
    m_pipeEvent.append(structMIEVT{MIEVT_DONE, nStreamID, command.request.nSequenceNo, 0});
    return 0;
}

int CHostileModel::cancel(int nStreamID)
{
    m_aSides[Play].mapQueue.erase(nStreamID);
    const auto it = m_aSides[Play].mapActive.find(nStreamID);
    if (it == m_aSides[Play].mapActive.end())
        return 0;
    it->second.bDone = true;
    structMIRSP rsp;
    return request(MICMD_CANCEL, rsp);
}

int CHostileModel::openStream(int nObject)
{
    structMIRSP rsp;
    const int nStatus = request(MICMD_OPENSTREAM, rsp);
    m_aObjects[nObject] = {true, nStatus == 0, nStatus == 0, nStatus == 0 ? rsp.s_nStreamID : -1};
    if (nStatus == 0)
        m_mapObjectByStream[rsp.s_nStreamID] = nObject;
    return nStatus;
}

// Of a stream with a negative id the driver is told nothing.
void CHostileModel::destroyObject(int nObject)
{
    const CObject object = m_aObjects[nObject];
    m_aObjects[nObject] = {};
    if (object.nStreamID >= 0)
        closeStream(object.nStreamID);
    else if (object.bOpened)
        forgetStream(object.nStreamID);
}

void CHostileModel::forgetStream(int nStreamID)
{
    dropQueues(nStreamID);
    for (CSideState& side : m_aSides)
        side.mapActive.erase(nStreamID);
    m_mapObjectByStream.erase(nStreamID);
}

int CHostileModel::closeStream(int nStreamID)
{
    forgetStream(nStreamID);
    structMIRSP rsp;
    return request(MICMD_CLOSESTREAM, rsp);
}

int CHostileModel::openFile(const std::string& strName, int& nFileID)
{
    for (auto& [nID, file] : m_mapFiles)
    {
        if (file.strName == strName)
        {
            ++file.nUseCount;
            nFileID = nID;
            return 0;
        }
    }
    structMIRSP rsp;
    const int nStatus = request(MICMD_OPENFILE, rsp);
    nFileID = m_nNextFileID++;
    m_mapFiles[nFileID] = {strName, 1, nStatus == 0 ? rsp.s_nFileID : -1};
    return nStatus;
}

int CHostileModel::closeFile(int nFileID)
{
    const auto it = m_mapFiles.find(nFileID);
    if (it == m_mapFiles.end() || --it->second.nUseCount > 0)
        return 0;
    const int nDriverID = it->second.nDriverID;
    m_mapFiles.erase(it);
    structMIRSP rsp;
    return nDriverID == -1 ? 0 : request(MICMD_CLOSEFILE, rsp);
}

void CHostileModel::reopenFiles()
{
    for (auto& [nID, file] : m_mapFiles)
    {
        structMIRSP rsp;
        if (request(MICMD_OPENFILE, rsp) != 0)
        {
            for (auto& [nLostID, fileLost] : m_mapFiles)
                fileLost.nDriverID = -1;
            return;
        }
        file.nDriverID = rsp.s_nFileID;
    }
}

std::vector<CRunning> CHostileModel::running() const
{
    std::vector<CRunning> vRunning;
    for (const CSideState& side : m_aSides)
        for (const auto& [nStreamID, command] : side.mapActive)
            vRunning.push_back({nStreamID, command.request.nSequenceNo});
    return vRunning;
}

bool CHostileModel::isTokenUsed(int nToken) const
{
    for (const CSideState& side : m_aSides)
    {
        const auto used = [nToken](const CCommand& command) { return command.nToken == nToken; };
        if (std::any_of(side.mapActive.begin(), side.mapActive.end(), [&](const auto& e) { return used(e.second); }))
            return true;
        for (const auto& [nStreamID, queCommands] : side.mapQueue)
            if (std::any_of(queCommands.begin(), queCommands.end(), used))
                return true;
    }
    return false;
}
