// Puts the packets of an RTP stream into order and time, for as long as a recording listens to it.
#include "JitterBuffer.h"
#include "RtpTestSupport.h"

#include <random>

namespace
{
constexpr std::uint8_t SILENT = 0xFF;

// Packet n holds n in each sample.
class JitterBuffer : public testing::Test
{
protected:
    void Create(std::size_t nDelaySamples)
    {
        m_pBuffer = CJitterBuffer::Create(nDelaySamples, m_counters);
        ASSERT_TRUE(m_pBuffer);
    }

    void Put(int nPacket, std::size_t nSize = RTP_SAMPLES)
    {
        CRtpHeader header;
        header.m_nSequence = static_cast<std::uint16_t>(nPacket);
        header.m_nTimestamp = m_nFirst + static_cast<std::uint32_t>(nPacket) * static_cast<std::uint32_t>(nSize);
        header.m_nSource = m_nSource;
        m_pBuffer->Put(header, CBytes(nSize, static_cast<std::uint8_t>(nPacket)));
    }

    CBytes Get(std::size_t nSize = RTP_SAMPLES)
    {
        CBytes samples(nSize, 0xEE);
        m_pBuffer->Get(samples);
        return samples;
    }

    static CBytes Packet(int nPacket, std::size_t nSize = RTP_SAMPLES)
    {
        return CBytes(nSize, static_cast<std::uint8_t>(nPacket));
    }
    static CBytes Silence(std::size_t nSize = RTP_SAMPLES) { return CBytes(nSize, SILENT); }

    CRtpCounters m_counters;
    std::unique_ptr<CJitterBuffer> m_pBuffer;
    std::uint32_t m_nFirst = 1000;
    std::uint32_t m_nSource = 7;
};
} // namespace

TEST_F(JitterBuffer, IsSilentWhileNothingComes)
{
    Create(0);
    for (int n = 0; n < 100; ++n)
    {
        ASSERT_EQ(Get(), Silence());
    }
    EXPECT_EQ(m_counters.m_ullLost, 0U);
}

TEST_F(JitterBuffer, GivesAStreamAsItCameWithoutDelay)
{
    Create(0);
    for (int n = 0; n < 500; ++n)
    {
        Put(n);
        ASSERT_EQ(Get(), Packet(n)) << n;
    }
}

TEST_F(JitterBuffer, IsBehindByTheDelay)
{
    Create(2 * RTP_SAMPLES);
    for (int n = 0; n < 500; ++n)
    {
        Put(n);
        ASSERT_EQ(Get(), n < 2 ? Silence() : Packet(n - 2)) << n;
    }
}

TEST_F(JitterBuffer, PutsPacketsInOrder)
{
    Create(3 * RTP_SAMPLES);
    for (const int n : {2, 0, 3, 1})
    {
        Put(n);
    }
    EXPECT_EQ(Get(3 * RTP_SAMPLES), Silence(3 * RTP_SAMPLES));
    for (int n = 0; n < 4; ++n)
    {
        EXPECT_EQ(Get(), Packet(n));
    }
}

TEST_F(JitterBuffer, GivesDuplicatesOnce)
{
    Create(0);
    for (int n = 0; n < 50; ++n)
    {
        Put(n);
        Put(n);
        ASSERT_EQ(Get(), Packet(n));
        Put(n);
    }
    EXPECT_EQ(m_counters.m_ullLost, 0U);
}

TEST_F(JitterBuffer, IsSilentForALostPacketAndKeepsTheTiming)
{
    Create(RTP_SAMPLES);
    for (int n = 0; n < 100; ++n)
    {
        const bool bLost = n % 10 == 5;
        if (!bLost)
        {
            Put(n);
        }
        const int nDue = n - 1;
        ASSERT_EQ(Get(), nDue < 0 || nDue % 10 == 5 ? Silence() : Packet(nDue)) << n;
    }
    EXPECT_EQ(m_counters.m_ullLost, 10U);
    EXPECT_EQ(m_counters.m_ullLate, 0U);
}

TEST_F(JitterBuffer, TakesPacketsOfAnyLength)
{
    for (const std::size_t nSize : {10U, 37U, 80U, 159U, 161U, 240U, 480U, 1400U})
    {
        Create(1600);
        CBytes sent;
        CBytes got;
        for (int n = 0; sent.size() < 8000; ++n)
        {
            Put(n, nSize);
            sent = sent + Packet(n, nSize);
            while (got.size() + RTP_SAMPLES <= sent.size())
            {
                got = got + Get();
            }
        }
        const CBytes expected = Silence(1600) + sent;
        ASSERT_TRUE(std::equal(got.begin(), got.end(), expected.begin())) << nSize;
    }
}

TEST_F(JitterBuffer, GivesAnyNumberOfSamples)
{
    Create(0);
    for (int n = 0; n < 20; ++n)
    {
        Put(n);
    }
    CBytes got;
    for (std::size_t nSize = 1; got.size() < 2000; nSize += 7)
    {
        got = got + Get(nSize);
    }
    for (std::size_t n = 0; n < got.size(); ++n)
    {
        ASSERT_EQ(got[n], n / RTP_SAMPLES) << n;
    }
}

TEST_F(JitterBuffer, GoesOnWhenTimestampsWrap)
{
    m_nFirst = UINT32_MAX - 10 * RTP_SAMPLES + 1;
    Create(RTP_SAMPLES);
    for (int n = 0; n < 30; ++n)
    {
        Put(n);
        ASSERT_EQ(Get(), n < 1 ? Silence() : Packet(n - 1)) << n;
    }
}

TEST_F(JitterBuffer, BeginsAnewWithAnotherSource)
{
    Create(0);
    Put(0);
    Put(1);
    EXPECT_EQ(Get(), Packet(0));
    m_nSource = 8;
    m_nFirst = 0x80000000;
    Put(2);
    EXPECT_EQ(Get(), Packet(2));
}

TEST_F(JitterBuffer, LeavesTheRestOfAPacketWhenTheSourceChanges)
{
    Create(0);
    Put(0);
    EXPECT_EQ(Get(80), Packet(0, 80));
    m_nSource = 8;
    Put(2);
    Put(3);
    EXPECT_EQ(Get(), Packet(2));
    EXPECT_EQ(Get(), Packet(3));
}

TEST_F(JitterBuffer, GivesTheRestOfAPacketThatOverlapsWithTheLast)
{
    Create(0);
    Put(0);
    m_nFirst -= 80;
    Put(1);
    Put(2);
    EXPECT_EQ(Get(), Packet(0));
    EXPECT_EQ(Get(), Packet(1, 80) + Packet(2, 80));
}

TEST_F(JitterBuffer, IsSilentForPartOfATick)
{
    Create(0);
    Put(0);
    m_nFirst += 80;
    Put(1);
    EXPECT_EQ(Get(), Packet(0));
    EXPECT_EQ(Get(), Silence(80) + Packet(1, 80));
}

TEST_F(JitterBuffer, GoesOnAfterAPauseWithTheSameDelay)
{
    Create(RTP_SAMPLES);
    Put(0);
    EXPECT_EQ(Get(2 * RTP_SAMPLES), Silence() + Packet(0));
    for (int n = 0; n < 50; ++n)
    {
        ASSERT_EQ(Get(), Silence());
    }
    Put(51);
    EXPECT_EQ(Get(2 * RTP_SAMPLES), Silence() + Packet(51));
    EXPECT_EQ(m_counters.m_ullLost, 0U);
}

TEST_F(JitterBuffer, GoesOnAfterTimestampsHaveJumped)
{
    for (const std::uint32_t nFirst : {0x70000000U, 0xF0000000U, 1000U - 100 * 160})
    {
        m_nFirst = 1000;
        Create(0);
        Put(0);
        EXPECT_EQ(Get(), Packet(0));
        m_nFirst = nFirst;
        int nHeard = 0;
        for (int n = 1; n < 40; ++n)
        {
            Put(n);
            nHeard += Get() == Packet(n) ? 1 : 0;
        }
        EXPECT_GE(nHeard, 25) << nFirst;
    }
}

TEST_F(JitterBuffer, CountsAndDropsWhatComesTooLate)
{
    Create(0);
    for (int n = 0; n < 100; ++n)
    {
        if (n != 50)
        {
            Put(n);
        }
        Get();
    }
    Put(50);
    EXPECT_EQ(m_counters.m_ullLate, 1U);
    EXPECT_EQ(m_counters.m_ullLost, 1U);
    Put(100);
    EXPECT_EQ(Get(), Packet(100));
}

TEST_F(JitterBuffer, OutlivesAnyNumberOfLatePackets)
{
    Create(0);
    for (int n = 100; n < 150; ++n)
    {
        Put(n);
        ASSERT_EQ(Get(), Packet(n));
    }
    for (int n = 0; n < 1000; ++n)
    {
        Put(140);
    }
    for (int n = 150; n < 300; ++n)
    {
        Put(n);
        ASSERT_EQ(Get(), Packet(n));
    }
    EXPECT_EQ(m_counters.m_ullLate, 1000U);
}

TEST_F(JitterBuffer, WaitsLongerWhenPacketsAreLateOften)
{
    Create(0);
    int nHeardAtEnd = 0;
    for (int n = 0; n < 200; ++n)
    {
        const bool bLate = n % 2 == 1; // by a tick
        if (!bLate)
        {
            Put(n);
            if (n > 0)
            {
                Put(n - 1);
            }
        }
        const CBytes samples = Get();
        nHeardAtEnd += n >= 100 && samples != Silence() ? 1 : 0;
    }
    EXPECT_EQ(nHeardAtEnd, 100);
}

TEST_F(JitterBuffer, SurvivesAnyPackets)
{
    std::mt19937 random(1);
    for (int nRun = 0; nRun < 20; ++nRun)
    {
        Create(random() % 800);
        for (int n = 0; n < 5000; ++n)
        {
            CRtpHeader header;
            const std::uint64_t ullSpread = random() % 4 == 0 ? UINT32_MAX : 1 + random() % 100000;
            header.m_nTimestamp =
                static_cast<std::uint32_t>(static_cast<unsigned>(n) * RTP_SAMPLES + random() % ullSpread);
            header.m_nSource = random() % 1000 == 0 ? 1 : 0;
            m_pBuffer->Put(header, CBytes(random() % 8 == 0 ? random() % 1400 : random() % 200, 1));
            if (random() % 2 == 0)
            {
                const CBytes samples = Get(random() % 400);
                for (const std::uint8_t nSample : samples)
                {
                    ASSERT_TRUE(nSample == 1 || nSample == SILENT);
                }
            }
        }
    }
}
