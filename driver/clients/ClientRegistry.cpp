// All connected clients.
#include "ClientRegistry.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <climits>

CClientRegistry::CClientRegistry(CStatistics& statistics) : m_statistics(statistics) {}

CClient* CClientRegistry::Add(std::unique_ptr<CClientPort> pPort)
{
    const pid_t nProcessID = pPort->ProcessID();
    const auto itFormer = std::find_if(m_mapClientByID.begin(), m_mapClientByID.end(), [nProcessID](const auto& item) {
        return item.second->Port().ProcessID() == nProcessID;
    });
    if (itFormer != m_mapClientByID.end())
    {
        Drop(itFormer->first, "its process connects anew");
    }
    const int nConnectID = m_nNextConnectID;
    if (nConnectID == INT_MAX || !pPort->Watch([this, nConnectID] { Drop(nConnectID, "nobody reads its pipes"); },
                                               [this, nConnectID] { FlushEvents(nConnectID); }))
    {
        return nullptr;
    }
    ++m_nNextConnectID;
    ++m_statistics.m_ullClientsConnected;
    auto pClient = std::make_unique<CClient>(nConnectID, std::move(pPort));
    spdlog::info("client {} connects, process {}", nConnectID, nProcessID);
    return m_mapClientByID.emplace(nConnectID, std::move(pClient)).first->second.get();
}

CClient* CClientRegistry::Find(int nConnectID)
{
    const auto it = m_mapClientByID.find(nConnectID);
    return it == m_mapClientByID.end() ? nullptr : it->second.get();
}

std::optional<std::uint32_t> CClientRegistry::LatestSequenceNo(int nConnectID)
{
    const CClient* pClient = Find(nConnectID);
    return pClient != nullptr ? std::optional(pClient->m_nLatestSequenceNo) : std::nullopt;
}

bool CClientRegistry::Disconnect(int nConnectID)
{
    return Remove(nConnectID, "it disconnects");
}

bool CClientRegistry::Drop(int nConnectID, const char* pReason)
{
    const bool bDropped = Remove(nConnectID, pReason);
    m_statistics.m_ullClientsDropped += bDropped ? 1 : 0;
    return bDropped;
}

bool CClientRegistry::Remove(int nConnectID, const char* pReason)
{
    const auto it = m_mapClientByID.find(nConnectID);
    if (it == m_mapClientByID.end())
    {
        return false;
    }
    CClient& client = *it->second;
    spdlog::info("client {} leaves with {} streams, {} files and {} events: {}", nConnectID,
                 client.m_mapStreamByID.size(), client.m_mapFileByID.size(), client.WaitingEvents(), pReason);
    m_statistics.m_ullEventsDropped += client.WaitingEvents();
    client.m_bGone = true;
    client.m_mapStreamByID.clear();
    client.m_mapFileByID.clear();
    m_vGone.push_back(std::move(it->second));
    m_mapClientByID.erase(it);
    return true;
}

void CClientRegistry::DropAll(const char* pReason)
{
    while (!m_mapClientByID.empty())
    {
        Drop(m_mapClientByID.begin()->first, pReason);
    }
}

void CClientRegistry::DropDead()
{
    std::vector<int> vDead;
    for (const auto& [nConnectID, pClient] : m_mapClientByID)
    {
        if (pClient->Port().IsGone())
        {
            vDead.push_back(nConnectID);
        }
    }
    for (const int nConnectID : vDead)
    {
        Drop(nConnectID, "its process or its pipes are gone");
    }
}

void CClientRegistry::QueueEvent(int nConnectID, const structMIEVT& evt)
{
    CClient* pClient = Find(nConnectID);
    if (pClient == nullptr)
    {
        ++m_statistics.m_ullEventsDropped;
        return;
    }
    pClient->QueueEvent(evt);
    m_vWithEvents.push_back(nConnectID);
}

void CClientRegistry::FlushEvents(int nConnectID)
{
    CClient* pClient = Find(nConnectID);
    if (pClient == nullptr)
    {
        return;
    }
    const auto nSent = pClient->FlushEvents();
    if (!nSent)
    {
        Drop(nConnectID, "its event pipe is broken");
        return;
    }
    m_statistics.m_ullEventsSent += *nSent;
}

void CClientRegistry::FlushEvents()
{
    std::vector<int> vWithEvents;
    vWithEvents.swap(m_vWithEvents);
    for (const int nConnectID : vWithEvents)
    {
        FlushEvents(nConnectID);
    }
}

void CClientRegistry::Sweep()
{
    m_vGone.clear();
}
