// All calls: legs by name, new ones from the network and from applications, their events with numbers.
#ifndef SIP_CALLS_H
#define SIP_CALLS_H

#include "DriverClient.h"
#include "Journal.h"
#include "JsonEventLog.h"
#include "Leg.h"
#include "RateLimiter.h"
#include "SipStack.h"

#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

using ConnectionID = uint64_t; // of an application; 0: none

struct CLegRecord
{
    CLegName m_name;
    std::shared_ptr<CLeg> m_pLeg; // null: it is over, and kept for those who missed the end
    CJsonEventLog m_log;
    ConnectionID m_nOwner = 0;
    std::string m_strRoute;
    std::set<ConnectionID> m_setTried;
    nlohmann::ordered_json m_last; // as it was at its end
    std::unique_ptr<CTimer> m_pTimer;
};

// Those who take calls.
class CCallTakers
{
public:
    virtual ~CCallTakers() = default;

    // One that the route may go to and that the call was not offered to before; 0 when there is none.
    virtual ConnectionID choose(const std::string& strRoute, const std::set<ConnectionID>& setTried) = 0;
    virtual void send(ConnectionID nOwner, const std::string& strLine) = 0;
};

class CCalls : public CLegServices, public CSipStackHandler, public CDriverEvents
{
public:
    struct CSettings
    {
        std::string m_strDriverPath;
        std::string m_strMediaAddress;
        std::string m_strJournal; // empty: none
    };

    CCalls(CLoop& loop, CPolicy policy, CSettings settings);
    ~CCalls() override;
    CCalls(const CCalls&) = delete;
    CCalls& operator=(const CCalls&) = delete;

    // False, with the reason in strError, when the journal cannot be written.
    bool start(CSipStack& stack, CCallTakers& takers, std::string& strError);
    void setPolicy(CPolicy policy);
    // Ends all calls; allOver tells when nothing is left of them.
    void shutDown(std::function<void()> allOver);

    CLegRecord* find(const CLegName& name);
    std::map<CLegName, std::unique_ptr<CLegRecord>>& records() { return m_mapRecords; }
    nlohmann::ordered_json describe(const CLegRecord& record) const;

    struct CDial
    {
        std::string m_strUri;
        std::string m_strFrom;
        std::string m_strCall; // empty: a new one
        SipHeaders m_vHeaders;
    };
    // Null, with the code and text of a refusal, when it must not or cannot be.
    CLegRecord* dial(const CDial& dial, ConnectionID nOwner, std::string& strCode, std::string& strError);
    void claim(CLegRecord& record, ConnectionID nOwner);
    // The application of these is gone.
    void ownerLost(ConnectionID nOwner);

    CLoop& loop() override { return m_loop; }
    CMediaDriver& driver() override { return m_driver; }
    const CPolicy& policy() const override { return m_policy; }
    std::string mediaAddress() const override { return m_settings.m_strMediaAddress; }
    bool offer(CLeg& leg) override;
    void part(std::unique_ptr<CSipDialog> pDialog) override;
    void emit(CLeg& leg, nlohmann::ordered_json event) override;
    void ended(CLeg& leg) override;
    void changed(CLeg& leg) override;
    void finished(CLeg& leg) override;

    bool admits(const std::string& strSource, const std::string& strMethod) override;
    void onInvite(std::unique_ptr<CSipDialog> pDialog, uint64_t ullRequest, const CSipMessage& message) override;
    int onRequest(const CSipMessage& message, CSipContent& answer) override;

    void onDriverReady(const std::set<CLegName>& setSessions) override;
    void onDriverLost() override;
    void onDriverEvent(const CLegName& leg, const nlohmann::json& event) override;

private:
    void endLeftDialogs(const std::map<CLegName, CSipSavedDialog>& mapLeft);
    CLegRecord& addRecord(const std::string& strCall, const CTrunk* pTrunk);
    std::string newCallID();
    CNegotiationSettings negotiationFor(const CTrunk* pTrunk) const;
    bool mayDial(const std::string& strUri, const CTrunk*& pTrunk, std::string& strCode, std::string& strError);
    bool offerRecord(CLegRecord& record);
    size_t living() const;
    // As a list, as they may go while it is gone through.
    std::vector<std::shared_ptr<CLeg>> legs() const;

    CLoop& m_loop;
    CPolicy m_policy;
    const CSettings m_settings;
    CSipStack* m_pStack = nullptr;
    CCallTakers* m_pTakers = nullptr;
    CDriverClient m_driver;
    CRateLimiter m_limiter;
    CTokenBucket m_dialBucket;
    const uint64_t m_ullStart;
    uint64_t m_ullLastCall = 0;
    std::map<CLegName, std::unique_ptr<CLegRecord>> m_mapRecords;
    std::list<std::unique_ptr<CSipDialog>> m_vParting; // the eldest first
    std::unique_ptr<CJournal> m_pJournal;
    std::function<void()> m_allOver; // set: it ends
};

#endif
