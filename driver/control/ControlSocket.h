// The Unix socket on which the driver is looked at and interfered with.
#ifndef DRIVER_CONTROL_SOCKET_H
#define DRIVER_CONTROL_SOCKET_H

#include "ControlConnection.h"
#include "Poller.h"

#include <sys/stat.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>

// Serves its user and root alone. It takes one request of a connection at each turn of the loop, so
// that no number of requests keeps the loop from its other work.
class CControlSocket
{
public:
    // With that many connections, a new one ends the one that has been quiet for the longest time.
    static constexpr size_t MAX_CONNECTIONS = 32;

    // The poller must outlive the socket. The function must not end it.
    CControlSocket(CPoller& poller, CControlConnection::RequestFunction request);
    // Removes the socket file, unless another one has taken its place.
    ~CControlSocket();
    CControlSocket(const CControlSocket&) = delete;
    CControlSocket& operator=(const CControlSocket&) = delete;

    // Makes the socket file and serves it from now on. One that nobody listens to any more is replaced.
    // False, with the reason in strError, when the system refuses or anything else is at the path,
    // which then stays as it is. Sets the umask for a moment: to be called before other threads make
    // files.
    bool open(const std::string& strPath, std::string& strError);

private:
    struct CServed
    {
        explicit CServed(CFd fd) : m_connection(std::move(fd)) {}

        CControlConnection m_connection;
        CPoller::CWatch m_watch;
        uint64_t m_ullLastUse = 0;
    };

    void accept();
    void makeRoom();
    void onReady(uint64_t ullID);

    CPoller& m_poller;
    const CControlConnection::RequestFunction m_request;
    std::string m_strPath; // empty: there is no file of ours
    struct stat m_file = {};
    CFd m_fdListen;
    CFd m_fdSpare; // given up to turn somebody away when there is no other descriptor
    CPoller::CWatch m_watchListen;
    std::map<uint64_t, CServed> m_mapServedByID;
    uint64_t m_ullNextID = 1;
    uint64_t m_ullUses = 0;
};

#endif
