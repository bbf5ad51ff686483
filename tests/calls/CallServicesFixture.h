// The library against the scripted daemon, with a handler that keeps what it hears.
#ifndef CALL_SERVICES_FIXTURE_H
#define CALL_SERVICES_FIXTURE_H

#include "CallHandlerRecord.h"
#include "ScriptedCallDaemon.h"

#include <memory>

class CallServices : public testing::Test
{
protected:
    void open(const std::string& strRoute = "*")
    {
        const size_t nRestored = m_handler.count("restored");
        m_pServices = std::make_unique<CZelCallServices>(&m_handler, strRoute);
        ASSERT_TRUE(m_handler.wait("restored", nRestored + 1));
    }
    // A call that is offered.
    CZelCallInfo offered(const std::string& strCall = "n1-1")
    {
        m_daemon.offer(strCall);
        return m_handler.call("offered " + strCall + "/1");
    }
    // One that is answered.
    CZelCallInfo answered(const std::string& strCall = "n1-1")
    {
        const CZelCallInfo call = offered(strCall);
        const size_t nAnswers = m_daemon.count("answer");
        EXPECT_EQ(m_pServices->answer(call), CCS_OK);
        m_daemon.waitRequest("answer", nAnswers);
        m_daemon.event(strCall, 1, {{"event", "answered"}});
        return m_handler.call("answered " + strCall + "/1");
    }
    void end(const std::string& strCall = "n1-1", const std::string& strReason = "hangup")
    {
        m_daemon.event(strCall, 1, {{"event", "ended"}, {"reason", strReason}, {"status", 0}});
        m_daemon.forget(strCall, 1);
    }

    CScriptedCallDaemon m_daemon;
    CCallHandlerRecord m_handler;
    std::unique_ptr<CZelCallServices> m_pServices;
};

#endif
