// The event thread of CHostileModel.
#include "HostileModel.h"

#include <algorithm>

namespace
{
const int TIMEDOUT = 46;

bool isFatal(int nStatus)
{
    return nStatus >= 42 && nStatus <= 45;
}
} // namespace

// A record that came short leaves the end of the one before it in place.
void CHostileModel::readEvents()
{
    structMIEVT evt = {};
    while (m_pipeEvent.read(evt) > 0)
        if (evt.s_mievt == MIEVT_DONE)
            done(evt);
}

void CHostileModel::done(const structMIEVT& evt)
{
    const int nStreamID = evt.nStreamID;
    const int nStatus = evt.s_mcstatus;
    std::optional<CCommand> completed;
    auto& mapPlay = m_aSides[Play].mapActive;
    const auto it = mapPlay.find(nStreamID);
    if (it != mapPlay.end() && it->second.request.nSequenceNo == evt.nSequenceID)
    {
        completed = it->second;
        mapPlay.erase(it);
    }

    std::optional<CCommand> nextPlay;
    std::optional<CCommand> nextRecord;
    if (nStatus == 0)
    {
        nextPlay = takeNext(Play, nStreamID);
        nextRecord = takeNext(Record, nStreamID);
    }
    else
        dropQueues(nStreamID);
    if (isFatal(nStatus))
    {
        const auto itObject = m_mapObjectByStream.find(nStreamID);
        if (itObject != m_mapObjectByStream.end())
            m_aObjects[itObject->second].bInitialized = false;
        if (completed)
            m_aSides[Record].mapActive.erase(nStreamID);
        return;
    }
    if (completed && (completed->bDone || nStatus != 0))
        report(*completed, nStatus);
    startNext(Play, nextPlay);
    startNext(Record, nextRecord);
}

std::optional<CHostileModel::CCommand> CHostileModel::takeNext(Side side, int nStreamID)
{
    const auto it = m_aSides[side].mapQueue.find(nStreamID);
    if (it == m_aSides[side].mapQueue.end() || it->second.empty())
        return std::nullopt;
    const CCommand command = it->second.front();
    it->second.pop_front();
    return command;
}

void CHostileModel::startNext(Side side, std::optional<CCommand> command)
{
    if (!command)
        return;
    structMIRSP rsp;
    const int nStatus = send(*command, side == Play, rsp);
    if (nStatus == 0)
        return;
    m_aSides[side].mapQueue.erase(command->nStreamID);
    report(*command, nStatus);
}

void CHostileModel::report(const CCommand& command, int nStatus)
{
    if (command.nToken == -1)
        return;
    const MICMD micmd = command.request.s_micmd;
    const int nReason = micmd == MICMD_PLAYCLIP || micmd == MICMD_PLAYFILE ? 1 : micmd == MICMD_RECORDFILE ? 2 : 0;
    m_vReports.push_back({command.nToken, command.nStreamID, nStatus, nReason});
}

void CHostileModel::dropQueues(int nStreamID)
{
    for (CSideState& side : m_aSides)
        side.mapQueue.erase(nStreamID);
}

void CHostileModel::idle()
{
    const bool bOpened = !m_bRequestPipe && m_bDriver;
    m_bRequestPipe = m_bRequestPipe || bOpened;
    structMIRSP rsp;
    if (m_bRequestPipe && m_ullLastResponse != 0 && m_ullTick > m_ullLastResponse + 20000)
        request(MICMD_PING, rsp);
    if (bOpened && request(MICMD_CONNECT, rsp) == 0)
    {
        m_nConnectID = rsp.s_nConnectID;
        reopenFiles();
    }
    sweep();
}

void CHostileModel::sweep()
{
    std::vector<CCommand> vOverdue;
    for (CSideState& side : m_aSides)
    {
        for (const auto& [nStreamID, command] : side.mapActive)
            if (command.ullDeadline <= m_ullTick && command.request.s_micmd != MICMD_NULL)
                vOverdue.push_back(command);
    }
    std::sort(vOverdue.begin(), vOverdue.end(), [](const CCommand& a, const CCommand& b) {
        return a.ullDeadline != b.ullDeadline ? a.ullDeadline < b.ullDeadline : a.ullEntered < b.ullEntered;
    });
    for (const CCommand& command : vOverdue)
    {
        for (CSideState& side : m_aSides)
        {
            const auto it = side.mapActive.find(command.nStreamID);
            if (it != side.mapActive.end() && it->second.ullEntered == command.ullEntered)
                side.mapActive.erase(it);
        }
        dropQueues(command.nStreamID);
    }
    for (const CCommand& command : vOverdue)
    {
        structMIRSP rsp;
        request(MICMD_CANCEL, rsp);
        report(command, TIMEDOUT);
    }
}
