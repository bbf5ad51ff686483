// A dialog on the stack's transactions: how it is made, and what the peer asks in it.
#include "NtaDialog.h"

#include "NtaMessage.h"

#include <spdlog/spdlog.h>

#include <cstring>

CNtaDialog::CNtaDialog(nta_agent_t* pAgent, std::string strContact, std::string strProxy, const std::string& strProduct)
    : m_pAgent(pAgent), m_strContact(std::move(strContact)), m_strProxy(std::move(strProxy)), m_strProduct(strProduct)
{
}

CNtaDialog::~CNtaDialog()
{
    m_pHandler = nullptr;
    while (!m_mapIncoming.empty())
        removeIncoming(m_mapIncoming.begin()->first);
    for (auto& [ullNumber, pOutgoing] : m_mapOutgoing)
    {
        dropForks(*pOutgoing);
        nta_outgoing_destroy(pOutgoing->m_pTransaction);
        nta_outgoing_destroy(pOutgoing->m_pAck);
    }
    nta_leg_destroy(m_pLeg);
}

bool CNtaDialog::call(const CSipDialSettings& settings, EKind eKind)
{
    m_bCaller = true;
    m_bSequence = eKind == EKind::Sequence;
    if (m_bSequence)
        m_strTarget = settings.m_strTo;
    const std::string& strTo = m_bSequence ? settings.m_strFrom : settings.m_strTo;
    m_pLeg = nta_leg_tcreate(m_pAgent, onLegRequest, this, SIPTAG_FROM_STR(settings.m_strFrom.c_str()),
                             SIPTAG_TO_STR(strTo.c_str()), TAG_END());
    return m_pLeg && nta_leg_tag(m_pLeg, nullptr);
}

bool CNtaDialog::answer(nta_incoming_t* pTransaction, const sip_t* pSip, uint64_t& ullRequest)
{
    m_pLeg = nta_leg_tcreate(m_pAgent, onLegRequest, this, SIPTAG_CALL_ID(pSip->sip_call_id), SIPTAG_FROM(pSip->sip_to),
                             SIPTAG_TO(pSip->sip_from), NTATAG_REMOTE_CSEQ(pSip->sip_cseq->cs_seq), TAG_END());
    if (!m_pLeg || !nta_leg_tag(m_pLeg, nta_incoming_tag(pTransaction, nullptr)) ||
        nta_leg_server_route(m_pLeg, pSip->sip_record_route, pSip->sip_contact) < 0)
        return false;
    for (const sip_record_route_t* pRoute = pSip->sip_record_route; pRoute; pRoute = pRoute->r_next)
        m_strRecordRoute += (m_strRecordRoute.empty() ? "<" : ", <") + toText(pRoute->r_url) + ">";
    m_strTarget = pSip->sip_contact ? toText(pSip->sip_contact->m_url) : "";
    remember(pSip, pSip->sip_to, nta_leg_get_tag(m_pLeg), pSip->sip_from);
    ullRequest = addIncoming(pTransaction, pSip).m_ullNumber;
    return true;
}

bool CNtaDialog::restore(const CSipSavedDialog& saved)
{
    m_bCaller = saved.m_bCaller;
    m_strRecordRoute = saved.m_strRoute;
    m_strTarget = saved.m_strTarget;
    m_strContact = saved.m_strContact;
    m_strCallID = saved.m_strCallID;
    m_strLocal = saved.m_strLocal;
    m_strRemote = saved.m_strRemote;
    const std::string strSequence = std::to_string(saved.m_ulLocalCSeq) + " INVITE";
    m_pLeg = nta_leg_tcreate(m_pAgent, onLegRequest, this, SIPTAG_CALL_ID_STR(saved.m_strCallID.c_str()),
                             SIPTAG_FROM_STR(saved.m_strLocal.c_str()), SIPTAG_TO_STR(saved.m_strRemote.c_str()),
                             SIPTAG_CSEQ_STR(strSequence.c_str()),
                             NTATAG_REMOTE_CSEQ(static_cast<unsigned>(saved.m_ulRemoteCSeq)), TAG_END());
    if (!m_pLeg)
        return false;
    su_home_t* pHome = su_home_create();
    sip_record_route_t* pRoute =
        m_strRecordRoute.empty() ? nullptr : sip_record_route_make(pHome, m_strRecordRoute.c_str());
    sip_contact_t* pTarget = sip_contact_make(pHome, ("<" + m_strTarget + ">").c_str());
    const bool bRouted = pTarget && (m_bCaller ? nta_leg_client_reroute(m_pLeg, pRoute, pTarget, 1)
                                               : nta_leg_server_route(m_pLeg, pRoute, pTarget)) >= 0;
    su_home_unref(pHome);
    return bRouted;
}

void CNtaDialog::remember(const sip_t* pSip, const sip_addr_t* pLocal, const char* pLocalTag, const sip_addr_t* pRemote)
{
    m_strCallID = pSip->sip_call_id->i_id;
    m_strLocal = "<" + toText(pLocal->a_url) + ">;tag=" + (pLocalTag ? pLocalTag : "");
    m_strRemote = "<" + toText(pRemote->a_url) + ">" + (pRemote->a_tag ? std::string(";tag=") + pRemote->a_tag : "");
}

CSipSavedDialog CNtaDialog::save() const
{
    CSipSavedDialog saved;
    saved.m_strCallID = m_strCallID;
    saved.m_strLocal = m_strLocal;
    saved.m_strRemote = m_strRemote;
    saved.m_strContact = m_strContact;
    saved.m_strTarget = m_strTarget;
    saved.m_strRoute = m_strRecordRoute;
    saved.m_bCaller = m_bCaller;
    saved.m_ulLocalCSeq = nta_leg_get_seq(m_pLeg);
    saved.m_ulRemoteCSeq = nta_leg_get_rseq(m_pLeg);
    return saved;
}

CNtaIncoming& CNtaDialog::addIncoming(nta_incoming_t* pTransaction, const sip_t* pSip)
{
    auto pIncoming = std::make_unique<CNtaIncoming>();
    pIncoming->m_pDialog = this;
    pIncoming->m_ullNumber = ++m_ullLastNumber;
    pIncoming->m_pTransaction = pTransaction;
    pIncoming->m_bInvite = pSip->sip_request->rq_method == sip_method_invite;
    CNtaIncoming& incoming = *pIncoming;
    m_mapIncoming[incoming.m_ullNumber] = std::move(pIncoming);
    nta_incoming_bind(pTransaction, onAckOrCancel, &incoming);
    return incoming;
}

void CNtaDialog::removeIncoming(uint64_t ullNumber)
{
    const auto iIncoming = m_mapIncoming.find(ullNumber);
    if (iIncoming != m_mapIncoming.end())
    {
        const std::unique_ptr<CNtaIncoming> pIncoming = std::move(iIncoming->second);
        m_mapIncoming.erase(iIncoming);
        for (nta_reliable_t* pReliable : pIncoming->m_vReliable)
            nta_reliable_destroy(pReliable);
        nta_incoming_destroy(pIncoming->m_pTransaction);
    }
}

int CNtaDialog::onLegRequest(CNtaDialog* pDialog, nta_leg_t* pLeg, nta_incoming_t* pTransaction, const sip_t* pSip)
{
    if (!pDialog || !pDialog->m_pHandler)
        return 481;
    if (pSip->sip_request->rq_method == sip_method_ack)
    {
        nta_incoming_destroy(pTransaction); // of no transaction
        return 0;
    }
    try
    {
        CSipMessage message = toMessage(pSip);
        addSource(message, nta_incoming_getrequest(pTransaction));
        const bool bTarget = message.m_strMethod == "INVITE" || message.m_strMethod == "UPDATE";
        if (bTarget && pSip->sip_contact)
        {
            nta_leg_server_route(pLeg, nullptr, pSip->sip_contact);
            pDialog->m_strTarget = toText(pSip->sip_contact->m_url);
        }
        pDialog->m_pHandler->onRequest(pDialog->addIncoming(pTransaction, pSip).m_ullNumber, message);
    }
    catch (const std::exception& exception)
    {
        spdlog::error("a request failed: {}", exception.what());
    }
    return 0;
}

int CNtaDialog::onAckOrCancel(CNtaIncoming* pIncoming, nta_incoming_t*, const sip_t* pSip)
{
    if (!pIncoming)
        return 0;
    CNtaDialog& dialog = *pIncoming->m_pDialog;
    const uint64_t ullNumber = pIncoming->m_ullNumber;
    CSipDialogHandler* pHandler = dialog.m_pHandler;
    try
    {
        if (!pSip)
        {
            dialog.removeIncoming(ullNumber);
            if (pHandler)
                pHandler->onAckMissing(ullNumber);
        }
        else if (pSip->sip_request->rq_method == sip_method_cancel)
        {
            if (pHandler)
                pHandler->onCancel(ullNumber);
            else
                dialog.reply(ullNumber, 487, {});
        }
        else
        {
            const CSipMessage message = toMessage(pSip);
            dialog.removeIncoming(ullNumber);
            if (pHandler)
                pHandler->onAck(ullNumber, message);
        }
    }
    catch (const std::exception& exception)
    {
        spdlog::error("an ACK or CANCEL failed: {}", exception.what());
    }
    return 0;
}

int CNtaDialog::onPrackRequest(CNtaIncoming* pIncoming, nta_reliable_t* pReliable, nta_incoming_t* pPrack,
                               const sip_t* pSip)
{
    if (!pIncoming)
        return 200;
    std::erase(pIncoming->m_vReliable, pReliable);
    nta_reliable_destroy(pReliable);
    if (!pIncoming->m_pDialog->m_pHandler)
        return 200;
    CNtaDialog& dialog = *pIncoming->m_pDialog;
    try
    {
        if (!pPrack || !pSip)
        {
            dialog.m_pHandler->onPrackMissing(pIncoming->m_ullNumber);
            return 0;
        }
        dialog.m_pHandler->onPrack(pIncoming->m_ullNumber, toMessage(pSip));
    }
    catch (const std::exception& exception)
    {
        spdlog::error("a PRACK failed: {}", exception.what());
    }
    return 200;
}

void CNtaDialog::reply(uint64_t ullRequest, int nStatus, const CSipContent& content)
{
    const auto iIncoming = m_mapIncoming.find(ullRequest);
    if (iIncoming == m_mapIncoming.end() || iIncoming->second->m_bAnswered)
        return;
    CNtaIncoming& incoming = *iIncoming->second;
    const bool bSuccess = nStatus >= 200 && nStatus < 300;
    const std::string strContact = "<" + m_strContact + ">";
    const std::string strHeaders = headerLines(content.m_vHeaders);
    // A dialog is made by it, or its target made anew.
    const bool bContact = nStatus > 100 && nStatus < 300;
    nta_incoming_treply(incoming.m_pTransaction, nStatus, sip_status_phrase(nStatus),
                        TAG_IF(bContact, SIPTAG_CONTACT_STR(strContact.c_str())),
                        SIPTAG_SERVER_STR(m_strProduct.c_str()),
                        TAG_IF(!strHeaders.empty(), SIPTAG_HEADER_STR(strHeaders.c_str())),
                        TAG_IF(!content.m_strBody.empty(), SIPTAG_CONTENT_TYPE_STR(content.m_strContentType.c_str())),
                        TAG_IF(!content.m_strBody.empty(), SIPTAG_PAYLOAD_STR(content.m_strBody.c_str())), TAG_END());
    if (nStatus < 200)
        return;
    incoming.m_bAnswered = true;
    if (!incoming.m_bInvite || !bSuccess)
        removeIncoming(ullRequest);
}

bool CNtaDialog::replyReliably(uint64_t ullRequest, int nStatus, const CSipContent& content)
{
    const auto iIncoming = m_mapIncoming.find(ullRequest);
    if (iIncoming == m_mapIncoming.end() || iIncoming->second->m_bAnswered)
        return false;
    const std::string strContact = "<" + m_strContact + ">";
    const std::string strHeaders = headerLines(content.m_vHeaders);
    nta_reliable_t* pReliable = nta_reliable_treply(
        iIncoming->second->m_pTransaction, onPrackRequest, iIncoming->second.get(), nStatus, sip_status_phrase(nStatus),
        SIPTAG_CONTACT_STR(strContact.c_str()), SIPTAG_SERVER_STR(m_strProduct.c_str()),
        TAG_IF(!strHeaders.empty(), SIPTAG_HEADER_STR(strHeaders.c_str())),
        TAG_IF(!content.m_strBody.empty(), SIPTAG_CONTENT_TYPE_STR(content.m_strContentType.c_str())),
        TAG_IF(!content.m_strBody.empty(), SIPTAG_PAYLOAD_STR(content.m_strBody.c_str())), TAG_END());
    if (pReliable)
        iIncoming->second->m_vReliable.push_back(pReliable);
    return pReliable != nullptr;
}

std::string CNtaDialog::replaces() const
{
    su_home_t* pHome = su_home_create();
    std::string strValue;
    if (sip_replaces_t* pReplaces = nta_leg_make_replaces(m_pLeg, pHome, 0))
    {
        strValue = std::string(pReplaces->rp_call_id) + ";to-tag=" + pReplaces->rp_to_tag +
                   ";from-tag=" + pReplaces->rp_from_tag;
    }
    su_home_unref(pHome);
    return strValue;
}
