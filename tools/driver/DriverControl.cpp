// Asks the reference driver on its control socket.
#include "driver/DriverControl.h"
#include "base/Descriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{
typedef std::chrono::steady_clock Clock;

const size_t MAX_ANSWER = 256 << 20;

// These give false with errno set.
bool waitFor(int nSocket, short nEvent, Clock::time_point end)
{
    for (;;)
    {
        pollfd wait = {nSocket, nEvent, 0};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        const int nReady = left.count() > 0 ? poll(&wait, 1, static_cast<int>(left.count())) : 0;
        if (nReady > 0)
            return true;
        if (nReady == 0)
            errno = ETIMEDOUT;
        if (nReady == 0 || errno != EINTR)
            return false;
    }
}

bool connectTo(int nSocket, const std::string& strPath)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strPath.size() >= sizeof(address.sun_path))
    {
        errno = ENAMETOOLONG;
        return false;
    }
    strPath.copy(address.sun_path, strPath.size());
    // The socket does not wait: with a full queue of connections this fails at once.
    return nSocket != -1 && connect(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

// A request is short: it goes in one piece.
bool sendLine(int nSocket, const std::string& strLine)
{
    return send(nSocket, strLine.data(), strLine.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(strLine.size());
}

bool receiveLine(int nSocket, std::string& strLine, Clock::time_point end)
{
    char szBytes[65536];
    while (strLine.empty() || strLine.back() != '\n')
    {
        const ssize_t nRead = recv(nSocket, szBytes, sizeof(szBytes), 0);
        if (nRead == 0 || strLine.size() > MAX_ANSWER)
        {
            errno = ECONNRESET;
            return false;
        }
        if (nRead < 0 && (errno != EAGAIN || !waitFor(nSocket, POLLIN, end)))
            return false;
        strLine.append(szBytes, static_cast<size_t>(std::max<ssize_t>(nRead, 0)));
    }
    return true;
}
} // namespace

bool askDriver(const std::string& strSocketPath, const std::string& strRequest, std::chrono::milliseconds limit,
               nlohmann::ordered_json& answer, std::string& strError)
{
    const Clock::time_point end = Clock::now() + limit;
    const CDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    std::string strAnswer;
    if (!connectTo(socket.get(), strSocketPath) ||
        !sendLine(socket.get(), nlohmann::json{{"request", strRequest}}.dump() + '\n') ||
        !receiveLine(socket.get(), strAnswer, end))
    {
        strError = strSocketPath + ": " + std::strerror(errno);
        return false;
    }
    answer = nlohmann::ordered_json::parse(strAnswer, nullptr, false);
    if (!answer.is_object() || answer.value("ok", nlohmann::ordered_json()) != true)
    {
        strError = strSocketPath + ": the driver refused \"" + strRequest + "\"";
        return false;
    }
    answer.erase("ok");
    return true;
}
