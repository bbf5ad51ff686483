// What happened to RTP packets, counted.
#ifndef DRIVER_RTP_COUNTERS_H
#define DRIVER_RTP_COUNTERS_H

#include <cstdint>

struct CRtpCounters
{
    uint64_t m_ullSent = 0;
    uint64_t m_ullSendErrors = 0; // packets that the system did not take
    uint64_t m_ullReceived = 0;   // from the remote address of a channel and of its codec
    uint64_t m_ullReceiveErrors = 0;
    uint64_t m_ullStrangers = 0;     // dropped: from elsewhere
    uint64_t m_ullMalformed = 0;     // dropped: not RTP
    uint64_t m_ullOtherPayloads = 0; // dropped: of another payload type, such as telephone events
    uint64_t m_ullLate = 0;          // of those received: dropped, their time in the recording was over
    uint64_t m_ullLost = 0;          // gaps of up to 20 ms in recordings
};

#endif
