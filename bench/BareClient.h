// A client that does on the pipes what has to be done and no more: the limit of what the library can reach.
#ifndef BARE_CLIENT_H
#define BARE_CLIENT_H

#include "Fd.h"
#include "PeerProtocol.h"

#include <chrono>
#include <cstdint>
#include <string>

// Time of CLOCK_MONOTONIC.
std::chrono::nanoseconds MonotonicNow();

// Connected from construction on, through pipes of its own; any number may live side by side. Everything throws
// std::runtime_error when a pipe fails. Each pipe is for one thread at a time.
class CBareClient
{
public:
    CBareClient();
    ~CBareClient();
    CBareClient(const CBareClient&) = delete;
    CBareClient& operator=(const CBareClient&) = delete;

    // A request of this client, with its connection id.
    structMICMD Request(MICMD micmd) const;

    // One write and one blocking read; the record is stamped with the next sequence number.
    void Write(structMICMD& cmd);
    void ReadResponse(structMIRSP& rsp);
    void ReadEvent(structMIEVT& evt);
    structMIRSP Exchange(structMICMD& cmd);

    // An event to itself, to wake whoever reads.
    void WriteEvent(const structMIEVT& evt);

    std::int32_t OpenStream();
    void CloseStream(std::int32_t nStreamID);
    structMICMD Play(std::int32_t nStreamID, std::uint32_t nHowItEnds) const; // PEER_PLAY_...; a request to be sent

    int ConnectID() const { return m_nConnectID; }
    int ResponseFd() const { return m_fdRsp.Get(); }

    // The peer's own commands, for the plays of any client.
    void Finish(int nConnectID, std::int32_t nStreamID = 0); // 0: all held plays
    CPeerTimes AskTimes();

private:
    std::string m_strRspPipe;
    std::string m_strEvtPipe;
    CFd m_fdReq;
    CFd m_fdRsp;
    CFd m_fdEvt;
    int m_nConnectID = -1;
    std::uint32_t m_nSequenceNo = 0;
};

#endif
