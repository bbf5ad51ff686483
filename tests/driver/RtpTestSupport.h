// What the tests of RTP share: a far end on the loopback, and packets made by hand.
#ifndef RTP_TEST_SUPPORT_H
#define RTP_TEST_SUPPORT_H

#include "DriverTestSupport.h"
#include "Fd.h"
#include "NetAddress.h"
#include "RtpPacket.h"
#include "RtpPort.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <vector>

using CBytes = std::vector<uint8_t>;

constexpr size_t RTP_SAMPLES = 160; // 20 ms

// A packet as it is on the line.
inline CBytes rtpBytes(const CRtpHeader& header, const CBytes& payload)
{
    std::array<uint8_t, RTP_HEADER_SIZE> bytes{};
    writeRtpHeader(header, bytes);
    CBytes packet(bytes.begin(), bytes.end());
    packet.insert(packet.end(), payload.begin(), payload.end());
    return packet;
}

inline CNetAddress loopback(uint16_t nPort = 0)
{
    CNetAddress address = CNetAddress::parse("127.0.0.1:1").value();
    return address.withPort(nPort);
}

// A UDP socket on a free port of the loopback.
class CFarEnd
{
public:
    CFarEnd() : m_fdSocket(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        const CNetAddress local = loopback();
        EXPECT_EQ(::bind(m_fdSocket.get(), local.get(), local.size()), 0);
        socklen_t nSize = CNetAddress::CAPACITY;
        EXPECT_EQ(::getsockname(m_fdSocket.get(), m_local.get(), &nSize), 0);
    }

    const CNetAddress& address() const { return m_local; }

    void send(const CBytes& bytes, const CNetAddress& to) const
    {
        EXPECT_EQ(::sendto(m_fdSocket.get(), bytes.data(), bytes.size(), 0, to.get(), to.size()),
                  static_cast<ssize_t>(bytes.size()));
    }

    // The next datagram that is here. On the loopback it is as soon as it is sent.
    std::optional<CBytes> receive() const
    {
        CBytes bytes(4096);
        const ssize_t nSize = ::recv(m_fdSocket.get(), bytes.data(), bytes.size(), 0);
        if (nSize < 0)
            return std::nullopt;
        bytes.resize(static_cast<size_t>(nSize));
        return bytes;
    }

    // All packets that are here.
    struct CPacket
    {
        CRtpHeader m_header;
        CBytes m_payload;
    };
    std::vector<CPacket> receivePackets() const
    {
        std::vector<CPacket> vPackets;
        while (const std::optional<CBytes> bytes = receive())
        {
            const std::optional<CRtpPacket> packet = parseRtpPacket(*bytes);
            EXPECT_TRUE(packet);
            if (packet)
                vPackets.push_back({packet->m_header, {packet->m_payload.begin(), packet->m_payload.end()}});
        }
        return vPackets;
    }

private:
    CFd m_fdSocket;
    CNetAddress m_local;
};

// A tick of the clock in which the function does its work.
inline void runTick(
    CRtpPorts& ports, const std::function<void()>& work = [] {})
{
    ports.beforeTick();
    work();
    ports.afterTick();
    ports.settle();
}

#endif
