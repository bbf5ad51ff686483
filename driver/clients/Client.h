// A connected client process: its streams, its files, its requests in order, and the events that it has
// not taken yet.
#ifndef DRIVER_CLIENT_H
#define DRIVER_CLIENT_H

#include "ClientPort.h"
#include "DriverState.h"
#include "FaultRules.h"
#include "LogLimiter.h"
#include "Stream.h"

#include <deque>
#include <map>
#include <memory>
#include <optional>

class CClient
{
public:
    // While this many events wait for the client it can start no further play or recording. That
    // bounds the queue without ever losing an event.
    static constexpr size_t MAX_WAITING_EVENTS = 1000000;

    // Requests that wait for an earlier one of the client. The library never has more than one under way.
    static constexpr size_t MAX_WAITING_REQUESTS = 64;

    CClient(int nConnectID, std::unique_ptr<CClientPort> pPort);

    int connectId() const { return m_nConnectID; }
    CClientPort& port() { return *m_pPort; }

    // Puts an event behind those that wait; flushEvents sends them.
    void queueEvent(const structMIEVT& evt);

    // Sends what the client's pipe has room for, in order, and returns how many events those were. None
    // when the client is gone.
    std::optional<size_t> flushEvents();
    size_t waitingEvents() const { return m_events.size(); }

    // Null when the client has no such stream or file.
    std::shared_ptr<CStream> findStream(int nStreamID) const;
    CClipPtr findFile(int nFileID) const;

    CClientState state() const;

    std::map<int, std::shared_ptr<CStream>> m_mapStreamByID;
    std::map<int, CClipPtr> m_mapFileByID;

    // The request handler's: requests are carried out one after the other.
    struct CRequest
    {
        structMICMD m_cmd;
        std::optional<CFaultAction> m_action; // known already when the driver froze over the request
    };
    std::deque<CRequest> m_requests;
    uint64_t m_ullTicket = 0; // of the request under way, 0 for none
    bool m_bRunning = false;  // its requests are being worked off
    uint32_t m_nLatestSequenceNo = 0;
    CLogLimiter m_warnings;

    // It was dropped, and is only kept until the end of the loop's turn.
    bool m_bGone = false;

private:
    const int m_nConnectID;
    std::unique_ptr<CClientPort> m_pPort;
    std::deque<structMIEVT> m_events;
    bool m_bWatchesRoom = false;
};

#endif
