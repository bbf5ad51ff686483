// The channel table: which kind of channel a call id and leg get.
#ifndef DRIVER_CHANNEL_TABLE_H
#define DRIVER_CHANNEL_TABLE_H

#include "Channel.h"
#include "NetAddress.h"
#include "RtpChannel.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

// What a call gets. An RTP channel has its route.
struct CFileRoute
{
};
struct CNullRoute
{
};
using CChannelRoute = std::variant<CFileRoute, CNullRoute, CRtpRoute>;

// A JSON object with the entries in the order in which they are tried. The first that fits a call is
// taken:
//
//   {"channels": [
//     {"call": "1001", "leg": 1, "type": "rtp", "local": "127.0.0.1:40000", "remote": "127.0.0.1:50000"},
//     {"call": "agent-*", "type": "rtp", "local": "[::1]:41000", "localPortStep": 2,
//      "remote": "[::1]:51000", "remotePortStep": 2, "codec": "pcma", "jitterMs": 100},
//     {"call": "load-*", "type": "null"},
//     {"call": "*", "type": "file"}
//   ]}
//
//   call           the call id, in which *, ? and [...] stand for others as in file names
//   leg            the leg; every leg where it is not given
//   type           "file", "null" or "rtp"
// and with "rtp":
//   local, remote  addresses and ports, in numbers
//   localPortStep, remotePortStep
//                  added to the port once for each leg: 2 makes leg 3 port + 6. 0 where it is not given
//   codec          "pcmu", which is taken where it is not given, or "pcma"
//   jitterMs       by which recordings are behind the line, 0 to 1000; 60 where it is not given
//
// Other keys are errors.
class CChannelTable
{
public:
    // Every call gets a file channel.
    CChannelTable();

    // None, with the message in strError, when the file cannot be read or is in error.
    static std::optional<CChannelTable> load(const std::string& strPath, std::string& strError);

    // Of the text of a file; messages begin with the name.
    static std::optional<CChannelTable> parse(std::string_view text, const std::string& strName, std::string& strError);

    // None, with the reason in strError, when no entry fits or its ports end before this leg.
    std::optional<CChannelRoute> find(const std::string& strCallID, uint32_t nLegID, std::string& strError) const;

private:
    friend class CChannelTableReader;
    struct CEntry
    {
        std::string m_strCall = "*";
        std::optional<uint32_t> m_leg;
        CChannelRoute m_route; // of leg 0
        uint32_t m_nLocalPortStep = 0;
        uint32_t m_nRemotePortStep = 0;
    };

    std::vector<CEntry> m_vEntries;
};

// Makes the channels as the table says.
class CTableChannelFactory : public CChannelFactory
{
public:
    // Ports and file channels outlive this and all its channels.
    CTableChannelFactory(CChannelTable table, CRtpPorts& ports, CChannelFactory& fileChannels);

    void open(const std::string& strCallID, uint32_t nLegID, OpenFunction done) override;

private:
    const CChannelTable m_table;
    CRtpPorts& m_ports;
    CChannelFactory& m_fileChannels;
};

#endif
