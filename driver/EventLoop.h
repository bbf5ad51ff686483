// The one loop of the driver: requests, the media tick, clients, and signals.
#ifndef DRIVER_EVENT_LOOP_H
#define DRIVER_EVENT_LOOP_H

#include "ClientRegistry.h"
#include "Fd.h"
#include "Options.h"
#include "RequestHandler.h"
#include "RequestPipe.h"

#include <sys/epoll.h>

#include <cstdint>
#include <string>

class CEventLoop
{
public:
    // Blocks the signals that end the driver, for the whole process. Call it before anything that
    // they must not interrupt.
    static void BlockSignals();

    // False, with the message in strError, when the system refuses what the loop needs.
    bool Create(std::string& strError);

    // Reports on the pipes of clients, with the connect id as data.
    int EpollFd() const;

    // Serves until a signal ends it. The pipe, registry and handler must be ready.
    // False, with the message in strError, when it had to give up.
    bool Run(CRequestPipe& requestPipe, CRequestHandler& handler, CClientRegistry& registry, ESpeed eSpeed,
             std::string& strError);

private:
    bool Watch(int nFd, std::uint64_t ullData);
    void ArmTick(bool bOn);
    void TakeRequests(CRequestPipe& requestPipe, CRequestHandler& handler);
    void OnClient(const epoll_event& event, CClientRegistry& registry);
    void OnTick(CClientRegistry& registry);

    CFd m_fdEpoll;
    CFd m_fdSignal;
    CFd m_fdTick;
    CFd m_fdCheck; // once a second, for clients that ended unnoticed
    bool m_bTickArmed = false;
    std::uint64_t m_ullTicksDue = 0;
    bool m_bStop = false;
};

#endif
