// From the stack's messages to ours, and what of ours goes into its messages.
#include "NtaMessage.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <memory>
#include <strings.h>
#include <sys/socket.h>

namespace
{
// Beside those that begin with X-.
constexpr std::array SEEN_HEADERS = {
    "P-Asserted-Identity", "P-Preferred-Identity", "Diversion", "History-Info", "User-to-User", "P-Called-Party-ID",
    "Remote-Party-ID",     "Alert-Info",           "Call-Info", "Privacy",      "Reason"};

std::string text(const char* pText)
{
    return pText ? pText : "";
}

bool isSeen(const char* pName)
{
    return strncasecmp(pName, "X-", 2) == 0 ||
           std::any_of(
               SEEN_HEADERS.begin(), SEEN_HEADERS.end(),
               [pName](const char* pSeen) { return strcasecmp(pName, pSeen) == 0; });
}

void takeAddresses(CSipMessage& message, const sip_t* pSip)
{
    if (pSip->sip_from)
    {
        message.m_strFrom = toText(pSip->sip_from->a_url);
        message.m_strFromName = text(pSip->sip_from->a_display);
        message.m_strFromTag = text(pSip->sip_from->a_tag);
    }
    if (pSip->sip_to)
    {
        message.m_strTo = toText(pSip->sip_to->a_url);
        message.m_strToTag = text(pSip->sip_to->a_tag);
    }
    for (const sip_contact_t* pContact = pSip->sip_contact; pContact; pContact = pContact->m_next)
        message.m_vstrContacts.push_back(toText(pContact->m_url));
    if (pSip->sip_refer_to)
        message.m_strReferTo = toText(pSip->sip_refer_to->r_url);
}

void takeExtensions(CSipMessage& message, const sip_t* pSip)
{
    message.m_bReliableSupported = sip_has_feature(pSip->sip_supported, "100rel");
    message.m_bReliableRequired = sip_has_feature(pSip->sip_require, "100rel");
    message.m_bTimerSupported =
        sip_has_feature(pSip->sip_supported, "timer") || sip_has_feature(pSip->sip_require, "timer");
    message.m_bUpdateAllowed = sip_is_allowed(pSip->sip_allow, sip_method_update, "UPDATE");
    if (pSip->sip_require && pSip->sip_request)
    {
        for (const msg_param_t* pFeature = pSip->sip_require->k_items; pFeature && *pFeature; ++pFeature)
            if (strcasecmp(*pFeature, "100rel") != 0 && strcasecmp(*pFeature, "timer") != 0 &&
                strcasecmp(*pFeature, "replaces") != 0)
                message.m_strUnsupported += (message.m_strUnsupported.empty() ? "" : ", ") + std::string(*pFeature);
    }
    if (pSip->sip_session_expires)
    {
        message.m_sessionExpires = {static_cast<unsigned>(pSip->sip_session_expires->x_delta),
                                    text(pSip->sip_session_expires->x_refresher)};
    }
    message.m_uMinimumExpires = pSip->sip_min_se ? static_cast<unsigned>(pSip->sip_min_se->min_delta) : 0;
    if (pSip->sip_min_expires)
        message.m_uMinimumExpires = static_cast<unsigned>(pSip->sip_min_expires->me_delta);
    if (const sip_replaces_t* pReplaces = sip_replaces(const_cast<sip_t*>(pSip)))
    {
        message.m_replaces = {text(pReplaces->rp_call_id), text(pReplaces->rp_to_tag), text(pReplaces->rp_from_tag),
                              pReplaces->rp_early_only != 0};
    }
    message.m_uRetryAfter = pSip->sip_retry_after ? static_cast<unsigned>(pSip->sip_retry_after->af_delta) : 0;
    message.m_uExpires = pSip->sip_expires ? static_cast<unsigned>(pSip->sip_expires->ex_delta) : 0;
    if (pSip->sip_contact && pSip->sip_contact->m_expires)
        message.m_uExpires = static_cast<unsigned>(std::strtoul(pSip->sip_contact->m_expires, nullptr, 10));
}

void takeHeaders(CSipMessage& message, const sip_t* pSip)
{
    for (const sip_unknown_t* pUnknown = pSip->sip_unknown; pUnknown; pUnknown = pUnknown->un_next)
        if (pUnknown->un_name && isSeen(pUnknown->un_name))
            message.m_mapHeaders.emplace(pUnknown->un_name, text(pUnknown->un_value));
    if (pSip->sip_user_agent)
        message.m_mapHeaders.emplace("User-Agent", text(pSip->sip_user_agent->g_string));
    if (pSip->sip_subject)
        message.m_mapHeaders.emplace("Subject", text(pSip->sip_subject->g_string));
    if (pSip->sip_subscription_state)
        message.m_strSubscriptionState = text(pSip->sip_subscription_state->ss_substate);
}

bool isHeaderName(const std::string& strName)
{
    return !strName.empty() &&
           std::all_of(
               strName.begin(), strName.end(),
               [](unsigned char uc) { return std::isalnum(uc) || (uc != 0 && std::strchr("-.!%*_+`'~", uc)); });
}
} // namespace

std::string toText(const url_t* pUrl)
{
    if (!pUrl)
        return {};
    const std::unique_ptr<char, void (*)(char*)> pText(url_as_string(nullptr, pUrl),
                                                       [](char* p) { su_free(nullptr, p); });
    return text(pText.get());
}

CSipMessage toMessage(const sip_t* pSip, int nStatus)
{
    CSipMessage message;
    message.m_nStatus = nStatus;
    message.m_bLocal = !pSip || nta_sip_is_internal(pSip);
    if (!pSip)
        return message;
    if (pSip->sip_request)
    {
        message.m_strMethod = text(pSip->sip_request->rq_method_name);
        message.m_strRequestUri = toText(pSip->sip_request->rq_url);
    }
    else if (pSip->sip_status)
    {
        message.m_nStatus = pSip->sip_status->st_status;
        message.m_strReason = text(pSip->sip_status->st_phrase);
    }
    if (pSip->sip_cseq)
    {
        message.m_ulCSeq = pSip->sip_cseq->cs_seq;
        if (message.m_strMethod.empty())
            message.m_strMethod = text(pSip->sip_cseq->cs_method_name);
    }
    message.m_strCallID = pSip->sip_call_id ? text(pSip->sip_call_id->i_id) : "";
    takeAddresses(message, pSip);
    takeExtensions(message, pSip);
    takeHeaders(message, pSip);
    if (pSip->sip_content_type)
        message.m_strContentType = text(pSip->sip_content_type->c_type);
    if (pSip->sip_payload && pSip->sip_payload->pl_data)
        message.m_strBody.assign(pSip->sip_payload->pl_data, pSip->sip_payload->pl_len);
    return message;
}

void addSource(CSipMessage& message, msg_t* pMessage)
{
    if (!pMessage)
        return;
    if (const su_sockaddr_t* pAddress = msg_addr(pMessage))
    {
        std::array<char, SU_ADDRSIZE> szAddress = {};
        su_inet_ntop(pAddress->su_family, SU_ADDR(pAddress), szAddress.data(), szAddress.size());
        message.m_strSource = szAddress.data();
        if (message.m_strSource.rfind("::ffff:", 0) == 0 && message.m_strSource.find('.') != std::string::npos)
            message.m_strSource.erase(0, 7);
    }
    msg_destroy(pMessage);
}

std::string headerLines(const SipHeaders& vHeaders)
{
    std::string strLines;
    for (const auto& [strName, strValue] : vHeaders)
    {
        const bool bClean =
            std::none_of(strValue.begin(), strValue.end(), [](unsigned char uc) { return uc < 0x20 || uc == 0x7f; });
        if (isHeaderName(strName) && bClean)
            strLines += strName + ": " + strValue + "\r\n";
    }
    return strLines;
}
