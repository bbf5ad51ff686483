// What happened to RTP packets, counted.
#ifndef DRIVER_RTP_COUNTERS_H
#define DRIVER_RTP_COUNTERS_H

#include <cstdint>

struct CRtpCounters
{
    uint64_t m_ullSent = 0;
    uint64_t m_ullSendErrors = 0; // packets that the system did not take
    uint64_t m_ullReceived = 0;   // audio from the far end of a leg
    uint64_t m_ullReceiveErrors = 0;
    uint64_t m_ullStrangers = 0;     // dropped: from elsewhere
    uint64_t m_ullMalformed = 0;     // dropped: not RTP
    uint64_t m_ullOtherPayloads = 0; // dropped: of a payload type that was not agreed
    uint64_t m_ullStrays = 0;        // dropped: of a source that nothing more came from
    uint64_t m_ullDuplicates = 0;    // dropped: they had come before
    uint64_t m_ullLate = 0;          // dropped: their time in what is listened to was over
    uint64_t m_ullLost = 0;          // that never came, of what is listened to

    CRtpCounters& operator+=(const CRtpCounters& other)
    {
        m_ullSent += other.m_ullSent;
        m_ullSendErrors += other.m_ullSendErrors;
        m_ullReceived += other.m_ullReceived;
        m_ullReceiveErrors += other.m_ullReceiveErrors;
        m_ullStrangers += other.m_ullStrangers;
        m_ullMalformed += other.m_ullMalformed;
        m_ullOtherPayloads += other.m_ullOtherPayloads;
        m_ullStrays += other.m_ullStrays;
        m_ullDuplicates += other.m_ullDuplicates;
        m_ullLate += other.m_ullLate;
        m_ullLost += other.m_ullLost;
        return *this;
    }
};

#endif
