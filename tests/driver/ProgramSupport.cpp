// The driver as a program, bare clients on real FIFOs, and child processes for them to live in.
#include "ProgramSupport.h"
#include "Places.h"

#include "DriverTestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace
{
constexpr int DEADLINE_MS = 20000;

bool waitReadable(int nFd)
{
    pollfd wait = {nFd, POLLIN, 0};
    return ::poll(&wait, 1, DEADLINE_MS) == 1;
}

template <class TRecord> std::optional<TRecord> readRecord(int nFd)
{
    TRecord record;
    if (waitReadable(nFd) && ::read(nFd, &record, sizeof(record)) == static_cast<ssize_t>(sizeof(record)))
        return record;
    return std::nullopt;
}
} // namespace

CDriverProgram::CDriverProgram(const std::vector<std::string>& vArguments)
{
    int anOut[2];
    int anErr[2];
    if (::pipe2(anOut, O_CLOEXEC) != 0 || ::pipe2(anErr, O_CLOEXEC) != 0)
        return;
    m_fdOut = CFd(anOut[0]);
    m_fdErr = CFd(anErr[0]);
    const CFd fdOut(anOut[1]);
    const CFd fdErr(anErr[1]);
    std::vector<std::string> vWords = {REFERENCE_DRIVER_PROGRAM};
    vWords.insert(vWords.end(), vArguments.begin(), vArguments.end());
    start(vWords, {.m_nOutput = fdOut.get(), .m_nErrors = fdErr.get()});
}

bool CDriverProgram::waitReady()
{
    std::string strLine;
    char c = 0;
    while (waitReadable(m_fdOut.get()) && ::read(m_fdOut.get(), &c, 1) == 1 && c != '\n')
        strLine += c;
    return strLine == "zelmedia-driver: ready";
}

size_t CDriverProgram::openDescriptors() const
{
    const std::filesystem::directory_iterator it("/proc/" + std::to_string(processID()) + "/fd");
    return static_cast<size_t>(std::distance(begin(it), end(it)));
}

size_t CDriverProgram::residentBytes() const
{
    size_t nTotal = 0;
    size_t nResident = 0;
    std::ifstream("/proc/" + std::to_string(processID()) + "/statm") >> nTotal >> nResident;
    return nResident * static_cast<size_t>(::sysconf(_SC_PAGESIZE));
}

std::string CDriverProgram::errors()
{
    std::string strText;
    char c = 0;
    while (::read(m_fdErr.get(), &c, 1) == 1)
        strText += c;
    return strText;
}

CRawClient::CRawClient()
    : m_strRspPipe(MI_RESPONSE_PIPE_PREFIX + std::to_string(::getpid())),
      m_strEvtPipe(MI_EVENT_PIPE_PREFIX + std::to_string(::getpid()))
{
    ::signal(SIGPIPE, SIG_IGN);
    ::mkfifo(m_strRspPipe.c_str(), 0600);
    ::mkfifo(m_strEvtPipe.c_str(), 0600);
    m_fdRsp = CFd(::open(m_strRspPipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    m_fdEvt = CFd(::open(m_strEvtPipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
}

CRawClient::~CRawClient()
{
    ::unlink(m_strRspPipe.c_str());
    ::unlink(m_strEvtPipe.c_str());
}

bool CRawClient::connect()
{
    m_fdReq = CFd(::open(MI_REQUEST_PIPE, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    structMICMD cmd = command(MICMD_CONNECT, 0, 0);
    setText(cmd.connect.szRspPipe, m_strRspPipe);
    setText(cmd.connect.szEvtPipe, m_strEvtPipe);
    const auto rsp = request(cmd);
    if (!rsp || rsp->s_mirsp != MIRSP_CONNECT)
        return false;
    m_nConnectID = rsp->s_nConnectID;
    return true;
}

bool CRawClient::send(structMICMD cmd)
{
    cmd.nConnectID = m_nConnectID;
    cmd.nSequenceNo = ++m_nSequenceNo;
    ssize_t nWritten = -1;
    pollfd wait = {m_fdReq.get(), POLLOUT, 0};
    do
    {
        nWritten = ::write(m_fdReq.get(), &cmd, sizeof(cmd));
    } while (nWritten < 0 && errno == EAGAIN && ::poll(&wait, 1, DEADLINE_MS) == 1);
    return nWritten == static_cast<ssize_t>(sizeof(cmd));
}

std::optional<structMIRSP> CRawClient::waitResponse()
{
    return readRecord<structMIRSP>(m_fdRsp.get());
}

std::optional<structMIRSP> CRawClient::request(structMICMD cmd)
{
    if (!send(cmd))
        return std::nullopt;
    const auto rsp = waitResponse();
    return rsp && rsp->nRespSequenceNo == m_nSequenceNo ? rsp : std::nullopt;
}

std::optional<structMIEVT> CRawClient::waitEvent()
{
    return readRecord<structMIEVT>(m_fdEvt.get());
}

int CRawClient::openStream(const std::string& strCallID, uint32_t nLegID)
{
    structMICMD cmd = command(MICMD_OPENSTREAM, 0, 0);
    setText(cmd.openStream.szCallID, strCallID);
    cmd.openStream.nLegID = nLegID;
    const auto rsp = request(cmd);
    return rsp && rsp->s_mirsp == MIRSP_OPENSTREAM ? rsp->s_nStreamID : 0;
}

int CRawClient::openFile(const std::string& strPath)
{
    structMICMD cmd = command(MICMD_OPENFILE, 0, 0);
    setText(cmd.openFile.szFileName, strPath);
    const auto rsp = request(cmd);
    return rsp && rsp->s_mirsp == MIRSP_OPENFILE ? rsp->s_nFileID : 0;
}

bool CRawClient::isDone(const structMICMD& cmd)
{
    const auto rsp = request(cmd);
    return rsp && rsp->s_mirsp == MIRSP_STATUS && rsp->s_nResult == MISTATUS_OK;
}

bool CRawClient::playClip(int nStreamID, int nFileID, uint32_t nOffset, uint32_t nLength)
{
    structMICMD cmd = command(MICMD_PLAYCLIP, 0, 0);
    cmd.playClip.nStreamID = nStreamID;
    cmd.playClip.nFileID = nFileID;
    cmd.playClip.nOffset = nOffset;
    cmd.playClip.nLength = nLength;
    return isDone(cmd);
}

bool CRawClient::playFile(int nStreamID, const std::string& strPath)
{
    structMICMD cmd = command(MICMD_PLAYFILE, 0, 0);
    cmd.playFile.nStreamID = nStreamID;
    setText(cmd.playFile.szFileName, strPath);
    cmd.playFile.nStartPos = 0;
    return isDone(cmd);
}

bool CRawClient::recordFile(int nStreamID, const std::string& strPath, uint32_t nMaxSamples)
{
    structMICMD cmd = command(MICMD_RECORDFILE, 0, 0);
    cmd.recordFile.nStreamID = nStreamID;
    setText(cmd.recordFile.szFileName, strPath);
    cmd.recordFile.nMaxSamples = nMaxSamples;
    return isDone(cmd);
}

int CRawClient::connectId() const
{
    return m_nConnectID;
}

uint32_t CRawClient::sequence() const
{
    return m_nSequenceNo;
}

int CRawClient::requestFd() const
{
    return m_fdReq.get();
}

void CChildProcess::CParent::report() const
{
    const char c = 'r';
    // The parent's end is the child's end.
    if (::send(m_nFd, &c, 1, MSG_NOSIGNAL) != 1)
        ::_exit(1);
}

bool CChildProcess::CParent::hasAsked() const
{
    pollfd wait = {m_nFd, POLLIN, 0};
    return ::poll(&wait, 1, 0) == 1;
}

bool CChildProcess::CParent::waitAsked() const
{
    char c = 0;
    return ::read(m_nFd, &c, 1) == 1;
}

CChildProcess::CChildProcess(const Work& work)
{
    int anSockets[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, anSockets) != 0)
        return;
    m_fdChild = CFd(anSockets[0]);
    const CFd fdParent(anSockets[1]);
    start([&] {
        m_fdChild.close();
        return work(CParent(fdParent.get())) ? 0 : 1;
    });
}

bool CChildProcess::waitReport()
{
    char c = 0;
    return waitReadable(m_fdChild.get()) && ::read(m_fdChild.get(), &c, 1) == 1;
}

void CChildProcess::ask()
{
    const char c = 'a';
    ::send(m_fdChild.get(), &c, 1, MSG_NOSIGNAL);
}

bool CChildProcess::waitEnd()
{
    m_fdChild.close();
    return waitExit() == 0;
}
