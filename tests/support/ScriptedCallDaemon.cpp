// The other side of libZelCallLib for tests: a socket like that of zelmedia-sip, with calls that the test makes.
#include "ScriptedCallDaemon.h"

#include "JsonText.h"

#include <gmock/gmock.h>
#include <poll.h>

#include <utility>

namespace
{
// The thread looks around that often, as it may be frozen or stopped meanwhile.
constexpr int LOOK_MS = 5;
} // namespace

CScriptedCallDaemon::CScriptedCallDaemon(std::string strPath, bool bStart)
    : m_strPath(std::move(strPath)), m_hello({{"hello", "zelmedia-sip"}, {"version", "1.0.0"}, {"protocol", 1}})
{
    if (bStart)
        start();
}

CScriptedCallDaemon::~CScriptedCallDaemon()
{
    die();
}

void CScriptedCallDaemon::start()
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    CJsonLinesServer::CSettings settings;
    settings.m_strPath = m_strPath;
    settings.m_hello = m_hello;
    CJsonLinesHandler& handler = *this;
    m_pServer = std::make_unique<CJsonLinesServer>(settings, handler);
    std::string strError;
    ASSERT_TRUE(m_pServer->open(strError)) << strError;
    m_bStop = false;
    m_thread = std::thread([this] { run(); });
}

void CScriptedCallDaemon::die()
{
    m_bStop = true;
    if (m_thread.joinable())
        m_thread.join();
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    m_pServer.reset();
    m_nRegistered = 0;
}

void CScriptedCallDaemon::setHello(const Fields& hello)
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    m_hello = hello;
}

void CScriptedCallDaemon::run()
{
    while (!m_bStop)
    {
        pollfd wait = {m_pServer->descriptor(), POLLIN, 0};
        ::poll(&wait, 1, LOOK_MS);
        const std::lock_guard<std::recursive_mutex> hold(m_mutex);
        if (!m_bFrozen && wait.revents != 0)
            m_pServer->onReadable();
    }
}

void CScriptedCallDaemon::onRequest(const std::string& strName, Rule rule)
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    m_mapRules[strName] = std::move(rule);
}

void CScriptedCallDaemon::acceptAgain(const std::string& strName)
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    m_mapRules.erase(strName);
}

void CScriptedCallDaemon::refuse(const std::string& strName, const std::string& strCode)
{
    onRequest(
        strName,
        [this, strCode](ConnectionID nConnection, const CJsonRequest& request) {
            m_pServer->refuse(nConnection, request.m_nID, strCode, "as the test says");
        });
}

void CScriptedCallDaemon::ignore(const std::string& strName)
{
    onRequest(
        strName, [](ConnectionID, const CJsonRequest&) {});
}

void CScriptedCallDaemon::onRequest(ConnectionID nConnection, const CJsonRequest& request)
{
    nlohmann::json record = request.m_fields;
    record["request"] = request.m_strName;
    m_vRequests.push_back(record);
    m_changed.notify_all();
    const auto it = m_mapRules.find(request.m_strName);
    if (it == m_mapRules.end())
    {
        accept(nConnection, request);
        return;
    }
    const Rule rule = it->second; // it may be replaced meanwhile
    rule(nConnection, request);
}

void CScriptedCallDaemon::onDisconnected(ConnectionID nConnection, const std::string&)
{
    if (nConnection == m_nRegistered)
        m_nRegistered = 0;
}

void CScriptedCallDaemon::accept(ConnectionID nConnection, const CJsonRequest& request)
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    Fields answer = Fields::object();
    if (request.m_strName == "register")
    {
        m_nRegistered = nConnection;
    }
    else if (request.m_strName == "dial")
    {
        const Key key("dialled-" + std::to_string(++m_nDialled), 1);
        m_mapLegs[key].m_object = {{"to", request.m_fields.at("uri")}, {"state", "dialing"}};
        answer = {{"call", key.first}, {"leg", key.second}};
    }
    else if (request.m_strName == "calls" || (request.m_strName == "claim" && !request.m_fields.contains("leg")))
    {
        answer["calls"] = Fields::array();
        for (const auto& [key, leg] : m_mapLegs)
            if (request.m_strName == "calls" || request.m_fields.at("call") == key.first)
                answer["calls"].push_back(objectOf(key, leg));
    }
    else if (CLeg* pLeg = find(request))
    {
        if (request.m_strName == "events")
            answer["events"] = pLeg->m_log.after(request.m_fields.at("after").get<uint64_t>());
    }
    else
    {
        m_pServer->refuse(nConnection, request.m_nID, "no-such-call", "there is no such leg");
        return;
    }
    m_pServer->answer(nConnection, request.m_nID, answer);
}

void CScriptedCallDaemon::answer(ConnectionID nConnection, const CJsonRequest& request, const Fields& fields)
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    m_pServer->answer(nConnection, request.m_nID, fields);
}

void CScriptedCallDaemon::drop(ConnectionID nConnection)
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    m_pServer->drop(nConnection, "the test says so");
}

void CScriptedCallDaemon::dropRegistered()
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    drop(m_nRegistered);
}

void CScriptedCallDaemon::sendRaw(const std::string& strLine)
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    m_pServer->sendLine(m_nRegistered, strLine);
}

CScriptedCallDaemon::CLeg* CScriptedCallDaemon::find(const CJsonRequest& request)
{
    const auto it = m_mapLegs.find(Key(request.m_fields.value("call", ""), request.m_fields.value("leg", 0UL)));
    return it == m_mapLegs.end() ? nullptr : &it->second;
}

CScriptedCallDaemon::Fields CScriptedCallDaemon::objectOf(const Key& key, const CLeg& leg) const
{
    Fields object = leg.m_object;
    object["call"] = key.first;
    object["leg"] = key.second;
    object["last"] = leg.m_log.last();
    return object;
}

void CScriptedCallDaemon::push(const Key& key, Fields event, bool bSend)
{
    event["call"] = key.first;
    event["leg"] = key.second;
    const std::string& strLine = m_mapLegs[key].m_log.add(std::move(event));
    if (bSend && m_pServer)
        m_pServer->sendLine(m_nRegistered, strLine);
}

void CScriptedCallDaemon::offer(const std::string& strCall, unsigned long ulLeg, const Fields& more)
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    Fields object = {{"from", "sip:100@example.net"},
                     {"to", "sip:200@example.net"},
                     {"sip_call_id", "a84b4c76"},
                     {"state", "offered"},
                     {"headers", Fields::object()}};
    object.update(more);
    m_mapLegs[{strCall, ulLeg}].m_object = object;
    object["event"] = "offered";
    push({strCall, ulLeg}, object, true);
}

void CScriptedCallDaemon::event(const std::string& strCall, unsigned long ulLeg, Fields event)
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    push({strCall, ulLeg}, std::move(event), true);
}

void CScriptedCallDaemon::loseEvent(const std::string& strCall, unsigned long ulLeg, Fields event)
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    push({strCall, ulLeg}, std::move(event), false);
}

void CScriptedCallDaemon::forget(const std::string& strCall, unsigned long ulLeg)
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    m_mapLegs.erase({strCall, ulLeg});
}

void CScriptedCallDaemon::know(const std::string& strCall, unsigned long ulLeg, const std::string& strState)
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    m_mapLegs[{strCall, ulLeg}].m_object = {{"from", "sip:100@example.net"}, {"state", strState}};
}

std::vector<nlohmann::json> CScriptedCallDaemon::requests() const
{
    const std::lock_guard<std::recursive_mutex> hold(m_mutex);
    return m_vRequests;
}

std::vector<nlohmann::json> CScriptedCallDaemon::requests(const std::string& strName) const
{
    std::vector<nlohmann::json> vResult;
    for (const nlohmann::json& request : requests())
        if (request.at("request") == strName)
            vResult.push_back(request);
    return vResult;
}

nlohmann::json CScriptedCallDaemon::waitRequest(const std::string& strName, size_t nIndex) const
{
    std::unique_lock<std::recursive_mutex> hold(m_mutex);
    if (!m_changed.wait_for(hold, std::chrono::seconds(60), [&] { return requests(strName).size() > nIndex; }))
    {
        ADD_FAILURE() << "no request " << strName << " number " << nIndex;
        return nlohmann::json::object();
    }
    return requests(strName)[nIndex];
}
