// What the driver is told about the media of a leg.
#include "MediaDescription.h"

namespace
{
using Json = nlohmann::ordered_json;

Json codecJson(const CSdpCodec& codec)
{
    Json json = {{"name", codec.m_strName}, {"payload", codec.m_uPayload}, {"rate", codec.m_uRate}};
    if (!codec.m_strFormat.empty())
        json["fmtp"] = codec.m_strFormat;
    return json;
}

Json optionalJson(const std::optional<unsigned>& uValue)
{
    return uValue ? Json(*uValue) : Json(nullptr);
}

const char* directionText(EDirection eDirection)
{
    switch (eDirection)
    {
    case EDirection::Inactive: return "inactive";
    case EDirection::SendOnly: return "sendonly";
    case EDirection::ReceiveOnly: return "recvonly";
    default: return "sendrecv";
    }
}
} // namespace

Json toJson(const CMediaDescription& media, bool bHadKeys)
{
    Json json = Json::object();
    if (!media.m_strRemote.empty())
        json["remote"] = media.m_strRemote;
    if (!media.m_strRtcpRemote.empty())
        json["rtcp_remote"] = media.m_strRtcpRemote;
    if (!media.m_vReceive.empty())
    {
        Json codecs = Json::array();
        for (const CSdpCodec& codec : media.m_vReceive)
            codecs.push_back(codecJson(codec));
        json["receive"] = std::move(codecs);
        json["send"] = codecJson(media.m_send);
        json["send_digits"] = optionalJson(media.m_uSendDigits);
        if (media.m_uComfortNoise)
            json["comfort_noise"] = *media.m_uComfortNoise;
        json["ptime"] = media.m_uPtime;
    }
    json["direction"] = directionText(media.m_eDirection);
    json["rtcp_mux"] = media.m_bRtcpMux;
    if (media.m_keys)
        json["srtp"] = {{"suite", media.m_keys->m_strSuite},
                        {"send", media.m_keys->m_strSend},
                        {"receive", media.m_keys->m_strReceive}};
    else if (bHadKeys)
        json["srtp"] = nullptr;
    return json;
}
