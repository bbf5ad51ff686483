// Channels that are RTP streams: G.711 in packets of 20 ms between two addresses.
#include "RtpChannel.h"

#include "G711.h"

#include <fmt/format.h>

#include <algorithm>
#include <random>

namespace
{
constexpr size_t SAMPLES_PER_MS = 8;

void convert(std::span<const uint8_t> samples, const CG711Table& table, uint8_t* pConverted)
{
    std::transform(
        samples.begin(), samples.end(), pConverted, [&table](uint8_t n) { return table[n]; });
}
} // namespace

std::unique_ptr<CRtpChannel> CRtpChannel::open(CRtpPorts& ports, const CRtpRoute& route, std::string& strError)
{
    std::shared_ptr<CRtpPort> pPort = ports.open(route.m_local, strError);
    if (!pPort)
        return nullptr;
    std::unique_ptr<CRtpChannel> pChannel(new CRtpChannel(ports, pPort, route));
    pChannel->m_bJoined = pPort->join(route.m_remote, *pChannel);
    if (!pChannel->m_bJoined)
    {
        strError =
            fmt::format("another channel is open between {} and {}", pPort->local().text(), route.m_remote.text());
        return nullptr;
    }
    return pChannel;
}

CRtpChannel::CRtpChannel(CRtpPorts& ports, std::shared_ptr<CRtpPort> pPort, const CRtpRoute& route)
    : m_ports(ports), m_pPort(std::move(pPort)), m_remote(route.m_remote), m_eCodec(route.m_eCodec),
      m_nJitterMs(route.m_nJitterMs)
{
    std::random_device random;
    m_header.m_nPayloadType = static_cast<uint8_t>(m_eCodec);
    m_header.m_nSequence = static_cast<uint16_t>(random());
    m_header.m_nTimestamp = random();
    m_header.m_nSource = random();
}

CRtpChannel::~CRtpChannel()
{
    if (m_bJoined)
        m_pPort->leave(m_remote);
}

size_t CRtpChannel::hear(std::span<const uint8_t> samples)
{
    if (samples.empty() || (m_bSent && m_ullSentTick == m_ports.tick()))
        return 0;
    if (m_nSamples == 0)
        beginPacket();
    const size_t nCount = std::min(samples.size(), RTP_SAMPLES - m_nSamples);
    std::copy_n(samples.begin(), nCount, m_packet.begin() + RTP_HEADER_SIZE + m_nSamples);
    m_nSamples += nCount;
    if (m_nSamples == RTP_SAMPLES)
        sendPacket();
    return nCount;
}

void CRtpChannel::finishHearing(FinishFunction done)
{
    if (m_nSamples > 0)
    {
        std::fill(m_packet.begin() + RTP_HEADER_SIZE + m_nSamples, m_packet.end(), ULAW_SILENCE);
        sendPacket();
    }
    done(true);
}

void CRtpChannel::beginPacket()
{
    const uint64_t ullPause = m_bSent ? m_ports.tick() - m_ullSentTick - 1 : 0;
    m_header.m_bMarker = !m_bSent || ullPause > 0;
    m_header.m_nTimestamp += static_cast<uint32_t>(ullPause * RTP_SAMPLES);
}

void CRtpChannel::sendPacket()
{
    const std::span packet(m_packet);
    writeRtpHeader(m_header, packet.first<RTP_HEADER_SIZE>());
    if (m_eCodec == ERtpCodec::Pcma)
        convert(packet.subspan<RTP_HEADER_SIZE>(), uLawToALaw(), m_packet.begin() + RTP_HEADER_SIZE);
    m_pPort->send(packet, m_remote);
    ++m_header.m_nSequence;
    m_header.m_nTimestamp += uint32_t{RTP_SAMPLES};
    m_nSamples = 0;
    m_bSent = true;
    m_ullSentTick = m_ports.tick();
}

void CRtpChannel::beginListening(BeginFunction done)
{
    const auto nDelay = static_cast<size_t>(m_nJitterMs) * SAMPLES_PER_MS;
    m_pJitterBuffer = CJitterBuffer::create(nDelay, m_ports.counters());
    done(m_pJitterBuffer != nullptr, m_pJitterBuffer ? "" : "no memory for a jitter buffer");
}

size_t CRtpChannel::listen(std::span<uint8_t> samples)
{
    if (!m_pJitterBuffer)
    {
        std::fill(samples.begin(), samples.end(), ULAW_SILENCE);
        return samples.size();
    }
    m_pJitterBuffer->get(samples);
    return samples.size();
}

void CRtpChannel::endListening()
{
    m_pJitterBuffer.reset();
}

void CRtpChannel::onRtp(const CRtpPacket& packet)
{
    CRtpCounters& counters = m_ports.counters();
    if (packet.m_header.m_nPayloadType != static_cast<uint8_t>(m_eCodec))
    {
        ++counters.m_ullOtherPayloads;
        return;
    }
    ++counters.m_ullReceived;
    if (!m_pJitterBuffer)
        return;
    if (m_eCodec == ERtpCodec::Pcmu)
    {
        m_pJitterBuffer->put(packet.m_header, packet.m_payload);
        return;
    }
    std::array<uint8_t, RTP_MAX_DATAGRAM> converted;
    convert(packet.m_payload, aLawToULaw(), converted.begin());
    m_pJitterBuffer->put(packet.m_header, std::span(converted).first(packet.m_payload.size()));
}
