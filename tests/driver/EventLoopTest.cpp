// The loop: inputs, ticks, timers, signals, and standing still while it is frozen.
#include "EventLoop.h"

#include "NullChannel.h"
#include "StreamFixture.h"

#include <gmock/gmock.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/timerfd.h>

#include <csignal>

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{
using Clock = std::chrono::steady_clock;

// Keeps the times at which something is played into it.
class CTimedChannel : public CNullChannel
{
public:
    explicit CTimedChannel(std::vector<Clock::time_point>& vTimes) : m_vTimes(vTimes) {}

    size_t hear(std::span<const uint8_t> samples) override
    {
        m_vTimes.push_back(Clock::now());
        return samples.size();
    }

private:
    std::vector<Clock::time_point>& m_vTimes;
};

// A descriptor that can be made readable.
class CSignalFd
{
public:
    CSignalFd() : m_fd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

    int get() const { return m_fd.get(); }
    void raise() const { EXPECT_EQ(::eventfd_write(m_fd.get(), 1), 0); }
    void lower() const
    {
        eventfd_t ullValue = 0;
        ::eventfd_read(m_fd.get(), &ullValue);
    }

private:
    CFd m_fd;
};

class EventLoop : public CStreamFixture
{
protected:
    explicit EventLoop(const CClock& clock = STEADY)
        : m_timers(clock), m_loop(m_poller, m_clock, m_timers, clock, m_statistics)
    {
        CEventLoop::blockSignals();
        takeSignals(); // of a former test in the same process
        std::string strError;
        EXPECT_TRUE(m_poller.create(strError) && m_loop.create(strError)) << strError;
    }

    // Runs the loop until somebody calls stop.
    void runLoop()
    {
        std::string strError;
        EXPECT_TRUE(m_loop.run({[this] { return m_bHasWork; },
                                [this] {
                                    ++m_nTurns;
                                    if (m_onTurn)
                                        m_onTurn();
                                },
                                [this] { ++m_nSeconds; }, [this] { ++m_nReloads; }},
                               strError))
            << strError;
    }

    static void stop() { ::kill(::getpid(), SIGTERM); }

    void addInput(int nFd, std::function<void()> ready)
    {
        std::string strError;
        EXPECT_TRUE(m_loop.addInput(nFd, std::move(ready), strError)) << strError;
    }

    // Calls the function in some time even while the loop is frozen, as the control socket would.
    void fromOutside(milliseconds delay, std::function<void()> function)
    {
        m_fdOutside = CFd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
        itimerspec time = {};
        time.it_value.tv_nsec = std::chrono::nanoseconds(delay).count();
        ::timerfd_settime(m_fdOutside.get(), 0, &time, nullptr);
        m_watchOutside = m_poller.watch(m_fdOutside.get(), EPOLLIN, [this, function](uint32_t) {
            m_watchOutside.setEvents(0);
            function();
        });
        EXPECT_TRUE(m_watchOutside.isOn());
    }

    std::shared_ptr<CStream> playingStream(size_t nTicks)
    {
        auto pStream = openOn(std::make_unique<CTimedChannel>(m_vTicks), m_executor);
        pStream->startPlay(clip(CSamples(nTicks * TICK_SAMPLES)), 0, nTicks * TICK_SAMPLES, 1);
        return pStream;
    }

    static void takeSignals()
    {
        sigset_t signals;
        sigfillset(&signals);
        const timespec noTime = {};
        while (::sigtimedwait(&signals, nullptr, &noTime) > 0)
        {
        }
    }

    static inline const CSteadyClock STEADY;

    CPoller m_poller;
    CTimerQueue m_timers;
    CStatistics m_statistics;
    CEventLoop m_loop;
    std::function<void()> m_onTurn; // at the end of each turn
    bool m_bHasWork = false;
    int m_nTurns = 0;
    int m_nSeconds = 0;
    int m_nReloads = 0;
    std::vector<Clock::time_point> m_vTicks; // in which playingStream was moved

private:
    CFd m_fdOutside;
    CPoller::CWatch m_watchOutside;
};

// With a clock that stands still.
struct CStill
{
    CManualClock m_still;
};
class EventLoopOfStillTime : protected CStill, public EventLoop
{
protected:
    EventLoopOfStillTime() : EventLoop(m_still) {}

    // How often a stream was moved in each of eight turns, when time leaps after the first.
    std::vector<size_t> movedInTurns(milliseconds leap)
    {
        std::vector<size_t> vMoved;
        m_onTurn = [&] {
            vMoved.push_back(m_vTicks.size());
            m_vTicks.clear();
            if (m_nTurns == 1)
                m_still.m_now += leap;
            else if (m_nTurns == 8)
                stop();
        };
        runLoop();
        vMoved.resize(8);
        return vMoved;
    }
};
} // namespace

TEST_F(EventLoop, ServesInputsUntilASignalEndsIt)
{
    const CSignalFd input;
    int nServed = 0;
    addInput(input.get(), [&] {
        if (++nServed == 3)
        {
            input.lower();
            stop();
        }
    });
    input.raise();
    runLoop();
    EXPECT_EQ(nServed, 3);
}

TEST_F(EventLoop, EndsAtSIGINTAndReloadsAtSIGHUP)
{
    m_timers.after(
        milliseconds(0), [] { ::kill(::getpid(), SIGHUP); });
    m_onTurn = [this] {
        if (m_nReloads == 1)
            ::kill(::getpid(), SIGINT);
    };
    runLoop();
    EXPECT_EQ(m_nReloads, 1);
}

TEST_F(EventLoop, SurvivesWritingWhereNobodyReads)
{
    std::array<int, 2> fds{};
    ASSERT_EQ(::pipe(fds.data()), 0);
    ::close(fds[0]);
    EXPECT_EQ(::write(fds[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    ::close(fds[1]);
}

TEST_F(EventLoop, CallsTimersInTheirTime)
{
    const auto start = Clock::now();
    std::vector<int> vCalled;
    m_timers.after(milliseconds(40), [&] {
        vCalled.push_back(40);
        EXPECT_GE(Clock::now() - start, milliseconds(40));
        stop();
    });
    m_timers.after(milliseconds(20), [&] {
        vCalled.push_back(20);
        EXPECT_GE(Clock::now() - start, milliseconds(20));
    });
    runLoop();
    EXPECT_THAT(vCalled, ElementsAre(20, 40));
}

TEST_F(EventLoop, MovesStreamsByItsClockAndNeverEarly)
{
    const auto start = Clock::now();
    const auto pStream = playingStream(5);
    m_onTurn = [&] {
        if (!pStream->isPlaying())
            stop();
    };
    runLoop();
    ASSERT_EQ(m_vTicks.size(), 5U);
    for (size_t nTick = 0; nTick < m_vTicks.size(); ++nTick)
        EXPECT_GE(m_vTicks[nTick] - start, milliseconds(20) * (nTick + 1)) << nTick;
    EXPECT_EQ(m_statistics.m_tickLateness.count(), 5U);
    EXPECT_EQ(m_statistics.m_tickDuration.count(), 5U);
}

TEST_F(EventLoop, DoesNothingWhenNothingIsToBeDone)
{
    m_timers.after(milliseconds(150), stop);
    runLoop();
    EXPECT_LE(m_nTurns, 5);
}

TEST_F(EventLoop, TicksNoMoreWhenNobodyPlays)
{
    auto pStream = playingStream(1000);
    m_timers.after(
        milliseconds(50), [&] { pStream.reset(); });
    m_timers.after(milliseconds(60), [this] { m_nTurns = 0; });
    m_timers.after(milliseconds(260), stop);
    runLoop();
    EXPECT_LE(m_nTurns, 5);
}

TEST_F(EventLoop, DoesNotWaitWhileThereIsWork)
{
    m_bHasWork = true;
    m_onTurn = [this] {
        if (m_nTurns == 100)
            stop();
    };
    bool bWaited = false;
    m_timers.after(std::chrono::seconds(20), [&] { // all that it could wait for
        bWaited = true;
        stop();
    });
    runLoop();
    EXPECT_FALSE(bWaited);
}

TEST_F(EventLoop, FastStreamsRunAtOnceAndLetInputsHaveTheirTurn)
{
    const CSignalFd input;
    size_t nAtInput = 0;
    const auto pStream = open();
    pStream->startPlay(clip(noise(160000)), 0, 160000, 1);
    addInput(input.get(), [&] {
        input.lower();
        nAtInput = pStream->state().m_nPlayPosition;
    });
    input.raise();
    m_onTurn = [&] {
        if (!pStream->isPlaying())
            stop();
    };
    const auto start = Clock::now();
    runLoop();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20)); // of audio
    EXPECT_LT(nAtInput, 160000U);
    EXPECT_GE(m_nTurns, 1000);
}

TEST_F(EventLoop, FastStreamsThatCannotMoveKeepNobodyBusy)
{
    const auto pClip = std::make_shared<CClip>("clip", 1000);
    const auto pStream = open();
    pStream->startPlay(pClip, 0, 1000, 1);
    m_timers.after(milliseconds(100), stop);
    const auto start = Clock::now();
    runLoop();
    EXPECT_LE(m_nTurns, (Clock::now() - start) / milliseconds(1) + 10);
}

TEST_F(EventLoop, StandsStillWhileItIsFrozenForATime)
{
    const CSignalFd input;
    Clock::time_point frozen;
    Clock::time_point thawed;
    int nThawed = 0;
    const auto pStream = playingStream(6);
    addInput(
        input.get(),
        [&] {
            input.lower();
            if (m_loop.isFrozen() || nThawed == 0)
            {
                frozen = Clock::now();
                m_loop.freeze(
                    milliseconds(100),
                    [&] {
                        thawed = Clock::now();
                        ++nThawed;
                    });
                input.raise(); // while it is frozen
            }
        });
    m_timers.after(
        milliseconds(50), [&] { input.raise(); });
    m_timers.after(
        milliseconds(60), [&] { EXPECT_EQ(nThawed, 1) << "a timer has gone on"; });
    m_onTurn = [&] {
        if (!pStream->isPlaying())
            stop();
    };
    runLoop();
    EXPECT_EQ(nThawed, 1);
    EXPECT_GE(thawed - frozen, milliseconds(100));
    ASSERT_EQ(m_vTicks.size(), 6U);
    size_t nAfter = 0;
    for (const auto& tick : m_vTicks)
    {
        EXPECT_TRUE(tick <= frozen || tick >= thawed);
        if (tick >= thawed)
        {
            // The ticks of the meantime are not made up for.
            EXPECT_GE(tick - thawed, milliseconds(20) * ++nAfter - milliseconds(1));
        }
    }
    EXPECT_GT(nAfter, 0U);
}

TEST_F(EventLoop, StaysFrozenUntilItIsThawedFromOutside)
{
    int nThawed = 0;
    bool bStoppedFrozen = false;
    m_timers.after(milliseconds(0), [&] {
        m_loop.freeze(std::nullopt, [&] { ++nThawed; });
        m_timers.after(milliseconds(0), [&] {
            bStoppedFrozen = nThawed == 0;
            stop();
        });
    });
    fromOutside(milliseconds(50), [&] {
        EXPECT_TRUE(m_loop.isFrozen());
        m_loop.thaw();
        EXPECT_FALSE(m_loop.isFrozen());
        m_loop.thaw();
    });
    runLoop();
    EXPECT_EQ(nThawed, 1);
    EXPECT_FALSE(bStoppedFrozen);
    EXPECT_LE(m_nTurns, 6) << "it was busy while it was frozen";
}

TEST_F(EventLoop, ServesNoInputThatIsReportedTogetherWithTheOneThatFreezesIt)
{
    const CSignalFd first;
    const CSignalFd second;
    int nFrozen = 0;
    int nServedFrozen = 0;
    for (const CSignalFd* pInput : {&first, &second})
    {
        addInput(pInput->get(), [&, pInput] {
            pInput->lower();
            nServedFrozen += m_loop.isFrozen() ? 1 : 0;
            m_loop.freeze(milliseconds(10), [&] {
                if (++nFrozen == 2)
                    stop();
            });
        });
        pInput->raise();
    }
    fromOutside(milliseconds(900), stop); // if it never comes to the second
    runLoop();
    EXPECT_EQ(nFrozen, 2);
    EXPECT_EQ(nServedFrozen, 0);
}

TEST_F(EventLoop, MayFreezeAgainWhenItThaws)
{
    int nThawed = 0;
    std::function<void()> thawed = [&] {
        if (++nThawed < 3)
        {
            m_loop.freeze(milliseconds(5), thawed);
            return;
        }
        stop();
    };
    m_timers.after(milliseconds(0), [&] { m_loop.freeze(milliseconds(5), thawed); });
    runLoop();
    EXPECT_EQ(nThawed, 3);
}

TEST_F(EventLoop, HearsSignalsWhileItIsFrozen)
{
    m_timers.after(milliseconds(0), [&] {
        m_loop.freeze(std::nullopt, [] {});
        ::kill(::getpid(), SIGHUP);
        stop();
    });
    runLoop();
    EXPECT_EQ(m_nReloads, 1);
    EXPECT_TRUE(m_loop.isFrozen());
}

TEST_F(EventLoop, ForgetsTheTickOfStreamsThatHaveGoneWhileItWasFrozen)
{
    auto pStream = playingStream(1000);
    m_timers.after(
        milliseconds(30),
        [&] {
            m_loop.freeze(
                milliseconds(20), [&] { m_nTurns = 0; });
        });
    fromOutside(milliseconds(40), [&] { pStream.reset(); });
    m_timers.after(milliseconds(300), stop);
    runLoop();
    EXPECT_LE(m_nTurns, 5);
}

TEST_F(EventLoopOfStillTime, MakesUpForATenthOfASecondOneTickATurn)
{
    m_bHasWork = true; // without which it would wait for a timer that never comes
    const auto pStream = playingStream(1000);
    EXPECT_THAT(movedInTurns(milliseconds(20 * 6)), ElementsAre(0, 1, 1, 1, 1, 1, 1, 0));
    EXPECT_EQ(m_statistics.m_ullTicksSkipped, 0U);
}

TEST_F(EventLoopOfStillTime, SkipsWhatIsLaterAndBurstsNothing)
{
    m_bHasWork = true;
    const auto pStream = playingStream(1000);
    EXPECT_THAT(movedInTurns(milliseconds(20 * 250)), ElementsAre(0, 1, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(m_statistics.m_ullTicksSkipped, 249U);
    EXPECT_EQ(m_statistics.toJson(Clock::now())["ticks"]["skipped"], 249);
}

TEST_F(EventLoopOfStillTime, InputsHaveTheirTurnBeforeEachTickThatIsLate)
{
    m_bHasWork = true;
    const auto pStream = playingStream(1000);
    CSignalFd input;
    input.raise();
    int nServed = 0;
    addInput(
        input.get(),
        [&] {
            ++nServed;
            m_still.m_now += milliseconds(30); // more work than there is time
        });
    m_onTurn = [&] {
        if (m_nTurns == 100)
            stop();
    };
    runLoop();
    EXPECT_GE(nServed, 100);
    EXPECT_GE(m_vTicks.size(), 40U);
}

TEST(EventLoopWithoutDescriptors, SaysThatItCannotBeSetUp)
{
    CPoller poller;
    CMediaClock mediaClock;
    const CSteadyClock clock;
    CTimerQueue timers(clock);
    CStatistics statistics;
    CEventLoop loop(poller, mediaClock, timers, clock, statistics);
    rlimit former = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit none = {0, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    std::string strError;
    const bool bCreated = loop.create(strError);
    ::setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_FALSE(bCreated);
    EXPECT_THAT(strError, HasSubstr("cannot set up the event loop: Too many open files"));
}

TEST_F(EventLoop, SaysWhichInputItCannotWatch)
{
    std::string strError;
    EXPECT_FALSE(m_loop.addInput(
        -1, [] {}, strError));
    EXPECT_THAT(strError, HasSubstr("Bad file descriptor"));
}
