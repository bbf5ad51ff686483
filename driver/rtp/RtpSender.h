// What goes to a far end: samples become packets whose numbers and times are right over pauses.
#ifndef DRIVER_RTP_SENDER_H
#define DRIVER_RTP_SENDER_H

#include "Codec.h"
#include "RtpPacket.h"
#include "TelephoneEvents.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

// Times are those of the media tick: what is not sent, for whatever reason, leaves a gap in them, and the
// packet after it has the marker.
class CRtpSender
{
public:
    static constexpr size_t TICK = 160;
    static constexpr size_t MAX_PACKET = 640;

    // Gets each packet. Not kept after the call.
    class COutput
    {
    public:
        virtual ~COutput() = default;
        virtual void sendRtp(std::span<uint8_t> packet) = 0;
    };

    CRtpSender();

    // From the next packet on. ptime is 10 to 60 ms, a multiple of 10.
    void setFormat(const CCodec& codec, uint8_t nPayloadType, unsigned nPtimeMs);
    uint8_t payloadType() const { return m_header.m_nPayloadType; }
    uint32_t source() const { return m_header.m_nSource; }

    // A source for itself, after which nobody can tell it from another.
    void beginSource();

    // Samples for this tick. Returns how many there was room for.
    size_t hear(std::span<const uint8_t> samples);
    size_t room() const { return TICK - m_nHeard; }
    bool hasHeard() const { return m_nHeard > 0; }
    std::span<const uint8_t> heard() const { return std::span(m_waiting).subspan(m_nWaiting, m_nHeard); }

    // The end of a tick: sends what it fills. With bSilence what is missing is silence; otherwise a tick in
    // which nothing was heard sends nothing.
    void endTick(uint64_t ullTick, bool bSilence, COutput& output);

    // The end of a tick in which an event takes the place of audio.
    void endTickWith(uint64_t ullTick, const CKeySender::CPacket& key, uint8_t nPayloadType, COutput& output);

    // Nothing is sent in this tick, whatever was heard.
    void dropTick();

    // For reports.
    uint32_t timestampAt(uint64_t ullTick) const;
    uint64_t packets() const { return m_ullPackets; }
    uint64_t octets() const { return m_ullOctets; }

private:
    void append(uint64_t ullTick);
    void sendFull(COutput& output);
    void sendPacket(std::span<const uint8_t> samples, COutput& output);

    CRtpHeader m_header; // of the packet that is sent next, but for its time and marker
    uint32_t m_nTimeBase = 0;
    const CCodec* m_pCodec = nullptr;
    std::unique_ptr<CEncoder> m_pEncoder;
    size_t m_nPacketSamples = TICK;

    // Not sent yet: less than a packet, and behind it what was heard in this tick.
    size_t m_nWaiting = 0;
    size_t m_nHeard = 0;
    uint64_t m_ullWaitingAt = 0; // when the first of them is due, in samples
    std::array<uint8_t, 480 + TICK> m_waiting{};

    uint64_t m_ullDue = UINT64_MAX; // when the next packet is due without a gap
    uint32_t m_nKeyTimestamp = 0;
    uint64_t m_ullPackets = 0;
    uint64_t m_ullOctets = 0;
};

#endif
