// A dialog on the stack's transactions.
#ifndef SIP_NTA_DIALOG_H
#define SIP_NTA_DIALOG_H

#include "NtaTypes.h"
#include "SipStack.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

// A request of the peer that is not done with: for INVITEs that means until the ACK.
struct CNtaIncoming
{
    CNtaDialog* m_pDialog = nullptr;
    uint64_t m_ullNumber = 0;
    nta_incoming_t* m_pTransaction = nullptr;
    bool m_bInvite = false;
    bool m_bAnswered = false;
    std::vector<nta_reliable_t*> m_vReliable; // answers that wait for their PRACK
};

// A request of ours. Of INVITEs each fork that answers reliably has a transaction and a leg.
struct CNtaOutgoing
{
    struct CFork
    {
        nta_leg_t* m_pLeg = nullptr;
        nta_outgoing_t* m_pTransaction = nullptr;
    };

    CNtaDialog* m_pDialog = nullptr;
    uint64_t m_ullNumber = 0;
    nta_outgoing_t* m_pTransaction = nullptr;
    nta_outgoing_t* m_pAck = nullptr;
    std::string m_strMethod;
    std::string m_strUri;
    CSipContent m_content;
    std::string m_strAuthorization; // header lines
    unsigned m_uTries = 0;          // with credentials
    bool m_bFirst = false;          // the INVITE that makes the dialog
    std::map<std::string, CFork> m_mapForks;
};

class CNtaDialog : public CSipDialog
{
public:
    enum class EKind
    {
        Dialog,
        Sequence
    };

    CNtaDialog(nta_agent_t* pAgent, std::string strContact, std::string strProxy, const std::string& strProduct);
    ~CNtaDialog() override;
    CNtaDialog(const CNtaDialog&) = delete;
    CNtaDialog& operator=(const CNtaDialog&) = delete;

    // What the dialog is made from; each false when the stack refuses.
    bool call(const CSipDialSettings& settings, EKind eKind);
    bool answer(nta_incoming_t* pTransaction, const sip_t* pSip, uint64_t& ullRequest);
    bool restore(const CSipSavedDialog& saved);

    void setHandler(CSipDialogHandler* pHandler) override { m_pHandler = pHandler; }
    void reply(uint64_t ullRequest, int nStatus, const CSipContent& content) override;
    bool replyReliably(uint64_t ullRequest, int nStatus, const CSipContent& content) override;
    uint64_t invite(const std::string& strUri, const CSipContent& content) override;
    uint64_t reinvite(const CSipContent& content) override;
    void ack(uint64_t ullInvite, const CSipContent& content) override;
    void cancel(uint64_t ullInvite) override;
    uint64_t request(const std::string& strMethod, const CSipContent& content) override;
    void authenticateAs(const CSipCredentials& credentials) override { m_credentials = credentials; }
    std::string replaces() const override;
    std::string localContact() const override { return m_strContact; }
    CSipSavedDialog save() const override;

private:
    static int onLegRequest(CNtaDialog* pDialog, nta_leg_t* pLeg, nta_incoming_t* pTransaction, const sip_t* pSip);
    static int onAckOrCancel(CNtaIncoming* pIncoming, nta_incoming_t* pTransaction, const sip_t* pSip);
    static int onPrackRequest(CNtaIncoming* pIncoming, nta_reliable_t* pReliable, nta_incoming_t* pPrack,
                              const sip_t* pSip);
    static int onPrackResponse(CNtaOutgoing* pOutgoing, nta_outgoing_t* pTransaction, const sip_t* pSip);
    static int onAnyResponse(CNtaOutgoing* pOutgoing, nta_outgoing_t* pTransaction, const sip_t* pSip);

    CNtaIncoming& addIncoming(nta_incoming_t* pTransaction, const sip_t* pSip);
    void removeIncoming(uint64_t ullNumber);
    uint64_t send(std::unique_ptr<CNtaOutgoing> pOutgoing);
    bool transmit(CNtaOutgoing& outgoing);
    bool authorize(CNtaOutgoing& outgoing, const sip_t* pSip);
    void removeOutgoing(uint64_t ullNumber);
    void acknowledgeReliable(CNtaOutgoing& outgoing, nta_outgoing_t* pTransaction, const sip_t* pSip);
    void establish(CNtaOutgoing& outgoing, const sip_t* pSip);
    void remember(const sip_t* pSip, const sip_addr_t* pLocal, const char* pLocalTag, const sip_addr_t* pRemote);
    void dropForks(CNtaOutgoing& outgoing);

    nta_agent_t* m_pAgent;
    nta_leg_t* m_pLeg = nullptr;
    CSipDialogHandler* m_pHandler = nullptr;
    std::string m_strContact; // URI
    std::string m_strProxy;
    std::string m_strProduct;
    std::string m_strRecordRoute; // as the peer's message had it
    std::string m_strTarget;
    std::string m_strCallID;
    std::string m_strLocal; // with tags
    std::string m_strRemote;
    CSipCredentials m_credentials;
    bool m_bCaller = false;
    bool m_bSequence = false; // of requests that make no dialog
    uint64_t m_ullLastNumber = 0;
    uint64_t m_ullLastInvite = 0; // whose ACK may have to be repeated
    std::map<uint64_t, std::unique_ptr<CNtaIncoming>> m_mapIncoming;
    std::map<uint64_t, std::unique_ptr<CNtaOutgoing>> m_mapOutgoing;
};

#endif
