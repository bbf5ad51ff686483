// UDP sockets for RTP, each shared by the legs of one local address.
#include "RtpPort.h"

#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace
{
constexpr size_t BATCH_SIZE = 256;       // packets per system call
constexpr int MAX_BUFFER_SIZE = 4 << 20; // a tick's packets of thousands of channels
constexpr size_t BUFFER_PER_RECEIVER = 64 << 10;
constexpr size_t PACKETS_PER_TICK = 512;             // taken in a tick at most,
constexpr size_t PACKETS_PER_RECEIVER_AND_TICK = 16; // and for each receiver in addition

// Raises a buffer as far as this process may.
void raiseBuffer(int nFd, int nSize, int nForceOption, int nOption)
{
    if (::setsockopt(nFd, SOL_SOCKET, nForceOption, &nSize, sizeof nSize) != 0)
        ::setsockopt(nFd, SOL_SOCKET, nOption, &nSize, sizeof nSize);
}
} // namespace

CFd bindUdp(const CNetAddress& local, std::string& strError)
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
    // Expedited forwarding, where somebody on the way cares.
    const int nClass = 0xB8;
    if (local.family() == AF_INET6)
        ::setsockopt(fdSocket.get(), IPPROTO_IPV6, IPV6_TCLASS, &nClass, sizeof nClass);
    else
        ::setsockopt(fdSocket.get(), IPPROTO_IP, IP_TOS, &nClass, sizeof nClass);
    return fdSocket;
}

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
}

bool CRtpPort::join(const CNetAddress& remote, CRtpReceiver& receiver)
{
    if (!m_mapReceivers.emplace(remote, &receiver).second)
        return false;
    m_ports.add(receiver);
    grow();
    return true;
}

void CRtpPort::leave(const CNetAddress& remote)
{
    const auto it = m_mapReceivers.find(remote);
    if (it == m_mapReceivers.end())
        return;
    m_ports.remove(*it->second);
    m_mapReceivers.erase(it);
    flushIfLast();
}

bool CRtpPort::joinAll(CRtpReceiver& receiver)
{
    if (m_pForAll != nullptr)
        return false;
    m_pForAll = &receiver;
    m_ports.add(receiver);
    return true;
}

void CRtpPort::leaveAll()
{
    if (m_pForAll == nullptr)
        return;
    m_ports.remove(*m_pForAll);
    m_pForAll = nullptr;
    flushIfLast();
}

void CRtpPort::flushIfLast()
{
    if (m_mapReceivers.empty() && m_pForAll == nullptr)
        flush(); // the port may close before the next tick
}

// The socket of a single leg is good as it is.
void CRtpPort::grow()
{
    const size_t nReceivers = m_mapReceivers.size();
    if (nReceivers == 1)
        return;
    growSendBatch(nReceivers);
    const int nSize = static_cast<int>(std::min<size_t>(MAX_BUFFER_SIZE, nReceivers * BUFFER_PER_RECEIVER));
    if (nSize > m_nBufferSize)
    {
        m_nBufferSize = std::min(MAX_BUFFER_SIZE, 2 * nSize);
        raiseBuffer(m_fdSocket.get(), m_nBufferSize, SO_RCVBUFFORCE, SO_RCVBUF);
        raiseBuffer(m_fdSocket.get(), m_nBufferSize, SO_SNDBUFFORCE, SO_SNDBUF);
    }
}

// A packet for each receiver, and half as many more for keys and short packets.
void CRtpPort::growSendBatch(size_t nReceivers)
{
    const size_t nSize = std::min(BATCH_SIZE, nReceivers + nReceivers / 2);
    if (nSize <= m_vOutgoing.size())
        return;
    m_vOutgoing.resize(nSize);
    m_vOutgoingParts.resize(nSize);
    m_vOutgoingHeaders.assign(nSize, {});
    for (size_t n = 0; n < nSize; ++n)
    {
        m_vOutgoingParts[n] = {m_vOutgoing[n].m_bytes.data(), 0};
        m_vOutgoingHeaders[n].msg_hdr.msg_name = m_vOutgoing[n].m_remote.get();
        m_vOutgoingHeaders[n].msg_hdr.msg_iov = &m_vOutgoingParts[n];
        m_vOutgoingHeaders[n].msg_hdr.msg_iovlen = 1;
    }
}

void CRtpPort::send(std::span<const uint8_t> packet, const CNetAddress& remote)
{
    if (m_vOutgoing.empty())
    {
        sendAtOnce(packet, remote);
        return;
    }
    if (m_nOutgoing == m_vOutgoing.size())
        flush();
    m_vOutgoing[m_nOutgoing].m_remote = remote;
    m_vOutgoingHeaders[m_nOutgoing].msg_hdr.msg_namelen = remote.size();
    m_vOutgoingParts[m_nOutgoing].iov_len = packet.size();
    std::copy(packet.begin(), packet.end(), m_vOutgoing[m_nOutgoing].m_bytes.begin());
    ++m_nOutgoing;
}

void CRtpPort::sendAtOnce(std::span<const uint8_t> packet, const CNetAddress& remote)
{
    ssize_t nSent = 0;
    do
        nSent = ::sendto(m_fdSocket.get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL, remote.get(),
                         remote.size());
    while (nSent < 0 && errno == EINTR);
    ++(nSent < 0 ? m_ports.m_counters.m_ullSendErrors : m_ports.m_counters.m_ullSent);
}

void CRtpPort::flush()
{
    CRtpCounters& counters = m_ports.m_counters;
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
            m_ports.m_counters.m_ullReceiveErrors += nReceived < 0 && errno != EAGAIN && errno != EINTR ? 1 : 0;
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

void CRtpPort::dispatch(std::span<uint8_t> bytes, const CNetAddress& from)
{
    const auto it = m_mapReceivers.find(from);
    CRtpReceiver* pReceiver = it == m_mapReceivers.end() ? m_pForAll : it->second;
    if (pReceiver == nullptr)
        ++m_ports.m_counters.m_ullStrangers;
    else
        pReceiver->onDatagram(bytes, from);
}

CRtpPorts::CRtpPorts() = default;
CRtpPorts::~CRtpPorts() = default;

std::shared_ptr<CRtpPort> CRtpPorts::open(const CNetAddress& local, std::string& strError)
{
    const auto it = m_mapPorts.find(local);
    if (it != m_mapPorts.end())
        return it->second->shared_from_this();
    CFd fdSocket = bindUdp(local, strError);
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
    std::shared_ptr<CRtpPort> pPort(new CRtpPort(*this, std::move(fdSocket), bound), [this](CRtpPort* pGone) {
        m_mapPorts.erase(pGone->local());
        m_vPorts.back()->m_nIndex = pGone->m_nIndex;
        m_vPorts[pGone->m_nIndex] = m_vPorts.back();
        m_vPorts.pop_back();
        delete pGone;
    });
    m_mapPorts.emplace(bound, pPort.get());
    pPort->m_nIndex = m_vPorts.size();
    m_vPorts.push_back(pPort.get());
    return pPort;
}

std::shared_ptr<CRtpPort> CRtpPorts::openOwn(const CNetAddress& local, std::string& strError)
{
    if (m_mapPorts.count(local) == 0)
        return open(local, strError);
    strError = fmt::format("{} is taken", local.text());
    return nullptr;
}

void CRtpPorts::add(CRtpReceiver& receiver)
{
    receiver.m_nIndex = m_vReceivers.size();
    m_vReceivers.push_back(&receiver);
    m_vSettle.reserve(m_vReceivers.capacity());
}

void CRtpPorts::remove(CRtpReceiver& receiver)
{
    m_vReceivers.back()->m_nIndex = receiver.m_nIndex;
    m_vReceivers[receiver.m_nIndex] = m_vReceivers.back();
    m_vReceivers.pop_back();
    if (receiver.m_nSettleIndex != SIZE_MAX)
        m_vSettle[receiver.m_nSettleIndex] = nullptr;
    receiver.m_nIndex = receiver.m_nSettleIndex = SIZE_MAX;
    m_counters += receiver.counters();
}

CRtpCounters CRtpPorts::counters() const
{
    CRtpCounters counters = m_counters;
    for (const CRtpReceiver* pReceiver : m_vReceivers)
        counters += pReceiver->counters();
    return counters;
}

void CRtpPorts::receive()
{
    for (CRtpPort* pPort : m_vPorts)
        pPort->receive(*m_pReceiveBatch);
}

void CRtpPorts::beforeTick()
{
    ++m_ullTick;
    m_bReceived = false;
    receive();
    for (CRtpReceiver* pReceiver : m_vReceivers)
        pReceiver->onTick(false);
}

void CRtpPorts::skipTick()
{
    ++m_ullTick;
    if (!m_bReceived)
        receive();
    m_bReceived = true;
    for (CRtpReceiver* pReceiver : m_vReceivers)
        pReceiver->onTick(true);
}

void CRtpPorts::jump(uint64_t ullTicks)
{
    m_ullTick += ullTicks;
    for (CRtpReceiver* pReceiver : m_vReceivers)
        pReceiver->onJump(ullTicks);
}

void CRtpPorts::afterTick()
{
    for (CRtpReceiver* pReceiver : m_vReceivers)
        pReceiver->onTickEnd();
    for (CRtpPort* pPort : m_vPorts)
        if (pPort->m_nOutgoing > 0)
            pPort->flush();
}

void CRtpPorts::wantSettle(CRtpReceiver& receiver)
{
    if (receiver.m_nSettleIndex != SIZE_MAX || receiver.m_nIndex == SIZE_MAX)
        return;
    receiver.m_nSettleIndex = m_vSettle.size();
    m_vSettle.push_back(&receiver);
}

void CRtpPorts::settle()
{
    // By index: one that settles may end others, and thereby take them out.
    for (size_t n = 0; n < m_vSettle.size(); ++n)
    {
        if (CRtpReceiver* pReceiver = std::exchange(m_vSettle[n], nullptr))
        {
            pReceiver->m_nSettleIndex = SIZE_MAX;
            pReceiver->onSettle();
        }
    }
    m_vSettle.clear();
}
