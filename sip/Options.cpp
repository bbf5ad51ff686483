// The command line of the signalling daemon.
#include "Options.h"

#include "AddressList.h"

#include <CLI/CLI.hpp>

#include <arpa/inet.h>
#include <charconv>

namespace
{
const char* const s_pDescription =
    "Signalling daemon: takes and makes telephone calls by SIP for applications that use libZelCallLib. Their audio\n"
    "is with the media driver.\n"
    "A line \"zelmedia-sip: ready\" on the standard output says that calls can come.\n"
    "SIGTERM and SIGINT end all calls and the daemon. SIGHUP reads the policy file and opens the log file anew.";

const char* const s_pExamples =
    "Examples:\n"
    "  zelmedia-sip --listen udp:127.0.0.1:5060\n"
    "      takes calls of this machine\n"
    "  zelmedia-sip --listen udp:192.0.2.1:5060 --listen tcp:192.0.2.1:5060 --allow 192.0.2.0/24\n"
    "      takes calls of a network\n"
    "  zelmedia-sip --config /etc/zelmedia/sip.toml --log /var/log/zelmedia/sip.log";

bool isAddress(const std::string& strAddress)
{
    in6_addr address = {};
    return ::inet_pton(AF_INET, strAddress.c_str(), &address) == 1 ||
           ::inet_pton(AF_INET6, strAddress.c_str(), &address) == 1;
}

void addOptions(CLI::App& app, COptions& options, std::vector<std::string>& vstrListen, std::string& strLogFormat)
{
    app.add_option("--listen", vstrListen, "where calls come in, as udp:ADDRESS:PORT, tcp: or tls:; may be repeated")
        ->type_name("WHERE")
        ->allow_extra_args(false);
    app.add_option("--driver", options.m_strDriver,
                   "call socket of the media driver; default: /tmp/zelmedia-calls.sock")
        ->type_name("PATH");
    app.add_option("--socket", options.m_strSocket, "socket for applications; default: /tmp/zelmedia-sip.sock")
        ->type_name("PATH");
    app.add_option("--media-address", options.m_strMediaAddress,
                   "what peers are told as the address of our media; default: that of the driver's sockets")
        ->type_name("ADDRESS");
    app.add_option("--allow", options.m_vstrAllow,
                   "network that calls may come from; may be repeated; default: this machine's addresses")
        ->type_name("CIDR")
        ->allow_extra_args(false);
    app.add_option("--config", options.m_strConfig, "policy, in TOML")->type_name("FILE");
    app.add_option("--log", options.m_strLogFile, "append the log to this file; default: the standard error")
        ->type_name("FILE");
    app.add_option("--log-level", options.m_strLogLevel, "the least important lines that are logged; default: info")
        ->type_name("LEVEL")
        ->check(CLI::IsMember({"debug", "info", "warning", "error", "off"}));
    app.add_option("--log-format", strLogFormat, "json is one object per line; default: text")
        ->type_name("FORMAT")
        ->check(CLI::IsMember({"text", "json"}));
    app.add_option("--sip-trace", options.m_strTrace, "write all SIP messages into this file, as pcap")
        ->type_name("FILE");
    app.add_option("--journal", options.m_strJournal, "keep the calls in this file, for the next start")
        ->type_name("FILE");
    app.add_option("--certificates", options.m_strCertificates, "folder with agent.pem and cafile.pem, for tls:")
        ->type_name("DIR");
    app.add_flag("--verify", options.m_bVerify, "peers by TLS must have certificates that cafile.pem vouches for");
}
} // namespace

bool parseListener(const std::string& strText, CSipListener& listener, std::string& strError)
{
    const size_t nTransport = strText.find(':');
    const size_t nPort = strText.rfind(':');
    strError = "\"" + strText + "\" is nothing such as udp:127.0.0.1:5060";
    if (nTransport == std::string::npos || nPort == nTransport)
        return false;
    listener.m_strTransport = strText.substr(0, nTransport);
    listener.m_strAddress = strText.substr(nTransport + 1, nPort - nTransport - 1);
    if (listener.m_strAddress.size() > 2 && listener.m_strAddress.front() == '[' && listener.m_strAddress.back() == ']')
        listener.m_strAddress = listener.m_strAddress.substr(1, listener.m_strAddress.size() - 2);
    unsigned uPort = 0;
    const char* pEnd = strText.data() + strText.size();
    const auto [pRest, error] = std::from_chars(strText.data() + nPort + 1, pEnd, uPort);
    if (error != std::errc() || pRest != pEnd || uPort == 0 || uPort > 65535 || !isAddress(listener.m_strAddress) ||
        (listener.m_strTransport != "udp" && listener.m_strTransport != "tcp" && listener.m_strTransport != "tls"))
        return false;
    listener.m_usPort = static_cast<unsigned short>(uPort);
    return true;
}

std::optional<int> parseOptions(int nArguments, const char* const* ppArguments, COptions& options)
{
    CLI::App app(s_pDescription, "zelmedia-sip");
    app.footer(s_pExamples);
    app.set_version_flag("--version", "zelmedia-sip " ZELMEDIA_VERSION);
    std::vector<std::string> vstrListen;
    std::string strLogFormat = "text";
    addOptions(app, options, vstrListen, strLogFormat);
    try
    {
        app.parse(nArguments, ppArguments);
        std::string strError;
        for (const std::string& strListen : vstrListen)
        {
            CSipListener listener;
            if (!parseListener(strListen, listener, strError))
                throw CLI::ValidationError("--listen", strError);
            if (listener.m_strTransport == "tls" && options.m_strCertificates.empty())
                throw CLI::ValidationError("--listen", "tls: needs --certificates");
            options.m_vListeners.push_back(listener);
        }
        CAddressList addresses;
        for (const std::string& strAllow : options.m_vstrAllow)
            if (!addresses.add(strAllow, strError))
                throw CLI::ValidationError("--allow", strError);
        if (!options.m_strMediaAddress.empty() && !isAddress(options.m_strMediaAddress))
            throw CLI::ValidationError("--media-address", "\"" + options.m_strMediaAddress + "\" is no address");
        if (options.m_vListeners.empty())
            throw CLI::RequiredError("--listen");
        options.m_bLogJson = strLogFormat == "json";
        return std::nullopt;
    }
    catch (const CLI::ParseError& error)
    {
        const int nExit = app.exit(error);
        return nExit == 0 ? 0 : 2;
    }
}
