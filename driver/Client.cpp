// A connected client process: its streams, its files, and the events that it has not taken yet.
#include "Client.h"

#include <spdlog/spdlog.h>

#include <algorithm>

CClient::CClient(int nConnectID, std::unique_ptr<CClientPort> pPort)
    : m_nConnectID(nConnectID), m_pPort(std::move(pPort))
{
}

int CClient::ConnectID() const
{
    return m_nConnectID;
}

CClientPort& CClient::Port()
{
    return *m_pPort;
}

void CClient::QueueEvents(const std::vector<structMIEVT>& vEvents)
{
    m_events.insert(m_events.end(), vEvents.begin(), vEvents.end());
}

bool CClient::FlushEvents()
{
    while (!m_events.empty())
    {
        const ESend eSend = m_pPort->SendEvent(m_events.front());
        if (eSend == ESend::Gone)
        {
            return false;
        }
        if (eSend == ESend::Full)
        {
            break;
        }
        m_events.pop_front();
    }
    if (m_bWatchesRoom != !m_events.empty())
    {
        m_bWatchesRoom = !m_events.empty();
        m_pPort->WatchForRoom(m_bWatchesRoom);
        spdlog::info("client {} {}", m_nConnectID,
                     m_bWatchesRoom ? "does not take its events; they wait" : "has taken all its events");
    }
    return true;
}

std::size_t CClient::WaitingEvents() const
{
    return m_events.size();
}

void CClient::Advance(std::size_t nSamples)
{
    std::vector<structMIEVT> vEvents;
    for (const auto& [nStreamID, pStream] : m_mapStreamByID)
    {
        pStream->Advance(nSamples, vEvents);
    }
    QueueEvents(vEvents);
}

bool CClient::IsActive() const
{
    return std::any_of(m_mapStreamByID.begin(), m_mapStreamByID.end(),
                       [](const auto& item) { return item.second->IsActive(); });
}

CStream* CClient::FindStream(int nStreamID)
{
    const auto it = m_mapStreamByID.find(nStreamID);
    return it == m_mapStreamByID.end() ? nullptr : it->second.get();
}

CClipPtr CClient::FindFile(int nFileID) const
{
    const auto it = m_mapFileByID.find(nFileID);
    return it == m_mapFileByID.end() ? nullptr : it->second;
}
