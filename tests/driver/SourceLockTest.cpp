// Where the packets of a leg come from, which need not be where signalling says (symmetric RTP).
#include "SourceLock.h"
#include "RtpTestSupport.h"

namespace
{
class SourceLock : public testing::Test
{
protected:
    bool accept(const CNetAddress& from, uint64_t ullTick = 0) { return m_lock.accept(from, ullTick, m_bMoved); }

    const CNetAddress m_signalled = loopback(1000);
    const CNetAddress m_real = loopback(2000);
    const CNetAddress m_stranger = loopback(3000);
    CSourceLock m_lock;
    bool m_bMoved = false;
};
} // namespace

TEST_F(SourceLock, FixedAddressIsTheOnlyOne)
{
    m_lock.fix(m_signalled);
    EXPECT_TRUE(accept(m_signalled));
    EXPECT_FALSE(accept(m_real));
    EXPECT_FALSE(accept(m_real));
    EXPECT_EQ(m_lock.remote(), m_signalled);
}

TEST_F(SourceLock, SignalledAddressIsBelievedAtOnce)
{
    m_lock.learn(m_signalled);
    EXPECT_EQ(m_lock.remote(), m_signalled);
    EXPECT_TRUE(accept(m_signalled));
    EXPECT_FALSE(m_bMoved);
    EXPECT_FALSE(accept(m_real));
    EXPECT_FALSE(accept(m_real));
    EXPECT_EQ(m_lock.remote(), m_signalled);
}

TEST_F(SourceLock, AnotherAddressIsBelievedAtItsSecondPacketInARow)
{
    m_lock.learn(m_signalled);
    EXPECT_FALSE(accept(m_real));
    EXPECT_FALSE(accept(m_stranger));
    EXPECT_FALSE(accept(m_real));
    EXPECT_TRUE(accept(m_real));
    EXPECT_TRUE(m_bMoved);
    EXPECT_EQ(m_lock.remote(), m_real);
    EXPECT_FALSE(accept(m_stranger));
    EXPECT_FALSE(accept(m_stranger));
}

TEST_F(SourceLock, SignalledAddressMayStillTakeItOverForAWhile)
{
    m_lock.learn(m_signalled);
    accept(m_stranger);
    EXPECT_TRUE(accept(m_stranger));
    EXPECT_TRUE(accept(m_signalled, 149));
    EXPECT_TRUE(m_bMoved);
    EXPECT_EQ(m_lock.remote(), m_signalled);

    m_lock.learn(m_signalled);
    accept(m_real);
    accept(m_real);
    EXPECT_TRUE(accept(m_real, 150));
    EXPECT_FALSE(accept(m_signalled, 151));
    EXPECT_EQ(m_lock.remote(), m_real);
}

TEST_F(SourceLock, LearnsWithoutASignalledAddress)
{
    m_lock.learn({});
    EXPECT_FALSE(m_lock.remote().isKnown());
    EXPECT_FALSE(accept(m_real));
    EXPECT_TRUE(accept(m_real));
    EXPECT_EQ(m_lock.remote(), m_real);
}

TEST_F(SourceLock, NewSignallingBeginsAnew)
{
    m_lock.learn(m_signalled);
    accept(m_signalled);
    m_lock.learn(m_real);
    EXPECT_EQ(m_lock.remote(), m_real);
    EXPECT_TRUE(accept(m_real));
    EXPECT_FALSE(accept(m_signalled));
}
