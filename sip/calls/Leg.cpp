// A leg of a call: how it begins and ends, and what comes in.
#include "Leg.h"

#include "LegText.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <strings.h>

using Json = nlohmann::ordered_json;
using std::chrono::seconds;

namespace
{
constexpr seconds s_transactionLimit(33); // 64 * T1, and a little
} // namespace

CLeg::CLeg(CLegServices& services, CLegName name, CNegotiationSettings negotiation)
    : m_services(services), m_name(std::move(name)), m_negotiation(std::move(negotiation)), m_timer(services.loop()),
      m_retryTimer(services.loop()), m_sessionTimer(
                                         services.loop(), [this] { refreshSession(); }, [this] { hangUp("timer"); }),
      m_collector(services.loop(), [this](const std::string& strDigits, const char* pWhy) {
          m_services.emit(*this, {{"event", "digits"}, {"digits", strDigits}, {"why", pWhy}});
      })
{
}

CLeg::~CLeg()
{
    if (m_pDialog)
        m_pDialog->setHandler(nullptr);
}

void CLeg::begin(std::unique_ptr<CSipDialog> pDialog, uint64_t ullInvite, const CSipMessage& message)
{
    m_pDialog = std::move(pDialog);
    m_pDialog->setHandler(this);
    m_ullInvite = ullInvite;
    m_strFrom = message.m_strFrom;
    m_strTo = message.m_strTo;
    m_strNumber = userOf(message.m_strRequestUri);
    m_strSource = message.m_strSource;
    m_strSipCallID = message.m_strCallID;
    m_strRemoteTag = message.m_strFromTag;
    m_mapHeaders = message.m_mapHeaders;
    m_bReliable = message.m_bReliableSupported || message.m_bReliableRequired;
    m_bPeerUpdates = message.m_bUpdateAllowed;
    if (!message.m_strUnsupported.empty())
        refuse(420, "failed", {{"Unsupported", message.m_strUnsupported}});
    else if (message.m_sessionExpires && message.m_sessionExpires->m_uSeconds < m_services.policy().m_uMinimumExpires)
        refuse(422, "failed", {{"Min-SE", std::to_string(m_services.policy().m_uMinimumExpires)}});
    else if (!message.m_strBody.empty() && !isSdp(message))
        refuse(415, "failed", {{"Accept", "application/sdp"}});
    else
    {
        if (isSdp(message))
            m_strOffer = message.m_strBody;
        m_vOurHeaders = sessionAnswer(message);
        prepareMedia();
    }
}

void CLeg::dial(std::unique_ptr<CSipDialog> pDialog, const std::string& strUri, const std::string& strFrom,
                const SipHeaders& vHeaders)
{
    m_bCaller = true;
    m_pDialog = std::move(pDialog);
    m_pDialog->setHandler(this);
    m_strFrom = strFrom;
    m_strTo = strUri;
    m_strTarget = strUri;
    m_strNumber = userOf(strUri);
    m_vOurHeaders = vHeaders;
    prepareMedia();
}

bool CLeg::take(const CLegEvent& event)
{
    static constexpr std::array<Handler, 12> handlers = {&CLeg::inPreparing,  &CLeg::inOffered,   &CLeg::inRinging,
                                                         &CLeg::inAnswering,  &CLeg::inDialing,   &CLeg::inAnswered,
                                                         &CLeg::inReoffering, &CLeg::inReoffered, &CLeg::inHanging,
                                                         &CLeg::inCancelling, &CLeg::inEnding,    &CLeg::inEnded};
    const std::shared_ptr<CLeg> pKeep = shared_from_this();
    return (this->*handlers[static_cast<size_t>(m_eState)])(event);
}

bool CLeg::hangUp(const std::string& strReason, int nStatus)
{
    CLegEvent event = {ELegEvent::HangUp};
    event.m_strText = strReason;
    event.m_nStatus = nStatus;
    return take(event);
}

void CLeg::enter(ELegState eState)
{
    m_timer.stop();
    m_eState = eState;
    const auto expire = [this] { take({ELegEvent::TimeOut}); };
    switch (eState)
    {
    case ELegState::Preparing: m_timer.start(seconds(5), expire); break;
    case ELegState::Offered:
    case ELegState::Ringing:
    case ELegState::Dialing: m_timer.start(seconds(m_services.policy().m_uRingSeconds), expire); break;
    case ELegState::Reoffering:
    case ELegState::Hanging:
    case ELegState::Cancelling:
    case ELegState::Ending: m_timer.start(s_transactionLimit, expire); break;
    default: break;
    }
    m_services.changed(*this);
}

bool CLeg::isAnswered() const
{
    return m_eState == ELegState::Answering || m_eState == ELegState::Answered || m_eState == ELegState::Reoffering ||
           m_eState == ELegState::Reoffered;
}

bool CLeg::isDialog(const CSipReplaces& replaces) const
{
    if (!m_pDialog || replaces.m_strCallID != m_strSipCallID)
        return false;
    const CSipSavedDialog saved = m_pDialog->save();
    return saved.m_strLocal.find(";tag=" + replaces.m_strToTag) != std::string::npos &&
           saved.m_strRemote.find(";tag=" + replaces.m_strFromTag) != std::string::npos;
}

void CLeg::tellEnd(const std::string& strReason, int nStatus)
{
    if (m_bEndTold)
        return;
    m_collector.stop();
    m_bEndTold = true;
    m_sessionTimer.stop();
    m_retryTimer.stop();
    m_services.emit(*this, {{"event", "ended"}, {"reason", strReason}, {"status", nStatus}});
    endMedia(strReason);
    m_services.ended(*this);
}

void CLeg::finish(const std::string& strReason, int nStatus)
{
    tellEnd(strReason, nStatus);
    enter(ELegState::Ended);
    m_services.finished(*this);
}

void CLeg::refuse(int nStatus, const std::string& strReason, const SipHeaders& vHeaders)
{
    CSipContent content;
    content.m_vHeaders = vHeaders;
    m_pDialog->reply(m_ullInvite, nStatus, content);
    finish(strReason, nStatus);
}

void CLeg::sendBye(const std::string& strReason, int nStatus)
{
    tellEnd(strReason, nStatus);
    CSipContent content;
    if (strReason != "local")
        content.m_vHeaders = {
            {"Reason", "SIP;cause=" + std::to_string(nStatus == 0 ? 200 : nStatus) + ";text=\"" + strReason + "\""}};
    m_ullInvite = m_pDialog->request("BYE", content);
    if (m_ullInvite == 0)
        finish(strReason, nStatus);
    else
        enter(ELegState::Ending);
}

void CLeg::onRequest(uint64_t ullRequest, const CSipMessage& message)
{
    CLegEvent event = {ELegEvent::Bye, &message, ullRequest};
    const std::string& strMethod = message.m_strMethod;
    if (strMethod == "BYE")
    {
        m_pDialog->reply(ullRequest, 200);
        take(event);
    }
    else if (!message.m_strUnsupported.empty())
        m_pDialog->reply(ullRequest, 420, {{{"Unsupported", message.m_strUnsupported}}, {}, {}});
    else if (strMethod == "INVITE")
    {
        event.m_eEvent = ELegEvent::Offer;
        if (!take(event))
            m_pDialog->reply(ullRequest, 500, {{{"Retry-After", "5"}}, {}, {}});
    }
    else if (strMethod == "UPDATE")
        takeUpdate(ullRequest, message);
    else if (strMethod == "INFO")
        takeInfo(ullRequest, message);
    else if (strMethod == "NOTIFY")
        takeNotify(ullRequest, message);
    else if (strMethod == "OPTIONS")
        m_pDialog->reply(ullRequest, 200, sessionContent());
    else if (strMethod == "REFER")
        m_pDialog->reply(ullRequest, 603); // nobody is moved but by its application
    else
        m_pDialog->reply(ullRequest, 501);
}

void CLeg::onAck(uint64_t ullRequest, const CSipMessage& message)
{
    if (isOurRequest(ullRequest))
        take({ELegEvent::Ack, &message, ullRequest});
}

void CLeg::onAckMissing(uint64_t ullRequest)
{
    if (isOurRequest(ullRequest))
        take({ELegEvent::AckMissing, nullptr, ullRequest});
}

void CLeg::onCancel(uint64_t ullRequest)
{
    m_pDialog->reply(ullRequest, 487);
    if (isOurRequest(ullRequest))
        take({ELegEvent::Cancelled, nullptr, ullRequest});
}

void CLeg::onPrack(uint64_t, const CSipMessage&) {}

void CLeg::onPrackMissing(uint64_t ullRequest)
{
    CLegEvent event = {ELegEvent::Reject};
    event.m_nStatus = 504;
    event.m_strText = "failed";
    if (isOurRequest(ullRequest))
        take(event);
}

void CLeg::onResponse(uint64_t ullRequest, const CSipMessage& message)
{
    const int nStatus = message.m_nStatus;
    if (ullRequest == m_ullRefer && nStatus >= 200)
    {
        if (nStatus >= 300)
            transferred(nStatus);
        return;
    }
    if (ullRequest == m_ullRefresh && nStatus >= 200)
    {
        m_ullRefresh = 0;
        if (nStatus < 300)
            startSessionTimer(message.m_sessionExpires, true);
        else if (nStatus == 481 || nStatus == 408)
            hangUp("failed", nStatus);
        return;
    }
    if (!isOurRequest(ullRequest))
        return;
    const ELegEvent eEvent =
        nStatus < 200 ? ELegEvent::Progress : (nStatus < 300 ? ELegEvent::Success : ELegEvent::Failure);
    CLegEvent event = {eEvent, &message, ullRequest};
    event.m_nStatus = nStatus;
    take(event);
}

Json CLeg::describe() const
{
    Json headers = Json::object();
    for (const auto& [strName, strValue] : m_mapHeaders)
        headers[strName] = strValue;
    const char* pState = m_bEndTold ? "ended" : stateName(m_eState);
    return {{"call", m_name.m_strCall},
            {"leg", m_name.m_uLeg},
            {"from", m_strFrom},
            {"to", m_strTo},
            {"sip_call_id", m_strSipCallID},
            {"headers", headers},
            {"state", m_bHeld && isAnswered() ? "held" : pState}};
}

const char* stateName(ELegState eState)
{
    switch (eState)
    {
    case ELegState::Preparing:
    case ELegState::Offered: return "offered";
    case ELegState::Ringing:
    case ELegState::Answering: return "ringing";
    case ELegState::Dialing: return "dialing";
    case ELegState::Answered:
    case ELegState::Reoffering:
    case ELegState::Reoffered: return "answered";
    default: return "ended";
    }
}
