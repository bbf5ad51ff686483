// Channels that are RTP streams.
#include "RtpChannel.h"

#include <algorithm>
#include <utility>

std::unique_ptr<CRtpChannel> CRtpChannel::open(CRtpPorts& ports, const CRtpRoute& route, std::string& strError)
{
    std::shared_ptr<CRtpPort> pPort = ports.open(route.m_local, strError);
    if (!pPort)
        return nullptr;
    CMediaSettings settings;
    settings.m_remote = route.m_remote;
    settings.m_nSendPayload = route.m_pCodec->m_staticPayload.value_or(0);
    settings.m_pSendCodec = route.m_pCodec;
    settings.m_vReceive = {{settings.m_nSendPayload, route.m_pCodec}};
    settings.m_nJitterMs = route.m_nJitterMs;
    settings.m_nNoMediaS = 0;
    auto pSession = CRtpSession::create(CRtpSession::EKind::Table, ports, std::move(pPort), CFd(), nullptr, nullptr,
                                        settings, strError);
    return pSession ? std::make_unique<CRtpChannel>(std::move(pSession)) : nullptr;
}

void CRtpChannel::beginListening(BeginFunction done)
{
    m_bListens = m_bListens || m_pSession->beginListening();
    done(m_bListens, m_bListens ? "" : "no memory for a jitter buffer");
}

size_t CRtpChannel::listen(std::span<uint8_t> samples)
{
    const auto said = m_pSession->said();
    const size_t nCount = std::min(samples.size(), said.size());
    std::copy_n(said.begin(), nCount, samples.begin());
    return nCount;
}

void CRtpChannel::endListening()
{
    if (std::exchange(m_bListens, false))
        m_pSession->endListening();
}
