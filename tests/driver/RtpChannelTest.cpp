// Channels that are RTP streams: G.711 in packets of 20 ms between two addresses.
#include "RtpChannel.h"
#include "G711.h"
#include "RtpTestSupport.h"

#include <set>

namespace
{
class RtpChannel : public testing::Test
{
protected:
    std::unique_ptr<CRtpChannel> OpenTo(const CNetAddress& remote, ERtpCodec codec = ERtpCodec::Pcmu)
    {
        CRtpRoute route;
        route.m_local = m_local;
        route.m_remote = remote;
        route.m_eCodec = codec;
        route.m_nJitterMs = 20;
        std::unique_ptr<CRtpChannel> pChannel = CRtpChannel::Open(m_ports, route, m_strError);
        EXPECT_TRUE(pChannel) << m_strError;
        return pChannel;
    }
    void Open(ERtpCodec codec = ERtpCodec::Pcmu) { m_pChannel = OpenTo(m_far.Address(), codec); }

    std::size_t Hear(const CBytes& samples)
    {
        std::size_t nTaken = 0;
        RunTick(m_ports, [&] { nTaken = m_pChannel->Hear(samples); });
        return nTaken;
    }
    void Pause(int nTicks)
    {
        for (int n = 0; n < nTicks; ++n)
        {
            RunTick(m_ports);
        }
    }
    void FinishHearing()
    {
        bool bDone = false;
        m_pChannel->FinishHearing([&bDone](bool bOk) { bDone = bOk; });
        EXPECT_TRUE(bDone);
    }

    // A packet from the far end, then a tick in which the channel is listened to.
    CBytes Say(std::uint16_t nSequence, const CBytes& payload, std::uint8_t nPayloadType = 0)
    {
        m_far.Send(RtpBytes({false, nPayloadType, nSequence, nSequence * 160U, 1}, payload), m_pChannel->Local());
        return Listen();
    }
    CBytes Listen()
    {
        CBytes samples(160, 0xEE);
        RunTick(m_ports, [&] { EXPECT_EQ(m_pChannel->Listen(samples), 160U); });
        return samples;
    }
    void BeginListening()
    {
        bool bBegun = false;
        m_pChannel->BeginListening([&bBegun](bool bOk, const std::string&) { bBegun = bOk; });
        EXPECT_TRUE(bBegun);
    }

    CRtpPorts m_ports;
    std::string m_strError;
    CNetAddress m_local = Loopback();
    CFarEnd m_far;
    std::unique_ptr<CRtpChannel> m_pChannel;
};

CBytes AllBytes()
{
    CBytes bytes;
    for (int n = 0; n < 256; ++n)
    {
        bytes.push_back(static_cast<std::uint8_t>(n));
    }
    return bytes;
}

CBytes Converted(const CBytes& bytes, const CG711Table& table)
{
    CBytes converted;
    for (const std::uint8_t n : bytes)
    {
        converted.push_back(table[n]);
    }
    return converted;
}

CBytes Part(const CBytes& bytes, std::ptrdiff_t nBegin, std::ptrdiff_t nEnd)
{
    return CBytes(bytes.begin() + nBegin, bytes.begin() + nEnd);
}
} // namespace

TEST_F(RtpChannel, SendsWhatIsHeardInPacketsOfOneTick)
{
    Open();
    EXPECT_EQ(Hear(CBytes(160, 1)), 160U);
    EXPECT_EQ(Hear(CBytes(160, 2)), 160U);
    const auto vPackets = m_far.ReceivePackets();
    ASSERT_EQ(vPackets.size(), 2U);
    EXPECT_EQ(vPackets[0].m_payload, CBytes(160, 1));
    EXPECT_EQ(vPackets[1].m_payload, CBytes(160, 2));
    EXPECT_EQ(vPackets[0].m_header.m_nPayloadType, 0);
}

TEST_F(RtpChannel, NumbersAndTimesItsPackets)
{
    Open();
    for (int n = 0; n < 100; ++n)
    {
        Hear(CBytes(160, 1));
    }
    const auto vPackets = m_far.ReceivePackets();
    ASSERT_EQ(vPackets.size(), 100U);
    for (std::uint32_t n = 0; n < 100; ++n)
    {
        const CRtpHeader& header = vPackets[n].m_header;
        EXPECT_EQ(header.m_nSequence, static_cast<std::uint16_t>(vPackets[0].m_header.m_nSequence + n));
        EXPECT_EQ(header.m_nTimestamp, vPackets[0].m_header.m_nTimestamp + 160 * n);
        EXPECT_EQ(header.m_nSource, vPackets[0].m_header.m_nSource);
        EXPECT_EQ(header.m_bMarker, n == 0);
    }
}

TEST_F(RtpChannel, BeginsWithNumbersThatNobodyCanGuess)
{
    std::set<std::uint32_t> sequences;
    std::set<std::uint32_t> timestamps;
    std::set<std::uint32_t> sources;
    for (int n = 0; n < 8; ++n)
    {
        m_pChannel.reset();
        Open();
        Hear(CBytes(160, 1));
        const auto vPackets = m_far.ReceivePackets();
        ASSERT_EQ(vPackets.size(), 1U);
        sequences.insert(vPackets[0].m_header.m_nSequence);
        timestamps.insert(vPackets[0].m_header.m_nTimestamp);
        sources.insert(vPackets[0].m_header.m_nSource);
    }
    EXPECT_GT(sequences.size(), 1U);
    EXPECT_GT(timestamps.size(), 1U);
    EXPECT_GT(sources.size(), 1U);
}

TEST_F(RtpChannel, SendsNothingWhileNothingPlays)
{
    Open();
    Pause(10);
    Hear(CBytes(160, 1));
    FinishHearing();
    Pause(10);
    EXPECT_EQ(m_far.ReceivePackets().size(), 1U);
}

TEST_F(RtpChannel, LetsTheTimestampGoOnInAPauseAndMarksItsEnd)
{
    Open();
    Hear(CBytes(160, 1));
    FinishHearing();
    Pause(6);
    EXPECT_EQ(Hear({}), 0U);
    Hear(CBytes(160, 2));
    Hear(CBytes(160, 3));
    const auto vPackets = m_far.ReceivePackets();
    ASSERT_EQ(vPackets.size(), 3U);
    EXPECT_EQ(vPackets[1].m_header.m_nTimestamp, vPackets[0].m_header.m_nTimestamp + 8 * 160);
    EXPECT_EQ(vPackets[1].m_header.m_nSequence, static_cast<std::uint16_t>(vPackets[0].m_header.m_nSequence + 1));
    EXPECT_TRUE(vPackets[1].m_header.m_bMarker);
    EXPECT_EQ(vPackets[2].m_header.m_nTimestamp, vPackets[1].m_header.m_nTimestamp + 160);
    EXPECT_FALSE(vPackets[2].m_header.m_bMarker);
}

TEST_F(RtpChannel, FillsUpTheLastPacketOfAPlay)
{
    Open();
    EXPECT_EQ(Hear(CBytes(50, 1)), 50U);
    FinishHearing();
    Hear(CBytes(160, 2));
    const auto vPackets = m_far.ReceivePackets();
    ASSERT_EQ(vPackets.size(), 2U);
    EXPECT_EQ(vPackets[0].m_payload, CBytes(50, 1) + CBytes(110, 0xFF));
    EXPECT_EQ(vPackets[1].m_payload, CBytes(160, 2));
    EXPECT_EQ(vPackets[1].m_header.m_nTimestamp, vPackets[0].m_header.m_nTimestamp + 160);
    EXPECT_FALSE(vPackets[1].m_header.m_bMarker);
}

TEST_F(RtpChannel, SendsTheLastPacketOfAPlayWhenItCloses)
{
    Open();
    Hear(CBytes(50, 1));
    FinishHearing();
    m_pChannel.reset();
    EXPECT_EQ(m_far.ReceivePackets().size(), 1U);
}

TEST_F(RtpChannel, TakesNoMoreThanAPacketInATick)
{
    Open();
    RunTick(m_ports, [this] {
        EXPECT_EQ(m_pChannel->Hear(CBytes(50, 1)), 50U);
        EXPECT_EQ(m_pChannel->Hear(CBytes(160, 2)), 110U);
        EXPECT_EQ(m_pChannel->Hear(CBytes(50, 2)), 0U);
    });
    EXPECT_EQ(Hear(CBytes(500, 2)), 160U);
    const auto vPackets = m_far.ReceivePackets();
    ASSERT_EQ(vPackets.size(), 2U);
    EXPECT_EQ(vPackets[0].m_payload, CBytes(50, 1) + CBytes(110, 2));
    EXPECT_EQ(vPackets[1].m_payload, CBytes(160, 2));
}

TEST_F(RtpChannel, SendsALawWhereThatIsTheCodec)
{
    Open(ERtpCodec::Pcma);
    const CBytes all = AllBytes();
    Hear(Part(all, 0, 160));
    Hear(Part(all, 160, 256));
    FinishHearing();
    RunTick(m_ports);
    const auto vPackets = m_far.ReceivePackets();
    ASSERT_EQ(vPackets.size(), 2U);
    EXPECT_EQ(vPackets[0].m_header.m_nPayloadType, 8);
    EXPECT_EQ(vPackets[0].m_payload + Part(vPackets[1].m_payload, 0, 96), Converted(all, ULawToALaw()));
    EXPECT_EQ(Part(vPackets[1].m_payload, 96, 160), CBytes(64, 0xD5));
}

TEST_F(RtpChannel, LetsARecordingListenBehindTheJitterTime)
{
    Open();
    BeginListening();
    EXPECT_EQ(Listen(), CBytes(160, 0xFF));
    EXPECT_EQ(Say(0, CBytes(160, 1)), CBytes(160, 0xFF));
    EXPECT_EQ(Say(1, CBytes(160, 2)), CBytes(160, 1));
    EXPECT_EQ(Say(2, CBytes(160, 3)), CBytes(160, 2));
}

TEST_F(RtpChannel, LetsARecordingListenToALaw)
{
    Open(ERtpCodec::Pcma);
    BeginListening();
    const CBytes all = AllBytes();
    EXPECT_EQ(Say(0, Part(all, 0, 160), 8), CBytes(160, 0xFF));
    EXPECT_EQ(Say(1, Part(all, 96, 256), 8), Converted(Part(all, 0, 160), ALawToULaw()));
    EXPECT_EQ(Listen(), Converted(Part(all, 96, 256), ALawToULaw()));
    EXPECT_EQ(Listen(), CBytes(160, 0xFF));
}

TEST_F(RtpChannel, DropsWhatComesWhileNoRecordingListens)
{
    Open();
    BeginListening();
    m_pChannel->EndListening();
    for (std::uint16_t n = 0; n < 100; ++n)
    {
        EXPECT_EQ(Say(n, CBytes(160, 1)), CBytes(160, 0xFF));
    }
    BeginListening();
    EXPECT_EQ(Say(100, CBytes(160, 2)), CBytes(160, 0xFF));
    EXPECT_EQ(Say(101, CBytes(160, 3)), CBytes(160, 2));
    EXPECT_EQ(m_ports.Counters().m_ullReceived, 102U);
}

TEST_F(RtpChannel, DropsAndCountsOtherPayloadTypes)
{
    Open();
    BeginListening();
    Say(0, CBytes(160, 1));
    EXPECT_EQ(Say(1, CBytes(4, 9), 101), CBytes(160, 1));
    EXPECT_EQ(Say(1, CBytes(160, 9), 8), CBytes(160, 0xFF));
    EXPECT_EQ(m_ports.Counters().m_ullOtherPayloads, 2U);
    EXPECT_EQ(m_ports.Counters().m_ullReceived, 1U);
}

TEST_F(RtpChannel, TakesThePayloadOfTheLongestDatagram)
{
    Open(ERtpCodec::Pcma);
    BeginListening();
    Say(0, CBytes(RTP_MAX_DATAGRAM - RTP_HEADER_SIZE, 0xAA), 8);
    CBytes samples(RTP_MAX_DATAGRAM - RTP_HEADER_SIZE);
    m_pChannel->Listen(samples);
    EXPECT_EQ(samples, CBytes(samples.size(), 0x80));
}

TEST_F(RtpChannel, SharesItsLocalAddressWithChannelsToElsewhere)
{
    Open();
    m_local = m_pChannel->Local();
    const CFarEnd otherFar;
    const std::unique_ptr<CRtpChannel> pOther = OpenTo(otherFar.Address());
    RunTick(m_ports, [&] {
        m_pChannel->Hear(CBytes(160, 1));
        pOther->Hear(CBytes(160, 2));
    });
    const auto vPackets = m_far.ReceivePackets();
    const auto vOtherPackets = otherFar.ReceivePackets();
    ASSERT_EQ(vPackets.size(), 1U);
    ASSERT_EQ(vOtherPackets.size(), 1U);
    EXPECT_EQ(vPackets[0].m_payload, CBytes(160, 1));
    EXPECT_EQ(vOtherPackets[0].m_payload, CBytes(160, 2));
    EXPECT_EQ(m_ports.Count(), 1U);
}

TEST_F(RtpChannel, IsTheOnlyOneBetweenItsAddresses)
{
    Open();
    CRtpRoute route;
    route.m_local = m_pChannel->Local();
    route.m_remote = m_far.Address();
    EXPECT_FALSE(CRtpChannel::Open(m_ports, route, m_strError));
    EXPECT_EQ(m_strError, "another channel is open between " + route.m_local.Text() + " and " + route.m_remote.Text());
    EXPECT_EQ(Hear(CBytes(160, 1)), 160U);
    EXPECT_EQ(m_far.ReceivePackets().size(), 1U);
    BeginListening();
    Say(0, CBytes(160, 1));
    EXPECT_EQ(Listen(), CBytes(160, 1));
}

TEST_F(RtpChannel, FreesItsAddressesWhenItCloses)
{
    Open();
    m_local = m_pChannel->Local();
    m_pChannel.reset();
    EXPECT_EQ(m_ports.Count(), 0U);
    EXPECT_FALSE(m_ports.NeedsTicks());
    Open();
    EXPECT_TRUE(m_ports.NeedsTicks());
}

TEST_F(RtpChannel, IsSmallWhileNothingListens)
{
    EXPECT_LT(sizeof(CRtpChannel), 512U);
}
