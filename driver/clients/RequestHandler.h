// What each command does: one request record in, one response record out, at once or later.
#ifndef DRIVER_REQUEST_HANDLER_H
#define DRIVER_REQUEST_HANDLER_H

#include "Channel.h"
#include "ClientRegistry.h"
#include "ClipStore.h"
#include "FaultRules.h"
#include "MediaClock.h"
#include "MediaProtocol.h"
#include "Outbox.h"
#include "Statistics.h"

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <string>

class CRequestHandler;

// The way back to the sender of a request. It is good for one answer, and for nothing once the client is
// gone. May be copied.
class CReply
{
public:
    CReply(CRequestHandler& handler, int nConnectID, uint64_t ullTicket, const structMICMD& cmd,
           const CFaultAction& action);

    int connectId() const { return m_nConnectID; }
    uint32_t sequenceNo() const { return m_nSequenceNo; }

    void ok() const;
    void value(MIRSP mirsp, int32_t nValue) const;
    void refuse(const std::string& strError) const;

private:
    friend class CRequestHandler;

    CRequestHandler* m_pHandler;
    int m_nConnectID;
    uint64_t m_ullTicket;
    MICMD m_micmd;
    uint32_t m_nSequenceNo;
    CFaultAction m_action;
};

class CRequestHandler
{
public:
    // All of them must outlive the handler.
    struct CParts
    {
        CClientRegistry& m_registry;
        COutbox& m_outbox;
        CClipStore& m_clipStore;
        CChannelFactory& m_channels;
        CClientPortOpener& m_opener;
        CMediaClock& m_clock;
        CExecutor& m_disk;
        CFaultRules& m_faults;
        CStatistics& m_statistics;
    };
    // What fault rules ask of the program: to stop for a time, or until it is told to go on, and to die.
    struct CHooks
    {
        std::function<void(std::optional<std::chrono::milliseconds> time)> m_freeze;
        std::function<void()> m_die;
    };

    // What one client may have open at a time.
    struct CLimits
    {
        size_t m_nStreams = 10000;
        size_t m_nFiles = 10000;
    };

    CRequestHandler(const CParts& parts, CHooks hooks, const CLimits& limits);
    CRequestHandler(const CParts& parts, CHooks hooks) : CRequestHandler(parts, std::move(hooks), CLimits()) {}

    // Carries out a request and answers it, after the client's earlier ones. What cannot be answered,
    // because it comes from no known client, is logged and dropped. Any content is acceptable; nothing is
    // thrown for it.
    void handle(const structMICMD& cmd);

    // While it is frozen no request is carried out; they wait.
    void freeze(bool bOn);

    // Logs the clients with their files and streams.
    void dump() const;

    // About once a second: says which warnings were left out.
    void reportLeftOut();

private:
    friend class CReply;

    using CommandFunction = void (CRequestHandler::*)(CClient& client, const structMICMD& cmd, const CReply& reply);
    struct CCommandEntry
    {
        MICMD m_micmd;
        CommandFunction m_pFunction;
    };
    static const CCommandEntry COMMANDS[];

    static const CCommandEntry& entryOf(MICMD micmd);

    void run(CClient& client);
    void execute(CClient& client, CClient::CRequest request);
    bool actOnFault(CClient& client, CClient::CRequest& request);
    std::string callIdOf(const CClient& client, const structMICMD& cmd) const;
    void connect(CClient::CRequest request);
    void addClient(const structMICMD& cmd, const CFaultAction& action);
    void dropConnect(const structMICMD& cmd, const std::string& strError);
    void answer(const CReply& reply, const structMIRSP& rsp);
    void refuse(const CReply& reply, const std::string& strError);

    // In MediaRequests.cpp. Each calls one operation of the reply, now or later.
    void disconnect(CClient& client, const structMICMD& cmd, const CReply& reply);
    void openFile(CClient& client, const structMICMD& cmd, const CReply& reply);
    void closeFile(CClient& client, const structMICMD& cmd, const CReply& reply);
    void openStream(CClient& client, const structMICMD& cmd, const CReply& reply);
    void closeStream(CClient& client, const structMICMD& cmd, const CReply& reply);
    void playClip(CClient& client, const structMICMD& cmd, const CReply& reply);
    void playFile(CClient& client, const structMICMD& cmd, const CReply& reply);
    void recordFile(CClient& client, const structMICMD& cmd, const CReply& reply);
    void cancel(CClient& client, const structMICMD& cmd, const CReply& reply);
    void getStats(CClient& client, const structMICMD& cmd, const CReply& reply);
    void ping(CClient& client, const structMICMD& cmd, const CReply& reply);
    void dump(CClient& client, const structMICMD& cmd, const CReply& reply);
    void recordGetTime(CClient& client, const structMICMD& cmd, const CReply& reply);
    void recordGetStatus(CClient& client, const structMICMD& cmd, const CReply& reply);
    void unknown(CClient& client, const structMICMD& cmd, const CReply& reply);

    void addFile(const CReply& reply, CClipPtr pClip);
    void addStream(const CReply& reply, const std::string& strCallID, uint32_t nLegID,
                   std::unique_ptr<CChannel> pChannel);

    const CParts m_parts;
    const CHooks m_hooks;
    const CLimits m_limits;
    bool m_bFrozen = false;
    std::deque<CClient::CRequest> m_connects; // came while it was frozen
    uint64_t m_ullNextTicket = 1;
    int m_nNextFileID = 1;
    int m_nNextStreamID = 1;
    CLogLimiter m_strangers;
};

#endif
