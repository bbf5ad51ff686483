// Network addresses, and lists of networks.
#ifndef SIP_ADDRESS_LIST_H
#define SIP_ADDRESS_LIST_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

struct CNetwork
{
    bool m_bSix = false;
    std::array<uint8_t, 16> m_ucBytes = {}; // of IPv4 the first four
    unsigned m_uPrefix = 0;
};

class CAddressList
{
public:
    // "192.0.2.0/24", "192.0.2.1", "2001:db8::/32". False, with the reason in strError.
    bool add(const std::string& strNetwork, std::string& strError);
    void add(const CAddressList& others)
    {
        m_vNetworks.insert(m_vNetworks.end(), others.m_vNetworks.begin(), others.m_vNetworks.end());
    }
    // Numeric addresses; anything else is in no list.
    bool contains(const std::string& strAddress) const;
    // Those of this machine, as its interfaces have them now.
    static CAddressList ofThisMachine();

    const std::vector<CNetwork>& networks() const { return m_vNetworks; }

private:
    std::vector<CNetwork> m_vNetworks;
};

#endif
