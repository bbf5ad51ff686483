// Opus (RFC 7587), mono: the library samples at 8000 per second by itself, in both directions.
#include "Codec.h"
#include "G711.h"

#include <opus/opus.h>

#include <algorithm>
#include <array>
#include <new>

namespace
{
constexpr int SAMPLES_PER_SECOND = 8000;

struct CReleaseOpus
{
    void operator()(OpusDecoder* p) const { opus_decoder_destroy(p); }
    void operator()(OpusEncoder* p) const { opus_encoder_destroy(p); }
};

class COpusDecoder : public CDecoder
{
public:
    COpusDecoder()
    {
        if (!m_pState)
            throw std::bad_alloc();
    }
    size_t samplesIn(std::span<const uint8_t> payload) const override
    {
        if (payload.empty())
            return 0;
        const int nSamples =
            opus_packet_get_nb_samples(payload.data(), static_cast<opus_int32>(payload.size()), SAMPLES_PER_SECOND);
        return nSamples > 0 ? static_cast<size_t>(nSamples) : 0;
    }
    size_t decode(std::span<const uint8_t> payload, std::span<uint8_t> samples) override
    {
        if (payload.empty()) // which the library takes for a packet that was lost
            return 0;
        const int nSamples = opus_decode(m_pState.get(), payload.data(), static_cast<opus_int32>(payload.size()),
                                         m_linear.data(), static_cast<int>(m_linear.size()), 0);
        if (nSamples <= 0)
            return 0;
        std::transform(m_linear.begin(), m_linear.begin() + nSamples, samples.begin(), encodeULaw);
        return static_cast<size_t>(nSamples);
    }

private:
    const std::unique_ptr<OpusDecoder, CReleaseOpus> m_pState{opus_decoder_create(SAMPLES_PER_SECOND, 1, nullptr)};
    std::array<int16_t, MAX_PACKET_SAMPLES> m_linear;
};

// Its packets are 10, 20, 40 or 60 ms long.
class COpusEncoder : public CEncoder
{
public:
    COpusEncoder()
    {
        if (!m_pState)
            throw std::bad_alloc();
    }
    size_t encode(std::span<const uint8_t> samples, std::span<uint8_t> payload) override
    {
        const size_t nSamples = std::min(samples.size(), m_linear.size());
        std::transform(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(nSamples), m_linear.begin(),
                       decodeULaw);
        const opus_int32 nBytes = opus_encode(m_pState.get(), m_linear.data(), static_cast<int>(nSamples),
                                              payload.data(), static_cast<opus_int32>(payload.size()));
        return nBytes > 0 ? static_cast<size_t>(nBytes) : 0;
    }

private:
    const std::unique_ptr<OpusEncoder, CReleaseOpus> m_pState{
        opus_encoder_create(SAMPLES_PER_SECOND, 1, OPUS_APPLICATION_VOIP, nullptr)};
    std::array<int16_t, MAX_PACKET_SAMPLES> m_linear;
};
} // namespace

const CCodec CODEC_OPUS = {"opus",
                           48000,
                           std::nullopt,
                           0,
                           []() -> std::unique_ptr<CDecoder> { return std::make_unique<COpusDecoder>(); },
                           []() -> std::unique_ptr<CEncoder> { return std::make_unique<COpusEncoder>(); }};
