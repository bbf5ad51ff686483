// A dialog on the stack's transactions: what we ask in it, and the answers.
#include "NtaDialog.h"

#include "NtaDigest.h"
#include "NtaMessage.h"

#include <spdlog/spdlog.h>

namespace
{
sip_method_t methodOf(const std::string& strMethod)
{
    return sip_method_code(strMethod.c_str());
}
} // namespace

uint64_t CNtaDialog::invite(const std::string& strUri, const CSipContent& content)
{
    auto pOutgoing = std::make_unique<CNtaOutgoing>();
    pOutgoing->m_strMethod = "INVITE";
    pOutgoing->m_strUri = strUri;
    pOutgoing->m_content = content;
    pOutgoing->m_bFirst = true;
    return send(std::move(pOutgoing));
}

uint64_t CNtaDialog::reinvite(const CSipContent& content)
{
    return request("INVITE", content);
}

uint64_t CNtaDialog::request(const std::string& strMethod, const CSipContent& content)
{
    auto pOutgoing = std::make_unique<CNtaOutgoing>();
    pOutgoing->m_strMethod = strMethod;
    pOutgoing->m_strUri = m_bSequence ? m_strTarget : "";
    pOutgoing->m_content = content;
    return send(std::move(pOutgoing));
}

uint64_t CNtaDialog::send(std::unique_ptr<CNtaOutgoing> pOutgoing)
{
    pOutgoing->m_pDialog = this;
    pOutgoing->m_ullNumber = ++m_ullLastNumber;
    if (!transmit(*pOutgoing))
        return 0;
    if (pOutgoing->m_strMethod == "INVITE")
        removeOutgoing(std::exchange(m_ullLastInvite, pOutgoing->m_ullNumber));
    const uint64_t ullNumber = pOutgoing->m_ullNumber;
    m_mapOutgoing[ullNumber] = std::move(pOutgoing);
    return ullNumber;
}

bool CNtaDialog::transmit(CNtaOutgoing& outgoing)
{
    const std::string strContact = "<" + m_strContact + ">";
    const std::string strHeaders = headerLines(outgoing.m_content.m_vHeaders) + outgoing.m_strAuthorization;
    const std::string& strBody = outgoing.m_content.m_strBody;
    const bool bTarget = outgoing.m_strMethod != "BYE";
    // Without routes of the dialog the proxy that was asked for stays in between.
    const bool bProxy = !m_strProxy.empty() && (outgoing.m_bFirst || m_bSequence);
    outgoing.m_pTransaction = nta_outgoing_tcreate(
        m_pLeg, onAnyResponse, &outgoing, bProxy ? urlText(m_strProxy) : nullptr, methodOf(outgoing.m_strMethod),
        outgoing.m_strMethod.c_str(), urlText(outgoing.m_strUri),
        TAG_IF(bTarget, SIPTAG_CONTACT_STR(strContact.c_str())), SIPTAG_USER_AGENT_STR(m_strProduct.c_str()),
        TAG_IF(!strHeaders.empty(), SIPTAG_HEADER_STR(strHeaders.c_str())),
        TAG_IF(!strBody.empty(), SIPTAG_CONTENT_TYPE_STR(outgoing.m_content.m_strContentType.c_str())),
        TAG_IF(!strBody.empty(), SIPTAG_PAYLOAD_STR(strBody.c_str())), TAG_END());
    return outgoing.m_pTransaction != nullptr;
}

void CNtaDialog::removeOutgoing(uint64_t ullNumber)
{
    const auto iOutgoing = m_mapOutgoing.find(ullNumber);
    if (iOutgoing == m_mapOutgoing.end())
        return;
    const std::unique_ptr<CNtaOutgoing> pOutgoing = std::move(iOutgoing->second);
    m_mapOutgoing.erase(iOutgoing);
    dropForks(*pOutgoing);
    nta_outgoing_destroy(pOutgoing->m_pTransaction);
    nta_outgoing_destroy(pOutgoing->m_pAck);
}

void CNtaDialog::dropForks(CNtaOutgoing& outgoing)
{
    for (auto& [strTag, fork] : outgoing.m_mapForks)
    {
        nta_outgoing_destroy(fork.m_pTransaction);
        nta_leg_destroy(fork.m_pLeg);
    }
    outgoing.m_mapForks.clear();
}

void CNtaDialog::ack(uint64_t ullInvite, const CSipContent& content)
{
    const auto iOutgoing = m_mapOutgoing.find(ullInvite);
    if (iOutgoing == m_mapOutgoing.end() || iOutgoing->second->m_pAck)
        return;
    CNtaOutgoing& outgoing = *iOutgoing->second;
    // Requests sent meanwhile have moved the dialog's own number on.
    const std::string strSequence = std::to_string(nta_outgoing_cseq(outgoing.m_pTransaction)) + " ACK";
    const std::string strHeaders = headerLines(content.m_vHeaders) + outgoing.m_strAuthorization;
    outgoing.m_pAck = nta_outgoing_tcreate(
        m_pLeg, nullptr, nullptr, nullptr, SIP_METHOD_ACK, nullptr, SIPTAG_CSEQ_STR(strSequence.c_str()),
        TAG_IF(!strHeaders.empty(), SIPTAG_HEADER_STR(strHeaders.c_str())),
        TAG_IF(!content.m_strBody.empty(), SIPTAG_CONTENT_TYPE_STR(content.m_strContentType.c_str())),
        TAG_IF(!content.m_strBody.empty(), SIPTAG_PAYLOAD_STR(content.m_strBody.c_str())), TAG_END());
}

void CNtaDialog::cancel(uint64_t ullInvite)
{
    const auto iOutgoing = m_mapOutgoing.find(ullInvite);
    if (iOutgoing != m_mapOutgoing.end())
        nta_outgoing_cancel(iOutgoing->second->m_pTransaction);
}

bool CNtaDialog::authorize(CNtaOutgoing& outgoing, const sip_t* pSip)
{
    if (m_credentials.m_strUser.empty() || outgoing.m_uTries++ > 1)
        return false;
    msg_t* pRequest = nta_outgoing_getrequest(outgoing.m_pTransaction);
    const sip_t* pSent = pRequest ? sip_object(pRequest) : nullptr;
    const std::string strUri = pSent && pSent->sip_request ? toText(pSent->sip_request->rq_url) : outgoing.m_strUri;
    msg_destroy(pRequest);
    outgoing.m_strAuthorization =
        digestLines(pSip, m_credentials, outgoing.m_strMethod, strUri, outgoing.m_content.m_strBody);
    if (outgoing.m_strAuthorization.empty())
        return false;
    nta_outgoing_t* pOld = outgoing.m_pTransaction;
    if (!transmit(outgoing))
    {
        outgoing.m_pTransaction = pOld;
        return false;
    }
    dropForks(outgoing);
    nta_outgoing_destroy(pOld);
    return true;
}

void CNtaDialog::acknowledgeReliable(CNtaOutgoing& outgoing, nta_outgoing_t* pTransaction, const sip_t* pSip)
{
    const std::string strTag = pSip->sip_to->a_tag;
    nta_leg_t* pLeg = m_pLeg;
    if (outgoing.m_bFirst)
    {
        CNtaOutgoing::CFork& fork = outgoing.m_mapForks[strTag];
        if (!fork.m_pLeg)
        {
            fork.m_pLeg = nta_leg_tcreate(m_pAgent, onLegRequest, this, SIPTAG_CALL_ID(pSip->sip_call_id),
                                          SIPTAG_FROM(pSip->sip_from), SIPTAG_TO(pSip->sip_to),
                                          SIPTAG_CSEQ(pSip->sip_cseq), TAG_END());
            nta_leg_client_reroute(fork.m_pLeg, pSip->sip_record_route, pSip->sip_contact, 1);
            fork.m_pTransaction =
                nta_outgoing_tagged(outgoing.m_pTransaction, onAnyResponse, &outgoing, strTag.c_str(), nullptr);
        }
        pLeg = fork.m_pLeg;
        pTransaction = fork.m_pTransaction;
    }
    if (pLeg && pTransaction)
    {
        nta_outgoing_t* pPrack =
            nta_outgoing_prack(pLeg, pTransaction, onPrackResponse, &outgoing, nullptr, nullptr,
                               NTATAG_RSEQ(static_cast<unsigned>(pSip->sip_rseq->rs_response)), TAG_END());
        if (!pPrack)
            spdlog::warn("no PRACK could be sent");
    }
}

int CNtaDialog::onPrackResponse(CNtaOutgoing*, nta_outgoing_t* pTransaction, const sip_t* pSip)
{
    if (nta_outgoing_status(pTransaction) >= 200 || !pSip)
        nta_outgoing_destroy(pTransaction);
    return 0;
}

// The 2xx decides which fork is the dialog.
void CNtaDialog::establish(CNtaOutgoing& outgoing, const sip_t* pSip)
{
    if (!outgoing.m_bFirst)
    {
        nta_leg_client_reroute(m_pLeg, nullptr, pSip->sip_contact, 0);
    }
    else
    {
        const auto iFork = outgoing.m_mapForks.find(pSip->sip_to->a_tag ? pSip->sip_to->a_tag : "");
        if (iFork != outgoing.m_mapForks.end() && iFork->second.m_pLeg)
            nta_leg_destroy(std::exchange(m_pLeg, std::exchange(iFork->second.m_pLeg, nullptr)));
        else
            nta_leg_rtag(m_pLeg, pSip->sip_to->a_tag);
        nta_leg_client_reroute(m_pLeg, pSip->sip_record_route, pSip->sip_contact, 1);
        remember(pSip, pSip->sip_from, pSip->sip_from->a_tag, pSip->sip_to);
        for (const sip_record_route_t* pRoute = pSip->sip_record_route; pRoute; pRoute = pRoute->r_next)
            m_strRecordRoute += (m_strRecordRoute.empty() ? "<" : ", <") + toText(pRoute->r_url) + ">";
    }
    if (pSip->sip_contact)
        m_strTarget = toText(pSip->sip_contact->m_url);
}

int CNtaDialog::onAnyResponse(CNtaOutgoing* pOutgoing, nta_outgoing_t* pTransaction, const sip_t* pSip)
{
    if (!pOutgoing)
        return 0;
    CNtaDialog& dialog = *pOutgoing->m_pDialog;
    const int nStatus = nta_outgoing_status(pTransaction);
    const uint64_t ullNumber = pOutgoing->m_ullNumber;
    const bool bInvite = pOutgoing->m_strMethod == "INVITE";
    try
    {
        if ((nStatus == 401 || nStatus == 407) && pSip && dialog.authorize(*pOutgoing, pSip))
            return 0;
        if (bInvite && nStatus > 100 && nStatus < 200 && pSip && pSip->sip_rseq && pSip->sip_to->a_tag)
            dialog.acknowledgeReliable(*pOutgoing, pTransaction, pSip);
        const bool bSuccess = nStatus >= 200 && nStatus < 300;
        if (bInvite && bSuccess && pSip)
            dialog.establish(*pOutgoing, pSip);
        const CSipMessage message = toMessage(pSip, nStatus);
        CSipDialogHandler* pHandler = dialog.m_pHandler;
        // The ACK of a 2xx is repeated by what was kept of the INVITE.
        if (nStatus >= 200 && !(bInvite && bSuccess))
            dialog.removeOutgoing(ullNumber);
        if (pHandler)
            pHandler->onResponse(ullNumber, message);
    }
    catch (const std::exception& exception)
    {
        spdlog::error("a response failed: {}", exception.what());
    }
    return 0;
}
