// Puts the packets of RTP streams into order and time.
#include "JitterBuffer.h"
#include "G711.h"
#include "RtpTestSupport.h"

#include <algorithm>
#include <random>

namespace
{
constexpr uint8_t SILENT = 0xFF;

// Packet n holds n in each sample. Nothing here waits: time is what is taken out.
class JitterBuffer : public testing::Test
{
protected:
    void create(size_t nDelaySamples) { m_pBuffer = std::make_unique<CJitterBuffer>(nDelaySamples, m_counters); }

    void put(int nPacket, size_t nSize = RTP_SAMPLES, bool bMarker = false)
    {
        putAt(nPacket, m_llFirst + nPacket * static_cast<int64_t>(nSize), CBytes(nSize, static_cast<uint8_t>(nPacket)),
              bMarker);
    }
    void putAt(int64_t llSequence, int64_t llTime, const CBytes& payload, bool bMarker = false)
    {
        m_pBuffer->put({llSequence, llTime, m_pBuffer->now(), bMarker, m_pDecoder.get()}, payload);
    }

    CBytes get(size_t nSize = RTP_SAMPLES)
    {
        CBytes samples(nSize, 0xEE);
        m_pBuffer->get(samples);
        return samples;
    }

    static CBytes packet(int nPacket, size_t nSize = RTP_SAMPLES)
    {
        return CBytes(nSize, static_cast<uint8_t>(nPacket));
    }
    static CBytes silence(size_t nSize = RTP_SAMPLES) { return CBytes(nSize, SILENT); }

    CRtpCounters m_counters;
    std::unique_ptr<CDecoder> m_pDecoder = CODEC_PCMU.m_pMakeDecoder();
    std::unique_ptr<CJitterBuffer> m_pBuffer;
    int64_t m_llFirst = 1000;
};
} // namespace

TEST_F(JitterBuffer, IsSilentWhileNothingComes)
{
    create(0);
    for (int n = 0; n < 100; ++n)
        ASSERT_EQ(get(), silence());
    EXPECT_EQ(m_counters.m_ullLost, 0U);
}

TEST_F(JitterBuffer, GivesAStreamAsItCameWithoutDelay)
{
    create(0);
    for (int n = 0; n < 2000; ++n)
    {
        put(n);
        ASSERT_EQ(get(), packet(n)) << n;
    }
}

TEST_F(JitterBuffer, IsBehindByTheDelay)
{
    create(2 * RTP_SAMPLES);
    for (int n = 0; n < 2000; ++n)
    {
        put(n);
        ASSERT_EQ(get(), n < 2 ? silence() : packet(n - 2)) << n;
    }
}

TEST_F(JitterBuffer, IsBehindByTheDelayAfterTheArrivalThatIsTold)
{
    create(2 * RTP_SAMPLES);
    get();
    m_pBuffer->put({0, 0, 0, false, m_pDecoder.get()}, packet(7));
    EXPECT_EQ(get(2 * RTP_SAMPLES), silence() + packet(7));
}

TEST_F(JitterBuffer, PutsPacketsInOrder)
{
    create(3 * RTP_SAMPLES);
    for (const int n : {2, 0, 3, 1})
        put(n);
    EXPECT_EQ(get(), silence()); // the first that came is behind by the delay
    for (int n = 0; n < 4; ++n)
        EXPECT_EQ(get(), packet(n));
    EXPECT_EQ(m_counters.m_ullLost + m_counters.m_ullLate, 0U);
}

TEST_F(JitterBuffer, GivesDuplicatesOnce)
{
    create(0);
    for (int n = 0; n < 50; ++n)
    {
        put(n);
        put(n);
        ASSERT_EQ(get(), packet(n));
        put(n);
    }
    EXPECT_EQ(m_counters.m_ullLost, 0U);
    EXPECT_EQ(m_counters.m_ullDuplicates, 100U);
}

TEST_F(JitterBuffer, IsSilentForALostPacketAndKeepsTheTiming)
{
    create(RTP_SAMPLES);
    for (int n = 0; n < 100; ++n)
    {
        if (n % 10 != 5)
            put(n);
        const int nDue = n - 1;
        ASSERT_EQ(get(), nDue < 0 || nDue % 10 == 5 ? silence() : packet(nDue)) << n;
    }
    EXPECT_EQ(m_counters.m_ullLost, 10U);
    EXPECT_EQ(m_counters.m_ullLate, 0U);
}

TEST_F(JitterBuffer, PacketThatIsNoAudioIsNotMissing)
{
    create(0);
    put(0);
    get();
    m_pBuffer->putOther(1);
    get();
    put(2);
    EXPECT_EQ(get(), packet(2));
    EXPECT_EQ(m_counters.m_ullLost, 0U);
}

TEST_F(JitterBuffer, TakesPacketsOfAnyLength)
{
    for (const size_t nSize : {10U, 37U, 80U, 159U, 161U, 240U, 480U, 1400U})
    {
        create(1600);
        CBytes sent;
        CBytes got;
        for (int n = 0; sent.size() < 8000; ++n)
        {
            put(n, nSize);
            sent = sent + packet(n, nSize);
            while (got.size() + RTP_SAMPLES <= sent.size())
                got = got + get();
        }
        const CBytes expected = silence(1600) + sent;
        ASSERT_TRUE(std::equal(got.begin(), got.end(), expected.begin())) << nSize;
    }
}

TEST_F(JitterBuffer, GivesAnyNumberOfSamples)
{
    create(0);
    for (int n = 0; n < 20; ++n)
        put(n);
    CBytes got;
    for (size_t nSize = 1; got.size() < 2000; nSize += 7)
        got = got + get(nSize);
    for (size_t n = 0; n < got.size(); ++n)
        ASSERT_EQ(got[n], n / RTP_SAMPLES) << n;
}

TEST_F(JitterBuffer, GivesWhatWaitsBeforeAnotherStream)
{
    create(2 * RTP_SAMPLES);
    put(0);
    put(1);
    m_pBuffer->beginStream();
    putAt(7000, 123456, packet(9));
    putAt(7001, 123456 + 160, packet(10));
    EXPECT_EQ(get(2 * RTP_SAMPLES), silence(2 * RTP_SAMPLES));
    for (const int n : {0, 1, 9, 10})
        EXPECT_EQ(get(), packet(n));
    EXPECT_EQ(m_counters.m_ullLost, 0U);
}

TEST_F(JitterBuffer, GivesTheRestOfAPacketWhenAnotherStreamBegins)
{
    create(0);
    put(0);
    EXPECT_EQ(get(80), packet(0, 80));
    m_pBuffer->beginStream();
    putAt(20000, -5, packet(2));
    EXPECT_EQ(get(240), packet(0, 80) + packet(2));
}

TEST_F(JitterBuffer, GivesTheRestOfAPacketThatOverlapsWithTheLast)
{
    create(0);
    put(0);
    m_llFirst -= 80;
    put(1);
    put(2);
    EXPECT_EQ(get(), packet(0));
    EXPECT_EQ(get(), packet(1, 80) + packet(2, 80));
}

TEST_F(JitterBuffer, IsSilentForPartOfATick)
{
    create(0);
    put(0);
    m_llFirst += 80;
    put(1);
    EXPECT_EQ(get(), packet(0));
    EXPECT_EQ(get(), silence(80) + packet(1, 80));
}

TEST_F(JitterBuffer, GoesOnAfterAPauseWithTheSameDelay)
{
    create(RTP_SAMPLES);
    put(0);
    EXPECT_EQ(get(2 * RTP_SAMPLES), silence() + packet(0));
    for (int n = 0; n < 50; ++n)
        ASSERT_EQ(get(), silence());
    putAt(1, m_llFirst + 51 * 160, packet(51), true);
    EXPECT_EQ(get(2 * RTP_SAMPLES), silence() + packet(51));
    EXPECT_EQ(m_counters.m_ullLost, 0U);
}

TEST_F(JitterBuffer, LosesNothingWhenTimestampsJump)
{
    for (const int64_t llJump : {int64_t{0x70000000}, int64_t{-0x70000000}, int64_t{-16000}, int64_t{16000}})
    {
        m_llFirst = 1000;
        create(3 * RTP_SAMPLES);
        CBytes expected = silence(3 * RTP_SAMPLES);
        CBytes got;
        for (int n = 0; n < 60; ++n)
        {
            m_llFirst += n == 20 ? llJump : 0;
            put(n);
            expected = expected + packet(n);
            got = got + get();
        }
        EXPECT_TRUE(std::equal(got.begin(), got.end(), expected.begin())) << llJump;
        EXPECT_EQ(m_counters.m_ullLost + m_counters.m_ullLate, 0U);
    }
}

TEST_F(JitterBuffer, TimestampsThatStandStillInAPauseAreNoLateness)
{
    create(RTP_SAMPLES);
    for (int n = 0; n < 20; ++n)
    {
        put(n);
        get();
    }
    for (int n = 0; n < 100; ++n)
        get();
    for (int n = 20; n < 60; ++n)
    {
        put(n);
        ASSERT_EQ(get(), n == 20 ? silence() : packet(n - 1));
    }
    EXPECT_EQ(m_counters.m_ullLate, 0U);
}

TEST_F(JitterBuffer, StallOfTheListenerLeavesNoDelayBehind)
{
    create(2 * RTP_SAMPLES);
    int nPacket = 0;
    for (; nPacket < 20; ++nPacket)
    {
        put(nPacket);
        get();
    }
    // A second in which nothing was taken in or out; then all comes at once.
    m_pBuffer->skip(50 * RTP_SAMPLES);
    for (int n = 0; n < 50; ++n)
        put(nPacket++);
    for (int n = 0; n < 100; ++n)
    {
        put(nPacket);
        ASSERT_EQ(get(), packet(nPacket - 2)) << n;
        ++nPacket;
    }
}

TEST_F(JitterBuffer, CountsAndDropsWhatComesTooLate)
{
    create(0);
    for (int n = 0; n < 100; ++n)
    {
        if (n != 50)
            put(n);
        get();
    }
    put(50);
    EXPECT_EQ(m_counters.m_ullLate, 1U);
    EXPECT_EQ(m_counters.m_ullLost, 1U);
    put(100);
    EXPECT_EQ(get(), packet(100));
}

TEST_F(JitterBuffer, WaitsLongerWhenPacketsAreLateOftenAndLessWhenTheLineIsCalm)
{
    create(0);
    int nHeardAtEnd = 0;
    for (int n = 0; n < 200; ++n)
    {
        if (n % 2 == 0)
        {
            put(n);
            if (n > 0)
                put(n - 1); // late by a tick
        }
        nHeardAtEnd += n >= 100 && get() != silence() ? 1 : 0;
        if (n < 100)
            get();
    }
    EXPECT_EQ(nHeardAtEnd, 100);
    EXPECT_GT(m_pBuffer->delay(), 0);
    for (int n = 200; n < 6000; ++n)
    {
        put(n);
        get();
    }
    EXPECT_EQ(m_pBuffer->delay(), 0);
    put(6000);
    EXPECT_EQ(get(), packet(6000));
}

TEST_F(JitterBuffer, DelayGrowsNoFurtherThanItsLimit)
{
    create(0);
    int64_t llLongest = 0;
    for (int n = 0; n < 3000; ++n)
    {
        put(n); // by a clock that runs too slow
        get();
        if (n % 3 == 0)
            get();
        llLongest = std::max(llLongest, m_pBuffer->delay());
    }
    EXPECT_LE(llLongest, CJitterBuffer::MAX_GROWTH);
    EXPECT_GT(llLongest, CJitterBuffer::MAX_GROWTH / 2);
}

namespace
{
// A far end whose clock is off by a sample in 5,000, either way, for 8 hours.
class JitterBufferDrift : public JitterBuffer, public testing::WithParamInterface<int>
{
};
} // namespace

TEST_P(JitterBufferDrift, NeitherGrowsTheDelayNorLosesAPacket)
{
    create(3 * RTP_SAMPLES);
    const int nPpm = GetParam();
    int64_t llSent = 0;
    int nPacket = 0;
    int64_t llLongest = 0;
    int64_t llShortest = INT64_MAX;
    for (int64_t llTick = 0; llTick < 8 * 3600 * 50; ++llTick)
    {
        // What the far end has said by now, by its clock.
        const int64_t llSaid = (llTick + 1) * 160 + (llTick + 1) * 160 * nPpm / 1000000;
        for (; llSent + 160 <= llSaid; llSent += 160)
            putAt(nPacket++, llSent, packet(1));
        get();
        if (llTick > 3000)
        {
            const int64_t llBehind = m_pBuffer->waiting();
            llLongest = std::max(llLongest, llBehind);
            llShortest = std::min(llShortest, llBehind);
        }
    }
    EXPECT_EQ(m_counters.m_ullLate, 0U);
    EXPECT_EQ(m_counters.m_ullLost, 0U);
    EXPECT_LE(llLongest, 6 * 160);
    EXPECT_GE(llShortest, 0);
}

INSTANTIATE_TEST_SUITE_P(Ppm, JitterBufferDrift, testing::Values(-200, 200));

TEST_F(JitterBuffer, OutlivesAnyNumberOfLatePackets)
{
    create(0);
    for (int n = 100; n < 150; ++n)
    {
        put(n);
        ASSERT_EQ(get(), packet(n));
    }
    for (int n = 0; n < 1000; ++n)
        put(140);
    for (int n = 150; n < 300; ++n)
    {
        put(n);
        ASSERT_EQ(get(), packet(n));
    }
    EXPECT_EQ(m_counters.m_ullDuplicates, 1000U);
}

TEST_F(JitterBuffer, ForgetsWhatWaitsForADecoderThatGoes)
{
    create(2 * RTP_SAMPLES);
    put(0);
    m_pBuffer->forget(m_pDecoder.get());
    m_pDecoder = CODEC_PCMA.m_pMakeDecoder();
    put(1);
    EXPECT_EQ(get(3 * RTP_SAMPLES), silence(3 * RTP_SAMPLES));
    EXPECT_EQ(get(1)[0], aLawToULaw()[1]);
}

TEST_F(JitterBuffer, SurvivesAnyPackets)
{
    std::mt19937 random(1);
    for (int nRun = 0; nRun < 20; ++nRun)
    {
        create(random() % 800);
        for (int n = 0; n < 5000; ++n)
        {
            const int64_t llSpread = random() % 4 == 0 ? int64_t{UINT32_MAX} : 1 + static_cast<int64_t>(random() % 100000);
            const int64_t llTime = n * int64_t{160} + static_cast<int64_t>(random()) % llSpread;
            const int64_t llSequence = random() % 100 == 0 ? static_cast<int64_t>(random()) : n + static_cast<int64_t>(random() % 50);
            if (random() % 1000 == 0)
                m_pBuffer->beginStream();
            putAt(llSequence, llTime, CBytes(random() % 8 == 0 ? random() % 2036 : random() % 200, 1), n % 3 == 0);
            if (random() % 50 == 0)
                m_pBuffer->skip(random() % 5000);
            if (random() % 2 == 0)
                for (const uint8_t nSample : get(random() % 400))
                    ASSERT_TRUE(nSample == 1 || nSample == SILENT);
        }
    }
}
