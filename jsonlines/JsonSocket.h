// Unix stream sockets: descriptors with an owner, listening at a path, connecting to one, who the peer is.
#ifndef JSON_SOCKET_H
#define JSON_SOCKET_H

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <utility>

class CSocketFd
{
public:
    CSocketFd() = default;
    explicit CSocketFd(int nFd) : m_nFd(nFd) {}
    CSocketFd(CSocketFd&& other) noexcept : m_nFd(std::exchange(other.m_nFd, -1)) {}
    CSocketFd& operator=(CSocketFd&& other) noexcept
    {
        if (this != &other)
        {
            close();
            m_nFd = std::exchange(other.m_nFd, -1);
        }
        return *this;
    }
    CSocketFd(const CSocketFd&) = delete;
    CSocketFd& operator=(const CSocketFd&) = delete;
    ~CSocketFd() { close(); }

    int get() const { return m_nFd; }
    bool isOpen() const { return m_nFd >= 0; }
    void close()
    {
        if (m_nFd >= 0)
            ::close(std::exchange(m_nFd, -1));
    }

private:
    int m_nFd = -1;
};

// The process at the other end, as it was when it connected.
struct CJsonPeer
{
    pid_t m_nProcessID = 0;
    uid_t m_nUser = 0;
    gid_t m_nGroup = 0;
};

// False when the system does not tell.
bool peerOf(int nFd, CJsonPeer& peer);

// Connects without waiting; the socket does not block. Not open, with the reason in strError, when nobody
// listens at the path or the listener has no room at this moment.
CSocketFd connectTo(const std::string& strPath, std::string& strError);

// A socket that listens, and the file that it made, which it removes at its end unless another one has
// taken its place.
class CListeningSocket
{
public:
    CListeningSocket() = default;
    ~CListeningSocket();
    CListeningSocket(const CListeningSocket&) = delete;
    CListeningSocket& operator=(const CListeningSocket&) = delete;

    // Makes the file, with that mode from the first moment on. One that nobody listens to any more is
    // replaced. False, with the reason in strError, when the system refuses or when anything else is at the
    // path, which then stays as it is. Sets the umask for a moment: to be called before other threads make
    // files.
    bool open(const std::string& strPath, mode_t nMode, std::string& strError);

    int get() const { return m_fd.get(); }

private:
    CSocketFd m_fd;
    std::string m_strPath; // empty: there is no file of ours
    struct stat m_file = {};
};

#endif
