// A leg of a call: answering, dialing, offers within the dialog, session timers.
#include "Leg.h"

#include "LegText.h"

#include <spdlog/spdlog.h>

#include <chrono>
#include <random>
#include <strings.h>

namespace
{
constexpr char s_szAllow[] = "INVITE, ACK, CANCEL, BYE, OPTIONS, PRACK, UPDATE, INFO, REFER, NOTIFY";
constexpr unsigned s_uMaxRedirects = 5;

std::chrono::milliseconds randomDelay(int nFromMs, int nToMs)
{
    static std::mt19937 generator{std::random_device{}()};
    return std::chrono::milliseconds(std::uniform_int_distribution<int>(nFromMs / 10, nToMs / 10)(generator) * 10);
}
} // namespace

CSipContent CLeg::withSdp(const std::string& strSdp) const
{
    CSipContent content;
    content.m_vHeaders = {{"Allow", s_szAllow}, {"Supported", "timer, 100rel, replaces"}};
    if (!strSdp.empty())
    {
        content.m_strContentType = "application/sdp";
        content.m_strBody = strSdp;
    }
    return content;
}

CSipContent CLeg::sessionContent() const
{
    CSipContent content = withSdp("");
    const unsigned uMinimum = std::max(m_services.policy().m_uMinimumExpires, m_uMinimumExpires);
    const unsigned uRunning = m_sessionTimer.seconds();
    const unsigned uExpires = std::max(uRunning > 0 ? uRunning : m_services.policy().m_uSessionExpires, uMinimum);
    if (m_services.policy().m_uSessionExpires > 0)
    {
        const char* pRefresher =
            uRunning == 0 ? "" : (m_sessionTimer.weRefresh() ? ";refresher=uac" : ";refresher=uas");
        content.m_vHeaders.emplace_back("Session-Expires", std::to_string(uExpires) + pRefresher);
        content.m_vHeaders.emplace_back("Min-SE", std::to_string(uMinimum));
    }
    return content;
}

// The peer has asked: what our 2xx says, and the timer that follows from it.
SipHeaders CLeg::sessionAnswer(const CSipMessage& message)
{
    const unsigned uOurs = m_services.policy().m_uSessionExpires;
    if (!message.m_bTimerSupported || (uOurs == 0 && !message.m_sessionExpires))
    {
        m_sessionTimer.start(0, false);
        return {};
    }
    unsigned uExpires = message.m_sessionExpires ? message.m_sessionExpires->m_uSeconds : uOurs;
    uExpires = std::max(uOurs > 0 ? std::min(uExpires, uOurs) : uExpires,
                        std::max(message.m_uMinimumExpires, m_services.policy().m_uMinimumExpires));
    const bool bWeRefresh = message.m_sessionExpires && message.m_sessionExpires->m_strRefresher == "uas";
    m_sessionTimer.start(uExpires, bWeRefresh);
    SipHeaders vHeaders = {
        {"Session-Expires", std::to_string(uExpires) + (bWeRefresh ? ";refresher=uas" : ";refresher=uac")}};
    if (!bWeRefresh)
        vHeaders.emplace_back("Require", "timer");
    return vHeaders;
}

// We have asked: whoever the peer's 2xx names.
void CLeg::startSessionTimer(const std::optional<CSipSessionExpires>& expires, bool bWeAsked)
{
    if (!expires)
        m_sessionTimer.start(0, false);
    else
        m_sessionTimer.start(expires->m_uSeconds, (expires->m_strRefresher == "uas") != bWeAsked);
}

void CLeg::refreshSession()
{
    if (m_eState != ELegState::Answered || m_ullRefresh != 0)
        return;
    if (m_bPeerUpdates)
        m_ullRefresh = m_pDialog->request("UPDATE", sessionContent());
    else
        sendOffer();
}

bool CLeg::ring(bool bMedia)
{
    const bool bAnswer = bMedia && m_strOffer.has_value();
    const CSipContent content = withSdp(bAnswer ? m_strAnswer : "");
    const int nStatus = bMedia ? 183 : 180;
    const bool bReliable = m_bReliable && m_pDialog->replyReliably(m_ullInvite, nStatus, content);
    if (!bReliable)
        m_pDialog->reply(m_ullInvite, nStatus, content);
    m_bAnswerSent = m_bAnswerSent || (bReliable && bAnswer);
    if (bAnswer)
        updateMedia();
    enter(ELegState::Ringing);
    return true;
}

bool CLeg::answer()
{
    m_bLateOffer = !m_strOffer;
    CSipContent content = withSdp(m_strOffer ? (m_bAnswerSent ? "" : m_strAnswer) : m_negotiation.makeOffer());
    content.m_vHeaders.insert(content.m_vHeaders.end(), m_vOurHeaders.begin(), m_vOurHeaders.end());
    enter(ELegState::Answering);
    if (!m_bLateOffer)
        updateMedia();
    m_pDialog->reply(m_ullInvite, 200, content);
    return true;
}

void CLeg::acknowledged(const CLegEvent& event)
{
    const bool bNew = m_eState == ELegState::Answering;
    m_ullInvite = 0;
    if (m_bLateOffer)
    {
        m_bLateOffer = false;
        std::string strError;
        if (!isSdp(*event.m_pMessage) || !m_negotiation.takeAnswer(event.m_pMessage->m_strBody, false, strError))
        {
            m_negotiation.forgetOffer();
            if (bNew)
            {
                sendBye("failed", 488);
                return;
            }
        }
        updateMedia();
    }
    enter(ELegState::Answered);
    if (bNew)
        m_services.emit(*this, {{"event", "answered"}});
    tellHeld(m_negotiation.isHeldByPeer(), false);
    if (m_bOfferWanted)
        sendOffer();
}

void CLeg::progress(const CSipMessage& message)
{
    if (m_strSipCallID.empty())
        m_strSipCallID = message.m_strCallID;
    if (message.m_nStatus == 100)
        return;
    std::string strError;
    if (isSdp(message) && m_negotiation.takeAnswer(message.m_strBody, true, strError))
    {
        m_bEarlyAnswer = true;
        updateMedia();
    }
    m_services.emit(*this, {{"event", "progress"}, {"status", message.m_nStatus}});
}

void CLeg::established(const CLegEvent& event)
{
    const CSipMessage& message = *event.m_pMessage;
    m_strSipCallID = message.m_strCallID;
    m_strRemoteTag = message.m_strToTag;
    m_bPeerUpdates = message.m_bUpdateAllowed;
    m_pDialog->ack(event.m_ullRequest);
    std::string strError = "no answer";
    const bool bAgreed = isSdp(message) ? m_negotiation.takeAnswer(message.m_strBody, false, strError) : m_bEarlyAnswer;
    m_ullInvite = 0;
    if (!bAgreed)
    {
        spdlog::info("call {} leg {}: answer refused: {}", m_name.m_strCall, m_name.m_uLeg, strError);
        sendBye("failed", 488);
        return;
    }
    m_negotiation.forgetOffer();
    startSessionTimer(message.m_sessionExpires, true);
    enter(ELegState::Answered);
    updateMedia();
    m_services.emit(*this, {{"event", "answered"}});
    tellHeld(m_negotiation.isHeldByPeer(), false);
}

void CLeg::failed(const CSipMessage& message)
{
    finish(reasonOf(message.m_nStatus), message.m_nStatus);
}

bool CLeg::retryInvite(const CSipMessage& message)
{
    if (message.m_nStatus != 422 || message.m_uMinimumExpires <= m_uMinimumExpires)
        return false;
    m_uMinimumExpires = message.m_uMinimumExpires;
    m_negotiation.forgetOffer();
    return inPreparing({ELegEvent::MediaReady});
}

bool CLeg::followRedirect(const CSipMessage& message)
{
    if (message.m_nStatus < 300 || message.m_nStatus > 399 || message.m_vstrContacts.empty() ||
        ++m_uRedirects > s_uMaxRedirects)
        return false;
    const std::string& strUri = message.m_vstrContacts.front();
    if (!m_services.policy().dialRule(strUri))
    {
        spdlog::warn("call {} leg {}: a redirection to {} is against the rules", m_name.m_strCall, m_name.m_uLeg,
                     strUri);
        return false;
    }
    m_strTarget = strUri;
    m_negotiation.forgetOffer();
    return inPreparing({ELegEvent::MediaReady});
}

bool CLeg::hold(bool bHold)
{
    m_negotiation.setHold(bHold);
    if (m_eState != ELegState::Answered)
    {
        m_bOfferWanted = true;
        return true;
    }
    return sendOffer();
}

bool CLeg::sendOffer()
{
    m_bOfferWanted = false;
    CSipContent content = sessionContent();
    content.m_strContentType = "application/sdp";
    content.m_strBody = m_negotiation.makeOffer();
    m_ullInvite = m_pDialog->reinvite(content);
    if (m_ullInvite == 0)
    {
        m_negotiation.forgetOffer();
        return false;
    }
    enter(ELegState::Reoffering);
    return true;
}

bool CLeg::offerAnswered(const CLegEvent& event)
{
    m_pDialog->ack(event.m_ullRequest);
    m_ullInvite = 0;
    std::string strError;
    if (isSdp(*event.m_pMessage) && m_negotiation.takeAnswer(event.m_pMessage->m_strBody, false, strError))
        updateMedia();
    m_negotiation.forgetOffer();
    startSessionTimer(event.m_pMessage->m_sessionExpires, true);
    enter(ELegState::Answered);
    tellHeld(m_negotiation.isHeld() || m_negotiation.isHeldByPeer(), true);
    return !m_bOfferWanted || sendOffer();
}

void CLeg::offerFailed(const CLegEvent& event)
{
    const int nStatus = event.m_nStatus;
    m_negotiation.forgetOffer();
    m_ullInvite = 0;
    if (nStatus == 481 || nStatus == 408)
    {
        sendBye("failed", nStatus);
        return;
    }
    enter(ELegState::Answered);
    if (nStatus == 491)
        // Who made the Call-ID waits longer, so that the two do not meet again.
        m_retryTimer.start(m_bCaller ? randomDelay(2100, 4000) : randomDelay(0, 2000),
                           [this] { take({ELegEvent::Retry}); });
    else if (m_bOfferWanted)
        sendOffer();
    else
        m_negotiation.setHold(m_bHeld && !m_negotiation.isHeldByPeer());
}

void CLeg::answerOffer(const CLegEvent& event)
{
    const CSipMessage& message = *event.m_pMessage;
    m_retryTimer.stop(); // what we wanted is offered anew behind this
    std::string strError;
    std::string strSdp;
    if (!message.m_strBody.empty())
    {
        const auto strAnswer = isSdp(message) ? m_negotiation.answerOffer(message.m_strBody, strError) : std::nullopt;
        if (!strAnswer)
        {
            m_pDialog->reply(event.m_ullRequest, isSdp(message) ? 488 : 415);
            return;
        }
        strSdp = *strAnswer;
        updateMedia();
    }
    else
    {
        m_bLateOffer = true;
        strSdp = m_negotiation.makeOffer();
    }
    CSipContent content = withSdp(strSdp);
    const SipHeaders vTimer = sessionAnswer(message);
    content.m_vHeaders.insert(content.m_vHeaders.end(), vTimer.begin(), vTimer.end());
    m_ullInvite = event.m_ullRequest;
    enter(ELegState::Reoffered);
    m_pDialog->reply(event.m_ullRequest, 200, content);
}

void CLeg::takeUpdate(uint64_t ullRequest, const CSipMessage& message)
{
    const bool bOffer = isSdp(message);
    if (bOffer && (m_eState == ELegState::Reoffering || m_eState == ELegState::Dialing))
    {
        m_pDialog->reply(ullRequest, 491);
        return;
    }
    if (bOffer && (m_eState == ELegState::Preparing || m_bLateOffer))
    {
        m_pDialog->reply(ullRequest, 500, {{{"Retry-After", "3"}}, {}, {}});
        return;
    }
    std::string strError;
    const auto strAnswer = bOffer ? m_negotiation.answerOffer(message.m_strBody, strError) : std::nullopt;
    if (bOffer && !strAnswer)
    {
        m_pDialog->reply(ullRequest, 488);
        return;
    }
    CSipContent content = withSdp(strAnswer.value_or(""));
    if (isAnswered())
    {
        const SipHeaders vTimer = sessionAnswer(message);
        content.m_vHeaders.insert(content.m_vHeaders.end(), vTimer.begin(), vTimer.end());
    }
    m_pDialog->reply(ullRequest, 200, content);
    if (bOffer)
    {
        m_strAnswer = *strAnswer;
        if (isAnswered())
        {
            updateMedia();
            tellHeld(m_negotiation.isHeldByPeer(), false);
        }
    }
}

void CLeg::tellHeld(bool bHeld, bool bOurs)
{
    if (bHeld == m_bHeld || m_bEndTold)
        return;
    m_bHeld = bHeld;
    m_services.emit(*this, {{"event", "held"}, {"held", bHeld}, {"local", bOurs}});
    m_services.changed(*this);
}
