// The reports of one leg: when they are due, what they say, and what the far end's said.
#include "RtcpSide.h"

#include <algorithm>

namespace
{
constexpr uint64_t SECONDS_FROM_1900_TO_1970 = 2208988800;
// Five seconds times 0.5 to 1.5, divided by 1.21828 (RFC 3550, 6.3.1), in ticks of 20 ms.
constexpr unsigned MIN_INTERVAL = 103;
constexpr unsigned INTERVAL_SPREAD = 205;

uint64_t ntpOf(CRtcpSide::Time time)
{
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch());
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    const auto ullNanoseconds = static_cast<uint64_t>((sinceEpoch - seconds).count());
    return ((static_cast<uint64_t>(seconds.count()) + SECONDS_FROM_1900_TO_1970) << 32) |
           ((ullNanoseconds << 32) / 1000000000);
}

// The middle of a time, which is how reports name each other.
uint32_t middleOf(uint64_t ullTime)
{
    return static_cast<uint32_t>(ullTime >> 16);
}
} // namespace

CRtcpSide::CRtcpSide(std::string strName) : m_strName(std::move(strName)), m_random(std::random_device()()) {}

bool CRtcpSide::isDue(uint64_t ullTick)
{
    const bool bDue = m_ullDue && ullTick >= *m_ullDue;
    if (!m_ullDue || bDue)
    {
        const uint64_t ullInterval = MIN_INTERVAL + m_random() % INTERVAL_SPREAD;
        m_ullDue = ullTick + (m_ullDue ? ullInterval : ullInterval / 2); // the first one comes sooner
    }
    return bDue;
}

size_t CRtcpSide::report(const CRtpSender& sender, CRtpSource* pSource, uint64_t ullTick, Time now, bool bBye,
                         std::span<uint8_t, RTCP_MAX_REPORT> bytes)
{
    CRtcpReport report;
    report.m_nSource = sender.source();
    report.m_name = m_strName;
    report.m_bBye = bBye;
    if (sender.packets() != m_ullPacketsAtReport)
        report.m_sender = {ntpOf(now), sender.timestampAt(ullTick), static_cast<uint32_t>(sender.packets()),
                           static_cast<uint32_t>(sender.octets())};
    m_ullPacketsAtReport = sender.packets();
    if (pSource != nullptr)
    {
        CRtcpBlock& block = report.m_block.emplace();
        block.m_nSource = pSource->id();
        block.m_nFractionLost = pSource->takeFractionLost();
        block.m_nLost = static_cast<int32_t>(std::clamp<int64_t>(pSource->lost(), -0x800000, 0x7FFFFF));
        block.m_nHighestSequence = pSource->highestSequence();
        block.m_nJitter = pSource->jitter();
        if (m_ullTheirTime)
        {
            block.m_nLastReport = middleOf(*m_ullTheirTime);
            block.m_nDelay = static_cast<uint32_t>(middleOf(ntpOf(now) - ntpOf(m_theirReportCame)));
        }
    }
    ++m_quality.m_ullReportsSent;
    return writeRtcp(report, bytes);
}

bool CRtcpSide::onPacket(std::span<const uint8_t> bytes, uint32_t nOurSource, Time now)
{
    const std::optional<CRtcpNews> news = parseRtcp(bytes, nOurSource);
    if (!news)
        return false;
    ++m_quality.m_ullReportsReceived;
    m_quality.m_bBye |= news->m_bBye;
    if (news->m_ullTime)
    {
        m_ullTheirTime = news->m_ullTime;
        m_theirReportCame = now;
    }
    if (news->m_aboutUs)
    {
        m_quality.m_theirs = news->m_aboutUs;
        const uint32_t nTrip = middleOf(ntpOf(now)) - news->m_aboutUs->m_nLastReport - news->m_aboutUs->m_nDelay;
        // Clocks that step, and reports of nonsense, give times that no packet takes.
        if (news->m_aboutUs->m_nLastReport != 0 && nTrip < 60 * 65536U)
            m_quality.m_roundTrip = std::chrono::microseconds(uint64_t{nTrip} * 1000000 / 65536);
    }
    return true;
}
