// Waiting for many descriptors at once, with a function for each.
#include "Poller.h"

#include "Text.h"

#include <array>
#include <cerrno>
#include <utility>

namespace
{
bool epoll(int nEpollFd, int nOperation, int nFd, uint32_t nEvents, uint64_t ullID)
{
    epoll_event event = {};
    event.events = nEvents;
    event.data.u64 = ullID;
    return ::epoll_ctl(nEpollFd, nOperation, nFd, &event) == 0;
}
} // namespace

CPoller::CWatch::CWatch(CWatch&& other) noexcept
    : m_pPoller(std::exchange(other.m_pPoller, nullptr)), m_nFd(other.m_nFd), m_ullID(other.m_ullID)
{
}

CPoller::CWatch& CPoller::CWatch::operator=(CWatch&& other) noexcept
{
    if (this != &other)
    {
        end();
        m_pPoller = std::exchange(other.m_pPoller, nullptr);
        m_nFd = other.m_nFd;
        m_ullID = other.m_ullID;
    }
    return *this;
}

CPoller::CWatch::~CWatch()
{
    end();
}

void CPoller::CWatch::setEvents(uint32_t nEvents)
{
    if (m_pPoller != nullptr)
        epoll(m_pPoller->m_fdEpoll.get(), EPOLL_CTL_MOD, m_nFd, nEvents, m_ullID);
}

void CPoller::CWatch::end()
{
    if (m_pPoller != nullptr)
    {
        CPoller& poller = *std::exchange(m_pPoller, nullptr);
        epoll(poller.m_fdEpoll.get(), EPOLL_CTL_DEL, m_nFd, 0, 0);
        poller.m_mapReadyByID.erase(m_ullID);
    }
}

bool CPoller::create(std::string& strError)
{
    m_fdEpoll = CFd(::epoll_create1(EPOLL_CLOEXEC));
    if (!m_fdEpoll.isOpen())
    {
        strError = "cannot set up the event loop: " + errnoText(errno);
        return false;
    }
    return true;
}

CPoller::CWatch CPoller::watch(int nFd, uint32_t nEvents, ReadyFunction ready)
{
    CWatch watch;
    const uint64_t ullID = m_ullNextID++;
    m_mapReadyByID.emplace(ullID, std::make_shared<ReadyFunction>(std::move(ready)));
    if (!epoll(m_fdEpoll.get(), EPOLL_CTL_ADD, nFd, nEvents, ullID))
    {
        m_mapReadyByID.erase(ullID);
        return watch;
    }
    watch.m_pPoller = this;
    watch.m_nFd = nFd;
    watch.m_ullID = ullID;
    return watch;
}

bool CPoller::wait(int nTimeoutMs, std::string& strError)
{
    std::array<epoll_event, 64> events;
    const int nEvents = ::epoll_wait(m_fdEpoll.get(), events.data(), static_cast<int>(events.size()), nTimeoutMs);
    if (nEvents < 0 && errno != EINTR)
    {
        strError = "cannot wait for events: " + errnoText(errno);
        return false;
    }
    for (int nEvent = 0; nEvent < nEvents; ++nEvent)
    {
        const epoll_event& event = events[static_cast<size_t>(nEvent)];
        const uint64_t ullID = event.data.u64; // no reference: the system's struct is packed
        const auto it = m_mapReadyByID.find(ullID);
        if (it != m_mapReadyByID.end())
        {
            // Held, because the function may end its own watch.
            const std::shared_ptr<ReadyFunction> pReady = it->second;
            (*pReady)(event.events);
        }
    }
    return true;
}
