// A leg of a call: what each state does with each event.
#include "Leg.h"

#include "LegText.h"

#include <spdlog/spdlog.h>

bool CLeg::inPreparing(const CLegEvent& event)
{
    switch (event.m_eEvent)
    {
    case ELegEvent::MediaReady:
        if (m_bCaller)
        {
            CSipContent content = sessionContent();
            content.m_vHeaders.insert(content.m_vHeaders.end(), m_vOurHeaders.begin(), m_vOurHeaders.end());
            content.m_strContentType = "application/sdp";
            content.m_strBody = m_negotiation.makeOffer();
            m_ullInvite = m_pDialog->invite(m_strTarget, content);
            if (m_ullInvite == 0)
                finish("failed", 400);
            else
                enter(ELegState::Dialing);
            return true;
        }
        if (m_strOffer)
        {
            std::string strError;
            const auto strAnswer = m_negotiation.answerOffer(*m_strOffer, strError);
            if (!strAnswer)
            {
                spdlog::info("call {} leg {}: offer refused: {}", m_name.m_strCall, m_name.m_uLeg, strError);
                refuse(488, "failed");
                return true;
            }
            m_strAnswer = *strAnswer;
        }
        enter(ELegState::Offered);
        if (!m_services.offer(*this))
            refuse(m_services.policy().m_vRoutes.empty() ? 503 : 404, "failed");
        return true;
    case ELegEvent::MediaFailed:
    case ELegEvent::TimeOut:
        if (m_bCaller)
            finish("failed", 503);
        else
            refuse(503, "failed");
        return true;
    case ELegEvent::HangUp:
        if (m_bCaller)
            finish(event.m_strText, event.m_nStatus);
        else
            refuse(event.m_nStatus == 0 ? 503 : event.m_nStatus, event.m_strText);
        return true;
    case ELegEvent::Cancelled: finish("cancelled", 487); return true;
    default: return false;
    }
}

bool CLeg::inOffered(const CLegEvent& event)
{
    switch (event.m_eEvent)
    {
    case ELegEvent::Ring: return ring(event.m_bMedia);
    case ELegEvent::Answer: return answer();
    case ELegEvent::Reject: refuse(event.m_nStatus, event.m_strText.empty() ? "local" : event.m_strText); return true;
    case ELegEvent::Redirect: refuse(302, "local", {{"Contact", "<" + event.m_strText + ">"}}); return true;
    case ELegEvent::HangUp: refuse(event.m_nStatus == 0 ? 603 : event.m_nStatus, event.m_strText); return true;
    case ELegEvent::Cancelled: finish("cancelled", 487); return true;
    case ELegEvent::Bye:
        m_pDialog->reply(m_ullInvite, 487);
        finish("hangup", 0);
        return true;
    case ELegEvent::MediaFailed: refuse(503, event.m_strText); return true;
    case ELegEvent::TimeOut: refuse(480, "no-answer"); return true;
    default: return false;
    }
}

bool CLeg::inRinging(const CLegEvent& event)
{
    // The caller knows more, what may happen is the same; early media may follow a ringing tone.
    return inOffered(event);
}

bool CLeg::inAnswering(const CLegEvent& event)
{
    switch (event.m_eEvent)
    {
    case ELegEvent::Ack: acknowledged(event); return true;
    case ELegEvent::AckMissing: sendBye("failed", 408); return true;
    case ELegEvent::Bye: finish("hangup", 0); return true;
    case ELegEvent::MediaFailed:
    case ELegEvent::HangUp:
        // No BYE before the ACK.
        tellEnd(event.m_strText, event.m_nStatus);
        enter(ELegState::Hanging);
        return true;
    case ELegEvent::Hold:
    case ELegEvent::Resume: return hold(event.m_eEvent == ELegEvent::Hold);
    case ELegEvent::Retry: m_bOfferWanted = true; return true;
    default: return false;
    }
}

bool CLeg::inDialing(const CLegEvent& event)
{
    switch (event.m_eEvent)
    {
    case ELegEvent::Progress: progress(*event.m_pMessage); return true;
    case ELegEvent::Success: established(event); return true;
    case ELegEvent::Failure:
        if (!retryInvite(*event.m_pMessage) && !followRedirect(*event.m_pMessage))
            failed(*event.m_pMessage);
        return true;
    case ELegEvent::MediaFailed:
    case ELegEvent::HangUp:
    case ELegEvent::TimeOut:
        tellEnd(event.m_eEvent == ELegEvent::TimeOut ? "no-answer" : event.m_strText, event.m_nStatus);
        m_pDialog->cancel(m_ullInvite);
        enter(ELegState::Cancelling);
        return true;
    case ELegEvent::Bye: finish("hangup", 0); return true;
    default: return false;
    }
}

bool CLeg::inAnswered(const CLegEvent& event)
{
    switch (event.m_eEvent)
    {
    case ELegEvent::Bye: finish("hangup", 0); return true;
    case ELegEvent::MediaFailed:
    case ELegEvent::HangUp: sendBye(event.m_strText, event.m_nStatus); return true;
    case ELegEvent::Hold:
    case ELegEvent::Resume: return hold(event.m_eEvent == ELegEvent::Hold);
    case ELegEvent::Retry: return sendOffer();
    case ELegEvent::Offer: answerOffer(event); return true;
    default: return false;
    }
}

bool CLeg::inReoffering(const CLegEvent& event)
{
    switch (event.m_eEvent)
    {
    case ELegEvent::Success: return offerAnswered(event);
    case ELegEvent::Failure: offerFailed(event); return true;
    case ELegEvent::Progress: return true;
    case ELegEvent::Offer: m_pDialog->reply(event.m_ullRequest, 491); return true;
    case ELegEvent::Hold:
    case ELegEvent::Resume: return hold(event.m_eEvent == ELegEvent::Hold);
    case ELegEvent::Retry: m_bOfferWanted = true; return true;
    case ELegEvent::TimeOut: sendBye("failed", 408); return true;
    case ELegEvent::Bye:
    case ELegEvent::MediaFailed:
    case ELegEvent::HangUp: return inAnswered(event);
    default: return false;
    }
}

bool CLeg::inReoffered(const CLegEvent& event)
{
    switch (event.m_eEvent)
    {
    case ELegEvent::Ack: acknowledged(event); return true;
    case ELegEvent::AckMissing: sendBye("failed", 408); return true;
    case ELegEvent::Offer: return false; // 500 with Retry-After
    case ELegEvent::Hold:
    case ELegEvent::Resume: return hold(event.m_eEvent == ELegEvent::Hold);
    case ELegEvent::Retry: m_bOfferWanted = true; return true;
    case ELegEvent::Cancelled: return true; // it was answered before
    case ELegEvent::Bye:
    case ELegEvent::MediaFailed:
    case ELegEvent::HangUp: return inAnswered(event);
    default: return false;
    }
}

bool CLeg::inHanging(const CLegEvent& event)
{
    switch (event.m_eEvent)
    {
    case ELegEvent::Ack:
    case ELegEvent::AckMissing:
    case ELegEvent::TimeOut: sendBye("local"); return true;
    case ELegEvent::Bye: finish("hangup", 0); return true;
    default: return false;
    }
}

bool CLeg::inCancelling(const CLegEvent& event)
{
    switch (event.m_eEvent)
    {
    case ELegEvent::Success:
        // The answer has crossed the CANCEL.
        m_pDialog->ack(event.m_ullRequest);
        sendBye("local");
        return true;
    case ELegEvent::Bye:
    case ELegEvent::Failure:
    case ELegEvent::TimeOut: finish("local", 487); return true;
    default: return false;
    }
}

bool CLeg::inEnding(const CLegEvent& event)
{
    switch (event.m_eEvent)
    {
    case ELegEvent::Success:
    case ELegEvent::Failure:
    case ELegEvent::TimeOut:
    case ELegEvent::Bye: finish("local", 0); return true;
    default: return false;
    }
}

bool CLeg::inEnded(const CLegEvent&)
{
    return false;
}
