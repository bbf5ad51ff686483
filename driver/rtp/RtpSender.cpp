// What goes to a far end: samples become packets whose numbers and times are right over pauses.
#include "RtpSender.h"

#include "G711.h"

#include <algorithm>
#include <random>

namespace
{
constexpr size_t PACKET_SAMPLES_PER_MS = 8;
} // namespace

CRtpSender::CRtpSender()
{
    beginSource();
}

void CRtpSender::beginSource()
{
    std::random_device random;
    m_header.m_nSequence = static_cast<uint16_t>(random());
    m_header.m_nSource = random();
    m_nTimeBase = random();
    m_ullDue = UINT64_MAX;
    m_ullPackets = 0;
    m_ullOctets = 0;
}

void CRtpSender::setFormat(const CCodec& codec, uint8_t nPayloadType, unsigned nPtimeMs)
{
    if (m_pCodec != nullptr && m_pCodec->m_nClockRate != codec.m_nClockRate)
        beginSource(); // times of two clocks have nothing in common
    if (m_pCodec != &codec)
    {
        m_pEncoder = codec.m_pMakeEncoder();
        m_pCodec = &codec;
    }
    m_header.m_nPayloadType = nPayloadType;
    if (m_nPacketSamples != nPtimeMs * PACKET_SAMPLES_PER_MS)
    {
        m_nPacketSamples = nPtimeMs * PACKET_SAMPLES_PER_MS;
        m_nWaiting = 0;
    }
}

size_t CRtpSender::hear(std::span<const uint8_t> samples)
{
    const size_t nCount = std::min(samples.size(), room());
    std::copy_n(samples.begin(), nCount, m_waiting.begin() + static_cast<ptrdiff_t>(m_nWaiting + m_nHeard));
    m_nHeard += nCount;
    return nCount;
}

void CRtpSender::dropTick()
{
    m_nHeard = 0;
    m_nWaiting = 0;
}

void CRtpSender::endTick(uint64_t ullTick, bool bSilence, COutput& output)
{
    if (m_nHeard == 0 && !bSilence)
    {
        if (m_nWaiting > 0)
        {
            std::fill(m_waiting.begin() + static_cast<ptrdiff_t>(m_nWaiting), m_waiting.end(), ULAW_SILENCE);
            m_nWaiting = m_nPacketSamples;
            sendFull(output);
        }
        return;
    }
    append(ullTick);
    sendFull(output);
}

void CRtpSender::append(uint64_t ullTick)
{
    const auto itTick = m_waiting.begin() + static_cast<ptrdiff_t>(m_nWaiting);
    std::fill(itTick + static_cast<ptrdiff_t>(m_nHeard), itTick + TICK, ULAW_SILENCE);
    const uint64_t ullAt = ullTick * TICK;
    if (m_nWaiting > 0 && m_ullWaitingAt + m_nWaiting != ullAt)
    {
        // Ticks were left out.
        std::copy(itTick, itTick + TICK, m_waiting.begin());
        m_nWaiting = 0;
    }
    m_ullWaitingAt = ullAt - m_nWaiting;
    m_nWaiting += TICK;
    m_nHeard = 0;
}

void CRtpSender::sendFull(COutput& output)
{
    size_t nSent = 0;
    while (m_nWaiting - nSent >= m_nPacketSamples)
    {
        sendPacket(std::span(m_waiting).subspan(nSent, m_nPacketSamples), output);
        nSent += m_nPacketSamples;
        m_ullWaitingAt += m_nPacketSamples;
    }
    std::copy(m_waiting.begin() + static_cast<ptrdiff_t>(nSent), m_waiting.begin() + static_cast<ptrdiff_t>(m_nWaiting),
              m_waiting.begin());
    m_nWaiting -= nSent;
}

void CRtpSender::sendPacket(std::span<const uint8_t> samples, COutput& output)
{
    std::array<uint8_t, RTP_HEADER_SIZE + MAX_PACKET> abPacket;
    const std::span packet(abPacket);
    const size_t nSize = m_pEncoder->encode(samples, packet.subspan<RTP_HEADER_SIZE>());
    if (nSize == 0)
        return;
    m_header.m_bMarker = m_ullDue != m_ullWaitingAt;
    m_header.m_nTimestamp = m_nTimeBase + static_cast<uint32_t>(m_ullWaitingAt * m_pCodec->ticksPerSample());
    writeRtpHeader(m_header, packet.first<RTP_HEADER_SIZE>());
    ++m_header.m_nSequence;
    ++m_ullPackets;
    m_ullOctets += nSize;
    m_ullDue = m_ullWaitingAt + samples.size();
    output.sendRtp(packet.first(RTP_HEADER_SIZE + nSize));
}

void CRtpSender::endTickWith(uint64_t ullTick, const CKeySender::CPacket& key, uint8_t nPayloadType, COutput& output)
{
    dropTick();
    CRtpHeader header = m_header;
    header.m_nPayloadType = nPayloadType;
    header.m_bMarker = key.m_bBegins;
    m_nKeyTimestamp = key.m_bBegins ? timestampAt(ullTick) : m_nKeyTimestamp;
    header.m_nTimestamp = m_nKeyTimestamp;
    std::array<uint8_t, RTP_HEADER_SIZE + MAX_PACKET> abPacket;
    const std::span packet(abPacket);
    writeRtpHeader(header, packet.first<RTP_HEADER_SIZE>());
    std::copy(key.m_payload.begin(), key.m_payload.end(), abPacket.begin() + RTP_HEADER_SIZE);
    ++m_header.m_nSequence;
    ++m_ullPackets;
    m_ullOctets += key.m_payload.size();
    output.sendRtp(packet.first(RTP_HEADER_SIZE + key.m_payload.size()));
}

uint32_t CRtpSender::timestampAt(uint64_t ullTick) const
{
    return m_nTimeBase + static_cast<uint32_t>(ullTick * TICK * (m_pCodec != nullptr ? m_pCodec->ticksPerSample() : 1));
}
