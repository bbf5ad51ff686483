// All connected clients.
#ifndef DRIVER_CLIENT_REGISTRY_H
#define DRIVER_CLIENT_REGISTRY_H

#include "Client.h"
#include "Statistics.h"

#include <map>
#include <memory>
#include <optional>
#include <vector>

class CClientRegistry
{
public:
    explicit CClientRegistry(CStatistics& statistics);

    // Takes a new client in, under a connect id that was never used before. A client of the same
    // process is dropped: it has lost its connection and comes back. Null when it cannot be watched.
    CClient* add(std::unique_ptr<CClientPort> pPort);

    // Null for an unknown id.
    CClient* find(int nConnectID);

    // The number of the client's latest request; none for an unknown id.
    std::optional<uint32_t> latestSequenceNo(int nConnectID);

    // Closes the streams and files of a client and forgets it: one that has disconnected, or one that is
    // dropped, which is counted. The object stays until sweep, for those who are just using it. False for
    // an unknown id.
    bool disconnect(int nConnectID);
    bool drop(int nConnectID, const char* pReason);
    void dropAll(const char* pReason);

    // Drops the clients whose process or pipes are gone.
    void dropDead();

    // Queues an event for the client, if there is such a one; flushEvents sends it.
    void queueEvent(int nConnectID, const structMIEVT& evt);

    // Sends the events that wait for one client, or for all that got new ones. Drops who is gone.
    void flushEvents(int nConnectID);
    void flushEvents();

    // Ends what was dropped. Called when nobody is using a client.
    void sweep();

    const std::map<int, std::unique_ptr<CClient>>& clients() const { return m_mapClientByID; }

private:
    bool remove(int nConnectID, const char* pReason);

    CStatistics& m_statistics;
    std::map<int, std::unique_ptr<CClient>> m_mapClientByID;
    std::vector<std::unique_ptr<CClient>> m_vGone;
    std::vector<int> m_vWithEvents;
    int m_nNextConnectID = 1;
};

#endif
