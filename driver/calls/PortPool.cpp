// The UDP ports of calls: even ones, each with the odd one above it for reports.
#include "PortPool.h"

CPortPool::CPortPool(uint16_t nFirst, uint16_t nLast, const CClock& clock) : m_clock(clock)
{
    for (uint32_t nPort = nFirst + nFirst % 2U; nPort + 1 <= nLast; nPort += 2)
        m_vFree.push_back({static_cast<uint16_t>(nPort), clock.now() - QUARANTINE});
    m_nSize = m_vFree.size();
}

std::optional<uint16_t> CPortPool::take()
{
    if (m_vFree.empty() || m_clock.now() - m_vFree.front().m_since < QUARANTINE)
        return std::nullopt;
    const uint16_t nPort = m_vFree.front().m_nPort;
    m_vFree.pop_front();
    return nPort;
}

void CPortPool::giveBack(uint16_t nPort)
{
    m_vFree.push_back({nPort, m_clock.now()});
}
