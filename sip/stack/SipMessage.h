// A SIP message as the daemon looks at it: values, nothing of the stack's.
#ifndef SIP_MESSAGE_H
#define SIP_MESSAGE_H

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using SipHeaders = std::vector<std::pair<std::string, std::string>>;

struct CSipReplaces
{
    std::string m_strCallID;
    std::string m_strToTag;
    std::string m_strFromTag;
    bool m_bEarlyOnly = false;
};

struct CSipSessionExpires
{
    unsigned m_uSeconds = 0;
    std::string m_strRefresher; // "uac", "uas" or empty
};

struct CSipMessage
{
    std::string m_strMethod;
    int m_nStatus = 0; // 0: a request
    std::string m_strReason;
    bool m_bLocal = false; // a response that the stack made, as none came

    std::string m_strRequestUri;
    std::string m_strFrom; // URI
    std::string m_strFromName;
    std::string m_strFromTag;
    std::string m_strTo; // URI
    std::string m_strToTag;
    std::string m_strCallID;
    unsigned long m_ulCSeq = 0;
    std::vector<std::string> m_vstrContacts; // URIs, the best first

    std::string m_strSource; // numeric address it came from
    std::string m_strTransport;

    std::map<std::string, std::string> m_mapHeaders; // those that applications see
    std::string m_strContentType;
    std::string m_strBody;

    bool m_bReliableSupported = false;
    bool m_bReliableRequired = false;
    bool m_bTimerSupported = false;
    bool m_bUpdateAllowed = false;
    std::string m_strUnsupported; // what it requires and we do not know
    std::optional<CSipSessionExpires> m_sessionExpires;
    unsigned m_uMinimumExpires = 0;
    std::optional<CSipReplaces> m_replaces;
    std::string m_strReferTo;
    std::string m_strSubscriptionState;
    unsigned m_uRetryAfter = 0;
    unsigned m_uExpires = 0;
};

// What is sent beside the dialog's own headers.
struct CSipContent
{
    SipHeaders m_vHeaders;
    std::string m_strContentType;
    std::string m_strBody;
};

#endif
