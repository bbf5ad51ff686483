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
    std::unique_ptr<CRtpChannel> openTo(const CNetAddress& remote, const CCodec& codec = CODEC_PCMU)
    {
        CRtpRoute route;
        route.m_local = m_local;
        route.m_remote = remote;
        route.m_pCodec = &codec;
        route.m_nJitterMs = 20;
        std::unique_ptr<CRtpChannel> pChannel = CRtpChannel::open(m_ports, route, m_strError);
        EXPECT_TRUE(pChannel) << m_strError;
        return pChannel;
    }
    void open(const CCodec& codec = CODEC_PCMU) { m_pChannel = openTo(m_far.address(), codec); }

    size_t hear(const CBytes& samples)
    {
        size_t nTaken = 0;
        runTick(m_ports, [&] { nTaken = m_pChannel->hear(samples); });
        return nTaken;
    }
    void pause(int nTicks)
    {
        for (int n = 0; n < nTicks; ++n)
            runTick(m_ports);
    }
    void finishHearing()
    {
        bool bDone = false;
        m_pChannel->finishHearing([&bDone](bool bOk) { bDone = bOk; });
        EXPECT_TRUE(bDone);
    }

    // A packet from the far end, then a tick in which the channel is listened to.
    CBytes say(uint16_t nSequence, const CBytes& payload, uint8_t nPayloadType = 0)
    {
        m_far.send(rtpBytes({false, nPayloadType, nSequence, nSequence * 160U, 1}, payload), m_pChannel->local());
        return listen();
    }
    CBytes listen()
    {
        CBytes samples(160, 0xEE);
        runTick(m_ports, [&] { EXPECT_EQ(m_pChannel->listen(samples), 160U); });
        return samples;
    }
    void beginListening()
    {
        bool bBegun = false;
        m_pChannel->beginListening([&bBegun](bool bOk, const std::string&) { bBegun = bOk; });
        EXPECT_TRUE(bBegun);
    }

    CRtpPorts m_ports;
    std::string m_strError;
    CNetAddress m_local = loopback();
    CFarEnd m_far;
    std::unique_ptr<CRtpChannel> m_pChannel;
};

CBytes allBytes()
{
    CBytes bytes;
    for (int n = 0; n < 256; ++n)
        bytes.push_back(static_cast<uint8_t>(n));
    return bytes;
}

CBytes converted(const CBytes& bytes, const CG711Table& table)
{
    CBytes converted;
    for (const uint8_t n : bytes)
        converted.push_back(table[n]);
    return converted;
}

CBytes part(const CBytes& bytes, std::ptrdiff_t nBegin, std::ptrdiff_t nEnd)
{
    return CBytes(bytes.begin() + nBegin, bytes.begin() + nEnd);
}
} // namespace

TEST_F(RtpChannel, SendsWhatIsHeardInPacketsOfOneTick)
{
    open();
    EXPECT_EQ(hear(CBytes(160, 1)), 160U);
    EXPECT_EQ(hear(CBytes(160, 2)), 160U);
    const auto vPackets = m_far.receivePackets();
    ASSERT_EQ(vPackets.size(), 2U);
    EXPECT_EQ(vPackets[0].m_payload, CBytes(160, 1));
    EXPECT_EQ(vPackets[1].m_payload, CBytes(160, 2));
    EXPECT_EQ(vPackets[0].m_header.m_nPayloadType, 0);
}

TEST_F(RtpChannel, NumbersAndTimesItsPackets)
{
    open();
    for (int n = 0; n < 100; ++n)
        hear(CBytes(160, 1));
    const auto vPackets = m_far.receivePackets();
    ASSERT_EQ(vPackets.size(), 100U);
    for (uint32_t n = 0; n < 100; ++n)
    {
        const CRtpHeader& header = vPackets[n].m_header;
        EXPECT_EQ(header.m_nSequence, static_cast<uint16_t>(vPackets[0].m_header.m_nSequence + n));
        EXPECT_EQ(header.m_nTimestamp, vPackets[0].m_header.m_nTimestamp + 160 * n);
        EXPECT_EQ(header.m_nSource, vPackets[0].m_header.m_nSource);
        EXPECT_EQ(header.m_bMarker, n == 0);
    }
}

TEST_F(RtpChannel, BeginsWithNumbersThatNobodyCanGuess)
{
    std::set<uint32_t> sequences;
    std::set<uint32_t> timestamps;
    std::set<uint32_t> sources;
    for (int n = 0; n < 8; ++n)
    {
        m_pChannel.reset();
        open();
        hear(CBytes(160, 1));
        const auto vPackets = m_far.receivePackets();
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
    open();
    pause(10);
    hear(CBytes(160, 1));
    finishHearing();
    pause(10);
    EXPECT_EQ(m_far.receivePackets().size(), 1U);
}

TEST_F(RtpChannel, LetsTheTimestampGoOnInAPauseAndMarksItsEnd)
{
    open();
    hear(CBytes(160, 1));
    finishHearing();
    pause(6);
    EXPECT_EQ(hear({}), 0U);
    hear(CBytes(160, 2));
    hear(CBytes(160, 3));
    const auto vPackets = m_far.receivePackets();
    ASSERT_EQ(vPackets.size(), 3U);
    EXPECT_EQ(vPackets[1].m_header.m_nTimestamp, vPackets[0].m_header.m_nTimestamp + 8 * 160);
    EXPECT_EQ(vPackets[1].m_header.m_nSequence, static_cast<uint16_t>(vPackets[0].m_header.m_nSequence + 1));
    EXPECT_TRUE(vPackets[1].m_header.m_bMarker);
    EXPECT_EQ(vPackets[2].m_header.m_nTimestamp, vPackets[1].m_header.m_nTimestamp + 160);
    EXPECT_FALSE(vPackets[2].m_header.m_bMarker);
}

TEST_F(RtpChannel, FillsUpTheLastPacketOfAPlay)
{
    open();
    EXPECT_EQ(hear(CBytes(50, 1)), 50U);
    finishHearing();
    hear(CBytes(160, 2));
    const auto vPackets = m_far.receivePackets();
    ASSERT_EQ(vPackets.size(), 2U);
    EXPECT_EQ(vPackets[0].m_payload, CBytes(50, 1) + CBytes(110, 0xFF));
    EXPECT_EQ(vPackets[1].m_payload, CBytes(160, 2));
    EXPECT_EQ(vPackets[1].m_header.m_nTimestamp, vPackets[0].m_header.m_nTimestamp + 160);
    EXPECT_FALSE(vPackets[1].m_header.m_bMarker);
}

TEST_F(RtpChannel, SendsTheLastPacketOfAPlayWhenItCloses)
{
    open();
    hear(CBytes(50, 1));
    finishHearing();
    m_pChannel.reset();
    EXPECT_EQ(m_far.receivePackets().size(), 1U);
}

TEST_F(RtpChannel, TakesNoMoreThanAPacketInATick)
{
    open();
    runTick(m_ports, [this] {
        EXPECT_EQ(m_pChannel->hear(CBytes(50, 1)), 50U);
        EXPECT_EQ(m_pChannel->hear(CBytes(160, 2)), 110U);
        EXPECT_EQ(m_pChannel->hear(CBytes(50, 2)), 0U);
    });
    EXPECT_EQ(hear(CBytes(500, 2)), 160U);
    const auto vPackets = m_far.receivePackets();
    ASSERT_EQ(vPackets.size(), 2U);
    EXPECT_EQ(vPackets[0].m_payload, CBytes(50, 1) + CBytes(110, 2));
    EXPECT_EQ(vPackets[1].m_payload, CBytes(160, 2));
}

TEST_F(RtpChannel, SendsALawWhereThatIsTheCodec)
{
    open(CODEC_PCMA);
    const CBytes all = allBytes();
    hear(part(all, 0, 160));
    hear(part(all, 160, 256));
    finishHearing();
    runTick(m_ports);
    const auto vPackets = m_far.receivePackets();
    ASSERT_EQ(vPackets.size(), 2U);
    EXPECT_EQ(vPackets[0].m_header.m_nPayloadType, 8);
    EXPECT_EQ(vPackets[0].m_payload + part(vPackets[1].m_payload, 0, 96), converted(all, uLawToALaw()));
    EXPECT_EQ(part(vPackets[1].m_payload, 96, 160), CBytes(64, 0xD5));
}

TEST_F(RtpChannel, LetsARecordingListenBehindTheJitterTime)
{
    open();
    beginListening();
    EXPECT_EQ(listen(), CBytes(160, 0xFF));
    EXPECT_EQ(say(0, CBytes(160, 1)), CBytes(160, 0xFF));
    EXPECT_EQ(say(1, CBytes(160, 2)), CBytes(160, 1));
    EXPECT_EQ(say(2, CBytes(160, 3)), CBytes(160, 2));
}

TEST_F(RtpChannel, LetsARecordingListenToALaw)
{
    open(CODEC_PCMA);
    beginListening();
    const CBytes all = allBytes();
    EXPECT_EQ(say(0, part(all, 0, 160), 8), CBytes(160, 0xFF));
    EXPECT_EQ(say(1, part(all, 96, 256), 8), converted(part(all, 0, 160), aLawToULaw()));
    EXPECT_EQ(listen(), converted(part(all, 96, 256), aLawToULaw()));
    EXPECT_EQ(listen(), CBytes(160, 0xFF));
}

TEST_F(RtpChannel, DropsWhatComesWhileNoRecordingListens)
{
    open();
    beginListening();
    m_pChannel->endListening();
    for (uint16_t n = 0; n < 100; ++n)
        EXPECT_EQ(say(n, CBytes(160, 1)), CBytes(160, 0xFF));
    beginListening();
    EXPECT_EQ(say(100, CBytes(160, 2)), CBytes(160, 0xFF));
    EXPECT_EQ(say(101, CBytes(160, 3)), CBytes(160, 2));
    EXPECT_EQ(m_ports.counters().m_ullReceived, 102U);
}

TEST_F(RtpChannel, DropsAndCountsOtherPayloadTypes)
{
    open();
    beginListening();
    say(0, CBytes(160, 1));
    EXPECT_EQ(say(1, CBytes(4, 9), 101), CBytes(160, 1));
    EXPECT_EQ(say(1, CBytes(160, 9), 8), CBytes(160, 0xFF));
    EXPECT_EQ(m_ports.counters().m_ullOtherPayloads, 2U);
    EXPECT_EQ(m_ports.counters().m_ullReceived, 1U);
}

TEST_F(RtpChannel, TakesThePayloadOfTheLongestDatagram)
{
    open(CODEC_PCMA);
    beginListening();
    const CBytes payload(RTP_MAX_DATAGRAM - RTP_HEADER_SIZE, 0xAA);
    CBytes heard = say(0, payload, 8);
    while (heard.size() < 160 + payload.size())
        heard = heard + listen();
    EXPECT_EQ(part(heard, 160, static_cast<ptrdiff_t>(160 + payload.size())), CBytes(payload.size(), 0x80));
}

TEST_F(RtpChannel, SharesItsLocalAddressWithChannelsToElsewhere)
{
    open();
    m_local = m_pChannel->local();
    const CFarEnd otherFar;
    const std::unique_ptr<CRtpChannel> pOther = openTo(otherFar.address());
    runTick(m_ports, [&] {
        m_pChannel->hear(CBytes(160, 1));
        pOther->hear(CBytes(160, 2));
    });
    const auto vPackets = m_far.receivePackets();
    const auto vOtherPackets = otherFar.receivePackets();
    ASSERT_EQ(vPackets.size(), 1U);
    ASSERT_EQ(vOtherPackets.size(), 1U);
    EXPECT_EQ(vPackets[0].m_payload, CBytes(160, 1));
    EXPECT_EQ(vOtherPackets[0].m_payload, CBytes(160, 2));
    EXPECT_EQ(m_ports.count(), 1U);
}

TEST_F(RtpChannel, IsTheOnlyOneBetweenItsAddresses)
{
    open();
    CRtpRoute route;
    route.m_local = m_pChannel->local();
    route.m_remote = m_far.address();
    EXPECT_FALSE(CRtpChannel::open(m_ports, route, m_strError));
    EXPECT_EQ(m_strError, "another channel is open between " + route.m_local.text() + " and " + route.m_remote.text());
    EXPECT_EQ(hear(CBytes(160, 1)), 160U);
    EXPECT_EQ(m_far.receivePackets().size(), 1U);
    beginListening();
    say(0, CBytes(160, 1));
    EXPECT_EQ(listen(), CBytes(160, 1));
}

TEST_F(RtpChannel, FreesItsAddressesWhenItCloses)
{
    open();
    m_local = m_pChannel->local();
    m_pChannel.reset();
    EXPECT_EQ(m_ports.count(), 0U);
    EXPECT_FALSE(m_ports.needsTicks());
    open();
    EXPECT_TRUE(m_ports.needsTicks());
}

TEST_F(RtpChannel, PlayThatRunsDryWithinAPacketLosesNoTime)
{
    open();
    hear(CBytes(160, 1));
    EXPECT_EQ(hear(CBytes(50, 2)), 50U); // the rest is not decoded yet
    pause(2);
    hear(CBytes(160, 3));
    const auto vPackets = m_far.receivePackets();
    ASSERT_EQ(vPackets.size(), 3U);
    EXPECT_EQ(vPackets[1].m_payload, CBytes(50, 2) + CBytes(110, 0xFF));
    EXPECT_EQ(vPackets[1].m_header.m_nTimestamp, vPackets[0].m_header.m_nTimestamp + 160);
    EXPECT_EQ(vPackets[2].m_header.m_nTimestamp, vPackets[0].m_header.m_nTimestamp + 4 * 160);
    EXPECT_TRUE(vPackets[2].m_header.m_bMarker);
}

TEST_F(RtpChannel, PaddedTailIsSentInTheTickInWhichThePlayEnds)
{
    open();
    EXPECT_EQ(hear(CBytes(50, 1)), 50U);
    const auto vPackets = m_far.receivePackets();
    ASSERT_EQ(vPackets.size(), 1U);
    EXPECT_EQ(vPackets[0].m_payload, CBytes(50, 1) + CBytes(110, 0xFF));
}

TEST_F(RtpChannel, TimestampsGoOnOverSkippedTicksAndNothingIsSentForThem)
{
    open();
    hear(CBytes(160, 1));
    for (int n = 0; n < 10; ++n)
        m_ports.skipTick();
    m_ports.jump(1000);
    hear(CBytes(160, 2));
    const auto vPackets = m_far.receivePackets();
    ASSERT_EQ(vPackets.size(), 2U);
    EXPECT_EQ(vPackets[1].m_header.m_nTimestamp, vPackets[0].m_header.m_nTimestamp + 1011 * 160);
    EXPECT_TRUE(vPackets[1].m_header.m_bMarker);
}

TEST_F(RtpChannel, WhatWasSaidInSkippedTicksIsStillToBeHeard)
{
    open();
    beginListening();
    for (uint16_t n = 0; n < 100; ++n)
        m_far.send(rtpBytes({false, 0, n, n * 160U, 1}, CBytes(160, static_cast<uint8_t>(n))), m_pChannel->local());
    CBytes heard;
    for (int n = 0; n < 100; ++n)
    {
        m_ports.skipTick();
        CBytes samples(160);
        m_pChannel->listen(samples);
        heard = heard + samples;
    }
    EXPECT_EQ(part(heard, 0, 160), CBytes(160, 0xFF));
    for (uint8_t n = 0; n < 99; ++n)
        ASSERT_EQ(part(heard, 160 * (n + 1), 160 * (n + 2)), CBytes(160, n));
    EXPECT_EQ(m_ports.counters().m_ullLate, 0U);
}
