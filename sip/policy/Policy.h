// What the daemon allows and prefers: from the policy file and the command line.
#ifndef SIP_POLICY_H
#define SIP_POLICY_H

#include "AddressList.h"
#include "Negotiation.h"
#include "SipDialog.h"
#include "SipStack.h"

#include <optional>
#include <string>
#include <vector>

struct CRate
{
    double m_dPerSecond = 0; // 0: no limit
    double m_dBurst = 0;
};

// Somebody we send calls to and take calls from.
struct CTrunk
{
    std::string m_strName;
    std::string m_strProxy; // URI
    std::string m_strFrom;  // URI of ours towards it; empty: as the application says
    CSipCredentials m_credentials;
    CAddressList m_addresses;
    bool m_bRegister = false;
    std::string m_strRegistrar; // URI, where it differs from the proxy
    unsigned m_uExpires = 300;
    std::optional<ESrtp> m_eSrtp;
};

// Called numbers, by a pattern with * and ?, go to the applications of a route.
struct CRouteRule
{
    std::string m_strNumber;
    std::string m_strTrunk; // only from this one; empty: from everybody
    std::string m_strRoute;
};

struct CDialRule
{
    std::string m_strTarget; // pattern of URIs
    std::string m_strTrunk;  // sent by this one; empty: straight
};

struct CPolicy
{
    std::string m_strNode = "n1";
    CAddressList m_allowed;
    std::vector<CTrunk> m_vTrunks;
    std::vector<CRouteRule> m_vRoutes;

    std::vector<CDialRule> m_vDial;
    bool m_bDialAnywhere = false; // without a file: to addresses that are allowed
    CRate m_dialRate;
    size_t m_nDialConcurrent = 0; // 0: no limit

    size_t m_nMaxCalls = 2000;
    CRate m_rate;
    CRate m_sourceRate = {20, 100};
    unsigned m_uRingSeconds = 180;
    unsigned m_uSessionExpires = 1800;
    unsigned m_uMinimumExpires = 90;
    unsigned m_uNoMediaSeconds = 30;
    unsigned m_uClaimSeconds = 10;
    CNegotiationSettings m_negotiation;

    const CTrunk* trunk(const std::string& strName) const;
    const CTrunk* trunkOf(const std::string& strAddress) const;
    // The networks that anything may come from.
    CAddressList everybody() const;
    bool allows(const std::string& strAddress) const;
    std::string routeOf(const std::string& strNumber, const std::string& strAddress) const;
    // The rule for dialing a URI; null when it must not be dialed.
    const CDialRule* dialRule(const std::string& strUri) const;
};

// Whether the text is of the pattern, in which * stands for any characters and ? for one.
bool matches(const std::string& strPattern, const std::string& strText);

#endif
