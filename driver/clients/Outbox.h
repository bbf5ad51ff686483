// What goes out to clients: responses and events, bent as the fault rules say.
#ifndef DRIVER_OUTBOX_H
#define DRIVER_OUTBOX_H

#include "ClientRegistry.h"
#include "FaultRules.h"
#include "Statistics.h"
#include "TimerQueue.h"

#include <functional>
#include <string>

class COutbox
{
public:
    COutbox(CClientRegistry& registry, CFaultRules& faults, CTimerQueue& timers, CStatistics& statistics);

    // Sends a response to the client, if it is still there: at once, later, twice or not at all. Drops the
    // client when its pipe is broken. What a full pipe does not take is lost.
    void respond(int nConnectID, const structMIRSP& rsp, const CFaultAction& action);

    // Calls the function once respond has sent the answer of the same action, or would have.
    void afterResponse(const CFaultAction& action, std::function<void()> function);

    // Queues the event of a play or recording on a stream of the given call id.
    void event(int nConnectID, bool bRecord, const std::string& strCallID, structMIEVT evt);

private:
    void send(int nConnectID, const structMIRSP& rsp);

    CClientRegistry& m_registry;
    CFaultRules& m_faults;
    CTimerQueue& m_timers;
    CStatistics& m_statistics;
};

#endif
