// The request pipe that all clients write into, and the lock that makes this the only driver.
#include "RequestPipe.h"

#include "Text.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

namespace
{
const char* const PIPE_PATH = MI_REQUEST_PIPE;
const char* const LOCK_PATH = MI_REQUEST_PIPE ".lock";

// The library takes a pipe without room for a broken one: let many requests fit. This is what
// an ordinary user is allowed.
constexpr int PIPE_BYTES = 1 << 20;

bool IsFileAt(int nFd, const char* pPath)
{
    struct stat open = {};
    struct stat there = {};
    return ::fstat(nFd, &open) == 0 && ::lstat(pPath, &there) == 0 && open.st_dev == there.st_dev &&
           open.st_ino == there.st_ino;
}
} // namespace

CRequestPipe::~CRequestPipe()
{
    if (m_fdPipe.IsOpen() && IsFileAt(m_fdPipe.Get(), PIPE_PATH))
    {
        ::unlink(PIPE_PATH);
    }
    if (m_fdLock.IsOpen() && IsFileAt(m_fdLock.Get(), LOCK_PATH))
    {
        ::unlink(LOCK_PATH);
    }
}

bool CRequestPipe::Open(std::string& strError)
{
    if (!Lock(strError))
    {
        m_fdLock.Close();
        return false;
    }
    return MakeFifo(strError);
}

bool CRequestPipe::Lock(std::string& strError)
{
    const std::string strPath = LOCK_PATH;
    for (;;)
    {
        m_fdLock = CFd(::open(LOCK_PATH, O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
        if (!m_fdLock.IsOpen())
        {
            strError = "cannot open the lock file " + strPath + ": " + ErrnoText(errno);
            return false;
        }
        struct stat status = {};
        if (::fstat(m_fdLock.Get(), &status) != 0 || !S_ISREG(status.st_mode))
        {
            strError = strPath + " exists and is not a regular file";
            return false;
        }
        if (::flock(m_fdLock.Get(), LOCK_EX | LOCK_NB) != 0)
        {
            strError = errno == EWOULDBLOCK ? "another driver is running: it holds " + strPath
                                            : "cannot lock " + strPath + ": " + ErrnoText(errno);
            return false;
        }
        // A driver that was just ending may have removed the file between our open and our lock.
        if (IsFileAt(m_fdLock.Get(), LOCK_PATH))
        {
            return true;
        }
    }
}

bool CRequestPipe::MakeFifo(std::string& strError)
{
    const std::string strPath = PIPE_PATH;
    struct stat status = {};
    if (::lstat(PIPE_PATH, &status) == 0)
    {
        if (!S_ISFIFO(status.st_mode))
        {
            strError = strPath + " exists and is not a FIFO; remove it if it is of no use";
            return false;
        }
        if (::unlink(PIPE_PATH) != 0)
        {
            strError = "cannot remove the old " + strPath + ": " + ErrnoText(errno);
            return false;
        }
    }
    if (::mkfifo(PIPE_PATH, 0600) != 0)
    {
        strError = "cannot create " + strPath + ": " + ErrnoText(errno);
        return false;
    }
    // Open for both directions, the pipe never reports an end when its last writer leaves.
    m_fdPipe = CFd(::open(PIPE_PATH, O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!m_fdPipe.IsOpen() || ::fstat(m_fdPipe.Get(), &status) != 0 || !S_ISFIFO(status.st_mode))
    {
        strError = "cannot open " + strPath + ": " + ErrnoText(errno);
        return false;
    }
    // For clients of every user, whatever the umask.
    if (::fchmod(m_fdPipe.Get(), 0666) != 0)
    {
        strError = "cannot open " + strPath + " to everybody: " + ErrnoText(errno);
        return false;
    }
    if (::fcntl(m_fdPipe.Get(), F_SETPIPE_SZ, PIPE_BYTES) < 0)
    {
        spdlog::warn("{} keeps its default size: {}", strPath, ErrnoText(errno));
    }
    return true;
}

int CRequestPipe::Fd() const
{
    return m_fdPipe.Get();
}

bool CRequestPipe::Read(structMICMD& cmd)
{
    for (;;)
    {
        const ssize_t nRead = ::read(m_fdPipe.Get(), &cmd, sizeof(cmd));
        if (nRead == static_cast<ssize_t>(sizeof(cmd)))
        {
            return true;
        }
        if (nRead < 0 && errno == EINTR)
        {
            continue;
        }
        if (nRead < 0)
        {
            if (errno != EAGAIN)
            {
                spdlog::error("cannot read {}: {}", PIPE_PATH, ErrnoText(errno));
            }
            return false;
        }
        // Somebody wrote what is no record. Records behind it are read out of step until the pipe is
        // empty; that ends with a short read, too.
        spdlog::warn("dropped {} bytes out of {} that are no record", nRead, PIPE_PATH);
    }
}
