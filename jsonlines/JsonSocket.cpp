// Unix stream sockets: descriptors with an owner, listening at a path, connecting to one, who the peer is.
#include "JsonSocket.h"

#include "JsonText.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace
{
constexpr int BACKLOG = 64;

CSocketFd newSocket()
{
    return CSocketFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

bool addressOf(const std::string& strPath, sockaddr_un& address, std::string& strError)
{
    if (strPath.empty() || strPath.size() >= sizeof(address.sun_path) || strPath.find('\0') != std::string::npos)
    {
        strError = quotedText(strPath) + " cannot be the path of a socket: it must have 1 to " +
                   std::to_string(sizeof(address.sun_path) - 1) + " bytes";
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, strPath.c_str(), strPath.size() + 1);
    return true;
}

bool connectSocket(int nFd, const sockaddr_un& address)
{
    return ::connect(nFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool removeStale(const std::string& strPath, const sockaddr_un& address, std::string& strError)
{
    struct stat status = {};
    if (::lstat(strPath.c_str(), &status) != 0)
        return true; // most likely there is none; if not, bind says what is wrong
    if (!S_ISSOCK(status.st_mode))
    {
        strError = quotedText(strPath) + " exists and is not a socket; remove it if it is of no use";
        return false;
    }
    const CSocketFd fd = newSocket();
    if (connectSocket(fd.get(), address) || errno == EAGAIN)
    {
        strError = "another program listens at " + quotedText(strPath);
        return false;
    }
    if (errno != ECONNREFUSED || ::unlink(strPath.c_str()) != 0)
    {
        strError = "cannot replace " + quotedText(strPath) + ": " + errnoText(errno);
        return false;
    }
    return true;
}
} // namespace

bool peerOf(int nFd, CJsonPeer& peer)
{
    ucred credentials = {};
    socklen_t nSize = sizeof(credentials);
    if (::getsockopt(nFd, SOL_SOCKET, SO_PEERCRED, &credentials, &nSize) != 0)
        return false;
    peer = {credentials.pid, credentials.uid, credentials.gid};
    return true;
}

CSocketFd connectTo(const std::string& strPath, std::string& strError)
{
    sockaddr_un address = {};
    if (!addressOf(strPath, address, strError))
        return CSocketFd();
    CSocketFd fd = newSocket();
    if (!fd.isOpen() || !connectSocket(fd.get(), address))
    {
        strError = "cannot connect to " + quotedText(strPath) + ": " + errnoText(errno);
        fd.close();
    }
    return fd;
}

CListeningSocket::~CListeningSocket()
{
    // While the socket is open its inode number belongs to no other file.
    struct stat there = {};
    if (!m_strPath.empty() && ::lstat(m_strPath.c_str(), &there) == 0 && there.st_dev == m_file.st_dev &&
        there.st_ino == m_file.st_ino)
        ::unlink(m_strPath.c_str());
}

bool CListeningSocket::open(const std::string& strPath, mode_t nMode, std::string& strError)
{
    sockaddr_un address = {};
    if (!addressOf(strPath, address, strError) || !removeStale(strPath, address, strError))
        return false;
    m_fd = newSocket();
    const mode_t nUmask = ::umask(static_cast<mode_t>(~nMode & 0777U));
    const bool bBound = ::bind(m_fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    const int nErrno = errno;
    ::umask(nUmask);
    if (!bBound)
    {
        strError = "cannot create the socket " + quotedText(strPath) + ": " + errnoText(nErrno);
        return false;
    }
    if (::lstat(strPath.c_str(), &m_file) == 0)
        m_strPath = strPath;
    if (::listen(m_fd.get(), BACKLOG) != 0)
    {
        strError = "cannot listen at " + quotedText(strPath) + ": " + errnoText(errno);
        return false;
    }
    return true;
}
