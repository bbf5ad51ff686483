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
    void MakeReadable() { EXPECT_EQ(::send(m_fdThere.Get(), "x", 1, MSG_NOSIGNAL), 1); }

    CFd m_fdHere;
    CFd m_fdThere;
};

class Poller : public testing::Test
{
protected:
    Poller()
    {
        std::string strError;
        EXPECT_TRUE(m_poller.Create(strError)) << strError;
    }

    void Wait(int nTimeoutMs = 0)
    {
        std::string strError;
        EXPECT_TRUE(m_poller.Wait(nTimeoutMs, strError)) << strError;
    }
    // A watch that counts into nCalls and keeps the events.
    CPoller::CWatch Watch(const CFd& fd, std::uint32_t nEvents, int& nCalls)
    {
        return m_poller.Watch(fd.Get(), nEvents, [this, &nCalls](std::uint32_t nReady) {
            ++nCalls;
            m_nEvents = nReady;
        });
    }

    CPoller m_poller;
    std::uint32_t m_nEvents = 0;
};
} // namespace

TEST_F(Poller, CallsTheFunctionOfWhatIsReadyAndNoOther)
{
    CPair ready;
    const CPair quiet;
    int nReady = 0;
    int nQuiet = 0;
    const auto watchReady = Watch(ready.m_fdHere, EPOLLIN, nReady);
    const auto watchQuiet = Watch(quiet.m_fdHere, EPOLLIN, nQuiet);
    EXPECT_TRUE(watchReady.IsOn());
    Wait();
    EXPECT_EQ(nReady, 0);
    ready.MakeReadable();
    Wait(-1);
    EXPECT_EQ(nReady, 1);
    EXPECT_EQ(m_nEvents, static_cast<std::uint32_t>(EPOLLIN));
    EXPECT_EQ(nQuiet, 0);
}

TEST_F(Poller, CallsAgainWhileItIsReady)
{
    CPair pair;
    int nCalls = 0;
    const auto watch = Watch(pair.m_fdHere, EPOLLIN, nCalls);
    pair.MakeReadable();
    Wait();
    Wait();
    EXPECT_EQ(nCalls, 2);
}

TEST_F(Poller, WaitsForOtherEventsWhenTold)
{
    CPair pair;
    int nCalls = 0;
    auto watch = Watch(pair.m_fdHere, EPOLLIN, nCalls);
    watch.SetEvents(EPOLLOUT);
    Wait();
    EXPECT_EQ(nCalls, 1);
    EXPECT_EQ(m_nEvents, static_cast<std::uint32_t>(EPOLLOUT));
    watch.SetEvents(0);
    pair.MakeReadable();
    Wait();
    EXPECT_EQ(nCalls, 1);
}

TEST_F(Poller, ReportsAHangUpEvenToWhoeverWaitsForNothing)
{
    CPair pair;
    int nCalls = 0;
    const auto watch = Watch(pair.m_fdHere, 0, nCalls);
    Wait();
    EXPECT_EQ(nCalls, 0);
    pair.m_fdThere.Close();
    Wait();
    EXPECT_EQ(nCalls, 1);
    EXPECT_NE(m_nEvents & EPOLLHUP, 0U);
}

TEST_F(Poller, CallsNobodyWhoseWatchHasEnded)
{
    CPair pair;
    int nCalls = 0;
    {
        const auto watch = Watch(pair.m_fdHere, EPOLLIN, nCalls);
        pair.MakeReadable();
    }
    Wait();
    EXPECT_EQ(nCalls, 0);
    auto watch = Watch(pair.m_fdHere, EPOLLIN, nCalls);
    watch.End();
    EXPECT_FALSE(watch.IsOn());
    watch.End();
    watch.SetEvents(EPOLLIN);
    Wait();
    EXPECT_EQ(nCalls, 0);
}

TEST_F(Poller, LetsAFunctionEndItsOwnWatchAndStillUseWhatItHolds)
{
    CPair pair;
    CPoller::CWatch watch;
    std::string strSeen;
    watch = m_poller.Watch(pair.m_fdHere.Get(), EPOLLIN, [&, strHeld = std::string(100, 'x')](std::uint32_t) {
        watch.End();
        strSeen += strHeld;
    });
    pair.MakeReadable();
    Wait();
    Wait();
    EXPECT_EQ(strSeen, std::string(100, 'x'));
}

TEST_F(Poller, CallsNobodyWhoseWatchWasEndedByAnotherFunctionOfTheSameWait)
{
    std::array<CPair, 2> pairs;
    std::array<CPoller::CWatch, 2> watches;
    int nCalls = 0;
    for (std::size_t n = 0; n < 2; ++n)
    {
        watches[n] = m_poller.Watch(pairs[n].m_fdHere.Get(), EPOLLIN, [&, n](std::uint32_t) {
            ++nCalls;
            watches[1 - n].End();
        });
        pairs[n].MakeReadable();
    }
    Wait();
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
    for (std::size_t n = 0; n < 2; ++n)
    {
        watches[n] = m_poller.Watch(pairs[n].m_fdHere.Get(), EPOLLIN, [&, n](std::uint32_t) {
            ++nOld;
            const int nOther = pairs[1 - n].m_fdHere.Get();
            watches[1 - n].End();
            fresh.emplace();
            ASSERT_EQ(::dup3(fresh->m_fdHere.Get(), nOther, O_CLOEXEC), nOther);
            watchFresh = Watch(pairs[1 - n].m_fdHere, EPOLLIN, nFresh);
        });
        pairs[n].MakeReadable();
    }
    Wait();
    EXPECT_EQ(nOld, 1);
    EXPECT_EQ(nFresh, 0);
    EXPECT_TRUE(watchFresh.IsOn());
}

TEST_F(Poller, KeepsAWatchThatMoves)
{
    CPair pair;
    int nCalls = 0;
    auto first = Watch(pair.m_fdHere, EPOLLIN, nCalls);
    CPoller::CWatch second = std::move(first);
    EXPECT_FALSE(first.IsOn()); // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(second.IsOn());
    CPair other;
    int nOther = 0;
    CPoller::CWatch third = Watch(other.m_fdHere, EPOLLIN, nOther);
    third = std::move(second);
    pair.MakeReadable();
    other.MakeReadable();
    Wait();
    EXPECT_EQ(nCalls, 1);
    EXPECT_EQ(nOther, 0);
}

TEST_F(Poller, WatchesManyAtOnce)
{
    std::array<CPair, 100> pairs;
    std::array<CPoller::CWatch, 100> watches;
    std::array<int, 100> vCalls = {};
    for (std::size_t n = 0; n < pairs.size(); ++n)
    {
        watches[n] = m_poller.Watch(pairs[n].m_fdHere.Get(), EPOLLIN, [&, n](std::uint32_t) {
            ++vCalls[n];
            watches[n].End();
        });
        pairs[n].MakeReadable();
    }
    Wait();
    Wait();
    EXPECT_THAT(vCalls, testing::Each(1));
}

TEST_F(Poller, IsOffForWhatCannotBeWatched)
{
    int nCalls = 0;
    const CFd fdFile(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(Watch(fdFile, EPOLLIN, nCalls).IsOn());
    EXPECT_FALSE(Watch(CFd(), EPOLLIN, nCalls).IsOn());
}

TEST_F(Poller, GoesOnAfterASignal)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, nullptr);
    const itimerval often = {{0, 10000}, {0, 10000}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    Wait(-1);
    const itimerval never = {};
    ::setitimer(ITIMER_REAL, &never, nullptr);
}

TEST(PollerWithoutCreate, SaysThatItCannotWait)
{
    CPoller poller;
    std::string strError;
    EXPECT_FALSE(poller.Wait(0, strError));
    EXPECT_THAT(strError, HasSubstr("cannot wait for events"));
}
