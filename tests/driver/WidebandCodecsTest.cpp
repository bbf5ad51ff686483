// G.722 and Opus: what is encoded is heard again, and broken payloads do no harm. What PCMU and PCMA need is elsewhere.
#include "Codec.h"
#include "DriverTestSupport.h"
#include "G711.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace
{
CSamples tone(double dHertz, size_t nCount)
{
    CSamples samples(nCount);
    for (size_t n = 0; n < nCount; ++n)
        samples[n] = encodeULaw(
            static_cast<int16_t>(8000 * std::sin(2 * std::numbers::pi * dHertz * static_cast<double>(n) / 8000)));
    return samples;
}

// Packet by packet through encoder and decoder.
CSamples thereAndBack(const CCodec& codec, const CSamples& samples, size_t nPacket)
{
    const auto pEncoder = codec.m_pMakeEncoder();
    const auto pDecoder = codec.m_pMakeDecoder();
    CSamples heard;
    for (size_t n = 0; n + nPacket <= samples.size(); n += nPacket)
    {
        uint8_t payload[1000];
        const size_t nPayload = pEncoder->encode(std::span(samples).subspan(n, nPacket), payload);
        EXPECT_GT(nPayload, 0U);
        EXPECT_EQ(nPacket, pDecoder->samplesIn(std::span(payload, nPayload)));
        uint8_t decoded[MAX_PACKET_SAMPLES];
        EXPECT_EQ(nPacket, pDecoder->decode(std::span(payload, nPayload), decoded));
        heard.insert(heard.end(), decoded, decoded + nPacket);
    }
    return heard;
}

// The best correlation of what was heard with what was said, over the delays that a codec may have.
double likeness(const CSamples& said, const CSamples& heard)
{
    constexpr size_t SKIPPED = 800; // until the codec has settled
    double dBest = 0;
    for (size_t nDelay = 0; nDelay < 160; ++nDelay)
    {
        double dBoth = 0;
        double dSaid = 0;
        double dHeard = 0;
        for (size_t n = SKIPPED; n + nDelay < heard.size(); ++n)
        {
            const double a = decodeULaw(said[n]);
            const double b = decodeULaw(heard[n + nDelay]);
            dBoth += a * b;
            dSaid += a * a;
            dHeard += b * b;
        }
        dBest = std::max(dBest, dBoth / std::sqrt(dSaid * dHeard + 1));
    }
    return dBest;
}

class WidebandCodecs : public testing::TestWithParam<const CCodec*>
{
};
} // namespace

INSTANTIATE_TEST_SUITE_P(Each, WidebandCodecs, testing::Values(&CODEC_G722, &CODEC_OPUS),
                         [](const auto& codec) { return codec.param->m_pName; });

TEST_P(WidebandCodecs, GiveBackAToneInPacketsOfEachLength)
{
    const CSamples said = tone(440, 8000);
    for (const size_t nMs : {10U, 20U, 40U, 60U})
        EXPECT_GT(likeness(said, thereAndBack(*GetParam(), said, nMs * 8)), 0.98) << nMs << " ms";
}

TEST_P(WidebandCodecs, GiveBackSilenceAsSilence)
{
    const CSamples heard = thereAndBack(*GetParam(), CSamples(8000, ULAW_SILENCE), 160);
    EXPECT_TRUE(std::all_of(heard.begin(), heard.end(), [](uint8_t n) { return std::abs(decodeULaw(n)) <= 16; }));
}

TEST_P(WidebandCodecs, AreFoundByNameAndClockRate)
{
    EXPECT_EQ(GetParam(), findCodec(GetParam()->m_pName, GetParam()->m_nClockRate));
    EXPECT_EQ(nullptr, findCodec(GetParam()->m_pName, GetParam()->m_nClockRate + 1));
}

TEST_P(WidebandCodecs, TakeAnyBytesAndGoOn)
{
    const auto pDecoder = GetParam()->m_pMakeDecoder();
    uint8_t decoded[MAX_PACKET_SAMPLES];
    for (unsigned nSeed = 1; nSeed <= 200; ++nSeed)
    {
        const CSamples rubbish = noise(nSeed * 10 % 1400, nSeed);
        EXPECT_LE(pDecoder->decode(rubbish, decoded), MAX_PACKET_SAMPLES);
        EXPECT_LE(pDecoder->samplesIn(rubbish), MAX_PACKET_SAMPLES);
    }
    const auto pEncoder = GetParam()->m_pMakeEncoder();
    uint8_t payload[1000];
    const size_t nPayload = pEncoder->encode(tone(440, 160), payload);
    EXPECT_EQ(160U, pDecoder->decode(std::span(payload, nPayload), decoded));
}

TEST(Opus, HasNoSamplesInAnEmptyPayload)
{
    const auto pDecoder = CODEC_OPUS.m_pMakeDecoder();
    uint8_t decoded[MAX_PACKET_SAMPLES];
    EXPECT_EQ(0U, pDecoder->samplesIn({}));
    EXPECT_EQ(0U, pDecoder->decode({}, decoded));
}
