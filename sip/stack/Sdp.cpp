// Session descriptions: as values, from text and into text.
#include "Sdp.h"

#include <sofia-sip/sdp.h>

#include <cstring>
#include <memory>
#include <strings.h>

namespace
{
constexpr size_t s_nMaxText = 32768;

std::string plainText(const char* pText)
{
    return pText ? pText : "";
}

// "1 AES_CM_128_HMAC_SHA1_80 inline:KEY|2^31|1:4"; keys with a lifetime or MKI that we do not handle have more
// than one part, of which a lifetime alone may be left out of account.
void takeCrypto(CSdpMedia& media, const char* pValue)
{
    const std::string strValue = plainText(pValue);
    const size_t nSuite = strValue.find(' ');
    const size_t nKey = nSuite == std::string::npos ? nSuite : strValue.find(" inline:", nSuite + 1);
    if (nKey == std::string::npos)
        return;
    const size_t nBegin = nKey + std::strlen(" inline:");
    const size_t nEnd = strValue.find_first_of("|; ", nBegin);
    const std::string strRest = nEnd == std::string::npos ? "" : strValue.substr(nEnd);
    if (strRest.find(':') == std::string::npos) // no MKI
    {
        media.m_vCrypto.push_back({strValue.substr(0, nSuite), strValue.substr(nSuite + 1, nKey - nSuite - 1),
                                   strValue.substr(nBegin, nEnd - nBegin)});
    }
}

void takeAttributes(CSdpMedia& media, const sdp_attribute_t* pAttribute)
{
    for (; pAttribute; pAttribute = pAttribute->a_next)
    {
        if (!pAttribute->a_name)
            continue;
        const std::string strName = pAttribute->a_name;
        if (strName == "ptime")
        {
            media.m_uPtime = static_cast<unsigned>(std::strtoul(plainText(pAttribute->a_value).c_str(), nullptr, 10));
        }
        else if (strName == "rtcp")
        {
            media.m_uRtcpPort =
                static_cast<unsigned>(std::strtoul(plainText(pAttribute->a_value).c_str(), nullptr, 10));
        }
        else if (strName == "rtcp-mux")
        {
            media.m_bRtcpMux = true;
        }
        else if (strName == "crypto")
        {
            takeCrypto(media, pAttribute->a_value);
        }
    }
}

CSdpMedia toMedia(const sdp_media_t* pMedia)
{
    CSdpMedia media;
    media.m_strType = plainText(pMedia->m_type_name);
    media.m_strProtocol = plainText(pMedia->m_proto_name);
    media.m_uPort = pMedia->m_rejected ? 0 : static_cast<unsigned>(pMedia->m_port);
    media.m_eDirection = static_cast<EDirection>(pMedia->m_mode & 3U);
    if (const sdp_connection_t* pConnection = sdp_media_connections(pMedia))
        media.m_strAddress = plainText(pConnection->c_address);
    for (const sdp_rtpmap_t* pMap = pMedia->m_rtpmaps; pMap; pMap = pMap->rm_next)
    {
        media.m_vCodecs.push_back({plainText(pMap->rm_encoding), pMap->rm_pt, static_cast<unsigned>(pMap->rm_rate),
                                   plainText(pMap->rm_params), plainText(pMap->rm_fmtp)});
        media.m_strFormats += (media.m_strFormats.empty() ? "" : " ") + std::to_string(unsigned{pMap->rm_pt});
    }
    for (const sdp_list_t* pFormat = pMedia->m_format; pFormat; pFormat = pFormat->l_next)
        media.m_strFormats += (media.m_strFormats.empty() ? "" : " ") + plainText(pFormat->l_text);
    takeAttributes(media, pMedia->m_attributes);
    return media;
}

const char* directionName(EDirection eDirection)
{
    switch (eDirection)
    {
    case EDirection::Inactive: return "inactive";
    case EDirection::SendOnly: return "sendonly";
    case EDirection::ReceiveOnly: return "recvonly";
    default: return "sendrecv";
    }
}

std::string connection(const std::string& strAddress)
{
    return (strAddress.find(':') == std::string::npos ? "IN IP4 " : "IN IP6 ") + strAddress;
}

void printCodecs(std::string& strText, const CSdpMedia& media)
{
    for (const CSdpCodec& codec : media.m_vCodecs)
    {
        const std::string strPayload = std::to_string(codec.m_uPayload);
        strText += "a=rtpmap:" + strPayload + " " + codec.m_strName + "/" + std::to_string(codec.m_uRate) +
                   (codec.m_strParameters.empty() ? "" : "/" + codec.m_strParameters) + "\r\n";
        if (!codec.m_strFormat.empty())
            strText += "a=fmtp:" + strPayload + " " + codec.m_strFormat + "\r\n";
    }
}

void printMedia(std::string& strText, const CSdpMedia& media)
{
    strText += "m=" + media.m_strType + " " + std::to_string(media.m_uPort) + " " + media.m_strProtocol;
    if (media.m_uPort == 0 || media.m_vCodecs.empty())
    {
        strText += " " + (media.m_strFormats.empty() ? "0" : media.m_strFormats) + "\r\n";
        return;
    }
    for (const CSdpCodec& codec : media.m_vCodecs)
        strText += " " + std::to_string(codec.m_uPayload);
    strText += "\r\n";
    printCodecs(strText, media);
    for (const CSdpCrypto& crypto : media.m_vCrypto)
        strText += "a=crypto:" + crypto.m_strTag + " " + crypto.m_strSuite + " inline:" + crypto.m_strKey + "\r\n";
    if (media.m_uPtime > 0)
        strText += "a=ptime:" + std::to_string(media.m_uPtime) + "\r\n";
    if (media.m_uRtcpPort > 0 && media.m_uRtcpPort != media.m_uPort + 1)
        strText += "a=rtcp:" + std::to_string(media.m_uRtcpPort) + "\r\n";
    if (media.m_bRtcpMux)
        strText += "a=rtcp-mux\r\n";
    strText += std::string("a=") + directionName(media.m_eDirection) + "\r\n";
}
} // namespace

std::optional<CSdp> parseSdp(const std::string& strText, std::string& strError)
{
    if (strText.empty() || strText.size() > s_nMaxText || strText.find('\0') != std::string::npos)
    {
        strError = "no session description";
        return std::nullopt;
    }
    const std::unique_ptr<su_home_t, void (*)(su_home_t*)> home(su_home_create(),
                                                                [](su_home_t* pHome) { su_home_unref(pHome); });
    const std::unique_ptr<sdp_parser_t, void (*)(sdp_parser_t*)> parser(
        sdp_parse(home.get(), strText.data(), static_cast<issize_t>(strText.size()), sdp_f_mode_0000 | sdp_f_insane),
        sdp_parser_free);
    const sdp_session_t* pSession = parser ? sdp_session(parser.get()) : nullptr;
    if (!pSession)
    {
        const char* pError = parser ? sdp_parsing_error(parser.get()) : nullptr;
        strError = pError ? pError : "no session description";
        return std::nullopt;
    }
    CSdp sdp;
    if (pSession->sdp_origin)
    {
        sdp.m_ullSession = pSession->sdp_origin->o_id;
        sdp.m_ullVersion = pSession->sdp_origin->o_version;
    }
    if (pSession->sdp_connection)
        sdp.m_strAddress = plainText(pSession->sdp_connection->c_address);
    for (const sdp_media_t* pMedia = pSession->sdp_media; pMedia; pMedia = pMedia->m_next)
        sdp.m_vMedia.push_back(toMedia(pMedia));
    return sdp;
}

std::string printSdp(const CSdp& sdp)
{
    std::string strText = "v=0\r\no=- " + std::to_string(sdp.m_ullSession) + " " + std::to_string(sdp.m_ullVersion) +
                          " " + connection(sdp.m_strAddress) + "\r\ns=-\r\nc=" + connection(sdp.m_strAddress) +
                          "\r\nt=0 0\r\n";
    for (const CSdpMedia& media : sdp.m_vMedia)
        printMedia(strText, media);
    return strText;
}
