// RTCP packets (RFC 3550): writing reports, taking apart those that come in.
#include "RtcpPacket.h"

#include <algorithm>

namespace
{
constexpr uint8_t RTCP_VERSION = 0x80;
constexpr uint8_t RTCP_VERSION_MASK = 0xC0;
constexpr uint8_t RTCP_PADDING = 0x20;
constexpr uint8_t COUNT_MASK = 0x1F;
constexpr uint8_t TYPE_SR = 200;
constexpr uint8_t TYPE_RR = 201;
constexpr uint8_t TYPE_SDES = 202;
constexpr uint8_t TYPE_BYE = 203;
constexpr uint8_t SDES_CNAME = 1;
constexpr size_t WORD = 4;
constexpr size_t RTCP_HEADER_SIZE = 8; // with the sender's source
constexpr size_t SENDER_SIZE = 20;
constexpr size_t BLOCK_SIZE = 24;

class CRtcpWriter
{
public:
    explicit CRtcpWriter(std::span<uint8_t> bytes) : m_bytes(bytes) {}

    void put8(uint8_t n) { m_bytes[m_nSize++] = n; }
    void put32(uint32_t n)
    {
        for (int nShift = 24; nShift >= 0; nShift -= 8)
            put8(static_cast<uint8_t>(n >> nShift));
    }

    void begin(uint8_t nCount, uint8_t nType)
    {
        m_nBegin = m_nSize;
        put8(RTCP_VERSION | nCount);
        put8(nType);
        put8(0);
        put8(0);
    }
    void end()
    {
        while (m_nSize % WORD != 0)
            put8(0);
        const size_t nWords = (m_nSize - m_nBegin) / WORD - 1;
        m_bytes[m_nBegin + 2] = static_cast<uint8_t>(nWords >> 8);
        m_bytes[m_nBegin + 3] = static_cast<uint8_t>(nWords);
    }
    size_t size() const { return m_nSize; }

private:
    std::span<uint8_t> m_bytes;
    size_t m_nSize = 0;
    size_t m_nBegin = 0;
};

uint32_t readWord(std::span<const uint8_t> bytes, size_t nAt)
{
    return (uint32_t{bytes[nAt]} << 24) | (uint32_t{bytes[nAt + 1]} << 16) | (uint32_t{bytes[nAt + 2]} << 8) |
           bytes[nAt + 3];
}

void writeBlock(const CRtcpBlock& block, CRtcpWriter& writer)
{
    writer.put32(block.m_nSource);
    const int32_t nLost = std::clamp(block.m_nLost, -0x800000, 0x7FFFFF);
    writer.put32((uint32_t{block.m_nFractionLost} << 24) | (static_cast<uint32_t>(nLost) & 0xFFFFFF));
    writer.put32(block.m_nHighestSequence);
    writer.put32(block.m_nJitter);
    writer.put32(block.m_nLastReport);
    writer.put32(block.m_nDelay);
}

CRtcpBlock readBlock(std::span<const uint8_t> bytes)
{
    const uint32_t nLost = readWord(bytes, 4) & 0xFFFFFF;
    return {readWord(bytes, 0),
            bytes[4],
            static_cast<int32_t>(nLost << 8) >> 8,
            readWord(bytes, 8),
            readWord(bytes, 12),
            readWord(bytes, 16),
            readWord(bytes, 20)};
}

// One packet of a compound, header included. False if it is not whole.
bool readPacket(std::span<const uint8_t> bytes, uint32_t nOurSource, CRtcpNews& news)
{
    const uint8_t nType = bytes[1];
    const size_t nCount = bytes[0] & COUNT_MASK;
    if (nType == TYPE_BYE)
    {
        news.m_bBye |= nCount > 0;
        return bytes.size() >= WORD + nCount * WORD;
    }
    if (nType != TYPE_SR && nType != TYPE_RR)
        return true;
    size_t nAt = RTCP_HEADER_SIZE + (nType == TYPE_SR ? SENDER_SIZE : 0);
    if (bytes.size() < nAt + nCount * BLOCK_SIZE)
        return false;
    news.m_sender = readWord(bytes, WORD);
    if (nType == TYPE_SR)
        news.m_ullTime = (uint64_t{readWord(bytes, RTCP_HEADER_SIZE)} << 32) | readWord(bytes, RTCP_HEADER_SIZE + WORD);
    for (size_t nBlock = 0; nBlock < nCount; ++nBlock, nAt += BLOCK_SIZE)
        if (readWord(bytes, nAt) == nOurSource)
            news.m_aboutUs = readBlock(bytes.subspan(nAt, BLOCK_SIZE));
    return true;
}
} // namespace

size_t writeRtcp(const CRtcpReport& report, std::span<uint8_t, RTCP_MAX_REPORT> bytes)
{
    CRtcpWriter writer(bytes);
    writer.begin(report.m_block ? 1 : 0, report.m_sender ? TYPE_SR : TYPE_RR);
    writer.put32(report.m_nSource);
    if (report.m_sender)
    {
        writer.put32(static_cast<uint32_t>(report.m_sender->m_ullTime >> 32));
        writer.put32(static_cast<uint32_t>(report.m_sender->m_ullTime));
        writer.put32(report.m_sender->m_nTimestamp);
        writer.put32(report.m_sender->m_nPackets);
        writer.put32(report.m_sender->m_nOctets);
    }
    if (report.m_block)
        writeBlock(*report.m_block, writer);
    writer.end();

    const std::string_view name = report.m_name.substr(0, RTCP_MAX_NAME);
    writer.begin(1, TYPE_SDES);
    writer.put32(report.m_nSource);
    writer.put8(SDES_CNAME);
    writer.put8(static_cast<uint8_t>(name.size()));
    for (const char c : name)
        writer.put8(static_cast<uint8_t>(c));
    writer.put8(0); // the end of the items, however long they are
    writer.end();

    if (report.m_bBye)
    {
        writer.begin(1, TYPE_BYE);
        writer.put32(report.m_nSource);
        writer.end();
    }
    return writer.size();
}

std::optional<CRtcpNews> parseRtcp(std::span<const uint8_t> bytes, uint32_t nOurSource)
{
    CRtcpNews news;
    bool bFirst = true;
    while (!bytes.empty())
    {
        if (bytes.size() < RTCP_HEADER_SIZE - WORD || (bytes[0] & RTCP_VERSION_MASK) != RTCP_VERSION)
            return std::nullopt;
        const size_t nSize = (bytes[2] * size_t{256} + bytes[3] + 1) * WORD;
        const bool bReport = bytes[1] == TYPE_SR || bytes[1] == TYPE_RR;
        // A compound begins with a report, and only its last packet may be padded.
        if (nSize > bytes.size() || (bFirst && (!bReport || (bytes[0] & RTCP_PADDING) != 0)) ||
            !readPacket(bytes.first(nSize), nOurSource, news))
            return std::nullopt;
        bytes = bytes.subspan(nSize);
        bFirst = false;
    }
    return bFirst ? std::nullopt : std::optional(news);
}

bool isRtcp(std::span<const uint8_t> bytes)
{
    return bytes.size() >= 2 && bytes[1] >= 192 && bytes[1] <= 223;
}
