// The connection to the media driver: kept up, requests with their answers, events of sessions.
#ifndef SIP_DRIVER_CLIENT_H
#define SIP_DRIVER_CLIENT_H

#include "JsonLinesClient.h"
#include "Loop.h"
#include "MediaDriver.h"

#include <map>
#include <set>
#include <string>

class CDriverEvents
{
public:
    virtual ~CDriverEvents() = default;

    // The sessions that the driver has of ours.
    virtual void onDriverReady(const std::set<CLegName>& setSessions) = 0;
    // It is gone for longer than it takes to reconnect.
    virtual void onDriverLost() = 0;
    virtual void onDriverEvent(const CLegName& leg, const nlohmann::json& event) = 0;
};

class CDriverClient : public CMediaDriver
{
public:
    CDriverClient(CLoop& loop, CDriverEvents& events, std::string strPath, std::string strOwner);
    ~CDriverClient() override;
    CDriverClient(const CDriverClient&) = delete;
    CDriverClient& operator=(const CDriverClient&) = delete;

    void start();
    bool isReady() const { return m_bAttached; }
    // What the driver can do, as its hello says.
    const std::set<std::string>& abilities() const { return m_setAbilities; }

    void request(const char* pName, const CLegName& leg, nlohmann::ordered_json fields, Answer answer) override;

private:
    void connect();
    void onReady();
    void onMessage(const nlohmann::json& message);
    void attach();
    void lost(const std::string& strWhy);
    void watch();
    void unwatch();

    CLoop& m_loop;
    CDriverEvents& m_events;
    const std::string m_strPath;
    const std::string m_strOwner;
    CJsonLinesClient m_client;
    CTimer m_retryTimer;
    CTimer m_lostTimer;
    std::map<uint64_t, Answer> m_mapAnswers;
    std::set<std::string> m_setAbilities;
    int m_nWatched = -1;
    bool m_bAttached = false;
    bool m_bLost = true; // and told
};

#endif
