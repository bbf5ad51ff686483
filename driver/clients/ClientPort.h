// The way to a client: where its responses and events go.
#ifndef DRIVER_CLIENT_PORT_H
#define DRIVER_CLIENT_PORT_H

#include "MediaProtocol.h"

#include <sys/types.h>

#include <functional>
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

    virtual ESend sendResponse(const structMIRSP& rsp) = 0;
    virtual ESend sendEvent(const structMIEVT& evt) = 0;

    // From now on broken is called when nobody reads one of the pipes, and writable, while asked for, when
    // events can be written again. Either may end this port. False when it cannot be watched.
    virtual bool watch(std::function<void()> broken, std::function<void()> writable) = 0;
    virtual void watchForRoom(bool bOn) = 0;

    virtual pid_t processId() const = 0;

    // Whether the process has ended, as far as that can be known, or its pipes are no longer to be found
    // under their names.
    virtual bool isGone() const = 0;
};

// Opens what MICMD_CONNECT names. Null, with the reason in strError, when that is not acceptable.
class CClientPortOpener
{
public:
    virtual ~CClientPortOpener() = default;

    virtual std::unique_ptr<CClientPort> open(const structMICMD::ConnectBody& connect, std::string& strError) = 0;
};

#endif
