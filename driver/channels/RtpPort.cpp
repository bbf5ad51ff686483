// UDP sockets for RTP, each shared by the channels of one local address.
#include "RtpPort.h"

#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>

namespace
{
constexpr size_t BATCH_SIZE = 256;                   // packets per system call
constexpr int SOCKET_BUFFER_SIZE = 4 << 20;          // a tick's packets of thousands of channels
constexpr size_t PACKETS_PER_TICK = 512;             // taken in a tick at most,
constexpr size_t PACKETS_PER_RECEIVER_AND_TICK = 16; // and for each receiver in addition

// Raises a buffer as far as this process may.
void raiseBuffer(int nFd, int nForceOption, int nOption)
{
    const int nSize = SOCKET_BUFFER_SIZE;
    if (::setsockopt(nFd, SOL_SOCKET, nForceOption, &nSize, sizeof nSize) != 0)
        ::setsockopt(nFd, SOL_SOCKET, nOption, &nSize, sizeof nSize);
}

CFd bindSocket(const CNetAddress& local, std::string& strError)
{
    CFd fdSocket(::socket(local.family(), SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fdSocket.isOpen())
    {
        strError = fmt::format("no socket for {}: {}", local.text(), errnoText(errno));
        return {};
    }
    if (local.family() == AF_INET6)
    {
        const int nOn = 1; // so that "[::]" leaves the IPv4 port of the same number free
        ::setsockopt(fdSocket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &nOn, sizeof nOn);
    }
    if (::bind(fdSocket.get(), local.get(), local.size()) != 0)
    {
        strError = fmt::format("{} cannot be bound: {}", local.text(), errnoText(errno));
        return {};
    }
    raiseBuffer(fdSocket.get(), SO_RCVBUFFORCE, SO_RCVBUF);
    raiseBuffer(fdSocket.get(), SO_SNDBUFFORCE, SO_SNDBUF);
    return fdSocket;
}
} // namespace

// Shared by all ports, which receive one after another.
struct CRtpPort::CReceiveBatch
{
    CReceiveBatch();

    std::array<std::array<uint8_t, RTP_MAX_DATAGRAM>, BATCH_SIZE> m_bytes;
    std::array<CNetAddress, BATCH_SIZE> m_from;
    std::array<iovec, BATCH_SIZE> m_parts{};
    std::array<mmsghdr, BATCH_SIZE> m_headers{};
};

CRtpPort::CReceiveBatch::CReceiveBatch()
{
    for (size_t n = 0; n < BATCH_SIZE; ++n)
    {
        m_parts[n] = {m_bytes[n].data(), RTP_MAX_DATAGRAM};
        m_headers[n].msg_hdr.msg_name = m_from[n].get();
        m_headers[n].msg_hdr.msg_namelen = CNetAddress::CAPACITY;
        m_headers[n].msg_hdr.msg_iov = &m_parts[n];
        m_headers[n].msg_hdr.msg_iovlen = 1;
    }
}

CRtpPort::CRtpPort(CRtpPorts& ports, CFd fdSocket, const CNetAddress& local)
    : m_ports(ports), m_fdSocket(std::move(fdSocket)), m_local(local)
{
    m_mapReceivers.rehash(1); // most ports have one receiver, for which the default is generous
    growSendBatch();
}

bool CRtpPort::join(const CNetAddress& remote, CRtpReceiver& receiver)
{
    if (!m_mapReceivers.emplace(remote, &receiver).second)
        return false;
    growSendBatch();
    return true;
}

void CRtpPort::leave(const CNetAddress& remote)
{
    m_mapReceivers.erase(remote);
    if (m_mapReceivers.empty())
        flush(); // the port may close before the next tick
}

// A packet for each receiver, and half as many more for those that end one play and begin the next.
void CRtpPort::growSendBatch()
{
    const size_t nReceivers = std::max<size_t>(1, m_mapReceivers.size());
    const size_t nSize = std::min(BATCH_SIZE, nReceivers + nReceivers / 2);
    if (nSize <= m_vOutgoing.size())
        return;
    m_vOutgoing.resize(nSize);
    m_vOutgoingParts.resize(nSize);
    m_vOutgoingHeaders.assign(nSize, {});
    for (size_t n = 0; n < nSize; ++n)
    {
        m_vOutgoingParts[n] = {m_vOutgoing[n].m_bytes.data(), RTP_PACKET_SIZE};
        m_vOutgoingHeaders[n].msg_hdr.msg_name = m_vOutgoing[n].m_remote.get();
        m_vOutgoingHeaders[n].msg_hdr.msg_namelen = m_vOutgoing[n].m_remote.size();
        m_vOutgoingHeaders[n].msg_hdr.msg_iov = &m_vOutgoingParts[n];
        m_vOutgoingHeaders[n].msg_hdr.msg_iovlen = 1;
    }
}

void CRtpPort::send(std::span<const uint8_t, RTP_PACKET_SIZE> packet, const CNetAddress& remote)
{
    if (m_nOutgoing == m_vOutgoing.size())
        flush();
    m_vOutgoing[m_nOutgoing].m_remote = remote;
    m_vOutgoingHeaders[m_nOutgoing].msg_hdr.msg_namelen = remote.size();
    std::copy(packet.begin(), packet.end(), m_vOutgoing[m_nOutgoing].m_bytes.begin());
    ++m_nOutgoing;
}

void CRtpPort::flush()
{
    CRtpCounters& counters = m_ports.counters();
    size_t nDone = 0;
    while (nDone < m_nOutgoing)
    {
        const int nSent = ::sendmmsg(m_fdSocket.get(), &m_vOutgoingHeaders[nDone],
                                     static_cast<unsigned>(m_nOutgoing - nDone), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (nSent > 0)
        {
            counters.m_ullSent += static_cast<uint64_t>(nSent);
            nDone += static_cast<size_t>(nSent);
        }
        else if (errno == EAGAIN || errno == ENOBUFS)
        {
            counters.m_ullSendErrors += m_nOutgoing - nDone; // no room for the others either
            break;
        }
        else if (errno != EINTR)
        {
            ++counters.m_ullSendErrors; // the first of them only
            ++nDone;
        }
    }
    m_nOutgoing = 0;
}

void CRtpPort::receive(CReceiveBatch& batch)
{
    size_t nBudget = PACKETS_PER_TICK + PACKETS_PER_RECEIVER_AND_TICK * m_mapReceivers.size();
    while (nBudget > 0)
    {
        const size_t nWanted = std::min(BATCH_SIZE, nBudget);
        const int nReceived =
            ::recvmmsg(m_fdSocket.get(), batch.m_headers.data(), static_cast<unsigned>(nWanted), MSG_DONTWAIT, nullptr);
        if (nReceived <= 0)
        {
            m_ports.counters().m_ullReceiveErrors += nReceived < 0 && errno != EAGAIN && errno != EINTR ? 1 : 0;
            return;
        }
        const auto nCount = static_cast<size_t>(nReceived);
        for (size_t n = 0; n < nCount; ++n)
        {
            mmsghdr& header = batch.m_headers[n];
            // A cut datagram is as good as none.
            const size_t nSize = (header.msg_hdr.msg_flags & MSG_TRUNC) != 0 ? 0 : header.msg_len;
            dispatch(std::span(batch.m_bytes[n]).first(nSize), batch.m_from[n]);
            header.msg_hdr.msg_namelen = CNetAddress::CAPACITY;
        }
        if (nCount < nWanted)
            return;
        nBudget -= nCount;
    }
}

void CRtpPort::dispatch(std::span<const uint8_t> bytes, const CNetAddress& from)
{
    const auto it = m_mapReceivers.find(from);
    if (it == m_mapReceivers.end())
    {
        ++m_ports.counters().m_ullStrangers;
        return;
    }
    const std::optional<CRtpPacket> packet = parseRtpPacket(bytes);
    if (!packet)
    {
        ++m_ports.counters().m_ullMalformed;
        return;
    }
    it->second->onRtp(*packet);
}

CRtpPorts::CRtpPorts() = default;
CRtpPorts::~CRtpPorts() = default;

std::shared_ptr<CRtpPort> CRtpPorts::open(const CNetAddress& local, std::string& strError)
{
    const auto it = m_mapPorts.find(local);
    if (it != m_mapPorts.end())
        return it->second->shared_from_this();
    CFd fdSocket = bindSocket(local, strError);
    if (!fdSocket.isOpen())
        return nullptr;
    CNetAddress bound;
    socklen_t nSize = CNetAddress::CAPACITY;
    if (::getsockname(fdSocket.get(), bound.get(), &nSize) != 0)
    {
        strError = fmt::format("the address of a socket is unknown: {}", errnoText(errno));
        return nullptr;
    }
    if (!m_pReceiveBatch)
        m_pReceiveBatch = std::make_unique_for_overwrite<CRtpPort::CReceiveBatch>();
    std::shared_ptr<CRtpPort> pPort(new CRtpPort(*this, std::move(fdSocket), bound), [this](CRtpPort* pLast) {
        m_mapPorts.erase(pLast->local());
        delete pLast;
    });
    m_mapPorts.emplace(bound, pPort.get());
    return pPort;
}

void CRtpPorts::beforeTick()
{
    ++m_ullTick;
    for (const auto& [local, pPort] : m_mapPorts)
        pPort->receive(*m_pReceiveBatch);
}

void CRtpPorts::afterTick()
{
    for (const auto& [local, pPort] : m_mapPorts)
        if (pPort->m_nOutgoing > 0)
            pPort->flush();
}
