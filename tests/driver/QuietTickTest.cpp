// The moving part of the tick allocates nothing and takes no lock: both are counted in this program.
#include "../support/AllocationHooks.h"
#include "NullChannel.h"
#include "RtpChannel.h"
#include "RtpTestSupport.h"
#include "StreamFixture.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cstdlib>

namespace
{
thread_local bool t_bCounts = false;
thread_local int t_nAllocations = 0;
thread_local int t_nLocks = 0;
} // namespace

#if ALLOCATIONS_ARE_HOOKED
extern "C"
{
    void allocationCounts(void*, int nSign)
    {
        t_nAllocations += t_bCounts && nSign > 0 ? 1 : 0;
    }

    // Stands before the C library's.
    int pthread_mutex_lock(pthread_mutex_t* pMutex)
    {
        using Function = int (*)(pthread_mutex_t*);
        static const Function pLock = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "pthread_mutex_lock"));
        t_nLocks += t_bCounts ? 1 : 0;
        return pLock(pMutex);
    }
}
#endif

namespace
{
// The first listener of a clock begins to count, the last one ends it.
class CCounter : public CTickListener
{
public:
    explicit CCounter(bool bBegins) : m_bBegins(bBegins) {}

    bool needsTicks() const override { return false; }

    void beforeTick() override { t_bCounts |= m_bBegins; }

    void afterTick() override { t_bCounts &= m_bBegins; }

private:
    const bool m_bBegins;
};

class QuietTick : public CStreamFixture
{
protected:
    QuietTick()
    {
        m_clock.addListener(m_begin);
        m_clock.addListener(m_ports);
        m_clock.addListener(m_end);
    }

    void SetUp() override
    {
        t_nAllocations = t_nLocks = 0;
        if (!ALLOCATIONS_ARE_HOOKED)
            GTEST_SKIP() << "sanitizers have the C library's functions for themselves";
    }

    void tickAndCount(int nTicks)
    {
        for (int nTick = 0; nTick < nTicks; ++nTick)
            m_clock.tickRealTime();
    }

    std::shared_ptr<CStream> openRtp(const CFarEnd& far)
    {
        std::string strError;
        auto pChannel = CRtpChannel::open(m_ports, {loopback(), far.address()}, strError);
        EXPECT_TRUE(pChannel) << strError;
        m_local = pChannel->local();
        return openOn(std::move(pChannel), m_executor);
    }

    std::vector<std::shared_ptr<CStream>> openStreams(int nStreams)
    {
        std::vector<std::shared_ptr<CStream>> vStreams;
        for (int nStream = 0; nStream < nStreams; ++nStream)
            vStreams.push_back(openOn(std::make_unique<CNullChannel>(), m_executor));
        return vStreams;
    }

    CCounter m_begin{true};
    CRtpPorts m_ports;
    CCounter m_end{false};
    CNetAddress m_local = loopback();
};
} // namespace

TEST_F(QuietTick, CountsWhatIsAllocatedAndLocked)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    t_bCounts = true;
    ::operator delete(::operator new(10));
    const auto pShared = std::make_shared<int>(1);
    ::pthread_mutex_lock(&mutex);
    ::pthread_mutex_unlock(&mutex);
    t_bCounts = false;
    EXPECT_GE(t_nAllocations, 2);
    EXPECT_EQ(t_nLocks, 1);
}

TEST_F(QuietTick, HoldsForPlaysAndRecordingsOnFileChannels)
{
    constexpr size_t SAMPLES = 700 * TICK_SAMPLES;
    callerSays(noise(SAMPLES, 2));
    CFileChannelFactory channels(m_clipStore, m_executor, {m_folder.folder(), true, false});
    std::string strError;
    const auto pStream = openOn(openChannel(channels, "call", 1, strError), m_executor);
    pStream->startPlay(clip(noise(SAMPLES)), 0, SAMPLES, 1);
    record(*pStream, "msg.wav", 0xFFFFFFFF);
    const auto pOther = openStreams(1).front();
    record(*pOther, "msg.flac", 300 * TICK_SAMPLES);
    tickAndCount(701);
    EXPECT_EQ(m_vEvents.size(), 3U);
    EXPECT_EQ(readULawWav(m_folder.path("call-1.heard.wav")), noise(SAMPLES));
    EXPECT_EQ(readULawWav(m_folder.path("msg.wav")), noise(SAMPLES, 2));
    EXPECT_EQ(t_nAllocations, 0);
    EXPECT_EQ(t_nLocks, 0);
}

TEST_F(QuietTick, HoldsForManyStreamsThatEndTogether)
{
    const auto vStreams = openStreams(300);
    for (int nRound = 0; nRound < 3; ++nRound)
    {
        for (const auto& pStream : vStreams)
            pStream->startPlay(clip(noise(480)), 0, 480, 1);
        tickAndCount(3);
    }
    EXPECT_EQ(m_vEvents.size(), 900U);
    EXPECT_EQ(t_nAllocations, 0);
    EXPECT_EQ(t_nLocks, 0);
}

TEST_F(QuietTick, HoldsForPlaysAndRecordingsOnRtp)
{
    const CFarEnd far;
    const auto pStream = openRtp(far);
    pStream->startPlay(clip(noise(200 * TICK_SAMPLES)), 0, 200 * TICK_SAMPLES, 1);
    record(*pStream, "msg.ul", 150 * TICK_SAMPLES);
    for (uint16_t nPacket = 0; nPacket < 200; ++nPacket)
    {
        far.send(rtpBytes({false, 0, nPacket, nPacket * 160U, 1}, CBytes(160, 0x23)), m_local);
        tickAndCount(1);
    }
    tickAndCount(1);
    EXPECT_EQ(m_vEvents.size(), 2U);
    EXPECT_EQ(far.receivePackets().size(), 200U);
    EXPECT_EQ(t_nAllocations, 0);
    EXPECT_EQ(t_nLocks, 0);
}
