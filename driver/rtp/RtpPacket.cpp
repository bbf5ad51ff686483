// RTP packets: writing the header of those that go out, taking apart those that come in.
#include "RtpPacket.h"

namespace
{
constexpr unsigned VERSION = 2U << 6;
constexpr unsigned VERSION_MASK = 3U << 6;
constexpr unsigned PADDING = 1U << 5;
constexpr unsigned EXTENSION = 1U << 4;
constexpr unsigned SOURCE_COUNT_MASK = 0x0F;
constexpr unsigned MARKER = 1U << 7;

template <class UINT> void putBigEndian(std::span<uint8_t, sizeof(UINT)> bytes, UINT nValue)
{
    for (size_t n = 0; n < sizeof(UINT); ++n)
        bytes[n] = static_cast<uint8_t>(nValue >> (8 * (sizeof(UINT) - 1 - n)));
}

uint32_t bigEndian(std::span<const uint8_t> bytes)
{
    uint32_t nValue = 0;
    for (const uint8_t n : bytes)
        nValue = (nValue << 8) | n;
    return nValue;
}

// Takes bytes off the front. False if there are not that many.
bool skip(std::span<const uint8_t>& bytes, size_t nCount)
{
    if (bytes.size() < nCount)
        return false;
    bytes = bytes.subspan(nCount);
    return true;
}

bool skipExtension(std::span<const uint8_t>& bytes)
{
    constexpr size_t PREFIX_SIZE = 4;
    return bytes.size() >= PREFIX_SIZE && skip(bytes, PREFIX_SIZE + size_t{4} * bigEndian(bytes.subspan(2, 2)));
}

bool dropPadding(std::span<const uint8_t>& bytes)
{
    if (bytes.empty() || bytes.back() == 0 || bytes.back() > bytes.size())
        return false;
    bytes = bytes.first(bytes.size() - bytes.back());
    return true;
}
} // namespace

void writeRtpHeader(const CRtpHeader& header, std::span<uint8_t, RTP_HEADER_SIZE> bytes)
{
    bytes[0] = VERSION;
    bytes[1] = static_cast<uint8_t>((header.m_bMarker ? MARKER : 0) | header.m_nPayloadType);
    putBigEndian(bytes.subspan<2, 2>(), header.m_nSequence);
    putBigEndian(bytes.subspan<4, 4>(), header.m_nTimestamp);
    putBigEndian(bytes.subspan<8, 4>(), header.m_nSource);
}

std::optional<CRtpPacket> parseRtpPacket(std::span<const uint8_t> bytes)
{
    if (bytes.size() < RTP_HEADER_SIZE || (bytes[0] & VERSION_MASK) != VERSION)
        return std::nullopt;
    CRtpPacket packet;
    packet.m_header.m_bMarker = (bytes[1] & MARKER) != 0;
    packet.m_header.m_nPayloadType = static_cast<uint8_t>(bytes[1] & ~MARKER);
    packet.m_header.m_nSequence = static_cast<uint16_t>(bigEndian(bytes.subspan(2, 2)));
    packet.m_header.m_nTimestamp = bigEndian(bytes.subspan(4, 4));
    packet.m_header.m_nSource = bigEndian(bytes.subspan(8, 4));

    packet.m_payload = bytes.subspan(RTP_HEADER_SIZE);
    if (!skip(packet.m_payload, size_t{4} * (bytes[0] & SOURCE_COUNT_MASK)) ||
        ((bytes[0] & EXTENSION) != 0 && !skipExtension(packet.m_payload)) ||
        ((bytes[0] & PADDING) != 0 && !dropPadding(packet.m_payload)))
        return std::nullopt;
    return packet;
}
