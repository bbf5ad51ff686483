// One SIP dialog as the daemon uses it: a dozen operations, and what they bring back.
#ifndef SIP_DIALOG_H
#define SIP_DIALOG_H

#include "SipMessage.h"

#include <cstdint>
#include <memory>
#include <string>

struct CSipCredentials
{
    std::string m_strUser;
    std::string m_strPassword;
};

// Requests of both sides have numbers that are never used twice in a dialog.
class CSipDialogHandler
{
public:
    virtual ~CSipDialogHandler() = default;

    virtual void onRequest(uint64_t ullRequest, const CSipMessage& message) = 0;
    virtual void onAck(uint64_t ullRequest, const CSipMessage& message) = 0;
    virtual void onAckMissing(uint64_t ullRequest) = 0; // the 2xx was repeated in vain
    virtual void onCancel(uint64_t ullRequest) = 0;
    virtual void onPrack(uint64_t ullRequest, const CSipMessage& message) = 0;
    virtual void onPrackMissing(uint64_t ullRequest) = 0;
    // Provisional and final ones. Reliable provisional ones have been acknowledged.
    virtual void onResponse(uint64_t ullRequest, const CSipMessage& message) = 0;
};

// What outlives the process.
struct CSipSavedDialog
{
    std::string m_strCallID;
    std::string m_strLocal;  // name-addr with tag
    std::string m_strRemote; // name-addr with tag
    std::string m_strTarget;
    std::string m_strRoute; // as Record-Route was received, in its order
    std::string m_strContact;
    unsigned long m_ulLocalCSeq = 0;
    unsigned long m_ulRemoteCSeq = 0;
    bool m_bCaller = false;
};

class CSipDialog
{
public:
    virtual ~CSipDialog() = default;

    // Null: nobody is told any more.
    virtual void setHandler(CSipDialogHandler* pHandler) = 0;

    // Answers a request. INVITEs may have provisional answers first, and take a 2xx. A reliable answer is repeated
    // until its PRACK; false when the peer does not do that, and nothing was sent.
    virtual void reply(uint64_t ullRequest, int nStatus, const CSipContent& content = {}) = 0;
    virtual bool replyReliably(uint64_t ullRequest, int nStatus, const CSipContent& content) = 0;

    // The first INVITE of a dialog of ours goes to strUri. 0 when it cannot be sent.
    virtual uint64_t invite(const std::string& strUri, const CSipContent& content) = 0;
    virtual uint64_t reinvite(const CSipContent& content) = 0;
    virtual void ack(uint64_t ullInvite, const CSipContent& content = {}) = 0;
    virtual void cancel(uint64_t ullInvite) = 0;
    virtual uint64_t request(const std::string& strMethod, const CSipContent& content = {}) = 0;
    // With them a 401 or 407 is answered by the request anew, under its number.
    virtual void authenticateAs(const CSipCredentials& credentials) = 0;

    virtual std::string replaces() const = 0; // value of a Replaces header that names this dialog
    virtual std::string localContact() const = 0;
    virtual CSipSavedDialog save() const = 0;
};

#endif
