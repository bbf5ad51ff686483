// Calls that go out: the daemon dials a telephone that nobody here wrote.
#include "SipFixture.h"

#include "WaitUntil.h"

#include <fstream>

class SipCalled : public CSipFixture
{
protected:
    nlohmann::json dial(CProgram& phone, const std::string& strScenario)
    {
        startAll();
        listen(phone, strScenario);
        nlohmann::json answer = m_application.request({{"request", "dial"}, {"uri", phoneUri()}});
        EXPECT_TRUE(answer.value("ok", false)) << answer;
        return answer;
    }

    void expectRefusal(const std::string& strScenario, const char* pReason, int nStatus)
    {
        CProgram phone;
        dial(phone, strScenario);
        const nlohmann::json ended = m_application.wait("ended");
        EXPECT_EQ(ended["reason"], pReason);
        EXPECT_EQ(ended["status"], nStatus);
        expectDone(phone);
    }
};

TEST_F(SipCalled, CallIsDialedAnsweredAndEnded)
{
    CProgram phone;
    const nlohmann::json call = dial(phone, "answers.xml");
    EXPECT_EQ(m_application.wait("progress")["status"], 180);
    EXPECT_EQ(m_application.wait("answered")["call"], call["call"]);
    EXPECT_EQ(m_media.waitRequest("update")["remote"], "127.0.0.1:30000");
    EXPECT_TRUE(m_application.request(of("hangup", call)).value("ok", false));
    EXPECT_EQ(m_application.wait("ended")["reason"], "local");
    expectDone(phone);
}

TEST_F(SipCalled, CalledOneMayHangUp)
{
    CProgram phone;
    dial(phone, "answers_and_hangs_up.xml");
    EXPECT_FALSE(m_application.wait("answered").is_null());
    EXPECT_EQ(m_application.wait("ended")["reason"], "hangup");
    expectDone(phone);
}

TEST_F(SipCalled, EarlyMediaIsHeard)
{
    CProgram phone;
    const nlohmann::json call = dial(phone, "early_media_called.xml");
    EXPECT_EQ(m_application.wait("progress")["status"], 183);
    EXPECT_FALSE(m_application.wait("answered").is_null());
    EXPECT_TRUE(m_application.request(of("hangup", call)).value("ok", false));
    expectDone(phone);
}

TEST_F(SipCalled, BusyIsTold)
{
    expectRefusal("busy.xml", "busy", 486);
}

TEST_F(SipCalled, DeclineIsTold)
{
    expectRefusal("declines.xml", "rejected", 603);
}

TEST_F(SipCalled, UnknownNumberIsTold)
{
    expectRefusal("unknown.xml", "rejected", 404);
}

TEST_F(SipCalled, NoAnswerIsTold)
{
    expectRefusal("unavailable.xml", "no-answer", 480);
}

TEST_F(SipCalled, BrokenPeerIsTold)
{
    expectRefusal("broken.xml", "failed", 500);
}

TEST_F(SipCalled, HangUpBeforeTheAnswerCancels)
{
    CProgram phone;
    const nlohmann::json call = dial(phone, "rings_until_cancelled.xml");
    EXPECT_EQ(m_application.wait("progress")["status"], 180);
    EXPECT_TRUE(m_application.request(of("hangup", call)).value("ok", false));
    EXPECT_EQ(m_application.wait("ended")["reason"], "local");
    expectDone(phone);
}

TEST_F(SipCalled, AnswerThatCrossesTheCancelIsEnded)
{
    CProgram phone;
    const nlohmann::json call = dial(phone, "answers_in_spite_of_cancel.xml");
    EXPECT_EQ(m_application.wait("progress")["status"], 180);
    EXPECT_TRUE(m_application.request(of("hangup", call)).value("ok", false));
    EXPECT_EQ(m_application.wait("ended")["reason"], "local");
    expectDone(phone);
    EXPECT_FALSE(m_application.has("answered"));
}

TEST_F(SipCalled, ChallengeIsAnsweredByDigestInSpiteOfOtherAlgorithms)
{
    const std::string strPolicy = "/tmp/policy.toml";
    CProgram phone;
    m_uPhonePort = 0;
    ASSERT_TRUE(m_media.start());
    listen(phone, "challenges.xml");
    std::ofstream(strPolicy) << "[[trunk]]\nname = \"provider\"\nproxy = \"sip:127.0.0.1:" << m_uPhonePort
                             << "\"\nuser = \"alice\"\npassword = \"secret\"\naddresses = [\"127.0.0.1\"]\n"
                             << "[[dial]]\nto = \"sip:*\"\ntrunk = \"provider\"\n";
    ASSERT_TRUE(startDaemon({"--config", strPolicy}));
    ASSERT_FALSE(m_media.waitRequest("attach").is_null());
    ASSERT_TRUE(m_application.connect());
    const nlohmann::json call = m_application.request({{"request", "dial"}, {"uri", "sip:100@example.invalid"}});
    ASSERT_TRUE(call.value("ok", false)) << call;
    EXPECT_FALSE(m_application.wait("answered").is_null());
    EXPECT_TRUE(m_application.request(of("hangup", call)).value("ok", false));
    expectDone(phone);
}

TEST_F(SipCalled, RedirectionIsFollowed)
{
    CProgram phone;
    const nlohmann::json call = dial(phone, "redirects_once.xml");
    EXPECT_FALSE(m_application.wait("answered").is_null());
    EXPECT_TRUE(m_application.request(of("hangup", call)).value("ok", false));
    expectDone(phone);
    EXPECT_THAT(output("/tmp/phone1.messages"), testing::HasSubstr("INVITE sip:200@127.0.0.1"));
}

TEST_F(SipCalled, WhatNoRuleAllowsIsNotDialed)
{
    startAll();
    const nlohmann::json answer = m_application.request({{"request", "dial"}, {"uri", "sip:100@192.0.2.1"}});
    EXPECT_FALSE(answer.value("ok", true));
    EXPECT_EQ(answer["error"]["code"], "refused");
    EXPECT_TRUE(m_media.requests("create").empty());
}

TEST_F(SipCalled, AddressThatIsNoneIsABadRequest)
{
    startAll();
    for (const char* pUri : {"100", "sip:a b@127.0.0.1", "http://127.0.0.1", "sip:\"@127.0.0.1"})
        EXPECT_EQ(m_application.request({{"request", "dial"}, {"uri", pUri}})["error"]["code"], "bad-request") << pUri;
}
