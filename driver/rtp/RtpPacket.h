// RTP packets: writing the header of those that go out, taking apart those that come in.
#ifndef DRIVER_RTP_PACKET_H
#define DRIVER_RTP_PACKET_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

constexpr size_t RTP_HEADER_SIZE = 12;
constexpr size_t RTP_MAX_DATAGRAM = 2048; // that is taken from others
constexpr size_t RTP_MAX_SENT = 704;

struct CRtpHeader
{
    bool m_bMarker = false;
    uint8_t m_nPayloadType = 0;
    uint16_t m_nSequence = 0;
    uint32_t m_nTimestamp = 0;
    uint32_t m_nSource = 0; // SSRC
};

// A packet that came in. The payload is part of the bytes that were parsed.
struct CRtpPacket
{
    CRtpHeader m_header;
    std::span<const uint8_t> m_payload;
};

void writeRtpHeader(const CRtpHeader& header, std::span<uint8_t, RTP_HEADER_SIZE> bytes);

// The payload is what is left between contributing sources and header extension at the front and the
// padding at the end; it may be empty. None if the bytes are no whole RTP packet of version 2.
std::optional<CRtpPacket> parseRtpPacket(std::span<const uint8_t> bytes);

#endif
