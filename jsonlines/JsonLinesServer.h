// The server's end of JSON lines over a Unix stream socket: requests come in, answers and pushed events go out.
#ifndef JSON_LINES_SERVER_H
#define JSON_LINES_SERVER_H

#include "JsonSocket.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// The codes of refusals that every server makes; each has more of its own.
inline constexpr char JSON_BAD_REQUEST[] = "bad-request";
inline constexpr char JSON_UNKNOWN_REQUEST[] = "unknown-request";
inline constexpr char JSON_FULL[] = "full";
inline constexpr char JSON_FAILED[] = "failed";

struct CJsonRequest
{
    // Its answer carries it; nothing for simple clients, which wait for each answer before they ask again.
    std::optional<uint64_t> m_nID;
    std::string m_strName;
    nlohmann::json m_fields; // the object without "id" and "request"; CJsonFields reads it
};

// What the owner of a server does. All is called from within CJsonLinesServer::onReadable, by its thread, and
// may call everything of the server but its destructor and open. An exception in onRequest refuses the request
// with "failed" and what(), if it is open still; the others must not throw.
class CJsonLinesHandler
{
public:
    using ConnectionID = uint64_t; // from 1 on, never used again

    virtual ~CJsonLinesHandler() = default;

    // Besides those whom the mode of the socket file keeps away. False turns the peer away without a word.
    virtual bool mayConnect(const CJsonPeer&) { return true; }
    virtual void onConnected(ConnectionID, const CJsonPeer&) {}

    // To be answered once, now or later, by answer or refuse.
    virtual void onRequest(ConnectionID nConnection, const CJsonRequest& request) = 0;

    // Once for each that was connected, whoever ended it, and never for those that the server's end ends. The
    // connection does not exist any more; its requests cannot be answered.
    virtual void onDisconnected(ConnectionID, const std::string& /* strWhy: for the log */) {}
};

// Has no thread and never waits: the owner's loop watches one descriptor for being readable. Not thread-safe.
//
//   server.open(strError);
//   ... watch server.descriptor() for EPOLLIN (POLLIN, SU_WAIT_IN), and whenever it is there: server.onReadable();
//
// A peer that does not take its answers is not read any more. One that leaves more waiting than the limit when an
// event or another answer is due is dropped.
class CJsonLinesServer
{
public:
    using ConnectionID = CJsonLinesHandler::ConnectionID;

    struct CSettings
    {
        std::string m_strPath;
        mode_t m_nMode = 0660;
        nlohmann::ordered_json m_hello = nullptr; // the first line for everyone; null: there is none
        size_t m_nMaxConnections = 64;
        bool m_bEvictIdle = false; // where there is no room: the one that has been quiet for longest and has no
                                   // request outstanding goes. Else, or without such a one, the new one is turned away.
        size_t m_nMaxLine = 65536; // bytes of a request before its LF
        size_t m_nMaxWaiting = 1U << 20U;              // bytes: who leaves more is too slow
        size_t m_nMaxOutstanding = 256;                // requests of a connection; more of them wait unread
        size_t m_nRequestsPerTurn = 16;                // of a connection, in one call of onReadable
        bool m_bErrorIsText = false;                   // "error":"text" instead of "error":{"code":...,"text":...}
        std::function<void(const std::string&)> m_log; // gets a line for the operator; may be empty
    };

    // The handler must outlive the server.
    CJsonLinesServer(CSettings settings, CJsonLinesHandler& handler);
    // Ends all connections, without a word to the handler, and removes the socket file.
    ~CJsonLinesServer();
    CJsonLinesServer(const CJsonLinesServer&) = delete;
    CJsonLinesServer& operator=(const CJsonLinesServer&) = delete;

    // As CListeningSocket::open.
    bool open(std::string& strError);

    // Readable, by epoll, poll or select, whenever there is something to do. It is an epoll descriptor: one
    // look at it is enough however many connections there are.
    int descriptor() const { return m_fdEpoll.get(); }
    // Does a bounded part of it. To be called again while the descriptor is readable.
    void onReadable();

    // Answers a request: a line with its id, "ok":true and the fields. False when it is not open: answered
    // already, or the connection is gone.
    bool answer(ConnectionID nConnection, const std::optional<uint64_t>& nRequestID,
                const nlohmann::ordered_json& fields = nlohmann::ordered_json::object());
    bool refuse(ConnectionID nConnection, const std::optional<uint64_t>& nRequestID, const std::string& strCode,
                const std::string& strText);

    // Pushes a message, or a line of one with its LF at the end. False when there is no such connection or when
    // this one was too slow and is dropped.
    bool send(ConnectionID nConnection, const nlohmann::ordered_json& message);
    bool sendLine(ConnectionID nConnection, const std::string& strLine);

    // Ends a connection: as soon as the peer has taken what waits; at once.
    void close(ConnectionID nConnection, const std::string& strWhy);
    void drop(ConnectionID nConnection, const std::string& strWhy);

    size_t connections() const;

private:
    struct CConnection;

    void accept();
    bool makeRoom();
    void turnAway(int nFd);
    void turn(CConnection& connection, uint32_t nEvents);
    void takeLines(CConnection& connection);
    void handleLine(CConnection& connection, const std::string& strLine);
    bool parseRequest(CConnection& connection, const std::string& strLine, CJsonRequest& request,
                      std::string& strError);
    void endIfDone(CConnection& connection, bool bPeerGone);
    void reapDropped();
    bool mayTake(const CConnection& connection) const;
    void watch(CConnection& connection);
    void drop(CConnection& connection, const std::string& strWhy);
    bool sendTo(CConnection& connection, const std::string& strLine);
    nlohmann::ordered_json refusal(const std::optional<uint64_t>& nRequestID, const std::string& strCode,
                                   const std::string& strText) const;
    CConnection* find(ConnectionID nConnection);
    CConnection* findOpen(ConnectionID nConnection, const std::optional<uint64_t>& nRequestID);
    void log(const std::string& strLine) const;

    const CSettings m_settings;
    CJsonLinesHandler& m_handler;
    CListeningSocket m_listening;
    CSocketFd m_fdEpoll;
    CSocketFd m_fdSpare; // given up to turn somebody away when there is no other descriptor
    std::map<ConnectionID, std::unique_ptr<CConnection>> m_mapConnectionByID;
    std::vector<ConnectionID> m_vDropped; // still in the map; nothing of them is used but their end
    ConnectionID m_nNextID = 1;
    uint64_t m_ullUses = 0;
};

#endif
