// Our registrations at registrars: made, refreshed, tried again, taken back.
#ifndef SIP_REGISTRATIONS_H
#define SIP_REGISTRATIONS_H

#include "Loop.h"
#include "Policy.h"
#include "SipStack.h"

#include <memory>
#include <string>
#include <vector>

class CRegistration : public CSipDialogHandler
{
public:
    CRegistration(CLoop& loop, CSipStack& stack, const CTrunk& trunk);
    ~CRegistration() override;

    void start();
    void takeBack();
    bool isRegistered() const { return m_bRegistered; }

    void onRequest(uint64_t, const CSipMessage&) override {}
    void onAck(uint64_t, const CSipMessage&) override {}
    void onAckMissing(uint64_t) override {}
    void onCancel(uint64_t) override {}
    void onPrack(uint64_t, const CSipMessage&) override {}
    void onPrackMissing(uint64_t) override {}
    void onResponse(uint64_t ullRequest, const CSipMessage& message) override;

private:
    void send(unsigned uExpires);
    void failed(const std::string& strWhy);

    CSipStack& m_stack;
    const CTrunk m_trunk;
    std::unique_ptr<CSipDialog> m_pSequence;
    CTimer m_timer;
    unsigned m_uExpires;
    unsigned m_uFailures = 0;
    bool m_bRegistered = false;
};

class CRegistrations
{
public:
    // Those of the policy, in place of those before.
    void start(CLoop& loop, CSipStack& stack, const CPolicy& policy);
    void takeBack();
    void clear() { m_vRegistrations.clear(); }

private:
    std::vector<std::unique_ptr<CRegistration>> m_vRegistrations;
};

#endif
