// What comes from a far end: which source is heard, in which format, and its samples in time.
#ifndef DRIVER_RTP_INTAKE_H
#define DRIVER_RTP_INTAKE_H

#include "Codec.h"
#include "JitterBuffer.h"
#include "RtpCounters.h"
#include "RtpPacket.h"
#include "RtpSource.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

// Another source, and one that begins its numbers anew, is heard from its second packet in sequence on, if
// none of the present one came in between; its first packet is kept until then.
class CRtpIntake
{
public:
    explicit CRtpIntake(CRtpCounters& counters) : m_counters(counters) {}

    // What may come: payload types with their codecs, and those that are no audio but part of the stream.
    struct CFormat
    {
        uint8_t m_nPayloadType;
        const CCodec* m_pCodec; // null: no audio
    };
    void setFormats(std::span<const CFormat> formats);

    // Whether a payload type was agreed.
    bool knows(uint8_t nPayloadType) const { return formatOf(nPayloadType) != nullptr; }

    enum class EArrival
    {
        Taken,     // audio
        Other,     // no audio, of the source that is heard
        NewSource, // audio of a source that is heard from now on
        NewOther,  // the same, no audio
        Held,      // a source that is not heard yet
        Unknown    // of a payload type that was not agreed
    };

    // On the media tick: neither blocks, locks nor allocates. The time is in samples, from any beginning.
    EArrival onRtp(const CRtpPacket& packet, uint32_t nNow);

    // From begin to end get gives the samples that have come, later by the delay. Begin returns false when
    // there is no memory.
    bool beginListening(size_t nDelaySamples);
    void endListening();
    bool isListening() const { return m_pBuffer != nullptr; }
    void get(std::span<uint8_t> samples) { m_pBuffer->get(samples); }
    void skip(size_t nSamples);

    // Null before the first packet.
    const CRtpSource* source() const { return m_source ? &*m_source : nullptr; }
    CRtpSource* source() { return m_source ? &*m_source : nullptr; }

private:
    struct CReceiveFormat
    {
        CFormat m_format;
        std::unique_ptr<CDecoder> m_pDecoder;
    };

    const CReceiveFormat* formatOf(uint8_t nPayloadType) const;
    bool isExpected(const CRtpHeader& header) const;
    EArrival hold(const CRtpPacket& packet);
    EArrival switchTo(const CRtpPacket& packet, uint32_t nNow);
    EArrival take(const CRtpPacket& packet, const CReceiveFormat& format, int64_t llArrived, uint32_t nNow);

    CRtpCounters& m_counters;
    std::vector<CReceiveFormat> m_vFormats;
    std::optional<CRtpSource> m_source;
    std::unique_ptr<CJitterBuffer> m_pBuffer;

    // The packet that is kept; its payload only while somebody listens.
    using CPayload = std::array<uint8_t, RTP_MAX_DATAGRAM>;
    bool m_bHeld = false;
    CRtpHeader m_heldHeader;
    int64_t m_llHeldArrived = 0;
    size_t m_nHeldSize = 0;
    std::unique_ptr<CPayload> m_pHeldPayload;
};

#endif
