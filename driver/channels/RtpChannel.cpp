// Channels that are RTP streams: G.711 in packets of 20 ms between two addresses.
#include "RtpChannel.h"

#include "G711.h"

#include <fmt/format.h>

#include <algorithm>
#include <random>

namespace
{
constexpr std::size_t SAMPLES_PER_MS = 8;

void Convert(std::span<const std::uint8_t> samples, const CG711Table& table, std::uint8_t* pConverted)
{
    std::transform(samples.begin(), samples.end(), pConverted, [&table](std::uint8_t n) { return table[n]; });
}
} // namespace

std::unique_ptr<CRtpChannel> CRtpChannel::Open(CRtpPorts& ports, const CRtpRoute& route, std::string& strError)
{
    std::shared_ptr<CRtpPort> pPort = ports.Open(route.m_local, strError);
    if (!pPort)
    {
        return nullptr;
    }
    std::unique_ptr<CRtpChannel> pChannel(new CRtpChannel(ports, pPort, route));
    pChannel->m_bJoined = pPort->Join(route.m_remote, *pChannel);
    if (!pChannel->m_bJoined)
    {
        strError =
            fmt::format("another channel is open between {} and {}", pPort->Local().Text(), route.m_remote.Text());
        return nullptr;
    }
    return pChannel;
}

CRtpChannel::CRtpChannel(CRtpPorts& ports, std::shared_ptr<CRtpPort> pPort, const CRtpRoute& route)
    : m_ports(ports), m_pPort(std::move(pPort)), m_remote(route.m_remote), m_eCodec(route.m_eCodec),
      m_nJitterMs(route.m_nJitterMs)
{
    std::random_device random;
    m_header.m_nPayloadType = static_cast<std::uint8_t>(m_eCodec);
    m_header.m_nSequence = static_cast<std::uint16_t>(random());
    m_header.m_nTimestamp = random();
    m_header.m_nSource = random();
}

CRtpChannel::~CRtpChannel()
{
    if (m_bJoined)
    {
        m_pPort->Leave(m_remote);
    }
}

std::size_t CRtpChannel::Hear(std::span<const std::uint8_t> samples)
{
    if (samples.empty() || (m_bSent && m_ullSentTick == m_ports.Tick()))
    {
        return 0;
    }
    if (m_nSamples == 0)
    {
        BeginPacket();
    }
    const std::size_t nCount = std::min(samples.size(), RTP_SAMPLES - m_nSamples);
    std::copy_n(samples.begin(), nCount, m_packet.begin() + RTP_HEADER_SIZE + m_nSamples);
    m_nSamples += nCount;
    if (m_nSamples == RTP_SAMPLES)
    {
        SendPacket();
    }
    return nCount;
}

void CRtpChannel::FinishHearing(FinishFunction done)
{
    if (m_nSamples > 0)
    {
        std::fill(m_packet.begin() + RTP_HEADER_SIZE + m_nSamples, m_packet.end(), ULAW_SILENCE);
        SendPacket();
    }
    done(true);
}

void CRtpChannel::BeginPacket()
{
    const std::uint64_t ullPause = m_bSent ? m_ports.Tick() - m_ullSentTick - 1 : 0;
    m_header.m_bMarker = !m_bSent || ullPause > 0;
    m_header.m_nTimestamp += static_cast<std::uint32_t>(ullPause * RTP_SAMPLES);
}

void CRtpChannel::SendPacket()
{
    const std::span packet(m_packet);
    WriteRtpHeader(m_header, packet.first<RTP_HEADER_SIZE>());
    if (m_eCodec == ERtpCodec::Pcma)
    {
        Convert(packet.subspan<RTP_HEADER_SIZE>(), ULawToALaw(), m_packet.begin() + RTP_HEADER_SIZE);
    }
    m_pPort->Send(packet, m_remote);
    ++m_header.m_nSequence;
    m_header.m_nTimestamp += std::uint32_t{RTP_SAMPLES};
    m_nSamples = 0;
    m_bSent = true;
    m_ullSentTick = m_ports.Tick();
}

void CRtpChannel::BeginListening(BeginFunction done)
{
    const auto nDelay = static_cast<std::size_t>(m_nJitterMs) * SAMPLES_PER_MS;
    m_pJitterBuffer = CJitterBuffer::Create(nDelay, m_ports.Counters());
    done(m_pJitterBuffer != nullptr, m_pJitterBuffer ? "" : "no memory for a jitter buffer");
}

std::size_t CRtpChannel::Listen(std::span<std::uint8_t> samples)
{
    if (!m_pJitterBuffer)
    {
        std::fill(samples.begin(), samples.end(), ULAW_SILENCE);
        return samples.size();
    }
    m_pJitterBuffer->Get(samples);
    return samples.size();
}

void CRtpChannel::EndListening()
{
    m_pJitterBuffer.reset();
}

void CRtpChannel::OnRtp(const CRtpPacket& packet)
{
    CRtpCounters& counters = m_ports.Counters();
    if (packet.m_header.m_nPayloadType != static_cast<std::uint8_t>(m_eCodec))
    {
        ++counters.m_ullOtherPayloads;
        return;
    }
    ++counters.m_ullReceived;
    if (!m_pJitterBuffer)
    {
        return;
    }
    if (m_eCodec == ERtpCodec::Pcmu)
    {
        m_pJitterBuffer->Put(packet.m_header, packet.m_payload);
        return;
    }
    std::array<std::uint8_t, RTP_MAX_DATAGRAM> converted;
    Convert(packet.m_payload, ALawToULaw(), converted.begin());
    m_pJitterBuffer->Put(packet.m_header, std::span(converted).first(packet.m_payload.size()));
}
