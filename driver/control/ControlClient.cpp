// The other end of the control socket: sends one request and prints the answer.
#include "ControlClient.h"

#include "Fd.h"
#include "Fields.h"
#include "Text.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace
{
using Clock = std::chrono::steady_clock;

constexpr size_t MAX_ANSWER = 256U << 20U;
constexpr int MAX_DEPTH = 16; // printing is recursive

int fail(int nExitCode, const std::string& strError)
{
    fmt::print(stderr, "zelmedia-driver: {}\n", strError);
    return nExitCode;
}

bool makeLine(const std::vector<std::string>& vWords, std::string& strLine, std::string& strError)
{
    if (vWords.size() == 1 && vWords[0].starts_with('{'))
    {
        strLine = vWords[0];
        std::replace(strLine.begin(), strLine.end(), '\n', ' ');
        return true;
    }
    if (vWords.empty())
    {
        strError = "what is the driver to do? Try: zelmedia-driver ctl help";
        return false;
    }
    nlohmann::json request = {{"request", vWords[0]}};
    if (!addWords(std::span(vWords).subspan(1), request, strError))
        return false;
    strLine = request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return true;
}

// Waits for one event. False, with errno set, when it does not come in time.
bool waitFor(int nFd, short nEvent, Clock::time_point limit)
{
    pollfd wait = {nFd, nEvent, 0};
    for (;;)
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now());
        const int nReady = ::poll(&wait, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        if (nReady > 0)
            return true;
        if (nReady == 0)
        {
            errno = ETIMEDOUT;
            return false;
        }
        if (errno != EINTR)
            return false;
    }
}

// The next three return false with errno set.
bool connect(const std::string& strPath, CFd& fd)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strPath.size() >= sizeof(address.sun_path))
    {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, strPath.c_str(), strPath.size() + 1);
    fd = CFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    return fd.isOpen() && ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool send(int nFd, const std::string& strText, Clock::time_point limit)
{
    size_t nDone = 0;
    while (nDone < strText.size())
    {
        const ssize_t nSent = ::send(nFd, strText.data() + nDone, strText.size() - nDone, MSG_NOSIGNAL);
        if (nSent < 0 && (errno != EAGAIN || !waitFor(nFd, POLLOUT, limit)))
            return false;
        nDone += static_cast<size_t>(std::max<ssize_t>(nSent, 0));
    }
    return true;
}

bool receiveLine(int nFd, std::string& strLine, Clock::time_point limit)
{
    std::array<char, 65536> bytes;
    while (strLine.empty() || strLine.back() != '\n')
    {
        const ssize_t nRead = ::recv(nFd, bytes.data(), bytes.size(), 0);
        if (nRead == 0 || strLine.size() > MAX_ANSWER)
        {
            errno = nRead == 0 ? ECONNRESET : EMSGSIZE;
            return false;
        }
        if (nRead < 0 && (errno != EAGAIN || !waitFor(nFd, POLLIN, limit)))
            return false;
        strLine.append(bytes.data(), static_cast<size_t>(std::max<ssize_t>(nRead, 0)));
    }
    return true;
}

int printAnswer(const std::string& strAnswer)
{
    using nlohmann::ordered_json;
    bool bDeep = false;
    const auto isShallow = [&bDeep](int nDepth, ordered_json::parse_event_t, const ordered_json&) {
        bDeep = bDeep || nDepth > MAX_DEPTH;
        return !bDeep;
    };
    const ordered_json answer = ordered_json::parse(strAnswer, isShallow, false);
    const auto itOk = answer.is_object() ? answer.find("ok") : answer.end();
    if (bDeep || itOk == answer.end() || !itOk->is_boolean())
        return fail(1, "the answer is none of a driver");
    if (!itOk->get<bool>())
    {
        const auto itError = answer.find("error");
        return fail(1, itError != answer.end() && itError->is_string() ? printable(itError->get<std::string>())
                                                                       : "the driver refuses");
    }
    fmt::print("{}\n", answer.dump(2));
    return std::fflush(stdout) == 0 ? 0 : fail(1, "cannot print the answer: " + errnoText(errno));
}
} // namespace

int runControl(const std::string& strSocketPath, const std::vector<std::string>& vWords,
               std::chrono::milliseconds limit)
{
    std::string strLine;
    std::string strError;
    if (!makeLine(vWords, strLine, strError))
        return fail(2, strError);
    const Clock::time_point end = Clock::now() + limit;
    CFd fd;
    std::string strAnswer;
    // The driver may turn a request away before it has taken all of it: what it says counts then.
    const bool bAnswered = connect(strSocketPath, fd) &&
                           (send(fd.get(), strLine + '\n', end) || errno == EPIPE || errno == ECONNRESET) &&
                           receiveLine(fd.get(), strAnswer, end);
    if (!bAnswered)
        return fail(1, fmt::format("no driver answers at \"{}\": {}", printable(strSocketPath), errnoText(errno)));
    return printAnswer(strAnswer);
}
