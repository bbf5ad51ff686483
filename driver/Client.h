// A connected client process: its streams, its files, and the events that it has not taken yet.
#ifndef DRIVER_CLIENT_H
#define DRIVER_CLIENT_H

#include "ClientPort.h"
#include "Stream.h"

#include <deque>
#include <map>
#include <memory>
#include <vector>

class CClient
{
public:
    // While this many events wait for the client it can start no further play or recording. That
    // bounds the queue without ever losing an event.
    static constexpr std::size_t MAX_WAITING_EVENTS = 1000000;

    CClient(int nConnectID, std::unique_ptr<CClientPort> pPort);

    int ConnectID() const;
    CClientPort& Port();

    // Puts events behind those that wait; FlushEvents sends them.
    void QueueEvents(const std::vector<structMIEVT>& vEvents);

    // Sends what the client's pipe has room for, in order. False when the client is gone.
    bool FlushEvents();
    std::size_t WaitingEvents() const;

    // Moves all streams by nSamples and queues the events of what ended.
    void Advance(std::size_t nSamples);
    bool IsActive() const;

    // Null when the client has no such stream or file.
    CStream* FindStream(int nStreamID);
    CClipPtr FindFile(int nFileID) const;

    std::map<int, std::unique_ptr<CStream>> m_mapStreamByID;
    std::map<int, CClipPtr> m_mapFileByID;

private:
    const int m_nConnectID;
    std::unique_ptr<CClientPort> m_pPort;
    std::deque<structMIEVT> m_events;
    bool m_bWatchesRoom = false;
};

#endif
