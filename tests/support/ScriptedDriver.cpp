#include "ScriptedDriver.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
void closePipe(int& nDescriptor)
{
    if (nDescriptor >= 0)
        close(nDescriptor);
    nDescriptor = -1;
}

// A record must arrive whole: anything else is a fault of the test.
void writeWhole(int nDescriptor, const void* pBytes, size_t nBytes, const char* pszPipe)
{
    const ssize_t nWritten = nDescriptor < 0 ? -1 : write(nDescriptor, pBytes, nBytes);
    if (nWritten != static_cast<ssize_t>(nBytes))
        ADD_FAILURE() << "scripted driver: " << pszPipe << " pipe not written: " << strerror(errno);
}
} // namespace

CScriptedDriver::CScriptedDriver(bool bStart)
{
    if (bStart)
        start();
}

CScriptedDriver::~CScriptedDriver()
{
    die();
}

void CScriptedDriver::makeRequestPipe()
{
    unlink(MI_REQUEST_PIPE);
    if (mkfifo(MI_REQUEST_PIPE, 0666) != 0)
        ADD_FAILURE() << "scripted driver: no request pipe: " << strerror(errno);
    m_nRequestPipe = open(MI_REQUEST_PIPE, O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

void CScriptedDriver::closeRequestPipe()
{
    closePipe(m_nRequestPipe);
    unlink(MI_REQUEST_PIPE);
}

void CScriptedDriver::start()
{
    makeRequestPipe();
    m_bStop = false;
    m_thread = std::thread([this] { run(); });
}

void CScriptedDriver::die()
{
    m_bStop = true;
    if (m_thread.joinable())
        m_thread.join();
    closeRequestPipe();
    closeClient();
}

// A client that waits for its response writes nothing meanwhile: what it writes next fails.
void CScriptedDriver::replace(const std::function<void()>& last, std::chrono::milliseconds pause)
{
    closeRequestPipe();
    last();
    closeClient();
    std::this_thread::sleep_for(pause);
    makeRequestPipe();
}

void CScriptedDriver::freeze()
{
    m_bFrozen = true;
}

void CScriptedDriver::thaw()
{
    m_bFrozen = false;
}

void CScriptedDriver::run()
{
    while (!m_bStop)
    {
        if (m_turn)
            m_turn();
        pollfd entry = {m_nRequestPipe, POLLIN, 0};
        if (m_bFrozen || poll(&entry, 1, m_turn ? 1 : 5) <= 0 || m_bFrozen)
        {
            if (m_bFrozen)
                usleep(1000);
            continue;
        }
        structMICMD request;
        const ssize_t nRead = read(m_nRequestPipe, &request, sizeof(request));
        if (nRead == static_cast<ssize_t>(sizeof(request)))
            handle(request);
        else
            ADD_FAILURE() << "scripted driver: a request of " << nRead << " bytes";
    }
}

void CScriptedDriver::handle(const structMICMD& request)
{
    Rule rule;
    if (request.s_micmd == MICMD_CONNECT)
        openClient(request);
    {
        std::lock_guard hold(m_mutex);
        if (m_bKeep)
            m_vRequests.push_back(request);
        const auto it = m_mapRules.find(request.s_micmd);
        if (it != m_mapRules.end())
            rule = it->second;
    }
    m_changed.notify_all();
    if (m_gate && m_gate(request))
        return;
    if (rule)
        rule(request);
    else
        accept(request);
}

void CScriptedDriver::openClient(const structMICMD& request)
{
    closeClient();
    std::lock_guard hold(m_mutexPipes);
    m_nResponsePipe = open(request.connect.szRspPipe, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    m_nEventPipe = open(request.connect.szEvtPipe, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
}

void CScriptedDriver::closeClient()
{
    std::lock_guard hold(m_mutexPipes);
    closePipe(m_nResponsePipe);
    closePipe(m_nEventPipe);
}

void CScriptedDriver::onCommand(MICMD micmd, Rule rule)
{
    std::lock_guard hold(m_mutex);
    m_mapRules[micmd] = std::move(rule);
}

void CScriptedDriver::acceptAgain(MICMD micmd)
{
    std::lock_guard hold(m_mutex);
    m_mapRules.erase(micmd);
}

void CScriptedDriver::refuse(MICMD micmd)
{
    onCommand(
        micmd, [this](const structMICMD& request) { respond(request, MIRSP_STATUS, MISTATUS_FAILED); });
}

void CScriptedDriver::ignore(MICMD micmd)
{
    onCommand(
        micmd, [](const structMICMD&) {});
}

void CScriptedDriver::accept(const structMICMD& request)
{
    switch (request.s_micmd)
    {
    case MICMD_CONNECT: return acceptWith(request, ++m_nConnectID);
    case MICMD_OPENFILE: return acceptWith(request, m_nNextFileID++);
    case MICMD_OPENSTREAM: return acceptWith(request, m_nNextStreamID++);
    case MICMD_RECORDGETTIME: return acceptWith(request, 1234);
    case MICMD_RECORDGETSTATUS: return acceptWith(request, 1);
    default: return acceptWith(request, MISTATUS_OK);
    }
}

void CScriptedDriver::acceptWith(const structMICMD& request, int32_t nResult)
{
    const CCommandInfo* const pInfo = commandInfo(request.s_micmd);
    respond(request, pInfo ? pInfo->m_mirsp : MIRSP_STATUS, nResult);
}

void CScriptedDriver::respond(const structMICMD& request, MIRSP mirsp, int32_t nResult)
{
    respondTo(request.nSequenceNo, mirsp, nResult);
}

void CScriptedDriver::respondTo(uint32_t nSequenceNo, MIRSP mirsp, int32_t nResult)
{
    structMIRSP rsp = {};
    rsp.s_mirsp = mirsp;
    rsp.nRespSequenceNo = nSequenceNo;
    rsp.s_nResult = nResult;
    respondRaw(&rsp, sizeof(rsp));
}

void CScriptedDriver::respondRaw(const void* pBytes, size_t nBytes)
{
    std::lock_guard hold(m_mutexPipes);
    writeWhole(m_nResponsePipe, pBytes, nBytes, "response");
}

void CScriptedDriver::done(const structMICMD& request, int32_t nStatus)
{
    event(request.stream.nStreamID, request.nSequenceNo, nStatus);
}

void CScriptedDriver::event(int32_t nStreamID, uint32_t nSequenceNo, int32_t nStatus, MIEVT mievt)
{
    structMIEVT evt;
    evt.s_mievt = mievt;
    evt.nStreamID = nStreamID;
    evt.nSequenceID = nSequenceNo;
    evt.s_mcstatus = nStatus;
    eventRaw(&evt, sizeof(evt));
}

void CScriptedDriver::eventRaw(const void* pBytes, size_t nBytes)
{
    std::lock_guard hold(m_mutexPipes);
    writeWhole(m_nEventPipe, pBytes, nBytes, "event");
}

bool CScriptedDriver::tryEvent(const structMIEVT& evt)
{
    std::lock_guard hold(m_mutexPipes);
    return write(m_nEventPipe, &evt, sizeof(evt)) == static_cast<ssize_t>(sizeof(evt));
}

std::vector<structMICMD> CScriptedDriver::requests() const
{
    std::lock_guard hold(m_mutex);
    return m_vRequests;
}

std::vector<structMICMD> CScriptedDriver::requests(MICMD micmd) const
{
    std::vector<structMICMD> vOfCommand;
    for (const structMICMD& request : requests())
        if (request.s_micmd == micmd)
            vOfCommand.push_back(request);
    return vOfCommand;
}

structMICMD CScriptedDriver::waitRequest(MICMD micmd, size_t nIndex)
{
    if (!waitCount(micmd, nIndex + 1))
    {
        ADD_FAILURE() << "scripted driver: request " << nIndex << " of command " << micmd << " never came";
        return structMICMD();
    }
    return requests(micmd)[nIndex];
}

bool CScriptedDriver::waitCount(MICMD micmd, size_t nCount, std::chrono::milliseconds limit) const
{
    std::unique_lock hold(m_mutex);
    return m_changed.wait_for(hold, limit, [&] {
        size_t nFound = 0;
        for (const structMICMD& request : m_vRequests)
            nFound += request.s_micmd == micmd;
        return nFound >= nCount;
    });
}
