#include "CallsLedger.h"
#include "FailingAllocations.h"
#include "Scenario.h"

#include <algorithm>
#include <set>
#include <string>

namespace
{
const std::set<int> COMPLETIONS = {MCS_OK,        MCS_CANCELLED, MCS_NORESPONSE,  MCS_PIPEREAD,
                                   MCS_PIPEWRITE, MCS_TIMEDOUT,  MCS_NOTCONNECTED};
} // namespace

void CLedger::OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason)
{
    const CAllocationsSpared spared;
    const std::lock_guard hold(m_mutex);
    const auto it = m_mapOpen.find(pStream);
    const auto itClosed = m_mapClosed.find(pStream);
    if (static_cast<unsigned int>(reason) >= REASONS)
        ++m_nStrange;
    else if (it != m_mapOpen.end())
        it->second.avReported[reason].push_back(mcstatus);
    else if (itClosed != m_mapClosed.end()) // it was on its way
        m_vClosed[itClosed->second].avReported[reason].push_back(mcstatus);
    else
        ++m_nStrange;
}

void CLedger::opened(CZelMediaStream* pStream)
{
    const std::lock_guard hold(m_mutex);
    m_mapOpen[pStream];
}

void CLedger::closed(CZelMediaStream* pStream)
{
    const std::lock_guard hold(m_mutex);
    m_mapClosed[pStream] = m_vClosed.size();
    m_vClosed.push_back(m_mapOpen[pStream]);
    m_mapOpen.erase(pStream);
}

void CLedger::sent(CZelMediaStream* pStream, MCCOMPLETION_REASON reason)
{
    const std::lock_guard hold(m_mutex);
    ++m_mapOpen[pStream].anSent[reason];
}

void CLedger::answered(CZelMediaStream* pStream, MCCOMPLETION_REASON reason, int nStatus)
{
    const std::lock_guard hold(m_mutex);
    if (nStatus != MCS_OK)
        --m_mapOpen[pStream].anSent[reason];
}

size_t CLedger::count() const
{
    const std::lock_guard hold(m_mutex);
    size_t nCount = 0;
    for (const auto& entry : m_mapOpen)
        for (const auto& vReported : entry.second.avReported)
            nCount += vReported.size();
    return nCount;
}

size_t CLedger::count(CZelMediaStream* pStream, MCSTATUS mcstatus) const
{
    const std::lock_guard hold(m_mutex);
    size_t nCount = 0;
    for (const auto& vReported : m_mapOpen.at(pStream).avReported)
        nCount += static_cast<size_t>(std::count(vReported.begin(), vReported.end(), mcstatus));
    return nCount;
}

void CLedger::check() const
{
    const std::lock_guard hold(m_mutex);
    std::vector<CEntry> vEntries = m_vClosed;
    for (const auto& entry : m_mapOpen)
        vEntries.push_back(entry.second);
    for (const CEntry& entry : vEntries)
    {
        for (unsigned int nReason = 0; nReason < REASONS; ++nReason)
        {
            const std::vector<MCSTATUS>& vReported = entry.avReported[nReason];
            if (vReported.size() > static_cast<size_t>(entry.anSent[nReason]))
                complain(std::to_string(entry.anSent[nReason]) + " commands accepted, " +
                         std::to_string(vReported.size()) + " completions, reason " + std::to_string(nReason));
            for (const MCSTATUS mcstatus : vReported)
                if (!COMPLETIONS.count(mcstatus) && !(mcstatus == MCS_OUTOFMEMORY && CLibraryAllocations::happened()))
                    complain("a completion with status " + std::to_string(mcstatus));
        }
    }
    if (m_nStrange > 0)
        complain("a completion of no stream that was ever opened");
}
