// The server's end of JSON lines over a Unix stream socket: requests come in, answers and pushed events go out.
#include "JsonLinesServer.h"

#include "JsonLinesStream.h"
#include "JsonText.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <set>
#include <utility>

struct CJsonLinesServer::CConnection
{
    CConnection(ConnectionID nID, CSocketFd fd, const CJsonPeer& peer, size_t nMaxLine)
        : m_nID(nID), m_peer(peer), m_stream(std::move(fd), nMaxLine)
    {
    }

    size_t outstanding() const { return m_setOpenIDs.size() + m_nOpenWithoutID; }

    const ConnectionID m_nID;
    const CJsonPeer m_peer;
    CJsonLinesStream m_stream;
    uint32_t m_nWatched = EPOLLIN;
    uint64_t m_ullLastUse = 0;
    std::optional<uint64_t> m_nLastRequestID;
    std::set<uint64_t> m_setOpenIDs;
    size_t m_nOpenWithoutID = 0;
    bool m_bClosing = false; // ends when all is sent
    bool m_bDropped = false;
    std::string m_strWhy;
};

namespace
{
constexpr uint64_t LISTENER = 0; // where a connection has its id
} // namespace

CJsonLinesServer::CJsonLinesServer(CSettings settings, CJsonLinesHandler& handler)
    : m_settings(std::move(settings)), m_handler(handler)
{
}

CJsonLinesServer::~CJsonLinesServer() = default;

bool CJsonLinesServer::open(std::string& strError)
{
    if (!m_listening.open(m_settings.m_strPath, m_settings.m_nMode, strError))
        return false;
    m_fdSpare = CSocketFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    m_fdEpoll = CSocketFd(::epoll_create1(EPOLL_CLOEXEC));
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = LISTENER;
    if (!m_fdEpoll.isOpen() || ::epoll_ctl(m_fdEpoll.get(), EPOLL_CTL_ADD, m_listening.get(), &event) != 0)
    {
        strError = "cannot watch " + quotedText(m_settings.m_strPath) + ": " + errnoText(errno);
        return false;
    }
    return true;
}

void CJsonLinesServer::onReadable()
{
    std::array<epoll_event, 64> events;
    const int nEvents = ::epoll_wait(m_fdEpoll.get(), events.data(), static_cast<int>(events.size()), 0);
    for (int n = 0; n < nEvents; ++n)
    {
        const epoll_event& event = events[static_cast<size_t>(n)];
        if (event.data.u64 == LISTENER)
            accept();
        else if (CConnection* pConnection = find(event.data.u64))
            turn(*pConnection, event.events);
    }
    reapDropped();
}

void CJsonLinesServer::accept()
{
    CSocketFd fd(::accept4(m_listening.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd.isOpen())
    {
        if (errno == EMFILE || errno == ENFILE)
        {
            // One that waits for ever would wake the loop for ever.
            m_fdSpare.close();
            CSocketFd(::accept4(m_listening.get(), nullptr, nullptr, SOCK_CLOEXEC)).close();
            m_fdSpare = CSocketFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
            log("turned somebody away: all file descriptors are in use");
        }
        return;
    }
    CJsonPeer peer;
    if (!peerOf(fd.get(), peer) || !m_handler.mayConnect(peer))
    {
        log("turned away process " + std::to_string(peer.m_nProcessID) + " of user " + std::to_string(peer.m_nUser));
        return;
    }
    if (!makeRoom())
    {
        turnAway(fd.get());
        return;
    }
    const ConnectionID nID = m_nNextID++;
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = nID;
    if (::epoll_ctl(m_fdEpoll.get(), EPOLL_CTL_ADD, fd.get(), &event) != 0)
    {
        log("turned somebody away: " + errnoText(errno));
        return;
    }
    auto& pConnection = m_mapConnectionByID[nID];
    pConnection = std::make_unique<CConnection>(nID, std::move(fd), peer, m_settings.m_nMaxLine);
    pConnection->m_ullLastUse = ++m_ullUses;
    if (!m_settings.m_hello.is_null())
        sendTo(*pConnection, jsonLine(m_settings.m_hello));
    m_handler.onConnected(nID, peer);
}

bool CJsonLinesServer::makeRoom()
{
    if (connections() < m_settings.m_nMaxConnections)
        return true;
    CConnection* pQuiet = nullptr;
    for (const auto& [nID, pConnection] : m_mapConnectionByID)
        if (!pConnection->m_bDropped && pConnection->outstanding() == 0 && pConnection->m_stream.waiting() == 0 &&
            (pQuiet == nullptr || pConnection->m_ullLastUse < pQuiet->m_ullLastUse))
            pQuiet = pConnection.get();
    if (!m_settings.m_bEvictIdle || pQuiet == nullptr)
        return false;
    drop(*pQuiet, "it was quiet, and there was no room for another connection");
    return true;
}

void CJsonLinesServer::turnAway(int nFd)
{
    const std::string strText = "there are " + std::to_string(m_settings.m_nMaxConnections) + " connections already";
    const std::string strLine = jsonLine(refusal(std::nullopt, JSON_FULL, strText));
    ::send(nFd, strLine.data(), strLine.size(), MSG_DONTWAIT | MSG_NOSIGNAL); // fits into a fresh socket
    log("turned somebody away: " + strText);
}

void CJsonLinesServer::turn(CConnection& connection, uint32_t nEvents)
{
    connection.m_ullLastUse = ++m_ullUses;
    if (!connection.m_stream.flush())
    {
        drop(connection, "the peer is gone");
        return;
    }
    takeLines(connection);
    if (connection.m_stream.isTooLong() && !connection.m_bClosing && !connection.m_bDropped)
    {
        const std::string strText = "a line has at most " + std::to_string(m_settings.m_nMaxLine) + " bytes";
        sendTo(connection, jsonLine(refusal(std::nullopt, JSON_BAD_REQUEST, strText)));
        close(connection.m_nID, "the peer sent a line that is too long");
    }
    endIfDone(connection, (nEvents & (EPOLLHUP | EPOLLERR)) != 0);
    watch(connection);
}

void CJsonLinesServer::takeLines(CConnection& connection)
{
    std::string strLine;
    if (mayTake(connection))
        connection.m_stream.read();
    for (size_t n = 0; n < m_settings.m_nRequestsPerTurn && mayTake(connection); ++n)
    {
        if (!connection.m_stream.takeLine(strLine))
            break;
        handleLine(connection, strLine);
    }
}

void CJsonLinesServer::handleLine(CConnection& connection, const std::string& strLine)
{
    CJsonRequest request;
    std::string strError;
    if (!parseRequest(connection, strLine, request, strError))
    {
        sendTo(connection, jsonLine(refusal(request.m_nID, JSON_BAD_REQUEST, strError)));
        return;
    }
    if (request.m_nID)
        connection.m_setOpenIDs.insert(*request.m_nID);
    else
        ++connection.m_nOpenWithoutID;
    try
    {
        m_handler.onRequest(connection.m_nID, request);
    }
    catch (const std::exception& exception)
    {
        refuse(connection.m_nID, request.m_nID, JSON_FAILED, exception.what());
    }
}

bool CJsonLinesServer::parseRequest(CConnection& connection, const std::string& strLine, CJsonRequest& request,
                                    std::string& strError)
{
    if (!parseJsonObject(strLine, request.m_fields, strError))
        return false;
    const auto itID = request.m_fields.find("id");
    if (itID != request.m_fields.end())
    {
        if (!itID->is_number_unsigned())
        {
            strError = "\"id\" must be a whole number from 0 on";
            return false;
        }
        request.m_nID = itID->get<uint64_t>();
        if (connection.m_nLastRequestID && *request.m_nID <= *connection.m_nLastRequestID)
        {
            strError = "\"id\" must be larger than the one before, " + std::to_string(*connection.m_nLastRequestID);
            return false;
        }
        connection.m_nLastRequestID = request.m_nID;
        request.m_fields.erase(itID);
    }
    const auto itName = request.m_fields.find("request");
    if (itName == request.m_fields.end() || !itName->is_string())
    {
        strError = "\"request\" is missing or no text";
        return false;
    }
    request.m_strName = itName->get<std::string>();
    request.m_fields.erase(itName);
    return true;
}

void CJsonLinesServer::endIfDone(CConnection& connection, bool bPeerGone)
{
    if (connection.m_bDropped)
        return;
    const CJsonLinesStream& stream = connection.m_stream;
    const bool bNothingComes = stream.hasEnded() && !stream.hasLine();
    if (connection.m_bClosing && stream.waiting() == 0)
        drop(connection, connection.m_strWhy);
    else if (bPeerGone && (bNothingComes || !mayTake(connection)))
        drop(connection, "the peer is gone");
    else if (bNothingComes && connection.outstanding() == 0 && stream.waiting() == 0)
        drop(connection, "the peer has ended it");
}

void CJsonLinesServer::reapDropped()
{
    while (!m_vDropped.empty())
    {
        const auto it = m_mapConnectionByID.find(m_vDropped.back());
        m_vDropped.pop_back();
        const std::unique_ptr<CConnection> pConnection = std::move(it->second);
        m_mapConnectionByID.erase(it);
        m_handler.onDisconnected(pConnection->m_nID, pConnection->m_strWhy);
    }
}

bool CJsonLinesServer::mayTake(const CConnection& connection) const
{
    return !connection.m_bClosing && !connection.m_bDropped && connection.m_stream.waiting() == 0 &&
           connection.outstanding() < m_settings.m_nMaxOutstanding;
}

void CJsonLinesServer::watch(CConnection& connection)
{
    if (connection.m_bDropped)
        return;
    uint32_t nEvents = 0;
    if (connection.m_stream.waiting() > 0)
    {
        nEvents = EPOLLOUT;
    }
    else if (mayTake(connection))
    {
        // A line that came along with others has to wait for no more than its turn.
        const uint32_t nMore = connection.m_stream.hasEnded() ? 0U : EPOLLIN;
        nEvents = connection.m_stream.hasLine() ? EPOLLOUT : nMore;
    }
    if (nEvents != connection.m_nWatched)
    {
        epoll_event event = {};
        event.events = nEvents;
        event.data.u64 = connection.m_nID;
        connection.m_nWatched = nEvents;
        ::epoll_ctl(m_fdEpoll.get(), EPOLL_CTL_MOD, connection.m_stream.descriptor(), &event);
    }
}

void CJsonLinesServer::drop(CConnection& connection, const std::string& strWhy)
{
    if (!connection.m_bDropped)
    {
        connection.m_bDropped = true;
        connection.m_strWhy = strWhy;
        m_vDropped.push_back(connection.m_nID);
        // Makes the descriptor readable, so that the handler hears of it.
        ::shutdown(connection.m_stream.descriptor(), SHUT_RDWR);
    }
}

bool CJsonLinesServer::sendTo(CConnection& connection, const std::string& strLine)
{
    if (connection.m_stream.waiting() > m_settings.m_nMaxWaiting)
    {
        log("dropped process " + std::to_string(connection.m_peer.m_nProcessID) +
            ", which is too slow: " + std::to_string(connection.m_stream.waiting()) + " bytes wait for it");
        drop(connection, "it was too slow");
        return false;
    }
    connection.m_stream.append(strLine);
    if (!connection.m_stream.flush())
    {
        drop(connection, "the peer is gone");
        return false;
    }
    endIfDone(connection, false);
    watch(connection);
    return true;
}

bool CJsonLinesServer::answer(ConnectionID nConnection, const std::optional<uint64_t>& nRequestID,
                              const nlohmann::ordered_json& fields)
{
    CConnection* pConnection = findOpen(nConnection, nRequestID);
    if (pConnection == nullptr)
        return false;
    nlohmann::ordered_json message = nlohmann::ordered_json::object();
    if (nRequestID)
        message["id"] = *nRequestID;
    message["ok"] = true;
    message.update(fields);
    return sendTo(*pConnection, jsonLine(message));
}

bool CJsonLinesServer::refuse(ConnectionID nConnection, const std::optional<uint64_t>& nRequestID,
                              const std::string& strCode, const std::string& strText)
{
    CConnection* pConnection = findOpen(nConnection, nRequestID);
    return pConnection != nullptr && sendTo(*pConnection, jsonLine(refusal(nRequestID, strCode, strText)));
}

bool CJsonLinesServer::send(ConnectionID nConnection, const nlohmann::ordered_json& message)
{
    return sendLine(nConnection, jsonLine(message));
}

bool CJsonLinesServer::sendLine(ConnectionID nConnection, const std::string& strLine)
{
    CConnection* pConnection = find(nConnection);
    return pConnection != nullptr && !pConnection->m_bClosing && sendTo(*pConnection, strLine);
}

void CJsonLinesServer::close(ConnectionID nConnection, const std::string& strWhy)
{
    CConnection* pConnection = find(nConnection);
    if (pConnection == nullptr || pConnection->m_bClosing)
        return;
    pConnection->m_bClosing = true;
    pConnection->m_strWhy = strWhy;
    endIfDone(*pConnection, false);
    watch(*pConnection);
}

void CJsonLinesServer::drop(ConnectionID nConnection, const std::string& strWhy)
{
    if (CConnection* pConnection = find(nConnection))
        drop(*pConnection, strWhy);
}

size_t CJsonLinesServer::connections() const
{
    return m_mapConnectionByID.size() - m_vDropped.size();
}

nlohmann::ordered_json CJsonLinesServer::refusal(const std::optional<uint64_t>& nRequestID, const std::string& strCode,
                                                 const std::string& strText) const
{
    nlohmann::ordered_json message = nlohmann::ordered_json::object();
    if (nRequestID)
        message["id"] = *nRequestID;
    message["ok"] = false;
    if (m_settings.m_bErrorIsText)
        message["error"] = strText;
    else
        message["error"] = {{"code", strCode}, {"text", strText}};
    return message;
}

CJsonLinesServer::CConnection* CJsonLinesServer::find(ConnectionID nConnection)
{
    const auto it = m_mapConnectionByID.find(nConnection);
    return it == m_mapConnectionByID.end() || it->second->m_bDropped ? nullptr : it->second.get();
}

CJsonLinesServer::CConnection* CJsonLinesServer::findOpen(ConnectionID nConnection,
                                                          const std::optional<uint64_t>& nRequestID)
{
    CConnection* pConnection = find(nConnection);
    if (pConnection == nullptr)
        return nullptr;
    if (nRequestID)
        return pConnection->m_setOpenIDs.erase(*nRequestID) > 0 ? pConnection : nullptr;
    if (pConnection->m_nOpenWithoutID == 0)
        return nullptr;
    --pConnection->m_nOpenWithoutID;
    return pConnection;
}

void CJsonLinesServer::log(const std::string& strLine) const
{
    if (m_settings.m_log)
        m_settings.m_log(strLine);
}
