// A leg of a call: transfers, digits by INFO, a dialog in the place of another.
#include "Leg.h"

#include <spdlog/spdlog.h>

#include <strings.h>

namespace
{
// "Signal=5" of application/dtmf-relay, or the digit alone.
std::string signalOf(const CSipMessage& message)
{
    std::string strDigit;
    if (strncasecmp(message.m_strContentType.c_str(), "application/dtmf-relay", 22) == 0)
    {
        const size_t nSignal = message.m_strBody.find("Signal=");
        if (nSignal != std::string::npos)
            strDigit = message.m_strBody.substr(message.m_strBody.find_first_not_of(' ', nSignal + 7), 1);
    }
    else if (strncasecmp(message.m_strContentType.c_str(), "application/dtmf", 16) == 0)
        strDigit = message.m_strBody.substr(0, 1);
    return strDigit.find_first_of("0123456789*#ABCDabcd") == 0 ? strDigit : "";
}

unsigned durationOf(const CSipMessage& message)
{
    const size_t nDuration = message.m_strBody.find("Duration=");
    if (nDuration == std::string::npos)
        return 0;
    const unsigned long ulMs = std::strtoul(message.m_strBody.c_str() + nDuration + 9, nullptr, 10);
    return ulMs <= 60000 ? static_cast<unsigned>(ulMs) : 0;
}
} // namespace

void CLeg::takeInfo(uint64_t ullRequest, const CSipMessage& message)
{
    const std::string strDigit = signalOf(message);
    if (strDigit.empty() && !message.m_strBody.empty())
    {
        m_pDialog->reply(ullRequest, 415, {{{"Accept", "application/dtmf-relay, application/dtmf"}}, {}, {}});
        return;
    }
    m_pDialog->reply(ullRequest, 200);
    if (!strDigit.empty() && isAnswered())
        digit(strDigit, durationOf(message));
}

bool CLeg::transfer(const std::string& strUri, const std::string& strReplaces)
{
    if (!isAnswered() || m_eState == ELegState::Answering || m_ullRefer != 0)
        return false;
    std::string strReferTo = "<" + strUri;
    if (!strReplaces.empty())
    {
        strReferTo += strUri.find('?') == std::string::npos ? "?Replaces=" : "&Replaces=";
        for (const char c : strReplaces)
        {
            static constexpr char s_szHex[] = "0123456789ABCDEF";
            const auto uc = static_cast<unsigned char>(c);
            if (std::isalnum(uc) || c == '-' || c == '.' || c == '_')
                strReferTo += c;
            else
                strReferTo += std::string("%") + s_szHex[uc >> 4U] + s_szHex[uc & 15U];
        }
    }
    m_ullRefer = m_pDialog->request(
        "REFER", {{{"Refer-To", strReferTo + ">"}, {"Referred-By", "<" + m_pDialog->localContact() + ">"}}, {}, {}});
    return m_ullRefer != 0;
}

void CLeg::takeNotify(uint64_t ullRequest, const CSipMessage& message)
{
    if (m_ullRefer == 0)
    {
        m_pDialog->reply(ullRequest, 481);
        return;
    }
    m_pDialog->reply(ullRequest, 200);
    int nStatus = 0;
    if (std::sscanf(message.m_strBody.c_str(), "SIP/2.0 %3d", &nStatus) != 1 || nStatus < 100)
        nStatus = message.m_strSubscriptionState == "terminated" ? 487 : 0;
    if (nStatus >= 200 || (nStatus > 0 && message.m_strSubscriptionState == "terminated"))
        transferred(nStatus);
}

void CLeg::transferred(int nStatus)
{
    m_ullRefer = 0;
    m_services.emit(*this, {{"event", "transferred"}, {"status", nStatus}});
    if (nStatus >= 200 && nStatus < 300)
        hangUp("transferred", nStatus);
}

bool CLeg::replaceDialog(std::unique_ptr<CSipDialog> pDialog, uint64_t ullInvite, const CSipMessage& message)
{
    std::string strError;
    std::optional<std::string> strAnswer;
    if (!isAnswered() || m_eState == ELegState::Answering ||
        !(strAnswer = m_negotiation.answerOffer(message.m_strBody, strError)))
    {
        pDialog->reply(ullInvite, isAnswered() ? 488 : 481);
        return false;
    }
    m_pDialog->setHandler(nullptr);
    m_pDialog->request("BYE");
    m_services.part(std::move(m_pDialog));
    m_pDialog = std::move(pDialog);
    m_pDialog->setHandler(this);
    m_ullInvite = ullInvite;
    m_strFrom = message.m_strFrom;
    m_bCaller = false;
    m_strSipCallID = message.m_strCallID;
    m_strRemoteTag = message.m_strFromTag;
    m_bPeerUpdates = message.m_bUpdateAllowed;
    CSipContent content = withSdp(*strAnswer);
    const SipHeaders vTimer = sessionAnswer(message);
    content.m_vHeaders.insert(content.m_vHeaders.end(), vTimer.begin(), vTimer.end());
    enter(ELegState::Reoffered);
    updateMedia();
    m_pDialog->reply(ullInvite, 200, content);
    return true;
}
