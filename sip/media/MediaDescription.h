// What the driver is told about the media of a leg.
#ifndef SIP_MEDIA_DESCRIPTION_H
#define SIP_MEDIA_DESCRIPTION_H

#include "Sdp.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

struct CMediaKeys
{
    std::string m_strSuite;
    std::string m_strSend;
    std::string m_strReceive;
};

struct CMediaDescription
{
    std::string m_strRemote; // address:port
    std::string m_strRtcpRemote;
    std::vector<CSdpCodec> m_vReceive;
    CSdpCodec m_send;
    std::optional<unsigned> m_uSendDigits;
    std::optional<unsigned> m_uComfortNoise;
    unsigned m_uPtime = 20;
    EDirection m_eDirection = EDirection::Inactive;
    bool m_bRtcpMux = false;
    std::optional<CMediaKeys> m_keys;
};

// As keys of a request to the driver. bHadKeys: it has been told of keys, which are over if there are none now.
nlohmann::ordered_json toJson(const CMediaDescription& media, bool bHadKeys);

#endif
