// The socket of the applications, and what happens when somebody dies.
#include "SipFixture.h"

#include "WaitUntil.h"

#include <csignal>

using SipApplication = CSipFixture;

TEST_F(SipApplication, RegistersFirst)
{
    startAll();
    CJsonLinesClient client;
    nlohmann::json answer;
    std::string strError;
    ASSERT_TRUE(askJsonLines("/tmp/zelmedia-sip.sock", {{"id", 1}, {"request", "claim"}, {"call", "x"}},
                             std::chrono::seconds(10), answer, strError));
    EXPECT_EQ(answer["error"]["code"], "not-attached");
}

TEST_F(SipApplication, MistakesAreNamed)
{
    startAll();
    EXPECT_EQ(m_application.request({{"request", "dance"}})["error"]["code"], "unknown-request");
    EXPECT_EQ(m_application.request({{"request", "answer"}, {"call", "x"}, {"leg", 1}})["error"]["code"],
              "no-such-call");
    EXPECT_EQ(m_application.request({{"request", "answer"}, {"call", "x"}})["error"]["code"], "bad-request");
    EXPECT_EQ(m_application.request({{"request", "answer"}, {"call", "x"}, {"leg", 1}, {"more", 1}})["error"]["code"],
              "bad-request");
    EXPECT_EQ(
        m_application.request({{"request", "reject"}, {"call", "x"}, {"leg", 1}, {"status", 200}})["error"]["code"],
        "bad-request");
}

TEST_F(SipApplication, DigitsAreToldAndCollected)
{
    startAll();
    CProgram phone;
    call(phone, "call_until_bye.xml");
    const nlohmann::json offered = answerNext();
    auto collect = of("collect_digits", offered);
    collect["max"] = 4;
    collect["terminators"] = "#";
    EXPECT_TRUE(m_application.request(collect).value("ok", false));
    for (const char* pDigit : {"1", "2", "#"})
    {
        m_media.event({{"event", "digit"}, {"call", offered["call"]}, {"leg", 1}, {"digit", pDigit}, {"ms", 120}});
        EXPECT_EQ(m_application.wait("digit")["digit"], pDigit);
    }
    const nlohmann::json digits = m_application.wait("digits");
    EXPECT_EQ(digits["digits"], "12");
    EXPECT_EQ(digits["why"], "terminator");
    EXPECT_TRUE(m_application.request(of("hangup", offered)).value("ok", false));
    expectDone(phone);
}

TEST_F(SipApplication, RequestsForTheMediaReachTheDriver)
{
    startAll();
    CProgram phone;
    call(phone, "call_until_bye.xml");
    const nlohmann::json offered = answerNext();
    auto digits = of("send_digits", offered);
    digits["digits"] = "42#";
    EXPECT_TRUE(m_application.request(digits).value("ok", false));
    EXPECT_EQ(m_media.waitRequest("digits")["digits"], "42#");
    auto record = of("record_call", offered);
    record["file"] = "/tmp/call.wav";
    EXPECT_TRUE(m_application.request(record).value("ok", false));
    EXPECT_EQ(m_media.waitRequest("record")["file"], "/tmp/call.wav");
    EXPECT_TRUE(m_application.request(of("hangup", offered)).value("ok", false));
    expectDone(phone);
}

TEST_F(SipApplication, EventsCanBeAskedForAgain)
{
    startAll();
    CProgram phone;
    call(phone, "call_and_hang_up.xml");
    const nlohmann::json offered = answerNext();
    EXPECT_FALSE(m_application.wait("ended").is_null());
    auto request = of("events", offered);
    request["after"] = 1;
    const nlohmann::json answer = m_application.request(request);
    ASSERT_EQ(answer["events"].size(), 2U);
    EXPECT_EQ(answer["events"][0]["event"], "answered");
    EXPECT_EQ(answer["events"][1]["event"], "ended");
    expectDone(phone);
}

TEST_F(SipApplication, RingingCallGoesToAnotherOneWhenItsApplicationIsGone)
{
    startAll();
    CTestApplication other;
    CProgram phone;
    call(phone, "call_and_hang_up.xml");
    const nlohmann::json offered = m_application.wait("offered");
    ASSERT_TRUE(other.connect());
    m_application.disconnect();
    const nlohmann::json again = other.wait("offered");
    EXPECT_EQ(again["call"], offered["call"]);
    EXPECT_TRUE(other.request(of("answer", again)).value("ok", false));
    EXPECT_EQ(other.wait("ended")["reason"], "hangup");
    expectDone(phone);
}

TEST_F(SipApplication, RingingCallIsRefusedWhenNobodyIsLeft)
{
    startAll();
    CProgram phone;
    call(phone, "call_refused_503.xml");
    EXPECT_FALSE(m_application.wait("offered").is_null());
    m_application.disconnect();
    expectDone(phone);
}

TEST_F(SipApplication, AnsweredCallIsClaimedAgain)
{
    startAll();
    CProgram phone;
    call(phone, "call_until_bye.xml");
    const nlohmann::json offered = answerNext();
    m_application.disconnect();
    CTestApplication other;
    ASSERT_TRUE(other.connect());
    nlohmann::json answer;
    ASSERT_TRUE(waitUntil([&] {
        answer = other.request({{"request", "claim"}, {"call", offered["call"]}});
        return answer.value("ok", false); // as soon as the daemon knows that the other one is gone
    }));
    EXPECT_EQ(answer["calls"][0]["state"], "answered");
    EXPECT_TRUE(other.request(of("hangup", offered)).value("ok", false));
    EXPECT_EQ(other.wait("ended")["reason"], "local");
    expectDone(phone);
}

TEST_F(SipApplication, CallOfAnotherOneIsNotClaimed)
{
    startAll();
    CProgram phone;
    call(phone, "call_until_bye.xml");
    const nlohmann::json offered = answerNext();
    CTestApplication other;
    ASSERT_TRUE(other.connect("other"));
    EXPECT_EQ(other.request({{"request", "claim"}, {"call", offered["call"]}})["error"]["code"], "refused");
    EXPECT_TRUE(m_application.request(of("hangup", offered)).value("ok", false));
    expectDone(phone);
}

TEST_F(SipApplication, UnclaimedCallIsEnded)
{
    startAll();
    CProgram phone;
    call(phone, "call_until_bye.xml");
    answerNext();
    m_application.disconnect();
    expectDone(phone);
}

TEST_F(SipApplication, CallGoesToTheRouteOfItsNumber)
{
    startAll();
    CTestApplication hundred;
    ASSERT_TRUE(hundred.connect("100"));
    CProgram phone;
    call(phone, "call_and_hang_up.xml");
    const nlohmann::json offered = hundred.wait("offered");
    EXPECT_TRUE(hundred.request(of("answer", offered)).value("ok", false));
    EXPECT_FALSE(hundred.wait("ended").is_null());
    EXPECT_FALSE(m_application.has("offered"));
    expectDone(phone);
}

TEST_F(SipApplication, CallsEndWhenTheDriverIsGoneAndNewOnesAreServedWhenItIsBack)
{
    startAll();
    CProgram phone;
    call(phone, "call_until_bye.xml");
    answerNext();
    m_media.stop();
    EXPECT_EQ(m_application.wait("ended")["reason"], "driver-lost");
    EXPECT_EQ(phone.wait(), 0);
    ASSERT_TRUE(m_media.start());
    ASSERT_FALSE(m_media.waitRequest("attach", 2).is_null());
    CProgram next;
    call(next, "call_and_hang_up.xml");
    answerNext();
    EXPECT_EQ(m_application.wait("ended")["reason"], "hangup");
    expectDone(next);
}

TEST_F(SipApplication, CallWithoutMediaIsEnded)
{
    startAll();
    CProgram phone;
    call(phone, "call_until_bye.xml");
    const nlohmann::json offered = answerNext();
    m_media.event({{"event", "no_media"}, {"call", offered["call"]}, {"leg", 1}, {"seconds", 30}});
    EXPECT_EQ(m_application.wait("ended")["reason"], "no-media");
    expectDone(phone);
}

TEST_F(SipApplication, SessionsThatNobodyKnowsAreEnded)
{
    startAll();
    CProgram phone;
    call(phone, "call_until_bye.xml");
    answerNext();
    EXPECT_EQ(stopDaemon(SIGKILL), -SIGKILL);
    EXPECT_EQ(m_media.sessions(), 1U);
    ASSERT_TRUE(startDaemon());
    EXPECT_TRUE(waitUntil([this] { return m_media.sessions() == 0; }));
    phone.signal(SIGKILL);
    phone.wait();
}
