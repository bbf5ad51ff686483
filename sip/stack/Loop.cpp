// The one loop of the process: the SIP stack's, with descriptors and timers of our own.
#include "Loop.h"

#include <sofia-sip/su.h>
#include <sofia-sip/su_wait.h>

#include <spdlog/spdlog.h>

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <poll.h>
#include <system_error>

struct CLoop::CWatch
{
    int m_nIndex = -1;
    std::shared_ptr<Ready> m_pReady;
};

namespace
{
// Below are frames of C, through which nothing may be thrown.
template <class TASK> void guarded(TASK task)
{
    try
    {
        task();
    }
    catch (const std::exception& exception)
    {
        spdlog::error("a task of the loop failed: {}", exception.what());
    }
}

int onReady(su_root_magic_t*, su_wait_t* pWait, su_wakeup_arg_t* pArgument)
{
    // A copy, as the owner may stop watching.
    const std::shared_ptr<CLoop::Ready> pReady = *static_cast<std::shared_ptr<CLoop::Ready>*>(pArgument);
    guarded([&] { (*pReady)(pWait->revents); });
    return 0;
}
} // namespace

CLoop::CLoop()
{
    if (su_init() != 0 || !(m_pRoot = su_root_create(nullptr)))
        throw std::system_error(errno, std::generic_category(), "the loop cannot be made");
    m_nTimer = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (m_nTimer < 0)
    {
        const int nError = errno;
        su_root_destroy(m_pRoot);
        throw std::system_error(nError, std::generic_category(), "no timer");
    }
    watch(m_nTimer, POLLIN, [this](short) { runTimers(); });
}

CLoop::~CLoop()
{
    while (!m_mapWatches.empty())
        unwatch(m_mapWatches.begin()->first);
    ::close(m_nTimer);
    su_root_destroy(m_pRoot);
    su_deinit();
}

void CLoop::watch(int nDescriptor, short nEvents, Ready ready)
{
    auto pWatch = std::make_unique<CWatch>();
    pWatch->m_pReady = std::make_shared<Ready>(std::move(ready));
    su_wait_t wait = {nDescriptor, nEvents, 0};
    pWatch->m_nIndex = su_root_register(m_pRoot, &wait, onReady, &pWatch->m_pReady, 0);
    if (pWatch->m_nIndex <= 0)
        throw std::system_error(errno, std::generic_category(), "a descriptor cannot be watched");
    m_mapWatches[nDescriptor] = std::move(pWatch);
}

void CLoop::change(int nDescriptor, short nEvents)
{
    const auto iWatch = m_mapWatches.find(nDescriptor);
    if (iWatch != m_mapWatches.end())
        su_root_eventmask(m_pRoot, iWatch->second->m_nIndex, nDescriptor, nEvents);
}

void CLoop::unwatch(int nDescriptor)
{
    const auto iWatch = m_mapWatches.find(nDescriptor);
    if (iWatch != m_mapWatches.end())
    {
        su_root_deregister(m_pRoot, iWatch->second->m_nIndex);
        m_mapWatches.erase(iWatch);
    }
}

uint64_t CLoop::after(std::chrono::milliseconds delay, Task task)
{
    const uint64_t ullTimer = ++m_ullLastTimer;
    const Clock::time_point due = Clock::now() + delay;
    m_timers.emplace(std::make_pair(due, ullTimer), std::move(task));
    m_mapDue[ullTimer] = due;
    arm();
    return ullTimer;
}

void CLoop::cancel(uint64_t ullTimer)
{
    const auto iDue = m_mapDue.find(ullTimer);
    if (iDue != m_mapDue.end())
    {
        m_timers.erase(std::make_pair(iDue->second, ullTimer));
        m_mapDue.erase(iDue);
    }
}

void CLoop::post(Task task)
{
    after(std::chrono::milliseconds(0), std::move(task));
}

void CLoop::runTimers()
{
    uint64_t ullTimes = 0;
    [[maybe_unused]] const ssize_t nRead = ::read(m_nTimer, &ullTimes, sizeof(ullTimes));
    // What is posted meanwhile has its turn in the next round, after the sockets.
    const Clock::time_point now = Clock::now();
    const uint64_t ullLast = m_ullLastTimer;
    for (auto iTimer = m_timers.begin(); iTimer != m_timers.end() && iTimer->first.first <= now;)
    {
        if (iTimer->first.second > ullLast)
        {
            ++iTimer;
            continue;
        }
        const Task task = std::move(iTimer->second);
        m_mapDue.erase(iTimer->first.second);
        m_timers.erase(iTimer);
        guarded(task);
        iTimer = m_timers.begin(); // the task may have cancelled whichever
    }
    arm();
}

void CLoop::arm()
{
    if (m_timers.empty())
        return;
    const auto wait =
        std::chrono::duration_cast<std::chrono::nanoseconds>(m_timers.begin()->first.first - Clock::now());
    const auto nNanoseconds = std::max<std::chrono::nanoseconds::rep>(wait.count(), 1);
    itimerspec when = {};
    when.it_value.tv_sec = nNanoseconds / 1'000'000'000;
    when.it_value.tv_nsec = nNanoseconds % 1'000'000'000;
    ::timerfd_settime(m_nTimer, 0, &when, nullptr);
}

void CLoop::run()
{
    su_root_run(m_pRoot);
}

void CLoop::stop()
{
    su_root_break(m_pRoot);
}

void CLoop::step(std::chrono::milliseconds limit)
{
    su_root_step(m_pRoot, limit.count());
}
