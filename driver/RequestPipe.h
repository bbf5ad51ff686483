// The request pipe that all clients write into, and the lock that makes this the only driver.
#ifndef DRIVER_REQUEST_PIPE_H
#define DRIVER_REQUEST_PIPE_H

#include "Fd.h"
#include "MediaProtocol.h"

#include <sys/types.h>

#include <string>

class CRequestPipe
{
public:
    CRequestPipe() = default;
    CRequestPipe(const CRequestPipe&) = delete;
    CRequestPipe& operator=(const CRequestPipe&) = delete;

    // Removes pipe and lock file, unless somebody has put other files in their places.
    ~CRequestPipe();

    // Takes the lock and makes a fresh pipe that everybody may write into. A pipe left by an earlier
    // driver is replaced, so that its clients find it broken. False, with the whole message in strError,
    // when another driver runs, or the path is taken by something that is not a FIFO (which stays).
    bool Open(std::string& strError);

    // Readable when there are requests.
    int Fd() const;

    // Takes one request out. False when there is none left. Bytes that make no whole record are
    // logged and dropped.
    bool Read(structMICMD& cmd);

private:
    bool Lock(std::string& strError);
    bool MakeFifo(std::string& strError);

    CFd m_fdLock;
    CFd m_fdPipe;
};

#endif
