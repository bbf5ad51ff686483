// All connected clients.
#include "ClientRegistry.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <climits>
#include <vector>

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
    if (m_nNextConnectID == INT_MAX || !pPort->Watch(m_nNextConnectID))
    {
        return nullptr;
    }
    const int nConnectID = m_nNextConnectID++;
    auto pClient = std::make_unique<CClient>(nConnectID, std::move(pPort));
    spdlog::info("client {} connects, process {}", nConnectID, nProcessID);
    return m_mapClientByID.emplace(nConnectID, std::move(pClient)).first->second.get();
}

CClient* CClientRegistry::Find(int nConnectID)
{
    const auto it = m_mapClientByID.find(nConnectID);
    return it == m_mapClientByID.end() ? nullptr : it->second.get();
}

void CClientRegistry::Drop(int nConnectID, const char* pReason)
{
    const auto it = m_mapClientByID.find(nConnectID);
    if (it != m_mapClientByID.end())
    {
        const CClient& client = *it->second;
        spdlog::info("client {} leaves with {} streams, {} files and {} events: {}", nConnectID,
                     client.m_mapStreamByID.size(), client.m_mapFileByID.size(), client.WaitingEvents(), pReason);
        m_mapClientByID.erase(it);
    }
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
        if (pClient->Port().IsProcessGone())
        {
            vDead.push_back(nConnectID);
        }
    }
    for (const int nConnectID : vDead)
    {
        Drop(nConnectID, "its process has ended");
    }
}

void CClientRegistry::Flush(int nConnectID)
{
    CClient* pClient = Find(nConnectID);
    if (pClient != nullptr && !pClient->FlushEvents())
    {
        Drop(nConnectID, "its event pipe is broken");
    }
}

void CClientRegistry::Advance(std::size_t nSamples)
{
    std::vector<int> vGone;
    for (const auto& [nConnectID, pClient] : m_mapClientByID)
    {
        const std::size_t nWaiting = pClient->WaitingEvents();
        pClient->Advance(nSamples);
        if (pClient->WaitingEvents() != nWaiting && !pClient->FlushEvents())
        {
            vGone.push_back(nConnectID);
        }
    }
    for (const int nConnectID : vGone)
    {
        Drop(nConnectID, "its event pipe is broken");
    }
}

bool CClientRegistry::IsActive() const
{
    return std::any_of(m_mapClientByID.begin(), m_mapClientByID.end(),
                       [](const auto& item) { return item.second->IsActive(); });
}

const std::map<int, std::unique_ptr<CClient>>& CClientRegistry::Clients() const
{
    return m_mapClientByID;
}
