// Waiting for many descriptors at once, with a function for each.
#ifndef DRIVER_POLLER_H
#define DRIVER_POLLER_H

#include "Fd.h"

#include <sys/epoll.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

// Not thread-safe: everything happens on the loop's thread.
class CPoller
{
public:
    // Gets what epoll reports: EPOLLIN, EPOLLOUT, EPOLLERR, EPOLLHUP.
    using ReadyFunction = std::function<void(uint32_t nEvents)>;

    // A descriptor that is watched for as long as this lives. End it before the descriptor is closed.
    class CWatch
    {
    public:
        CWatch() = default;
        CWatch(CWatch&& other) noexcept;
        CWatch& operator=(CWatch&& other) noexcept;
        CWatch(const CWatch&) = delete;
        CWatch& operator=(const CWatch&) = delete;
        ~CWatch();

        bool isOn() const { return m_pPoller != nullptr; }
        // Waits for other events from now on. 0 leaves errors and hang-ups, which are always reported.
        void setEvents(uint32_t nEvents);
        void end();

    private:
        friend class CPoller;
        CPoller* m_pPoller = nullptr;
        int m_nFd = -1;
        uint64_t m_ullID = 0;
    };

    // False, with the message in strError, when the system refuses.
    bool create(std::string& strError);

    // Calls ready whenever one of the events is there. The watch is off when the system refuses.
    // A function may end any watch, its own included.
    CWatch watch(int nFd, uint32_t nEvents, ReadyFunction ready);

    // Waits for the given time, -1 without end, and calls the functions of what is ready. False when
    // waiting failed, with the message in strError; a signal is no failure.
    bool wait(int nTimeoutMs, std::string& strError);

private:
    CFd m_fdEpoll;
    uint64_t m_ullNextID = 1; // never used again, so that a report for an ended watch finds nobody
    std::unordered_map<uint64_t, std::shared_ptr<ReadyFunction>> m_mapReadyByID;
};

#endif
