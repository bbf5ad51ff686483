// The one loop of the driver: what is ready, the media tick, timers and signals.
#include "EventLoop.h"

#include "Text.h"

#include <spdlog/spdlog.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <utility>

namespace
{
using std::chrono::milliseconds;

constexpr milliseconds TICK(TICK_MS);

// After a stall the ticks that were missed are made up for, but requests get their turn in between.
constexpr int MAX_TICKS_PER_TURN = 50;

// How long the channels without a clock wait for the disk or the decoder when none can move.
constexpr int FAST_WAIT_MS = 1;

sigset_t OurSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int nSignal : {SIGTERM, SIGINT, SIGHUP})
    {
        sigaddset(&signals, nSignal);
    }
    return signals;
}

timespec Time(std::chrono::nanoseconds time)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    return {seconds.count(), (time - seconds).count()};
}

int BoundedMs(milliseconds time)
{
    return static_cast<int>(std::clamp<std::int64_t>(time.count(), 0, 60000));
}

void TakeExpirations(int nFd)
{
    std::uint64_t ullCount = 0;
    [[maybe_unused]] const ssize_t nRead = ::read(nFd, &ullCount, sizeof(ullCount));
}
} // namespace

CEventLoop::CEventLoop(CPoller& poller, CMediaClock& mediaClock, CTimerQueue& timers, const CClock& clock,
                       CStatistics& statistics)
    : m_poller(poller), m_mediaClock(mediaClock), m_timers(timers), m_clock(clock), m_statistics(statistics)
{
}

void CEventLoop::BlockSignals()
{
    const sigset_t signals = OurSignals();
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    // Pipes without readers and files past a size limit are noticed where they are written.
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
}

bool CEventLoop::Create(std::string& strError)
{
    const sigset_t signals = OurSignals();
    m_fdSignal = CFd(::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
    m_fdTick = CFd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    m_fdSecond = CFd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!m_fdSignal.IsOpen() || !m_fdTick.IsOpen() || !m_fdSecond.IsOpen())
    {
        strError = "cannot set up the event loop: " + ErrnoText(errno);
        return false;
    }
    itimerspec second = {};
    second.it_value = second.it_interval = Time(std::chrono::seconds(1));
    ::timerfd_settime(m_fdSecond.Get(), 0, &second, nullptr);
    return AddInput(
        m_fdTick.Get(), [this] { TakeExpirations(m_fdTick.Get()); }, strError);
}

bool CEventLoop::AddInput(int nFd, std::function<void()> ready, std::string& strError)
{
    m_vInputs.push_back(m_poller.Watch(nFd, EPOLLIN, [this, ready = std::move(ready)](std::uint32_t) {
        // It may have been reported together with what froze the loop.
        if (!m_bFrozen)
        {
            ready();
        }
    }));
    if (!m_vInputs.back().IsOn())
    {
        strError = "cannot set up the event loop: " + ErrnoText(errno);
        return false;
    }
    return true;
}

bool CEventLoop::Run(const CDuties& duties, std::string& strError)
{
    m_watchSignal = m_poller.Watch(m_fdSignal.Get(), EPOLLIN, [&](std::uint32_t) { OnSignal(duties); });
    m_watchSecond = m_poller.Watch(m_fdSecond.Get(), EPOLLIN, [&](std::uint32_t) {
        TakeExpirations(m_fdSecond.Get());
        duties.m_everySecond();
    });
    if (!m_watchSignal.IsOn() || !m_watchSecond.IsOn())
    {
        strError = "cannot set up the event loop: " + ErrnoText(errno);
        return false;
    }
    while (!m_bStop)
    {
        ArmTick();
        if (!m_poller.Wait(WaitTime(duties.m_hasWork()), strError))
        {
            return false;
        }
        if (m_thawAt && m_clock.Now() >= *m_thawAt)
        {
            Thaw();
        }
        if (!m_bFrozen)
        {
            Move();
            m_timers.RunDue();
        }
        duties.m_endTurn();
    }
    return true;
}

int CEventLoop::WaitTime(bool bBusy) const
{
    if (m_bFrozen)
    {
        return m_thawAt ? BoundedMs(std::chrono::ceil<milliseconds>(*m_thawAt - m_clock.Now())) : -1;
    }
    if (bBusy || (m_bTickArmed && m_clock.Now() >= m_nextTick) || (m_mediaClock.HasFast() && !m_bFastWaits))
    {
        return 0;
    }
    if (m_mediaClock.HasFast())
    {
        return FAST_WAIT_MS;
    }
    const auto due = m_timers.NextDue();
    return due ? BoundedMs(*due) : -1;
}

void CEventLoop::OnSignal(const CDuties& duties)
{
    signalfd_siginfo info = {};
    while (::read(m_fdSignal.Get(), &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info)))
    {
        if (info.ssi_signo == SIGHUP)
        {
            duties.m_reload();
        }
        else
        {
            m_bStop = true;
        }
    }
}

void CEventLoop::ArmTick()
{
    const bool bOn = m_mediaClock.HasRealTime();
    if (m_bFrozen || bOn == m_bTickArmed)
    {
        return;
    }
    SetTick(bOn);
}

void CEventLoop::SetTick(bool bOn)
{
    m_bTickArmed = bOn;
    itimerspec time = {};
    if (bOn)
    {
        m_nextTick = m_clock.Now() + TICK;
        time.it_interval = Time(TICK);
        time.it_value = Time(m_nextTick.time_since_epoch()); // the steady clock is CLOCK_MONOTONIC
    }
    ::timerfd_settime(m_fdTick.Get(), TFD_TIMER_ABSTIME, &time, nullptr);
}

void CEventLoop::Move()
{
    TickRealTime();
    if (m_mediaClock.HasFast())
    {
        m_bFastWaits = !m_mediaClock.TickFast();
    }
}

void CEventLoop::TickRealTime()
{
    CClock::TimePoint now = m_clock.Now();
    for (int nTick = 0; m_bTickArmed && now >= m_nextTick && nTick < MAX_TICKS_PER_TURN; ++nTick)
    {
        m_mediaClock.TickRealTime();
        const CClock::TimePoint end = m_clock.Now();
        m_statistics.OnTick(now - m_nextTick, end - now);
        m_nextTick += TICK;
        now = end;
    }
}

void CEventLoop::Freeze(std::optional<milliseconds> time, std::function<void()> thawed)
{
    m_bFrozen = true;
    m_thawAt = time ? std::optional(m_clock.Now() + *time) : std::nullopt;
    m_thawed = std::move(thawed);
    SetTick(false); // to be armed anew when it has thawed
    for (CPoller::CWatch& watch : m_vInputs)
    {
        watch.SetEvents(0);
    }
    spdlog::warn("frozen{}", time ? " for " + std::to_string(time->count()) + " ms" : " until it is thawed");
}

void CEventLoop::Thaw()
{
    if (!m_bFrozen)
    {
        return;
    }
    m_bFrozen = false;
    m_thawAt.reset();
    for (CPoller::CWatch& watch : m_vInputs)
    {
        watch.SetEvents(EPOLLIN);
    }
    spdlog::warn("thawed");
    std::exchange(m_thawed, nullptr)();
}
