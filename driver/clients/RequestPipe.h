// The request pipe that all clients write into, and the lock that makes this the only driver.
#ifndef DRIVER_REQUEST_PIPE_H
#define DRIVER_REQUEST_PIPE_H

#include "Fd.h"
#include "LogLimiter.h"
#include "MediaProtocol.h"
#include "RequestFramer.h"

#include <cstddef>
#include <cstdint>
#include <string>

class CRequestPipe
{
public:
    // Warns of bytes that are no request through rubbishLog, which must outlive this.
    CRequestPipe(CRequestFramer::LatestFunction latest, CLogLimiter& rubbishLog);
    CRequestPipe(const CRequestPipe&) = delete;
    CRequestPipe& operator=(const CRequestPipe&) = delete;

    // Removes pipe and lock file, unless somebody has put other files in their places.
    ~CRequestPipe();

    // Takes the lock, which nobody else but root could, and makes a fresh pipe that everybody may write into.
    // Pipe and lock file left by an earlier driver of the same user are replaced, so that its clients find the pipe
    // broken; root replaces anybody's. False, with the whole message in strError, when another driver runs, or a
    // path is taken by another user's file or by something else (which stays).
    bool open(std::string& strError);

    // Readable when there are requests that hasBuffered does not tell of.
    int fd() const;

    // Whether bytes were read that read has not looked at, or not to the end. Then call it again without
    // waiting for fd.
    bool hasBuffered() const;

    // Takes one request out, without blocking. False when there is none left, or when the rubbish that
    // was dropped since it was last false is enough work for one turn of the loop.
    bool read(structMICMD& cmd);

    // Bytes that were no request, since the beginning.
    uint64_t rubbishBytes() const { return m_ullRubbish; }

private:
    bool lock(std::string& strError);
    bool openLockFile(std::string& strError);
    bool isOwnLockFile() const;
    bool removeOldFifo(std::string& strError);
    bool makeFifo(std::string& strError);
    bool next(structMICMD& cmd);
    bool fill();

    CFd m_fdLock;
    CFd m_fdPipe;
    CRequestFramer m_framer;
    CLogLimiter& m_rubbishLog;
    size_t m_nRubbishInTurn = 0;
    uint64_t m_ullRubbish = 0;
};

#endif
