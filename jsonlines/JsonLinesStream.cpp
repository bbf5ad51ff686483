// The bytes of one connection: lines come in, lines go out, nothing waits.
#include "JsonLinesStream.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

CJsonLinesStream::CJsonLinesStream(CSocketFd fd, size_t nMaxLine) : m_fd(std::move(fd)), m_nMaxLine(nMaxLine) {}

void CJsonLinesStream::read()
{
    if (hasLine() || hasEnded())
        return;
    std::array<char, 65536> bytes;
    const ssize_t nRead = ::recv(m_fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (nRead > 0)
    {
        m_strIn.erase(0, m_nTaken);
        m_nSearched -= m_nTaken;
        m_nTaken = 0;
        m_strIn.append(bytes.data(), static_cast<size_t>(nRead));
        findLine();
    }
    else if (nRead == 0 || (errno != EAGAIN && errno != EINTR))
    {
        m_bEnded = true;
    }
}

void CJsonLinesStream::findLine()
{
    m_nLineEnd = m_strIn.find('\n', m_nSearched);
    m_nSearched = hasLine() ? m_nLineEnd : m_strIn.size();
    m_bTooLong = m_nSearched - m_nTaken > m_nMaxLine;
    if (m_bTooLong)
        m_nLineEnd = std::string::npos;
}

bool CJsonLinesStream::takeLine(std::string& strLine)
{
    if (!hasLine())
        return false;
    strLine.assign(m_strIn, m_nTaken, m_nLineEnd - m_nTaken);
    m_nTaken = m_nSearched = m_nLineEnd + 1;
    findLine();
    return true;
}

bool CJsonLinesStream::flush()
{
    while (waiting() > 0)
    {
        const ssize_t nSent = ::send(m_fd.get(), m_strOut.data() + m_nSent, waiting(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (nSent < 0)
            return errno == EAGAIN || errno == EINTR;
        m_nSent += static_cast<size_t>(nSent);
        if (m_nSent * 2 >= m_strOut.size())
        {
            m_strOut.erase(0, m_nSent);
            m_nSent = 0;
        }
    }
    return true;
}
