// COwnPipes: the two pipes of this process. The library leaves them in /tmp at the end; zelmedia does not.
#include "driver/OwnPipes.h"
#include "MediaProtocol.h"
#include "base/ToolError.h"
#include "driver/PipeTable.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <unistd.h>

namespace
{
char s_szResponse[MI_PIPE_NAME_SIZE]; // for the signal handler
char s_szEvent[MI_PIPE_NAME_SIZE];

[[noreturn]] void removeAndEnd(int nSignal)
{
    unlink(s_szResponse);
    unlink(s_szEvent);
    _exit(128 + nSignal);
}

void makeWay(const CClientPipe& pipe)
{
    std::string strReason;
    switch (pipe.state)
    {
    case PIPE_STALE:
    case PIPE_STARTING: // not by us
        if (unlink(pipe.strPath.c_str()) == 0 || errno == ENOENT)
            return;
        strReason = std::strerror(errno);
        break;
    case PIPE_IN_USE: strReason = "a process of the same id uses it, perhaps in another container"; break;
    case PIPE_UNKNOWN: strReason = "it is another user's"; break;
    case PIPE_FOREIGN: strReason = "it is no pipe"; break;
    }
    throw CToolError(EXIT_CODE_FAILED, pipe.strPath + " is in the way: " + strReason);
}
} // namespace

COwnPipes::COwnPipes()
    : m_strResponse(MI_RESPONSE_PIPE_PREFIX + std::to_string(getpid())),
      m_strEvent(MI_EVENT_PIPE_PREFIX + std::to_string(getpid()))
{
    for (const CClientPipe& pipe : listClientPipes(getpid()))
        makeWay(pipe);
}

COwnPipes::~COwnPipes()
{
    unlink(m_strResponse.c_str());
    unlink(m_strEvent.c_str());
}

void COwnPipes::removeOnSignals() const
{
    std::strncpy(s_szResponse, m_strResponse.c_str(), sizeof(s_szResponse) - 1);
    std::strncpy(s_szEvent, m_strEvent.c_str(), sizeof(s_szEvent) - 1);
    for (const int nSignal : {SIGHUP, SIGINT, SIGTERM})
        signal(nSignal, removeAndEnd);
}
