// An IP address and port in numbers.
#ifndef DRIVER_NET_ADDRESS_H
#define DRIVER_NET_ADDRESS_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

// A value; without an address until it is assigned or the system fills it in. IPv4 and IPv6 addresses
// are never equal, not even mapped ones.
class CNetAddress
{
public:
    // Room for what the system fills in.
    static constexpr socklen_t CAPACITY = sizeof(sockaddr_in6);

    CNetAddress() : m_ip6() {}

    // "192.0.2.1:4000" or "[2001:db8::1]:4000". None for anything else, host names and zones included.
    static std::optional<CNetAddress> parse(const std::string& strText);
    std::string text() const;

    // "192.0.2.1" or "2001:db8::1", with port 0.
    static std::optional<CNetAddress> parseHost(const std::string& strText);

    int family() const { return m_any.sa_family; }
    uint16_t port() const;
    CNetAddress withPort(uint16_t nPort) const;

    const sockaddr* get() const { return &m_any; }
    sockaddr* get() { return &m_any; }
    socklen_t size() const { return family() == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6); }

    bool isKnown() const { return family() != AF_UNSPEC; }
    bool hasHostOf(const CNetAddress& other) const { return withPort(0) == other.withPort(0); }

    bool operator==(const CNetAddress& other) const;
    size_t hash() const;

private:
    union
    {
        sockaddr m_any;
        sockaddr_in m_ip4;
        sockaddr_in6 m_ip6;
    };
};

template <> struct std::hash<CNetAddress>
{
    size_t operator()(const CNetAddress& address) const noexcept { return address.hash(); }
};

#endif
