// The signalling daemon: puts stack, calls and sockets together, and ends them in order.
#ifndef SIP_DAEMON_H
#define SIP_DAEMON_H

#include "Applications.h"
#include "Calls.h"
#include "Loop.h"
#include "Options.h"
#include "Registrations.h"
#include "SipStack.h"

#include <memory>
#include <string>

class CDaemon
{
public:
    explicit CDaemon(const COptions& options); // blocks the signals that it takes
    ~CDaemon();
    CDaemon(const CDaemon&) = delete;
    CDaemon& operator=(const CDaemon&) = delete;

    // Until SIGTERM or SIGINT. False, with the reason in strError, when it cannot start.
    bool run(std::string& strError);

private:
    bool loadPolicy(CPolicy& policy, std::string& strError) const;
    void onSignal();
    void reload();
    void end();

    const COptions m_options;
    int m_nSignals;
    CLoop m_loop;
    std::unique_ptr<CCalls> m_pCalls;
    std::unique_ptr<CSipStack> m_pStack;
    std::unique_ptr<CApplications> m_pApplications;
    CRegistrations m_registrations;
    CTimer m_endTimer;
    bool m_bEnding = false;
};

#endif
