// One source of RTP packets: which of them are valid, and what became of them on the way.
#include "RtpSource.h"

#include <algorithm>
#include <cstdlib>

namespace
{
// RFC 3550, A.1.
constexpr uint16_t MAX_DROPOUT = 3000;
constexpr uint16_t MAX_MISORDER = 100;
} // namespace

CRtpSource::CRtpSource(const CRtpHeader& first) : m_nID(first.m_nSource), m_llTimestamp(first.m_nTimestamp)
{
    // So that the first packet is the next one.
    m_llHighest = first.m_nSequence - 1;
    m_llFirst = first.m_nSequence;
}

std::optional<CRtpSource::CPlace> CRtpSource::place(const CRtpHeader& header, uint32_t nArrival)
{
    const auto nAhead = static_cast<uint16_t>(header.m_nSequence - highestSequence());
    int64_t llSequence = m_llHighest + nAhead;
    if (nAhead == 0 || nAhead > UINT16_MAX - MAX_MISORDER)
        llSequence = m_llHighest + static_cast<int16_t>(nAhead);
    else if (nAhead >= MAX_DROPOUT)
        return std::nullopt;
    m_llHighest = std::max(m_llHighest, llSequence);
    ++m_ullReceived;
    ++m_ullRunReceived;
    noteJitter(header, nArrival);
    return CPlace{llSequence, unwrap(header.m_nTimestamp)};
}

void CRtpSource::restart(const CRtpHeader& header)
{
    m_llLostBefore = lost();
    m_ullRunReceived = 0;
    m_llFirst = m_llHighest + 1;
    m_llCycleBase = m_llFirst - header.m_nSequence;
    m_nTransit.reset();
}

int64_t CRtpSource::unwrap(uint32_t nTimestamp)
{
    m_llTimestamp += static_cast<int32_t>(nTimestamp - static_cast<uint32_t>(m_llTimestamp));
    return m_llTimestamp;
}

void CRtpSource::noteJitter(const CRtpHeader& header, uint32_t nArrival)
{
    const uint32_t nTransit = nArrival - header.m_nTimestamp;
    if (m_nTransit)
    {
        const auto nDifference =
            static_cast<uint32_t>(std::abs(static_cast<int64_t>(static_cast<int32_t>(nTransit - *m_nTransit))));
        m_nJitter16 += nDifference - ((m_nJitter16 + 8) >> 4);
    }
    m_nTransit = nTransit;
}

int64_t CRtpSource::lost() const
{
    return m_llLostBefore + (m_llHighest - m_llFirst + 1) - static_cast<int64_t>(m_ullRunReceived);
}

uint8_t CRtpSource::takeFractionLost()
{
    const int64_t llExpected = lost() + static_cast<int64_t>(m_ullReceived);
    const int64_t llDue = llExpected - m_llExpectedAtReport;
    const int64_t llCame = static_cast<int64_t>(m_ullReceived - m_ullReceivedAtReport);
    m_llExpectedAtReport = llExpected;
    m_ullReceivedAtReport = m_ullReceived;
    return llDue <= 0 || llDue <= llCame ? 0
                                         : static_cast<uint8_t>(std::min<int64_t>(255, (llDue - llCame) * 256 / llDue));
}
