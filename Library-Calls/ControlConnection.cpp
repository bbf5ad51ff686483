// The connection to zelmedia-sip: made, lost, made again, with all that is known of the calls; and what comes over it.
#include "ZelCallServicesImpl.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace
{
constexpr std::chrono::milliseconds SHORTEST_PAUSE(50);
constexpr std::chrono::milliseconds LONGEST_PAUSE(2000);
constexpr std::chrono::seconds HELLO_LIMIT(30);

std::string pathOf(const std::string& strSocket)
{
    static const char s_szInstalled[] = "/run/zelmedia/sip.sock";
    if (!strSocket.empty())
        return strSocket;
    return ::access(s_szInstalled, F_OK) == 0 ? s_szInstalled : "/tmp/zelmedia-sip.sock";
}

bool isOK(const nlohmann::json& answer)
{
    const auto it = answer.find("ok");
    return it != answer.end() && it->is_boolean() && it->get<bool>();
}

struct CRefusal
{
    explicit CRefusal(const nlohmann::json& answer)
    {
        const auto it = answer.find("error");
        if (it != answer.end())
        {
            m_status = statusOf(textOf(*it, "code"));
            m_strText = textOf(*it, "text");
        }
    }

    CCSTATUS m_status = CCS_FAILED;
    std::string m_strText;
};

CallbackFunction requestFailed(unsigned long ulRequest, CCSTATUS status, const std::string& strWhy)
{
    return
        [ulRequest, status, strWhy](CZelCallHandler& handler) { handler.OnRequestFailed(ulRequest, status, strWhy); };
}
} // namespace

void CZelCallServicesImpl::tryConnect()
{
    std::string strError;
    if (m_client.connect(pathOf(m_strSocket), strError))
    {
        m_mapPendingByID[0] = CPending{EPending::Hello};
        m_mapPendingByID[0].m_due = Clock::now() + HELLO_LIMIT;
        return;
    }
    m_pause = std::clamp(m_pause * 2, SHORTEST_PAUSE, LONGEST_PAUSE);
    m_nextTry = Clock::now() + m_pause;
}

void CZelCallServicesImpl::readMessages()
{
    std::string strError;
    try
    {
        if (!m_client.onReady([this](const nlohmann::json& message) { m_vMessages.push_back(message); }, strError))
            connectionLost(strError);
    }
    catch (const std::exception& exception) // no memory; what was lost by it comes again with the next connection
    {
        connectionLost(exception.what());
    }
}

void CZelCallServicesImpl::connectionLost(const std::string& strWhy)
{
    m_client.close();
    m_bRegistered = false;
    m_strLost = strWhy;
    m_pause = std::clamp(m_pause * 2, SHORTEST_PAUSE, LONGEST_PAUSE);
    m_nextTry = Clock::now() + m_pause;
}

void CZelCallServicesImpl::tellLoss(Callbacks& vCallbacks)
{
    if (m_bRestored)
        vCallbacks.emplace_back([](CZelCallHandler& handler) { handler.OnControlLost(); });
    const std::string strWhy = "the connection was lost before the answer: " + *m_strLost;
    for (const auto& [ullID, pending] : m_mapPendingByID)
    {
        CCallLeg* pLeg = find(pending.m_key);
        if (pending.m_ePending == EPending::Command && pending.m_command != ECallCommand::HangUp)
        {
            if (pLeg != nullptr)
                pLeg->refused(pending.m_command);
            vCallbacks.push_back(requestFailed(pending.m_ulRequest, CCS_NOTCONNECTED, strWhy));
        }
        else if (pending.m_ePending == EPending::Claim)
        {
            vCallbacks.push_back(requestFailed(pending.m_ulRequest, CCS_NOTCONNECTED, strWhy));
        }
        if (pending.m_pDialling)
            pending.m_pDialling->m_bDone = true;
    }
    m_dialled.notify_all();
    m_mapPendingByID.clear();
    m_mapTakenBack.clear();
    m_bRestored = false;
    m_strLost.reset();
}

void CZelCallServicesImpl::checkOverdue()
{
    const auto itOverdue = std::find_if(m_mapPendingByID.begin(), m_mapPendingByID.end(),
                                        [](const auto& item) { return item.second.m_due <= Clock::now(); });
    if (itOverdue != m_mapPendingByID.end() && m_client.isConnected())
        connectionLost("zelmedia-sip does not answer");
}

bool CZelCallServicesImpl::handleNext(Callbacks& vCallbacks)
{
    try
    {
        if (!m_vMessages.empty())
        {
            const nlohmann::json message = std::move(m_vMessages.front());
            m_vMessages.pop_front();
            handle(message, vCallbacks);
            return true;
        }
        if (m_strLost)
        {
            tellLoss(vCallbacks);
            return true;
        }
    }
    catch (const std::exception& exception) // no memory, as above
    {
        if (m_client.isConnected())
            connectionLost(exception.what());
    }
    return !vCallbacks.empty();
}

void CZelCallServicesImpl::handle(const nlohmann::json& message, Callbacks& vCallbacks)
{
    if (message.contains("event"))
    {
        handleEvent(message, vCallbacks);
    }
    else if (message.contains("hello"))
    {
        handleHello(message);
    }
    else if (message.contains("ok"))
    {
        const auto it = m_mapPendingByID.find(numberOf(message, "id"));
        if (it == m_mapPendingByID.end() || it->second.m_ePending == EPending::Hello)
            return;
        const CPending pending = it->second;
        m_mapPendingByID.erase(it);
        handleAnswer(pending, message, vCallbacks);
    }
}

void CZelCallServicesImpl::handleHello(const nlohmann::json& hello)
{
    if (!m_client.isConnected() || m_mapPendingByID.erase(0) == 0)
        return;
    if (textOf(hello, "hello") != "zelmedia-sip")
        connectionLost("it is not zelmedia-sip that listens there");
    else
        send({{"request", "register"}, {"route", m_strRoute}, {"instance", m_strInstance}},
             CPending{EPending::Register}, nullptr);
}

void CZelCallServicesImpl::handleAnswer(const CPending& pending, const nlohmann::json& answer, Callbacks& vCallbacks)
{
    switch (pending.m_ePending)
    {
    case EPending::Register: onRegistered(answer, vCallbacks); break;
    case EPending::Command: onCommandAnswered(pending, answer, vCallbacks); break;
    case EPending::Dial: onDialAnswered(pending, answer); break;
    case EPending::Claim: onClaimAnswered(pending, answer, vCallbacks); break;
    case EPending::Events: onEventsAnswered(pending, answer, vCallbacks); break;
    case EPending::TakeBack:
        if (const auto it = m_mapTakenBack.find(pending.m_key); it != m_mapTakenBack.end())
            it->second = isOK(answer);
        break;
    case EPending::Hello:
    case EPending::Forgotten: break;
    }
}

void CZelCallServicesImpl::onRegistered(const nlohmann::json& answer, Callbacks& vCallbacks)
{
    if (!m_client.isConnected())
        return;
    if (!isOK(answer))
    {
        connectionLost("zelmedia-sip refused: " + CRefusal(answer).m_strText);
        return;
    }
    m_bRegistered = true;
    m_pause = std::chrono::milliseconds(0);
    for (auto& [key, leg] : m_mapLegs)
    {
        m_mapTakenBack[key] = false;
        send({{"request", "claim"}, {"call", key.first}, {"leg", key.second}}, {EPending::TakeBack, key}, nullptr);
        askEvents(key, leg);
    }
    tellRestored(vCallbacks);
}

void CZelCallServicesImpl::askEvents(const CLegKey& key, CCallLeg& leg)
{
    leg.awaitReplay();
    send({{"request", "events"}, {"call", key.first}, {"leg", key.second}, {"after", leg.last()}},
         {EPending::Events, key}, nullptr);
}

void CZelCallServicesImpl::onEventsAnswered(const CPending& pending, const nlohmann::json& answer,
                                            Callbacks& vCallbacks)
{
    const auto itTakenBack = m_mapTakenBack.find(pending.m_key);
    const bool bLost = itTakenBack != m_mapTakenBack.end() && !itTakenBack->second;
    const bool bBack = itTakenBack != m_mapTakenBack.end() && itTakenBack->second;
    if (itTakenBack != m_mapTakenBack.end())
        m_mapTakenBack.erase(itTakenBack);
    if (CCallLeg* pLeg = find(pending.m_key))
    {
        const auto itEvents = answer.find("events");
        pLeg->replayed(itEvents == answer.end() ? nlohmann::json() : *itEvents, vCallbacks);
        if (bLost)
            pLeg->end(CCER_CONTROLLOST, vCallbacks);
        if (bBack && pLeg->isEnding())
            hangUpAgain(pending.m_key, *pLeg);
        removeIfEnded(pending.m_key);
    }
    tellRestored(vCallbacks);
}

void CZelCallServicesImpl::hangUpAgain(const CLegKey& key, const CCallLeg& leg)
{
    CPending pending{EPending::Command, key, ECallCommand::HangUp};
    pending.m_ulRequest = leg.endRequest();
    send({{"request", "hangup"}, {"call", key.first}, {"leg", key.second}}, std::move(pending), nullptr);
}

void CZelCallServicesImpl::tellRestored(Callbacks& vCallbacks)
{
    if (m_bRegistered && !m_bRestored && m_mapTakenBack.empty())
    {
        m_bRestored = true;
        vCallbacks.emplace_back([](CZelCallHandler& handler) { handler.OnControlRestored(); });
    }
}

void CZelCallServicesImpl::onCommandAnswered(const CPending& pending, const nlohmann::json& answer,
                                             Callbacks& vCallbacks)
{
    CCallLeg* pLeg = find(pending.m_key);
    if (isOK(answer))
    {
        if (pLeg != nullptr)
            pLeg->accepted(pending.m_command);
        return;
    }
    const CRefusal refusal(answer);
    vCallbacks.push_back(requestFailed(pending.m_ulRequest, refusal.m_status, refusal.m_strText));
    if (pLeg == nullptr)
        return;
    pLeg->refused(pending.m_command);
    if (refusal.m_status != CCS_NOSUCHCALL || pending.m_bOtherLeg)
        return;
    if (pLeg->awaitsReplay())
    {
        m_mapTakenBack[pending.m_key] = false; // its end may be among the events
    }
    else
    {
        pLeg->end(CCER_CONTROLLOST, vCallbacks);
        removeIfEnded(pending.m_key);
    }
}

void CZelCallServicesImpl::onDialAnswered(const CPending& pending, const nlohmann::json& answer)
{
    const std::optional<CLegKey> key = legKeyOf(answer);
    const bool bOK = isOK(answer) && key;
    CDialling& dialling = *pending.m_pDialling;
    if (dialling.m_bDone)
    {
        // Nobody waits for this leg any more.
        if (bOK)
            send({{"request", "hangup"}, {"call", key->first}, {"leg", key->second}}, CPending{EPending::Forgotten},
                 nullptr);
        return;
    }
    dialling.m_status = bOK ? CCS_OK : isOK(answer) ? CCS_FAILED : CRefusal(answer).m_status;
    if (bOK)
    {
        dialling.m_call.m_strCallID = key->first;
        dialling.m_call.m_ulLegID = key->second;
        m_mapLegs.try_emplace(*key, dialling.m_call, 0);
    }
    dialling.m_bDone = true;
    m_dialled.notify_all();
}

void CZelCallServicesImpl::onClaimAnswered(const CPending& pending, const nlohmann::json& answer, Callbacks& vCallbacks)
{
    const auto itCalls = answer.find("calls");
    if (!isOK(answer) || itCalls == answer.end() || !itCalls->is_array() || itCalls->empty())
    {
        const CRefusal refusal(answer);
        vCallbacks.push_back(isOK(answer) ? requestFailed(pending.m_ulRequest, CCS_NOSUCHCALL, "it has no leg")
                                          : requestFailed(pending.m_ulRequest, refusal.m_status, refusal.m_strText));
        return;
    }
    for (const nlohmann::json& object : *itCalls)
    {
        const std::optional<CLegKey> key = legKeyOf(object);
        if (!key || textOf(object, "state") == "ended")
            continue;
        const auto added = m_mapLegs.try_emplace(*key, infoOf(object, *key), numberOf(object, "last"));
        if (added.second)
            vCallbacks.emplace_back(
                [info = added.first->second.info()](CZelCallHandler& handler) { handler.OnCallClaimed(info); });
    }
}

void CZelCallServicesImpl::handleEvent(const nlohmann::json& event, Callbacks& vCallbacks)
{
    const std::optional<CLegKey> key = legKeyOf(event);
    if (!key)
        return;
    CCallLeg* pLeg = find(*key);
    if (pLeg == nullptr)
    {
        if (textOf(event, "event") != "offered")
            return;
        CZelCallInfo info = infoOf(event, *key);
        if (info.m_eState != CCCS_RINGING)
            info.m_eState = CCCS_OFFERED;
        m_mapLegs.try_emplace(*key, info, numberOf(event, "number"));
        vCallbacks.emplace_back([info](CZelCallHandler& handler) { handler.OnCallOffered(info); });
        return;
    }
    if (!pLeg->take(event, vCallbacks))
        askEvents(*key, *pLeg);
    removeIfEnded(*key);
}

void CZelCallServicesImpl::removeIfEnded(const CLegKey& key)
{
    const CCallLeg* pLeg = find(key);
    if (pLeg != nullptr && pLeg->hasEnded())
        m_mapLegs.erase(key);
}
