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
    void onDatagram(std::span<uint8_t> bytes, const CNetAddress&) override
    {
        const std::optional<CRtpPacket> packet = parseRtpPacket(bytes);
        if (!packet)
        {
            ++m_counters.m_ullMalformed;
            return;
        }
        m_vSequences.push_back(packet->m_header.m_nSequence);
        m_vPayloads.emplace_back(packet->m_payload.begin(), packet->m_payload.end());
    }
    void onTick(bool bSkipped) override { m_strTicks += bSkipped ? 's' : 't'; }
    void onTickEnd() override { m_strTicks += 'e'; }
    void onJump(uint64_t ullTicks) override { m_strTicks += std::to_string(ullTicks); }
    void onSettle() override
    {
        if (m_onSettle)
            m_onSettle();
    }
    const CRtpCounters& counters() const override { return m_counters; }

    CRtpCounters m_counters;
    std::string m_strTicks;
    std::function<void()> m_onSettle;
    std::vector<uint16_t> m_vSequences;
    std::vector<CBytes> m_vPayloads;
};

class RtpPort : public testing::Test
{
protected:
    RtpPort() : m_pPort(m_ports.open(loopback(), m_strError)) { EXPECT_TRUE(m_pPort) << m_strError; }

    void send(uint16_t nSequence, const CNetAddress& remote)
    {
        const CBytes bytes = rtpBytes({false, 0, nSequence, 0, 0}, CBytes(RTP_SAMPLES, 1));
        m_pPort->send(bytes, remote);
    }

    CRtpPorts m_ports;
    std::string m_strError;
    std::shared_ptr<CRtpPort> m_pPort;
    CCollector m_collector;
    CFarEnd m_far;
};

std::vector<uint16_t> sequences(const CFarEnd& far)
{
    std::vector<uint16_t> vSequences;
    for (const CFarEnd::CPacket& packet : far.receivePackets())
        vSequences.push_back(packet.m_header.m_nSequence);
    return vSequences;
}

std::vector<uint16_t> countTo(uint16_t nEnd)
{
    std::vector<uint16_t> vNumbers;
    for (uint16_t n = 0; n < nEnd; ++n)
        vNumbers.push_back(n);
    return vNumbers;
}
} // namespace

TEST_F(RtpPort, SendsAllPacketsOfATickInOrder)
{
    std::vector<CCollector> vReceivers(100);
    for (uint16_t n = 0; n < vReceivers.size(); ++n)
        ASSERT_TRUE(m_pPort->join(loopback(static_cast<uint16_t>(n + 1)), vReceivers[n]));
    runTick(m_ports, [this] {
        for (uint16_t n = 0; n < 100; ++n)
            send(n, m_far.address());
        EXPECT_FALSE(m_far.receive());
    });
    EXPECT_EQ(sequences(m_far), countTo(100));
    EXPECT_EQ(m_ports.counters().m_ullSent, 100U);
}

TEST_F(RtpPort, SendsMorePacketsThanItHasReceivers)
{
    ASSERT_TRUE(m_pPort->join(m_far.address(), m_collector));
    runTick(m_ports, [this] {
        for (uint16_t n = 0; n < 10; ++n)
            send(n, m_far.address());
    });
    EXPECT_EQ(sequences(m_far), countTo(10));
}

TEST_F(RtpPort, SendsToEachItsOwn)
{
    CCollector other;
    const CFarEnd otherFar;
    ASSERT_TRUE(m_pPort->join(m_far.address(), m_collector));
    ASSERT_TRUE(m_pPort->join(otherFar.address(), other));
    runTick(m_ports, [&] {
        send(1, m_far.address());
        send(2, otherFar.address());
    });
    EXPECT_THAT(sequences(m_far), testing::ElementsAre(1));
    EXPECT_THAT(sequences(otherFar), testing::ElementsAre(2));
}

TEST_F(RtpPort, SendsThePacketsAroundOneThatIsRefused)
{
    const CNetAddress broadcast = CNetAddress::parse("255.255.255.255:9").value();
    std::vector<CCollector> vReceivers(10);
    for (uint16_t n = 0; n < vReceivers.size(); ++n)
        ASSERT_TRUE(m_pPort->join(loopback(static_cast<uint16_t>(n + 1)), vReceivers[n]));
    runTick(m_ports, [&] {
        send(9, broadcast);
        send(0, m_far.address());
        send(9, broadcast);
        send(9, broadcast);
        send(1, m_far.address());
        send(9, broadcast);
    });
    EXPECT_EQ(sequences(m_far), countTo(2));
    EXPECT_EQ(m_ports.counters().m_ullSent, 2U);
    EXPECT_EQ(m_ports.counters().m_ullSendErrors, 4U);
}

TEST_F(RtpPort, SendsOnWhenNobodyListensAtAFarEnd)
{
    CNetAddress gone;
    {
        const CFarEnd closed;
        gone = closed.address();
    }
    CCollector other;
    ASSERT_TRUE(m_pPort->join(gone, m_collector));
    ASSERT_TRUE(m_pPort->join(m_far.address(), other));
    for (uint16_t n = 0; n < 20; ++n)
    {
        runTick(
            m_ports,
            [&] {
                send(0, gone);
                send(n, m_far.address());
            });
    }
    EXPECT_EQ(sequences(m_far), countTo(20));
}

TEST_F(RtpPort, SendsWhatIsLeftWhenTheLastReceiverLeaves)
{
    ASSERT_TRUE(m_pPort->join(m_far.address(), m_collector));
    send(0, m_far.address());
    m_pPort->leave(m_far.address());
    EXPECT_EQ(sequences(m_far), countTo(1));
}

TEST_F(RtpPort, GivesPacketsToTheReceiverOfTheirSender)
{
    CCollector other;
    const CFarEnd otherFar;
    ASSERT_TRUE(m_pPort->join(m_far.address(), m_collector));
    ASSERT_TRUE(m_pPort->join(otherFar.address(), other));
    m_far.send(rtpBytes({false, 0, 1, 0, 0}, {1, 2, 3}), m_pPort->local());
    otherFar.send(rtpBytes({false, 0, 2, 0, 0}, {4}), m_pPort->local());
    m_far.send(rtpBytes({false, 0, 3, 0, 0}, {5}), m_pPort->local());
    runTick(m_ports);
    EXPECT_THAT(m_collector.m_vSequences, testing::ElementsAre(1, 3));
    EXPECT_THAT(m_collector.m_vPayloads, testing::ElementsAre(CBytes{1, 2, 3}, CBytes{5}));
    EXPECT_THAT(other.m_vSequences, testing::ElementsAre(2));
}

TEST_F(RtpPort, DropsAndCountsStrangers)
{
    ASSERT_TRUE(m_pPort->join(loopback(1), m_collector));
    m_far.send(rtpBytes({}, CBytes(160, 1)), m_pPort->local());
    runTick(m_ports);
    EXPECT_TRUE(m_collector.m_vSequences.empty());
    EXPECT_EQ(m_ports.counters().m_ullStrangers, 1U);
}

TEST_F(RtpPort, GivesACutDatagramAsOneWithoutBytes)
{
    ASSERT_TRUE(m_pPort->join(m_far.address(), m_collector));
    m_far.send(rtpBytes({}, CBytes(RTP_MAX_DATAGRAM, 1)), m_pPort->local());
    m_far.send(rtpBytes({false, 0, 7, 0, 0}, CBytes(RTP_MAX_DATAGRAM - RTP_HEADER_SIZE, 1)), m_pPort->local());
    runTick(m_ports);
    EXPECT_THAT(m_collector.m_vSequences, testing::ElementsAre(7));
    EXPECT_EQ(m_ports.counters().m_ullMalformed, 1U);
}

TEST_F(RtpPort, TakesMoreThanABatchInATick)
{
    CCollector other; // with whom the socket's buffer grows
    ASSERT_TRUE(m_pPort->join(loopback(1), other));
    ASSERT_TRUE(m_pPort->join(m_far.address(), m_collector));
    for (uint16_t n = 0; n < 300; ++n)
        m_far.send(rtpBytes({false, 0, n, 0, 0}, {1}), m_pPort->local());
    runTick(m_ports);
    EXPECT_EQ(m_collector.m_vSequences, countTo(300));
}

TEST_F(RtpPort, LeavesAFloodForLaterTicks)
{
    ASSERT_TRUE(m_pPort->join(loopback(1), m_collector));
    int nTicks = 0;
    for (int n = 0; n < 1000; ++n)
        m_far.send({1}, m_pPort->local());
    // How many of them the socket has room for is the system's choice.
    for (uint64_t ullBefore = 0; nTicks == 0 || m_ports.counters().m_ullStrangers > ullBefore; ++nTicks)
    {
        ullBefore = m_ports.counters().m_ullStrangers;
        runTick(m_ports);
        EXPECT_LE(m_ports.counters().m_ullStrangers - ullBefore, 600U);
    }
    EXPECT_GE(m_ports.counters().m_ullStrangers, 100U);
}

TEST_F(RtpPort, GivesWhatComesFromElsewhereToTheOneThatTakesAll)
{
    CCollector other;
    const CFarEnd otherFar;
    ASSERT_TRUE(m_pPort->join(m_far.address(), m_collector));
    ASSERT_TRUE(m_pPort->joinAll(other));
    EXPECT_FALSE(m_pPort->joinAll(m_collector));
    m_far.send(rtpBytes({false, 0, 1, 0, 0}, {1}), m_pPort->local());
    otherFar.send(rtpBytes({false, 0, 2, 0, 0}, {1}), m_pPort->local());
    runTick(m_ports);
    EXPECT_THAT(m_collector.m_vSequences, testing::ElementsAre(1));
    EXPECT_THAT(other.m_vSequences, testing::ElementsAre(2));
    m_pPort->leaveAll();
    otherFar.send(rtpBytes({false, 0, 3, 0, 0}, {1}), m_pPort->local());
    runTick(m_ports);
    EXPECT_THAT(other.m_vSequences, testing::ElementsAre(2));
    EXPECT_EQ(m_ports.counters().m_ullStrangers, 1U);
}

TEST_F(RtpPort, ReceiversHaveTheirPartOfEachTick)
{
    ASSERT_TRUE(m_pPort->join(m_far.address(), m_collector));
    runTick(m_ports);
    m_ports.skipTick();
    m_ports.jump(7);
    runTick(m_ports);
    EXPECT_EQ(m_collector.m_strTicks, "tes7te");
    EXPECT_EQ(m_ports.tick(), 10U);
}

TEST_F(RtpPort, ReceiverMayTakeOthersOutWhenItSettles)
{
    std::vector<CCollector> vReceivers(5);
    std::string strSettled;
    for (uint16_t n = 0; n < 5; ++n)
    {
        ASSERT_TRUE(m_pPort->join(loopback(static_cast<uint16_t>(n + 1)), vReceivers[n]));
        vReceivers[n].m_onSettle = [&, n] {
            strSettled += static_cast<char>('0' + n);
            if (n == 1)
                for (const int nOther : {1, 2, 4})
                    m_pPort->leave(loopback(static_cast<uint16_t>(nOther)));
        };
    }
    for (CCollector& receiver : vReceivers)
    {
        m_ports.wantSettle(receiver);
        m_ports.wantSettle(receiver); // once all the same
    }
    m_ports.settle();
    EXPECT_EQ(strSettled, "0124");
    m_ports.settle();
    EXPECT_EQ(strSettled, "0124");
}

TEST_F(RtpPort, SocketOfOneReceiverKeepsTheSystemsBufferAndThatOfManyGrows)
{
    const auto bufferSize = [this] {
        const std::shared_ptr<CRtpPort> pPort = m_pPort;
        int nSize = 0;
        socklen_t nLength = sizeof nSize;
        EXPECT_EQ(::getsockopt(pPort->descriptor(), SOL_SOCKET, SO_RCVBUF, &nSize, &nLength), 0);
        return nSize;
    };
    const int nSystem = bufferSize();
    ASSERT_TRUE(m_pPort->join(m_far.address(), m_collector));
    EXPECT_EQ(bufferSize(), nSystem);
    std::vector<CCollector> vReceivers(100);
    for (uint16_t n = 0; n < vReceivers.size(); ++n)
        ASSERT_TRUE(m_pPort->join(loopback(static_cast<uint16_t>(n + 1)), vReceivers[n]));
    // A system may allow no more than it gives by itself.
    EXPECT_GE(bufferSize(), nSystem);
    if (::geteuid() == 0)
        EXPECT_GT(bufferSize(), 2 << 20);
}

TEST_F(RtpPort, HasOneReceiverForARemoteAddress)
{
    CCollector other;
    ASSERT_TRUE(m_pPort->join(m_far.address(), m_collector));
    EXPECT_FALSE(m_pPort->join(m_far.address(), other));
    m_pPort->leave(m_far.address());
    EXPECT_TRUE(m_pPort->join(m_far.address(), other));
}

TEST_F(RtpPort, IsSharedByAllWhoOpenItsAddress)
{
    EXPECT_EQ(m_ports.open(m_pPort->local(), m_strError), m_pPort);
    EXPECT_EQ(m_ports.count(), 1U);
    const std::shared_ptr<CRtpPort> pOther = m_ports.open(loopback(), m_strError);
    EXPECT_NE(pOther, m_pPort);
    EXPECT_EQ(m_ports.count(), 2U);
}

TEST_F(RtpPort, ClosesWithItsLastHolder)
{
    const CNetAddress local = m_pPort->local();
    std::shared_ptr<CRtpPort> pSecond = m_ports.open(local, m_strError);
    m_pPort.reset();
    EXPECT_EQ(m_ports.count(), 1U);
    pSecond.reset();
    EXPECT_EQ(m_ports.count(), 0U);
    CRtpPorts others;
    EXPECT_TRUE(others.open(local, m_strError)) << m_strError;
}

TEST_F(RtpPort, SaysWhyItCannotBeBound)
{
    EXPECT_FALSE(m_ports.open(m_far.address(), m_strError));
    EXPECT_EQ(m_strError, m_far.address().text() + " cannot be bound: Address already in use");
    EXPECT_FALSE(m_ports.open(CNetAddress::parse("192.0.2.1:4000").value(), m_strError));
    EXPECT_THAT(m_strError, HasSubstr("192.0.2.1:4000 cannot be bound: Cannot assign requested address"));
}

TEST(RtpPorts, CountTicks)
{
    CRtpPorts ports;
    EXPECT_EQ(ports.tick(), 0U);
    runTick(ports);
    runTick(ports, [&ports] { EXPECT_EQ(ports.tick(), 2U); });
}

TEST(RtpPorts, SendAndReceiveOverIPv6)
{
    CRtpPorts ports;
    std::string strError;
    const CNetAddress any = CNetAddress::parse("[::1]:0").value();
    const std::shared_ptr<CRtpPort> pOne = ports.open(any, strError);
    const std::shared_ptr<CRtpPort> pTwo = ports.open(any, strError);
    if (!pOne || !pTwo)
        GTEST_SKIP() << "no IPv6 on this machine: " << strError;
    CCollector collector;
    ASSERT_TRUE(pTwo->join(pOne->local(), collector));
    // A receiver of the shorter addresses, whose packets go through the same memory before.
    const std::shared_ptr<CRtpPort> pShort = ports.open(loopback(), strError);
    CFarEnd().send({1}, pShort->local());
    runTick(ports);
    const CBytes bytes = rtpBytes({false, 0, 5, 0, 0}, CBytes(RTP_SAMPLES, 1));
    runTick(ports, [&] { pOne->send(bytes, pTwo->local()); });
    runTick(ports);
    EXPECT_THAT(collector.m_vSequences, testing::ElementsAre(5));
}
