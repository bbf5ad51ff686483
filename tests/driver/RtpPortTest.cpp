// UDP sockets for RTP, each shared by the channels of one local address.
#include "RtpTestSupport.h"

#include <gmock/gmock.h>

#include <string>

using testing::HasSubstr;

namespace
{
class CCollector : public CRtpReceiver
{
public:
    void OnRtp(const CRtpPacket& packet) override
    {
        m_vSequences.push_back(packet.m_header.m_nSequence);
        m_vPayloads.emplace_back(packet.m_payload.begin(), packet.m_payload.end());
    }

    std::vector<std::uint16_t> m_vSequences;
    std::vector<CBytes> m_vPayloads;
};

class RtpPort : public testing::Test
{
protected:
    RtpPort() : m_pPort(m_ports.Open(Loopback(), m_strError)) { EXPECT_TRUE(m_pPort) << m_strError; }

    void Send(std::uint16_t nSequence, const CNetAddress& remote)
    {
        const CBytes bytes = RtpBytes({false, 0, nSequence, 0, 0}, CBytes(RTP_SAMPLES, 1));
        m_pPort->Send(std::span(bytes).first<RTP_PACKET_SIZE>(), remote);
    }

    CRtpPorts m_ports;
    std::string m_strError;
    std::shared_ptr<CRtpPort> m_pPort;
    CCollector m_collector;
    CFarEnd m_far;
};

std::vector<std::uint16_t> Sequences(const CFarEnd& far)
{
    std::vector<std::uint16_t> vSequences;
    for (const CFarEnd::CPacket& packet : far.ReceivePackets())
    {
        vSequences.push_back(packet.m_header.m_nSequence);
    }
    return vSequences;
}

std::vector<std::uint16_t> CountTo(std::uint16_t nEnd)
{
    std::vector<std::uint16_t> vNumbers;
    for (std::uint16_t n = 0; n < nEnd; ++n)
    {
        vNumbers.push_back(n);
    }
    return vNumbers;
}
} // namespace

TEST_F(RtpPort, SendsAllPacketsOfATickInOrder)
{
    std::vector<CCollector> vReceivers(100);
    for (std::uint16_t n = 0; n < vReceivers.size(); ++n)
    {
        ASSERT_TRUE(m_pPort->Join(Loopback(static_cast<std::uint16_t>(n + 1)), vReceivers[n]));
    }
    RunTick(m_ports, [this] {
        for (std::uint16_t n = 0; n < 100; ++n)
        {
            Send(n, m_far.Address());
        }
        EXPECT_FALSE(m_far.Receive());
    });
    EXPECT_EQ(Sequences(m_far), CountTo(100));
    EXPECT_EQ(m_ports.Counters().m_ullSent, 100U);
}

TEST_F(RtpPort, SendsMorePacketsThanItHasReceivers)
{
    ASSERT_TRUE(m_pPort->Join(m_far.Address(), m_collector));
    RunTick(m_ports, [this] {
        for (std::uint16_t n = 0; n < 10; ++n)
        {
            Send(n, m_far.Address());
        }
    });
    EXPECT_EQ(Sequences(m_far), CountTo(10));
}

TEST_F(RtpPort, SendsToEachItsOwn)
{
    CCollector other;
    const CFarEnd otherFar;
    ASSERT_TRUE(m_pPort->Join(m_far.Address(), m_collector));
    ASSERT_TRUE(m_pPort->Join(otherFar.Address(), other));
    RunTick(m_ports, [&] {
        Send(1, m_far.Address());
        Send(2, otherFar.Address());
    });
    EXPECT_THAT(Sequences(m_far), testing::ElementsAre(1));
    EXPECT_THAT(Sequences(otherFar), testing::ElementsAre(2));
}

TEST_F(RtpPort, SendsThePacketsAroundOneThatIsRefused)
{
    const CNetAddress broadcast = CNetAddress::Parse("255.255.255.255:9").value();
    std::vector<CCollector> vReceivers(10);
    for (std::uint16_t n = 0; n < vReceivers.size(); ++n)
    {
        ASSERT_TRUE(m_pPort->Join(Loopback(static_cast<std::uint16_t>(n + 1)), vReceivers[n]));
    }
    RunTick(m_ports, [&] {
        Send(9, broadcast);
        Send(0, m_far.Address());
        Send(9, broadcast);
        Send(9, broadcast);
        Send(1, m_far.Address());
        Send(9, broadcast);
    });
    EXPECT_EQ(Sequences(m_far), CountTo(2));
    EXPECT_EQ(m_ports.Counters().m_ullSent, 2U);
    EXPECT_EQ(m_ports.Counters().m_ullSendErrors, 4U);
}

TEST_F(RtpPort, SendsOnWhenNobodyListensAtAFarEnd)
{
    CNetAddress gone;
    {
        const CFarEnd closed;
        gone = closed.Address();
    }
    CCollector other;
    ASSERT_TRUE(m_pPort->Join(gone, m_collector));
    ASSERT_TRUE(m_pPort->Join(m_far.Address(), other));
    for (std::uint16_t n = 0; n < 20; ++n)
    {
        RunTick(m_ports, [&] {
            Send(0, gone);
            Send(n, m_far.Address());
        });
    }
    EXPECT_EQ(Sequences(m_far), CountTo(20));
}

TEST_F(RtpPort, SendsWhatIsLeftWhenTheLastReceiverLeaves)
{
    ASSERT_TRUE(m_pPort->Join(m_far.Address(), m_collector));
    Send(0, m_far.Address());
    m_pPort->Leave(m_far.Address());
    EXPECT_EQ(Sequences(m_far), CountTo(1));
}

TEST_F(RtpPort, GivesPacketsToTheReceiverOfTheirSender)
{
    CCollector other;
    const CFarEnd otherFar;
    ASSERT_TRUE(m_pPort->Join(m_far.Address(), m_collector));
    ASSERT_TRUE(m_pPort->Join(otherFar.Address(), other));
    m_far.Send(RtpBytes({false, 0, 1, 0, 0}, {1, 2, 3}), m_pPort->Local());
    otherFar.Send(RtpBytes({false, 0, 2, 0, 0}, {4}), m_pPort->Local());
    m_far.Send(RtpBytes({false, 0, 3, 0, 0}, {5}), m_pPort->Local());
    RunTick(m_ports);
    EXPECT_THAT(m_collector.m_vSequences, testing::ElementsAre(1, 3));
    EXPECT_THAT(m_collector.m_vPayloads, testing::ElementsAre(CBytes{1, 2, 3}, CBytes{5}));
    EXPECT_THAT(other.m_vSequences, testing::ElementsAre(2));
}

TEST_F(RtpPort, DropsAndCountsStrangers)
{
    ASSERT_TRUE(m_pPort->Join(Loopback(1), m_collector));
    m_far.Send(RtpBytes({}, CBytes(160, 1)), m_pPort->Local());
    RunTick(m_ports);
    EXPECT_TRUE(m_collector.m_vSequences.empty());
    EXPECT_EQ(m_ports.Counters().m_ullStrangers, 1U);
}

TEST_F(RtpPort, DropsAndCountsWhatIsNoRtp)
{
    ASSERT_TRUE(m_pPort->Join(m_far.Address(), m_collector));
    m_far.Send({}, m_pPort->Local());
    m_far.Send({1, 2, 3}, m_pPort->Local());
    m_far.Send(CBytes(172, 0), m_pPort->Local());
    m_far.Send(RtpBytes({}, CBytes(RTP_MAX_DATAGRAM, 1)), m_pPort->Local());
    m_far.Send(RtpBytes({false, 0, 7, 0, 0}, CBytes(RTP_MAX_DATAGRAM - RTP_HEADER_SIZE, 1)), m_pPort->Local());
    RunTick(m_ports);
    EXPECT_THAT(m_collector.m_vSequences, testing::ElementsAre(7));
    EXPECT_EQ(m_ports.Counters().m_ullMalformed, 4U);
}

TEST_F(RtpPort, TakesMoreThanABatchInATick)
{
    ASSERT_TRUE(m_pPort->Join(m_far.Address(), m_collector));
    for (std::uint16_t n = 0; n < 300; ++n)
    {
        m_far.Send(RtpBytes({false, 0, n, 0, 0}, {1}), m_pPort->Local());
    }
    RunTick(m_ports);
    EXPECT_EQ(m_collector.m_vSequences, CountTo(300));
}

TEST_F(RtpPort, LeavesAFloodForLaterTicks)
{
    ASSERT_TRUE(m_pPort->Join(Loopback(1), m_collector));
    int nTicks = 0;
    for (int n = 0; n < 1000; ++n)
    {
        m_far.Send({1}, m_pPort->Local());
    }
    // How many of them the socket has room for is the system's choice.
    for (std::uint64_t ullBefore = 0; nTicks == 0 || m_ports.Counters().m_ullStrangers > ullBefore; ++nTicks)
    {
        ullBefore = m_ports.Counters().m_ullStrangers;
        RunTick(m_ports);
        EXPECT_LE(m_ports.Counters().m_ullStrangers - ullBefore, 600U);
    }
    EXPECT_GE(m_ports.Counters().m_ullStrangers, 100U);
}

TEST_F(RtpPort, HasOneReceiverForARemoteAddress)
{
    CCollector other;
    ASSERT_TRUE(m_pPort->Join(m_far.Address(), m_collector));
    EXPECT_FALSE(m_pPort->Join(m_far.Address(), other));
    m_pPort->Leave(m_far.Address());
    EXPECT_TRUE(m_pPort->Join(m_far.Address(), other));
}

TEST_F(RtpPort, IsSharedByAllWhoOpenItsAddress)
{
    EXPECT_EQ(m_ports.Open(m_pPort->Local(), m_strError), m_pPort);
    EXPECT_EQ(m_ports.Count(), 1U);
    const std::shared_ptr<CRtpPort> pOther = m_ports.Open(Loopback(), m_strError);
    EXPECT_NE(pOther, m_pPort);
    EXPECT_EQ(m_ports.Count(), 2U);
}

TEST_F(RtpPort, ClosesWithItsLastHolder)
{
    const CNetAddress local = m_pPort->Local();
    std::shared_ptr<CRtpPort> pSecond = m_ports.Open(local, m_strError);
    m_pPort.reset();
    EXPECT_EQ(m_ports.Count(), 1U);
    pSecond.reset();
    EXPECT_EQ(m_ports.Count(), 0U);
    CRtpPorts others;
    EXPECT_TRUE(others.Open(local, m_strError)) << m_strError;
}

TEST_F(RtpPort, SaysWhyItCannotBeBound)
{
    EXPECT_FALSE(m_ports.Open(m_far.Address(), m_strError));
    EXPECT_EQ(m_strError, m_far.Address().Text() + " cannot be bound: Address already in use");
    EXPECT_FALSE(m_ports.Open(CNetAddress::Parse("192.0.2.1:4000").value(), m_strError));
    EXPECT_THAT(m_strError, HasSubstr("192.0.2.1:4000 cannot be bound: Cannot assign requested address"));
}

TEST(RtpPorts, CountTicks)
{
    CRtpPorts ports;
    EXPECT_EQ(ports.Tick(), 0U);
    RunTick(ports);
    RunTick(ports, [&ports] { EXPECT_EQ(ports.Tick(), 2U); });
}

TEST(RtpPorts, SendAndReceiveOverIPv6)
{
    CRtpPorts ports;
    std::string strError;
    const CNetAddress any = CNetAddress::Parse("[::1]:0").value();
    const std::shared_ptr<CRtpPort> pOne = ports.Open(any, strError);
    const std::shared_ptr<CRtpPort> pTwo = ports.Open(any, strError);
    if (!pOne || !pTwo)
    {
        GTEST_SKIP() << "no IPv6 on this machine: " << strError;
    }
    CCollector collector;
    ASSERT_TRUE(pTwo->Join(pOne->Local(), collector));
    // A receiver of the shorter addresses, whose packets go through the same memory before.
    const std::shared_ptr<CRtpPort> pShort = ports.Open(Loopback(), strError);
    CFarEnd().Send({1}, pShort->Local());
    RunTick(ports);
    const CBytes bytes = RtpBytes({false, 0, 5, 0, 0}, CBytes(RTP_SAMPLES, 1));
    RunTick(ports, [&] { pOne->Send(std::span(bytes).first<RTP_PACKET_SIZE>(), pTwo->Local()); });
    RunTick(ports);
    EXPECT_THAT(collector.m_vSequences, testing::ElementsAre(5));
}
