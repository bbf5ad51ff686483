// The socket of the applications: who is there, what they ask, what they are told.
#include "Applications.h"

#include "JsonText.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <poll.h>

using Json = nlohmann::ordered_json;

namespace
{
CJsonLinesServer::CSettings settingsFor(const std::string& strPath)
{
    CJsonLinesServer::CSettings settings;
    settings.m_strPath = strPath;
    settings.m_hello = {
        {"hello", "zelmedia-sip"}, {"version", ZELMEDIA_VERSION}, {"protocol", 1}, {"abilities", {"dial", "transfer"}}};
    settings.m_nMaxConnections = 256;
    settings.m_log = [](const std::string& strLine) { spdlog::info("applications: {}", strLine); };
    return settings;
}
} // namespace

CApplications::CApplications(CLoop& loop, CCalls& calls, const std::string& strPath)
    : m_loop(loop), m_calls(calls), m_server(settingsFor(strPath), *this)
{
}

CApplications::~CApplications()
{
    m_loop.unwatch(m_server.descriptor());
}

bool CApplications::open(std::string& strError)
{
    if (!m_server.open(strError))
        return false;
    m_loop.watch(m_server.descriptor(), POLLIN, [this](short) { m_server.onReadable(); });
    return true;
}

const std::map<std::string, CApplications::Handler>& CApplications::handlers()
{
    static const std::map<std::string, Handler> handlers = {
        {"register", &CApplications::registerRoute},
        {"watch", &CApplications::watch},
        {"calls", &CApplications::listCalls},
        {"dial", &CApplications::dial},
        {"claim", &CApplications::claim},
        {"events", &CApplications::events},
        {"ring", &CApplications::ring},
        {"answer", &CApplications::answerCall},
        {"reject", &CApplications::reject},
        {"redirect", &CApplications::redirect},
        {"hangup", &CApplications::hangUp},
        {"hold", &CApplications::hold},
        {"resume", &CApplications::resume},
        {"transfer", &CApplications::transfer},
        {"transfer_to", &CApplications::transferTo},
        {"bridge", &CApplications::bridge},
        {"unbridge", &CApplications::unbridge},
        {"send_digits", &CApplications::sendDigits},
        {"collect_digits", &CApplications::collectDigits},
        {"record_call", &CApplications::recordCall},
        {"set", &CApplications::set},
    };
    return handlers;
}

void CApplications::onRequest(ConnectionID nConnection, const CJsonRequest& request)
{
    CContext context = {nConnection, request, CJsonFields(request.m_fields)};
    const auto iHandler = handlers().find(request.m_strName);
    if (iHandler == handlers().end())
        refuse(context, JSON_UNKNOWN_REQUEST, "there is no request " + quotedText(request.m_strName));
    else if ((request.m_strName == "dial" || request.m_strName == "claim") && !m_mapApplications.contains(nConnection))
        refuse(context, "not-attached", "\"register\" comes first");
    else
        (this->*iHandler->second)(context);
}

void CApplications::onDisconnected(ConnectionID nConnection, const std::string& strWhy)
{
    m_setWatchers.erase(nConnection);
    const auto iApplication = m_mapApplications.find(nConnection);
    if (iApplication == m_mapApplications.end())
        return;
    spdlog::info("application {} of route \"{}\" is gone: {}", quotedText(iApplication->second.m_strInstance),
                 iApplication->second.m_strRoute, strWhy);
    m_mapApplications.erase(iApplication);
    m_calls.ownerLost(nConnection);
}

CApplications::ConnectionID CApplications::choose(const std::string& strRoute, const std::set<ConnectionID>& setTried)
{
    // Those of the very route first, then who takes all; of these the one that was idle for longest.
    for (const std::string& strWanted : {strRoute, std::string("*")})
    {
        CApplication* pBest = nullptr;
        ConnectionID nBest = 0;
        for (auto& [nConnection, application] : m_mapApplications)
            if (!strWanted.empty() && application.m_strRoute == strWanted && !setTried.contains(nConnection) &&
                (!pBest || application.m_ullOffered < pBest->m_ullOffered))
            {
                pBest = &application;
                nBest = nConnection;
            }
        if (pBest)
        {
            pBest->m_ullOffered = ++m_ullOffers;
            return nBest;
        }
    }
    return 0;
}

void CApplications::send(ConnectionID nOwner, const std::string& strLine)
{
    m_server.sendLine(nOwner, strLine);
    for (const ConnectionID nWatcher : m_setWatchers)
        if (nWatcher != nOwner)
            m_server.sendLine(nWatcher, strLine);
}

bool CApplications::finish(CContext& context)
{
    std::string strError;
    if (context.m_fields.finish(strError))
        return true;
    refuse(context, JSON_BAD_REQUEST, strError);
    return false;
}

bool CApplications::findLeg(CContext& context, const char* pCall, const char* pLeg)
{
    const CLegName name = {context.m_fields.neededText(pCall, 1, 31),
                           static_cast<unsigned>(context.m_fields.neededNumber(pLeg, 1, UINT32_MAX))};
    context.m_pRecord = m_calls.find(name);
    return context.m_pRecord != nullptr;
}

void CApplications::refuse(const CContext& context, const std::string& strCode, const std::string& strText)
{
    m_server.refuse(context.m_nConnection, context.m_request.m_nID, strCode, strText);
}

void CApplications::done(CContext& context, bool bDone)
{
    if (bDone)
        m_server.answer(context.m_nConnection, context.m_request.m_nID);
    else
        refuse(context, "wrong-state", "the leg is in no state for this");
}

void CApplications::registerRoute(CContext& context)
{
    CApplication application;
    application.m_strRoute = context.m_fields.neededText("route", 0, 128);
    application.m_strInstance = context.m_fields.text("instance", 0, 128).value_or("");
    if (!finish(context))
        return;
    dropFormer(application.m_strInstance, context.m_nConnection);
    spdlog::info("application {} takes route \"{}\"", quotedText(application.m_strInstance), application.m_strRoute);
    m_mapApplications[context.m_nConnection] = std::move(application);
    m_server.answer(context.m_nConnection, context.m_request.m_nID);
}

// The same process has connected again before we knew that it was gone.
void CApplications::dropFormer(const std::string& strInstance, ConnectionID nConnection)
{
    const auto iFormer = std::find_if(m_mapApplications.begin(), m_mapApplications.end(), [&](const auto& entry) {
        return !strInstance.empty() && entry.second.m_strInstance == strInstance && entry.first != nConnection;
    });
    if (iFormer != m_mapApplications.end())
        m_server.drop(iFormer->first, "its application has connected again");
}

void CApplications::watch(CContext& context)
{
    if (!finish(context))
        return;
    m_setWatchers.insert(context.m_nConnection);
    m_server.answer(context.m_nConnection, context.m_request.m_nID);
}

void CApplications::listCalls(CContext& context)
{
    if (!finish(context))
        return;
    Json calls = Json::array();
    for (const auto& [name, pRecord] : m_calls.records())
    {
        Json call = m_calls.describe(*pRecord);
        call["mine"] = pRecord->m_nOwner == context.m_nConnection;
        calls.push_back(std::move(call));
    }
    m_server.answer(context.m_nConnection, context.m_request.m_nID, {{"calls", std::move(calls)}});
}

SipHeaders CApplications::takeHeaders(CContext& context)
{
    SipHeaders vHeaders;
    const nlohmann::json* pHeaders = context.m_fields.object("headers");
    if (!pHeaders)
        return vHeaders;
    for (const auto& [strName, value] : pHeaders->items())
    {
        const bool bOurs = strName.rfind("X-", 0) == 0 || strName == "User-to-User" || strName == "Subject" ||
                           strName == "P-Asserted-Identity" || strName == "Privacy" || strName == "Diversion";
        if (!bOurs || !value.is_string() || value.get_ref<const std::string&>().size() > 1024)
            context.m_fields.fail("the header " + quotedText(strName) + " cannot be set");
        else
            vHeaders.emplace_back(strName, value.get<std::string>());
    }
    return vHeaders;
}

void CApplications::dial(CContext& context)
{
    CCalls::CDial dial;
    dial.m_strUri = context.m_fields.neededText("uri", 1, 512);
    dial.m_strFrom = context.m_fields.text("from", 0, 512).value_or("");
    dial.m_strCall = context.m_fields.text("call", 0, 31).value_or("");
    dial.m_vHeaders = takeHeaders(context);
    if (!finish(context))
        return;
    if (!dial.m_strCall.empty() && !m_calls.find({dial.m_strCall, 1}))
    {
        refuse(context, "no-such-call", "there is no such call");
        return;
    }
    std::string strCode;
    std::string strError;
    CLegRecord* pRecord = m_calls.dial(dial, context.m_nConnection, strCode, strError);
    if (!pRecord)
        refuse(context, strCode, strError);
    else
        m_server.answer(context.m_nConnection, context.m_request.m_nID,
                        {{"call", pRecord->m_name.m_strCall}, {"leg", pRecord->m_name.m_uLeg}});
}

void CApplications::claim(CContext& context)
{
    const std::string strCall = context.m_fields.neededText("call", 1, 31);
    const auto nLeg = context.m_fields.number("leg", 1, UINT32_MAX);
    if (!finish(context))
        return;
    Json calls = Json::array();
    for (const auto& [name, pRecord] : m_calls.records())
    {
        if (name.m_strCall != strCall || (nLeg && name.m_uLeg != *nLeg))
            continue;
        if (pRecord->m_nOwner != 0 && pRecord->m_nOwner != context.m_nConnection &&
            m_mapApplications.contains(pRecord->m_nOwner))
        {
            refuse(context, "refused", "another application has this call");
            return;
        }
        m_calls.claim(*pRecord, context.m_nConnection);
        calls.push_back(m_calls.describe(*pRecord));
    }
    if (calls.empty())
        refuse(context, "no-such-call", "there is no such call");
    else
        m_server.answer(context.m_nConnection, context.m_request.m_nID, {{"calls", std::move(calls)}});
}

void CApplications::events(CContext& context)
{
    const bool bFound = findLeg(context);
    const auto nAfter = context.m_fields.neededNumber("after", 0, INT64_MAX);
    if (!finish(context))
        return;
    if (!bFound)
        refuse(context, "no-such-call", "there is no such call");
    else
        m_server.answer(context.m_nConnection, context.m_request.m_nID,
                        {{"events", context.m_pRecord->m_log.after(static_cast<uint64_t>(nAfter))}});
}
