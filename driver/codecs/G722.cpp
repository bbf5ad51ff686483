// G.722: its lower band only, as inside there is no more. Its clock counts 8000 to the second, whatever it carries.
#include "Codec.h"
#include "G711.h"

#include <algorithm>
#include <array>
#include <cmath> // the headers of spandsp do not include what they need, nor each other
#include <new>

#include <spandsp/telephony.h>

#include <spandsp/g722.h>

namespace
{
constexpr int BITS_PER_SECOND = 64000;

struct CReleaseG722
{
    void operator()(g722_decode_state_t* p) const { g722_decode_free(p); }
    void operator()(g722_encode_state_t* p) const { g722_encode_free(p); }
};

template <class TState> std::unique_ptr<TState, CReleaseG722> held(TState* pState)
{
    if (pState == nullptr)
        throw std::bad_alloc();
    return std::unique_ptr<TState, CReleaseG722>(pState);
}

class CG722Decoder : public CDecoder
{
public:
    size_t samplesIn(std::span<const uint8_t> payload) const override
    {
        return std::min(payload.size(), MAX_PACKET_SAMPLES);
    }
    size_t decode(std::span<const uint8_t> payload, std::span<uint8_t> samples) override
    {
        const int nSamples =
            g722_decode(m_pState.get(), m_linear.data(), payload.data(), static_cast<int>(samplesIn(payload)));
        std::transform(m_linear.begin(), m_linear.begin() + nSamples, samples.begin(), encodeULaw);
        return static_cast<size_t>(nSamples);
    }

private:
    const std::unique_ptr<g722_decode_state_t, CReleaseG722> m_pState =
        held(g722_decode_init(nullptr, BITS_PER_SECOND, G722_SAMPLE_RATE_8000));
    std::array<int16_t, MAX_PACKET_SAMPLES> m_linear;
};

class CG722Encoder : public CEncoder
{
public:
    size_t encode(std::span<const uint8_t> samples, std::span<uint8_t> payload) override
    {
        const size_t nSamples = std::min(samples.size(), MAX_PACKET_SAMPLES);
        std::transform(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(nSamples), m_linear.begin(),
                       decodeULaw);
        return static_cast<size_t>(
            g722_encode(m_pState.get(), payload.data(), m_linear.data(), static_cast<int>(nSamples)));
    }

private:
    const std::unique_ptr<g722_encode_state_t, CReleaseG722> m_pState =
        held(g722_encode_init(nullptr, BITS_PER_SECOND, G722_SAMPLE_RATE_8000));
    std::array<int16_t, MAX_PACKET_SAMPLES> m_linear;
};
} // namespace

const CCodec CODEC_G722 = {"G722",
                           8000,
                           9,
                           0,
                           []() -> std::unique_ptr<CDecoder> { return std::make_unique<CG722Decoder>(); },
                           []() -> std::unique_ptr<CEncoder> { return std::make_unique<CG722Encoder>(); }};
