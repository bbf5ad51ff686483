// The channel table: which kind of channel a call id and leg get.
#include "ChannelTable.h"

#include "NullChannel.h"
#include "Text.h"

#include <fmt/format.h>

#include <fnmatch.h>

namespace
{
std::optional<CNetAddress> portOfLeg(const CNetAddress& base, uint32_t nStep, uint32_t nLegID, std::string& strError)
{
    const uint64_t ullPort = base.port() + uint64_t{nStep} * nLegID;
    if (ullPort > UINT16_MAX)
    {
        strError =
            fmt::format("leg {} has no port: {} + {} * {} is more than 65535", nLegID, base.port(), nStep, nLegID);
        return std::nullopt;
    }
    return base.withPort(static_cast<uint16_t>(ullPort));
}
} // namespace

CChannelTable::CChannelTable() : m_vEntries(1) {}

std::optional<CChannelRoute> CChannelTable::find(const std::string& strCallID, uint32_t nLegID,
                                                 std::string& strError) const
{
    for (const CEntry& entry : m_vEntries)
    {
        if ((entry.m_leg && *entry.m_leg != nLegID) || ::fnmatch(entry.m_strCall.c_str(), strCallID.c_str(), 0) != 0)
            continue;
        CChannelRoute route = entry.m_route;
        if (CRtpRoute* pRtp = std::get_if<CRtpRoute>(&route))
        {
            const auto local = portOfLeg(pRtp->m_local, entry.m_nLocalPortStep, nLegID, strError);
            const auto remote = portOfLeg(pRtp->m_remote, entry.m_nRemotePortStep, nLegID, strError);
            if (!local || !remote)
                return std::nullopt;
            pRtp->m_local = *local;
            pRtp->m_remote = *remote;
        }
        return route;
    }
    strError = fmt::format("call \"{}\", leg {}, is not in the channel table", printable(strCallID), nLegID);
    return std::nullopt;
}

CTableChannelFactory::CTableChannelFactory(CChannelTable table, CRtpPorts& ports, CChannelFactory& fileChannels)
    : m_table(std::move(table)), m_ports(ports), m_fileChannels(fileChannels)
{
}

void CTableChannelFactory::open(const std::string& strCallID, uint32_t nLegID, OpenFunction done)
{
    std::string strError;
    const std::optional<CChannelRoute> route = m_table.find(strCallID, nLegID, strError);
    if (!route)
    {
        done(nullptr, strError);
    }
    else if (std::holds_alternative<CFileRoute>(*route))
    {
        m_fileChannels.open(strCallID, nLegID, std::move(done));
    }
    else if (std::holds_alternative<CNullRoute>(*route))
    {
        done(std::make_unique<CNullChannel>(), {});
    }
    else
    {
        std::unique_ptr<CChannel> pChannel = CRtpChannel::open(m_ports, std::get<CRtpRoute>(*route), strError);
        done(std::move(pChannel), strError);
    }
}
