// All connected clients.
#include "ClientRegistry.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <climits>

CClientRegistry::CClientRegistry(CStatistics& statistics) : m_statistics(statistics) {}

CClient* CClientRegistry::add(std::unique_ptr<CClientPort> pPort)
{
    const pid_t nProcessID = pPort->processId();
    const auto itFormer = std::find_if(m_mapClientByID.begin(), m_mapClientByID.end(), [nProcessID](const auto& item) {
        return item.second->port().processId() == nProcessID;
    });
    if (itFormer != m_mapClientByID.end())
        drop(itFormer->first, "its process connects anew");
    const int nConnectID = m_nNextConnectID;
    if (nConnectID == INT_MAX || !pPort->watch([this, nConnectID] { drop(nConnectID, "nobody reads its pipes"); },
                                               [this, nConnectID] { flushEvents(nConnectID); }))
        return nullptr;
    ++m_nNextConnectID;
    ++m_statistics.m_ullClientsConnected;
    auto pClient = std::make_unique<CClient>(nConnectID, std::move(pPort));
    spdlog::info("client {} connects, process {}", nConnectID, nProcessID);
    return m_mapClientByID.emplace(nConnectID, std::move(pClient)).first->second.get();
}

CClient* CClientRegistry::find(int nConnectID)
{
    const auto it = m_mapClientByID.find(nConnectID);
    return it == m_mapClientByID.end() ? nullptr : it->second.get();
}

std::optional<uint32_t> CClientRegistry::latestSequenceNo(int nConnectID)
{
    const CClient* pClient = find(nConnectID);
    return pClient != nullptr ? std::optional(pClient->m_nLatestSequenceNo) : std::nullopt;
}

bool CClientRegistry::disconnect(int nConnectID)
{
    return remove(nConnectID, "it disconnects");
}

bool CClientRegistry::drop(int nConnectID, const char* pReason)
{
    const bool bDropped = remove(nConnectID, pReason);
    m_statistics.m_ullClientsDropped += bDropped ? 1 : 0;
    return bDropped;
}

bool CClientRegistry::remove(int nConnectID, const char* pReason)
{
    const auto it = m_mapClientByID.find(nConnectID);
    if (it == m_mapClientByID.end())
        return false;
    CClient& client = *it->second;
    spdlog::info("client {} leaves with {} streams, {} files and {} events: {}", nConnectID,
                 client.m_mapStreamByID.size(), client.m_mapFileByID.size(), client.waitingEvents(), pReason);
    m_statistics.m_ullEventsDropped += client.waitingEvents();
    client.m_bGone = true;
    client.m_mapStreamByID.clear();
    client.m_mapFileByID.clear();
    m_vGone.push_back(std::move(it->second));
    m_mapClientByID.erase(it);
    return true;
}

void CClientRegistry::dropAll(const char* pReason)
{
    while (!m_mapClientByID.empty())
        drop(m_mapClientByID.begin()->first, pReason);
}

void CClientRegistry::dropDead()
{
    std::vector<int> vDead;
    for (const auto& [nConnectID, pClient] : m_mapClientByID)
        if (pClient->port().isGone())
            vDead.push_back(nConnectID);
    for (const int nConnectID : vDead)
        drop(nConnectID, "its process or its pipes are gone");
}

void CClientRegistry::queueEvent(int nConnectID, const structMIEVT& evt)
{
    CClient* pClient = find(nConnectID);
    if (pClient == nullptr)
    {
        ++m_statistics.m_ullEventsDropped;
        return;
    }
    pClient->queueEvent(evt);
    m_vWithEvents.push_back(nConnectID);
}

void CClientRegistry::flushEvents(int nConnectID)
{
    CClient* pClient = find(nConnectID);
    if (pClient == nullptr)
        return;
    const auto nSent = pClient->flushEvents();
    if (!nSent)
    {
        drop(nConnectID, "its event pipe is broken");
        return;
    }
    m_statistics.m_ullEventsSent += *nSent;
}

void CClientRegistry::flushEvents()
{
    std::vector<int> vWithEvents;
    vWithEvents.swap(m_vWithEvents);
    for (const int nConnectID : vWithEvents)
        flushEvents(nConnectID);
}

void CClientRegistry::sweep()
{
    m_vGone.clear();
}
