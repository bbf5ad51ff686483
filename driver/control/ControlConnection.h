// One connection of the control socket: a line comes in, a line goes out.
#ifndef DRIVER_CONTROL_CONNECTION_H
#define DRIVER_CONTROL_CONNECTION_H

#include "Fd.h"

#include <cstdint>
#include <functional>
#include <string>

// What waits in here is bounded by one answer and two lines: the next request is taken after the
// peer has taken the answer to the one before.
class CControlConnection
{
public:
    static constexpr size_t MAX_LINE = 65536;

    // Answers a line. Neither has the newline at its end.
    using RequestFunction = std::function<std::string(const std::string& strLine)>;

    // The descriptor is a connected socket that does not block.
    explicit CControlConnection(CFd fd);

    int fd() const { return m_fd.get(); }

    // Does what can be done without waiting, one request at most. False when the connection is over.
    bool serve(const RequestFunction& request);

    // What has to happen, by epoll's names, before serve can do more.
    uint32_t awaitedEvents() const;

private:
    bool hasLine() const;
    bool read();
    void answer(const RequestFunction& request);
    bool flush();

    CFd m_fd;
    std::string m_strIn;
    std::string m_strOut;  // what the peer has not taken yet
    bool m_bEnded = false; // nothing more is read, and no whole line is left
};

#endif
