// A leg of a call: its session at the driver, and what that tells.
#include "Leg.h"

#include <spdlog/spdlog.h>

#include <utility>

using Json = nlohmann::ordered_json;

namespace
{
bool isOk(const nlohmann::json& answer)
{
    return answer.value("ok", false);
}

std::string errorOf(const nlohmann::json& answer)
{
    return answer.contains("error") ? answer["error"].dump() : "refused";
}

// "192.0.2.1:20000" or "[2001:db8::1]:20000".
bool splitAddress(const std::string& strText, std::string& strAddress, unsigned& uPort)
{
    const size_t nColon = strText.rfind(':');
    if (nColon == std::string::npos)
        return false;
    strAddress = strText.substr(0, nColon);
    if (strAddress.size() > 2 && strAddress.front() == '[')
        strAddress = strAddress.substr(1, strAddress.size() - 2);
    uPort = static_cast<unsigned>(std::strtoul(strText.c_str() + nColon + 1, nullptr, 10));
    return uPort > 0 && uPort < 65536;
}
} // namespace

void CLeg::prepareMedia()
{
    enter(ELegState::Preparing);
    Json fields = Json::object();
    fields["direction"] = "inactive";
    fields["no_media_s"] = m_services.policy().m_uNoMediaSeconds;
    m_services.driver().request(
        "create", m_name, std::move(fields),
        [pWeak = weak_from_this(), &services = m_services, name = m_name](const nlohmann::json& answer) {
            const auto pLeg = pWeak.lock();
            if (!pLeg)
            {
                if (isOk(answer))
                    services.driver().request("end", name, Json::object(), [](const nlohmann::json&) {});
                return;
            }
            std::string strAddress;
            std::string strRtcp;
            unsigned uPort = 0;
            unsigned uRtcpPort = 0;
            CLeg& leg = *pLeg;
            leg.m_bMedia = isOk(answer);
            if (!leg.m_bMedia || !splitAddress(answer.value("local", ""), strAddress, uPort))
            {
                spdlog::warn("call {} leg {}: no media: {}", leg.m_name.m_strCall, leg.m_name.m_uLeg, errorOf(answer));
                leg.take({ELegEvent::MediaFailed});
                return;
            }
            if (leg.m_bEndTold)
            {
                leg.endMedia("ended");
                return;
            }
            if (!splitAddress(answer.value("rtcp", ""), strRtcp, uRtcpPort))
                uRtcpPort = uPort + 1;
            const std::string strOurs = leg.m_services.mediaAddress();
            leg.m_negotiation.setLocal(strOurs.empty() ? strAddress : strOurs, uPort, uRtcpPort);
            leg.take({ELegEvent::MediaReady});
        });
}

void CLeg::updateMedia()
{
    if (!m_bMedia)
        return;
    const bool bHadKeys = std::exchange(m_bKeys, m_negotiation.media().m_keys.has_value());
    m_services.driver().request("update", m_name, toJson(m_negotiation.media(), bHadKeys),
                                [pWeak = weak_from_this()](const nlohmann::json& answer) {
                                    const auto pLeg = pWeak.lock();
                                    if (!pLeg || isOk(answer) || !pLeg->m_bMedia)
                                        return;
                                    spdlog::warn("call {} leg {}: media refused: {}", pLeg->m_name.m_strCall,
                                                 pLeg->m_name.m_uLeg, errorOf(answer));
                                    CLegEvent event = {ELegEvent::MediaFailed};
                                    event.m_strText = "failed";
                                    event.m_nStatus = 500;
                                    pLeg->take(event);
                                });
}

void CLeg::endMedia(const std::string& strReason)
{
    if (m_bMedia)
        m_services.driver().request("end", m_name, {{"reason", strReason}}, [](const nlohmann::json&) {});
    m_bMedia = false;
}

void CLeg::onDriverLost()
{
    const bool bHad = m_bMedia;
    m_bMedia = false;
    CLegEvent event = {ELegEvent::MediaFailed};
    event.m_strText = "driver-lost";
    event.m_nStatus = 503;
    if (bHad)
        take(event);
}

void CLeg::onDriverEvent(const nlohmann::json& event)
{
    const std::string strEvent = event.value("event", "");
    if (m_bEndTold)
        return;
    if (strEvent == "digit")
        digit(event.value("digit", ""), event.value("ms", 0U));
    else if (strEvent == "speech")
        m_services.emit(*this, {{"event", "speech"}, {"begins", event.value("begins", true)}});
    else if (strEvent == "recorded")
        m_services.emit(*this,
                        {{"event", "recorded"}, {"file", event.value("file", "")}, {"ok", event.value("ok", false)}});
    else if (strEvent == "no_media")
        hangUp("no-media");
    else if (strEvent == "ended")
    {
        m_bMedia = false;
        hangUp("driver-lost", 503);
    }
}

void CLeg::digit(const std::string& strDigit, unsigned uMs)
{
    if (strDigit.size() != 1)
        return;
    m_services.emit(*this, {{"event", "digit"}, {"digit", strDigit}, {"ms", uMs}});
    m_collector.add(strDigit.front());
}

bool CLeg::collect(const CDigitCollection& collection)
{
    if (!isAnswered())
        return false;
    m_collector.start(collection);
    return true;
}
