// A client's response and event FIFOs.
#include "ClientPipes.h"

#include "Text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <string_view>
#include <utility>

namespace
{
bool parseName(const std::string& strName, std::string_view prefix, pid_t& nProcessID)
{
    if (!strName.starts_with(prefix))
        return false;
    const char* pEnd = strName.data() + strName.size();
    const auto [pStop, error] = std::from_chars(strName.data() + prefix.size(), pEnd, nProcessID);
    // The second condition refuses leading zeros and the like: one process has one name.
    return error == std::errc() && pStop == pEnd && nProcessID > 0 &&
           strName.size() == prefix.size() + std::to_string(nProcessID).size();
}

bool isFile(const struct stat& left, const struct stat& right)
{
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

// The file is looked at before it is opened, because opening alone can have effects on a device, and after,
// because it may have become another one.
bool openFifo(const std::string& strPath, CFd& fd, struct stat& status, std::string& strError)
{
    struct stat before = {};
    if (::lstat(strPath.c_str(), &before) != 0)
    {
        strError = strPath + " cannot be opened: " + errnoText(errno);
        return false;
    }
    if (!S_ISFIFO(before.st_mode))
    {
        strError = strPath + " is not a FIFO";
        return false;
    }
    fd = CFd(::open(strPath.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    if (!fd.isOpen() || ::fstat(fd.get(), &status) != 0)
    {
        strError = errno == ENXIO ? strPath + " is read by nobody" : strPath + " cannot be opened: " + errnoText(errno);
        return false;
    }
    if (!S_ISFIFO(status.st_mode) || !isFile(before, status))
    {
        strError = strPath + " was exchanged while it was opened";
        return false;
    }
    if (status.st_nlink != 1)
    {
        strError = strPath + " has other names, too";
        return false;
    }
    return true;
}

// Whether the file is no longer under the name. While that cannot be told, it counts as being there.
bool isLost(int nFd, const std::string& strPath)
{
    struct stat open = {};
    struct stat there = {};
    if (::fstat(nFd, &open) != 0)
        return false;
    return ::lstat(strPath.c_str(), &there) == 0 ? !isFile(open, there) : errno == ENOENT;
}

template <class TRecord> ESend writeRecord(int nFd, const TRecord& record)
{
    ssize_t nWritten = -1;
    do
    {
        nWritten = ::write(nFd, &record, sizeof(record));
    } while (nWritten < 0 && errno == EINTR);
    if (nWritten == static_cast<ssize_t>(sizeof(record)))
        return ESend::Sent;
    return nWritten < 0 && errno == EAGAIN ? ESend::Full : ESend::Gone;
}

} // namespace

bool parseClientPipeNames(const structMICMD::ConnectBody& connect, CClientPipeNames& names, std::string& strError)
{
    if (!fieldText(connect.szRspPipe, names.m_strRspPipe) || !fieldText(connect.szEvtPipe, names.m_strEvtPipe))
    {
        strError = "a pipe name has no end";
        return false;
    }
    pid_t nRspID = 0;
    pid_t nEvtID = 0;
    if (!parseName(names.m_strRspPipe, MI_RESPONSE_PIPE_PREFIX, nRspID) ||
        !parseName(names.m_strEvtPipe, MI_EVENT_PIPE_PREFIX, nEvtID))
    {
        strError = fmt::format("\"{}\" and \"{}\" are not the pipes of a client", printable(names.m_strRspPipe),
                               printable(names.m_strEvtPipe));
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

CClientPipes::CClientPipes(CClientPipeNames names, CFd fdRsp, CFd fdEvt, CPoller& poller)
    : m_names(std::move(names)), m_bProcessVisible(::kill(m_names.m_nProcessID, 0) == 0 || errno != ESRCH),
      m_fdRsp(std::move(fdRsp)), m_fdEvt(std::move(fdEvt)), m_poller(poller)
{
}

ESend CClientPipes::sendResponse(const structMIRSP& rsp)
{
    return writeRecord(m_fdRsp.get(), rsp);
}

ESend CClientPipes::sendEvent(const structMIEVT& evt)
{
    return writeRecord(m_fdEvt.get(), evt);
}

bool CClientPipes::watch(std::function<void()> broken, std::function<void()> writable)
{
    // No event is asked for: a pipe without readers is reported anyway. The functions may end this port,
    // so they are kept by the poller.
    m_watchRsp = m_poller.watch(
        m_fdRsp.get(), 0, [broken](uint32_t) { broken(); });
    m_watchEvt = m_poller.watch(m_fdEvt.get(), 0, [broken, writable = std::move(writable)](uint32_t nEvents) {
        (nEvents & (EPOLLERR | EPOLLHUP)) != 0 ? broken() : writable();
    });
    return m_watchRsp.isOn() && m_watchEvt.isOn();
}

void CClientPipes::watchForRoom(bool bOn)
{
    m_watchEvt.setEvents(bOn ? static_cast<uint32_t>(EPOLLOUT) : 0U);
}

pid_t CClientPipes::processId() const
{
    return m_names.m_nProcessID;
}

bool CClientPipes::isGone() const
{
    return (m_bProcessVisible && ::kill(m_names.m_nProcessID, 0) != 0 && errno == ESRCH) ||
           isLost(m_fdRsp.get(), m_names.m_strRspPipe) || isLost(m_fdEvt.get(), m_names.m_strEvtPipe);
}

CClientPipesOpener::CClientPipesOpener(CPoller& poller) : m_poller(poller) {}

std::unique_ptr<CClientPort> CClientPipesOpener::open(const structMICMD::ConnectBody& connect, std::string& strError)
{
    CClientPipeNames names;
    CFd fdRsp;
    CFd fdEvt;
    struct stat statusRsp = {};
    struct stat statusEvt = {};
    if (!parseClientPipeNames(connect, names, strError) || !openFifo(names.m_strRspPipe, fdRsp, statusRsp, strError) ||
        !openFifo(names.m_strEvtPipe, fdEvt, statusEvt, strError))
        return nullptr;
    if (isFile(statusRsp, statusEvt) || statusRsp.st_uid != statusEvt.st_uid)
    {
        strError = fmt::format("{} and {} are not two pipes of one user", names.m_strRspPipe, names.m_strEvtPipe);
        return nullptr;
    }
    return std::make_unique<CClientPipes>(std::move(names), std::move(fdRsp), std::move(fdEvt), m_poller);
}
