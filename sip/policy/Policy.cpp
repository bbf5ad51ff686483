// What the daemon allows and prefers: from the policy file and the command line.
#include "Policy.h"

#include <algorithm>

bool matches(const std::string& strPattern, const std::string& strText)
{
    size_t nPattern = 0;
    size_t nText = 0;
    size_t nStar = std::string::npos;
    size_t nFrom = 0;
    while (nText < strText.size())
    {
        if (nPattern < strPattern.size() && strPattern[nPattern] == '*')
        {
            nStar = nPattern++;
            nFrom = nText;
        }
        else if (nPattern < strPattern.size() &&
                 (strPattern[nPattern] == '?' || strPattern[nPattern] == strText[nText]))
        {
            ++nPattern;
            ++nText;
        }
        else if (nStar != std::string::npos)
        {
            nPattern = nStar + 1;
            nText = ++nFrom;
        }
        else
        {
            return false;
        }
    }
    return strPattern.find_first_not_of('*', nPattern) == std::string::npos;
}

const CTrunk* CPolicy::trunk(const std::string& strName) const
{
    const auto iTrunk = std::find_if(m_vTrunks.begin(), m_vTrunks.end(),
                                     [&strName](const CTrunk& trunk) { return trunk.m_strName == strName; });
    return iTrunk == m_vTrunks.end() ? nullptr : &*iTrunk;
}

const CTrunk* CPolicy::trunkOf(const std::string& strAddress) const
{
    const auto iTrunk = std::find_if(m_vTrunks.begin(), m_vTrunks.end(), [&strAddress](const CTrunk& trunk) {
        return trunk.m_addresses.contains(strAddress);
    });
    return iTrunk == m_vTrunks.end() ? nullptr : &*iTrunk;
}

CAddressList CPolicy::everybody() const
{
    CAddressList addresses = m_allowed;
    for (const CTrunk& trunk : m_vTrunks)
        addresses.add(trunk.m_addresses);
    return addresses;
}

bool CPolicy::allows(const std::string& strAddress) const
{
    return m_allowed.contains(strAddress) || trunkOf(strAddress) != nullptr;
}

std::string CPolicy::routeOf(const std::string& strNumber, const std::string& strAddress) const
{
    const CTrunk* pTrunk = trunkOf(strAddress);
    for (const CRouteRule& rule : m_vRoutes)
    {
        const bool bTrunk = rule.m_strTrunk.empty() || (pTrunk && pTrunk->m_strName == rule.m_strTrunk);
        if (bTrunk && matches(rule.m_strNumber, strNumber))
            return rule.m_strRoute;
    }
    return m_vRoutes.empty() ? strNumber : "";
}

const CDialRule* CPolicy::dialRule(const std::string& strUri) const
{
    static const CDialRule anywhere = {"*", ""};
    const auto iRule = std::find_if(m_vDial.begin(), m_vDial.end(),
                                    [&strUri](const CDialRule& rule) { return matches(rule.m_strTarget, strUri); });
    if (iRule != m_vDial.end())
        return &*iRule;
    return m_bDialAnywhere ? &anywhere : nullptr;
}
