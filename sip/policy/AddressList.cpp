// Network addresses, and lists of networks.
#include "AddressList.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>

namespace
{
bool parseAddress(const std::string& strAddress, CNetwork& network)
{
    network = {};
    if (::inet_pton(AF_INET, strAddress.c_str(), network.m_ucBytes.data()) == 1)
    {
        network.m_uPrefix = 32;
        return true;
    }
    network.m_bSix = true;
    network.m_uPrefix = 128;
    return ::inet_pton(AF_INET6, strAddress.c_str(), network.m_ucBytes.data()) == 1;
}

bool covers(const CNetwork& network, const CNetwork& address)
{
    if (network.m_bSix != address.m_bSix)
        return false;
    for (unsigned uBit = 0; uBit < network.m_uPrefix; uBit += 8)
    {
        const unsigned uHere = std::min(8U, network.m_uPrefix - uBit);
        const auto ucMask = static_cast<uint8_t>(0xff00U >> uHere);
        if (((network.m_ucBytes[uBit / 8] ^ address.m_ucBytes[uBit / 8]) & ucMask) != 0)
            return false;
    }
    return true;
}
} // namespace

bool CAddressList::add(const std::string& strNetwork, std::string& strError)
{
    const size_t nSlash = strNetwork.find('/');
    CNetwork network;
    if (!parseAddress(strNetwork.substr(0, nSlash), network))
    {
        strError = "\"" + strNetwork + "\" is no network such as 192.0.2.0/24";
        return false;
    }
    if (nSlash != std::string::npos)
    {
        const char* pEnd = strNetwork.data() + strNetwork.size();
        unsigned uPrefix = 0;
        const auto [pRest, error] = std::from_chars(strNetwork.data() + nSlash + 1, pEnd, uPrefix);
        if (error != std::errc() || pRest != pEnd || uPrefix > network.m_uPrefix)
        {
            strError = "\"" + strNetwork + "\" has no prefix length of 0 to " + std::to_string(network.m_uPrefix);
            return false;
        }
        network.m_uPrefix = uPrefix;
    }
    m_vNetworks.push_back(network);
    return true;
}

bool CAddressList::contains(const std::string& strAddress) const
{
    CNetwork address;
    return parseAddress(strAddress, address) &&
           std::any_of(m_vNetworks.begin(), m_vNetworks.end(),
                       [&address](const CNetwork& network) { return covers(network, address); });
}

CAddressList CAddressList::ofThisMachine()
{
    CAddressList list;
    std::string strIgnored;
    list.add("127.0.0.0/8", strIgnored);
    list.add("::1", strIgnored);
    ifaddrs* pFirst = nullptr;
    if (::getifaddrs(&pFirst) != 0)
        return list;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> free(pFirst, ::freeifaddrs);
    for (const ifaddrs* pInterface = pFirst; pInterface; pInterface = pInterface->ifa_next)
    {
        char szAddress[INET6_ADDRSTRLEN] = "";
        const int nFamily = pInterface->ifa_addr ? pInterface->ifa_addr->sa_family : AF_UNSPEC;
        if (nFamily == AF_INET)
        {
            sockaddr_in address = {};
            std::memcpy(&address, pInterface->ifa_addr, sizeof(address));
            ::inet_ntop(nFamily, &address.sin_addr, szAddress, sizeof(szAddress));
            list.add(szAddress, strIgnored);
        }
        else if (nFamily == AF_INET6)
        {
            sockaddr_in6 address = {};
            std::memcpy(&address, pInterface->ifa_addr, sizeof(address));
            ::inet_ntop(nFamily, &address.sin6_addr, szAddress, sizeof(szAddress));
            list.add(szAddress, strIgnored);
        }
    }
    return list;
}
