// What goes to a far end: samples become packets whose numbers and times are right over pauses.
#include "RtpSender.h"
#include "RtpTestSupport.h"

namespace
{
class RtpSender : public testing::Test, protected CRtpSender::COutput
{
protected:
    RtpSender() { m_sender.setFormat(CODEC_PCMU, 0, 20); }

    void sendRtp(std::span<uint8_t> bytes) override
    {
        const auto packet = parseRtpPacket(bytes);
        ASSERT_TRUE(packet);
        m_vPackets.push_back({packet->m_header, {packet->m_payload.begin(), packet->m_payload.end()}});
    }
    void tick(const CBytes& heard, bool bSilence = true)
    {
        ++m_ullTick;
        EXPECT_EQ(m_sender.hear(heard), heard.size());
        m_sender.endTick(m_ullTick, bSilence, *this);
    }
    uint32_t timeBetween(size_t nFirst, size_t nSecond) const
    {
        return m_vPackets[nSecond].m_header.m_nTimestamp - m_vPackets[nFirst].m_header.m_nTimestamp;
    }

    CRtpSender m_sender;
    uint64_t m_ullTick = 1000;
    std::vector<CFarEnd::CPacket> m_vPackets;
};
} // namespace

TEST_F(RtpSender, SendsSilenceWhereNothingIsHeard)
{
    tick({});
    tick(CBytes(160, 1));
    tick({});
    ASSERT_EQ(m_vPackets.size(), 3U);
    EXPECT_EQ(m_vPackets[0].m_payload, CBytes(160, 0xFF));
    EXPECT_EQ(m_vPackets[1].m_payload, CBytes(160, 1));
    EXPECT_TRUE(m_vPackets[0].m_header.m_bMarker);
    EXPECT_FALSE(m_vPackets[1].m_header.m_bMarker);
    EXPECT_EQ(timeBetween(0, 2), 320U);
    EXPECT_EQ(m_sender.packets(), 3U);
    EXPECT_EQ(m_sender.octets(), 480U);
}

TEST_F(RtpSender, MakesPacketsOfAnyPtime)
{
    for (const unsigned nPtimeMs : {10U, 20U, 30U, 40U, 50U, 60U})
    {
        m_vPackets.clear();
        m_sender.setFormat(CODEC_PCMU, 0, nPtimeMs);
        CBytes sent;
        for (uint8_t n = 0; n < 30; ++n)
        {
            tick(CBytes(160, n));
            sent = sent + CBytes(160, n);
        }
        CBytes got;
        ASSERT_EQ(m_vPackets.size(), 600 / nPtimeMs);
        for (size_t n = 0; n < m_vPackets.size(); ++n)
        {
            EXPECT_EQ(timeBetween(0, n), n * nPtimeMs * 8);
            EXPECT_EQ(m_vPackets[n].m_header.m_bMarker, n == 0 && nPtimeMs == 10) << nPtimeMs << " " << n;
            got = got + m_vPackets[n].m_payload;
        }
        EXPECT_EQ(got, sent) << nPtimeMs;
    }
}

TEST_F(RtpSender, TicksThatAreLeftOutLeaveAGapThatIsMarked)
{
    tick({});
    ++m_ullTick;
    m_sender.dropTick();
    m_ullTick += 9;
    tick({});
    ASSERT_EQ(m_vPackets.size(), 2U);
    EXPECT_EQ(timeBetween(0, 1), 11 * 160U);
    EXPECT_TRUE(m_vPackets[1].m_header.m_bMarker);
    EXPECT_EQ(static_cast<uint16_t>(m_vPackets[1].m_header.m_nSequence - m_vPackets[0].m_header.m_nSequence), 1);
}

TEST_F(RtpSender, ShortestGapIsMarkedAndNothingElseIs)
{
    tick({});
    tick({});
    ++m_ullTick;
    tick({});
    tick({});
    ASSERT_EQ(m_vPackets.size(), 4U);
    EXPECT_EQ(timeBetween(1, 2), 2 * 160U);
    EXPECT_FALSE(m_vPackets[1].m_header.m_bMarker);
    EXPECT_TRUE(m_vPackets[2].m_header.m_bMarker);
    EXPECT_FALSE(m_vPackets[3].m_header.m_bMarker);
}

TEST_F(RtpSender, HalfAPacketBeforeAGapIsNotMixedWithWhatComesAfterIt)
{
    m_sender.setFormat(CODEC_PCMU, 0, 40);
    tick(CBytes(160, 1));
    m_ullTick += 5;
    tick(CBytes(160, 2));
    tick(CBytes(160, 2));
    ASSERT_EQ(m_vPackets.size(), 1U);
    EXPECT_EQ(m_vPackets[0].m_payload, CBytes(320, 2));
}

TEST_F(RtpSender, LastPacketOfAPlayIsFilledUpWhereNothingElseIsSent)
{
    m_sender.setFormat(CODEC_PCMU, 0, 60);
    tick(CBytes(160, 1), false);
    tick({}, false);
    tick({}, false);
    ASSERT_EQ(m_vPackets.size(), 1U);
    EXPECT_EQ(m_vPackets[0].m_payload, CBytes(160, 1) + CBytes(320, 0xFF));
}

TEST_F(RtpSender, CodecMayChangeBetweenPackets)
{
    tick(CBytes(160, 0xFF));
    m_sender.setFormat(CODEC_PCMA, 8, 20);
    tick({});
    ASSERT_EQ(m_vPackets.size(), 2U);
    EXPECT_EQ(m_vPackets[1].m_header.m_nPayloadType, 8);
    EXPECT_EQ(m_vPackets[1].m_payload, CBytes(160, 0xD5));
    EXPECT_EQ(m_vPackets[1].m_header.m_nSource, m_vPackets[0].m_header.m_nSource);
    EXPECT_EQ(timeBetween(0, 1), 160U);
}

TEST_F(RtpSender, KeyHasTheTimeAtWhichItBeganAndAudioGoesOnAfterIt)
{
    tick({});
    ++m_ullTick;
    m_sender.endTickWith(m_ullTick, {true, {5, 10, 0, 160}}, 101, *this);
    ++m_ullTick;
    m_sender.endTickWith(m_ullTick, {false, {5, 0x8A, 1, 64}}, 101, *this);
    tick({});
    ASSERT_EQ(m_vPackets.size(), 4U);
    EXPECT_EQ(m_vPackets[1].m_header.m_nPayloadType, 101);
    EXPECT_TRUE(m_vPackets[1].m_header.m_bMarker);
    EXPECT_FALSE(m_vPackets[2].m_header.m_bMarker);
    EXPECT_EQ(m_vPackets[2].m_payload, (CBytes{5, 0x8A, 1, 64}));
    EXPECT_EQ(timeBetween(0, 1), 160U);
    EXPECT_EQ(timeBetween(1, 2), 0U);
    EXPECT_EQ(timeBetween(0, 3), 480U);
    for (size_t n = 1; n < 4; ++n)
        EXPECT_EQ(static_cast<uint16_t>(m_vPackets[n].m_header.m_nSequence - m_vPackets[0].m_header.m_nSequence), n);
}
