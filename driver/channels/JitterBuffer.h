// Puts the packets of an RTP stream into order and time, for as long as a recording listens to it.
#ifndef DRIVER_JITTER_BUFFER_H
#define DRIVER_JITTER_BUFFER_H

#include "RtpCounters.h"
#include "RtpPacket.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

struct JitterBuffer_; // libspeexdsp

// Samples are µ-law. Packets of any length may come in any order and more than once. Of a packet that
// is lost, or that comes after its time, silence is what remains, so that the stream keeps its timing;
// while none come the stream is silent as well. When packets come late more often than now and then the
// buffer delays the stream further, which puts silence into it once. It never leaves samples out to
// catch up. 200 packets can wait, or parts of 160 samples of longer ones; then the oldest is dropped.
//
// put and get neither block, lock nor allocate. About 45 KiB.
class CJitterBuffer
{
public:
    // The stream begins, and after a pause goes on, with this delay after its first packet, so that
    // the later ones may be late by as much. Null when there is no memory.
    static std::unique_ptr<CJitterBuffer> create(size_t nDelaySamples, CRtpCounters& counters);
    CJitterBuffer(const CJitterBuffer&) = delete;
    CJitterBuffer& operator=(const CJitterBuffer&) = delete;
    ~CJitterBuffer();

    // A packet of another source begins the stream anew.
    void put(const CRtpHeader& header, std::span<const uint8_t> payload);

    // The next samples of the stream, whose time goes on with these calls.
    void get(std::span<uint8_t> samples);

private:
    struct CSlot
    {
        CJitterBuffer* m_pOwner = nullptr;
        std::array<uint8_t, RTP_SAMPLES> m_samples{};
    };
    struct CDestroy
    {
        void operator()(JitterBuffer_* pJitter) const;
    };

    CJitterBuffer(size_t nDelaySamples, CRtpCounters& counters);

    void putBlock(const CRtpHeader& header, std::span<const uint8_t> samples);
    size_t takeAtHand(std::span<uint8_t> samples);
    void fetch(size_t nWanted);
    void restart();

    static void release(void* pSlot);

    const size_t m_nDelaySamples;
    CRtpCounters& m_counters;

    // What the library holds are slots of this pool. It reads nothing of them.
    std::vector<CSlot> m_vSlots;
    std::vector<CSlot*> m_vFree;
    std::unique_ptr<JitterBuffer_, CDestroy> m_pJitter;

    bool m_bSourceKnown = false;
    uint32_t m_nSource = 0;

    bool m_bPacketHere = false; // since the library was made or reset
    bool m_bInSync = false;     // it was asked for a packet since then
    int m_nMissesInARow = 0;    // how often the library had no packet,
    uint64_t m_ullGaps = 0;     // and was not just to wait longer

    // At hand for the next get: silence, then the rest of a packet.
    size_t m_nSilenceLeft = 0;
    CSlot* m_pPlaying = nullptr;
    std::span<const uint8_t> m_playingLeft;
};

#endif
