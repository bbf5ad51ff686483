// The bytes of one connection: lines come in, lines go out, nothing waits.
#ifndef JSON_LINES_STREAM_H
#define JSON_LINES_STREAM_H

#include "JsonSocket.h"

#include <cstddef>
#include <string>

// Both ends of a connection are built upon this. Not thread-safe.
class CJsonLinesStream
{
public:
    // The descriptor is a connected socket that does not block. A line that comes in may have that many bytes
    // before its LF.
    CJsonLinesStream(CSocketFd fd, size_t nMaxLine);

    int descriptor() const { return m_fd.get(); }

    // Takes in once what there is, unless a whole line waits already.
    void read();
    // The next whole line, without its LF.
    bool takeLine(std::string& strLine);
    bool hasLine() const { return m_nLineEnd != std::string::npos; }
    // The peer has sent a line that is too long; nothing more is read.
    bool isTooLong() const { return m_bTooLong; }
    // Nothing more will come. Half a line at the end is lost.
    bool hasEnded() const { return m_bEnded || m_bTooLong; }

    // Appends to what waits. flush sends what the peer takes; false when the connection is broken.
    void append(const std::string& strLine) { m_strOut += strLine; }
    bool flush();
    size_t waiting() const { return m_strOut.size() - m_nSent; }

private:
    void findLine();

    CSocketFd m_fd;
    const size_t m_nMaxLine;
    std::string m_strIn;
    size_t m_nTaken = 0;                   // what of m_strIn has been given out
    size_t m_nSearched = 0;                // there is no LF before here
    size_t m_nLineEnd = std::string::npos; // the LF of the next line
    std::string m_strOut;
    size_t m_nSent = 0;
    bool m_bEnded = false;
    bool m_bTooLong = false;
};

#endif
