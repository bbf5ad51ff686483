// The SIP stack: listeners, new dialogs, and requests outside of dialogs.
#ifndef SIP_STACK_H
#define SIP_STACK_H

#include "SipDialog.h"

#include <memory>
#include <string>
#include <vector>

class CLoop;
class CAddressList;

class CSipStackHandler
{
public:
    virtual ~CSipStackHandler() = default;

    // Before anything is answered. False: as if it had never come.
    virtual bool admits(const std::string& strSource, const std::string& strMethod) = 0;
    virtual void onInvite(std::unique_ptr<CSipDialog> pDialog, uint64_t ullRequest, const CSipMessage& message) = 0;
    // A request outside of dialogs; the answer's status, and content to be filled in.
    virtual int onRequest(const CSipMessage& message, CSipContent& answer) = 0;
};

struct CSipListener
{
    std::string m_strTransport; // udp, tcp, tls
    std::string m_strAddress;   // numeric, IPv6 without brackets
    unsigned short m_usPort = 5060;
};

struct CSipDialSettings
{
    std::string m_strFrom;  // URI or name-addr
    std::string m_strTo;    // URI
    std::string m_strProxy; // where it is sent, empty: to the URI
    std::string m_strUser;  // of our Contact
};

class CSipStack
{
public:
    virtual ~CSipStack() = default;

    static std::unique_ptr<CSipStack> create(CLoop& loop, CSipStackHandler& handler, const std::string& strProduct);

    // strCertificates: the folder with agent.pem and cafile.pem, for tls. False, with the reason in strError.
    virtual bool listen(const CSipListener& listener, const std::string& strCertificates, bool bVerify,
                        std::string& strError) = 0;
    // Before listen: all messages go into the file, too.
    virtual bool trace(const std::string& strFile, std::string& strError) = 0;
    // What comes from elsewhere is dropped before the stack sees it.
    virtual void allow(const CAddressList& addresses) = 0;

    virtual std::unique_ptr<CSipDialog> createDialog(const CSipDialSettings& settings) = 0;
    virtual std::unique_ptr<CSipDialog> restoreDialog(const CSipSavedDialog& saved) = 0;
    // For registrations: requests that share a Call-ID and make no dialog.
    virtual std::unique_ptr<CSipDialog> createSequence(const CSipDialSettings& settings) = 0;
};

#endif
