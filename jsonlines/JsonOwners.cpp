// Owners by name: which connection speaks for each, and for how long one that lost its connection keeps what it has.
#include "JsonOwners.h"

#include <algorithm>

std::optional<CJsonOwners::ConnectionID> CJsonOwners::attach(const std::string& strOwner, ConnectionID nConnection,
                                                             bool& bAttached)
{
    const auto known = m_mapNameByConnection.try_emplace(nConnection, strOwner);
    bAttached = known.first->second == strOwner;
    if (!known.second)
        return std::nullopt;
    COwner& owner = m_mapOwnerByName[strOwner];
    const std::optional<ConnectionID> nBefore = owner.m_nConnection;
    if (nBefore)
        m_mapNameByConnection.erase(*nBefore);
    owner.m_nConnection = nConnection;
    return nBefore;
}

std::optional<std::string> CJsonOwners::ownerOf(ConnectionID nConnection) const
{
    const auto it = m_mapNameByConnection.find(nConnection);
    return it == m_mapNameByConnection.end() ? std::nullopt : std::optional(it->second);
}

std::optional<CJsonOwners::ConnectionID> CJsonOwners::connectionOf(const std::string& strOwner) const
{
    const auto it = m_mapOwnerByName.find(strOwner);
    return it == m_mapOwnerByName.end() ? std::nullopt : it->second.m_nConnection;
}

void CJsonOwners::lost(ConnectionID nConnection, TimePoint now)
{
    const auto it = m_mapNameByConnection.find(nConnection);
    if (it != m_mapNameByConnection.end())
    {
        m_mapOwnerByName[it->second] = {std::nullopt, now + m_grace};
        m_mapNameByConnection.erase(it);
    }
}

std::vector<std::string> CJsonOwners::takeExpired(TimePoint now)
{
    std::vector<std::string> vNames;
    std::erase_if(m_mapOwnerByName, [&vNames, now](const auto& item) {
        const bool bExpired = !item.second.m_nConnection && item.second.m_expiry <= now;
        if (bExpired)
            vNames.push_back(item.first);
        return bExpired;
    });
    return vNames;
}

std::optional<CJsonOwners::TimePoint> CJsonOwners::nextExpiry() const
{
    std::optional<TimePoint> next;
    for (const auto& [strName, owner] : m_mapOwnerByName)
        if (!owner.m_nConnection)
            next = next ? std::min(*next, owner.m_expiry) : owner.m_expiry;
    return next;
}
