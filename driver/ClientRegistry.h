// All connected clients.
#ifndef DRIVER_CLIENT_REGISTRY_H
#define DRIVER_CLIENT_REGISTRY_H

#include "Client.h"

#include <map>
#include <memory>

class CClientRegistry
{
public:
    // Takes a new client in, under a connect id that was never used before. A client of the same
    // process is dropped: it has lost its connection and comes back. Null when it cannot be watched.
    CClient* Add(std::unique_ptr<CClientPort> pPort);

    // Null for an unknown id.
    CClient* Find(int nConnectID);

    // Closes the streams and files of a client and forgets it.
    void Drop(int nConnectID, const char* pReason);
    void DropAll(const char* pReason);

    // Drops the clients whose process has ended.
    void DropDead();

    // Sends the client the events that wait for it. Drops it if it is gone.
    void Flush(int nConnectID);

    // Moves all streams by nSamples and sends the events of what ended.
    void Advance(std::size_t nSamples);

    // Whether anything plays or records.
    bool IsActive() const;

    const std::map<int, std::unique_ptr<CClient>>& Clients() const;

private:
    std::map<int, std::unique_ptr<CClient>> m_mapClientByID;
    int m_nNextConnectID = 1;
};

#endif
