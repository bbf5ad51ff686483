// PCMA: each sample goes through a table.
#include "Codec.h"
#include "G711.h"

#include <algorithm>

namespace
{
void convertG711(std::span<const uint8_t> from, const CG711Table& table, uint8_t* pTo)
{
    std::transform(
        from.begin(), from.end(), pTo, [&table](uint8_t n) { return table[n]; });
}

class CPcma : public CDecoder, public CEncoder
{
public:
    size_t samplesIn(std::span<const uint8_t> payload) const override
    {
        return std::min(payload.size(), MAX_PACKET_SAMPLES);
    }
    size_t decode(std::span<const uint8_t> payload, std::span<uint8_t> samples) override
    {
        convertG711(payload.first(samplesIn(payload)), m_toULaw, samples.data());
        return samplesIn(payload);
    }
    size_t encode(std::span<const uint8_t> samples, std::span<uint8_t> payload) override
    {
        convertG711(samples, m_toALaw, payload.data());
        return samples.size();
    }

private:
    const CG711Table& m_toULaw = aLawToULaw();
    const CG711Table& m_toALaw = uLawToALaw();
};
} // namespace

const CCodec CODEC_PCMA = {"PCMA",
                           8000,
                           8,
                           0xD5,
                           []() -> std::unique_ptr<CDecoder> { return std::make_unique<CPcma>(); },
                           []() -> std::unique_ptr<CEncoder> { return std::make_unique<CPcma>(); }};
