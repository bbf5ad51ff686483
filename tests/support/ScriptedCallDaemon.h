// The other side of libZelCallLib for tests: a socket like that of zelmedia-sip, with calls that the test makes.
#ifndef SCRIPTED_CALL_DAEMON_H
#define SCRIPTED_CALL_DAEMON_H

#include "JsonEventLog.h"
#include "JsonLinesServer.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// Without rules it accepts everything about legs that it knows: those that were offered, and those that were dialled,
// which get the call ids dialled-1, dialled-2... Nothing happens to a leg but what the test says. Events go to the
// connection that registered last.
class CScriptedCallDaemon : private CJsonLinesHandler
{
public:
    // Answers, or does not answer, one request. Runs on the daemon's thread.
    using Rule = std::function<void(ConnectionID nConnection, const CJsonRequest& request)>;
    using Fields = nlohmann::ordered_json;

    explicit CScriptedCallDaemon(std::string strPath = "/tmp/zelmedia-sip.sock", bool bStart = true);
    ~CScriptedCallDaemon() override; // like die()
    CScriptedCallDaemon(const CScriptedCallDaemon&) = delete;
    CScriptedCallDaemon& operator=(const CScriptedCallDaemon&) = delete;

    // die() closes everything at once, as a killed process does. Rules, legs and records stay.
    void start();
    void die();
    // Stops and continues reading, as a stopped process does.
    void freeze() { m_bFrozen = true; }
    void thaw() { m_bFrozen = false; }

    // What it says first; as zelmedia-sip does unless it is told otherwise. Before start.
    void setHello(const Fields& hello);

    // Replaces the answer to a request; acceptAgain undoes it.
    void onRequest(const std::string& strName, Rule rule);
    void acceptAgain(const std::string& strName);
    void refuse(const std::string& strName, const std::string& strCode);
    void ignore(const std::string& strName);

    // For rules, and for answers out of turn.
    void accept(ConnectionID nConnection, const CJsonRequest& request);
    void answer(ConnectionID nConnection, const CJsonRequest& request, const Fields& fields = Fields::object());
    void drop(ConnectionID nConnection);
    void dropRegistered();
    void sendRaw(const std::string& strLine);

    // A call that comes in, and what becomes of a leg: numbered, kept for replay, sent if somebody is there.
    void offer(const std::string& strCall, unsigned long ulLeg = 1, const Fields& more = Fields::object());
    void event(const std::string& strCall, unsigned long ulLeg, Fields event);
    // Only kept, as if it had got lost on its way.
    void loseEvent(const std::string& strCall, unsigned long ulLeg, Fields event);
    // A leg is not known any more; knows it without an offer.
    void forget(const std::string& strCall, unsigned long ulLeg);
    void know(const std::string& strCall, unsigned long ulLeg, const std::string& strState);

    // Every request so far, in order; those of one name; the n-th of a name (from 0), waited for. A request that
    // does not come in time fails the test.
    std::vector<nlohmann::json> requests() const;
    std::vector<nlohmann::json> requests(const std::string& strName) const;
    size_t count(const std::string& strName) const { return requests(strName).size(); }
    nlohmann::json waitRequest(const std::string& strName, size_t nIndex = 0) const;

private:
    using Key = std::pair<std::string, unsigned long>;
    struct CLeg
    {
        Fields m_object;
        CJsonEventLog m_log;
    };

    void onRequest(ConnectionID nConnection, const CJsonRequest& request) override;
    void onDisconnected(ConnectionID nConnection, const std::string& strWhy) override;
    void run();
    CLeg* find(const CJsonRequest& request);
    Fields objectOf(const Key& key, const CLeg& leg) const;
    void push(const Key& key, Fields event, bool bSend);

    const std::string m_strPath;
    mutable std::recursive_mutex m_mutex; // rules call the daemon
    mutable std::condition_variable_any m_changed;
    Fields m_hello;
    std::map<std::string, Rule> m_mapRules;
    std::vector<nlohmann::json> m_vRequests;
    std::map<Key, CLeg> m_mapLegs;
    std::unique_ptr<CJsonLinesServer> m_pServer;
    ConnectionID m_nRegistered = 0;
    int m_nDialled = 0;
    std::atomic<bool> m_bFrozen{false};
    std::atomic<bool> m_bStop{false};
    std::thread m_thread;
};

#endif
