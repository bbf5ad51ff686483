// All calls: those that applications make, and what the driver tells of any.
#include "Calls.h"

#include "LegText.h"

#include <spdlog/spdlog.h>

#include <algorithm>

namespace
{
bool isSipUri(const std::string& strUri)
{
    const bool bScheme = strUri.rfind("sip:", 0) == 0 || strUri.rfind("sips:", 0) == 0;
    return bScheme && strUri.size() <= 512 && std::all_of(strUri.begin(), strUri.end(), [](unsigned char uc) {
               return uc > 0x20 && uc < 0x7f && uc != '<' && uc != '>' && uc != '"';
           });
}

// Numeric, without brackets; names as they are.
std::string hostOf(const std::string& strUri)
{
    const size_t nAt = strUri.find('@');
    std::string strHost = strUri.substr(nAt == std::string::npos ? strUri.find(':') + 1 : nAt + 1);
    if (!strHost.empty() && strHost.front() == '[')
        return strHost.substr(1, strHost.find(']') - 1);
    return strHost.substr(0, strHost.find_first_of(":;?"));
}
} // namespace

bool CCalls::mayDial(const std::string& strUri, const CTrunk*& pTrunk, std::string& strCode, std::string& strError)
{
    strCode = "refused";
    const CDialRule* pRule = isSipUri(strUri) ? m_policy.dialRule(strUri) : nullptr;
    if (!isSipUri(strUri))
    {
        strCode = "bad-request";
        strError = "the URI must begin with sip: or sips:";
        return false;
    }
    if (!pRule || (m_policy.m_vDial.empty() && !m_policy.allows(hostOf(strUri)) && hostOf(strUri) != "localhost"))
    {
        strError = "no rule allows to dial this";
        return false;
    }
    pTrunk = m_policy.trunk(pRule->m_strTrunk);
    const auto nDialed =
        static_cast<size_t>(std::count_if(m_mapRecords.begin(), m_mapRecords.end(), [](const auto& entry) {
            return entry.second->m_pLeg && entry.second->m_pLeg->isCaller();
        }));
    if ((m_policy.m_nDialConcurrent > 0 && nDialed >= m_policy.m_nDialConcurrent) || living() >= m_policy.m_nMaxCalls)
    {
        strCode = "full";
        strError = "there are as many calls as the policy allows";
        return false;
    }
    if (!m_dialBucket.take(m_policy.m_dialRate, CLoop::Clock::now()))
    {
        strError = "more calls in this time than the policy allows";
        return false;
    }
    return true;
}

CLegRecord* CCalls::dial(const CDial& dial, ConnectionID nOwner, std::string& strCode, std::string& strError)
{
    const CTrunk* pTrunk = nullptr;
    if (!mayDial(dial.m_strUri, pTrunk, strCode, strError))
        return nullptr;
    if (m_allOver || !m_driver.isReady())
    {
        strCode = "failed";
        strError = "there is no media driver";
        return nullptr;
    }
    CSipDialSettings settings;
    settings.m_strTo = dial.m_strUri;
    settings.m_strUser = userOf(dial.m_strFrom);
    settings.m_strFrom = !dial.m_strFrom.empty() ? dial.m_strFrom : (pTrunk ? pTrunk->m_strFrom : "");
    if (settings.m_strFrom.empty())
        settings.m_strFrom = "sip:zelmedia@invalid";
    settings.m_strProxy = pTrunk ? pTrunk->m_strProxy : "";
    strCode = "bad-request";
    strError = "the stack does not take these addresses";
    auto pDialog = isSipUri(settings.m_strFrom) ? m_pStack->createDialog(settings) : nullptr;
    if (!pDialog)
        return nullptr;
    if (pTrunk)
        pDialog->authenticateAs(pTrunk->m_credentials);
    CLegRecord& record = addRecord(dial.m_strCall, pTrunk);
    record.m_nOwner = nOwner;
    spdlog::info("call {} leg {}: dials {}", record.m_name.m_strCall, record.m_name.m_uLeg, dial.m_strUri);
    record.m_pLeg->dial(std::move(pDialog), dial.m_strUri, settings.m_strFrom, dial.m_vHeaders);
    return &record;
}

void CCalls::onDriverReady(const std::set<CLegName>& setSessions)
{
    for (const CLegName& name : setSessions)
    {
        const CLegRecord* pRecord = find(name);
        if (!pRecord || !pRecord->m_pLeg || pRecord->m_pLeg->isOver())
            m_driver.request("end", name, {{"reason", "its call is over"}}, [](const nlohmann::json&) {});
    }
    for (const auto& pLeg : legs())
        if (!setSessions.contains(pLeg->name()))
            pLeg->onDriverLost();
}

void CCalls::onDriverLost()
{
    for (const auto& pLeg : legs())
        pLeg->onDriverLost();
}

void CCalls::onDriverEvent(const CLegName& leg, const nlohmann::json& event)
{
    const CLegRecord* pRecord = find(leg);
    const std::shared_ptr<CLeg> pLeg = pRecord ? pRecord->m_pLeg : nullptr;
    if (pLeg)
        pLeg->onDriverEvent(event);
}

std::vector<std::shared_ptr<CLeg>> CCalls::legs() const
{
    std::vector<std::shared_ptr<CLeg>> vLegs;
    for (const auto& [name, pRecord] : m_mapRecords)
        if (pRecord->m_pLeg)
            vLegs.push_back(pRecord->m_pLeg);
    return vLegs;
}
