// One connection of the control socket: a line comes in, a line goes out.
#include "ControlConnection.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

CControlConnection::CControlConnection(CFd fd) : m_fd(std::move(fd)) {}

bool CControlConnection::serve(const RequestFunction& request)
{
    if (!flush())
        return false;
    if (!m_strOut.empty())
        return true;
    if (!hasLine() && !m_bEnded && !read())
        return false;
    answer(request);
    return flush() && (!m_bEnded || !m_strOut.empty());
}

uint32_t CControlConnection::awaitedEvents() const
{
    // A line that came along with the one before has to wait for no more than its turn.
    return !m_strOut.empty() || hasLine() ? EPOLLOUT : EPOLLIN;
}

bool CControlConnection::hasLine() const
{
    return m_strIn.find('\n') != std::string::npos;
}

bool CControlConnection::read()
{
    std::array<char, MAX_LINE> bytes;
    const ssize_t nRead = ::recv(m_fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (nRead < 0)
        return errno == EAGAIN || errno == EINTR;
    m_strIn.append(bytes.data(), static_cast<size_t>(nRead));
    m_bEnded = nRead == 0;
    return true;
}

void CControlConnection::answer(const RequestFunction& request)
{
    const size_t nLine = m_strIn.find('\n');
    if (std::min(nLine, m_strIn.size()) > MAX_LINE)
    {
        m_strOut = "{\"ok\":false,\"error\":\"the line is too long\"}\n";
        m_strIn.clear();
        m_bEnded = true;
    }
    else if (nLine != std::string::npos)
    {
        m_strOut = request(m_strIn.substr(0, nLine)) + '\n';
        m_strIn.erase(0, nLine + 1);
    }
}

bool CControlConnection::flush()
{
    while (!m_strOut.empty())
    {
        const ssize_t nSent = ::send(m_fd.get(), m_strOut.data(), m_strOut.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (nSent < 0)
            return errno == EAGAIN || errno == EINTR;
        m_strOut.erase(0, static_cast<size_t>(nSent));
    }
    return true;
}
