// Lets the kernel drop what comes from addresses that are not allowed.
#include "SourceFilter.h"

#include "AddressList.h"

#include <linux/filter.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace
{
using Program = std::vector<sock_filter>;

constexpr uint32_t s_uTake = 0xffffffff;
constexpr size_t s_nMaxNetworks = 400; // a program has at most 4096 instructions

sock_filter step(unsigned uCode, uint32_t uValue, uint8_t ucTrue = 0, uint8_t ucFalse = 0)
{
    return {static_cast<uint16_t>(uCode), ucTrue, ucFalse, uValue};
}

uint32_t networkHeader(unsigned uOffset)
{
    return static_cast<uint32_t>(SKF_NET_OFF) + uOffset;
}

uint32_t word(const CNetwork& network, unsigned uWord)
{
    uint32_t uValue = 0;
    for (unsigned uByte = 0; uByte < 4; ++uByte)
        uValue = uValue << 8 | network.m_ucBytes[uWord * 4 + uByte];
    return uValue;
}

// Takes the packet when the source is of the network, else goes on behind.
void addNetwork(Program& program, const CNetwork& network)
{
    const unsigned uSource = network.m_bSix ? 8 : 12;
    const unsigned uWords = (network.m_uPrefix + 31) / 32;
    for (unsigned uWord = 0; uWord < uWords; ++uWord)
    {
        const unsigned uBits = std::min(32U, network.m_uPrefix - uWord * 32);
        const uint32_t uMask = uBits == 32 ? 0xffffffffU : ~(0xffffffffU >> uBits);
        // What is left of this network: three steps for each word that follows, and the one that takes.
        const auto ucRest = static_cast<uint8_t>((uWords - uWord - 1) * 3 + 1);
        program.push_back(step(BPF_LD | BPF_W | BPF_ABS, networkHeader(uSource + uWord * 4)));
        program.push_back(step(BPF_ALU | BPF_AND | BPF_K, uMask));
        program.push_back(step(BPF_JMP | BPF_JEQ | BPF_K, word(network, uWord) & uMask, 0, ucRest));
    }
    program.push_back(step(BPF_RET | BPF_K, s_uTake));
}

Program programFor(const CAddressList& addresses)
{
    Program four;
    Program six;
    for (const CNetwork& network : addresses.networks())
        addNetwork(network.m_bSix ? six : four, network);
    four.push_back(step(BPF_RET | BPF_K, 0));
    six.push_back(step(BPF_RET | BPF_K, 0));
    Program program;
    program.push_back(step(BPF_LD | BPF_B | BPF_ABS, networkHeader(0)));
    program.push_back(step(BPF_ALU | BPF_AND | BPF_K, 0xf0));
    program.push_back(step(BPF_JMP | BPF_JEQ | BPF_K, 0x40, 1, 0));
    program.push_back(step(BPF_JMP | BPF_JA, static_cast<uint32_t>(four.size())));
    program.insert(program.end(), four.begin(), four.end());
    program.insert(program.end(), six.begin(), six.end());
    return program;
}

bool listensAt(int nSocket, const std::string& strAddress, unsigned short usPort, bool bDatagrams)
{
    int nType = 0;
    socklen_t nSize = sizeof(nType);
    int bListens = 0;
    socklen_t nListensSize = sizeof(bListens);
    if (::getsockopt(nSocket, SOL_SOCKET, SO_TYPE, &nType, &nSize) != 0 ||
        nType != (bDatagrams ? SOCK_DGRAM : SOCK_STREAM) ||
        (!bDatagrams && (::getsockopt(nSocket, SOL_SOCKET, SO_ACCEPTCONN, &bListens, &nListensSize) != 0 || !bListens)))
        return false;
    sockaddr_storage storage = {};
    socklen_t nStorage = sizeof(storage);
    if (::getsockname(nSocket, reinterpret_cast<sockaddr*>(&storage), &nStorage) != 0)
        return false;
    char szAddress[INET6_ADDRSTRLEN] = "";
    in_port_t nPort = 0;
    if (storage.ss_family == AF_INET)
    {
        sockaddr_in address = {};
        std::memcpy(&address, &storage, sizeof(address));
        nPort = address.sin_port;
        ::inet_ntop(AF_INET, &address.sin_addr, szAddress, sizeof(szAddress));
    }
    else if (storage.ss_family == AF_INET6)
    {
        sockaddr_in6 address = {};
        std::memcpy(&address, &storage, sizeof(address));
        nPort = address.sin6_port;
        ::inet_ntop(AF_INET6, &address.sin6_addr, szAddress, sizeof(szAddress));
    }
    return ntohs(nPort) == usPort && strAddress == szAddress;
}
} // namespace

bool filterSources(const std::string& strAddress, unsigned short usPort, bool bDatagrams, const CAddressList& addresses,
                   std::string& strError)
{
    if (addresses.networks().size() > s_nMaxNetworks)
    {
        strError = "more than " + std::to_string(s_nMaxNetworks) + " networks are allowed";
        return false;
    }
    Program program = programFor(addresses);
    sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    // The stack keeps its sockets for itself.
    const std::unique_ptr<DIR, int (*)(DIR*)> pFolder(::opendir("/proc/self/fd"), ::closedir);
    bool bFound = false;
    while (const dirent* pEntry = pFolder ? ::readdir(pFolder.get()) : nullptr)
    {
        const int nSocket = std::atoi(pEntry->d_name);
        if (pEntry->d_name[0] != '.' && listensAt(nSocket, strAddress, usPort, bDatagrams))
        {
            bFound = true;
            if (::setsockopt(nSocket, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof(filter)) != 0)
            {
                strError = std::string("the kernel takes no filter: ") + std::strerror(errno);
                return false;
            }
        }
    }
    strError = bFound ? "" : "the listening socket was not found";
    return bFound;
}
