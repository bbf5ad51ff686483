// Session descriptions: as values, from text and into text.
#ifndef SIP_SDP_H
#define SIP_SDP_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class EDirection
{
    Inactive = 0,
    SendOnly = 1,
    ReceiveOnly = 2,
    SendReceive = 3
};

struct CSdpCodec
{
    std::string m_strName;
    unsigned m_uPayload = 0;
    unsigned m_uRate = 8000;
    std::string m_strParameters; // channels, of two
    std::string m_strFormat;     // fmtp
};

struct CSdpCrypto
{
    std::string m_strTag;
    std::string m_strSuite;
    std::string m_strKey; // base64 of key and salt
};

struct CSdpMedia
{
    std::string m_strType = "audio";
    std::string m_strProtocol = "RTP/AVP";
    std::string m_strFormats; // of what is not ours, as it came
    std::string m_strAddress; // its own, else the session's
    unsigned m_uPort = 0;
    unsigned m_uRtcpPort = 0; // 0: the next one
    EDirection m_eDirection = EDirection::SendReceive;
    unsigned m_uPtime = 0;
    bool m_bRtcpMux = false;
    std::vector<CSdpCodec> m_vCodecs;
    std::vector<CSdpCrypto> m_vCrypto;
};

struct CSdp
{
    uint64_t m_ullSession = 0;
    uint64_t m_ullVersion = 0;
    std::string m_strAddress;
    std::vector<CSdpMedia> m_vMedia;
};

// Nothing, with the reason in strError, for what is no session description.
std::optional<CSdp> parseSdp(const std::string& strText, std::string& strError);
std::string printSdp(const CSdp& sdp);

#endif
