// What goes out to clients: responses and events, bent as the fault rules say.
#include "Outbox.h"

#include <utility>

COutbox::COutbox(CClientRegistry& registry, CFaultRules& faults, CTimerQueue& timers, CStatistics& statistics)
    : m_registry(registry), m_faults(faults), m_timers(timers), m_statistics(statistics)
{
}

void COutbox::respond(int nConnectID, const structMIRSP& rsp, const CFaultAction& action)
{
    structMIRSP sent = rsp;
    sent.nRespSequenceNo -= action.m_bOldNumber ? 1 : 0;
    for (int nAnswer = 0; nAnswer < action.m_nAnswers; ++nAnswer)
        if (action.m_delay.count() > 0)
            m_timers.after(action.m_delay, [this, nConnectID, sent] { send(nConnectID, sent); });
        else
            send(nConnectID, sent);
}

void COutbox::afterResponse(const CFaultAction& action, std::function<void()> function)
{
    if (action.m_delay.count() > 0)
    {
        m_timers.after(action.m_delay, std::move(function)); // behind the answer, which has the same time
        return;
    }
    function();
}

void COutbox::send(int nConnectID, const structMIRSP& rsp)
{
    CClient* pClient = m_registry.find(nConnectID);
    if (pClient == nullptr)
        return;
    switch (pClient->port().sendResponse(rsp))
    {
    case ESend::Sent: ++m_statistics.m_ullResponsesSent; break;
    case ESend::Full:
        ++m_statistics.m_ullResponsesLost;
        pClient->m_warnings.warn("client {} does not take its responses; the one to sequence {} is lost", nConnectID,
                                 rsp.nRespSequenceNo);
        break;
    case ESend::Gone:
        ++m_statistics.m_ullResponsesLost;
        m_registry.drop(nConnectID, "its response pipe is broken");
        break;
    }
}

void COutbox::event(int nConnectID, bool bRecord, const std::string& strCallID, structMIEVT evt)
{
    const CEventFault fault = m_faults.onEvent(bRecord, strCallID);
    evt.s_mcstatus = fault.m_nStatus.value_or(evt.s_mcstatus);
    for (int nEvent = 0; nEvent < fault.m_nEvents; ++nEvent)
        if (fault.m_delay.count() > 0)
            m_timers.after(fault.m_delay, [this, nConnectID, evt] { m_registry.queueEvent(nConnectID, evt); });
        else
            m_registry.queueEvent(nConnectID, evt);
}
