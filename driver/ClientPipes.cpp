// A client's response and event FIFOs.
#include "ClientPipes.h"

#include "Text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <string_view>

namespace
{
bool ParseName(const std::string& strName, std::string_view prefix, pid_t& nProcessID)
{
    if (!strName.starts_with(prefix))
    {
        return false;
    }
    const char* pEnd = strName.data() + strName.size();
    const auto [pStop, error] = std::from_chars(strName.data() + prefix.size(), pEnd, nProcessID);
    // The second condition refuses leading zeros and the like: one process has one name.
    return error == std::errc() && pStop == pEnd && nProcessID > 0 &&
           strName.size() == prefix.size() + std::to_string(nProcessID).size();
}

bool OpenFifo(const std::string& strPath, CFd& fd, std::string& strError)
{
    fd = CFd(::open(strPath.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    if (!fd.IsOpen() || ::fstat(fd.Get(), &status) != 0)
    {
        strError = strPath + " cannot be opened: " + ErrnoText(errno);
        return false;
    }
    if (!S_ISFIFO(status.st_mode))
    {
        strError = strPath + " is not a FIFO";
        return false;
    }
    return true;
}

template <class TRecord> ESend WriteRecord(int nFd, const TRecord& record)
{
    ssize_t nWritten = -1;
    do
    {
        nWritten = ::write(nFd, &record, sizeof(record));
    } while (nWritten < 0 && errno == EINTR);
    if (nWritten == static_cast<ssize_t>(sizeof(record)))
    {
        return ESend::Sent;
    }
    return nWritten < 0 && errno == EAGAIN ? ESend::Full : ESend::Gone;
}

bool Epoll(int nEpollFd, int nOperation, int nFd, uint32_t nEvents, int nConnectID)
{
    epoll_event event = {};
    event.events = nEvents;
    event.data.u64 = static_cast<uint64_t>(nConnectID);
    return ::epoll_ctl(nEpollFd, nOperation, nFd, &event) == 0;
}
} // namespace

bool ParseClientPipeNames(const structMICMD::ConnectBody& connect, CClientPipeNames& names, std::string& strError)
{
    if (!FieldText(connect.szRspPipe, names.m_strRspPipe) || !FieldText(connect.szEvtPipe, names.m_strEvtPipe))
    {
        strError = "a pipe name has no end";
        return false;
    }
    pid_t nRspID = 0;
    pid_t nEvtID = 0;
    if (!ParseName(names.m_strRspPipe, MI_RESPONSE_PIPE_PREFIX, nRspID) ||
        !ParseName(names.m_strEvtPipe, MI_EVENT_PIPE_PREFIX, nEvtID))
    {
        strError = fmt::format("\"{}\" and \"{}\" are not the pipes of a client", Printable(names.m_strRspPipe),
                               Printable(names.m_strEvtPipe));
        return false;
    }
    if (nRspID != nEvtID)
    {
        strError = fmt::format("the pipes of two processes, {} and {}", nRspID, nEvtID);
        return false;
    }
    names.m_nProcessID = nRspID;
    return true;
}

CClientPipes::CClientPipes(pid_t nProcessID, CFd fdRsp, CFd fdEvt, int nEpollFd)
    : m_nProcessID(nProcessID), m_bProcessVisible(::kill(nProcessID, 0) == 0 || errno != ESRCH),
      m_fdRsp(std::move(fdRsp)), m_fdEvt(std::move(fdEvt)), m_nEpollFd(nEpollFd)
{
}

ESend CClientPipes::SendResponse(const structMIRSP& rsp)
{
    return WriteRecord(m_fdRsp.Get(), rsp);
}

ESend CClientPipes::SendEvent(const structMIEVT& evt)
{
    return WriteRecord(m_fdEvt.Get(), evt);
}

bool CClientPipes::Watch(int nConnectID)
{
    // No event is asked for: a pipe without readers is reported anyway.
    m_nConnectID = nConnectID;
    return Epoll(m_nEpollFd, EPOLL_CTL_ADD, m_fdRsp.Get(), 0, nConnectID) &&
           Epoll(m_nEpollFd, EPOLL_CTL_ADD, m_fdEvt.Get(), 0, nConnectID);
}

void CClientPipes::WatchForRoom(bool bOn)
{
    Epoll(m_nEpollFd, EPOLL_CTL_MOD, m_fdEvt.Get(), bOn ? static_cast<uint32_t>(EPOLLOUT) : 0U, m_nConnectID);
}

pid_t CClientPipes::ProcessID() const
{
    return m_nProcessID;
}

bool CClientPipes::IsProcessGone() const
{
    return m_bProcessVisible && ::kill(m_nProcessID, 0) != 0 && errno == ESRCH;
}

CClientPipesOpener::CClientPipesOpener(int nEpollFd) : m_nEpollFd(nEpollFd) {}

std::unique_ptr<CClientPort> CClientPipesOpener::Open(const structMICMD::ConnectBody& connect, std::string& strError)
{
    CClientPipeNames names;
    CFd fdRsp;
    CFd fdEvt;
    if (!ParseClientPipeNames(connect, names, strError) || !OpenFifo(names.m_strRspPipe, fdRsp, strError) ||
        !OpenFifo(names.m_strEvtPipe, fdEvt, strError))
    {
        return nullptr;
    }
    return std::make_unique<CClientPipes>(names.m_nProcessID, std::move(fdRsp), std::move(fdEvt), m_nEpollFd);
}
