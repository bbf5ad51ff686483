// The call socket: programs make, change and end the sessions of calls, and get their events.
#ifndef DRIVER_CALL_SERVER_H
#define DRIVER_CALL_SERVER_H

#include "CallSession.h"
#include "Channel.h"
#include "JsonFields.h"
#include "JsonLinesServer.h"
#include "JsonOwners.h"
#include "PortPool.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

// Used on the loop's thread.
class CCallServer : private CJsonLinesHandler
{
public:
    // All must outlive the server.
    struct CParts
    {
        CRtpPorts& m_ports;
        CPoller* m_pPoller; // may be null: then reports are looked for in each tick
        const CClock& m_clock;
        CExecutor& m_disk;
        // Hangs up the streams on a call, or on one leg of it, and returns how many.
        std::function<size_t(const std::string& strCallID, std::optional<uint32_t> nLegID)> m_hangUp;
    };
    struct CSettings
    {
        std::string m_strSocket;
        CNetAddress m_address; // where media is received, if the request does not say
        uint16_t m_nFirstPort = 20000;
        uint16_t m_nLastPort = 29999;
    };

    CCallServer(CParts parts, CSettings settings);
    // Says goodbye on all sessions.
    ~CCallServer() override;

    bool open(std::string& strError) { return m_server.open(strError); }
    int descriptor() const { return m_server.descriptor(); }
    void onReadable() { m_server.onReadable(); }

    // About once a second: ends the sessions of owners who did not come back.
    void dropLost();

    // The channel on a call and leg: a view of its session. False when there is none of that name.
    bool openChannel(const std::string& strCallID, uint32_t nLegID, const CChannelFactory::OpenFunction& done);

    size_t count() const { return m_mapSessions.size(); }

private:
    using CSessionPtr = std::shared_ptr<CCallSession>;
    struct CAsk
    {
        ConnectionID m_nConnection;
        CJsonFields& m_fields;
    };
    using RequestFunction = nlohmann::ordered_json (CCallServer::*)(CAsk& ask);
    struct CEntry
    {
        const char* m_pName;
        RequestFunction m_pFunction;
        bool m_bOwners; // only for those who are attached
    };
    static const CEntry REQUESTS[];

    void onRequest(ConnectionID nConnection, const CJsonRequest& request) override;
    void onDisconnected(ConnectionID nConnection, const std::string& strWhy) override;

    nlohmann::ordered_json attach(CAsk& ask);
    nlohmann::ordered_json create(CAsk& ask);
    nlohmann::ordered_json update(CAsk& ask);
    nlohmann::ordered_json end(CAsk& ask);
    nlohmann::ordered_json hangUp(CAsk& ask);
    nlohmann::ordered_json get(CAsk& ask);
    nlohmann::ordered_json list(CAsk& ask);
    nlohmann::ordered_json digits(CAsk& ask);
    nlohmann::ordered_json bridge(CAsk& ask);
    nlohmann::ordered_json unbridge(CAsk& ask);
    nlohmann::ordered_json record(CAsk& ask);
    nlohmann::ordered_json events(CAsk& ask);

    static CLegName legOf(CJsonFields& fields, const char* pCall = "call", const char* pLeg = "leg");
    static void finish(CJsonFields& fields);
    CCallSession& find(const CLegName& name);
    CCallSession& findOwn(const CAsk& ask, const CLegName& name);
    CNetAddress localAddress(CJsonFields& fields) const;
    void openMedia(CCallSession& session, const CNetAddress& address, const CMediaSettings& settings);
    bool undoBridge(CCallSession& session);
    // The name is a copy, as it may be that of the map, which goes.
    void endSession(CLegName name, const std::string& strReason);
    void onEvent(const CCallSession& session, const std::string& strLine);

    const CParts m_parts;
    const CSettings m_settings;
    CPortPool m_pool;
    CJsonOwners m_owners;
    std::map<CLegName, CSessionPtr> m_mapSessions;
    const std::shared_ptr<bool> m_pAlive = std::make_shared<bool>(true); // sessions end after it when they record
    CJsonLinesServer m_server;
};

// Channels of calls that have a session, and of all others by the factory behind it.
class CCallChannelFactory : public CChannelFactory
{
public:
    explicit CCallChannelFactory(CChannelFactory& others) : m_others(others) {}

    // Null when there are no calls.
    void setCalls(CCallServer* pCalls) { m_pCalls = pCalls; }

    void open(const std::string& strCallID, uint32_t nLegID, OpenFunction done) override;

private:
    CChannelFactory& m_others;
    CCallServer* m_pCalls = nullptr;
};

#endif
