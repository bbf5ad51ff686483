// One source of RTP packets: which of them are valid, and what became of them on the way.
#ifndef DRIVER_RTP_SOURCE_H
#define DRIVER_RTP_SOURCE_H

#include "RtpPacket.h"

#include <cstdint>
#include <optional>

// RFC 3550, A.1, A.3 and A.8, for a source that is taken at its word from its first packet on.
class CRtpSource
{
public:
    explicit CRtpSource(const CRtpHeader& first);

    uint32_t id() const { return m_nID; }

    // Where a packet stands: numbers and times that do not wrap.
    struct CPlace
    {
        int64_t m_llSequence;
        int64_t m_llTimestamp;
    };

    // None for a packet whose number is far from those before. nArrival is the time by the clock of the
    // timestamps, from any beginning.
    std::optional<CPlace> place(const CRtpHeader& header, uint32_t nArrival);

    // The sender has begun anew with this packet, which is to be placed next.
    void restart(const CRtpHeader& header);

    // Since the source began: packets that should have come by now less those that came, duplicates
    // included, so that it may be negative.
    int64_t lost() const;
    uint64_t received() const { return m_ullReceived; }
    uint32_t highestSequence() const { return static_cast<uint32_t>(m_llHighest - m_llCycleBase); }
    uint32_t jitter() const { return m_nJitter16 >> 4; } // in units of the timestamps

    // What was lost since the last call, in parts of 256.
    uint8_t takeFractionLost();

private:
    void noteJitter(const CRtpHeader& header, uint32_t nArrival);
    int64_t unwrap(uint32_t nTimestamp);

    uint32_t m_nID;
    int64_t m_llHighest = 0; // goes on over restarts of the sender
    int64_t m_llFirst = 0;   // of this run
    int64_t m_llCycleBase = 0;
    int64_t m_llTimestamp = 0; // of the packet before
    int64_t m_llLostBefore = 0;
    uint64_t m_ullReceived = 0;
    uint64_t m_ullRunReceived = 0;
    int64_t m_llExpectedAtReport = 0;
    uint64_t m_ullReceivedAtReport = 0;
    std::optional<uint32_t> m_nTransit;
    uint32_t m_nJitter16 = 0;
};

#endif
