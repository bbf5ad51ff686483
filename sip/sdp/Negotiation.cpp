// Offer and answer: what the two sides of a leg agree on.
#include "Negotiation.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <strings.h>

namespace
{
constexpr char s_szSuite80[] = "AES_CM_128_HMAC_SHA1_80";
constexpr char s_szSuite32[] = "AES_CM_128_HMAC_SHA1_32";
constexpr unsigned s_uFirstDynamic = 96;
constexpr unsigned s_uDigits = 101;

bool hasName(const CSdpCodec& codec, const char* pName)
{
    return strcasecmp(codec.m_strName.c_str(), pName) == 0;
}

bool isSame(const CSdpCodec& a, const CSdpCodec& b)
{
    return hasName(a, b.m_strName.c_str()) && a.m_uRate == b.m_uRate;
}

const CSdpCodec* findSame(const std::vector<CSdpCodec>& vCodecs, const CSdpCodec& codec)
{
    const auto iCodec =
        std::find_if(vCodecs.begin(), vCodecs.end(), [&codec](const CSdpCodec& other) { return isSame(other, codec); });
    return iCodec == vCodecs.end() ? nullptr : &*iCodec;
}

CSdpCodec digitsCodec(unsigned uPayload)
{
    return {"telephone-event", uPayload, 8000, "", "0-15"};
}

bool isSuite(const std::string& strSuite)
{
    return strSuite == s_szSuite80 || strSuite == s_szSuite32;
}

std::string base64(const unsigned char* pBytes, size_t nBytes)
{
    static constexpr char s_szAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string strText;
    for (size_t n = 0; n < nBytes; n += 3)
    {
        const unsigned uBits = (unsigned{pBytes[n]} << 16U) | ((n + 1 < nBytes ? unsigned{pBytes[n + 1]} : 0U) << 8U) |
                               (n + 2 < nBytes ? unsigned{pBytes[n + 2]} : 0U);
        strText += s_szAlphabet[uBits >> 18U & 63U];
        strText += s_szAlphabet[uBits >> 12U & 63U];
        strText += n + 1 < nBytes ? s_szAlphabet[uBits >> 6U & 63U] : '=';
        strText += n + 2 < nBytes ? s_szAlphabet[uBits & 63U] : '=';
    }
    return strText;
}

std::string newKey()
{
    std::array<unsigned char, 30> ucBytes = {}; // 16 of the key, 14 of the salt
    return ::getrandom(ucBytes.data(), ucBytes.size(), 0) == static_cast<ssize_t>(ucBytes.size())
               ? base64(ucBytes.data(), ucBytes.size())
               : "";
}

EDirection reversed(EDirection eDirection)
{
    switch (eDirection)
    {
    case EDirection::SendOnly: return EDirection::ReceiveOnly;
    case EDirection::ReceiveOnly: return EDirection::SendOnly;
    default: return eDirection;
    }
}

EDirection both(EDirection a, EDirection b)
{
    return static_cast<EDirection>(static_cast<unsigned>(a) & static_cast<unsigned>(b));
}

std::string withPort(const std::string& strAddress, unsigned uPort)
{
    return (strAddress.find(':') == std::string::npos ? strAddress : "[" + strAddress + "]") + ":" +
           std::to_string(uPort);
}

bool isNowhere(const std::string& strAddress)
{
    return strAddress == "0.0.0.0" || strAddress == "::";
}

bool isRtp(const CSdpMedia& media)
{
    return media.m_strProtocol == "RTP/AVP" || media.m_strProtocol == "RTP/SAVP";
}
} // namespace

CNegotiation::CNegotiation(CNegotiationSettings settings)
    : m_settings(std::move(settings)),
      m_ullSession(static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()) & 0xffffffffffffU)
{
}

void CNegotiation::setLocal(const std::string& strAddress, unsigned uPort, unsigned uRtcpPort)
{
    m_strAddress = strAddress;
    m_uPort = uPort;
    m_uRtcpPort = uRtcpPort;
}

CSdpMedia CNegotiation::ourMedia(EDirection eDirection) const
{
    CSdpMedia media;
    media.m_uPort = m_uPort;
    media.m_uRtcpPort = m_uRtcpPort;
    media.m_uPtime = m_settings.m_uPtime;
    media.m_eDirection = eDirection;
    return media;
}

std::string CNegotiation::makeOffer()
{
    CSdpMedia media = ourMedia(wanted());
    if (m_bAgreed)
    {
        media.m_vCodecs = m_media.m_vReceive; // numbers stay what they are
        media.m_bRtcpMux = m_media.m_bRtcpMux;
    }
    else
    {
        unsigned uDynamic = s_uFirstDynamic;
        for (CSdpCodec codec : m_settings.m_vCodecs)
        {
            if (codec.m_uPayload >= s_uFirstDynamic)
            {
                uDynamic += uDynamic == s_uDigits ? 1 : 0;
                codec.m_uPayload = uDynamic++;
            }
            media.m_vCodecs.push_back(codec);
        }
        media.m_vCodecs.push_back(digitsCodec(s_uDigits));
        media.m_bRtcpMux = true;
    }
    const bool bKeys = m_bAgreed ? m_media.m_keys.has_value() : m_settings.m_eSrtp == ESrtp::Required;
    if (bKeys)
    {
        m_strOurKey = m_strOurKey.empty() ? newKey() : m_strOurKey;
        m_strOurSuite = m_strOurSuite.empty() ? s_szSuite80 : m_strOurSuite;
        media.m_strProtocol = "RTP/SAVP";
        media.m_vCrypto.push_back({m_strCryptoTag, m_strOurSuite, m_strOurKey});
    }
    m_pending = media;
    std::vector<CSdpMedia> vMedia = m_vOthers;
    vMedia.insert(vMedia.begin() + static_cast<std::ptrdiff_t>(std::min(m_nAudio, vMedia.size())), media);
    return describe(std::move(vMedia));
}

std::string CNegotiation::describe(std::vector<CSdpMedia> vMedia)
{
    CSdp sdp;
    sdp.m_ullSession = m_ullSession;
    sdp.m_strAddress = m_strAddress;
    sdp.m_vMedia = std::move(vMedia);
    sdp.m_ullVersion = m_ullVersion;
    // The version tells that something is new.
    if (m_strLocal.empty() || printSdp(sdp) != m_strLocal)
        sdp.m_ullVersion = ++m_ullVersion;
    m_strLocal = printSdp(sdp);
    return m_strLocal;
}

bool CNegotiation::takeAnswer(const std::string& strText, bool bProvisional, std::string& strError)
{
    const auto remote = parseSdp(strText, strError);
    if (!remote || !m_pending)
    {
        strError = remote ? "there was no offer" : strError;
        return false;
    }
    if (remote->m_vMedia.size() <= m_nAudio || remote->m_vMedia[m_nAudio].m_uPort == 0)
    {
        strError = "the audio is refused";
        return false;
    }
    const CSdpMedia ours = *m_pending;
    if (!takeRemote(*remote, remote->m_vMedia[m_nAudio], ours, false, strError))
        return false;
    if (!bProvisional)
        m_pending.reset();
    return true;
}

std::optional<std::string> CNegotiation::answerOffer(const std::string& strText, std::string& strError)
{
    const auto remote = parseSdp(strText, strError);
    if (!remote)
        return std::nullopt;
    const auto isOurs = [](const CSdpMedia& media) {
        return media.m_strType == "audio" && media.m_uPort != 0 && isRtp(media);
    };
    const auto iAudio = std::find_if(remote->m_vMedia.begin(), remote->m_vMedia.end(), isOurs);
    if (iAudio == remote->m_vMedia.end())
    {
        strError = "there is no audio by RTP";
        return std::nullopt;
    }
    CSdpMedia ours = ourMedia(both(reversed(iAudio->m_eDirection), wanted()));
    if (!takeRemote(*remote, *iAudio, ours, true, strError))
        return std::nullopt;
    ours.m_vCodecs = m_media.m_vReceive;
    ours.m_strProtocol = iAudio->m_strProtocol;
    ours.m_bRtcpMux = m_media.m_bRtcpMux;
    ours.m_eDirection = m_media.m_eDirection;
    ours.m_uPtime = m_media.m_uPtime;
    if (m_media.m_keys)
        ours.m_vCrypto.push_back({m_strCryptoTag, m_strOurSuite, m_strOurKey});
    m_nAudio = static_cast<size_t>(iAudio - remote->m_vMedia.begin());
    m_vOthers.clear();
    std::vector<CSdpMedia> vMedia;
    for (CSdpMedia media : remote->m_vMedia)
    {
        if (vMedia.size() == m_nAudio)
        {
            vMedia.push_back(ours);
            continue;
        }
        media.m_uPort = 0;
        media.m_vCodecs.clear();
        m_vOthers.push_back(media);
        vMedia.push_back(media);
    }
    return describe(std::move(vMedia));
}

bool CNegotiation::takeRemote(const CSdp& remote, const CSdpMedia& media, const CSdpMedia& ours, bool bPeerOffered,
                              std::string& strError)
{
    CMediaDescription result;
    if (!chooseCodecs(media, ours, bPeerOffered, result, strError) || !takeKeys(media, bPeerOffered, result, strError))
        return false;
    const std::string& strAddress = media.m_strAddress.empty() ? remote.m_strAddress : media.m_strAddress;
    EDirection eDirection = both(reversed(media.m_eDirection), ours.m_eDirection);
    if (isNowhere(strAddress))
    {
        // The old way to hold.
        eDirection = both(eDirection, EDirection::ReceiveOnly);
    }
    else
    {
        result.m_strRemote = withPort(strAddress, media.m_uPort);
        result.m_strRtcpRemote = media.m_uRtcpPort > 0 ? withPort(strAddress, media.m_uRtcpPort) : "";
    }
    result.m_eDirection = eDirection;
    result.m_bRtcpMux = media.m_bRtcpMux && (bPeerOffered || ours.m_bRtcpMux);
    result.m_uPtime =
        media.m_uPtime >= 10 && media.m_uPtime <= 60 && media.m_uPtime % 10 == 0 ? media.m_uPtime : m_settings.m_uPtime;
    m_bHeldByPeer = isNowhere(strAddress) || media.m_eDirection == EDirection::SendOnly ||
                    media.m_eDirection == EDirection::Inactive;
    // A peer that answers our own hold does not hold us by that.
    if (m_bHold && !bPeerOffered)
        m_bHeldByPeer = false;
    m_media = std::move(result);
    m_bAgreed = true;
    return true;
}

bool CNegotiation::chooseCodecs(const CSdpMedia& remote, const CSdpMedia& ours, bool bPeerOffered,
                                CMediaDescription& result, std::string& strError) const
{
    const std::vector<CSdpCodec>& vMine = bPeerOffered ? m_settings.m_vCodecs : ours.m_vCodecs;
    const bool bPeersOrder = !bPeerOffered || m_settings.m_bPeersOrder;
    for (const CSdpCodec& codec : bPeersOrder ? remote.m_vCodecs : vMine)
    {
        const CSdpCodec* pMine = findSame(vMine, codec);
        const CSdpCodec* pRemote = findSame(remote.m_vCodecs, codec);
        if (!pMine || !pRemote || hasName(codec, "telephone-event") || hasName(codec, "CN"))
            continue;
        CSdpCodec received = *pRemote;
        if (result.m_vReceive.empty())
            result.m_send = *pRemote;
        if (!bPeerOffered)
            received.m_uPayload = pMine->m_uPayload; // what we have offered is what is sent to us
        result.m_vReceive.push_back(received);
    }
    if (result.m_vReceive.empty())
    {
        strError = "there is no codec in common";
        return false;
    }
    for (const CSdpCodec& codec : remote.m_vCodecs)
    {
        if (hasName(codec, "telephone-event") && codec.m_uRate == 8000 && !result.m_uSendDigits)
        {
            result.m_uSendDigits = codec.m_uPayload;
            const CSdpCodec* pMine = bPeerOffered ? nullptr : findSame(ours.m_vCodecs, codec);
            result.m_vReceive.push_back(digitsCodec(pMine ? pMine->m_uPayload : codec.m_uPayload));
        }
    }
    return true;
}

bool CNegotiation::takeKeys(const CSdpMedia& remote, bool bPeerOffered, CMediaDescription& result,
                            std::string& strError)
{
    const bool bSecure = remote.m_strProtocol == "RTP/SAVP";
    if (!bSecure)
    {
        strError = "the media are to be encrypted";
        return m_settings.m_eSrtp != ESrtp::Required && (bPeerOffered || m_pending->m_vCrypto.empty());
    }
    const auto iCrypto = std::find_if(remote.m_vCrypto.begin(), remote.m_vCrypto.end(), [&](const CSdpCrypto& crypto) {
        return isSuite(crypto.m_strSuite) && crypto.m_strKey.size() == 40 &&
               (bPeerOffered || (crypto.m_strSuite == m_strOurSuite && crypto.m_strTag == m_strCryptoTag));
    });
    if (m_settings.m_eSrtp == ESrtp::Off || iCrypto == remote.m_vCrypto.end())
    {
        strError = "there is no encryption in common";
        return false;
    }
    m_strCryptoTag = iCrypto->m_strTag;
    if (m_strOurKey.empty() || m_strOurSuite != iCrypto->m_strSuite)
    {
        m_strOurKey = newKey();
        m_strOurSuite = iCrypto->m_strSuite;
    }
    result.m_keys = {m_strOurSuite, m_strOurKey, iCrypto->m_strKey};
    return true;
}
