// Waiting for descriptors: who is called, and who is not because a watch has ended in between.
#include "Poller.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <csignal>
#include <optional>

using testing::HasSubstr;

namespace
{
struct CPair
{
    CPair()
    {
        std::array<int, 2> fds = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds.data()), 0);
        m_fdHere = CFd(fds[0]);
        m_fdThere = CFd(fds[1]);
    }
    void makeReadable() { EXPECT_EQ(::send(m_fdThere.get(), "x", 1, MSG_NOSIGNAL), 1); }

    CFd m_fdHere;
    CFd m_fdThere;
};

class Poller : public testing::Test
{
protected:
    Poller()
    {
        std::string strError;
        EXPECT_TRUE(m_poller.create(strError)) << strError;
    }

    void wait(int nTimeoutMs = 0)
    {
        std::string strError;
        EXPECT_TRUE(m_poller.wait(nTimeoutMs, strError)) << strError;
    }
    // A watch that counts into nCalls and keeps the events.
    CPoller::CWatch watch(const CFd& fd, uint32_t nEvents, int& nCalls)
    {
        return m_poller.watch(
            fd.get(), nEvents,
            [this, &nCalls](uint32_t nReady) {
                ++nCalls;
                m_nEvents = nReady;
            });
    }

    CPoller m_poller;
    uint32_t m_nEvents = 0;
};
} // namespace

TEST_F(Poller, CallsTheFunctionOfWhatIsReadyAndNoOther)
{
    CPair ready;
    const CPair quiet;
    int nReady = 0;
    int nQuiet = 0;
    const auto watchReady = watch(ready.m_fdHere, EPOLLIN, nReady);
    const auto watchQuiet = watch(quiet.m_fdHere, EPOLLIN, nQuiet);
    EXPECT_TRUE(watchReady.isOn());
    wait();
    EXPECT_EQ(nReady, 0);
    ready.makeReadable();
    wait(-1);
    EXPECT_EQ(nReady, 1);
    EXPECT_EQ(m_nEvents, static_cast<uint32_t>(EPOLLIN));
    EXPECT_EQ(nQuiet, 0);
}

TEST_F(Poller, CallsAgainWhileItIsReady)
{
    CPair pair;
    int nCalls = 0;
    const auto watched = watch(pair.m_fdHere, EPOLLIN, nCalls);
    pair.makeReadable();
    wait();
    wait();
    EXPECT_EQ(nCalls, 2);
}

TEST_F(Poller, WaitsForOtherEventsWhenTold)
{
    CPair pair;
    int nCalls = 0;
    auto watched = watch(pair.m_fdHere, EPOLLIN, nCalls);
    watched.setEvents(EPOLLOUT);
    wait();
    EXPECT_EQ(nCalls, 1);
    EXPECT_EQ(m_nEvents, static_cast<uint32_t>(EPOLLOUT));
    watched.setEvents(0);
    pair.makeReadable();
    wait();
    EXPECT_EQ(nCalls, 1);
}

TEST_F(Poller, ReportsAHangUpEvenToWhoeverWaitsForNothing)
{
    CPair pair;
    int nCalls = 0;
    const auto watched = watch(pair.m_fdHere, 0, nCalls);
    wait();
    EXPECT_EQ(nCalls, 0);
    pair.m_fdThere.close();
    wait();
    EXPECT_EQ(nCalls, 1);
    EXPECT_NE(m_nEvents & EPOLLHUP, 0U);
}

TEST_F(Poller, CallsNobodyWhoseWatchHasEnded)
{
    CPair pair;
    int nCalls = 0;
    {
        const auto watched = watch(pair.m_fdHere, EPOLLIN, nCalls);
        pair.makeReadable();
    }
    wait();
    EXPECT_EQ(nCalls, 0);
    auto watched = watch(pair.m_fdHere, EPOLLIN, nCalls);
    watched.end();
    EXPECT_FALSE(watched.isOn());
    watched.end();
    watched.setEvents(EPOLLIN);
    wait();
    EXPECT_EQ(nCalls, 0);
}

TEST_F(Poller, LetsAFunctionEndItsOwnWatchAndStillUseWhatItHolds)
{
    CPair pair;
    CPoller::CWatch watched;
    std::string strSeen;
    watched = m_poller.watch(pair.m_fdHere.get(), EPOLLIN, [&, strHeld = std::string(100, 'x')](uint32_t) {
        watched.end();
        strSeen += strHeld;
    });
    pair.makeReadable();
    wait();
    wait();
    EXPECT_EQ(strSeen, std::string(100, 'x'));
}

TEST_F(Poller, CallsNobodyWhoseWatchWasEndedByAnotherFunctionOfTheSameWait)
{
    std::array<CPair, 2> pairs;
    std::array<CPoller::CWatch, 2> watches;
    int nCalls = 0;
    for (size_t n = 0; n < 2; ++n)
    {
        watches[n] = m_poller.watch(pairs[n].m_fdHere.get(), EPOLLIN, [&, n](uint32_t) {
            ++nCalls;
            watches[1 - n].end();
        });
        pairs[n].makeReadable();
    }
    wait();
    EXPECT_EQ(nCalls, 1);
}

TEST_F(Poller, GivesANewDescriptorNothingThatWasReportedForAnOldOneOfTheSameNumber)
{
    std::array<CPair, 2> pairs;
    std::array<CPoller::CWatch, 2> watches;
    std::optional<CPair> fresh;
    CPoller::CWatch watchFresh;
    int nOld = 0;
    int nFresh = 0;
    for (size_t n = 0; n < 2; ++n)
    {
        watches[n] = m_poller.watch(pairs[n].m_fdHere.get(), EPOLLIN, [&, n](uint32_t) {
            ++nOld;
            const int nOther = pairs[1 - n].m_fdHere.get();
            watches[1 - n].end();
            fresh.emplace();
            ASSERT_EQ(::dup3(fresh->m_fdHere.get(), nOther, O_CLOEXEC), nOther);
            watchFresh = watch(pairs[1 - n].m_fdHere, EPOLLIN, nFresh);
        });
        pairs[n].makeReadable();
    }
    wait();
    EXPECT_EQ(nOld, 1);
    EXPECT_EQ(nFresh, 0);
    EXPECT_TRUE(watchFresh.isOn());
}

TEST_F(Poller, KeepsAWatchThatMoves)
{
    CPair pair;
    int nCalls = 0;
    auto first = watch(pair.m_fdHere, EPOLLIN, nCalls);
    CPoller::CWatch second = std::move(first);
    EXPECT_FALSE(first.isOn()); // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(second.isOn());
    CPair other;
    int nOther = 0;
    CPoller::CWatch third = watch(other.m_fdHere, EPOLLIN, nOther);
    third = std::move(second);
    pair.makeReadable();
    other.makeReadable();
    wait();
    EXPECT_EQ(nCalls, 1);
    EXPECT_EQ(nOther, 0);
}

TEST_F(Poller, WatchesManyAtOnce)
{
    std::array<CPair, 100> pairs;
    std::array<CPoller::CWatch, 100> watches;
    std::array<int, 100> vCalls = {};
    for (size_t n = 0; n < pairs.size(); ++n)
    {
        watches[n] = m_poller.watch(pairs[n].m_fdHere.get(), EPOLLIN, [&, n](uint32_t) {
            ++vCalls[n];
            watches[n].end();
        });
        pairs[n].makeReadable();
    }
    wait();
    wait();
    EXPECT_THAT(vCalls, testing::Each(1));
}

TEST_F(Poller, IsOffForWhatCannotBeWatched)
{
    int nCalls = 0;
    const CFd fdFile(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(watch(fdFile, EPOLLIN, nCalls).isOn());
    EXPECT_FALSE(watch(CFd(), EPOLLIN, nCalls).isOn());
}

TEST_F(Poller, GoesOnAfterASignal)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, nullptr);
    const itimerval often = {{0, 10000}, {0, 10000}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    wait(-1);
    const itimerval never = {};
    ::setitimer(ITIMER_REAL, &never, nullptr);
}

TEST(PollerWithoutCreate, SaysThatItCannotWait)
{
    CPoller poller;
    std::string strError;
    EXPECT_FALSE(poller.wait(0, strError));
    EXPECT_THAT(strError, HasSubstr("cannot wait for events"));
}
