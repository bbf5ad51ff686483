// The one loop of the driver: requests, the media tick, clients, and signals.
#include "EventLoop.h"

#include "Text.h"

#include <spdlog/spdlog.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

namespace
{
constexpr long TICK_MS = 20;
constexpr std::size_t TICK_SAMPLES = TICK_MS * MI_SAMPLES_PER_MILLISECOND;

// After a stall the ticks that were missed are made up for, but requests get their turn in between.
constexpr std::uint64_t MAX_TICKS_PER_TURN = 50;
constexpr int MAX_REQUESTS_PER_TURN = 64;

// Connect ids, which are positive ints, are the data of the clients' pipes.
enum : std::uint64_t
{
    DATA_REQUESTS = std::uint64_t{1} << 32,
    DATA_SIGNAL,
    DATA_TICK,
    DATA_CHECK
};

sigset_t EndingSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

void SetTimer(int nFd, long nMs)
{
    itimerspec time = {};
    time.it_interval = {nMs / 1000, nMs % 1000 * 1000000};
    time.it_value = time.it_interval;
    ::timerfd_settime(nFd, 0, &time, nullptr);
}

std::uint64_t TakeExpirations(int nFd)
{
    std::uint64_t ullCount = 0;
    return ::read(nFd, &ullCount, sizeof(ullCount)) == sizeof(ullCount) ? ullCount : 0;
}
} // namespace

void CEventLoop::BlockSignals()
{
    const sigset_t signals = EndingSignals();
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    // Pipes without readers and files past a size limit are noticed where they are written.
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
}

bool CEventLoop::Create(std::string& strError)
{
    const sigset_t signals = EndingSignals();
    m_fdEpoll = CFd(::epoll_create1(EPOLL_CLOEXEC));
    m_fdSignal = CFd(::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
    m_fdTick = CFd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    m_fdCheck = CFd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!m_fdEpoll.IsOpen() || !m_fdSignal.IsOpen() || !m_fdTick.IsOpen() || !m_fdCheck.IsOpen() ||
        !Watch(m_fdSignal.Get(), DATA_SIGNAL) || !Watch(m_fdTick.Get(), DATA_TICK) ||
        !Watch(m_fdCheck.Get(), DATA_CHECK))
    {
        strError = "cannot set up the event loop: " + ErrnoText(errno);
        return false;
    }
    SetTimer(m_fdCheck.Get(), 1000);
    return true;
}

int CEventLoop::EpollFd() const
{
    return m_fdEpoll.Get();
}

bool CEventLoop::Run(CRequestPipe& requestPipe, CRequestHandler& handler, CClientRegistry& registry, ESpeed eSpeed,
                     std::string& strError)
{
    if (!Watch(requestPipe.Fd(), DATA_REQUESTS))
    {
        strError = "cannot watch the request pipe: " + ErrnoText(errno);
        return false;
    }
    std::array<epoll_event, 64> events;
    while (!m_bStop)
    {
        const bool bActive = registry.IsActive();
        const bool bRace = bActive && eSpeed == ESpeed::Max;
        ArmTick(bActive && eSpeed == ESpeed::RealTime);
        const bool bWait = !bRace && m_ullTicksDue == 0;
        const int nEvents =
            ::epoll_wait(m_fdEpoll.Get(), events.data(), static_cast<int>(events.size()), bWait ? -1 : 0);
        if (nEvents < 0 && errno != EINTR)
        {
            strError = "cannot wait for events: " + ErrnoText(errno);
            return false;
        }
        for (int nEvent = 0; nEvent < nEvents; ++nEvent)
        {
            const epoll_event& event = events[static_cast<std::size_t>(nEvent)];
            switch (event.data.u64)
            {
            case DATA_REQUESTS: TakeRequests(requestPipe, handler); break;
            case DATA_SIGNAL: m_bStop = true; break;
            case DATA_TICK: m_ullTicksDue += TakeExpirations(m_fdTick.Get()); break;
            case DATA_CHECK:
                TakeExpirations(m_fdCheck.Get());
                registry.DropDead();
                break;
            default: OnClient(event, registry); break;
            }
        }
        if (bRace)
        {
            registry.Advance(TICK_SAMPLES);
        }
        OnTick(registry);
    }
    return true;
}

bool CEventLoop::Watch(int nFd, std::uint64_t ullData)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = ullData;
    return ::epoll_ctl(m_fdEpoll.Get(), EPOLL_CTL_ADD, nFd, &event) == 0;
}

void CEventLoop::ArmTick(bool bOn)
{
    if (bOn != m_bTickArmed)
    {
        m_bTickArmed = bOn;
        m_ullTicksDue = 0;
        SetTimer(m_fdTick.Get(), bOn ? TICK_MS : 0);
    }
}

void CEventLoop::TakeRequests(CRequestPipe& requestPipe, CRequestHandler& handler)
{
    structMICMD cmd;
    for (int nRequest = 0; nRequest < MAX_REQUESTS_PER_TURN && requestPipe.Read(cmd); ++nRequest)
    {
        handler.Handle(cmd);
    }
}

void CEventLoop::OnClient(const epoll_event& event, CClientRegistry& registry)
{
    const int nConnectID = static_cast<int>(event.data.u64);
    if ((event.events & (EPOLLERR | EPOLLHUP)) != 0)
    {
        registry.Drop(nConnectID, "nobody reads its pipes");
    }
    else
    {
        registry.Flush(nConnectID);
    }
}

void CEventLoop::OnTick(CClientRegistry& registry)
{
    const std::uint64_t ullTicks = std::min(m_ullTicksDue, MAX_TICKS_PER_TURN);
    for (std::uint64_t ullTick = 0; ullTick < ullTicks; ++ullTick)
    {
        registry.Advance(TICK_SAMPLES);
    }
    m_ullTicksDue -= ullTicks;
}
