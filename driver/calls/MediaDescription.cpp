// What a request says about the media of a leg.
#include "MediaDescription.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <algorithm>
#include <map>

namespace
{
constexpr int64_t MAX_PAYLOAD = 127;
constexpr size_t MAX_FORMATS = 32;
constexpr const char* TELEPHONE_EVENT = "telephone-event";

const std::map<std::string, EDirection>& directions()
{
    static const std::map<std::string, EDirection> map = {{"sendrecv", EDirection::SendReceive},
                                                          {"sendonly", EDirection::SendOnly},
                                                          {"recvonly", EDirection::ReceiveOnly},
                                                          {"inactive", EDirection::Inactive}};
    return map;
}

struct CFormatText
{
    std::string m_strName;
    uint8_t m_nPayload;
    unsigned m_nRate;
};

std::optional<CFormatText> readFormat(CJsonFields& outer, const nlohmann::json& object, const char* pKey)
{
    if (!object.is_object())
    {
        outer.fail(fmt::format("\"{}\" must hold objects with name, payload and rate", pKey));
        return std::nullopt;
    }
    CJsonFields fields(object);
    CFormatText format;
    format.m_strName = fields.neededText("name", 1, 64);
    format.m_nPayload = static_cast<uint8_t>(fields.neededNumber("payload", 0, MAX_PAYLOAD));
    format.m_nRate = static_cast<unsigned>(fields.neededNumber("rate", 8000, 192000));
    fields.text("fmtp", 0, 1024);
    std::string strError;
    if (fields.finish(strError))
        return format;
    outer.fail(fmt::format("\"{}\": {}", pKey, strError));
    return std::nullopt;
}

void readReceive(CJsonFields& fields, const nlohmann::json& array, CMediaSettings& settings)
{
    settings.m_vReceive.clear();
    settings.m_vKeyPayloads.clear();
    if (array.empty() || array.size() > MAX_FORMATS)
        fields.fail(fmt::format("\"receive\" must hold 1 to {} formats", MAX_FORMATS));
    for (const nlohmann::json& object : array)
    {
        const auto format = readFormat(fields, object, "receive");
        if (!format)
            return;
        const bool bKeys = format->m_strName == TELEPHONE_EVENT;
        const CCodec* pCodec = bKeys ? nullptr : findCodec(format->m_strName, format->m_nRate);
        if (!bKeys && pCodec == nullptr)
            fields.fail(fmt::format("there is no codec {} at {}", format->m_strName, format->m_nRate));
        if (std::any_of(settings.m_vReceive.begin(), settings.m_vReceive.end(),
                        [&](const auto& other) { return other.m_nPayloadType == format->m_nPayload; }))
            fields.fail(fmt::format("payload type {} is given twice", format->m_nPayload));
        settings.m_vReceive.push_back({format->m_nPayload, pCodec});
        if (bKeys)
            settings.m_vKeyPayloads.push_back(format->m_nPayload);
    }
}

void setSend(CMediaSettings& settings, const CCodec* pCodec, uint8_t nPayload)
{
    settings.m_pSendCodec = pCodec;
    settings.m_nSendPayload = nPayload;
}

void readFormats(CJsonFields& fields, CMediaSettings& settings)
{
    if (const nlohmann::json* pReceive = fields.array("receive"))
    {
        readReceive(fields, *pReceive, settings);
        const auto it = std::find_if(settings.m_vReceive.begin(), settings.m_vReceive.end(),
                                     [](const auto& format) { return format.m_pCodec != nullptr; });
        if (it != settings.m_vReceive.end())
            setSend(settings, it->m_pCodec, it->m_nPayloadType);
    }
    if (const nlohmann::json* pSend = fields.object("send"))
    {
        const auto format = readFormat(fields, *pSend, "send");
        const CCodec* pCodec = format ? findCodec(format->m_strName, format->m_nRate) : nullptr;
        if (pCodec != nullptr)
            setSend(settings, pCodec, format->m_nPayload);
        else
            fields.fail("\"send\" is no codec that is known");
    }
}

void readAddress(CJsonFields& fields, const char* pKey, CNetAddress& address)
{
    const auto strText = fields.text(pKey);
    if (!strText)
        return;
    const auto parsed = CNetAddress::parse(*strText);
    if (parsed && parsed->port() != 0)
        address = *parsed;
    else
        fields.fail(
            fmt::format("\"{}\" must be an address and port such as 192.0.2.9:4000 or [2001:db8::9]:4000", pKey));
}

std::vector<uint8_t> readKey(CJsonFields& fields, const std::string& strBase64, size_t nLength)
{
    std::vector<uint8_t> vKey(strBase64.size());
    const int nSize = EVP_DecodeBlock(vKey.data(), reinterpret_cast<const unsigned char*>(strBase64.data()),
                                      static_cast<int>(strBase64.size()));
    // Its padding is decoded as zeros.
    if (strBase64.size() != (nLength + 2) / 3 * 4 || nSize < static_cast<int>(nLength))
        fields.fail(fmt::format("\"srtp\": a key must be {} bytes in base64", nLength));
    vKey.resize(nLength);
    return vKey;
}

void readSrtp(CJsonFields& fields, CMediaSettings& settings)
{
    if (!fields.has("srtp"))
        return;
    const nlohmann::json* pObject = fields.object("srtp");
    settings.m_srtp.reset();
    if (pObject == nullptr)
        return;
    CJsonFields inner(*pObject);
    CSrtpKeys keys;
    keys.m_strSuite = inner.neededText("suite", 1, 64);
    const std::string strSend = inner.neededText("send", 1, 128);
    const std::string strReceive = inner.neededText("receive", 1, 128);
    std::string strError;
    const size_t nLength = srtpKeyLength(keys.m_strSuite);
    if (!inner.finish(strError) || nLength == 0)
    {
        fields.fail("\"srtp\": " + (strError.empty() ? "the suite is not known" : strError));
        return;
    }
    keys.m_vSend = readKey(fields, strSend, nLength);
    keys.m_vReceive = readKey(fields, strReceive, nLength);
    settings.m_srtp = std::move(keys);
}

void readPayload(CJsonFields& fields, const char* pKey, std::optional<uint8_t>& payload)
{
    if (!fields.has(pKey))
        return;
    const auto llPayload = fields.number(pKey, 0, MAX_PAYLOAD);
    payload = llPayload ? std::optional(static_cast<uint8_t>(*llPayload)) : std::nullopt;
}
} // namespace

CMediaSettings defaultMedia()
{
    CMediaSettings settings;
    settings.m_vReceive = {{*CODEC_PCMU.m_staticPayload, &CODEC_PCMU}};
    return settings;
}

void readMediaDescription(CJsonFields& fields, CMediaSettings& settings)
{
    readAddress(fields, "remote", settings.m_remote);
    readAddress(fields, "rtcp_remote", settings.m_rtcpRemote);
    readFormats(fields, settings);
    readPayload(fields, "send_digits", settings.m_sendKeys);
    readPayload(fields, "comfort_noise", settings.m_comfortNoise);
    if (const auto llPtime = fields.number("ptime", 10, 60))
    {
        settings.m_nPtimeMs = static_cast<unsigned>(*llPtime);
        if (*llPtime % 10 != 0)
            fields.fail("\"ptime\" must be a multiple of 10");
    }
    if (settings.m_pSendCodec == &CODEC_OPUS && (settings.m_nPtimeMs == 30 || settings.m_nPtimeMs == 50))
        fields.fail("opus has no packets of 30 or 50 ms");
    if (const auto strDirection = fields.text("direction"))
    {
        const auto it = directions().find(*strDirection);
        if (it != directions().end())
            settings.m_eDirection = it->second;
        else
            fields.fail("\"direction\" must be sendrecv, sendonly, recvonly or inactive");
    }
    settings.m_bRtcpMux = fields.flag("rtcp_mux").value_or(settings.m_bRtcpMux);
    if (const auto strKeys = fields.text("interrupt_digits", 0, 32))
    {
        settings.m_strInterruptKeys = *strKeys;
        if (std::any_of(strKeys->begin(), strKeys->end(), [](char c) { return eventOfKey(c) < 0; }))
            fields.fail("\"interrupt_digits\" must hold 0 to 9, *, # and A to D");
    }
    settings.m_bInterruptSpeech = fields.flag("interrupt_speech").value_or(settings.m_bInterruptSpeech);
    settings.m_bSpeech = fields.flag("speech").value_or(settings.m_bSpeech);
    readSrtp(fields, settings);
    if (const auto llSeconds = fields.number("no_media_s", 0, 86400))
        settings.m_nNoMediaS = static_cast<unsigned>(*llSeconds);
}
