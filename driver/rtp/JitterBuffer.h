// Puts the packets of RTP streams into order and time.
#ifndef DRIVER_JITTER_BUFFER_H
#define DRIVER_JITTER_BUFFER_H

#include "Codec.h"
#include "RtpCounters.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// Time is the number of samples that were given or skipped: tests and stalls move it as they like.
//
// A stream begins, and after a pause goes on, with the delay after its first packet's arrival, so that the
// later ones may be late by as much. Packets of any length may come in any order and more than once. Of
// one that is lost, or that comes after its time, silence is what remains, so that the stream keeps its
// timing; while none come it is silent as well. When packets come late more often than now and then the
// delay grows, by up to MAX_GROWTH, and shrinks when the line is calm. Where the sender's clock differs
// from ours single samples are doubled or left out, where that is heard least.
//
// When the times of a stream jump, or another stream begins, what waits is given first, and then what is new.
//
// Neither blocks, locks nor allocates. About 45 KiB.
class CJitterBuffer
{
public:
    static constexpr int64_t MAX_GROWTH = 4000;

    CJitterBuffer(size_t nDelaySamples, CRtpCounters& counters);

    struct CArrival
    {
        int64_t m_llSequence; // of the stream, without wraps
        int64_t m_llTime;     // of its first sample by the sender's clock, in samples, without wraps
        int64_t m_llArrived;  // when it came, by now()
        bool m_bMarker;       // a talkspurt begins
        CDecoder* m_pDecoder;
    };

    int64_t now() const { return m_llNow; }

    // The next packet has neither numbers nor times in common with those before.
    void beginStream() { m_bNewStream = m_bNewTimes = true; }

    void put(const CArrival& arrival, std::span<const uint8_t> payload);

    // A packet of the stream that is no audio: it is not missing.
    void putOther(int64_t llSequence);

    // The next samples, whose time goes on with these calls.
    void get(std::span<uint8_t> samples);

    // Time that nobody hears.
    void skip(size_t nSamples);

    // A decoder is to be destroyed: forgets what waits for it.
    void forget(const CDecoder* pDecoder);

    // How much of the stream is still to be given, silence for what is missing included.
    int64_t waiting() const { return m_bRunning ? m_llHighestEnd - m_llNow : 0; }

    int64_t delay() const { return m_llDelay + m_llGrowth; }

private:
    static constexpr size_t SLOTS = 256;
    static constexpr size_t BYTES = 32768;

    struct CSlot
    {
        int64_t m_llSequence = -1;
        int64_t m_llAt = 0;      // when it is played
        uint64_t m_ullBytes = 0; // where its payload lies
        uint32_t m_nSize = 0;    // 0: played, or too late
        CDecoder* m_pDecoder = nullptr;
    };

    CSlot& slotOf(int64_t llSequence) { return m_slots[static_cast<uint64_t>(llSequence) % SLOTS]; }
    int64_t numberOf(int64_t llSequence);
    bool hasJumped(const CArrival& arrival, int64_t llSequence, int64_t llSamples) const;
    void place(int64_t llArrived, int64_t llTime);
    void makeTimeFor(int64_t llLateness);
    void noteMargin(int64_t llMargin);
    void store(CSlot& slot, std::span<const uint8_t> payload);
    void fetch(size_t nWanted);
    void decode(CSlot& slot);
    size_t give(std::span<uint8_t> samples);
    void read(std::span<uint8_t> samples);

    const int64_t m_llDelay;
    CRtpCounters& m_counters;

    int64_t m_llNow = 0;
    bool m_bNewStream = true;
    bool m_bNewTimes = true;
    bool m_bSkipped = false;      // time, so that packets are late through no fault of theirs
    bool m_bRunning = false;      // not before the first packet, nor in a pause
    int64_t m_llNumberOffset = 0; // of the stream's numbers and times to ours
    int64_t m_llTimeOffset = 0;
    int64_t m_llHighest = 0;    // the newest packet,
    int64_t m_llHighestEnd = 0; // and where it ends
    int64_t m_llFirst = 0;      // of the stream; those before it are not missed
    int64_t m_llNext = 1;       // is fetched next
    int64_t m_llStarved = 0;    // samples since there was one

    int64_t m_llGrowth = 0;
    int m_nLateScore = 0;
    int m_nCalmWindows = 0;
    int m_nWindow = 0; // packets in it so far
    int64_t m_llMinMargin = INT64_MAX;
    int64_t m_llMaxMargin = INT64_MIN;
    int64_t m_llToLeaveOut = 0; // samples; to be doubled when negative

    // Decoded and not given yet.
    int64_t m_llLeftAt = 0;
    std::span<uint8_t> m_left;
    std::array<uint8_t, MAX_PACKET_SAMPLES> m_decoded{};

    std::array<CSlot, SLOTS> m_slots{};
    uint64_t m_ullBytesPut = 0;
    std::array<uint8_t, BYTES> m_bytes{};
};

#endif
