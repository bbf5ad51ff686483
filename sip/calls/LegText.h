// Small texts of calls: parts of URIs, reasons of ends.
#ifndef SIP_LEG_TEXT_H
#define SIP_LEG_TEXT_H

#include "SipMessage.h"

#include <string>
#include <strings.h>

// "100" of "sip:100@example.com:5060;user=phone".
inline std::string userOf(const std::string& strUri)
{
    const size_t nColon = strUri.find(':');
    const size_t nAt = strUri.find('@');
    if (nColon == std::string::npos || nAt == std::string::npos || nAt < nColon)
        return {};
    const std::string strUser = strUri.substr(nColon + 1, nAt - nColon - 1);
    return strUser.substr(0, strUser.find_first_of(";:"));
}

// How an application is told that a call which it made did not come about.
inline const char* reasonOf(int nStatus)
{
    switch (nStatus)
    {
    case 486:
    case 600: return "busy";
    case 408:
    case 480: return "no-answer";
    case 487: return "cancelled";
    default: return nStatus >= 500 && nStatus < 600 ? "failed" : "rejected";
    }
}

inline bool isSdp(const CSipMessage& message)
{
    return !message.m_strBody.empty() && strncasecmp(message.m_strContentType.c_str(), "application/sdp", 15) == 0;
}

#endif
