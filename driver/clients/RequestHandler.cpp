// What each command does: one request record in, one response record out, at once or later.
#include "RequestHandler.h"

#include "Text.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <exception>
#include <iterator>

namespace
{
structMIRSP response(MIRSP mirsp, uint32_t nSequenceNo, int32_t nResult)
{
    structMIRSP rsp = {};
    rsp.s_mirsp = mirsp;
    rsp.nRespSequenceNo = nSequenceNo;
    rsp.s_nResult = nResult;
    return rsp;
}
} // namespace

CReply::CReply(CRequestHandler& handler, int nConnectID, uint64_t ullTicket, const structMICMD& cmd,
               const CFaultAction& action)
    : m_pHandler(&handler), m_nConnectID(nConnectID), m_ullTicket(ullTicket), m_micmd(cmd.s_micmd),
      m_nSequenceNo(cmd.nSequenceNo), m_action(action)
{
}

void CReply::ok() const
{
    value(MIRSP_STATUS, MISTATUS_OK);
}

void CReply::value(MIRSP mirsp, int32_t nValue) const
{
    m_pHandler->answer(*this, response(mirsp, m_nSequenceNo, nValue));
}

void CReply::refuse(const std::string& strError) const
{
    m_pHandler->refuse(*this, strError);
}

namespace
{
const char* nameOf(MICMD micmd)
{
    const CCommandInfo* pInfo = commandInfo(micmd);
    return pInfo != nullptr ? pInfo->m_pszName : "unknown command";
}
} // namespace

const CRequestHandler::CCommandEntry CRequestHandler::COMMANDS[] = {
    {MICMD_CONNECT, nullptr}, // not of a client yet: see handle
    {MICMD_DISCONNECT, &CRequestHandler::disconnect},
    {MICMD_OPENFILE, &CRequestHandler::openFile},
    {MICMD_CLOSEFILE, &CRequestHandler::closeFile},
    {MICMD_OPENSTREAM, &CRequestHandler::openStream},
    {MICMD_CLOSESTREAM, &CRequestHandler::closeStream},
    {MICMD_PLAYCLIP, &CRequestHandler::playClip},
    {MICMD_PLAYFILE, &CRequestHandler::playFile},
    {MICMD_RECORDFILE, &CRequestHandler::recordFile},
    {MICMD_CANCEL, &CRequestHandler::cancel},
    {MICMD_PLAYGETSTATS, &CRequestHandler::getStats},
    {MICMD_RECORDGETSTATS, &CRequestHandler::getStats},
    {MICMD_PING, &CRequestHandler::ping},
    {MICMD_DUMP, &CRequestHandler::dump},
    {MICMD_RECORDGETTIME, &CRequestHandler::recordGetTime},
    {MICMD_RECORDGETSTATUS, &CRequestHandler::recordGetStatus},
};

const CRequestHandler::CCommandEntry& CRequestHandler::entryOf(MICMD micmd)
{
    static constexpr CCommandEntry UNKNOWN = {MICMD_NULL, &CRequestHandler::unknown};
    const auto* pEntry = std::find_if(std::begin(COMMANDS), std::end(COMMANDS),
                                      [micmd](const CCommandEntry& entry) { return entry.m_micmd == micmd; });
    return pEntry == std::end(COMMANDS) ? UNKNOWN : *pEntry;
}

CRequestHandler::CRequestHandler(const CParts& parts, CHooks hooks, const CLimits& limits)
    : m_parts(parts), m_hooks(std::move(hooks)), m_limits(limits), m_strangers("requests that nobody can be answered")
{
}

void CRequestHandler::handle(const structMICMD& cmd)
{
    m_parts.m_statistics.onRequest(cmd.s_micmd);
    if (cmd.s_micmd == MICMD_CONNECT)
    {
        connect({cmd, std::nullopt});
        return;
    }
    CClient* pClient = m_parts.m_registry.find(cmd.nConnectID);
    if (pClient == nullptr)
    {
        ++m_parts.m_statistics.m_ullDropped;
        m_strangers.warn("dropped {} ({}), sequence {}: there is no client {} to answer", nameOf(cmd.s_micmd),
                         static_cast<int>(cmd.s_micmd), cmd.nSequenceNo, cmd.nConnectID);
        return;
    }
    pClient->m_nLatestSequenceNo = cmd.nSequenceNo;
    if (pClient->m_requests.size() >= CClient::MAX_WAITING_REQUESTS)
    {
        ++m_parts.m_statistics.m_ullDropped;
        pClient->m_warnings.warn("dropped {} of client {}, sequence {}: too many of its requests wait",
                                 nameOf(cmd.s_micmd), cmd.nConnectID, cmd.nSequenceNo);
        return;
    }
    pClient->m_requests.push_back({cmd, std::nullopt});
    run(*pClient);
}

void CRequestHandler::freeze(bool bOn)
{
    m_bFrozen = bOn;
    if (bOn)
        return;
    std::deque<CClient::CRequest> connects;
    connects.swap(m_connects);
    for (const CClient::CRequest& request : connects)
        connect(request); // which may freeze it again
    std::vector<int> vConnectIDs;
    for (const auto& [nConnectID, pClient] : m_parts.m_registry.clients())
        vConnectIDs.push_back(nConnectID);
    for (const int nConnectID : vConnectIDs)
        if (CClient* pClient = m_parts.m_registry.find(nConnectID))
            run(*pClient);
}

void CRequestHandler::run(CClient& client)
{
    if (client.m_bRunning)
        return;
    client.m_bRunning = true;
    while (client.m_ullTicket == 0 && !client.m_requests.empty() && !client.m_bGone && !m_bFrozen)
    {
        const CClient::CRequest request = client.m_requests.front();
        client.m_requests.pop_front();
        execute(client, request);
    }
    client.m_bRunning = false;
}

void CRequestHandler::execute(CClient& client, CClient::CRequest request)
{
    if (!request.m_action)
    {
        request.m_action = m_parts.m_faults.onCommand(request.m_cmd.s_micmd, callIdOf(client, request.m_cmd));
        if (actOnFault(client, request))
            return;
    }
    const CCommandEntry& entry = entryOf(request.m_cmd.s_micmd);
    client.m_ullTicket = m_ullNextTicket++;
    const CReply reply(*this, client.connectId(), client.m_ullTicket, request.m_cmd, *request.m_action);
    if (request.m_action->m_bRefuse)
    {
        reply.refuse("a fault rule says so");
        return;
    }
    try
    {
        (this->*entry.m_pFunction)(client, request.m_cmd, reply);
    }
    catch (const std::exception& exception)
    {
        // Out of memory, in the first place: it is this client's request that asks for too much.
        reply.refuse(exception.what());
    }
}

// Whether the request is not to be carried out, or not now.
bool CRequestHandler::actOnFault(CClient& client, CClient::CRequest& request)
{
    const CFaultAction action = *request.m_action;
    if (action.m_bDie)
    {
        m_hooks.m_die();
        return true;
    }
    if (action.m_bDropClient)
    {
        m_parts.m_registry.drop(client.connectId(), "a fault rule says so");
        return true;
    }
    if (action.m_bFreeze)
    {
        client.m_requests.push_front(request);
        m_hooks.m_freeze(action.m_freezeFor);
        return true;
    }
    return false;
}

std::string CRequestHandler::callIdOf(const CClient& client, const structMICMD& cmd) const
{
    std::string strCallID;
    if (cmd.s_micmd == MICMD_OPENSTREAM)
    {
        fieldText(cmd.openStream.szCallID, strCallID);
        return strCallID;
    }
    const CCommandInfo* pInfo = commandInfo(cmd.s_micmd);
    const auto pStream = pInfo != nullptr && namesStream(*pInfo) ? client.findStream(cmd.stream.nStreamID) : nullptr;
    return pStream ? pStream->callId() : strCallID;
}

void CRequestHandler::connect(CClient::CRequest request)
{
    if (!m_bFrozen && !request.m_action)
    {
        request.m_action = m_parts.m_faults.onCommand(MICMD_CONNECT, {});
        if (request.m_action->m_bDie)
        {
            m_hooks.m_die();
            return;
        }
        if (request.m_action->m_bFreeze)
            m_hooks.m_freeze(request.m_action->m_freezeFor);
    }
    if (m_bFrozen && m_connects.size() < CClient::MAX_WAITING_REQUESTS)
    {
        m_connects.push_back(request);
        return;
    }
    m_bFrozen ? dropConnect(request.m_cmd, "too many wait") : addClient(request.m_cmd, *request.m_action);
}

void CRequestHandler::dropConnect(const structMICMD& cmd, const std::string& strError)
{
    ++m_parts.m_statistics.m_ullDropped;
    m_strangers.warn("dropped MICMD_CONNECT, sequence {}: {}", cmd.nSequenceNo, strError);
}

void CRequestHandler::addClient(const structMICMD& cmd, const CFaultAction& action)
{
    std::string strError;
    std::unique_ptr<CClientPort> pPort = m_parts.m_opener.open(cmd.connect, strError);
    CClient* pClient = pPort ? m_parts.m_registry.add(std::move(pPort)) : nullptr;
    if (pClient == nullptr)
    {
        dropConnect(cmd, strError.empty() ? "no further client can be watched" : strError);
        return;
    }
    pClient->m_nLatestSequenceNo = cmd.nSequenceNo;
    const int nConnectID = pClient->connectId();
    if (action.m_bRefuse)
    {
        ++m_parts.m_statistics.m_ullRefused;
        m_parts.m_outbox.respond(nConnectID, response(MIRSP_STATUS, cmd.nSequenceNo, MISTATUS_FAILED), action);
    }
    else if (!action.m_bDropClient)
    {
        m_parts.m_outbox.respond(nConnectID, response(MIRSP_CONNECT, cmd.nSequenceNo, nConnectID), action);
    }
    if (action.m_bRefuse || action.m_bDropClient)
    {
        m_parts.m_outbox.afterResponse(
            action, [this, nConnectID] { m_parts.m_registry.drop(nConnectID, "a fault rule says so"); });
    }
}

void CRequestHandler::refuse(const CReply& reply, const std::string& strError)
{
    CClient* pClient = m_parts.m_registry.find(reply.m_nConnectID);
    if (pClient != nullptr && pClient->m_ullTicket == reply.m_ullTicket)
    {
        ++m_parts.m_statistics.m_ullRefused;
        pClient->m_warnings.warn("refused {} ({}) of client {}, sequence {}: {}", nameOf(reply.m_micmd),
                                 static_cast<int>(reply.m_micmd), reply.m_nConnectID, reply.m_nSequenceNo, strError);
    }
    answer(reply, response(MIRSP_STATUS, reply.m_nSequenceNo, MISTATUS_FAILED));
}

void CRequestHandler::answer(const CReply& reply, const structMIRSP& rsp)
{
    CClient* pClient = m_parts.m_registry.find(reply.m_nConnectID);
    if (pClient == nullptr || pClient->m_ullTicket != reply.m_ullTicket)
        return;
    spdlog::debug("answers {} of client {}, sequence {}, with {} {}", nameOf(reply.m_micmd), reply.m_nConnectID,
                  reply.m_nSequenceNo, static_cast<int>(rsp.s_mirsp), rsp.s_nResult);
    pClient->m_ullTicket = 0;
    m_parts.m_outbox.respond(reply.m_nConnectID, rsp, reply.m_action);
    if (reply.m_micmd == MICMD_DISCONNECT)
    {
        m_parts.m_outbox.afterResponse(
            reply.m_action, [this, nConnectID = reply.m_nConnectID] { m_parts.m_registry.disconnect(nConnectID); });
    }
    run(*pClient);
}

void CRequestHandler::dump() const
{
    for (const auto& [nConnectID, pClient] : m_parts.m_registry.clients())
    {
        spdlog::info("dump: client {}, process {}, {} events wait", nConnectID, pClient->port().processId(),
                     pClient->waitingEvents());
        for (const auto& [nFileID, pClip] : pClient->m_mapFileByID)
            spdlog::info("dump:   file {}, \"{}\", {} samples", nFileID, printable(pClip->path()), pClip->ready());
        for (const auto& [nStreamID, pStream] : pClient->m_mapStreamByID)
            spdlog::info("dump:   {}", pStream->describe());
    }
}

void CRequestHandler::reportLeftOut()
{
    m_strangers.reportLeftOut();
    for (const auto& [nConnectID, pClient] : m_parts.m_registry.clients())
        pClient->m_warnings.reportLeftOut();
}
