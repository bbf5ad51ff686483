// Puts the packets of an RTP stream into order and time, for as long as a recording listens to it.
#include "JitterBuffer.h"
#include "RtpTestSupport.h"

#include <random>

namespace
{
constexpr uint8_t SILENT = 0xFF;

// Packet n holds n in each sample.
class JitterBuffer : public testing::Test
{
protected:
    void create(size_t nDelaySamples)
    {
        m_pBuffer = CJitterBuffer::create(nDelaySamples, m_counters);
        ASSERT_TRUE(m_pBuffer);
    }

    void put(int nPacket, size_t nSize = RTP_SAMPLES)
    {
        CRtpHeader header;
        header.m_nSequence = static_cast<uint16_t>(nPacket);
        header.m_nTimestamp = m_nFirst + static_cast<uint32_t>(nPacket) * static_cast<uint32_t>(nSize);
        header.m_nSource = m_nSource;
        m_pBuffer->put(header, CBytes(nSize, static_cast<uint8_t>(nPacket)));
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
    std::unique_ptr<CJitterBuffer> m_pBuffer;
    uint32_t m_nFirst = 1000;
    uint32_t m_nSource = 7;
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
    for (int n = 0; n < 500; ++n)
    {
        put(n);
        ASSERT_EQ(get(), packet(n)) << n;
    }
}

TEST_F(JitterBuffer, IsBehindByTheDelay)
{
    create(2 * RTP_SAMPLES);
    for (int n = 0; n < 500; ++n)
    {
        put(n);
        ASSERT_EQ(get(), n < 2 ? silence() : packet(n - 2)) << n;
    }
}

TEST_F(JitterBuffer, PutsPacketsInOrder)
{
    create(3 * RTP_SAMPLES);
    for (const int n : {2, 0, 3, 1})
        put(n);
    EXPECT_EQ(get(3 * RTP_SAMPLES), silence(3 * RTP_SAMPLES));
    for (int n = 0; n < 4; ++n)
        EXPECT_EQ(get(), packet(n));
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
}

TEST_F(JitterBuffer, IsSilentForALostPacketAndKeepsTheTiming)
{
    create(RTP_SAMPLES);
    for (int n = 0; n < 100; ++n)
    {
        const bool bLost = n % 10 == 5;
        if (!bLost)
            put(n);
        const int nDue = n - 1;
        ASSERT_EQ(get(), nDue < 0 || nDue % 10 == 5 ? silence() : packet(nDue)) << n;
    }
    EXPECT_EQ(m_counters.m_ullLost, 10U);
    EXPECT_EQ(m_counters.m_ullLate, 0U);
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

TEST_F(JitterBuffer, GoesOnWhenTimestampsWrap)
{
    m_nFirst = UINT32_MAX - 10 * RTP_SAMPLES + 1;
    create(RTP_SAMPLES);
    for (int n = 0; n < 30; ++n)
    {
        put(n);
        ASSERT_EQ(get(), n < 1 ? silence() : packet(n - 1)) << n;
    }
}

TEST_F(JitterBuffer, BeginsAnewWithAnotherSource)
{
    create(0);
    put(0);
    put(1);
    EXPECT_EQ(get(), packet(0));
    m_nSource = 8;
    m_nFirst = 0x80000000;
    put(2);
    EXPECT_EQ(get(), packet(2));
}

TEST_F(JitterBuffer, LeavesTheRestOfAPacketWhenTheSourceChanges)
{
    create(0);
    put(0);
    EXPECT_EQ(get(80), packet(0, 80));
    m_nSource = 8;
    put(2);
    put(3);
    EXPECT_EQ(get(), packet(2));
    EXPECT_EQ(get(), packet(3));
}

TEST_F(JitterBuffer, GivesTheRestOfAPacketThatOverlapsWithTheLast)
{
    create(0);
    put(0);
    m_nFirst -= 80;
    put(1);
    put(2);
    EXPECT_EQ(get(), packet(0));
    EXPECT_EQ(get(), packet(1, 80) + packet(2, 80));
}

TEST_F(JitterBuffer, IsSilentForPartOfATick)
{
    create(0);
    put(0);
    m_nFirst += 80;
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
    put(51);
    EXPECT_EQ(get(2 * RTP_SAMPLES), silence() + packet(51));
    EXPECT_EQ(m_counters.m_ullLost, 0U);
}

TEST_F(JitterBuffer, GoesOnAfterTimestampsHaveJumped)
{
    for (const uint32_t nFirst : {0x70000000U, 0xF0000000U, 1000U - 100 * 160})
    {
        m_nFirst = 1000;
        create(0);
        put(0);
        EXPECT_EQ(get(), packet(0));
        m_nFirst = nFirst;
        int nHeard = 0;
        for (int n = 1; n < 40; ++n)
        {
            put(n);
            nHeard += get() == packet(n) ? 1 : 0;
        }
        EXPECT_GE(nHeard, 25) << nFirst;
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
    EXPECT_EQ(m_counters.m_ullLate, 1000U);
}

TEST_F(JitterBuffer, WaitsLongerWhenPacketsAreLateOften)
{
    create(0);
    int nHeardAtEnd = 0;
    for (int n = 0; n < 200; ++n)
    {
        const bool bLate = n % 2 == 1; // by a tick
        if (!bLate)
        {
            put(n);
            if (n > 0)
                put(n - 1);
        }
        const CBytes samples = get();
        nHeardAtEnd += n >= 100 && samples != silence() ? 1 : 0;
    }
    EXPECT_EQ(nHeardAtEnd, 100);
}

TEST_F(JitterBuffer, SurvivesAnyPackets)
{
    std::mt19937 random(1);
    for (int nRun = 0; nRun < 20; ++nRun)
    {
        create(random() % 800);
        for (int n = 0; n < 5000; ++n)
        {
            CRtpHeader header;
            const uint64_t ullSpread = random() % 4 == 0 ? UINT32_MAX : 1 + random() % 100000;
            header.m_nTimestamp = static_cast<uint32_t>(static_cast<unsigned>(n) * RTP_SAMPLES + random() % ullSpread);
            header.m_nSource = random() % 1000 == 0 ? 1 : 0;
            m_pBuffer->put(header, CBytes(random() % 8 == 0 ? random() % 1400 : random() % 200, 1));
            if (random() % 2 == 0)
            {
                const CBytes samples = get(random() % 400);
                for (const uint8_t nSample : samples)
                    ASSERT_TRUE(nSample == 1 || nSample == SILENT);
            }
        }
    }
}
