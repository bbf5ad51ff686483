// Reads the policy file.
#include "PolicyFile.h"

#include <toml++/toml.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>

namespace
{
// The first mistake is what counts.
class CMistake
{
public:
    explicit CMistake(std::string strFile) : m_strFile(std::move(strFile)) {}

    void report(const toml::source_region& where, const std::string& strKey, const std::string& strText)
    {
        if (m_strText.empty())
            m_strText = m_strFile + ":" + std::to_string(where.begin.line) + ": " + strKey + ": " + strText;
    }
    const std::string& text() const { return m_strText; }

private:
    const std::string m_strFile;
    std::string m_strText;
};

// A table whose keys are asked for one by one; finish reports those that nobody has asked for.
class CTable
{
public:
    CTable(const toml::table& table, std::string strPath, CMistake& mistake)
        : m_table(table), m_strPath(std::move(strPath)), m_mistake(mistake)
    {
    }

    void text(const char* pKey, std::string& strValue, const std::function<bool(const std::string&)>& isGood = {},
              const char* pWanted = "a text")
    {
        const toml::node* pNode = find(pKey);
        if (!pNode)
            return;
        const auto strFound = pNode->value_exact<std::string>();
        if (!strFound || (isGood && !isGood(*strFound)))
            fail(pKey, *pNode, std::string("must be ") + pWanted);
        else
            strValue = *strFound;
    }

    template <class NUMBER> void number(const char* pKey, NUMBER& nValue, int64_t llMin, int64_t llMax)
    {
        const toml::node* pNode = find(pKey);
        if (!pNode)
            return;
        const auto llFound = pNode->value_exact<int64_t>();
        if (!llFound || *llFound < llMin || *llFound > llMax)
            fail(pKey, *pNode, "must be a number of " + std::to_string(llMin) + " to " + std::to_string(llMax));
        else
            nValue = static_cast<NUMBER>(*llFound);
    }

    void rate(const char* pKey, double& dValue)
    {
        const toml::node* pNode = find(pKey);
        if (!pNode)
            return;
        const auto dFound = pNode->is_number() ? pNode->value<double>() : std::nullopt;
        if (!dFound || !std::isfinite(*dFound) || *dFound < 0 || *dFound > 1e6)
            fail(pKey, *pNode, "must be a number of 0 to 1000000");
        else
            dValue = *dFound;
    }

    void flag(const char* pKey, bool& bValue)
    {
        const toml::node* pNode = find(pKey);
        if (!pNode)
            return;
        const auto bFound = pNode->value_exact<bool>();
        if (!bFound)
            fail(pKey, *pNode, "must be true or false");
        else
            bValue = *bFound;
    }

    // Each text of a list; take returns what is wrong with it, or nothing.
    void list(const char* pKey, const std::function<std::string(const std::string&)>& take)
    {
        const toml::node* pNode = find(pKey);
        if (!pNode)
            return;
        if (!pNode->is_array())
        {
            fail(pKey, *pNode, "must be a list of texts");
            return;
        }
        for (const toml::node& element : *pNode->as_array())
        {
            const auto strFound = element.value_exact<std::string>();
            const std::string strWrong = strFound ? take(*strFound) : "must be a list of texts";
            if (!strWrong.empty())
                fail(pKey, element, strWrong);
        }
    }

    void tables(const char* pKey, const std::function<void(CTable&)>& take)
    {
        const toml::node* pNode = find(pKey);
        if (!pNode)
            return;
        if (const toml::table* pTable = pNode->as_table())
            takeTable(pKey, *pTable, take);
        else if (const toml::array* pArray = pNode->as_array(); pArray && pArray->is_array_of_tables())
            for (const toml::node& element : *pArray)
                takeTable(pKey, *element.as_table(), take);
        else
            fail(pKey, *pNode, "must be a table");
    }

    void needs(const char* pKey, const std::string& strValue)
    {
        if (strValue.empty())
            m_mistake.report(m_table.source(), m_strPath + pKey, "is needed");
    }

    void fail(const char* pKey, const std::string& strText)
    {
        const toml::node* pNode = m_table.get(pKey);
        m_mistake.report(pNode ? pNode->source() : m_table.source(), m_strPath + pKey, strText);
    }

    void finish()
    {
        for (const auto& [key, node] : m_table)
            if (!m_setAsked.contains(std::string(key.str())))
                m_mistake.report(key.source(), m_strPath + std::string(key.str()), "is unknown");
    }

private:
    const toml::node* find(const char* pKey)
    {
        m_setAsked.insert(pKey);
        return m_table.get(pKey);
    }

    void fail(const char* pKey, const toml::node& node, const std::string& strText)
    {
        m_mistake.report(node.source(), m_strPath + pKey, strText);
    }

    void takeTable(const char* pKey, const toml::table& table, const std::function<void(CTable&)>& take)
    {
        CTable inner(table, m_strPath + pKey + ".", m_mistake);
        take(inner);
        inner.finish();
    }

    const toml::table& m_table;
    const std::string m_strPath;
    CMistake& m_mistake;
    std::set<std::string> m_setAsked;
};

bool isNode(const std::string& strName)
{
    return !strName.empty() && strName.size() <= 8 &&
           std::all_of(
               strName.begin(), strName.end(), [](unsigned char uc) { return std::isalnum(uc) || uc == '_'; });
}

bool isUri(const std::string& strUri)
{
    return strUri.rfind("sip:", 0) == 0 || strUri.rfind("sips:", 0) == 0;
}

const std::vector<CSdpCodec>& knownCodecs()
{
    static const std::vector<CSdpCodec> codecs = {{"PCMU", 0, 8000, "", ""},
                                                  {"PCMA", 8, 8000, "", ""},
                                                  {"G722", 9, 8000, "", ""},
                                                  {"opus", 96, 48000, "2", "useinbandfec=1"}};
    return codecs;
}

std::optional<ESrtp> srtpOf(const std::string& strValue)
{
    if (strValue == "off")
        return ESrtp::Off;
    if (strValue == "allowed")
        return ESrtp::Allowed;
    return strValue == "required" ? std::optional(ESrtp::Required) : std::nullopt;
}

std::function<std::string(const std::string&)> into(CAddressList& addresses)
{
    return [&addresses](const std::string& strNetwork) {
        std::string strError;
        return addresses.add(strNetwork, strError) ? "" : strError;
    };
}

void takeSrtp(CTable& table, std::optional<ESrtp>& eSrtp)
{
    std::string strSrtp;
    table.text(
        "srtp", strSrtp, [](const std::string& str) { return srtpOf(str).has_value(); },
        "\"off\", \"allowed\" or \"required\"");
    eSrtp = srtpOf(strSrtp);
}

void takeMedia(CTable& table, CPolicy& policy)
{
    std::vector<CSdpCodec> vCodecs;
    table.list("codecs", [&vCodecs](const std::string& strName) -> std::string {
        for (const CSdpCodec& codec : knownCodecs())
            if (codec.m_strName == strName)
            {
                vCodecs.push_back(codec);
                return "";
            }
        return "\"" + strName + "\" is none of PCMU, PCMA, G722, opus";
    });
    if (!vCodecs.empty())
        policy.m_negotiation.m_vCodecs = vCodecs;
    std::string strOrder = "peer";
    table.text(
        "codec_order", strOrder, [](const std::string& str) { return str == "peer" || str == "ours"; },
        "\"peer\" or \"ours\"");
    policy.m_negotiation.m_bPeersOrder = strOrder == "peer";
    table.number("ptime", policy.m_negotiation.m_uPtime, 10, 60);
    std::optional<ESrtp> eSrtp;
    takeSrtp(table, eSrtp);
    policy.m_negotiation.m_eSrtp = eSrtp.value_or(policy.m_negotiation.m_eSrtp);
    table.number("no_media_seconds", policy.m_uNoMediaSeconds, 0, 86400);
}

void takeLimits(CTable& table, CPolicy& policy)
{
    table.number("calls", policy.m_nMaxCalls, 1, 1000000);
    table.number("ring_seconds", policy.m_uRingSeconds, 1, 3600);
    table.number("session_expires", policy.m_uSessionExpires, 0, 86400);
    table.number("min_session_expires", policy.m_uMinimumExpires, 90, 86400);
    table.number("claim_seconds", policy.m_uClaimSeconds, 1, 600);
    table.rate("requests_per_second", policy.m_rate.m_dPerSecond);
    table.rate("requests_burst", policy.m_rate.m_dBurst);
    table.rate("source_requests_per_second", policy.m_sourceRate.m_dPerSecond);
    table.rate("source_requests_burst", policy.m_sourceRate.m_dBurst);
    table.rate("dials_per_second", policy.m_dialRate.m_dPerSecond);
    table.rate("dials_burst", policy.m_dialRate.m_dBurst);
    table.number("dials_at_once", policy.m_nDialConcurrent, 0, 1000000);
}

void takeTrunk(CTable& table, CPolicy& policy)
{
    CTrunk trunk;
    table.text("name", trunk.m_strName);
    table.needs("name", trunk.m_strName);
    table.text("proxy", trunk.m_strProxy, isUri, "a URI that begins with sip: or sips:");
    table.text("from", trunk.m_strFrom, isUri, "a URI that begins with sip: or sips:");
    table.text("user", trunk.m_credentials.m_strUser);
    table.text("password", trunk.m_credentials.m_strPassword);
    table.list("addresses", into(trunk.m_addresses));
    table.flag("register", trunk.m_bRegister);
    table.text("registrar", trunk.m_strRegistrar, isUri, "a URI that begins with sip: or sips:");
    table.number("expires", trunk.m_uExpires, 60, 86400);
    takeSrtp(table, trunk.m_eSrtp);
    if (trunk.m_bRegister && trunk.m_strFrom.empty())
        table.needs("from", "");
    if (trunk.m_bRegister && trunk.m_strRegistrar.empty() && trunk.m_strProxy.empty())
        table.needs("registrar", "");
    if (policy.trunk(trunk.m_strName))
        table.fail("name", "there is another one of this name");
    policy.m_vTrunks.push_back(std::move(trunk));
}

void takeRoute(CTable& table, CPolicy& policy)
{
    CRouteRule rule;
    table.text("number", rule.m_strNumber);
    table.needs("number", rule.m_strNumber);
    table.text(
        "trunk", rule.m_strTrunk, [&policy](const std::string& str) { return policy.trunk(str) != nullptr; },
        "the name of a trunk");
    table.text("to", rule.m_strRoute);
    table.needs("to", rule.m_strRoute);
    policy.m_vRoutes.push_back(std::move(rule));
}

void takeDial(CTable& table, CPolicy& policy)
{
    CDialRule rule;
    table.text("to", rule.m_strTarget);
    table.needs("to", rule.m_strTarget);
    table.text(
        "trunk", rule.m_strTrunk, [&policy](const std::string& str) { return policy.trunk(str) != nullptr; },
        "the name of a trunk");
    policy.m_vDial.push_back(std::move(rule));
}
} // namespace

bool readPolicyText(const std::string& strText, const std::string& strFile, CPolicy& policy, std::string& strError)
{
    CMistake mistake(strFile);
    try
    {
        const toml::table root = toml::parse(strText, strFile);
        CTable table(root, "", mistake);
        table.text("node", policy.m_strNode, isNode, "1 to 8 letters and digits");
        table.list("allow", into(policy.m_allowed));
        table.tables(
            "media", [&policy](CTable& inner) { takeMedia(inner, policy); });
        table.tables(
            "limits", [&policy](CTable& inner) { takeLimits(inner, policy); });
        table.tables(
            "trunk", [&policy](CTable& inner) { takeTrunk(inner, policy); });
        table.tables(
            "route", [&policy](CTable& inner) { takeRoute(inner, policy); });
        table.tables("dial", [&policy](CTable& inner) { takeDial(inner, policy); });
        table.finish();
    }
    catch (const toml::parse_error& error)
    {
        strError = strFile + ":" + std::to_string(error.source().begin.line) + ": " + std::string(error.description());
        return false;
    }
    strError = mistake.text();
    return strError.empty();
}

bool readPolicyFile(const std::string& strFile, CPolicy& policy, std::string& strError)
{
    std::ifstream file(strFile);
    std::ostringstream text;
    text << file.rdbuf();
    if (!file)
    {
        strError = "the policy \"" + strFile + "\" cannot be read: " + std::strerror(errno);
        return false;
    }
    return readPolicyText(text.str(), strFile, policy, strError);
}
