// One connection of the control socket: a line comes in, a line goes out.
#include "ControlConnection.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

CControlConnection::CControlConnection(CFd fd) : m_fd(std::move(fd)) {}

bool CControlConnection::Serve(const RequestFunction& request)
{
    if (!Flush())
    {
        return false;
    }
    if (!m_strOut.empty())
    {
        return true;
    }
    if (!HasLine() && !m_bEnded && !Read())
    {
        return false;
    }
    Answer(request);
    return Flush() && (!m_bEnded || !m_strOut.empty());
}

std::uint32_t CControlConnection::AwaitedEvents() const
{
    // A line that came along with the one before has to wait for no more than its turn.
    return !m_strOut.empty() || HasLine() ? EPOLLOUT : EPOLLIN;
}

bool CControlConnection::HasLine() const
{
    return m_strIn.find('\n') != std::string::npos;
}

bool CControlConnection::Read()
{
    std::array<char, MAX_LINE> bytes;
    const ssize_t nRead = ::recv(m_fd.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (nRead < 0)
    {
        return errno == EAGAIN || errno == EINTR;
    }
    m_strIn.append(bytes.data(), static_cast<std::size_t>(nRead));
    m_bEnded = nRead == 0;
    return true;
}

void CControlConnection::Answer(const RequestFunction& request)
{
    const std::size_t nLine = m_strIn.find('\n');
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

bool CControlConnection::Flush()
{
    while (!m_strOut.empty())
    {
        const ssize_t nSent = ::send(m_fd.Get(), m_strOut.data(), m_strOut.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (nSent < 0)
        {
            return errno == EAGAIN || errno == EINTR;
        }
        m_strOut.erase(0, static_cast<std::size_t>(nSent));
    }
    return true;
}
