// The Unix socket on which the driver is looked at and interfered with.
#include "ControlSocket.h"

#include "Text.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace
{
constexpr int BACKLOG = 64;

CFd newSocket()
{
    return CFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

bool addressOf(const std::string& strPath, sockaddr_un& address, std::string& strError)
{
    if (strPath.empty() || strPath.size() >= sizeof(address.sun_path))
    {
        strError = fmt::format("\"{}\" cannot be the path of a socket: it must have 1 to {} bytes", printable(strPath),
                               sizeof(address.sun_path) - 1);
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, strPath.c_str(), strPath.size() + 1);
    return true;
}

// Removes a socket that nobody listens to.
bool removeStale(const sockaddr_un& address, std::string& strError)
{
    const char* pPath = address.sun_path;
    struct stat status = {};
    if (::lstat(pPath, &status) != 0)
        return true; // most likely there is none; if not, bind says what is wrong
    if (!S_ISSOCK(status.st_mode))
    {
        strError = fmt::format("\"{}\" exists and is not a socket; remove it if it is of no use", printable(pPath));
        return false;
    }
    const CFd fd = newSocket();
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 || errno == EAGAIN)
    {
        strError = fmt::format("another program listens at \"{}\"", printable(pPath));
        return false;
    }
    if (errno != ECONNREFUSED || ::unlink(pPath) != 0)
    {
        strError = fmt::format("cannot replace \"{}\": {}", printable(pPath), errnoText(errno));
        return false;
    }
    return true;
}

bool isPeerAllowed(int nFd)
{
    ucred peer = {};
    socklen_t nSize = sizeof(peer);
    if (::getsockopt(nFd, SOL_SOCKET, SO_PEERCRED, &peer, &nSize) != 0)
        return false;
    if (peer.uid != 0 && peer.uid != ::geteuid())
    {
        spdlog::warn("control: turned away process {} of user {}", peer.pid, peer.uid);
        return false;
    }
    return true;
}
} // namespace

CControlSocket::CControlSocket(CPoller& poller, CControlConnection::RequestFunction request)
    : m_poller(poller), m_request(std::move(request))
{
}

CControlSocket::~CControlSocket()
{
    // While the socket is open its inode number belongs to no other file.
    struct stat there = {};
    if (!m_strPath.empty() && ::lstat(m_strPath.c_str(), &there) == 0 && there.st_dev == m_file.st_dev &&
        there.st_ino == m_file.st_ino)
        ::unlink(m_strPath.c_str());
}

bool CControlSocket::open(const std::string& strPath, std::string& strError)
{
    sockaddr_un address = {};
    if (!addressOf(strPath, address, strError) || !removeStale(address, strError))
        return false;
    m_fdListen = newSocket();
    m_fdSpare = CFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const mode_t nUmask = ::umask(0177);
    const bool bBound = ::bind(m_fdListen.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    const int nErrno = errno;
    ::umask(nUmask);
    if (!bBound)
    {
        strError = fmt::format("cannot create the socket \"{}\": {}", printable(strPath), errnoText(nErrno));
        return false;
    }
    if (::lstat(strPath.c_str(), &m_file) == 0)
        m_strPath = strPath;
    if (::listen(m_fdListen.get(), BACKLOG) == 0)
        m_watchListen = m_poller.watch(m_fdListen.get(), EPOLLIN, [this](uint32_t) { accept(); });
    if (!m_watchListen.isOn())
    {
        strError = fmt::format("cannot listen at \"{}\": {}", printable(strPath), errnoText(errno));
        return false;
    }
    return true;
}

void CControlSocket::accept()
{
    CFd fd(::accept4(m_fdListen.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd.isOpen())
    {
        if (errno == EMFILE || errno == ENFILE)
        {
            // One that waits for ever would wake the loop for ever.
            m_fdSpare.close();
            CFd(::accept4(m_fdListen.get(), nullptr, nullptr, SOCK_CLOEXEC)).close();
            m_fdSpare = CFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
            spdlog::error("control: turned somebody away: all file descriptors are in use");
        }
        return;
    }
    if (!isPeerAllowed(fd.get()))
        return;
    makeRoom();
    const uint64_t ullID = m_ullNextID++;
    const int nFd = fd.get();
    CServed& served = m_mapServedByID.try_emplace(ullID, std::move(fd)).first->second;
    served.m_ullLastUse = ++m_ullUses;
    served.m_watch = m_poller.watch(nFd, EPOLLIN, [this, ullID](uint32_t) { onReady(ullID); });
    if (!served.m_watch.isOn())
        m_mapServedByID.erase(ullID);
}

void CControlSocket::makeRoom()
{
    if (m_mapServedByID.size() >= MAX_CONNECTIONS)
    {
        m_mapServedByID.erase(std::min_element(
            m_mapServedByID.begin(), m_mapServedByID.end(),
            [](const auto& left, const auto& right) { return left.second.m_ullLastUse < right.second.m_ullLastUse; }));
    }
}

void CControlSocket::onReady(uint64_t ullID)
{
    CServed& served = m_mapServedByID.at(ullID);
    served.m_ullLastUse = ++m_ullUses;
    if (served.m_connection.serve(m_request))
        served.m_watch.setEvents(served.m_connection.awaitedEvents());
    else
        m_mapServedByID.erase(ullID);
}
