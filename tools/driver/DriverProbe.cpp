// Asks whether there is a media driver and whether it answers, as a client of its own: connects, pings,
// disconnects. Never waits for longer than it was told to, whatever the driver does.
#include "driver/DriverProbe.h"
#include "MediaProtocol.h"
#include "base/Descriptor.h"
#include "base/ToolError.h"
#include "driver/OwnPipes.h"
#include "driver/UmaskForDriver.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
typedef std::chrono::steady_clock Clock;

// What ends a probe before its time.
struct CNoAnswer
{
    EDriverState state;
    std::string strReason;
};

int makePipe(const std::string& strPath)
{
    const CUmaskForDriver umaskForDriver;
    const int nFlags = O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
    int nDescriptor = -1;
    if (mkfifo(strPath.c_str(), 0666) == 0)
        nDescriptor = open(strPath.c_str(), nFlags);
    if (nDescriptor == -1)
        throw CToolError(EXIT_CODE_FAILED, "cannot make the pipe " + strPath + ": " + std::strerror(errno));
    return nDescriptor;
}

int openRequestPipe()
{
    const int nDescriptor = open(MI_REQUEST_PIPE, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat status = {};
    if (nDescriptor != -1 && fstat(nDescriptor, &status) == 0 && S_ISFIFO(status.st_mode))
        return nDescriptor;
    const int nError = errno;
    if (nDescriptor != -1)
        close(nDescriptor);
    const std::string strPath = MI_REQUEST_PIPE;
    if (nDescriptor != -1)
        throw CNoAnswer{DRIVER_ABSENT, strPath + " is no FIFO"};
    if (nError == ENOENT)
        throw CNoAnswer{DRIVER_ABSENT, "there is no " + strPath};
    if (nError == ENXIO)
        throw CNoAnswer{DRIVER_ABSENT, "nobody reads " + strPath};
    throw CNoAnswer{DRIVER_ABSENT, "cannot open " + strPath + ": " + std::strerror(nError)};
}

class CProbeClient
{
public:
    explicit CProbeClient(std::chrono::milliseconds limit)
        : m_limit(limit), m_end(Clock::now() + limit), m_request(openRequestPipe()),
          m_response(makePipe(m_pipes.responsePipe())), m_event(makePipe(m_pipes.eventPipe()))
    {
        // A driver that ends meanwhile is no reason to end, too.
        signal(SIGPIPE, SIG_IGN);
        m_pipes.removeOnSignals();
    }

    void connect()
    {
        structMICMD cmd = {};
        cmd.s_micmd = MICMD_CONNECT;
        m_pipes.responsePipe().copy(cmd.connect.szRspPipe, sizeof(cmd.connect.szRspPipe) - 1);
        m_pipes.eventPipe().copy(cmd.connect.szEvtPipe, sizeof(cmd.connect.szEvtPipe) - 1);
        m_nConnectID = exchange(cmd).s_nConnectID;
    }

    void request(MICMD micmd)
    {
        structMICMD cmd = {};
        cmd.s_micmd = micmd;
        exchange(cmd);
    }

private:
    structMIRSP exchange(structMICMD& cmd)
    {
        cmd.nConnectID = m_nConnectID;
        cmd.nSequenceNo = ++m_nSequenceNo;
        if (write(m_request.get(), &cmd, sizeof(cmd)) != static_cast<ssize_t>(sizeof(cmd)))
        {
            if (errno == EAGAIN)
                throw CNoAnswer{DRIVER_SILENT, "the request pipe is full: the driver does not read it"};
            throw CNoAnswer{DRIVER_ABSENT, "the driver has gone"};
        }
        structMIRSP rsp = {};
        do
        {
            rsp = readResponse();
        } while (rsp.nRespSequenceNo != m_nSequenceNo);
        if (rsp.s_mirsp == MIRSP_STATUS && rsp.s_nResult == MISTATUS_FAILED)
            throw CNoAnswer{DRIVER_REFUSES, "the driver refuses requests"};
        return rsp;
    }

    structMIRSP readResponse()
    {
        structMIRSP rsp = {};
        ssize_t nRead = -1;
        while ((nRead = read(m_response.get(), &rsp, sizeof(rsp))) < 0)
        {
            pollfd wait = {m_response.get(), POLLIN, 0};
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_end - Clock::now());
            if (left.count() <= 0)
                throw CNoAnswer{DRIVER_SILENT, "no answer within " + std::to_string(m_limit.count()) + " ms"};
            poll(&wait, 1, static_cast<int>(left.count()));
        }
        if (nRead != static_cast<ssize_t>(sizeof(rsp)))
            throw CNoAnswer{DRIVER_SILENT, "what the driver answered is no response"};
        return rsp;
    }

    const std::chrono::milliseconds m_limit;
    const Clock::time_point m_end;
    const CDescriptor m_request;
    const COwnPipes m_pipes;
    const CDescriptor m_response;
    const CDescriptor m_event;
    int32_t m_nConnectID = -1;
    uint32_t m_nSequenceNo = 0;
};

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}
} // namespace

const char* driverStateToString(EDriverState state)
{
    switch (state)
    {
    case DRIVER_ABSENT: return "absent";
    case DRIVER_SILENT: return "silent";
    case DRIVER_REFUSES: return "refuses";
    case DRIVER_ANSWERS: return "answers";
    }
    return "";
}

CDriverProbe probeDriver(std::chrono::milliseconds limit, unsigned int nPings)
{
    CDriverProbe probe;
    try
    {
        CProbeClient client(limit);
        Clock::time_point start = Clock::now();
        client.connect();
        probe.dConnectMs = millisecondsSince(start);
        for (unsigned int nPing = 0; nPing < nPings; ++nPing)
        {
            start = Clock::now();
            client.request(MICMD_PING);
            probe.vPingMs.push_back(millisecondsSince(start));
        }
        client.request(MICMD_DISCONNECT);
        probe.state = DRIVER_ANSWERS;
    }
    catch (const CNoAnswer& noAnswer)
    {
        probe.state = noAnswer.state;
        probe.strReason = noAnswer.strReason;
    }
    return probe;
}
