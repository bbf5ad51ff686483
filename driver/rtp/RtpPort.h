// UDP sockets for RTP, each shared by the legs of one local address.
#ifndef DRIVER_RTP_PORT_H
#define DRIVER_RTP_PORT_H

#include "Fd.h"
#include "NetAddress.h"
#include "RtpCounters.h"
#include "RtpPacket.h"
#include "TickListener.h"

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

class CRtpPorts;

// A leg: gets what comes for it, and its part of each tick.
class CRtpReceiver
{
public:
    virtual ~CRtpReceiver() = default;

    // On the media tick: these neither block, lock nor allocate. The bytes, fewer than RTP_MAX_DATAGRAM, are
    // gone after the call and may be changed in place.
    virtual void onDatagram(std::span<uint8_t> bytes, const CNetAddress& from) = 0;
    virtual void onTick(bool bSkipped) = 0; // after all that has come
    virtual void onTickEnd() = 0;           // may send
    virtual void onJump(uint64_t ullTicks) = 0;

    // After a tick in which it has asked CRtpPorts::wantSettle for it.
    virtual void onSettle() {}

    virtual const CRtpCounters& counters() const = 0;

private:
    friend class CRtpPorts;
    size_t m_nIndex = SIZE_MAX;
    size_t m_nSettleIndex = SIZE_MAX;
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
    int descriptor() const { return m_fdSocket.get(); }

    // From now on packets from the remote address go to the receiver. False if there is one for it.
    // Not during the tick. A receiver leaves before it is destroyed.
    bool join(const CNetAddress& remote, CRtpReceiver& receiver);
    void leave(const CNetAddress& remote);

    // The same for packets from everywhere else.
    bool joinAll(CRtpReceiver& receiver);
    void leaveAll();

    // Where the port is shared, takes a copy, to be sent by the next flush. Packets that the system refuses
    // are counted and dropped; those around them are sent all the same.
    void send(std::span<const uint8_t> packet, const CNetAddress& remote);
    void flush();

private:
    friend class CRtpPorts;
    struct CReceiveBatch;
    struct COutgoing
    {
        CNetAddress m_remote;
        std::array<uint8_t, RTP_MAX_SENT> m_bytes;
    };

    void grow();
    void growSendBatch(size_t nReceivers);
    void flushIfLast();
    void sendAtOnce(std::span<const uint8_t> packet, const CNetAddress& remote);
    void receive(CReceiveBatch& batch);
    void dispatch(std::span<uint8_t> bytes, const CNetAddress& from);

    CRtpPorts& m_ports;
    CFd m_fdSocket;
    const CNetAddress m_local;
    std::unordered_map<CNetAddress, CRtpReceiver*> m_mapReceivers;
    CRtpReceiver* m_pForAll = nullptr;
    size_t m_nIndex = 0;
    int m_nBufferSize = 0; // that was asked for

    // As long as each other; none while there is one receiver. The first m_nOutgoing wait to be sent.
    std::vector<COutgoing> m_vOutgoing;
    std::vector<iovec> m_vOutgoingParts;
    std::vector<mmsghdr> m_vOutgoingHeaders;
    size_t m_nOutgoing = 0;
};

// All ports of the driver and their receivers. Receives before each tick, in which the receivers may send,
// and sends after it. Outlives the ports.
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

    // The same for a port that nobody else may have.
    std::shared_ptr<CRtpPort> openOwn(const CNetAddress& local, std::string& strError);

    // While there is a port, what arrives is to be taken out of it.
    bool needsTicks() const override { return !m_vPorts.empty(); }
    void beforeTick() override;
    void afterTick() override;
    void skipTick() override;
    void jump(uint64_t ullTicks) override;
    void settle() override;

    // On the media tick, for a receiver that has something to do which may lock or allocate.
    void wantSettle(CRtpReceiver& receiver);

    // Number of the tick that is going on or was the last one.
    uint64_t tick() const { return m_ullTick; }

    size_t count() const { return m_vPorts.size(); }
    CRtpCounters counters() const; // of all receivers that there are or were

private:
    friend class CRtpPort;

    void add(CRtpReceiver& receiver);
    void remove(CRtpReceiver& receiver);
    void receive();

    CRtpCounters m_counters;
    uint64_t m_ullTick = 0;
    bool m_bReceived = false; // since the last tick that was not skipped
    std::unordered_map<CNetAddress, CRtpPort*> m_mapPorts;
    std::vector<CRtpPort*> m_vPorts; // the same
    std::vector<CRtpReceiver*> m_vReceivers;
    std::vector<CRtpReceiver*> m_vSettle;                     // as much room as m_vReceivers has
    std::unique_ptr<CRtpPort::CReceiveBatch> m_pReceiveBatch; // since the first port
};

// A UDP socket that does not block, bound to the address. Not open, with the message in strError, when the
// system refuses.
CFd bindUdp(const CNetAddress& local, std::string& strError);

#endif
