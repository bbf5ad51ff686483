// The request pipe that all clients write into, and the lock that makes this the only driver.
#include "RequestPipe.h"

#include "Text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <span>
#include <utility>

namespace
{
const char* const PIPE_PATH = MI_REQUEST_PIPE;
const char* const LOCK_PATH = MI_REQUEST_PIPE ".lock";

// The library takes a pipe without room for a broken one: let many requests fit. This is what
// an ordinary user is allowed.
constexpr int PIPE_BYTES = 1 << 20;

// Rubbish must not keep the loop from its other work, neither by its size nor by coming byte by byte.
// Two reads are needed: the second one may tell that nothing follows what the first one has got.
constexpr size_t MAX_RUBBISH_PER_TURN = 32768;
constexpr int MAX_READS = 2;

bool isFileAt(int nFd, const char* pPath)
{
    struct stat open = {};
    struct stat there = {};
    return ::fstat(nFd, &open) == 0 && ::lstat(pPath, &there) == 0 && open.st_dev == there.st_dev &&
           open.st_ino == there.st_ino;
}
} // namespace

CRequestPipe::CRequestPipe(CRequestFramer::LatestFunction latest, CLogLimiter& rubbishLog)
    : m_framer(std::move(latest)), m_rubbishLog(rubbishLog)
{
}

CRequestPipe::~CRequestPipe()
{
    if (m_fdPipe.isOpen() && isFileAt(m_fdPipe.get(), PIPE_PATH))
        ::unlink(PIPE_PATH);
    if (m_fdLock.isOpen() && isFileAt(m_fdLock.get(), LOCK_PATH))
        ::unlink(LOCK_PATH);
}

bool CRequestPipe::open(std::string& strError)
{
    if (!lock(strError))
    {
        m_fdLock.close();
        return false;
    }
    return removeOldFifo(strError) && makeFifo(strError);
}

bool CRequestPipe::lock(std::string& strError)
{
    const std::string strPath = LOCK_PATH;
    for (;;)
    {
        if (!openLockFile(strError))
            return false;
        if (::flock(m_fdLock.get(), LOCK_EX | LOCK_NB) != 0)
        {
            strError = errno == EWOULDBLOCK ? "another driver is running: it holds " + strPath
                                            : "cannot lock " + strPath + ": " + errnoText(errno);
            return false;
        }
        // A driver that was just ending may have removed the file between our open and our lock.
        if (isFileAt(m_fdLock.get(), LOCK_PATH) && (isOwnLockFile() || ::unlink(LOCK_PATH) != 0))
            return true;
    }
}

// Root replaces what the driver of another user has left, for that user could lock it at any time.
bool CRequestPipe::isOwnLockFile() const
{
    struct stat status = {};
    return ::fstat(m_fdLock.get(), &status) == 0 && status.st_uid == ::geteuid();
}

bool CRequestPipe::openLockFile(std::string& strError)
{
    const std::string strPath = LOCK_PATH;
    const int nFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    do
    {
        // Not in one step: systems may forbid O_CREAT on what another user's driver has left in /tmp.
        m_fdLock = CFd(::open(LOCK_PATH, nFlags));
        if (!m_fdLock.isOpen() && errno == ENOENT)
            m_fdLock = CFd(::open(LOCK_PATH, nFlags | O_CREAT | O_EXCL, 0600));
    } while (!m_fdLock.isOpen() && errno == EEXIST);
    const int nErrno = errno;
    struct stat status = {};
    const bool bThere = ::lstat(LOCK_PATH, &status) == 0;
    if (bThere && S_ISREG(status.st_mode) && status.st_uid != ::geteuid() && ::geteuid() != 0)
    {
        strError = fmt::format("another driver is running, or was killed: {} belongs to user {}, who or root must end "
                               "the one or remove the other",
                               strPath, status.st_uid);
        return false;
    }
    if (!m_fdLock.isOpen() || ::fstat(m_fdLock.get(), &status) != 0)
    {
        strError = "cannot open the lock file " + strPath + ": " + errnoText(nErrno);
        return false;
    }
    if (!S_ISREG(status.st_mode))
    {
        strError = strPath + " exists and is not a regular file; remove it if it is of no use";
        return false;
    }
    // Whoever can open it can lock it. Earlier drivers left it open to everybody.
    if (status.st_uid == ::geteuid() && (status.st_mode & 07777) != 0600 && ::fchmod(m_fdLock.get(), 0600) != 0)
    {
        strError = "cannot keep others from locking " + strPath + ": " + errnoText(errno);
        return false;
    }
    return true;
}

bool CRequestPipe::removeOldFifo(std::string& strError)
{
    const std::string strPath = PIPE_PATH;
    struct stat status = {};
    if (::lstat(PIPE_PATH, &status) != 0)
        return true;
    if (!S_ISFIFO(status.st_mode))
    {
        strError = strPath + " exists and is not a FIFO; remove it if it is of no use";
        return false;
    }
    if (status.st_uid != ::geteuid() && ::geteuid() != 0)
    {
        strError = fmt::format("{} belongs to user {}, who or root must remove it", strPath, status.st_uid);
        return false;
    }
    if (::unlink(PIPE_PATH) != 0)
    {
        strError = "cannot remove the old " + strPath + ": " + errnoText(errno);
        return false;
    }
    return true;
}

bool CRequestPipe::makeFifo(std::string& strError)
{
    const std::string strPath = PIPE_PATH;
    if (::mkfifo(PIPE_PATH, 0600) != 0)
    {
        strError = "cannot create " + strPath + ": " + errnoText(errno);
        return false;
    }
    // Open for both directions, the pipe never reports an end when its last writer leaves.
    struct stat status = {};
    m_fdPipe = CFd(::open(PIPE_PATH, O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!m_fdPipe.isOpen() || ::fstat(m_fdPipe.get(), &status) != 0 || !S_ISFIFO(status.st_mode))
    {
        strError = "cannot open " + strPath + ": " + errnoText(errno);
        return false;
    }
    // For clients of every user, whatever the umask.
    if (::fchmod(m_fdPipe.get(), 0666) != 0)
    {
        strError = "cannot open " + strPath + " to everybody: " + errnoText(errno);
        return false;
    }
    if (::fcntl(m_fdPipe.get(), F_SETPIPE_SZ, PIPE_BYTES) < 0)
        spdlog::warn("{} keeps its default size: {}", strPath, errnoText(errno));
    return true;
}

int CRequestPipe::fd() const
{
    return m_fdPipe.get();
}

bool CRequestPipe::hasBuffered() const
{
    return m_framer.waiting() > 0;
}

bool CRequestPipe::read(structMICMD& cmd)
{
    for (int nReads = 0; nReads <= MAX_READS; ++nReads)
    {
        if (next(cmd))
            return true;
        if (m_nRubbishInTurn >= MAX_RUBBISH_PER_TURN || nReads == MAX_READS || !fill())
            break;
    }
    m_nRubbishInTurn = 0;
    return false;
}

bool CRequestPipe::next(structMICMD& cmd)
{
    const bool bFound = m_framer.next(cmd);
    const size_t nRubbish = m_framer.takeRubbish();
    if (nRubbish > 0)
    {
        m_nRubbishInTurn += nRubbish;
        m_ullRubbish += nRubbish;
        m_rubbishLog.warn("dropped {} bytes out of {} that are no request", nRubbish, PIPE_PATH);
    }
    return bFound;
}

// False when there is nothing new for the framer.
bool CRequestPipe::fill()
{
    const std::span<unsigned char> room = m_framer.room();
    ssize_t nRead = -1;
    do
    {
        nRead = ::read(m_fdPipe.get(), room.data(), room.size());
    } while (nRead < 0 && errno == EINTR);
    if (nRead > 0)
    {
        // A pipe gives what it has: less than asked for means that it was empty then, or that a write in
        // packet mode ended there. Neither is in the middle of a request.
        m_framer.added(static_cast<size_t>(nRead), static_cast<size_t>(nRead) < room.size());
        return true;
    }
    if (nRead < 0 && errno != EAGAIN)
        m_rubbishLog.warn("cannot read {}: {}", PIPE_PATH, errnoText(errno));
    m_framer.added(0, true);
    return m_framer.waiting() > 0;
}
