// A client that does on the pipes what has to be done and no more: the limit of what the library can reach.
#ifndef BARE_CLIENT_H
#define BARE_CLIENT_H

#include "Fd.h"
#include "PeerProtocol.h"

#include <chrono>
#include <cstdint>
#include <string>

// Time of CLOCK_MONOTONIC.
std::chrono::nanoseconds monotonicNow();

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
    structMICMD request(MICMD micmd) const;

    // One write and one blocking read; the record is stamped with the next sequence number.
    void write(structMICMD& cmd);
    void readResponse(structMIRSP& rsp);
    void readEvent(structMIEVT& evt);
    structMIRSP exchange(structMICMD& cmd);

    // An event to itself, to wake whoever reads.
    void writeEvent(const structMIEVT& evt);

    int32_t openStream();
    void closeStream(int32_t nStreamID);
    structMICMD play(int32_t nStreamID, uint32_t nHowItEnds) const; // PEER_PLAY_...; a request to be sent

    int connectId() const { return m_nConnectID; }
    int responseFd() const { return m_fdRsp.get(); }

    // The peer's own commands, for the plays of any client.
    void finish(int nConnectID, int32_t nStreamID = 0); // 0: all held plays
    CPeerTimes askTimes();

private:
    std::string m_strRspPipe;
    std::string m_strEvtPipe;
    CFd m_fdReq;
    CFd m_fdRsp;
    CFd m_fdEvt;
    int m_nConnectID = -1;
    uint32_t m_nSequenceNo = 0;
};

#endif
