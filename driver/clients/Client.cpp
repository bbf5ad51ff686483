// A connected client process: its streams, its files, its requests in order, and the events that it has
// not taken yet.
#include "Client.h"

#include <spdlog/spdlog.h>

CClient::CClient(int nConnectID, std::unique_ptr<CClientPort> pPort)
    : m_warnings("client " + std::to_string(nConnectID)), m_nConnectID(nConnectID), m_pPort(std::move(pPort))
{
}

void CClient::queueEvent(const structMIEVT& evt)
{
    m_events.push_back(evt);
}

std::optional<size_t> CClient::flushEvents()
{
    size_t nSent = 0;
    for (; !m_events.empty(); ++nSent)
    {
        const ESend eSend = m_pPort->sendEvent(m_events.front());
        if (eSend == ESend::Gone)
            return std::nullopt;
        if (eSend == ESend::Full)
            break;
        m_events.pop_front();
    }
    if (m_bWatchesRoom != !m_events.empty())
    {
        m_bWatchesRoom = !m_events.empty();
        m_pPort->watchForRoom(m_bWatchesRoom);
        spdlog::info("client {} {}", m_nConnectID,
                     m_bWatchesRoom ? "does not take its events; they wait" : "has taken all its events");
    }
    return nSent;
}

std::shared_ptr<CStream> CClient::findStream(int nStreamID) const
{
    const auto it = m_mapStreamByID.find(nStreamID);
    return it == m_mapStreamByID.end() ? nullptr : it->second;
}

CClipPtr CClient::findFile(int nFileID) const
{
    const auto it = m_mapFileByID.find(nFileID);
    return it == m_mapFileByID.end() ? nullptr : it->second;
}

CClientState CClient::state() const
{
    return {m_nConnectID, m_pPort->processId(), m_mapFileByID.size(), m_mapStreamByID.size(), m_events.size()};
}
