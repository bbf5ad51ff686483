// What comes from a far end: which source is heard, in which format, and its samples in time.
#include "RtpIntake.h"
#include "G711.h"
#include "RtpTestSupport.h"

namespace
{
using EArrival = CRtpIntake::EArrival;

class RtpIntake : public testing::Test
{
protected:
    RtpIntake()
    {
        setFormats({{0, &CODEC_PCMU}, {8, &CODEC_PCMA}, {101, nullptr}});
        EXPECT_TRUE(m_intake.beginListening(3 * RTP_SAMPLES));
    }

    void setFormats(const std::vector<CRtpIntake::CFormat>& vFormats) { m_intake.setFormats(vFormats); }

    // One packet of a source, whose samples are all nSample.
    EArrival put(uint32_t nSource, uint16_t nSequence, uint8_t nSample, uint8_t nPayloadType = 0,
                 std::optional<uint32_t> timestamp = {})
    {
        const CBytes payload(RTP_SAMPLES, nSample);
        const CRtpHeader header{false, nPayloadType, nSequence, timestamp.value_or(nSequence * 160U), nSource};
        return m_intake.onRtp({header, payload}, m_nNow);
    }

    // The first sample of the next tick.
    uint8_t get()
    {
        CBytes samples(RTP_SAMPLES);
        m_intake.get(samples);
        m_nNow += RTP_SAMPLES;
        return samples[0];
    }

    std::string heard(int nTicks)
    {
        std::string strHeard;
        for (int n = 0; n < nTicks; ++n)
        {
            const uint8_t nSample = get();
            strHeard += nSample == 0xFF ? '.' : static_cast<char>(nSample);
        }
        return strHeard;
    }

    CRtpCounters m_counters;
    CRtpIntake m_intake{m_counters};
    uint32_t m_nNow = 0;
};
} // namespace

TEST_F(RtpIntake, HearsTheFirstSourceFromItsFirstPacketOn)
{
    EXPECT_EQ(put(1, 100, 'a'), EArrival::Taken);
    EXPECT_EQ(put(1, 101, 'b'), EArrival::Taken);
    EXPECT_EQ(heard(6), "...ab.");
    EXPECT_EQ(m_intake.source()->id(), 1U);
}

TEST_F(RtpIntake, StrayPacketOfAnotherSourceTakesNothingAway)
{
    std::string strHeard;
    for (uint16_t n = 0; n < 20; ++n)
    {
        put(1, n, static_cast<uint8_t>('a' + n));
        if (n == 10)
            EXPECT_EQ(put(2, 5000, 'X'), EArrival::Held);
        strHeard += heard(1);
    }
    EXPECT_EQ(strHeard, "...abcdefghijklmnopq");
}

TEST_F(RtpIntake, PacketsOfAnotherSourceThatDoNotFollowEachOtherTakeNothingAway)
{
    std::string strHeard;
    for (uint16_t n = 0; n < 20; ++n)
    {
        put(1, n, static_cast<uint8_t>('a' + n));
        if (n == 10)
        {
            EXPECT_EQ(put(2, 5000, 'X'), EArrival::Held);
            EXPECT_EQ(put(2, 5002, 'X'), EArrival::Held);
            EXPECT_EQ(put(2, 5001, 'X'), EArrival::Held);
        }
        strHeard += heard(1);
    }
    EXPECT_EQ(strHeard, "...abcdefghijklmnopq");
    EXPECT_EQ(m_counters.m_ullStrays, 2U);
}

TEST_F(RtpIntake, OneOfTwoSourcesThatComeInTurnsIsHeardAndTheOtherIsNot)
{
    std::string strHeard;
    for (uint16_t n = 0; n < 20; ++n)
    {
        put(1, n, static_cast<uint8_t>('a' + n));
        put(2, n, 'X');
        strHeard += heard(1);
    }
    EXPECT_EQ(strHeard, "...abcdefghijklmnopq");
    EXPECT_EQ(m_counters.m_ullLost, 0U);
    EXPECT_EQ(m_counters.m_ullStrays, 0U + 0U);
}

TEST_F(RtpIntake, AnotherSourceThatGoesOnIsHeardFromItsFirstPacketOnAfterWhatWaits)
{
    std::string strHeard;
    for (uint16_t n = 0; n < 20; ++n)
    {
        const bool bOther = n >= 10;
        const EArrival eArrival = put(bOther ? 2 : 1, bOther ? static_cast<uint16_t>(n + 30000) : n,
                                      static_cast<uint8_t>('a' + n), 0, bOther ? n * 160U + 0x80000000U : n * 160U);
        EXPECT_EQ(eArrival, n == 10 ? EArrival::Held : n == 11 ? EArrival::NewSource : EArrival::Taken);
        strHeard += heard(1);
    }
    EXPECT_EQ(strHeard, "...abcdefghijklmnopq");
    EXPECT_EQ(m_intake.source()->id(), 2U);
    EXPECT_EQ(m_counters.m_ullLost + m_counters.m_ullLate, 0U);
}

TEST_F(RtpIntake, SenderThatBeginsItsNumbersAnewLosesNothing)
{
    std::string strHeard;
    for (uint16_t n = 0; n < 20; ++n)
    {
        const auto nSequence = static_cast<uint16_t>(n < 10 ? n : n + 40000);
        put(1, nSequence, static_cast<uint8_t>('a' + n), 0, n < 10 ? n * 160U : n * 160U + 0x70000000U);
        strHeard += heard(1);
    }
    EXPECT_EQ(strHeard, "...abcdefghijklmnopq");
    EXPECT_EQ(m_intake.source()->lost(), 0);
    EXPECT_EQ(m_intake.source()->received(), 20U);
}

TEST_F(RtpIntake, StrayNumberOfTheSameSourceTakesNothingAway)
{
    std::string strHeard;
    for (uint16_t n = 0; n < 20; ++n)
    {
        put(1, n, static_cast<uint8_t>('a' + n));
        if (n == 10)
            EXPECT_EQ(put(1, 30000, 'X'), EArrival::Held);
        strHeard += heard(1);
    }
    EXPECT_EQ(strHeard, "...abcdefghijklmnopq");
}

TEST_F(RtpIntake, NumbersAndTimesMayWrap)
{
    std::string strHeard;
    for (uint32_t n = 0; n < 20; ++n)
    {
        put(1, static_cast<uint16_t>(65530 + n), static_cast<uint8_t>('a' + n), 0, UINT32_MAX - 1000 + n * 160);
        strHeard += heard(1);
    }
    EXPECT_EQ(strHeard, "...abcdefghijklmnopq");
}

TEST_F(RtpIntake, CodecMayChangeFromPacketToPacket)
{
    const uint8_t nALaw = uLawToALaw()['b'];
    put(1, 0, 'a');
    put(1, 1, nALaw, 8);
    put(1, 2, 'c');
    EXPECT_EQ(heard(6), std::string("...a") + static_cast<char>(aLawToULaw()[nALaw]) + "c");
}

TEST_F(RtpIntake, TakesNoPayloadTypeThatWasNotAgreed)
{
    EXPECT_EQ(put(1, 0, 'a', 9), EArrival::Unknown);
    EXPECT_EQ(m_intake.source(), nullptr);
    EXPECT_EQ(m_counters.m_ullOtherPayloads, 1U);
    put(1, 1, 'b');
    setFormats({{8, &CODEC_PCMA}});
    EXPECT_EQ(put(1, 2, 'c'), EArrival::Unknown);
}

TEST_F(RtpIntake, WhatIsNoAudioBelongsToTheStreamAndIsNoLoss)
{
    std::string strHeard;
    for (uint16_t n = 0; n < 20; ++n)
    {
        EXPECT_EQ(put(1, n, static_cast<uint8_t>('a' + n), n == 5 || n == 6 ? 101 : 0),
                  n == 5 || n == 6 ? EArrival::Other : EArrival::Taken);
        strHeard += heard(1);
    }
    EXPECT_EQ(strHeard, "...abcde..hijklmnopq");
    EXPECT_EQ(m_counters.m_ullLost, 0U);
    EXPECT_EQ(m_intake.source()->lost(), 0);
}

TEST_F(RtpIntake, FormatsMayChangeWhileThePacketsOfASourceAreHeld)
{
    put(1, 0, 'a');
    put(2, 100, 'X', 8);
    setFormats({{0, &CODEC_PCMU}});
    EXPECT_EQ(put(2, 101, 'b'), EArrival::NewSource);
    EXPECT_EQ(m_intake.source()->id(), 2U);
    EXPECT_EQ(heard(5).back(), 'b');
}
