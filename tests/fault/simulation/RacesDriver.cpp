#include "RacesDriver.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

using std::chrono::milliseconds;

namespace
{
void closePipe(int& nDescriptor)
{
    if (nDescriptor >= 0)
        close(nDescriptor);
    nDescriptor = -1;
}
} // namespace

CRacesDriver::CRacesDriver(uint64_t ullSeed) : m_random(ullSeed)
{
    openRequestPipe();
    m_thread = std::thread([this] { run(); });
}

CRacesDriver::~CRacesDriver()
{
    m_bStop = true;
    m_thread.join();
    closePipes();
    unlink(MI_REQUEST_PIPE);
}

void CRacesDriver::openRequestPipe()
{
    if (mkfifo(MI_REQUEST_PIPE, 0666) != 0)
        ADD_FAILURE() << "no request pipe: " << strerror(errno);
    m_nRequestPipe = open(MI_REQUEST_PIPE, O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

void CRacesDriver::closePipes()
{
    closePipe(m_nRequestPipe);
    closePipe(m_nResponsePipe);
    closePipe(m_nEventPipe);
}

void CRacesDriver::run()
{
    while (!m_bStop)
    {
        pollfd entry = {m_nRequestPipe, POLLIN, 0};
        structMICMD request;
        if (poll(&entry, 1, 1) > 0 && read(m_nRequestPipe, &request, sizeof(request)) == sizeof(request))
            handle(request);
        endDuePlays();
    }
}

void CRacesDriver::handle(const structMICMD& request)
{
    ++m_ullRequests;
    if (request.s_micmd == MICMD_CONNECT)
        return connect(request);
    if (m_bRestarts && CClock::now() > m_restart)
        return goAway(request);
    if (m_random.perMille(2))
        std::this_thread::sleep_for(milliseconds(20));
    if (m_random.perMille(5))
        for (unsigned int nLate = 1 + m_random.below(5); nLate > 0; --nLate)
            respond(request.nSequenceNo - nLate, MIRSP_STATUS, MISTATUS_OK);
    if (m_random.perMille(10))
        return respond(request.nSequenceNo, MIRSP_STATUS, MISTATUS_FAILED);
    accept(request);
}

void CRacesDriver::connect(const structMICMD& request)
{
    closePipe(m_nResponsePipe);
    closePipe(m_nEventPipe);
    m_nResponsePipe = open(request.connect.szRspPipe, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    m_nEventPipe = open(request.connect.szEvtPipe, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    m_restart = CClock::now() + milliseconds(400 + m_random.below(1200));
    respond(request.nSequenceNo, MIRSP_CONNECT, static_cast<int32_t>(1000 + ++m_nConnects));
}

void CRacesDriver::accept(const structMICMD& request)
{
    switch (request.s_micmd)
    {
    case MICMD_OPENFILE: return respond(request.nSequenceNo, MIRSP_OPENFILE, m_nNextID++);
    case MICMD_OPENSTREAM: return respond(request.nSequenceNo, MIRSP_OPENSTREAM, m_nNextID++);
    case MICMD_RECORDGETTIME: return respond(request.nSequenceNo, MIRSP_RECORDGETTIME, 1234);
    case MICMD_RECORDGETSTATUS: return respond(request.nSequenceNo, MIRSP_RECORDGETSTATUS, 0);
    case MICMD_PLAYCLIP:
    case MICMD_PLAYFILE:
    case MICMD_RECORDFILE: play(request); break;
    case MICMD_CANCEL: cancel(request.cancel.nStreamID); break;
    default: break;
    }
    respond(request.nSequenceNo, MIRSP_STATUS, MISTATUS_OK);
}

// Some plays end before the response to their request is written.
void CRacesDriver::play(const structMICMD& request)
{
    static const int32_t anStatuses[] = {0, 0, 0, 0, 0, 0, 0, 3, 7, -1};
    const structMIEVT evt = {MIEVT_DONE, request.stream.nStreamID, request.nSequenceNo, m_random.pick(anStatuses)};
    m_vPlays.push_back({evt, CClock::now() + milliseconds(m_random.below(6))});
    if (m_random.oneIn(10))
    {
        m_vPlays.back().due = CClock::now();
        endDuePlays();
    }
}

void CRacesDriver::cancel(int nStreamID)
{
    for (CPlay& play : m_vPlays)
    {
        if (play.evt.nStreamID == nStreamID)
        {
            play.evt.s_mcstatus = 3;
            play.due = CClock::now();
        }
    }
    endDuePlays();
}

void CRacesDriver::respond(uint32_t nSequenceNo, MIRSP mirsp, int32_t nResult)
{
    structMIRSP rsp = {};
    rsp.s_mirsp = mirsp;
    rsp.nRespSequenceNo = nSequenceNo;
    rsp.s_nResult = nResult;
    if (write(m_nResponsePipe, &rsp, sizeof(rsp)) != sizeof(rsp))
        ADD_FAILURE() << "response not written: " << strerror(errno);
}

// The client waits for its response and writes nothing meanwhile: what it writes next fails.
void CRacesDriver::goAway(const structMICMD& request)
{
    closePipe(m_nRequestPipe);
    unlink(MI_REQUEST_PIPE);
    if (m_random.oneIn(2))
        accept(request);
    else if (write(m_nResponsePipe, &request, 10) != 10)
        ADD_FAILURE() << "torn response not written: " << strerror(errno);
    closePipes();
    m_vPlays.clear();
    ++m_nRestarts;
    std::this_thread::sleep_for(milliseconds(m_random.below(50)));
    openRequestPipe();
}

void CRacesDriver::endDuePlays()
{
    const CClock::time_point now = CClock::now();
    for (size_t n = 0; n < m_vPlays.size();)
    {
        const bool bDue = m_vPlays[n].due <= now;
        if (bDue && write(m_nEventPipe, &m_vPlays[n].evt, sizeof(structMIEVT)) == sizeof(structMIEVT))
            m_vPlays.erase(m_vPlays.begin() + static_cast<std::ptrdiff_t>(n));
        else
            ++n;
    }
}
