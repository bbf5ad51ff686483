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
constexpr int32_t PLAY_CANCELLED = 3;
constexpr int64_t REST_NANOSECONDS = 60000; // a client needs less to come back from its response

int64_t now()
{
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// Opening must not wait for a client that is gone, writing waits for one that is slow.
CFd openForWriting(const char* pPath)
{
    CFd fd(::open(pPath, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    ::fcntl(fd.get(), F_SETFL, 0);
    return fd;
}

struct CClient
{
    CFd m_fdRsp;
    CFd m_fdEvt;
    std::vector<int32_t> m_vHeld; // streams whose plays wait to be ended
};

struct CStream
{
    int m_nClient = -1;
    int m_nHeldAt = -1; // place in the client's list
    uint32_t m_nSequenceNo = 0;
};

// All memory is taken at the start and when a client connects.
class CPeer
{
public:
    explicit CPeer(CFd fdReq) : m_fdReq(std::move(fdReq)), m_vClients(MAX_CLIENTS), m_vStreams(MAX_STREAMS)
    {
        for (int32_t nStream = MAX_STREAMS - 1; nStream > 0; --nStream)
            m_vFreeStreams.push_back(nStream);
    }

    void run()
    {
        structMICMD cmd;
        while (::read(m_fdReq.get(), &cmd, sizeof(cmd)) == static_cast<ssize_t>(sizeof(cmd)))
            if (cmd.s_micmd == MICMD_CONNECT)
                connect(cmd);
            else if (cmd.nConnectID > 0 && cmd.nConnectID < MAX_CLIENTS && clientOf(cmd).m_fdRsp.isOpen())
                handle(cmd);
    }

private:
    CClient& clientOf(const structMICMD& cmd) { return m_vClients[static_cast<size_t>(cmd.nConnectID)]; }

    // The stream that a request names; a request to one that does not exist is taken for stream 0, which nobody has.
    CStream& streamOf(int32_t nStreamID)
    {
        return m_vStreams[nStreamID > 0 && nStreamID < MAX_STREAMS ? static_cast<size_t>(nStreamID) : 0];
    }

    void respond(const structMICMD& cmd, MIRSP mirsp = MIRSP_STATUS, int32_t nResult = MISTATUS_OK)
    {
        m_rsp.s_mirsp = mirsp;
        m_rsp.nRespSequenceNo = cmd.nSequenceNo;
        m_rsp.s_nResult = nResult;
        write(clientOf(cmd).m_fdRsp, m_rsp);
    }

    static void end(CClient& client, int32_t nStreamID, uint32_t nSequenceNo, int32_t nStatus = 0)
    {
        write(client.m_fdEvt, structMIEVT{MIEVT_DONE, nStreamID, nSequenceNo, nStatus});
    }

    // A client that is gone does not matter.
    template <class RECORD> static void write(const CFd& fd, const RECORD& record)
    {
        [[maybe_unused]] const ssize_t nWritten = ::write(fd.get(), &record, sizeof(record));
    }

    void connect(structMICMD& cmd)
    {
        cmd.nConnectID = 1;
        while (clientOf(cmd).m_fdRsp.isOpen() && cmd.nConnectID < MAX_CLIENTS - 1)
            ++cmd.nConnectID;
        CClient& client = clientOf(cmd);
        client.m_fdRsp = openForWriting(cmd.connect.szRspPipe);
        client.m_fdEvt = openForWriting(cmd.connect.szEvtPipe);
        client.m_vHeld.clear();
        client.m_vHeld.reserve(MAX_STREAMS);
        respond(cmd, MIRSP_CONNECT, cmd.nConnectID);
    }

    void handle(const structMICMD& cmd)
    {
        switch (static_cast<int>(cmd.s_micmd))
        {
        case MICMD_OPENFILE: return respond(cmd, MIRSP_OPENFILE, ++m_nFiles);
        case MICMD_OPENSTREAM: return openStream(cmd);
        case MICMD_CLOSESTREAM: return closeStream(cmd);
        case MICMD_PLAYCLIP: return play(cmd, cmd.playClip.nPlayParam);
        case MICMD_PLAYFILE: return play(cmd, cmd.playFile.nPlayParam);
        case MICMD_RECORDFILE: return play(cmd, PEER_PLAY_HOLD);
        case MICMD_CANCEL: return cancel(cmd);
        case MICMD_RECORDGETTIME: return respond(cmd, MIRSP_RECORDGETTIME, 1234);
        case MICMD_RECORDGETSTATUS: return respond(cmd, MIRSP_RECORDGETSTATUS, 1);
        case MICMD_DISCONNECT: return disconnect(cmd);
        case PEER_FINISH: return finish(cmd);
        case PEER_TELL: return tell(cmd);
        default: return respond(cmd);
        }
    }

    void openStream(const structMICMD& cmd)
    {
        if (m_vFreeStreams.empty())
            return respond(cmd, MIRSP_STATUS, MISTATUS_FAILED);
        const int32_t nStreamID = m_vFreeStreams.back();
        m_vFreeStreams.pop_back();
        streamOf(nStreamID) = {cmd.nConnectID, -1, 0};
        respond(cmd, MIRSP_OPENSTREAM, nStreamID);
    }

    void closeStream(const structMICMD& cmd)
    {
        CStream& stream = streamOf(cmd.stream.nStreamID);
        if (stream.m_nClient == cmd.nConnectID)
            free(clientOf(cmd), cmd.stream.nStreamID);
        respond(cmd);
    }

    void free(CClient& client, int32_t nStreamID)
    {
        release(client, nStreamID);
        streamOf(nStreamID).m_nClient = -1;
        m_vFreeStreams.push_back(nStreamID);
    }

    void play(const structMICMD& cmd, uint32_t nHowItEnds)
    {
        const int32_t nStreamID = cmd.stream.nStreamID;
        if (nHowItEnds == PEER_PLAY_AT_ONCE)
        {
            respond(cmd);
            return end(clientOf(cmd), nStreamID, cmd.nSequenceNo);
        }
        if (nHowItEnds == PEER_PLAY_HAND_OVER)
            return handOver(cmd);
        CClient& client = clientOf(cmd);
        CStream& stream = streamOf(nStreamID);
        if (stream.m_nHeldAt < 0 && stream.m_nClient == cmd.nConnectID)
        {
            stream.m_nHeldAt = static_cast<int>(client.m_vHeld.size());
            client.m_vHeld.push_back(nStreamID);
        }
        stream.m_nSequenceNo = cmd.nSequenceNo;
        respond(cmd);
    }

    // The client is to wait for the event when it comes: the time taken is that of the event's way alone.
    void handOver(const structMICMD& cmd)
    {
        if (m_nEnded != 0)
        {
            m_times.nHandOverSum += now() - m_nEnded;
            ++m_times.nHandOvers;
        }
        respond(cmd);
        for (const int64_t nUntil = now() + REST_NANOSECONDS; now() < nUntil;)
            ::sched_yield();
        m_nEnded = now();
        end(clientOf(cmd), cmd.stream.nStreamID, cmd.nSequenceNo);
    }

    void cancel(const structMICMD& cmd)
    {
        CClient& client = clientOf(cmd);
        const int32_t nStreamID = cmd.cancel.nStreamID;
        const bool bHeld = release(client, nStreamID);
        respond(cmd);
        if (bHeld)
            end(client, nStreamID, streamOf(nStreamID).m_nSequenceNo, PLAY_CANCELLED);
    }

    // Takes the stream's play out of those held. False if there is none.
    bool release(CClient& client, int32_t nStreamID)
    {
        CStream& stream = streamOf(nStreamID);
        if (stream.m_nHeldAt < 0)
            return false;
        const int32_t nLast = client.m_vHeld.back();
        client.m_vHeld[static_cast<size_t>(stream.m_nHeldAt)] = nLast;
        client.m_vHeld.pop_back();
        streamOf(nLast).m_nHeldAt = stream.m_nHeldAt;
        stream.m_nHeldAt = -1;
        return true;
    }

    void finish(const structMICMD& cmd)
    {
        CPeerFinish finish;
        std::memcpy(&finish, cmd.abBody, sizeof(finish));
        if (finish.nConnectID <= 0 || finish.nConnectID >= MAX_CLIENTS)
            return;
        CClient& client = m_vClients[static_cast<size_t>(finish.nConnectID)];
        if (finish.nStreamID != 0)
        {
            if (!release(client, finish.nStreamID))
                return;
            m_times.nBurst = now();
            return end(client, finish.nStreamID, streamOf(finish.nStreamID).m_nSequenceNo);
        }
        m_times.nBurst = now();
        for (const int32_t nStreamID : client.m_vHeld)
        {
            CStream& stream = streamOf(nStreamID);
            stream.m_nHeldAt = -1;
            end(client, nStreamID, stream.m_nSequenceNo);
        }
        client.m_vHeld.clear();
    }

    void tell(const structMICMD& cmd)
    {
        std::memcpy(m_rsp.abReserved, &m_times, sizeof(m_times));
        respond(cmd);
        m_times.nHandOverSum = 0;
        m_times.nHandOvers = 0;
        m_nEnded = 0;
    }

    void disconnect(const structMICMD& cmd)
    {
        respond(cmd);
        CClient& client = clientOf(cmd);
        for (int32_t nStreamID = 1; nStreamID < MAX_STREAMS; ++nStreamID)
            if (streamOf(nStreamID).m_nClient == cmd.nConnectID)
                free(client, nStreamID);
        client.m_fdRsp.close();
        client.m_fdEvt.close();
    }

    CFd m_fdReq;
    std::vector<CClient> m_vClients; // by connection id, from 1
    std::vector<CStream> m_vStreams; // by stream id, from 1
    std::vector<int32_t> m_vFreeStreams;
    structMIRSP m_rsp = {};
    CPeerTimes m_times = {};
    int64_t m_nEnded = 0; // when the last play of a hand-over was ended
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
    peer.run();
    return EXIT_FAILURE;
}
