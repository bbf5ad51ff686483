// The smallest media driver: answers at once, plays nothing, ends plays as they ask for. Measured programs talk to it.
#include "Fd.h"
#include "PeerProtocol.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

namespace
{
constexpr int MAX_CLIENTS = 1024;
constexpr int MAX_STREAMS = 1 << 18;
constexpr std::int32_t PLAY_CANCELLED = 3;
constexpr std::int64_t REST_NANOSECONDS = 60000; // a client needs less to come back from its response

std::int64_t Now()
{
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// Opening must not wait for a client that is gone, writing waits for one that is slow.
CFd OpenForWriting(const char* pPath)
{
    CFd fd(::open(pPath, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    ::fcntl(fd.Get(), F_SETFL, 0);
    return fd;
}

struct CClient
{
    CFd m_fdRsp;
    CFd m_fdEvt;
    std::vector<std::int32_t> m_vHeld; // streams whose plays wait to be ended
};

struct CStream
{
    int m_nClient = -1;
    int m_nHeldAt = -1; // place in the client's list
    std::uint32_t m_nSequenceNo = 0;
};

// All memory is taken at the start and when a client connects.
class CPeer
{
public:
    explicit CPeer(CFd fdReq) : m_fdReq(std::move(fdReq)), m_vClients(MAX_CLIENTS), m_vStreams(MAX_STREAMS)
    {
        for (std::int32_t nStream = MAX_STREAMS - 1; nStream > 0; --nStream)
            m_vFreeStreams.push_back(nStream);
    }

    void Run()
    {
        structMICMD cmd;
        while (::read(m_fdReq.Get(), &cmd, sizeof(cmd)) == static_cast<ssize_t>(sizeof(cmd)))
        {
            if (cmd.s_micmd == MICMD_CONNECT)
                Connect(cmd);
            else if (cmd.nConnectID > 0 && cmd.nConnectID < MAX_CLIENTS && Client(cmd).m_fdRsp.IsOpen())
                Handle(cmd);
        }
    }

private:
    CClient& Client(const structMICMD& cmd) { return m_vClients[static_cast<std::size_t>(cmd.nConnectID)]; }

    // The stream that a request names; a request to one that does not exist is taken for stream 0, which nobody has.
    CStream& Stream(std::int32_t nStreamID)
    {
        return m_vStreams[nStreamID > 0 && nStreamID < MAX_STREAMS ? static_cast<std::size_t>(nStreamID) : 0];
    }

    void Respond(const structMICMD& cmd, MIRSP mirsp = MIRSP_STATUS, std::int32_t nResult = MISTATUS_OK)
    {
        m_rsp.s_mirsp = mirsp;
        m_rsp.nRespSequenceNo = cmd.nSequenceNo;
        m_rsp.s_nResult = nResult;
        Write(Client(cmd).m_fdRsp, m_rsp);
    }

    static void End(CClient& client, std::int32_t nStreamID, std::uint32_t nSequenceNo, std::int32_t nStatus = 0)
    {
        Write(client.m_fdEvt, structMIEVT{MIEVT_DONE, nStreamID, nSequenceNo, nStatus});
    }

    // A client that is gone does not matter.
    template <class RECORD> static void Write(const CFd& fd, const RECORD& record)
    {
        [[maybe_unused]] const ssize_t nWritten = ::write(fd.Get(), &record, sizeof(record));
    }

    void Connect(structMICMD& cmd)
    {
        cmd.nConnectID = 1;
        while (Client(cmd).m_fdRsp.IsOpen() && cmd.nConnectID < MAX_CLIENTS - 1)
            ++cmd.nConnectID;
        CClient& client = Client(cmd);
        client.m_fdRsp = OpenForWriting(cmd.connect.szRspPipe);
        client.m_fdEvt = OpenForWriting(cmd.connect.szEvtPipe);
        client.m_vHeld.clear();
        client.m_vHeld.reserve(MAX_STREAMS);
        Respond(cmd, MIRSP_CONNECT, cmd.nConnectID);
    }

    void Handle(const structMICMD& cmd)
    {
        switch (static_cast<int>(cmd.s_micmd))
        {
        case MICMD_OPENFILE: return Respond(cmd, MIRSP_OPENFILE, ++m_nFiles);
        case MICMD_OPENSTREAM: return OpenStream(cmd);
        case MICMD_CLOSESTREAM: return CloseStream(cmd);
        case MICMD_PLAYCLIP: return Play(cmd, cmd.playClip.nPlayParam);
        case MICMD_PLAYFILE: return Play(cmd, cmd.playFile.nPlayParam);
        case MICMD_RECORDFILE: return Play(cmd, PEER_PLAY_HOLD);
        case MICMD_CANCEL: return Cancel(cmd);
        case MICMD_RECORDGETTIME: return Respond(cmd, MIRSP_RECORDGETTIME, 1234);
        case MICMD_RECORDGETSTATUS: return Respond(cmd, MIRSP_RECORDGETSTATUS, 1);
        case MICMD_DISCONNECT: return Disconnect(cmd);
        case PEER_FINISH: return Finish(cmd);
        case PEER_TELL: return Tell(cmd);
        default: return Respond(cmd);
        }
    }

    void OpenStream(const structMICMD& cmd)
    {
        if (m_vFreeStreams.empty())
            return Respond(cmd, MIRSP_STATUS, MISTATUS_FAILED);
        const std::int32_t nStreamID = m_vFreeStreams.back();
        m_vFreeStreams.pop_back();
        Stream(nStreamID) = {cmd.nConnectID, -1, 0};
        Respond(cmd, MIRSP_OPENSTREAM, nStreamID);
    }

    void CloseStream(const structMICMD& cmd)
    {
        CStream& stream = Stream(cmd.stream.nStreamID);
        if (stream.m_nClient == cmd.nConnectID)
            Free(Client(cmd), cmd.stream.nStreamID);
        Respond(cmd);
    }

    void Free(CClient& client, std::int32_t nStreamID)
    {
        Release(client, nStreamID);
        Stream(nStreamID).m_nClient = -1;
        m_vFreeStreams.push_back(nStreamID);
    }

    void Play(const structMICMD& cmd, std::uint32_t nHowItEnds)
    {
        const std::int32_t nStreamID = cmd.stream.nStreamID;
        if (nHowItEnds == PEER_PLAY_AT_ONCE)
        {
            Respond(cmd);
            return End(Client(cmd), nStreamID, cmd.nSequenceNo);
        }
        if (nHowItEnds == PEER_PLAY_HAND_OVER)
            return HandOver(cmd);
        CClient& client = Client(cmd);
        CStream& stream = Stream(nStreamID);
        if (stream.m_nHeldAt < 0 && stream.m_nClient == cmd.nConnectID)
        {
            stream.m_nHeldAt = static_cast<int>(client.m_vHeld.size());
            client.m_vHeld.push_back(nStreamID);
        }
        stream.m_nSequenceNo = cmd.nSequenceNo;
        Respond(cmd);
    }

    // The client is to wait for the event when it comes: the time taken is that of the event's way alone.
    void HandOver(const structMICMD& cmd)
    {
        if (m_nEnded != 0)
        {
            m_times.nHandOverSum += Now() - m_nEnded;
            ++m_times.nHandOvers;
        }
        Respond(cmd);
        for (const std::int64_t nUntil = Now() + REST_NANOSECONDS; Now() < nUntil;)
            ::sched_yield();
        m_nEnded = Now();
        End(Client(cmd), cmd.stream.nStreamID, cmd.nSequenceNo);
    }

    void Cancel(const structMICMD& cmd)
    {
        CClient& client = Client(cmd);
        const std::int32_t nStreamID = cmd.cancel.nStreamID;
        const bool bHeld = Release(client, nStreamID);
        Respond(cmd);
        if (bHeld)
            End(client, nStreamID, Stream(nStreamID).m_nSequenceNo, PLAY_CANCELLED);
    }

    // Takes the stream's play out of those held. False if there is none.
    bool Release(CClient& client, std::int32_t nStreamID)
    {
        CStream& stream = Stream(nStreamID);
        if (stream.m_nHeldAt < 0)
            return false;
        const std::int32_t nLast = client.m_vHeld.back();
        client.m_vHeld[static_cast<std::size_t>(stream.m_nHeldAt)] = nLast;
        client.m_vHeld.pop_back();
        Stream(nLast).m_nHeldAt = stream.m_nHeldAt;
        stream.m_nHeldAt = -1;
        return true;
    }

    void Finish(const structMICMD& cmd)
    {
        CPeerFinish finish;
        std::memcpy(&finish, cmd.abBody, sizeof(finish));
        if (finish.nConnectID <= 0 || finish.nConnectID >= MAX_CLIENTS)
            return;
        CClient& client = m_vClients[static_cast<std::size_t>(finish.nConnectID)];
        if (finish.nStreamID != 0)
        {
            if (!Release(client, finish.nStreamID))
                return;
            m_times.nBurst = Now();
            return End(client, finish.nStreamID, Stream(finish.nStreamID).m_nSequenceNo);
        }
        m_times.nBurst = Now();
        for (const std::int32_t nStreamID : client.m_vHeld)
        {
            CStream& stream = Stream(nStreamID);
            stream.m_nHeldAt = -1;
            End(client, nStreamID, stream.m_nSequenceNo);
        }
        client.m_vHeld.clear();
    }

    void Tell(const structMICMD& cmd)
    {
        std::memcpy(m_rsp.abReserved, &m_times, sizeof(m_times));
        Respond(cmd);
        m_times.nHandOverSum = 0;
        m_times.nHandOvers = 0;
        m_nEnded = 0;
    }

    void Disconnect(const structMICMD& cmd)
    {
        Respond(cmd);
        CClient& client = Client(cmd);
        for (std::int32_t nStreamID = 1; nStreamID < MAX_STREAMS; ++nStreamID)
        {
            if (Stream(nStreamID).m_nClient == cmd.nConnectID)
                Free(client, nStreamID);
        }
        client.m_fdRsp.Close();
        client.m_fdEvt.Close();
    }

    CFd m_fdReq;
    std::vector<CClient> m_vClients; // by connection id, from 1
    std::vector<CStream> m_vStreams; // by stream id, from 1
    std::vector<std::int32_t> m_vFreeStreams;
    structMIRSP m_rsp = {};
    CPeerTimes m_times = {};
    std::int64_t m_nEnded = 0; // when the last play of a hand-over was ended
    int m_nFiles = 0;
};
} // namespace

// Tells on its standard output when it is ready, and ends with the process that started it.
int main()
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::signal(SIGPIPE, SIG_IGN);
    if (::mkfifo(MI_REQUEST_PIPE, 0666) != 0)
    {
        std::perror("bench-peer: " MI_REQUEST_PIPE);
        return EXIT_FAILURE;
    }
    CPeer peer(CFd(::open(MI_REQUEST_PIPE, O_RDWR | O_CLOEXEC)));
    std::puts("ready");
    std::fflush(stdout);
    peer.Run();
    return EXIT_FAILURE;
}
