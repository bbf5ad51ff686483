// The way to a client: where its responses and events go.
#ifndef DRIVER_CLIENT_PORT_H
#define DRIVER_CLIENT_PORT_H

#include "MediaProtocol.h"

#include <sys/types.h>

#include <memory>
#include <string>

enum class ESend
{
    Sent,
    Full, // the client does not read; nothing was written
    Gone  // nobody will ever read
};

// Sends never block and send a record whole or not at all.
class CClientPort
{
public:
    virtual ~CClientPort() = default;

    virtual ESend SendResponse(const structMIRSP& rsp) = 0;
    virtual ESend SendEvent(const structMIEVT& evt) = 0;

    // From now on the event loop reports to the client of this connect id that its pipes are broken,
    // and, while asked to, that events can be written again. False when it cannot be watched.
    virtual bool Watch(int nConnectID) = 0;
    virtual void WatchForRoom(bool bOn) = 0;

    virtual pid_t ProcessID() const = 0;

    // Whether the process has ended, as far as that can be known.
    virtual bool IsProcessGone() const = 0;
};

// Opens what MICMD_CONNECT names. Null, with the reason in strError, when that is not acceptable.
class CClientPortOpener
{
public:
    virtual ~CClientPortOpener() = default;

    virtual std::unique_ptr<CClientPort> Open(const structMICMD::ConnectBody& connect, std::string& strError) = 0;
};

#endif
