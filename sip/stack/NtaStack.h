// The SIP stack on sofia-sip's transaction layer.
#ifndef SIP_NTA_STACK_H
#define SIP_NTA_STACK_H

#include "NtaTypes.h"
#include "SipStack.h"
#include "SipTrace.h"

#include <string>
#include <vector>

class CNtaStack : public CSipStack
{
public:
    CNtaStack(CLoop& loop, CSipStackHandler& handler, std::string strProduct); // throws std::runtime_error
    ~CNtaStack() override;
    CNtaStack(const CNtaStack&) = delete;
    CNtaStack& operator=(const CNtaStack&) = delete;

    bool listen(const CSipListener& listener, const std::string& strCertificates, bool bVerify,
                std::string& strError) override;
    bool trace(const std::string& strFile, std::string& strError) override;
    void allow(const CAddressList& addresses) override;
    std::unique_ptr<CSipDialog> createDialog(const CSipDialSettings& settings) override;
    std::unique_ptr<CSipDialog> restoreDialog(const CSipSavedDialog& saved) override;
    std::unique_ptr<CSipDialog> createSequence(const CSipDialSettings& settings) override;

private:
    static int onMessage(CNtaStack* pStack, nta_agent_t* pAgent, msg_t* pMessage, sip_t* pSip);

    // The listener for peers of that transport and family.
    const CSipListener* listenerFor(const std::string& strTransport, const std::string& strPeer) const;
    CSipEndpoint localFor(const std::string& strTransport, const std::string& strPeer) const;

    void takeRequest(msg_t* pMessage, sip_t* pSip);
    void takeInvite(nta_incoming_t* pTransaction, const sip_t* pSip, const CSipMessage& message);
    std::string transportOf(nta_incoming_t* pTransaction) const;
    // Where peers find us by that transport, for the one at strPeer, a host or empty.
    std::string contactFor(const std::string& strTransport, const std::string& strPeer,
                           const std::string& strUser) const;
    std::string contactForUri(const std::string& strUri, const std::string& strUser) const;

    CSipStackHandler& m_handler;
    const std::string m_strProduct;
    nta_agent_t* m_pAgent;
    std::vector<CSipListener> m_vListeners;
    std::unique_ptr<CSipTrace> m_pTrace;
};

#endif
