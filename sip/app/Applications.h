// The socket of the applications: who is there, what they ask, what they are told.
#ifndef SIP_APPLICATIONS_H
#define SIP_APPLICATIONS_H

#include "Calls.h"
#include "JsonFields.h"
#include "JsonLinesServer.h"

#include <map>
#include <set>
#include <string>

class CApplications : public CCallTakers, public CJsonLinesHandler
{
public:
    using ConnectionID = CJsonLinesHandler::ConnectionID;

    CApplications(CLoop& loop, CCalls& calls, const std::string& strPath);
    ~CApplications() override;
    CApplications(const CApplications&) = delete;
    CApplications& operator=(const CApplications&) = delete;

    bool open(std::string& strError);

    ConnectionID choose(const std::string& strRoute, const std::set<ConnectionID>& setTried) override;
    void send(ConnectionID nOwner, const std::string& strLine) override;

    void onRequest(ConnectionID nConnection, const CJsonRequest& request) override;
    void onDisconnected(ConnectionID nConnection, const std::string& strWhy) override;

private:
    struct CApplication
    {
        std::string m_strRoute;
        std::string m_strInstance;
        uint64_t m_ullOffered = 0;
    };
    struct CContext
    {
        ConnectionID m_nConnection;
        const CJsonRequest& m_request;
        CJsonFields m_fields;
        CLegRecord* m_pRecord = nullptr;
    };
    using Handler = void (CApplications::*)(CContext& context);
    static const std::map<std::string, Handler>& handlers();

    void registerRoute(CContext& context);
    void watch(CContext& context);
    void dropFormer(const std::string& strInstance, ConnectionID nConnection);
    void listCalls(CContext& context);
    void dial(CContext& context);
    void claim(CContext& context);
    void events(CContext& context);
    void ring(CContext& context);
    void answerCall(CContext& context);
    void reject(CContext& context);
    void redirect(CContext& context);
    void hangUp(CContext& context);
    void hold(CContext& context);
    void resume(CContext& context);
    void transfer(CContext& context);
    void transferTo(CContext& context);
    void bridge(CContext& context);
    void unbridge(CContext& context);
    void sendDigits(CContext& context);
    void collectDigits(CContext& context);
    void recordCall(CContext& context);
    void set(CContext& context);

    // Each false when the request was refused.
    bool finish(CContext& context);
    bool findLeg(CContext& context, const char* pCall = "call", const char* pLeg = "leg");
    void take(CContext& context, CLegEvent event);
    void done(CContext& context, bool bDone);
    void forward(CContext& context, const char* pName, nlohmann::ordered_json fields);
    void refuse(const CContext& context, const std::string& strCode, const std::string& strText);
    SipHeaders takeHeaders(CContext& context);

    CLoop& m_loop;
    CCalls& m_calls;
    CJsonLinesServer m_server;
    std::map<ConnectionID, CApplication> m_mapApplications;
    std::set<ConnectionID> m_setWatchers; // are told of all calls
    uint64_t m_ullOffers = 0;
};

#endif
