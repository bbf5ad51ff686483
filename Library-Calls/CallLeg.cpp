// One leg: its state, which commands it takes, and its events in the order of their numbers.
#include "CallLeg.h"

#include <cstring>
#include <utility>

namespace
{
struct CCommand
{
    const char* m_pName;
    const char* m_pStates; // a letter for each state that takes it
};

// o offered, r ringing, d dialing, g answering, a answered, h held
const CCommand s_commands[] = {
    {"ring", "or"},
    {"answer", "or"},
    {"reject", "or"},
    {"redirect", "or"},
    {"hangup", "ordgah"},
    {"hold", "ah"},
    {"resume", "ah"},
    {"transfer", "ah"},
    {"transfer_to", "ah"},
    {"bridge", "ah"},
    {"unbridge", "ah"},
    {"send_digits", "rdgah"},
    {"collect_digits", "rdgah"},
    {"record_call", "gah"},
    {"set", "ordgah"},
};
const char s_szLetters[] = "ordgah"; // in the order of the states

constexpr size_t MAX_WAITING = 4096; // events of a leg: a server that sends more without the one that is missing lies

bool isEnd(ECallCommand command)
{
    return command == ECallCommand::HangUp || command == ECallCommand::Reject || command == ECallCommand::Redirect;
}
} // namespace

const char* requestNameOf(ECallCommand command)
{
    return s_commands[static_cast<size_t>(command)].m_pName;
}

CCallLeg::CCallLeg(CZelCallInfo info, uint64_t ullLast)
    : m_info(std::move(info)), m_eState(stateOf(m_info.m_eState)), m_ullLast(ullLast)
{
}

CCallLeg::EState CCallLeg::stateOf(CC_CALL_STATE eState)
{
    switch (eState)
    {
    case CCCS_OFFERED: return EState::Offered;
    case CCCS_RINGING: return EState::Ringing;
    case CCCS_DIALING: return EState::Dialing;
    case CCCS_ANSWERED: return EState::Answered;
    case CCCS_HELD: return EState::Held;
    default: return EState::Ended;
    }
}

bool CCallLeg::allows(ECallCommand command) const
{
    return m_eState < EState::Ending && std::strchr(s_commands[static_cast<size_t>(command)].m_pStates,
                                                    s_szLetters[static_cast<size_t>(m_eState)]) != nullptr;
}

void CCallLeg::asked(ECallCommand command, unsigned long ulRequest)
{
    if (command == ECallCommand::Answer)
    {
        m_eState = EState::Answering;
    }
    else if (isEnd(command))
    {
        m_eState = EState::Ending;
        m_ulEndRequest = ulRequest;
    }
}

void CCallLeg::accepted(ECallCommand command)
{
    if (command == ECallCommand::Ring && m_eState == EState::Offered)
        moveTo(EState::Ringing);
    else if (command == ECallCommand::Ring && m_eState != EState::Ended && m_info.m_eState == CCCS_OFFERED)
        m_info.m_eState = CCCS_RINGING;
}

void CCallLeg::refused(ECallCommand command)
{
    const bool bAnswer = command == ECallCommand::Answer && m_eState == EState::Answering;
    const bool bEnd = isEnd(command) && m_eState == EState::Ending;
    if (bAnswer || bEnd)
        m_eState = stateOf(m_info.m_eState);
}

bool CCallLeg::take(const nlohmann::json& event, std::vector<CallbackFunction>& vCallbacks)
{
    const uint64_t ullNumber = numberOf(event, "number");
    if (ullNumber <= m_ullLast || hasEnded())
        return true;
    if (!m_bAwaitsReplay && ullNumber == m_ullLast + 1)
    {
        deliver(event, vCallbacks);
        return true;
    }
    if (m_mapWaiting.size() < MAX_WAITING)
        m_mapWaiting.emplace(ullNumber, event);
    return m_bAwaitsReplay;
}

void CCallLeg::replayed(const nlohmann::json& events, std::vector<CallbackFunction>& vCallbacks)
{
    m_bAwaitsReplay = false;
    if (events.is_array())
        for (const nlohmann::json& event : events)
            m_mapWaiting.emplace(numberOf(event, "number"), event);
    const auto mapEvents = std::exchange(m_mapWaiting, {});
    for (const auto& [ullNumber, event] : mapEvents)
        if (ullNumber > m_ullLast && !hasEnded())
            deliver(event, vCallbacks);
}

void CCallLeg::end(CC_END_REASON eReason, std::vector<CallbackFunction>& vCallbacks)
{
    if (!hasEnded())
        applyEnd({{"reason", CCENDREASONToString(eReason)}}, vCallbacks);
}

void CCallLeg::moveTo(EState eState)
{
    static const CC_CALL_STATE s_public[] = {CCCS_OFFERED,  CCCS_RINGING, CCCS_DIALING, CCCS_RINGING,
                                             CCCS_ANSWERED, CCCS_HELD,    CCCS_ENDED,   CCCS_ENDED};
    m_info.m_eState = s_public[static_cast<size_t>(eState)];
    if (m_eState != EState::Ending || eState == EState::Ended)
        m_eState = eState;
}

void CCallLeg::deliver(const nlohmann::json& event, std::vector<CallbackFunction>& vCallbacks)
{
    m_ullLast = numberOf(event, "number");
    apply(event, vCallbacks);
}

void CCallLeg::apply(const nlohmann::json& event, std::vector<CallbackFunction>& vCallbacks)
{
    const std::string strEvent = textOf(event, "event");
    if (strEvent == "ended")
    {
        applyEnd(event, vCallbacks);
    }
    else if (strEvent == "answered")
    {
        moveTo(EState::Answered);
        vCallbacks.emplace_back([info = m_info](CZelCallHandler& handler) { handler.OnCallAnswered(info); });
    }
    else if (strEvent == "held")
    {
        const bool bHeld = flagOf(event, "held");
        moveTo(bHeld ? EState::Held : EState::Answered);
        vCallbacks.emplace_back([info = m_info, bHeld](CZelCallHandler& handler) { handler.OnCallHeld(info, bHeld); });
    }
    else if (strEvent == "progress")
    {
        const int nStatus = statusCodeOf(event);
        vCallbacks.emplace_back(
            [info = m_info, nStatus](CZelCallHandler& handler) { handler.OnCallProgress(info, nStatus); });
    }
    else if (strEvent == "transferred")
    {
        const int nStatus = statusCodeOf(event);
        vCallbacks.emplace_back(
            [info = m_info, nStatus](CZelCallHandler& handler) { handler.OnCallTransferred(info, nStatus); });
    }
    else
    {
        applyMedia(strEvent, event, vCallbacks);
    }
}

void CCallLeg::applyEnd(const nlohmann::json& event, std::vector<CallbackFunction>& vCallbacks)
{
    moveTo(EState::Ended);
    const std::string strReason = textOf(event, "reason");
    const CC_END_REASON eReason =
        strReason == CCENDREASONToString(CCER_CONTROLLOST) ? CCER_CONTROLLOST : endReasonOf(strReason);
    vCallbacks.emplace_back([info = m_info, eReason, nStatus = statusCodeOf(event)](CZelCallHandler& handler) {
        handler.OnCallEnded(info, eReason, nStatus);
    });
}

void CCallLeg::applyMedia(const std::string& strEvent, const nlohmann::json& event,
                          std::vector<CallbackFunction>& vCallbacks) const
{
    if (strEvent == "digit")
    {
        const std::string strDigit = textOf(event, "digit");
        if (strDigit.size() == 1)
            vCallbacks.emplace_back(
                [info = m_info, cDigit = strDigit[0], ulMs = static_cast<unsigned long>(numberOf(event, "ms"))](
                    CZelCallHandler& handler) { handler.OnCallDigit(info, cDigit, ulMs); });
    }
    else if (strEvent == "digits")
    {
        vCallbacks.emplace_back([info = m_info, strDigits = textOf(event, "digits"),
                                 eWhy = digitsEndOf(textOf(event, "why"))](CZelCallHandler& handler) {
            handler.OnCallDigits(info, strDigits, eWhy);
        });
    }
    else if (strEvent == "speech")
    {
        vCallbacks.emplace_back([info = m_info, bBegins = flagOf(event, "begins")](CZelCallHandler& handler) {
            handler.OnCallSpeech(info, bBegins);
        });
    }
    else if (strEvent == "recorded")
    {
        vCallbacks.emplace_back([info = m_info, strFile = textOf(event, "file"), bOK = flagOf(event, "ok")](
                                    CZelCallHandler& handler) { handler.OnCallRecorded(info, strFile, bOK); });
    }
}
