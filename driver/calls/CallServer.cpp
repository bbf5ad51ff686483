// The call socket: programs make, change and end the sessions of calls, and get their events.
#include "CallServer.h"

#include "MediaDescription.h"
#include "RtpChannel.h"
#include "Text.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <vector>

namespace
{
using nlohmann::ordered_json;

constexpr size_t MAX_CALL_ID = 31;
constexpr int64_t MAX_KEY_MS = 8000; // what one event can say
constexpr int64_t MAX_GAP_MS = 5000;

class CRefused : public std::runtime_error
{
public:
    CRefused(const char* pCode, const std::string& strText) : std::runtime_error(strText), m_pCode(pCode) {}
    const char* code() const { return m_pCode; }

private:
    const char* m_pCode;
};

std::string legText(const CLegName& name)
{
    return fmt::format("call {}, leg {}", printable(name.first), name.second);
}

CJsonLinesServer::CSettings serverSettings(const std::string& strPath)
{
    CJsonLinesServer::CSettings settings;
    settings.m_strPath = strPath;
    ordered_json abilities = ordered_json::array();
    for (const CCodec* pCodec : codecs())
    {
        std::string strName = pCodec->m_pName;
        std::transform(strName.begin(), strName.end(), strName.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        abilities.push_back(strName);
    }
    for (const char* pAbility : {"dtmf", "inband", "srtp", "speech", "bridge", "record"})
        abilities.push_back(pAbility);
    settings.m_hello = {
        {"hello", "zelmedia-driver"}, {"version", ZELMEDIA_VERSION}, {"protocol", 1}, {"abilities", abilities}};
    settings.m_log = [](const std::string& strLine) { spdlog::warn("calls: {}", strLine); };
    return settings;
}
} // namespace

const CCallServer::CEntry CCallServer::REQUESTS[] = {
    {"attach", &CCallServer::attach, false}, {"create", &CCallServer::create, true},
    {"update", &CCallServer::update, true},  {"end", &CCallServer::end, true},
    {"hangup", &CCallServer::hangUp, false}, {"get", &CCallServer::get, false},
    {"list", &CCallServer::list, false},     {"digits", &CCallServer::digits, true},
    {"bridge", &CCallServer::bridge, true},  {"unbridge", &CCallServer::unbridge, true},
    {"record", &CCallServer::record, true},  {"events", &CCallServer::events, true},
};

CCallServer::CCallServer(CParts parts, CSettings settings)
    : m_parts(std::move(parts)), m_settings(std::move(settings)),
      m_pool(m_settings.m_nFirstPort, m_settings.m_nLastPort, m_parts.m_clock),
      m_server(serverSettings(m_settings.m_strSocket), *this)
{
}

CCallServer::~CCallServer()
{
    while (!m_mapSessions.empty())
        endSession(m_mapSessions.begin()->first, "shutdown");
}

void CCallServer::onRequest(ConnectionID nConnection, const CJsonRequest& request)
{
    const auto* pEntry = std::find_if(std::begin(REQUESTS), std::end(REQUESTS),
                                      [&](const CEntry& entry) { return request.m_strName == entry.m_pName; });
    if (pEntry == std::end(REQUESTS))
    {
        m_server.refuse(nConnection, request.m_nID, JSON_UNKNOWN_REQUEST, "there is no such request");
        return;
    }
    if (pEntry->m_bOwners && !m_owners.ownerOf(nConnection))
    {
        m_server.refuse(nConnection, request.m_nID, "not-attached", "attach first");
        return;
    }
    try
    {
        CJsonFields fields(request.m_fields);
        CAsk ask{nConnection, fields};
        m_server.answer(nConnection, request.m_nID, (this->*pEntry->m_pFunction)(ask));
    }
    catch (const CRefused& refused)
    {
        m_server.refuse(nConnection, request.m_nID, refused.code(), refused.what());
    }
}

void CCallServer::onDisconnected(ConnectionID nConnection, const std::string& strWhy)
{
    if (const auto strOwner = m_owners.ownerOf(nConnection))
        spdlog::warn("calls: the connection of \"{}\" is lost: {}", printable(*strOwner), strWhy);
    m_owners.lost(nConnection, m_parts.m_clock.now());
}

void CCallServer::dropLost()
{
    for (const std::string& strOwner : m_owners.takeExpired(m_parts.m_clock.now()))
    {
        std::vector<CLegName> vNames;
        for (const auto& [name, pSession] : m_mapSessions)
            if (pSession->owner() == strOwner)
                vNames.push_back(name);
        spdlog::warn("calls: \"{}\" did not come back; {} sessions end", printable(strOwner), vNames.size());
        for (const CLegName& name : vNames)
            endSession(name, "owner-lost");
    }
}

void CCallServer::finish(CJsonFields& fields)
{
    std::string strError;
    if (!fields.finish(strError))
        throw CRefused(JSON_BAD_REQUEST, strError);
}

CLegName CCallServer::legOf(CJsonFields& fields, const char* pCall, const char* pLeg)
{
    std::string strCall = fields.neededText(pCall, 1, MAX_CALL_ID);
    if (strCall.find('\0') != std::string::npos)
        fields.fail("a call id must not hold a NUL");
    return {std::move(strCall), static_cast<uint32_t>(fields.neededNumber(pLeg, 0, UINT32_MAX))};
}

CCallSession& CCallServer::find(const CLegName& name)
{
    const auto it = m_mapSessions.find(name);
    if (it == m_mapSessions.end())
        throw CRefused("no-such-call", "there is no session on " + legText(name));
    return *it->second;
}

CCallSession& CCallServer::findOwn(const CAsk& ask, const CLegName& name)
{
    CCallSession& session = find(name);
    if (session.owner() != m_owners.ownerOf(ask.m_nConnection))
        throw CRefused("refused", legText(name) + " is another owner's");
    return session;
}

ordered_json CCallServer::attach(CAsk& ask)
{
    const std::string strOwner = ask.m_fields.neededText("owner", 1, 256);
    finish(ask.m_fields);
    bool bAttached = false;
    const auto nBefore = m_owners.attach(strOwner, ask.m_nConnection, bAttached);
    if (!bAttached)
        throw CRefused("wrong-state", "this connection is attached to another owner");
    if (nBefore)
        m_server.drop(*nBefore, "another connection speaks for its owner");
    ordered_json sessions = ordered_json::array();
    for (const auto& [name, pSession] : m_mapSessions)
        if (pSession->owner() == strOwner)
            sessions.push_back({{"call", name.first}, {"leg", name.second}, {"last", pSession->events().last()}});
    spdlog::info("calls: \"{}\" is attached, with {} sessions", printable(strOwner), sessions.size());
    return {{"sessions", sessions}};
}

CNetAddress CCallServer::localAddress(CJsonFields& fields) const
{
    const auto strLocal = fields.text("local", 1, 64);
    if (!strLocal)
        return m_settings.m_address;
    const auto address = CNetAddress::parseHost(*strLocal);
    if (!address)
        fields.fail("\"local\" must be an address of this machine");
    return address.value_or(CNetAddress());
}

ordered_json CCallServer::create(CAsk& ask)
{
    const CLegName name = legOf(ask.m_fields);
    const CNetAddress address = localAddress(ask.m_fields);
    CMediaSettings settings = defaultMedia();
    readMediaDescription(ask.m_fields, settings);
    finish(ask.m_fields);
    if (m_mapSessions.count(name) > 0)
        throw CRefused("exists", "there is a session on " + legText(name));
    auto pSession = std::make_shared<CCallSession>(
        name, *m_owners.ownerOf(ask.m_nConnection),
        [this, pAlive = std::weak_ptr(m_pAlive)](const auto& session, const std::string& strLine) {
            if (!pAlive.expired())
                onEvent(session, strLine);
        });
    openMedia(*pSession, address, settings);
    const CNetAddress local = pSession->media().local();
    m_mapSessions.emplace(name, std::move(pSession));
    spdlog::info("calls: session on {} receives at {}", legText(name), local.text());
    const auto nRtcpPort = static_cast<uint16_t>(local.port() + (settings.m_bRtcpMux ? 0 : 1));
    return {{"local", local.text()}, {"rtcp", local.withPort(nRtcpPort).text()}};
}

// Ports that somebody else has taken are passed over.
void CCallServer::openMedia(CCallSession& session, const CNetAddress& address, const CMediaSettings& settings)
{
    std::string strError = "all ports are in use";
    for (size_t nTry = 0; nTry < m_pool.size(); ++nTry)
    {
        const auto nPort = m_pool.take();
        if (!nPort)
            break;
        CFd fdRtcp = bindUdp(address.withPort(static_cast<uint16_t>(*nPort + 1)), strError);
        auto pPort = fdRtcp.isOpen() ? m_parts.m_ports.openOwn(address.withPort(*nPort), strError) : nullptr;
        if (pPort &&
            session.open(m_parts.m_ports, m_parts.m_pPoller, std::move(pPort), std::move(fdRtcp), settings, strError))
            return;
        m_pool.giveBack(*nPort);
    }
    throw CRefused(JSON_FULL, strError);
}

ordered_json CCallServer::update(CAsk& ask)
{
    CCallSession& session = findOwn(ask, legOf(ask.m_fields));
    CMediaSettings settings = session.media().settings();
    readMediaDescription(ask.m_fields, settings);
    finish(ask.m_fields);
    std::string strError;
    if (!session.media().update(settings, strError))
        throw CRefused(JSON_FAILED, strError);
    return ordered_json::object();
}

ordered_json CCallServer::end(CAsk& ask)
{
    const CLegName name = legOf(ask.m_fields);
    const std::string strReason = ask.m_fields.text("reason", 0, 256).value_or("ended");
    finish(ask.m_fields);
    findOwn(ask, name);
    endSession(name, strReason);
    return ordered_json::object();
}

void CCallServer::endSession(CLegName name, const std::string& strReason)
{
    const auto it = m_mapSessions.find(name);
    const CSessionPtr pSession = std::move(it->second);
    m_mapSessions.erase(it);
    const uint16_t nPort = pSession->media().local().port();
    spdlog::info("calls: session on {} ends: {}", legText(name), printable(strReason));
    undoBridge(*pSession);
    pSession->end(strReason);
    m_parts.m_hangUp(name.first, name.second);
    m_pool.giveBack(nPort);
}

ordered_json CCallServer::hangUp(CAsk& ask)
{
    const std::string strCall = ask.m_fields.neededText("call", 1, MAX_CALL_ID);
    const auto llLeg = ask.m_fields.number("leg", 0, UINT32_MAX);
    finish(ask.m_fields);
    const size_t nStreams =
        m_parts.m_hangUp(strCall, llLeg ? std::optional(static_cast<uint32_t>(*llLeg)) : std::nullopt);
    if (nStreams == 0)
        throw CRefused("no-such-call", "there is no stream on call " + printable(strCall));
    return {{"streams", nStreams}};
}

ordered_json CCallServer::get(CAsk& ask)
{
    const CLegName name = legOf(ask.m_fields);
    finish(ask.m_fields);
    return {{"session", find(name).toJson()}};
}

ordered_json CCallServer::list(CAsk& ask)
{
    finish(ask.m_fields);
    ordered_json sessions = ordered_json::array();
    for (const auto& [name, pSession] : m_mapSessions)
        sessions.push_back({{"call", name.first},
                            {"leg", name.second},
                            {"owner", pSession->owner()},
                            {"last", pSession->events().last()},
                            {"media", pSession->media().stateText()}});
    return {{"sessions", sessions}};
}

ordered_json CCallServer::digits(CAsk& ask)
{
    const CLegName name = legOf(ask.m_fields);
    const std::string strKeys = ask.m_fields.neededText("digits", 1, CKeySender::MAX_KEYS);
    const auto nMs = static_cast<unsigned>(ask.m_fields.number("ms", 20, MAX_KEY_MS).value_or(100));
    const auto nGapMs = static_cast<unsigned>(ask.m_fields.number("gap_ms", 20, MAX_GAP_MS).value_or(50));
    if (std::any_of(strKeys.begin(), strKeys.end(), [](char c) { return eventOfKey(c) < 0; }))
        ask.m_fields.fail("\"digits\" must hold 0 to 9, *, # and A to D");
    finish(ask.m_fields);
    if (!findOwn(ask, name).media().press(strKeys, nMs, nGapMs))
        throw CRefused("wrong-state", "too many digits wait, or there is no payload type to send them with");
    return ordered_json::object();
}

ordered_json CCallServer::bridge(CAsk& ask)
{
    const CLegName name = legOf(ask.m_fields);
    const CLegName other = legOf(ask.m_fields, "other_call", "other_leg");
    finish(ask.m_fields);
    CCallSession& session = findOwn(ask, name);
    CCallSession& otherSession = findOwn(ask, other);
    if (!CRtpSession::bridge(session.media(), otherSession.media()))
        throw CRefused("wrong-state", "one of the two is bridged already, or they are one");
    session.setBridged(other);
    otherSession.setBridged(name);
    session.tell({{"event", "bridged"}, {"other_call", other.first}, {"other_leg", other.second}});
    otherSession.tell({{"event", "bridged"}, {"other_call", name.first}, {"other_leg", name.second}});
    return ordered_json::object();
}

ordered_json CCallServer::unbridge(CAsk& ask)
{
    const CLegName name = legOf(ask.m_fields);
    finish(ask.m_fields);
    if (!undoBridge(findOwn(ask, name)))
        throw CRefused("wrong-state", legText(name) + " is not bridged");
    return ordered_json::object();
}

bool CCallServer::undoBridge(CCallSession& session)
{
    if (!session.bridged())
        return false;
    const CLegName name = session.name();
    const CLegName other = *session.bridged();
    session.media().unbridge();
    session.setBridged({});
    session.tell({{"event", "unbridged"}, {"other_call", other.first}, {"other_leg", other.second}});
    CCallSession& otherSession = find(other);
    otherSession.setBridged({});
    otherSession.tell({{"event", "unbridged"}, {"other_call", name.first}, {"other_leg", name.second}});
    return true;
}

ordered_json CCallServer::record(CAsk& ask)
{
    const CLegName name = legOf(ask.m_fields);
    const std::string strFile = ask.m_fields.neededText("file", 0, 4096);
    if (!strFile.empty() && (!strFile.ends_with(".wav") || strFile.find('\0') != std::string::npos))
        ask.m_fields.fail("\"file\" must be the path of a file that ends in .wav");
    finish(ask.m_fields);
    if (!findOwn(ask, name).record(m_parts.m_disk, strFile))
        throw CRefused(JSON_FAILED, "no memory to record");
    return ordered_json::object();
}

ordered_json CCallServer::events(CAsk& ask)
{
    const CLegName name = legOf(ask.m_fields);
    const auto llAfter = ask.m_fields.neededNumber("after", 0, INT64_MAX);
    finish(ask.m_fields);
    return {{"events", findOwn(ask, name).events().after(static_cast<uint64_t>(llAfter))}};
}

void CCallServer::onEvent(const CCallSession& session, const std::string& strLine)
{
    if (const auto nConnection = m_owners.connectionOf(session.owner()))
        m_server.sendLine(*nConnection, strLine);
}

bool CCallServer::openChannel(const std::string& strCallID, uint32_t nLegID, const CChannelFactory::OpenFunction& done)
{
    const auto it = m_mapSessions.find({strCallID, nLegID});
    if (it == m_mapSessions.end())
        return false;
    auto pView = it->second->takeView();
    if (pView)
        done(std::make_unique<CRtpChannel>(std::move(pView)), {});
    else
        done(nullptr, fmt::format("another stream is open on {}", legText(it->first)));
    return true;
}

void CCallChannelFactory::open(const std::string& strCallID, uint32_t nLegID, OpenFunction done)
{
    if (m_pCalls == nullptr || !m_pCalls->openChannel(strCallID, nLegID, done))
        m_others.open(strCallID, nLegID, std::move(done));
}
