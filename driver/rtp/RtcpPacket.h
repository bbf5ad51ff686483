// RTCP packets (RFC 3550): writing reports, taking apart those that come in.
#ifndef DRIVER_RTCP_PACKET_H
#define DRIVER_RTCP_PACKET_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

// What one side says about the packets of another one.
struct CRtcpBlock
{
    uint32_t m_nSource = 0; // of the packets
    uint8_t m_nFractionLost = 0;
    int32_t m_nLost = 0; // 24 bits
    uint32_t m_nHighestSequence = 0;
    uint32_t m_nJitter = 0;
    uint32_t m_nLastReport = 0; // the middle of its time
    uint32_t m_nDelay = 0;      // since then, in 1/65536 s
};

struct CRtcpSenderInfo
{
    uint64_t m_ullTime = 0; // NTP
    uint32_t m_nTimestamp = 0;
    uint32_t m_nPackets = 0;
    uint32_t m_nOctets = 0;
};

struct CRtcpReport
{
    uint32_t m_nSource = 0;
    std::optional<CRtcpSenderInfo> m_sender; // a sender report, else a receiver report
    std::optional<CRtcpBlock> m_block;
    std::string_view m_name; // CNAME
    bool m_bBye = false;
};

constexpr size_t RTCP_MAX_REPORT = 256;
constexpr size_t RTCP_MAX_NAME = 64;

// A compound packet. Returns its size. A longer name is cut.
size_t writeRtcp(const CRtcpReport& report, std::span<uint8_t, RTCP_MAX_REPORT> bytes);

// What a compound packet says that is of interest to the one side with that source.
struct CRtcpNews
{
    std::optional<uint32_t> m_sender;  // who sent it
    std::optional<uint64_t> m_ullTime; // of its sender report
    std::optional<CRtcpBlock> m_aboutUs;
    bool m_bBye = false;
};

// None if the bytes are no whole compound packet.
std::optional<CRtcpNews> parseRtcp(std::span<const uint8_t> bytes, uint32_t nOurSource);

// Whether a datagram at a port for both is RTCP (RFC 5761).
bool isRtcp(std::span<const uint8_t> bytes);

#endif
