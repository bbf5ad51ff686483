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

[[noreturn]] void Fail(const std::string& strWhat)
{
    throw std::runtime_error("bare client: " + strWhat + " (" + std::to_string(errno) + ")");
}

CFd MakePipe(const std::string& strPath)
{
    if (::mkfifo(strPath.c_str(), 0666) != 0)
        Fail("no pipe " + strPath);
    CFd fd(::open(strPath.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd.IsOpen())
        Fail("cannot open " + strPath);
    return fd;
}

void CopyName(char (&szName)[MI_PIPE_NAME_SIZE], const std::string& strName)
{
    std::snprintf(szName, sizeof(szName), "%s", strName.c_str());
}
} // namespace

std::chrono::nanoseconds MonotonicNow()
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
    m_fdRsp = MakePipe(m_strRspPipe);
    m_fdEvt = MakePipe(m_strEvtPipe);
    ::fcntl(m_fdEvt.Get(), F_SETPIPE_SZ, EVENT_PIPE_BYTES);
    m_fdReq = CFd(::open(MI_REQUEST_PIPE, O_WRONLY | O_CLOEXEC));

    structMICMD cmd = Request(MICMD_CONNECT);
    CopyName(cmd.connect.szRspPipe, m_strRspPipe);
    CopyName(cmd.connect.szEvtPipe, m_strEvtPipe);
    m_nConnectID = Exchange(cmd).s_nConnectID;
}

CBareClient::~CBareClient()
{
    try
    {
        structMICMD cmd = Request(MICMD_DISCONNECT);
        Exchange(cmd);
    }
    catch (const std::exception&)
    {
    }
    ::unlink(m_strRspPipe.c_str());
    ::unlink(m_strEvtPipe.c_str());
}

structMICMD CBareClient::Request(MICMD micmd) const
{
    structMICMD cmd = {};
    cmd.s_micmd = micmd;
    cmd.nConnectID = m_nConnectID;
    return cmd;
}

void CBareClient::Write(structMICMD& cmd)
{
    cmd.nSequenceNo = ++m_nSequenceNo;
    if (::write(m_fdReq.Get(), &cmd, sizeof(cmd)) != static_cast<ssize_t>(sizeof(cmd)))
        Fail("cannot write a request");
}

void CBareClient::ReadResponse(structMIRSP& rsp)
{
    if (::read(m_fdRsp.Get(), &rsp, sizeof(rsp)) != static_cast<ssize_t>(sizeof(rsp)))
        Fail("cannot read a response");
}

void CBareClient::ReadEvent(structMIEVT& evt)
{
    if (::read(m_fdEvt.Get(), &evt, sizeof(evt)) != static_cast<ssize_t>(sizeof(evt)))
        Fail("cannot read an event");
}

structMIRSP CBareClient::Exchange(structMICMD& cmd)
{
    structMIRSP rsp;
    Write(cmd);
    ReadResponse(rsp);
    return rsp;
}

void CBareClient::WriteEvent(const structMIEVT& evt)
{
    if (::write(m_fdEvt.Get(), &evt, sizeof(evt)) != static_cast<ssize_t>(sizeof(evt)))
        Fail("cannot write an event");
}

std::int32_t CBareClient::OpenStream()
{
    structMICMD cmd = Request(MICMD_OPENSTREAM);
    return Exchange(cmd).s_nStreamID;
}

void CBareClient::CloseStream(std::int32_t nStreamID)
{
    structMICMD cmd = Request(MICMD_CLOSESTREAM);
    cmd.stream.nStreamID = nStreamID;
    Exchange(cmd);
}

structMICMD CBareClient::Play(std::int32_t nStreamID, std::uint32_t nHowItEnds) const
{
    structMICMD cmd = Request(MICMD_PLAYFILE);
    cmd.playFile.nStreamID = nStreamID;
    cmd.playFile.nPlayParam = nHowItEnds;
    return cmd;
}

void CBareClient::Finish(int nConnectID, std::int32_t nStreamID)
{
    structMICMD cmd = Request(PEER_FINISH);
    const CPeerFinish finish = {nConnectID, nStreamID};
    std::memcpy(cmd.abBody, &finish, sizeof(finish));
    Write(cmd);
}

CPeerTimes CBareClient::AskTimes()
{
    structMICMD cmd = Request(PEER_TELL);
    const structMIRSP rsp = Exchange(cmd);
    CPeerTimes times;
    std::memcpy(&times, rsp.abReserved, sizeof(times));
    return times;
}
