// Operations and events of the public interface, against the scripted daemon.
#include "CallServicesFixture.h"

#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{
nlohmann::json jsonOf(const char* pText)
{
    return nlohmann::json::parse(pText);
}

TEST_F(CallServices, RegistersItsRoute)
{
    open("sales");
    const nlohmann::json request = m_daemon.waitRequest("register");
    EXPECT_EQ(request["route"], "sales");
    EXPECT_FALSE(request["instance"].get<std::string>().empty());
    CZelCallServices other(nullptr, "sales");
    EXPECT_NE(m_daemon.waitRequest("register", 1)["instance"], request["instance"]);
}

TEST_F(CallServices, OffersCarryWhatIsKnownOfTheCall)
{
    open();
    m_daemon.offer("n1-1", 3, {{"headers", {{"X-Account", "17"}, {"Odd", 5}}}});
    const CZelCallInfo call = m_handler.call("offered n1-1/3");
    EXPECT_EQ(call.m_strCallID, "n1-1");
    EXPECT_EQ(call.m_ulLegID, 3U);
    EXPECT_EQ(call.m_strFrom, "sip:100@example.net");
    EXPECT_EQ(call.m_strTo, "sip:200@example.net");
    EXPECT_EQ(call.m_strSipCallID, "a84b4c76");
    EXPECT_EQ(call.m_mapHeaders.at("X-Account"), "17");
    EXPECT_EQ(call.m_mapHeaders.at("Odd"), "");
    EXPECT_EQ(call.m_eState, CCCS_OFFERED);
    EXPECT_THAT(m_pServices->calls(), SizeIs(1));
}

TEST_F(CallServices, AnInboundCallRingsIsAnsweredAndEndsOnce)
{
    open();
    const CZelCallInfo call = offered();
    EXPECT_EQ(m_pServices->ring(call, true), CCS_OK);
    EXPECT_EQ(m_daemon.waitRequest("ring"), jsonOf(R"({"request":"ring","call":"n1-1","leg":1,"media":true})"));
    EXPECT_EQ(m_pServices->answer(call), CCS_OK);
    EXPECT_EQ(m_daemon.waitRequest("answer"), jsonOf(R"({"request":"answer","call":"n1-1","leg":1})"));
    EXPECT_EQ(m_pServices->answer(call), CCS_WRONGSTATE);
    m_daemon.event("n1-1", 1, {{"event", "answered"}});
    EXPECT_EQ(m_handler.call("answered").m_eState, CCCS_ANSWERED);
    m_daemon.event("n1-1", 1, {{"event", "digit"}, {"digit", "5"}, {"ms", 120}});
    m_daemon.event("n1-1", 1, {{"event", "ended"}, {"reason", "hangup"}, {"status", 0}});
    m_daemon.event("n1-1", 1, {{"event", "ended"}, {"reason", "failed"}, {"status", 500}});
    m_daemon.offer("n1-2");
    ASSERT_TRUE(m_handler.wait("offered n1-2/1"));
    EXPECT_THAT(m_handler.lines(), ElementsAre("restored", "offered n1-1/1", "answered n1-1/1", "digit n1-1/1 5 120",
                                               "ended n1-1/1 hangup 0", "offered n1-2/1"));
    EXPECT_EQ(m_handler.call("ended").m_eState, CCCS_ENDED);
    EXPECT_EQ(m_pServices->hangUp(call), CCS_NOSUCHCALL);
}

TEST_F(CallServices, EachEventOfACallIsTold)
{
    open();
    answered();
    m_daemon.event("n1-1", 1, {{"event", "digits"}, {"digits", "12"}, {"why", "terminator"}});
    m_daemon.event("n1-1", 1, {{"event", "speech"}, {"begins", true}});
    m_daemon.event("n1-1", 1, {{"event", "held"}, {"held", true}});
    m_daemon.event("n1-1", 1, {{"event", "held"}, {"held", false}});
    m_daemon.event("n1-1", 1, {{"event", "transferred"}, {"status", 486}});
    m_daemon.event("n1-1", 1, {{"event", "recorded"}, {"file", "/a.wav"}, {"ok", true}});
    m_daemon.event("n1-1", 1, {{"event", "of a later version"}});
    m_daemon.event("n1-1", 1, {{"event", "progress"}, {"status", 183}});
    ASSERT_TRUE(m_handler.wait("progress"));
    EXPECT_THAT(m_handler.lines(),
                ElementsAre("restored", "offered n1-1/1", "answered n1-1/1", "digits n1-1/1 12 1",
                            "speech n1-1/1 begins", "held n1-1/1 yes", "held n1-1/1 no", "transferred n1-1/1 486",
                            "recorded n1-1/1 /a.wav whole", "progress n1-1/1 183"));
    EXPECT_EQ(m_handler.call("held n1-1/1 yes").m_eState, CCCS_HELD);
    EXPECT_EQ(m_handler.call("held n1-1/1 no").m_eState, CCCS_ANSWERED);
}

TEST_F(CallServices, EachCommandIsSentAsItIsMeant)
{
    open();
    const CZelCallInfo call = answered();
    const CZelCallInfo other = answered("n1-2");
    EXPECT_EQ(m_pServices->hold(call), CCS_OK);
    EXPECT_EQ(m_pServices->resume(call), CCS_OK);
    EXPECT_EQ(m_pServices->transfer(call, "sip:1@example.net"), CCS_OK);
    EXPECT_EQ(m_pServices->transferTo(call, other), CCS_OK);
    EXPECT_EQ(m_pServices->bridge(call, other), CCS_OK);
    EXPECT_EQ(m_pServices->unbridge(call), CCS_OK);
    EXPECT_EQ(m_pServices->sendDigits(call, "1#"), CCS_OK);
    EXPECT_EQ(m_pServices->collectDigits(call, 4, "#", 5000, 0), CCS_OK);
    EXPECT_EQ(m_pServices->recordCall(call, "/a.wav"), CCS_OK);
    EXPECT_EQ(m_pServices->setInterrupts(call, "12", true, false), CCS_OK);
    EXPECT_EQ(m_pServices->hangUp(call), CCS_OK);
    m_daemon.waitRequest("hangup");
    auto vRequests = m_daemon.requests();
    vRequests.erase(vRequests.begin(), vRequests.begin() + 3); // register, answer, answer
    const auto with = [](const char* pMore) {
        nlohmann::json request = {{"call", "n1-1"}, {"leg", 1}};
        request.update(jsonOf(pMore));
        return request;
    };
    EXPECT_THAT(vRequests,
                ElementsAre(with(R"({"request":"hold"})"), with(R"({"request":"resume"})"),
                            with(R"({"request":"transfer","uri":"sip:1@example.net"})"),
                            with(R"({"request":"transfer_to","other_call":"n1-2","other_leg":1})"),
                            with(R"({"request":"bridge","other_call":"n1-2","other_leg":1})"),
                            with(R"({"request":"unbridge"})"),
                            with(R"({"request":"send_digits","digits":"1#","ms":100})"),
                            with(R"({"request":"collect_digits","max":4,"terminators":"#","first_ms":5000})"),
                            with(R"({"request":"record_call","file":"/a.wav"})"),
                            with(R"({"request":"set","interrupt_digits":"12","interrupt_speech":true,"speech":false})"),
                            with(R"({"request":"hangup"})")));
}

TEST_F(CallServices, CommandsThatDoNotFitTheStateAreRefusedAtOnce)
{
    open();
    const CZelCallInfo call = offered();
    EXPECT_EQ(m_pServices->hold(call), CCS_WRONGSTATE);
    EXPECT_EQ(m_pServices->sendDigits(call, "1"), CCS_WRONGSTATE);
    EXPECT_EQ(m_pServices->transfer(call, "sip:1@example.net"), CCS_WRONGSTATE);
    EXPECT_EQ(m_pServices->reject(call, 486), CCS_OK);
    EXPECT_EQ(m_pServices->answer(call), CCS_WRONGSTATE);
    EXPECT_EQ(m_pServices->hangUp(call), CCS_WRONGSTATE);
    m_daemon.waitRequest("reject");
    EXPECT_THAT(m_daemon.requests(), SizeIs(2));
}

TEST_F(CallServices, ArgumentsWithoutMeaningAreRefusedAtOnce)
{
    open();
    const CZelCallInfo call = answered();
    EXPECT_EQ(m_pServices->reject(call, 399), CCS_BADARGUMENT);
    EXPECT_EQ(m_pServices->reject(call, 700), CCS_BADARGUMENT);
    EXPECT_EQ(m_pServices->sendDigits(call, ""), CCS_BADARGUMENT);
    EXPECT_EQ(m_pServices->sendDigits(call, "1x"), CCS_BADARGUMENT);
    EXPECT_EQ(m_pServices->collectDigits(call, 0, "", 0, 0), CCS_BADARGUMENT);
    EXPECT_EQ(m_pServices->collectDigits(call, 65, "", 0, 0), CCS_BADARGUMENT);
    EXPECT_EQ(m_pServices->collectDigits(call, 1, "x", 0, 0), CCS_BADARGUMENT);
    EXPECT_EQ(m_pServices->transfer(call, std::string(70000, 'x')), CCS_BADARGUMENT);
    EXPECT_EQ(m_pServices->bridge(call, call), CCS_BADARGUMENT);
    EXPECT_EQ(m_pServices->claim(""), CCS_BADARGUMENT);
    EXPECT_EQ(m_pServices->bridge(call, CZelCallInfo()), CCS_NOSUCHCALL);
    EXPECT_EQ(m_pServices->answer(CZelCallInfo()), CCS_NOSUCHCALL);
    EXPECT_THAT(m_daemon.requests(), SizeIs(2));
}

TEST_F(CallServices, RefusalsAreToldByTheNumberOfTheRequest)
{
    open();
    const CZelCallInfo call = answered();
    m_daemon.refuse("hold", "refused");
    m_daemon.refuse("transfer", "failed");
    m_daemon.refuse("record_call", "bad-request");
    m_daemon.refuse("unbridge", "wrong-state");
    unsigned long aulRequests[4] = {};
    m_pServices->hold(call, &aulRequests[0]);
    m_pServices->transfer(call, "sip:1@example.net", &aulRequests[1]);
    m_pServices->recordCall(call, "", &aulRequests[2]);
    m_pServices->unbridge(call, &aulRequests[3]);
    ASSERT_TRUE(m_handler.wait("failed", 4));
    const char* const apStatuses[] = {" CCS_REFUSED", " CCS_FAILED", " CCS_BADARGUMENT", " CCS_WRONGSTATE"};
    for (int n = 0; n < 4; ++n)
        EXPECT_EQ(m_handler.count("failed " + std::to_string(aulRequests[n]) + apStatuses[n]), 1U);
}

TEST_F(CallServices, ARefusedAnswerCanBeTriedAgain)
{
    open();
    const CZelCallInfo call = offered();
    m_daemon.refuse("answer", "failed");
    EXPECT_EQ(m_pServices->answer(call), CCS_OK);
    ASSERT_TRUE(m_handler.wait("failed"));
    m_daemon.acceptAgain("answer");
    EXPECT_EQ(m_pServices->answer(call), CCS_OK);
    m_daemon.event("n1-1", 1, {{"event", "answered"}});
    EXPECT_TRUE(m_handler.wait("answered"));
}

TEST_F(CallServices, AnAnswerThatCrossesTheEndOfTheCallDoesNoHarm)
{
    open();
    const CZelCallInfo call = offered();
    m_daemon.onRequest("answer", [this](auto nConnection, const auto& request) {
        m_daemon.event("n1-1", 1, {{"event", "ended"}, {"reason", "cancelled"}, {"status", 487}});
        m_daemon.forget("n1-1", 1);
        m_daemon.accept(nConnection, request);
    });
    EXPECT_EQ(m_pServices->answer(call), CCS_OK);
    ASSERT_TRUE(m_handler.wait("failed"));
    EXPECT_THAT(m_handler.lines(), ElementsAre("restored", "offered n1-1/1", "ended n1-1/1 cancelled 487",
                                               testing::EndsWith("CCS_NOSUCHCALL")));
}

TEST_F(CallServices, AfterHangUpOnlyEventsCome)
{
    open();
    const CZelCallInfo call = answered();
    EXPECT_EQ(m_pServices->hangUp(call), CCS_OK);
    EXPECT_EQ(m_pServices->hold(call), CCS_WRONGSTATE);
    m_daemon.event("n1-1", 1, {{"event", "digit"}, {"digit", "1"}, {"ms", 80}});
    end("n1-1", "local");
    ASSERT_TRUE(m_handler.wait("ended n1-1/1 local 0"));
    EXPECT_EQ(m_handler.count("digit"), 1U);
    EXPECT_THAT(m_pServices->calls(), IsEmpty());
}

TEST_F(CallServices, DialGivesTheLegOfWhichEventsTell)
{
    open("nobody");
    CZelCallInfo call;
    ASSERT_EQ(m_pServices->dial("sip:300@example.net", "sip:me@example.net", &call), CCS_OK);
    EXPECT_EQ(m_daemon.waitRequest("dial"),
              jsonOf(R"({"request":"dial","uri":"sip:300@example.net","from":"sip:me@example.net"})"));
    EXPECT_EQ(call.m_strCallID, "dialled-1");
    EXPECT_EQ(call.m_ulLegID, 1U);
    EXPECT_EQ(call.m_strTo, "sip:300@example.net");
    EXPECT_EQ(call.m_eState, CCCS_DIALING);
    m_daemon.event("dialled-1", 1, {{"event", "progress"}, {"status", 180}});
    m_daemon.event("dialled-1", 1, {{"event", "answered"}});
    m_daemon.event("dialled-1", 1, {{"event", "ended"}, {"reason", "busy"}, {"status", 486}});
    ASSERT_TRUE(m_handler.wait("ended dialled-1/1 busy 486"));
    EXPECT_EQ(m_handler.count("progress dialled-1/1 180"), 1U);
    EXPECT_EQ(m_handler.call("answered").m_strTo, "sip:300@example.net");
}

TEST_F(CallServices, DialThatIsRefusedSaysSoItself)
{
    open();
    m_daemon.refuse("dial", "refused");
    CZelCallInfo call;
    EXPECT_EQ(m_pServices->dial("sip:300@example.net", "", &call), CCS_REFUSED);
    EXPECT_EQ(call.m_strCallID, "");
    EXPECT_EQ(m_handler.count("failed"), 0U);
    EXPECT_THAT(m_pServices->calls(), IsEmpty());
}

TEST_F(CallServices, ACallbackMayDialAndTheEventsThatCameMeanwhileFollow)
{
    m_handler.on("offered", [this](const CZelCallInfo&) {
        m_daemon.event("n1-1", 1, {{"event", "digit"}, {"digit", "1"}, {"ms", 80}});
        CZelCallInfo dialled;
        EXPECT_EQ(m_pServices->dial("sip:300@example.net", "", &dialled), CCS_OK);
        m_daemon.event(dialled.m_strCallID, 1, {{"event", "answered"}});
    });
    open();
    m_daemon.offer("n1-1");
    ASSERT_TRUE(m_handler.wait("answered dialled-1/1"));
    EXPECT_THAT(m_handler.lines(),
                ElementsAre("restored", "offered n1-1/1", "digit n1-1/1 1 80", "answered dialled-1/1"));
}

TEST_F(CallServices, CallbacksMayCallEverything)
{
    m_handler.on("offered", [this](const CZelCallInfo& call) {
        EXPECT_EQ(m_pServices->ring(call), CCS_OK);
        EXPECT_EQ(m_pServices->answer(call), CCS_OK);
        EXPECT_THAT(m_pServices->calls(), SizeIs(1));
    });
    m_handler.on("ended", [this](const CZelCallInfo& call) {
        EXPECT_EQ(m_pServices->hangUp(call), CCS_NOSUCHCALL);
        EXPECT_THAT(m_pServices->calls(), IsEmpty());
    });
    open();
    m_daemon.offer("n1-1");
    m_daemon.waitRequest("answer");
    end();
    EXPECT_TRUE(m_handler.wait("ended"));
}

TEST_F(CallServices, ACallbackMayDestroyTheServices)
{
    m_handler.on("digit", [this](const CZelCallInfo&) { m_pServices.reset(); });
    open();
    answered();
    m_daemon.event("n1-1", 1, {{"event", "digit"}, {"digit", "1"}, {"ms", 80}});
    m_daemon.event("n1-1", 1, {{"event", "digit"}, {"digit", "2"}, {"ms", 80}});
    ASSERT_TRUE(m_handler.wait("digit n1-1/1 1 80"));
    open(); // another one goes on with the handler
    m_daemon.offer("n1-2");
    ASSERT_TRUE(m_handler.wait("offered n1-2/1"));
    EXPECT_EQ(m_handler.count("digit"), 1U);
}

TEST_F(CallServices, DestructionWithCallsOpenWaitsForTheCallbackThatRuns)
{
    open();
    std::atomic<bool> bInside{false};
    std::atomic<bool> bLeave{false};
    std::atomic<bool> bGone{false};
    m_handler.on("digit", [&](const CZelCallInfo&) {
        bInside = true;
        while (!bLeave)
            std::this_thread::yield();
        EXPECT_FALSE(bGone);
    });
    answered();
    m_daemon.event("n1-1", 1, {{"event", "digit"}, {"digit", "1"}, {"ms", 80}});
    while (!bInside)
        std::this_thread::yield();
    std::thread destroying([&] {
        m_pServices.reset();
        bGone = true;
    });
    bLeave = true;
    destroying.join();
    end();
    EXPECT_EQ(m_handler.count("ended"), 0U);
}

TEST_F(CallServices, AHandlerIsNotNeeded)
{
    CZelCallServices services(nullptr);
    m_daemon.waitRequest("register");
    m_daemon.offer("n1-1");
    while (services.calls().empty())
        std::this_thread::yield();
    EXPECT_EQ(services.answer(services.calls()[0]), CCS_OK);
    m_daemon.waitRequest("answer");
}

TEST_F(CallServices, ClaimTakesOverTheLegsOfACall)
{
    m_daemon.know("n1-9", 1, "answered");
    m_daemon.know("n1-9", 2, "ended");
    m_daemon.loseEvent("n1-9", 1, {{"event", "answered"}});
    open();
    EXPECT_EQ(m_pServices->claim("n1-9"), CCS_OK);
    const CZelCallInfo call = m_handler.call("claimed n1-9/1");
    EXPECT_EQ(call.m_eState, CCCS_ANSWERED);
    m_daemon.event("n1-9", 1, {{"event", "digit"}, {"digit", "1"}, {"ms", 80}});
    ASSERT_TRUE(m_handler.wait("digit n1-9/1 1 80"));
    EXPECT_EQ(m_handler.count("answered"), 0U);
    EXPECT_EQ(m_handler.count("claimed"), 1U);
    EXPECT_EQ(m_pServices->claim("n1-8"), CCS_OK);
    EXPECT_TRUE(m_handler.wait("failed"));
    EXPECT_EQ(m_pServices->hangUp(call), CCS_OK);
}

TEST_F(CallServices, ManyThreadsMayAskAtOnce)
{
    open();
    const CZelCallInfo call = answered();
    std::vector<std::thread> vThreads;
    for (int nThread = 0; nThread < 4; ++nThread)
        vThreads.emplace_back([&] {
            for (int n = 0; n < 100; ++n)
            {
                EXPECT_EQ(m_pServices->sendDigits(call, "1"), CCS_OK);
                EXPECT_FALSE(m_pServices->calls().empty());
            }
            CZelCallInfo dialled;
            EXPECT_EQ(m_pServices->dial("sip:1@example.net", "", &dialled), CCS_OK);
            EXPECT_EQ(m_pServices->hangUp(dialled), CCS_OK);
        });
    for (std::thread& thread : vThreads)
        thread.join();
    m_daemon.waitRequest("hangup", 3);
    EXPECT_EQ(m_daemon.count("send_digits"), 400U);
    EXPECT_EQ(m_handler.count("failed"), 0U);
}
} // namespace
