// What tests of the signalling daemon stand on: a scripted media driver, the daemon as a process, an application, and
// SIPp as the telephone.
#ifndef SIP_FIXTURE_H
#define SIP_FIXTURE_H

#include "Child.h"
#include "JsonLinesClient.h"
#include "JsonLinesServer.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A port of 127.0.0.1 that nobody has at this moment.
unsigned freePort();

// The call socket of a media driver that does everything at once, and says what it was asked.
class CScriptedMedia : public CJsonLinesHandler
{
public:
    CScriptedMedia();
    ~CScriptedMedia() override;

    bool start();
    void stop(); // as if it had died

    std::vector<nlohmann::json> requests(const std::string& strName);
    // Waits for the n-th request of a name; null when it does not come.
    nlohmann::json waitRequest(const std::string& strName, size_t nth = 1);
    size_t sessions();
    void event(const nlohmann::ordered_json& event);
    std::atomic<bool> m_bRefuse = false;

private:
    void onConnected(ConnectionID nConnection, const CJsonPeer&) override { m_nConnection = nConnection; }
    void onRequest(ConnectionID nConnection, const CJsonRequest& request) override;
    void run();

    std::unique_ptr<CJsonLinesServer> m_pServer;
    std::thread m_thread;
    std::mutex m_mutex;
    std::vector<nlohmann::json> m_vRequests;
    std::vector<nlohmann::ordered_json> m_vEvents;
    std::list<std::pair<std::string, unsigned>> m_vSessions;
    std::atomic<bool> m_bStop = false;
    ConnectionID m_nConnection = 0;
    unsigned m_uPort = 20000;
};

// A program whose output is in a file.
class CProgram : public CChild
{
public:
    bool start(const std::vector<std::string>& vArguments, const std::string& strOutputFile);
    int wait(); // its exit code, or minus the signal; -1000 after a minute
};

// One that takes calls. All that comes is kept until somebody waits for it.
class CTestApplication
{
public:
    bool connect(const std::string& strRoute = "*");
    void disconnect() { m_client.close(); }
    nlohmann::json request(nlohmann::ordered_json request);
    // Waits for an event of that name, which is then used up; null when none comes.
    nlohmann::json wait(const std::string& strEvent);
    bool has(const std::string& strEvent);

private:
    void take(int nLimitMs);

    CJsonLinesClient m_client;
    std::list<nlohmann::json> m_vEvents;
    std::list<nlohmann::json> m_vAnswers;
};

class CSipFixture : public testing::Test
{
protected:
    void TearDown() override;

    // Media driver, daemon and one application.
    void startAll(const std::vector<std::string>& vMore = {});
    bool startDaemon(const std::vector<std::string>& vMore = {});
    int stopDaemon(int nSignal = 15);

    // SIPp as caller of the daemon, or as called; the scenario is a file of this folder.
    void call(CProgram& phone, const std::string& strScenario, const std::vector<std::string>& vMore = {});
    void listen(CProgram& phone, const std::string& strScenario, const std::vector<std::string>& vMore = {});
    // What the daemon's application does with the next call.
    nlohmann::json answerNext();
    static nlohmann::ordered_json of(const char* pRequest, const nlohmann::json& event);
    std::string phoneUri(const std::string& strUser = "100") const;
    static std::string output(const std::string& strFile);
    // With 0 and nothing left behind.
    void expectDone(CProgram& phone);

    CScriptedMedia m_media;
    CProgram m_daemon;
    CTestApplication m_application;
    unsigned m_uPort = 0;      // the daemon's
    unsigned m_uPhonePort = 0; // of SIPp as called
    unsigned m_uPhones = 0;

private:
    void startPhone(CProgram& phone, const std::string& strScenario, unsigned uPort, std::vector<std::string> vMore);
};

#endif
