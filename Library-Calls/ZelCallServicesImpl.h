// The work behind CZelCallServices: one thread, one connection that heals, the legs.
#ifndef ZEL_CALL_SERVICES_IMPL_H
#define ZEL_CALL_SERVICES_IMPL_H

#include "CallLeg.h"
#include "JsonLinesClient.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// m_mutex guards everything but what is constant and what is the event thread's own. It is never held while
// the handler is called.
class CZelCallServicesImpl
{
public:
    CZelCallServicesImpl(CZelCallHandler* pHandler, std::string strRoute, std::string strSocket);
    ~CZelCallServicesImpl();
    CZelCallServicesImpl(const CZelCallServicesImpl&) = delete;
    CZelCallServicesImpl& operator=(const CZelCallServicesImpl&) = delete;

    // The thread keeps the object alive, as a callback may destroy the services.
    static void start(const std::shared_ptr<CZelCallServicesImpl>& pImpl);
    void stop();

    CCSTATUS command(ECallCommand command, const CZelCallInfo& call, const nlohmann::ordered_json& fields,
                     unsigned long* pulRequest);
    CCSTATUS commandWithOther(ECallCommand command, const CZelCallInfo& call, const CZelCallInfo& other,
                              unsigned long* pulRequest);
    CCSTATUS collectDigits(const CZelCallInfo& call, int nMax, const std::string& strTerminators,
                           unsigned long ulFirstMs, unsigned long ulNextMs, unsigned long* pulRequest);
    CCSTATUS dial(const std::string& strUri, const std::string& strFrom, CZelCallInfo* pCall);
    CCSTATUS claim(const std::string& strCallID, unsigned long* pulRequest);
    std::vector<CZelCallInfo> calls() const;

private:
    using Clock = std::chrono::steady_clock;

    // Who waits in dial.
    struct CDialling
    {
        bool m_bDone = false;
        CCSTATUS m_status = CCS_NOTCONNECTED;
        CZelCallInfo m_call;
    };

    enum class EPending
    {
        Hello, // has no request; ids begin with 1
        Register,
        Command,
        Dial,
        Claim,    // an application's
        TakeBack, // after the connection was lost
        Events,
        Forgotten // whatever the answer is
    };

    struct CPending
    {
        EPending m_ePending;
        CLegKey m_key = {};
        ECallCommand m_command = ECallCommand::Ring;
        bool m_bOtherLeg = false; // what is not known may be the other one
        std::shared_ptr<CDialling> m_pDialling = nullptr;
        unsigned long m_ulRequest = 0; // send gives one
        Clock::time_point m_due = {};
    };

    // On the event thread.
    void run();
    void waitForWork();
    void handleAll();
    void callBack(const std::vector<CallbackFunction>& vCallbacks);

    // With the mutex held. What is to be called is appended.
    using Callbacks = std::vector<CallbackFunction>;
    void tryConnect();
    void readMessages();
    void connectionLost(const std::string& strWhy);
    void tellLoss(Callbacks& vCallbacks);
    void checkOverdue();
    int timeoutMs() const;
    bool handleNext(Callbacks& vCallbacks);
    void handle(const nlohmann::json& message, Callbacks& vCallbacks);
    void handleHello(const nlohmann::json& hello);
    void handleAnswer(const CPending& pending, const nlohmann::json& answer, Callbacks& vCallbacks);
    void handleEvent(const nlohmann::json& event, Callbacks& vCallbacks);
    void onRegistered(const nlohmann::json& answer, Callbacks& vCallbacks);
    void onCommandAnswered(const CPending& pending, const nlohmann::json& answer, Callbacks& vCallbacks);
    void onDialAnswered(const CPending& pending, const nlohmann::json& answer);
    void onClaimAnswered(const CPending& pending, const nlohmann::json& answer, Callbacks& vCallbacks);
    void onEventsAnswered(const CPending& pending, const nlohmann::json& answer, Callbacks& vCallbacks);
    void hangUpAgain(const CLegKey& key, const CCallLeg& leg);
    void tellRestored(Callbacks& vCallbacks);
    void askEvents(const CLegKey& key, CCallLeg& leg);
    void removeIfEnded(const CLegKey& key);
    CCSTATUS send(nlohmann::ordered_json request, CPending pending, unsigned long* pulRequest);
    CCSTATUS sendCommand(ECallCommand command, const CLegKey& key, nlohmann::ordered_json fields, bool bOtherLeg,
                         unsigned long* pulRequest);
    unsigned long nextRequest();
    CCallLeg* find(const CLegKey& key);
    void awaitDialled(CDialling& dialling, std::unique_lock<std::mutex>& hold);
    bool handleDialAnswer(const CDialling& dialling);

    void wake() const;

    CZelCallHandler m_noHandler;
    CZelCallHandler& m_handler;
    const std::string m_strRoute;
    const std::string m_strSocket;
    const std::string m_strInstance;
    const CSocketFd m_fdWake;

    mutable std::mutex m_mutex;
    std::condition_variable m_dialled;
    CJsonLinesClient m_client;
    std::deque<nlohmann::json> m_vMessages;
    std::map<uint64_t, CPending> m_mapPendingByID; // by the id on the wire
    std::map<CLegKey, CCallLeg> m_mapLegs;
    std::map<CLegKey, bool> m_mapTakenBack; // legs whose events are awaited after a loss, and whether they are ours
    bool m_bRegistered = false;             // commands go out
    bool m_bRestored = false;               // OnControlRestored was called, and OnControlLost not yet
    std::optional<std::string> m_strLost;   // the connection is lost, and nobody was told yet
    unsigned long m_ulLastRequest = 0;
    Clock::time_point m_nextTry = Clock::now();
    std::chrono::milliseconds m_pause{0};
    bool m_bStop = false;
    std::thread m_thread;
};

#endif
