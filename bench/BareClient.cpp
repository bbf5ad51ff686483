#include "BareClient.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <stdexcept>

namespace
{
// As large as the library makes its own.
constexpr int EVENT_PIPE_BYTES = 4 << 20;

[[noreturn]] void fail(const std::string& strWhat)
{
    throw std::runtime_error("bare client: " + strWhat + " (" + std::to_string(errno) + ")");
}

CFd makePipe(const std::string& strPath)
{
    if (::mkfifo(strPath.c_str(), 0666) != 0)
        fail("no pipe " + strPath);
    CFd fd(::open(strPath.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd.isOpen())
        fail("cannot open " + strPath);
    return fd;
}

void copyName(char (&szName)[MI_PIPE_NAME_SIZE], const std::string& strName)
{
    std::snprintf(szName, sizeof(szName), "%s", strName.c_str());
}
} // namespace

std::chrono::nanoseconds monotonicNow()
{
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

CBareClient::CBareClient()
{
    static std::atomic<int> nClients = 0;
    const std::string strName = std::to_string(::getpid()) + "-" + std::to_string(++nClients);
    m_strRspPipe = "/tmp/bare-rsp-" + strName;
    m_strEvtPipe = "/tmp/bare-evt-" + strName;
    m_fdRsp = makePipe(m_strRspPipe);
    m_fdEvt = makePipe(m_strEvtPipe);
    ::fcntl(m_fdEvt.get(), F_SETPIPE_SZ, EVENT_PIPE_BYTES);
    m_fdReq = CFd(::open(MI_REQUEST_PIPE, O_WRONLY | O_CLOEXEC));

    structMICMD cmd = request(MICMD_CONNECT);
    copyName(cmd.connect.szRspPipe, m_strRspPipe);
    copyName(cmd.connect.szEvtPipe, m_strEvtPipe);
    m_nConnectID = exchange(cmd).s_nConnectID;
}

CBareClient::~CBareClient()
{
    try
    {
        structMICMD cmd = request(MICMD_DISCONNECT);
        exchange(cmd);
    }
    catch (const std::exception&)
    {
    }
    ::unlink(m_strRspPipe.c_str());
    ::unlink(m_strEvtPipe.c_str());
}

structMICMD CBareClient::request(MICMD micmd) const
{
    structMICMD cmd = {};
    cmd.s_micmd = micmd;
    cmd.nConnectID = m_nConnectID;
    return cmd;
}

void CBareClient::write(structMICMD& cmd)
{
    cmd.nSequenceNo = ++m_nSequenceNo;
    if (::write(m_fdReq.get(), &cmd, sizeof(cmd)) != static_cast<ssize_t>(sizeof(cmd)))
        fail("cannot write a request");
}

void CBareClient::readResponse(structMIRSP& rsp)
{
    if (::read(m_fdRsp.get(), &rsp, sizeof(rsp)) != static_cast<ssize_t>(sizeof(rsp)))
        fail("cannot read a response");
}

void CBareClient::readEvent(structMIEVT& evt)
{
    if (::read(m_fdEvt.get(), &evt, sizeof(evt)) != static_cast<ssize_t>(sizeof(evt)))
        fail("cannot read an event");
}

structMIRSP CBareClient::exchange(structMICMD& cmd)
{
    structMIRSP rsp;
    write(cmd);
    readResponse(rsp);
    return rsp;
}

void CBareClient::writeEvent(const structMIEVT& evt)
{
    if (::write(m_fdEvt.get(), &evt, sizeof(evt)) != static_cast<ssize_t>(sizeof(evt)))
        fail("cannot write an event");
}

int32_t CBareClient::openStream()
{
    structMICMD cmd = request(MICMD_OPENSTREAM);
    return exchange(cmd).s_nStreamID;
}

void CBareClient::closeStream(int32_t nStreamID)
{
    structMICMD cmd = request(MICMD_CLOSESTREAM);
    cmd.stream.nStreamID = nStreamID;
    exchange(cmd);
}

structMICMD CBareClient::play(int32_t nStreamID, uint32_t nHowItEnds) const
{
    structMICMD cmd = request(MICMD_PLAYFILE);
    cmd.playFile.nStreamID = nStreamID;
    cmd.playFile.nPlayParam = nHowItEnds;
    return cmd;
}

void CBareClient::finish(int nConnectID, int32_t nStreamID)
{
    structMICMD cmd = request(PEER_FINISH);
    const CPeerFinish finish = {nConnectID, nStreamID};
    std::memcpy(cmd.abBody, &finish, sizeof(finish));
    write(cmd);
}

CPeerTimes CBareClient::askTimes()
{
    structMICMD cmd = request(PEER_TELL);
    const structMIRSP rsp = exchange(cmd);
    CPeerTimes times;
    std::memcpy(&times, rsp.abReserved, sizeof(times));
    return times;
}
