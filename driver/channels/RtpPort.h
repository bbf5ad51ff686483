// UDP sockets for RTP, each shared by the channels of one local address.
#ifndef DRIVER_RTP_PORT_H
#define DRIVER_RTP_PORT_H

#include "Channel.h"
#include "Fd.h"
#include "NetAddress.h"
#include "RtpCounters.h"
#include "RtpPacket.h"

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

class CRtpPorts;

// Gets what comes from one remote address.
class CRtpReceiver
{
public:
    virtual ~CRtpReceiver() = default;

    // On the media tick: neither blocks, locks nor allocates. The packet is gone after the call;
    // its payload is shorter than RTP_MAX_DATAGRAM.
    virtual void onRtp(const CRtpPacket& packet) = 0;
};

// A socket. Its packets are sent and received in batches, by as few system calls as possible. It is
// closed with the last holder of the port. Used on the loop's thread.
class CRtpPort : public std::enable_shared_from_this<CRtpPort>
{
public:
    CRtpPort(CRtpPorts& ports, CFd fdSocket, const CNetAddress& local);
    CRtpPort(const CRtpPort&) = delete;
    CRtpPort& operator=(const CRtpPort&) = delete;

    // With the port that the system has chosen when it was opened with port 0.
    const CNetAddress& local() const { return m_local; }

    // From now on packets from the remote address go to the receiver. False if there is one for it.
    // Not during the tick. A receiver leaves before it is destroyed.
    bool join(const CNetAddress& remote, CRtpReceiver& receiver);
    void leave(const CNetAddress& remote);

    // Takes a copy, to be sent by the next flush. Packets that the system refuses are counted and
    // dropped; those around them are sent all the same.
    void send(std::span<const uint8_t, RTP_PACKET_SIZE> packet, const CNetAddress& remote);
    void flush();

private:
    friend class CRtpPorts;
    struct CReceiveBatch;
    struct COutgoing
    {
        CNetAddress m_remote;
        std::array<uint8_t, RTP_PACKET_SIZE> m_bytes;
    };

    void growSendBatch();
    void receive(CReceiveBatch& batch);
    void dispatch(std::span<const uint8_t> bytes, const CNetAddress& from);

    CRtpPorts& m_ports;
    CFd m_fdSocket;
    const CNetAddress m_local;
    std::unordered_map<CNetAddress, CRtpReceiver*> m_mapReceivers;

    // As long as each other. The first m_nOutgoing wait to be sent.
    std::vector<COutgoing> m_vOutgoing;
    std::vector<iovec> m_vOutgoingParts;
    std::vector<mmsghdr> m_vOutgoingHeaders;
    size_t m_nOutgoing = 0;
};

// All ports of the driver. Receives before each tick, in which the receivers may send, and sends after
// it. Outlives the ports.
class CRtpPorts : public CTickListener
{
public:
    CRtpPorts();
    ~CRtpPorts() override;
    CRtpPorts(const CRtpPorts&) = delete;
    CRtpPorts& operator=(const CRtpPorts&) = delete;

    // The port of the local address, opened if it is not. Null, with the message in strError, when the
    // system refuses. The system chooses a free port for port 0. Not during the tick.
    std::shared_ptr<CRtpPort> open(const CNetAddress& local, std::string& strError);

    // While there is a port, what arrives is to be taken out of it.
    bool needsTicks() const override { return !m_mapPorts.empty(); }
    void beforeTick() override;
    void afterTick() override;

    // Number of the tick that is going on or was the last one.
    uint64_t tick() const { return m_ullTick; }

    size_t count() const { return m_mapPorts.size(); }
    const CRtpCounters& counters() const { return m_counters; }
    CRtpCounters& counters() { return m_counters; }

private:
    CRtpCounters m_counters;
    uint64_t m_ullTick = 0;
    std::unordered_map<CNetAddress, CRtpPort*> m_mapPorts;
    std::unique_ptr<CRtpPort::CReceiveBatch> m_pReceiveBatch; // since the first port
};

#endif
