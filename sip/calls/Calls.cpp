// All calls: legs by name, new ones from the network and from applications, their events with numbers.
#include "Calls.h"

#include "LegText.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <chrono>

using Json = nlohmann::ordered_json;
using std::chrono::seconds;

namespace
{
constexpr seconds s_keep(60);                    // those that are over
constexpr unsigned long s_ulReservedCSeq = 1000; // for requests behind the last journal entry

std::string base36(uint64_t ullValue)
{
    std::string strText;
    do
        strText.insert(strText.begin(), "0123456789abcdefghijklmnopqrstuvwxyz"[ullValue % 36]);
    while ((ullValue /= 36) > 0);
    return strText;
}
} // namespace

CCalls::CCalls(CLoop& loop, CPolicy policy, CSettings settings)
    : m_loop(loop), m_policy(std::move(policy)), m_settings(std::move(settings)),
      m_driver(loop, *this, m_settings.m_strDriverPath, "zelmedia-sip@" + m_policy.m_strNode),
      m_ullStart(static_cast<uint64_t>(
          std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
              .count()))
{
}

CCalls::~CCalls() = default;

bool CCalls::start(CSipStack& stack, CCallTakers& takers, std::string& strError)
{
    m_pStack = &stack;
    m_pTakers = &takers;
    if (!m_settings.m_strJournal.empty())
    {
        std::map<CLegName, CSipSavedDialog> mapLeft;
        m_pJournal = std::make_unique<CJournal>();
        if (!m_pJournal->open(m_settings.m_strJournal, mapLeft, strError))
            return false;
        endLeftDialogs(mapLeft);
    }
    m_driver.start();
    return true;
}

// Their applications and sessions do not know the process that has taken the place of theirs.
void CCalls::endLeftDialogs(const std::map<CLegName, CSipSavedDialog>& mapLeft)
{
    for (const auto& [name, left] : mapLeft)
    {
        CSipSavedDialog saved = left;
        saved.m_ulLocalCSeq += s_ulReservedCSeq;
        spdlog::info("call {} leg {}: of a former process, is ended", name.m_strCall, name.m_uLeg);
        auto pDialog = m_pStack->restoreDialog(saved);
        if (pDialog && pDialog->request("BYE", {{{"Reason", "SIP;cause=500;text=\"restart\""}}, {}, {}}) != 0)
            part(std::move(pDialog));
    }
}

void CCalls::setPolicy(CPolicy policy)
{
    m_policy = std::move(policy);
}

std::string CCalls::newCallID()
{
    return m_policy.m_strNode + "-" + base36(m_ullStart) + "-" + base36(++m_ullLastCall);
}

CNegotiationSettings CCalls::negotiationFor(const CTrunk* pTrunk) const
{
    CNegotiationSettings settings = m_policy.m_negotiation;
    if (pTrunk && pTrunk->m_eSrtp)
        settings.m_eSrtp = *pTrunk->m_eSrtp;
    if (settings.m_eSrtp == ESrtp::Allowed && !m_driver.abilities().contains("srtp"))
        settings.m_eSrtp = ESrtp::Off;
    std::erase_if(settings.m_vCodecs, [this](const CSdpCodec& codec) {
        std::string strName = codec.m_strName;
        std::transform(strName.begin(), strName.end(), strName.begin(),
                       [](unsigned char uc) { return static_cast<char>(std::tolower(uc)); });
        return !m_driver.abilities().contains(strName);
    });
    return settings;
}

CLegRecord& CCalls::addRecord(const std::string& strCall, const CTrunk* pTrunk)
{
    CLegName name = {strCall.empty() ? newCallID() : strCall, 1};
    while (m_mapRecords.contains(name))
        ++name.m_uLeg;
    auto pRecord = std::make_unique<CLegRecord>();
    pRecord->m_name = name;
    pRecord->m_pLeg = std::make_shared<CLeg>(*this, name, negotiationFor(pTrunk));
    CLegRecord& record = *pRecord;
    m_mapRecords[name] = std::move(pRecord);
    return record;
}

CLegRecord* CCalls::find(const CLegName& name)
{
    const auto iRecord = m_mapRecords.find(name);
    return iRecord == m_mapRecords.end() ? nullptr : iRecord->second.get();
}

Json CCalls::describe(const CLegRecord& record) const
{
    Json json = record.m_pLeg ? record.m_pLeg->describe() : record.m_last;
    json["last"] = record.m_log.last();
    return json;
}

size_t CCalls::living() const
{
    return static_cast<size_t>(std::count_if(
        m_mapRecords.begin(), m_mapRecords.end(), [](const auto& entry) { return entry.second->m_pLeg != nullptr; }));
}

bool CCalls::admits(const std::string& strSource, const std::string& strMethod)
{
    if (!m_policy.allows(strSource))
        return false;
    const bool bAdmitted = m_limiter.admits(strSource, m_policy.m_sourceRate, m_policy.m_rate, CLoop::Clock::now());
    if (!bAdmitted)
        spdlog::debug("a {} of {} is above the rate", strMethod, strSource);
    return bAdmitted;
}

void CCalls::onInvite(std::unique_ptr<CSipDialog> pDialog, uint64_t ullRequest, const CSipMessage& message)
{
    if (m_allOver || !m_driver.isReady() || living() >= m_policy.m_nMaxCalls)
    {
        pDialog->reply(ullRequest, 503, {{{"Retry-After", "5"}}, {}, {}});
        return;
    }
    if (message.m_replaces)
    {
        for (const auto& [name, pRecord] : m_mapRecords)
            if (pRecord->m_pLeg && pRecord->m_pLeg->isDialog(*message.m_replaces))
            {
                pRecord->m_pLeg->replaceDialog(std::move(pDialog), ullRequest, message);
                return;
            }
        pDialog->reply(ullRequest, 481);
        return;
    }
    CLegRecord& record = addRecord("", m_policy.trunkOf(message.m_strSource));
    spdlog::info("call {} leg 1: from {} to {}, {}", record.m_name.m_strCall, message.m_strFrom,
                 message.m_strRequestUri, message.m_strSource);
    record.m_pLeg->begin(std::move(pDialog), ullRequest, message);
}

int CCalls::onRequest(const CSipMessage& message, CSipContent& answer)
{
    answer.m_vHeaders = {{"Allow", "INVITE, ACK, CANCEL, BYE, OPTIONS, PRACK, UPDATE, INFO, REFER, NOTIFY"},
                         {"Accept", "application/sdp"},
                         {"Supported", "timer, 100rel, replaces"}};
    if (message.m_strMethod == "OPTIONS")
        return m_driver.isReady() && !m_allOver ? 200 : 503;
    return 405;
}

void CCalls::part(std::unique_ptr<CSipDialog> pDialog)
{
    pDialog->setHandler(nullptr);
    m_vParting.push_back(std::move(pDialog));
    m_loop.after(seconds(33), [this] { m_vParting.pop_front(); });
}

bool CCalls::offer(CLeg& leg)
{
    CLegRecord* pRecord = find(leg.name());
    if (!pRecord)
        return false;
    pRecord->m_strRoute = m_policy.routeOf(leg.calledNumber(), leg.source());
    return (m_policy.m_vRoutes.empty() || !pRecord->m_strRoute.empty()) && offerRecord(*pRecord);
}

bool CCalls::offerRecord(CLegRecord& record)
{
    const ConnectionID nOwner = m_pTakers->choose(record.m_strRoute, record.m_setTried);
    if (nOwner == 0)
        return false;
    record.m_nOwner = nOwner;
    record.m_setTried.insert(nOwner);
    Json event = {{"event", "offered"}};
    event.update(record.m_pLeg->describe());
    emit(*record.m_pLeg, std::move(event));
    return true;
}

void CCalls::emit(CLeg& leg, Json event)
{
    CLegRecord* pRecord = find(leg.name());
    // Nobody has heard of it.
    if (!pRecord || (pRecord->m_nOwner == 0 && pRecord->m_log.last() == 0))
        return;
    event["call"] = leg.name().m_strCall;
    event["leg"] = leg.name().m_uLeg;
    const std::string strEvent = event.value("event", "");
    spdlog::info("call {} leg {}: {}{}", leg.name().m_strCall, leg.name().m_uLeg, strEvent,
                 strEvent == "ended" ? " (" + event.value("reason", "") + ")" : "");
    const std::string& strLine = pRecord->m_log.add(std::move(event));
    m_pTakers->send(pRecord->m_nOwner, strLine);
}

void CCalls::ended(CLeg& leg)
{
    if (CLegRecord* pRecord = find(leg.name()))
        pRecord->m_pTimer.reset();
    if (m_pJournal)
        m_pJournal->remove(leg.name());
}

void CCalls::changed(CLeg& leg)
{
    if (m_pJournal && leg.state() == ELegState::Answered && !leg.isOver())
        m_pJournal->put(leg.name(), leg.dialog()->save());
}

void CCalls::finished(CLeg& leg)
{
    // It is still at work.
    m_loop.post([this, name = leg.name()] {
        CLegRecord* pRecord = find(name);
        if (!pRecord || !pRecord->m_pLeg)
            return;
        pRecord->m_last = pRecord->m_pLeg->describe();
        pRecord->m_pLeg.reset();
        if (pRecord->m_log.last() == 0)
            m_mapRecords.erase(name);
        else
        {
            pRecord->m_pTimer = std::make_unique<CTimer>(m_loop);
            pRecord->m_pTimer->start(s_keep, [this, name] { m_loop.post([this, name] { m_mapRecords.erase(name); }); });
        }
        if (m_allOver && living() == 0)
            m_allOver();
    });
}

void CCalls::shutDown(std::function<void()> allOver)
{
    m_allOver = std::move(allOver);
    for (const auto& pLeg : legs())
        pLeg->hangUp("shutdown", 503);
    if (living() == 0)
        m_loop.post(m_allOver);
}

void CCalls::claim(CLegRecord& record, ConnectionID nOwner)
{
    record.m_nOwner = nOwner;
    record.m_pTimer.reset();
}

void CCalls::ownerLost(ConnectionID nOwner)
{
    std::vector<CLegRecord*> vLost;
    for (const auto& [name, pRecord] : m_mapRecords)
        if (pRecord->m_nOwner == nOwner)
            vLost.push_back(pRecord.get());
    for (CLegRecord* pRecord : vLost)
    {
        pRecord->m_nOwner = 0;
        const std::shared_ptr<CLeg> pLeg = pRecord->m_pLeg;
        if (!pLeg || pLeg->isOver())
            continue;
        if (pLeg->isWaiting())
        {
            if (!offerRecord(*pRecord))
                pLeg->hangUp("application-lost", 503);
            continue;
        }
        pRecord->m_pTimer = std::make_unique<CTimer>(m_loop);
        pRecord->m_pTimer->start(seconds(m_policy.m_uClaimSeconds), [this, name = pRecord->m_name] {
            m_loop.post([this, name] {
                CLegRecord* pUnclaimed = find(name);
                if (pUnclaimed && pUnclaimed->m_pLeg && pUnclaimed->m_nOwner == 0)
                    pUnclaimed->m_pLeg->hangUp("application-lost", 503);
            });
        });
    }
}
