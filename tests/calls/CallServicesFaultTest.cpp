// The daemon dies at each step, comes back, forgets, is slow, or says what no daemon should.
#include "CallServicesFixture.h"

#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{
class CallServicesFault : public CallServices
{
protected:
    void loseConnection()
    {
        const size_t nLost = m_handler.count("lost");
        m_daemon.die();
        ASSERT_TRUE(m_handler.wait("lost", nLost + 1));
    }
    void comeBack()
    {
        const size_t nRestored = m_handler.count("restored");
        m_daemon.start();
        ASSERT_TRUE(m_handler.wait("restored", nRestored + 1));
    }
};

TEST_F(CallServicesFault, ADaemonThatComesLaterIsFound)
{
    m_daemon.die();
    m_pServices = std::make_unique<CZelCallServices>(&m_handler);
    EXPECT_EQ(m_pServices->answer(CZelCallInfo()), CCS_NOSUCHCALL);
    EXPECT_EQ(m_pServices->dial("sip:1@example.net", "", nullptr), CCS_NOTCONNECTED);
    EXPECT_EQ(m_pServices->claim("n1-1"), CCS_NOTCONNECTED);
    comeBack();
    EXPECT_THAT(m_handler.lines(), ElementsAre("restored"));
}

TEST_F(CallServicesFault, ALostConnectionIsHealedByNameNumberAndReplay)
{
    open();
    const CZelCallInfo call = answered();
    const auto instance = m_daemon.waitRequest("register")["instance"];
    loseConnection();
    EXPECT_EQ(m_pServices->hold(call), CCS_NOTCONNECTED);
    m_daemon.loseEvent("n1-1", 1, {{"event", "digit"}, {"digit", "1"}, {"ms", 80}});
    m_daemon.loseEvent("n1-1", 1, {{"event", "digit"}, {"digit", "2"}, {"ms", 80}});
    comeBack();
    EXPECT_EQ(m_daemon.waitRequest("register", 1)["instance"], instance);
    EXPECT_EQ(m_daemon.waitRequest("events")["after"], 2);
    m_daemon.event("n1-1", 1, {{"event", "digit"}, {"digit", "3"}, {"ms", 80}});
    end();
    ASSERT_TRUE(m_handler.wait("ended"));
    EXPECT_THAT(m_handler.lines(),
                ElementsAre("restored", "offered n1-1/1", "answered n1-1/1", "lost", "digit n1-1/1 1 80",
                            "digit n1-1/1 2 80", "restored", "digit n1-1/1 3 80", "ended n1-1/1 hangup 0"));
}

TEST_F(CallServicesFault, EventsThatArriveBeforeTheReplayWaitForIt)
{
    open();
    answered();
    loseConnection();
    m_daemon.loseEvent("n1-1", 1, {{"event", "digit"}, {"digit", "1"}, {"ms", 80}});
    m_daemon.onRequest("events", [this](auto nConnection, const auto& request) {
        m_daemon.event("n1-1", 1, {{"event", "digit"}, {"digit", "2"}, {"ms", 80}});
        m_daemon.accept(nConnection, request);
        m_daemon.event("n1-1", 1, {{"event", "digit"}, {"digit", "3"}, {"ms", 80}});
    });
    comeBack();
    ASSERT_TRUE(m_handler.wait("digit n1-1/1 3"));
    EXPECT_THAT(m_handler.lines(),
                ElementsAre("restored", "offered n1-1/1", "answered n1-1/1", "lost", "digit n1-1/1 1 80",
                            "digit n1-1/1 2 80", "restored", "digit n1-1/1 3 80"));
}

TEST_F(CallServicesFault, AMissingNumberIsAskedFor)
{
    open();
    answered();
    m_daemon.loseEvent("n1-1", 1, {{"event", "digit"}, {"digit", "1"}, {"ms", 80}});
    m_daemon.event("n1-1", 1, {{"event", "digit"}, {"digit", "2"}, {"ms", 80}});
    ASSERT_TRUE(m_handler.wait("digit", 2));
    EXPECT_THAT(m_handler.lines(),
                ElementsAre("restored", "offered n1-1/1", "answered n1-1/1", "digit n1-1/1 1 80", "digit n1-1/1 2 80"));
    EXPECT_EQ(m_daemon.count("claim"), 0U);
}

TEST_F(CallServicesFault, WhatTheReplayDoesNotHaveIsGoneAndTheRestGoesOn)
{
    open();
    answered();
    m_daemon.refuse("events", "failed");
    m_daemon.loseEvent("n1-1", 1, {{"event", "digit"}, {"digit", "1"}, {"ms", 80}});
    m_daemon.event("n1-1", 1, {{"event", "digit"}, {"digit", "2"}, {"ms", 80}});
    end();
    ASSERT_TRUE(m_handler.wait("ended"));
    EXPECT_THAT(m_handler.lines(), ElementsAre("restored", "offered n1-1/1", "answered n1-1/1", "digit n1-1/1 2 80",
                                               "ended n1-1/1 hangup 0"));
}

TEST_F(CallServicesFault, AnEndThatIsOnItsWayIsToldAsItWas)
{
    open();
    const CZelCallInfo call = answered();
    m_daemon.ignore("events");
    m_daemon.loseEvent("n1-1", 1, {{"event", "digit"}, {"digit", "1"}, {"ms", 80}});
    m_daemon.event("n1-1", 1, {{"event", "ended"}, {"reason", "hangup"}, {"status", 0}});
    m_daemon.waitRequest("events");
    m_daemon.refuse("hold", "no-such-call");
    EXPECT_EQ(m_pServices->hold(call), CCS_OK);
    ASSERT_TRUE(m_handler.wait("failed"));
    EXPECT_EQ(m_handler.count("ended"), 0U);
    m_daemon.acceptAgain("events");
    m_daemon.die();
    m_daemon.start();
    ASSERT_TRUE(m_handler.wait("ended n1-1/1 hangup 0"));
    EXPECT_EQ(m_handler.count("digit"), 1U);
}

TEST_F(CallServicesFault, CallsThatAreNotKnownAnyMoreEnd)
{
    open();
    answered("n1-1");
    answered("n1-2");
    loseConnection();
    m_daemon.forget("n1-1", 1);
    comeBack();
    ASSERT_TRUE(m_handler.wait("ended n1-1/1 control-lost 0"));
    end("n1-2");
    ASSERT_TRUE(m_handler.wait("ended n1-2/1 hangup 0"));
    EXPECT_EQ(m_handler.count("ended"), 2U);
}

TEST_F(CallServicesFault, CallsThatAnotherApplicationHasEnd)
{
    open();
    answered();
    m_daemon.refuse("claim", "refused");
    loseConnection();
    comeBack();
    EXPECT_TRUE(m_handler.wait("ended n1-1/1 control-lost 0"));
}

TEST_F(CallServicesFault, AnEndThatWasMissedIsToldAsItWas)
{
    open();
    answered();
    loseConnection();
    m_daemon.loseEvent("n1-1", 1, {{"event", "ended"}, {"reason", "no-media"}, {"status", 0}});
    m_daemon.refuse("claim", "no-such-call");
    comeBack();
    ASSERT_TRUE(m_handler.wait("ended n1-1/1 no-media 0"));
    EXPECT_EQ(m_handler.count("ended"), 1U);
}

TEST_F(CallServicesFault, HangingUpWhileTheConnectionIsLostIsRemembered)
{
    open();
    const CZelCallInfo call = answered();
    loseConnection();
    unsigned long ulRequest = 0;
    EXPECT_EQ(m_pServices->hangUp(call, &ulRequest), CCS_OK);
    EXPECT_EQ(m_pServices->hold(call), CCS_WRONGSTATE);
    m_daemon.refuse("hangup", "failed");
    comeBack();
    m_daemon.waitRequest("hangup");
    ASSERT_TRUE(m_handler.wait("failed " + std::to_string(ulRequest) + " CCS_FAILED"));
    m_daemon.acceptAgain("hangup");
    EXPECT_EQ(m_pServices->hangUp(call), CCS_OK);
    end("n1-1", "local");
    EXPECT_TRUE(m_handler.wait("ended n1-1/1 local 0"));
}

TEST_F(CallServicesFault, RequestsThatWereOnTheirWayFailButHangUpIsSentAgain)
{
    open();
    const CZelCallInfo call = answered();
    const CZelCallInfo ringing = offered("n1-2");
    for (const char* pName : {"hold", "hangup", "answer"})
        m_daemon.ignore(pName);
    unsigned long ulAnswer = 0;
    unsigned long ulHold = 0;
    EXPECT_EQ(m_pServices->answer(ringing, &ulAnswer), CCS_OK);
    EXPECT_EQ(m_pServices->hold(call, &ulHold), CCS_OK);
    EXPECT_EQ(m_pServices->hangUp(call), CCS_OK);
    m_daemon.waitRequest("hangup");
    loseConnection();
    for (const char* pName : {"hold", "hangup", "answer"})
        m_daemon.acceptAgain(pName);
    comeBack();
    m_daemon.waitRequest("hangup", 1);
    EXPECT_EQ(m_handler.count("failed " + std::to_string(ulAnswer) + " CCS_NOTCONNECTED"), 1U);
    EXPECT_EQ(m_handler.count("failed " + std::to_string(ulHold) + " CCS_NOTCONNECTED"), 1U);
    EXPECT_EQ(m_handler.count("failed"), 2U);
    EXPECT_EQ(m_pServices->answer(ringing), CCS_OK);
}

TEST_F(CallServicesFault, ADaemonThatDiesInDialIsTold)
{
    open();
    m_daemon.ignore("dial");
    std::thread dying([this] {
        m_daemon.waitRequest("dial");
        m_daemon.die();
    });
    EXPECT_EQ(m_pServices->dial("sip:1@example.net", "", nullptr), CCS_NOTCONNECTED);
    dying.join();
    EXPECT_TRUE(m_handler.wait("lost"));
}

TEST_F(CallServicesFault, ADaemonThatDiesInADialOfACallbackIsTold)
{
    CCSTATUS status = CCS_OK;
    m_handler.on("offered", [&](const CZelCallInfo&) { status = m_pServices->dial("sip:1@example.net", "", nullptr); });
    open();
    m_daemon.ignore("dial");
    m_daemon.offer("n1-1");
    m_daemon.waitRequest("dial");
    m_daemon.die();
    ASSERT_TRUE(m_handler.wait("lost"));
    EXPECT_EQ(status, CCS_NOTCONNECTED);
    EXPECT_THAT(m_handler.lines(), ElementsAre("restored", "offered n1-1/1", "lost"));
}

TEST_F(CallServicesFault, ADaemonThatRestartsOftenLosesNoEventAndNoEnd)
{
    open();
    const int nCalls = 20;
    for (int n = 0; n < nCalls; ++n)
        answered("n1-" + std::to_string(n));
    for (int nRound = 0; nRound < 20; ++nRound)
    {
        m_daemon.die();
        for (int n = 0; n < nCalls; ++n)
            m_daemon.loseEvent("n1-" + std::to_string(n), 1, {{"event", "digit"}, {"digit", "1"}, {"ms", nRound}});
        m_daemon.start();
        for (int n = 0; n < nCalls; ++n)
            m_daemon.event("n1-" + std::to_string(n), 1, {{"event", "digit"}, {"digit", "2"}, {"ms", nRound}});
    }
    for (int n = 0; n < nCalls; ++n)
        m_daemon.event("n1-" + std::to_string(n), 1, {{"event", "ended"}, {"reason", "hangup"}, {"status", 0}});
    ASSERT_TRUE(m_handler.wait("ended", nCalls));
    EXPECT_EQ(m_handler.count("ended"), size_t(nCalls));
    EXPECT_EQ(m_handler.count("digit"), size_t(nCalls * 40));
    for (int n = 0; n < nCalls; ++n)
    {
        std::vector<std::string> vExpected;
        const std::string strLeg = "n1-" + std::to_string(n) + "/1";
        vExpected = {"offered " + strLeg, "answered " + strLeg};
        for (int nRound = 0; nRound < 20; ++nRound)
            for (const char* pDigit : {" 1 ", " 2 "})
                vExpected.push_back("digit " + strLeg + pDigit + std::to_string(nRound));
        vExpected.push_back("ended " + strLeg + " hangup 0");
        std::vector<std::string> vHeard;
        for (const std::string& strLine : m_handler.lines())
            if (strLine.find(' ' + strLeg) != std::string::npos)
                vHeard.push_back(strLine);
        EXPECT_EQ(vHeard, vExpected);
    }
}

TEST_F(CallServicesFault, AStoppedDaemonIsWaitedFor)
{
    open();
    const CZelCallInfo call = answered();
    m_daemon.freeze();
    EXPECT_EQ(m_pServices->hold(call), CCS_OK);
    EXPECT_THAT(m_pServices->calls(), SizeIs(1));
    m_daemon.thaw();
    m_daemon.waitRequest("hold");
    EXPECT_EQ(m_handler.count("lost"), 0U);
}

TEST_F(CallServicesFault, AStoppedDaemonDoesNotKeepTheServicesFromEnding)
{
    open();
    answered();
    m_daemon.freeze();
    m_pServices.reset();
    m_daemon.thaw();
}

TEST_F(CallServicesFault, RequestsThatNobodyReadsAreRefusedInTheEnd)
{
    open();
    const CZelCallInfo call = answered();
    m_daemon.freeze();
    const std::string strUri(10000, 'x');
    CCSTATUS status = CCS_OK;
    for (int n = 0; n < 1000 && status == CCS_OK; ++n)
        status = m_pServices->transfer(call, strUri);
    EXPECT_EQ(status, CCS_NOTCONNECTED);
    m_daemon.thaw();
    EXPECT_EQ(m_handler.count("lost"), 0U);
}

TEST_F(CallServicesFault, SomebodyElseAtTheSocketIsLeft)
{
    m_daemon.die();
    m_daemon.setHello({{"hello", "zelmedia-driver"}});
    m_daemon.start();
    m_pServices = std::make_unique<CZelCallServices>(&m_handler);
    m_daemon.die();
    m_daemon.setHello({{"hello", "zelmedia-sip"}});
    comeBack();
    EXPECT_EQ(m_daemon.count("register"), 1U);
}

TEST_F(CallServicesFault, ARefusedRegistrationIsTriedAgain)
{
    m_daemon.refuse("register", "full");
    m_pServices = std::make_unique<CZelCallServices>(&m_handler);
    m_daemon.waitRequest("register", 1);
    EXPECT_THAT(m_handler.lines(), IsEmpty());
    m_daemon.acceptAgain("register");
    EXPECT_TRUE(m_handler.wait("restored"));
}

TEST_F(CallServicesFault, WhatHasNoMeaningIsPassedOver)
{
    open();
    answered();
    for (const char* pLine : {"{}",
                              R"({"ok":true})",
                              R"({"ok":true,"id":"x"})",
                              R"({"ok":true,"id":0})",
                              R"({"ok":7,"id":999})",
                              R"({"hello":"zelmedia-sip"})",
                              R"({"event":"digit"})",
                              R"({"event":7,"call":"n1-1","leg":1,"number":3})",
                              R"({"event":"digit","call":"n1-1","leg":-1,"number":4})",
                              R"({"event":"digit","call":7,"leg":1,"number":4})",
                              R"({"event":"digit","call":"n1-1","leg":1,"number":4,"digit":5})",
                              R"({"event":"digit","call":"n1-1","leg":1,"number":5,"digit":"12"})",
                              R"({"event":"digit","call":"n1-1","leg":1,"number":5,"digit":"1","ms":80})",
                              R"({"event":"digit","call":"n1-1","leg":1,"number":2,"digit":"1","ms":80})",
                              R"({"event":"digit","call":"n1-1","leg":1,"number":"6","digit":"1","ms":80})",
                              R"({"event":"digit","call":"n7-7","leg":1,"number":6,"digit":"1","ms":80})",
                              R"({"event":"offered","call":"a call id of many more bytes than 31","leg":1,"number":1})",
                              R"({"event":"offered","call":"","leg":1,"number":1})",
                              R"({"event":"held","call":"n1-1","leg":1,"number":6,"held":"yes"})",
                              R"({"event":"transferred","call":"n1-1","leg":1,"number":7,"status":-5})",
                              R"({"event":"ended","call":"n1-1","leg":1,"number":8,"reason":{},"status":99999})"})
        m_daemon.sendRaw(std::string(pLine) + '\n');
    ASSERT_TRUE(m_handler.wait("ended"));
    EXPECT_THAT(m_handler.lines(), ElementsAre("restored", "offered n1-1/1", "answered n1-1/1", "held n1-1/1 no",
                                               "transferred n1-1/1 0", "ended n1-1/1 failed 0"));
}

TEST_F(CallServicesFault, ADaemonThatSendsNoJsonIsLeftAndTriedAgain)
{
    open();
    const CZelCallInfo call = answered();
    m_daemon.sendRaw("rubbish\n");
    ASSERT_TRUE(m_handler.wait("restored", 2));
    EXPECT_EQ(m_pServices->hold(call), CCS_OK);
    m_daemon.waitRequest("hold");
    EXPECT_EQ(m_handler.count("ended"), 0U);
}
// A call from its offer to its end, with the connection lost at one of the requests.
class CallServicesLoss : public CallServicesFault, public testing::WithParamInterface<const char*>
{
protected:
    const std::string m_strAt = GetParam();

    void ask(const std::string& strRequest, const std::function<CCSTATUS()>& command)
    {
        EXPECT_EQ(command(), CCS_OK);
        m_daemon.waitRequest(strRequest);
        if (strRequest != m_strAt)
            return;
        ASSERT_TRUE(m_handler.wait("restored", 2));
        if (strRequest != "hangup") // which the library asks again by itself
            EXPECT_EQ(command(), CCS_OK);
        m_daemon.waitRequest(strRequest, 1);
    }
};

TEST_P(CallServicesLoss, ACallIsToldCompletely)
{
    open();
    const CZelCallInfo call = offered();
    bool bLost = false;
    m_daemon.onRequest(m_strAt, [&](auto nConnection, const CJsonRequest& request) {
        if (std::exchange(bLost, true))
            m_daemon.accept(nConnection, request);
        else
            m_daemon.drop(nConnection);
    });
    if (m_strAt == "register" || m_strAt == "claim" || m_strAt == "events")
    {
        m_daemon.dropRegistered();
        ASSERT_TRUE(m_handler.wait("restored", 2));
    }
    ask("answer", [&] { return m_pServices->answer(call); });
    m_daemon.event("n1-1", 1, {{"event", "answered"}});
    ASSERT_TRUE(m_handler.wait("answered"));
    ask(
        "collect_digits", [&] { return m_pServices->collectDigits(call, 1, "", 0, 0); });
    ask("hangup", [&] { return m_pServices->hangUp(call); });
    end("n1-1", "local");
    ASSERT_TRUE(m_handler.wait("ended n1-1/1 local 0"));
    EXPECT_TRUE(bLost);
    EXPECT_EQ(m_handler.count("offered"), 1U);
    EXPECT_EQ(m_handler.count("answered"), 1U);
    EXPECT_EQ(m_handler.count("ended"), 1U);
    EXPECT_EQ(m_handler.count("lost"), 1U);
}

INSTANTIATE_TEST_SUITE_P(At, CallServicesLoss,
                         testing::Values("register", "claim", "events", "answer", "collect_digits", "hangup"),
                         [](const auto& instance) { return std::string(instance.param); });
} // namespace
