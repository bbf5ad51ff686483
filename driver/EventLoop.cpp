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

// Ticks that are late by no more are made up for. Packets of older ones would only burst.
constexpr milliseconds MAX_CATCH_UP(100);

// How long the channels without a clock wait for the disk or the decoder when none can move.
constexpr int FAST_WAIT_MS = 1;

sigset_t ourSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int nSignal : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, nSignal);
    return signals;
}

timespec timespecOf(std::chrono::nanoseconds time)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    return {seconds.count(), (time - seconds).count()};
}

int boundedMs(milliseconds time)
{
    return static_cast<int>(std::clamp<int64_t>(time.count(), 0, 60000));
}

void takeExpirations(int nFd)
{
    uint64_t ullCount = 0;
    [[maybe_unused]] const ssize_t nRead = ::read(nFd, &ullCount, sizeof(ullCount));
}
} // namespace

CEventLoop::CEventLoop(CPoller& poller, CMediaClock& mediaClock, CTimerQueue& timers, const CClock& clock,
                       CStatistics& statistics)
    : m_poller(poller), m_mediaClock(mediaClock), m_timers(timers), m_clock(clock), m_statistics(statistics)
{
}

void CEventLoop::blockSignals()
{
    const sigset_t signals = ourSignals();
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    // Pipes without readers and files past a size limit are noticed where they are written.
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
}

bool CEventLoop::create(std::string& strError)
{
    const sigset_t signals = ourSignals();
    m_fdSignal = CFd(::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
    m_fdTick = CFd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    m_fdSecond = CFd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!m_fdSignal.isOpen() || !m_fdTick.isOpen() || !m_fdSecond.isOpen())
    {
        strError = "cannot set up the event loop: " + errnoText(errno);
        return false;
    }
    itimerspec second = {};
    second.it_value = second.it_interval = timespecOf(std::chrono::seconds(1));
    ::timerfd_settime(m_fdSecond.get(), 0, &second, nullptr);
    return addInput(
        m_fdTick.get(), [this] { takeExpirations(m_fdTick.get()); }, strError);
}

bool CEventLoop::addInput(int nFd, std::function<void()> ready, std::string& strError)
{
    m_vInputs.push_back(m_poller.watch(nFd, EPOLLIN, [this, ready = std::move(ready)](uint32_t) {
        // It may have been reported together with what froze the loop.
        if (!m_bFrozen)
            ready();
    }));
    if (!m_vInputs.back().isOn())
    {
        strError = "cannot set up the event loop: " + errnoText(errno);
        return false;
    }
    return true;
}

bool CEventLoop::run(const CDuties& duties, std::string& strError)
{
    m_watchSignal = m_poller.watch(m_fdSignal.get(), EPOLLIN, [&](uint32_t) { onSignal(duties); });
    m_watchSecond = m_poller.watch(m_fdSecond.get(), EPOLLIN, [&](uint32_t) {
        takeExpirations(m_fdSecond.get());
        duties.m_everySecond();
    });
    if (!m_watchSignal.isOn() || !m_watchSecond.isOn())
    {
        strError = "cannot set up the event loop: " + errnoText(errno);
        return false;
    }
    while (!m_bStop)
    {
        armTick();
        if (!m_poller.wait(waitTime(duties.m_hasWork()), strError))
            return false;
        if (m_thawAt && m_clock.now() >= *m_thawAt)
            thaw();
        if (!m_bFrozen)
        {
            move();
            m_timers.runDue();
        }
        duties.m_endTurn();
    }
    return true;
}

int CEventLoop::waitTime(bool bBusy) const
{
    if (m_bFrozen)
        return m_thawAt ? boundedMs(std::chrono::ceil<milliseconds>(*m_thawAt - m_clock.now())) : -1;
    if (bBusy || (m_bTickArmed && m_clock.now() >= m_nextTick) || (m_mediaClock.hasFast() && !m_bFastWaits))
        return 0;
    if (m_mediaClock.hasFast())
        return FAST_WAIT_MS;
    const auto due = m_timers.nextDue();
    return due ? boundedMs(*due) : -1;
}

void CEventLoop::onSignal(const CDuties& duties)
{
    signalfd_siginfo info = {};
    while (::read(m_fdSignal.get(), &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info)))
        if (info.ssi_signo == SIGHUP)
            duties.m_reload();
        else
            m_bStop = true;
}

void CEventLoop::armTick()
{
    const bool bOn = m_mediaClock.hasRealTime();
    if (m_bFrozen || bOn == m_bTickArmed)
        return;
    setTick(bOn);
}

void CEventLoop::setTick(bool bOn)
{
    m_bTickArmed = bOn;
    itimerspec time = {};
    if (bOn)
    {
        m_nextTick = m_clock.now() + TICK;
        time.it_interval = timespecOf(TICK);
        time.it_value = timespecOf(m_nextTick.time_since_epoch()); // the steady clock is CLOCK_MONOTONIC
    }
    ::timerfd_settime(m_fdTick.get(), TFD_TIMER_ABSTIME, &time, nullptr);
}

void CEventLoop::move()
{
    tickRealTime();
    if (m_mediaClock.hasFast())
        m_bFastWaits = !m_mediaClock.tickFast();
}

// One tick a turn, so that those that are made up for leave requests their share.
void CEventLoop::tickRealTime()
{
    const CClock::TimePoint now = m_clock.now();
    if (!m_bTickArmed || now < m_nextTick)
        return;
    if (now - m_nextTick > MAX_CATCH_UP)
    {
        const auto nSkipped = (now - m_nextTick) / TICK;
        m_mediaClock.skipRealTime(static_cast<uint64_t>(nSkipped));
        m_statistics.onTicksSkipped(static_cast<uint64_t>(nSkipped));
        m_nextTick += nSkipped * TICK;
    }
    const CClock::TimePoint begin = m_clock.now();
    m_mediaClock.tickRealTime();
    m_statistics.onTick(begin - m_nextTick, m_clock.now() - begin);
    m_nextTick += TICK;
}

void CEventLoop::freeze(std::optional<milliseconds> time, std::function<void()> thawed)
{
    m_bFrozen = true;
    m_thawAt = time ? std::optional(m_clock.now() + *time) : std::nullopt;
    m_thawed = std::move(thawed);
    setTick(false); // to be armed anew when it has thawed
    for (CPoller::CWatch& watch : m_vInputs)
        watch.setEvents(0);
    spdlog::warn("frozen{}", time ? " for " + std::to_string(time->count()) + " ms" : " until it is thawed");
}

void CEventLoop::thaw()
{
    if (!m_bFrozen)
        return;
    m_bFrozen = false;
    m_thawAt.reset();
    for (CPoller::CWatch& watch : m_vInputs)
        watch.setEvents(EPOLLIN);
    spdlog::warn("thawed");
    std::exchange(m_thawed, nullptr)();
}
