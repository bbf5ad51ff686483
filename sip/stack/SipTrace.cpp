// Writes the SIP messages that come and go into a file for Wireshark.
#include "SipTrace.h"

#include <arpa/inet.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{
// Records that are messages of a named protocol, with their addresses, without made-up headers of lower layers.
constexpr uint32_t s_uExportedMessages = 252;

enum ETag : uint16_t
{
    TagEnd = 0,
    TagProtocol = 12,
    TagSource4 = 20,
    TagTarget4 = 21,
    TagSource6 = 22,
    TagTarget6 = 23,
    TagPortType = 24,
    TagSourcePort = 25,
    TagTargetPort = 26
};

constexpr uint32_t s_uTcp = 2;
constexpr uint32_t s_uUdp = 3;

void addBig(std::string& strBytes, uint32_t uValue, unsigned uSize)
{
    for (unsigned uByte = uSize; uByte-- > 0;)
        strBytes += static_cast<char>(uValue >> (uByte * 8) & 0xffU);
}

void addTag(std::string& strBytes, ETag eTag, std::string strValue)
{
    strValue.resize((strValue.size() + 3) / 4 * 4);
    addBig(strBytes, eTag, 2);
    addBig(strBytes, static_cast<uint32_t>(strValue.size()), 2);
    strBytes += strValue;
}

void addNumber(std::string& strBytes, ETag eTag, uint32_t uValue)
{
    std::string strValue;
    addBig(strValue, uValue, 4);
    addTag(strBytes, eTag, strValue);
}

void addEndpoint(std::string& strBytes, const CSipEndpoint& endpoint, bool bSource)
{
    char szBytes[16] = {};
    if (::inet_pton(AF_INET, endpoint.m_strAddress.c_str(), szBytes) == 1)
        addTag(strBytes, bSource ? TagSource4 : TagTarget4, std::string(szBytes, 4));
    else if (::inet_pton(AF_INET6, endpoint.m_strAddress.c_str(), szBytes) == 1)
        addTag(strBytes, bSource ? TagSource6 : TagTarget6, std::string(szBytes, 16));
    addNumber(strBytes, bSource ? TagSourcePort : TagTargetPort, endpoint.m_uPort);
}

template <class VALUE> void writeRaw(std::ofstream& file, VALUE value)
{
    char szBytes[sizeof(value)];
    std::memcpy(szBytes, &value, sizeof(value));
    file.write(szBytes, sizeof(szBytes));
}

bool isSeparator(const std::string& strLine)
{
    return strLine.size() == 75 && strLine.find_first_not_of('-', 3) == std::string::npos;
}
} // namespace

bool CSipTrace::open(const std::string& strFile, std::string& strError)
{
    m_file.open(strFile, std::ios::binary | std::ios::trunc);
    if (!m_file)
    {
        strError = "the trace \"" + strFile + "\" cannot be written: " + std::strerror(errno);
        return false;
    }
    writeRaw(m_file, uint32_t{0xa1b2c3d4});
    writeRaw(m_file, uint16_t{2});
    writeRaw(m_file, uint16_t{4});
    writeRaw(m_file, uint32_t{0});
    writeRaw(m_file, uint32_t{0});
    writeRaw(m_file, uint32_t{262144});
    writeRaw(m_file, s_uExportedMessages);
    m_file.flush();
    return true;
}

void CSipTrace::takeLog(const std::string& strText)
{
    for (const char c : strText)
        if (c == '\n')
        {
            takeLine(m_strLine);
            m_strLine.clear();
        }
        else
            m_strLine += c;
}

void CSipTrace::takeLine(const std::string& strLine)
{
    switch (m_eState)
    {
    case EState::Outside:
        if (takeHead(strLine))
            m_eState = EState::Head;
        return;
    case EState::Head: m_eState = isSeparator(strLine) ? EState::Inside : EState::Outside; return;
    case EState::Inside:
        if (!isSeparator(strLine) || m_strMessage.size() + 2 < m_nBytes)
        {
            m_strMessage += strLine.size() > 3 ? strLine.substr(3) + "\r\n" : "\r\n";
            return;
        }
        m_eState = EState::Outside;
        writeMessage();
        return;
    }
}

// "recv 537 bytes from udp/[127.0.0.1]:43375 at 03:35:23.419580:"
bool CSipTrace::takeHead(const std::string& strLine)
{
    char szWhat[8] = "";
    char szTransport[8] = "";
    char szAddress[64] = "";
    unsigned long ulBytes = 0;
    unsigned uPort = 0;
    if (std::sscanf(strLine.c_str(), "%7s %lu bytes %*7s %7[^/]/[%63[^]]]:%u", szWhat, &ulBytes, szTransport, szAddress,
                    &uPort) != 5)
        return false;
    m_bReceived = std::strcmp(szWhat, "recv") == 0;
    m_strTransport = szTransport;
    m_peer = {szAddress, uPort};
    m_nBytes = ulBytes;
    m_strMessage.clear();
    return true;
}

void CSipTrace::writeMessage()
{
    if (m_strMessage.size() > m_nBytes)
        m_strMessage.resize(m_nBytes);
    const CSipEndpoint own = m_local(m_strTransport, m_peer.m_strAddress);
    std::string strRecord;
    addTag(strRecord, TagProtocol, "sip");
    addEndpoint(strRecord, m_bReceived ? m_peer : own, true);
    addEndpoint(strRecord, m_bReceived ? own : m_peer, false);
    addNumber(strRecord, TagPortType, m_strTransport == "udp" ? s_uUdp : s_uTcp);
    addTag(strRecord, TagEnd, "");
    strRecord += m_strMessage;
    timeval now = {};
    ::gettimeofday(&now, nullptr);
    writeRaw(m_file, static_cast<uint32_t>(now.tv_sec));
    writeRaw(m_file, static_cast<uint32_t>(now.tv_usec));
    writeRaw(m_file, static_cast<uint32_t>(strRecord.size()));
    writeRaw(m_file, static_cast<uint32_t>(strRecord.size()));
    m_file << strRecord;
    m_file.flush();
}
