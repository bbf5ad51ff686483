// The reports of one leg: when they are due, what they say, and what the far end's said.
#ifndef DRIVER_RTCP_SIDE_H
#define DRIVER_RTCP_SIDE_H

#include "RtcpPacket.h"
#include "RtpSender.h"
#include "RtpSource.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>
#include <string>

// Times come from the caller: ticks of 20 ms for what is due, the clock of the day for what is told.
class CRtcpSide
{
public:
    using Time = std::chrono::system_clock::time_point;

    explicit CRtcpSide(std::string strName);

    // About every five seconds, never twice at the same distance.
    bool isDue(uint64_t ullTick);

    // The report that is due. The sender has sent since the last one or not; the source may be null.
    size_t report(const CRtpSender& sender, CRtpSource* pSource, uint64_t ullTick, Time now, bool bBye,
                  std::span<uint8_t, RTCP_MAX_REPORT> bytes);

    // False for what is no RTCP.
    bool onPacket(std::span<const uint8_t> bytes, uint32_t nOurSource, Time now);

    struct CQuality
    {
        std::optional<std::chrono::microseconds> m_roundTrip;
        std::optional<CRtcpBlock> m_theirs; // what the far end says of what we send
        uint64_t m_ullReportsReceived = 0;
        uint64_t m_ullReportsSent = 0;
        bool m_bBye = false; // the far end has said that it goes
    };
    const CQuality& quality() const { return m_quality; }

private:
    const std::string m_strName;
    std::minstd_rand m_random;
    std::optional<uint64_t> m_ullDue;
    uint64_t m_ullPacketsAtReport = 0;
    std::optional<uint64_t> m_ullTheirTime; // NTP, of their last sender report
    Time m_theirReportCame;
    CQuality m_quality;
};

#endif
