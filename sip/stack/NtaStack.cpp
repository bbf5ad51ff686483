// The SIP stack on sofia-sip's transaction layer.
#include "NtaStack.h"

#include "Loop.h"
#include "NtaDialog.h"
#include "NtaMessage.h"
#include "SourceFilter.h"

#include <spdlog/spdlog.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace
{
std::string bracketed(const std::string& strAddress)
{
    return strAddress.find(':') == std::string::npos ? strAddress : "[" + strAddress + "]";
}

// The address that packets to the peer leave from.
std::string addressTowards(const std::string& strPeer, bool bSix)
{
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_family = bSix ? AF_INET6 : AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* pPeer = nullptr;
    const char* pHost = strPeer.empty() ? (bSix ? "2001:db8::1" : "192.0.2.1") : strPeer.c_str();
    if (::getaddrinfo(pHost, "5060", &hints, &pPeer) != 0)
        return bSix ? "::1" : "127.0.0.1";
    char szAddress[NI_MAXHOST] = "";
    sockaddr_storage own = {};
    socklen_t nSize = sizeof(own);
    const int nSocket = ::socket(pPeer->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (nSocket >= 0 && ::connect(nSocket, pPeer->ai_addr, pPeer->ai_addrlen) == 0 &&
        ::getsockname(nSocket, reinterpret_cast<sockaddr*>(&own), &nSize) == 0)
    {
        ::getnameinfo(reinterpret_cast<sockaddr*>(&own), nSize, szAddress, sizeof(szAddress), nullptr, 0,
                      NI_NUMERICHOST);
    }
    if (nSocket >= 0)
        ::close(nSocket);
    ::freeaddrinfo(pPeer);
    return szAddress[0] ? szAddress : (bSix ? "::1" : "127.0.0.1");
}

std::string portText(const CSipListener& listener)
{
    return std::to_string(static_cast<unsigned>(listener.m_usPort));
}

void takeLog(void* pTrace, const char* pFormat, va_list arguments)
{
    char szText[2300] = ""; // more than the stack's lines can have
    std::vsnprintf(szText, sizeof(szText), pFormat, arguments);
    static_cast<CSipTrace*>(pTrace)->takeLog(szText);
}

bool isWildcard(const std::string& strAddress)
{
    return strAddress == "0.0.0.0" || strAddress == "::";
}
} // namespace

std::unique_ptr<CSipStack> CSipStack::create(CLoop& loop, CSipStackHandler& handler, const std::string& strProduct)
{
    return std::make_unique<CNtaStack>(loop, handler, strProduct);
}

CNtaStack::CNtaStack(CLoop& loop, CSipStackHandler& handler, std::string strProduct)
    : m_handler(handler), m_strProduct(std::move(strProduct)),
      m_pAgent(nta_agent_create(loop.root(), reinterpret_cast<const url_string_t*>(-1L), onMessage, this, NTATAG_UA(1),
                                NTATAG_MERGE_482(1), NTATAG_CLIENT_RPORT(1), NTATAG_SERVER_RPORT(1),
                                NTATAG_EXTRA_100(1), NTATAG_TIMEOUT_408(1), NTATAG_CANCEL_487(0), NTATAG_MAXSIZE(65536),
                                TAG_END()))
{
    if (!m_pAgent)
        throw std::runtime_error("the SIP stack cannot be started");
    for (su_log_t* pLog : {su_log_default, nta_log, tport_log})
        su_log_set_level(pLog, 0);
}

CNtaStack::~CNtaStack()
{
    nta_agent_destroy(m_pAgent);
    if (m_pTrace)
        su_log_redirect(su_log_default, nullptr, nullptr);
}

bool CNtaStack::listen(const CSipListener& listener, const std::string& strCertificates, bool bVerify,
                       std::string& strError)
{
    const bool bTls = listener.m_strTransport == "tls";
    const std::string strUrl = std::string(bTls ? "sips:" : "sip:") + bracketed(listener.m_strAddress) + ":" +
                               portText(listener) + ";transport=" + listener.m_strTransport;
    if (nta_agent_add_tport(m_pAgent, urlText(strUrl), TPTAG_QUEUESIZE(1024), TPTAG_LOG(m_pTrace ? 1 : 0),
                            TAG_IF(bTls, TPTAG_CERTIFICATE(strCertificates.c_str())),
                            TAG_IF(bTls, TPTAG_TLS_VERIFY_POLICY(bVerify ? TPTLS_VERIFY_ALL : TPTLS_VERIFY_NONE)),
                            TAG_END()) < 0)
    {
        strError = "cannot listen at " + listener.m_strTransport + ":" + listener.m_strAddress + ":" +
                   portText(listener) + ": " + std::strerror(errno);
        return false;
    }
    m_vListeners.push_back(listener);
    return true;
}

bool CNtaStack::trace(const std::string& strFile, std::string& strError)
{
    m_pTrace = std::make_unique<CSipTrace>([this](const std::string& strTransport, const std::string& strPeer) {
        return localFor(strTransport, strPeer);
    });
    if (!m_pTrace->open(strFile, strError))
        return false;
    su_log_redirect(su_log_default, takeLog, m_pTrace.get());
    return true;
}

void CNtaStack::allow(const CAddressList& addresses)
{
    for (const CSipListener& listener : m_vListeners)
    {
        std::string strError;
        if (!filterSources(listener.m_strAddress, listener.m_usPort, listener.m_strTransport == "udp", addresses,
                           strError))
            spdlog::warn("other sources than those that are allowed may get answers to broken messages: {}", strError);
    }
}

int CNtaStack::onMessage(CNtaStack* pStack, nta_agent_t*, msg_t* pMessage, sip_t* pSip)
{
    try
    {
        if (pSip && pSip->sip_request)
            pStack->takeRequest(pMessage, pSip);
        else
            msg_destroy(pMessage);
    }
    catch (const std::exception& exception)
    {
        spdlog::error("a message failed: {}", exception.what());
    }
    return 0;
}

void CNtaStack::takeRequest(msg_t* pMessage, sip_t* pSip)
{
    CSipMessage message = toMessage(pSip);
    addSource(message, msg_ref_create(pMessage));
    if (message.m_strMethod == "ACK" || !m_handler.admits(message.m_strSource, message.m_strMethod))
    {
        msg_destroy(pMessage);
        return;
    }
    nta_incoming_t* pTransaction = nta_incoming_create(m_pAgent, nullptr, pMessage, pSip, TAG_END());
    if (!pTransaction)
        return;
    message.m_strTransport = transportOf(pTransaction);
    if (!message.m_strToTag.empty() || message.m_strMethod == "CANCEL")
    {
        nta_incoming_treply(pTransaction, SIP_481_NO_TRANSACTION, TAG_END());
        nta_incoming_destroy(pTransaction);
    }
    else if (message.m_strMethod == "INVITE")
    {
        takeInvite(pTransaction, pSip, message);
    }
    else
    {
        CSipContent answer;
        const int nStatus = m_handler.onRequest(message, answer);
        const std::string strHeaders = headerLines(answer.m_vHeaders);
        nta_incoming_treply(pTransaction, nStatus, sip_status_phrase(nStatus), SIPTAG_SERVER_STR(m_strProduct.c_str()),
                            TAG_IF(!strHeaders.empty(), SIPTAG_HEADER_STR(strHeaders.c_str())),
                            TAG_IF(!answer.m_strBody.empty(), SIPTAG_CONTENT_TYPE_STR(answer.m_strContentType.c_str())),
                            TAG_IF(!answer.m_strBody.empty(), SIPTAG_PAYLOAD_STR(answer.m_strBody.c_str())), TAG_END());
        nta_incoming_destroy(pTransaction);
    }
}

void CNtaStack::takeInvite(nta_incoming_t* pTransaction, const sip_t* pSip, const CSipMessage& message)
{
    if (!pSip->sip_contact)
    {
        nta_incoming_treply(pTransaction, 400, "Missing Contact", TAG_END());
        nta_incoming_destroy(pTransaction);
        return;
    }
    const url_t* pUrl = pSip->sip_request->rq_url;
    auto pDialog = std::make_unique<CNtaDialog>(
        m_pAgent, contactFor(message.m_strTransport, message.m_strSource, pUrl->url_user ? pUrl->url_user : ""), "",
        m_strProduct);
    uint64_t ullRequest = 0;
    if (!pDialog->answer(pTransaction, pSip, ullRequest))
    {
        nta_incoming_treply(pTransaction, SIP_500_INTERNAL_SERVER_ERROR, TAG_END());
        nta_incoming_destroy(pTransaction);
        return;
    }
    m_handler.onInvite(std::move(pDialog), ullRequest, message);
}

std::string CNtaStack::transportOf(nta_incoming_t* pTransaction) const
{
    std::string strTransport = "udp";
    if (tport_t* pTransport = nta_incoming_transport(m_pAgent, pTransaction, nullptr))
    {
        strTransport = tport_name(pTransport)->tpn_proto;
        std::transform(strTransport.begin(), strTransport.end(), strTransport.begin(),
                       [](unsigned char uc) { return static_cast<char>(std::tolower(uc)); });
        tport_unref(pTransport);
    }
    return strTransport;
}

const CSipListener* CNtaStack::listenerFor(const std::string& strTransport, const std::string& strPeer) const
{
    const bool bSix = strPeer.find(':') != std::string::npos;
    for (const CSipListener& listener : m_vListeners)
        if (listener.m_strTransport == strTransport && (listener.m_strAddress.find(':') != std::string::npos) == bSix)
            return &listener;
    return m_vListeners.empty() ? nullptr : &m_vListeners.front();
}

CSipEndpoint CNtaStack::localFor(const std::string& strTransport, const std::string& strPeer) const
{
    const CSipListener* pListener = listenerFor(strTransport, strPeer);
    if (!pListener)
        return {};
    return {isWildcard(pListener->m_strAddress) ? addressTowards(strPeer, pListener->m_strAddress == "::")
                                                : pListener->m_strAddress,
            pListener->m_usPort};
}

std::string CNtaStack::contactFor(const std::string& strTransport, const std::string& strPeer,
                                  const std::string& strUser) const
{
    const CSipListener* pListener = listenerFor(strTransport, strPeer);
    if (!pListener)
        return "sip:invalid.invalid";
    std::string strContact = pListener->m_strTransport == "tls" ? "sips:" : "sip:";
    if (!strUser.empty())
        strContact += strUser + "@";
    strContact += bracketed(localFor(strTransport, strPeer).m_strAddress) + ":" + portText(*pListener);
    return pListener->m_strTransport == "tcp" ? strContact + ";transport=tcp" : strContact;
}

std::string CNtaStack::contactForUri(const std::string& strUri, const std::string& strUser) const
{
    su_home_t* pHome = su_home_create();
    std::string strTransport = m_vListeners.empty() ? "udp" : m_vListeners.front().m_strTransport;
    std::string strHost;
    if (const url_t* pUrl = url_make(pHome, strUri.c_str()))
    {
        char szTransport[16] = "";
        if (pUrl->url_type == url_sips)
            strTransport = "tls";
        else if (pUrl->url_params && url_param(pUrl->url_params, "transport", szTransport, sizeof(szTransport)) > 0)
            strTransport = szTransport;
        strHost = pUrl->url_host ? pUrl->url_host : "";
        if (strHost.size() > 2 && strHost.front() == '[')
            strHost = strHost.substr(1, strHost.size() - 2);
    }
    su_home_unref(pHome);
    return contactFor(strTransport, strHost, strUser);
}

std::unique_ptr<CSipDialog> CNtaStack::createDialog(const CSipDialSettings& settings)
{
    auto pDialog = std::make_unique<CNtaDialog>(
        m_pAgent,
        contactForUri(settings.m_strProxy.empty() ? settings.m_strTo : settings.m_strProxy, settings.m_strUser),
        settings.m_strProxy, m_strProduct);
    return pDialog->call(settings, CNtaDialog::EKind::Dialog) ? std::move(pDialog) : nullptr;
}

std::unique_ptr<CSipDialog> CNtaStack::createSequence(const CSipDialSettings& settings)
{
    auto pDialog = std::make_unique<CNtaDialog>(
        m_pAgent,
        contactForUri(settings.m_strProxy.empty() ? settings.m_strTo : settings.m_strProxy, settings.m_strUser),
        settings.m_strProxy, m_strProduct);
    return pDialog->call(settings, CNtaDialog::EKind::Sequence) ? std::move(pDialog) : nullptr;
}

std::unique_ptr<CSipDialog> CNtaStack::restoreDialog(const CSipSavedDialog& saved)
{
    auto pDialog = std::make_unique<CNtaDialog>(m_pAgent, saved.m_strContact, "", m_strProduct);
    return pDialog->restore(saved) ? std::move(pDialog) : nullptr;
}
