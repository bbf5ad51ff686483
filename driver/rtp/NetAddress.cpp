// An IP address and port in numbers.
#include "NetAddress.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

namespace
{
std::optional<uint16_t> parsePort(std::string_view text)
{
    uint16_t nPort = 0;
    const char* pEnd = text.data() + text.size();
    const auto [pStop, error] = std::from_chars(text.data(), pEnd, nPort);
    if (error != std::errc() || pStop != pEnd)
        return std::nullopt;
    return nPort;
}
} // namespace

std::optional<CNetAddress> CNetAddress::parse(const std::string& strText)
{
    const size_t nColon = strText.rfind(':');
    // A NUL would hide what follows it from the conversions of the system.
    if (nColon == std::string::npos || nColon == 0 || strText.find('\0') != std::string::npos)
        return std::nullopt;
    const std::optional<uint16_t> nPort = parsePort(std::string_view(strText).substr(nColon + 1));
    if (!nPort)
        return std::nullopt;
    const std::string strHost = strText.substr(0, nColon);
    CNetAddress address;
    if (strHost.front() == '[' && strHost.back() == ']')
    {
        address.m_ip6.sin6_family = AF_INET6;
        address.m_ip6.sin6_port = htons(*nPort);
        const std::string strBare = strHost.substr(1, strHost.size() - 2);
        return ::inet_pton(AF_INET6, strBare.c_str(), &address.m_ip6.sin6_addr) == 1 ? std::optional(address)
                                                                                     : std::nullopt;
    }
    address.m_ip4.sin_family = AF_INET;
    address.m_ip4.sin_port = htons(*nPort);
    return ::inet_pton(AF_INET, strHost.c_str(), &address.m_ip4.sin_addr) == 1 ? std::optional(address) : std::nullopt;
}

std::optional<CNetAddress> CNetAddress::parseHost(const std::string& strText)
{
    const bool bIPv6 = strText.find(':') != std::string::npos;
    return parse(bIPv6 ? "[" + strText + "]:0" : strText + ":0");
}

std::string CNetAddress::text() const
{
    std::array<char, INET6_ADDRSTRLEN> szHost{};
    if (family() == AF_INET)
    {
        ::inet_ntop(AF_INET, &m_ip4.sin_addr, szHost.data(), szHost.size());
        return fmt::format("{}:{}", szHost.data(), port());
    }
    if (family() == AF_INET6)
    {
        ::inet_ntop(AF_INET6, &m_ip6.sin6_addr, szHost.data(), szHost.size());
        return fmt::format("[{}]:{}", szHost.data(), port());
    }
    return "no address";
}

uint16_t CNetAddress::port() const
{
    return ntohs(family() == AF_INET ? m_ip4.sin_port : m_ip6.sin6_port);
}

CNetAddress CNetAddress::withPort(uint16_t nPort) const
{
    CNetAddress address = *this;
    if (family() == AF_INET)
        address.m_ip4.sin_port = htons(nPort);
    else
        address.m_ip6.sin6_port = htons(nPort);
    return address;
}

bool CNetAddress::operator==(const CNetAddress& other) const
{
    if (family() != other.family())
        return false;
    if (family() == AF_INET)
        return m_ip4.sin_port == other.m_ip4.sin_port && m_ip4.sin_addr.s_addr == other.m_ip4.sin_addr.s_addr;
    return m_ip6.sin6_port == other.m_ip6.sin6_port &&
           std::memcmp(&m_ip6.sin6_addr, &other.m_ip6.sin6_addr, sizeof m_ip6.sin6_addr) == 0;
}

size_t CNetAddress::hash() const
{
    const auto HashBytes = [](const void* pBytes, size_t nSize) {
        return std::hash<std::string_view>()(std::string_view(static_cast<const char*>(pBytes), nSize));
    };
    const size_t nHost = family() == AF_INET ? HashBytes(&m_ip4.sin_addr, sizeof m_ip4.sin_addr)
                                             : HashBytes(&m_ip6.sin6_addr, sizeof m_ip6.sin6_addr);
    return nHost ^ (port() * size_t{0x9E3779B97F4A7C15});
}
