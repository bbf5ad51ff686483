// The command line of the signalling daemon.
#ifndef SIP_OPTIONS_H
#define SIP_OPTIONS_H

#include "SipStack.h"

#include <optional>
#include <string>
#include <vector>

struct COptions
{
    std::vector<CSipListener> m_vListeners;
    std::string m_strDriver = "/tmp/zelmedia-calls.sock";
    std::string m_strSocket = "/tmp/zelmedia-sip.sock";
    std::string m_strMediaAddress; // empty: where the driver's sockets are
    std::vector<std::string> m_vstrAllow;
    std::string m_strConfig;
    std::string m_strLogFile; // empty: stderr
    std::string m_strLogLevel = "info";
    bool m_bLogJson = false;
    std::string m_strTrace;
    std::string m_strJournal;
    std::string m_strCertificates;
    bool m_bVerify = false;
};

// A value is the exit code with which the program is to end at once, after --help, --version or a mistake, which
// has been explained.
std::optional<int> parseOptions(int nArguments, const char* const* ppArguments, COptions& options);

// "udp:127.0.0.1:5060", "tls:[::1]:5061". False, with the reason in strError.
bool parseListener(const std::string& strText, CSipListener& listener, std::string& strError);

#endif
