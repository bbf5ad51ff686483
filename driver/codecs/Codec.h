// The codecs of RTP streams. Inside, all audio is µ-law at 8000 samples per second.
#ifndef DRIVER_CODEC_H
#define DRIVER_CODEC_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

// The most samples that one packet holds.
constexpr size_t MAX_PACKET_SAMPLES = 2048;

// Takes the packets of one stream in their order. Neither blocks, locks nor allocates.
class CDecoder
{
public:
    virtual ~CDecoder() = default;

    // How many samples decode would give; 0 when the payload is broken.
    virtual size_t samplesIn(std::span<const uint8_t> payload) const = 0;

    // Returns the number of samples. There is room for MAX_PACKET_SAMPLES; what is more is left out.
    virtual size_t decode(std::span<const uint8_t> payload, std::span<uint8_t> samples) = 0;
};

// Makes the payloads of one stream. Neither blocks, locks nor allocates.
class CEncoder
{
public:
    virtual ~CEncoder() = default;

    // The samples of one packet, 10 to 60 ms. Returns the size of the payload, 0 when nothing can be sent.
    virtual size_t encode(std::span<const uint8_t> samples, std::span<uint8_t> payload) = 0;
};

struct CCodec
{
    const char* m_pName;   // as in session descriptions
    unsigned m_nClockRate; // of the timestamps
    std::optional<uint8_t> m_staticPayload;
    uint8_t m_nSilence; // a byte of silence where each sample is one byte; else 0
    std::unique_ptr<CDecoder> (*m_pMakeDecoder)();
    std::unique_ptr<CEncoder> (*m_pMakeEncoder)();

    unsigned ticksPerSample() const { return m_nClockRate / 8000; }
};

// Each in a file of its own.
extern const CCodec CODEC_PCMU;
extern const CCodec CODEC_PCMA;
extern const CCodec CODEC_G722;
extern const CCodec CODEC_OPUS;

// All that there are. The order is that of their mention.
std::span<const CCodec* const> codecs();

// The name in any case. Null for one that is not known.
const CCodec* findCodec(std::string_view name, unsigned nClockRate);

#endif
