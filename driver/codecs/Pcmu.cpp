// PCMU: what is on the line is what is inside.
#include "Codec.h"
#include "G711.h"

#include <algorithm>

namespace
{
class CPcmu : public CDecoder, public CEncoder
{
public:
    size_t samplesIn(std::span<const uint8_t> payload) const override
    {
        return std::min(payload.size(), MAX_PACKET_SAMPLES);
    }
    size_t decode(std::span<const uint8_t> payload, std::span<uint8_t> samples) override
    {
        std::copy_n(payload.begin(), samplesIn(payload), samples.begin());
        return samplesIn(payload);
    }
    size_t encode(std::span<const uint8_t> samples, std::span<uint8_t> payload) override
    {
        std::copy(samples.begin(), samples.end(), payload.begin());
        return samples.size();
    }
};
} // namespace

const CCodec CODEC_PCMU = {"PCMU",
                           8000,
                           0,
                           ULAW_SILENCE,
                           []() -> std::unique_ptr<CDecoder> { return std::make_unique<CPcmu>(); },
                           []() -> std::unique_ptr<CEncoder> { return std::make_unique<CPcmu>(); }};
