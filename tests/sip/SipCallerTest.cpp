// Calls that come in: a telephone that nobody here wrote calls the daemon.
#include "SipFixture.h"

#include "WaitUntil.h"

using SipCaller = CSipFixture;

TEST_F(SipCaller, CallIsOfferedAnsweredAndEndedByTheCaller)
{
    startAll();
    CProgram phone;
    call(phone, "call_and_hang_up.xml");
    const nlohmann::json offered = m_application.wait("offered");
    EXPECT_EQ(offered["leg"], 1);
    EXPECT_EQ(offered["state"], "offered");
    EXPECT_LE(offered["call"].get<std::string>().size(), 31U);
    EXPECT_EQ(offered["number"], 1);
    EXPECT_TRUE(m_application.request(of("ring", offered)).value("ok", false));
    EXPECT_TRUE(m_application.request(of("answer", offered)).value("ok", false));
    EXPECT_FALSE(m_application.wait("answered").is_null());
    const nlohmann::json ended = m_application.wait("ended");
    EXPECT_EQ(ended["reason"], "hangup");
    EXPECT_EQ(ended["number"], 3);
    expectDone(phone);
}

TEST_F(SipCaller, DriverIsToldWhatWasAgreedOn)
{
    startAll();
    CProgram phone;
    call(phone, "call_and_hang_up.xml");
    answerNext();
    EXPECT_EQ(m_media.waitRequest("create")["direction"], "inactive");
    const nlohmann::json update = m_media.waitRequest("update");
    EXPECT_EQ(update["remote"], "127.0.0.1:30000");
    EXPECT_EQ(update["send"]["name"], "PCMU");
    EXPECT_EQ(update["send_digits"], 101);
    EXPECT_EQ(update["direction"], "sendrecv");
    EXPECT_EQ(update["receive"].size(), 3U);
    EXPECT_EQ(m_media.waitRequest("end")["reason"], "hangup");
    expectDone(phone);
}

TEST_F(SipCaller, CallIsEndedByTheApplication)
{
    startAll();
    CProgram phone;
    call(phone, "call_until_bye.xml");
    const nlohmann::json offered = answerNext();
    EXPECT_TRUE(m_application.request(of("hangup", offered)).value("ok", false));
    EXPECT_EQ(m_application.wait("ended")["reason"], "local");
    EXPECT_EQ(m_application.request(of("hangup", offered))["error"]["code"], "wrong-state");
    expectDone(phone);
}

TEST_F(SipCaller, RejectedCallGetsTheStatus)
{
    startAll();
    CProgram phone;
    call(phone, "call_refused_busy.xml");
    auto request = of("reject", m_application.wait("offered"));
    request["status"] = 486;
    EXPECT_TRUE(m_application.request(request).value("ok", false));
    const nlohmann::json ended = m_application.wait("ended");
    EXPECT_EQ(ended["reason"], "local");
    EXPECT_EQ(ended["status"], 486);
    expectDone(phone);
}

TEST_F(SipCaller, RedirectedCallGetsTheTarget)
{
    startAll();
    CProgram phone;
    call(phone, "call_redirected.xml");
    auto request = of("redirect", m_application.wait("offered"));
    request["uri"] = "sip:200@192.0.2.1";
    EXPECT_TRUE(m_application.request(request).value("ok", false));
    EXPECT_FALSE(m_application.wait("ended").is_null());
    expectDone(phone);
    EXPECT_THAT(output("/tmp/phone1.messages"), testing::HasSubstr("Contact: <sip:200@192.0.2.1>"));
}

TEST_F(SipCaller, CancelledCallEndsOnce)
{
    startAll();
    CProgram phone;
    call(phone, "call_cancelled.xml");
    EXPECT_TRUE(m_application.request(of("ring", m_application.wait("offered"))).value("ok", false));
    EXPECT_EQ(m_application.wait("ended")["reason"], "cancelled");
    expectDone(phone);
    EXPECT_FALSE(m_application.has("ended"));
}

TEST_F(SipCaller, WithoutApplicationTheCallIsRefused)
{
    ASSERT_TRUE(m_media.start());
    ASSERT_TRUE(startDaemon());
    ASSERT_FALSE(m_media.waitRequest("attach").is_null());
    CProgram phone;
    call(phone, "call_refused_503.xml");
    expectDone(phone);
}

TEST_F(SipCaller, WithoutMediaDriverTheCallIsRefused)
{
    ASSERT_TRUE(startDaemon());
    ASSERT_TRUE(m_application.connect());
    CProgram phone;
    call(phone, "call_refused_503.xml");
    expectDone(phone);
}

TEST_F(SipCaller, WithoutPortForItsMediaTheCallIsRefused)
{
    startAll();
    m_media.m_bRefuse = true;
    CProgram phone;
    call(phone, "call_refused_503.xml");
    expectDone(phone);
    EXPECT_FALSE(m_application.has("offered"));
}

TEST_F(SipCaller, CodecsThatNobodyHasAreRefused)
{
    startAll();
    CProgram phone;
    call(phone, "call_without_common_codec.xml");
    expectDone(phone);
    EXPECT_FALSE(m_application.has("offered"));
}

TEST_F(SipCaller, UnknownExtensionThatIsRequiredIsRefused)
{
    startAll();
    CProgram phone;
    call(phone, "call_requires_unknown.xml");
    expectDone(phone);
}

TEST_F(SipCaller, SessionThatIsTooShortIsRefused)
{
    startAll();
    CProgram phone;
    call(phone, "call_short_session.xml");
    expectDone(phone);
    EXPECT_THAT(output("/tmp/phone1.messages"), testing::HasSubstr("Min-SE: 90"));
}

TEST_F(SipCaller, OptionsAreAnswered)
{
    startAll();
    CProgram phone;
    call(phone, "options.xml");
    expectDone(phone);
}

TEST_F(SipCaller, OfferMayComeFromTheDaemon)
{
    startAll();
    CProgram phone;
    call(phone, "late_offer.xml");
    answerNext();
    EXPECT_EQ(m_media.waitRequest("update")["remote"], "127.0.0.1:30000");
    EXPECT_EQ(m_application.wait("ended")["reason"], "hangup");
    expectDone(phone);
}

TEST_F(SipCaller, MediaMayComeBeforeTheAnswer)
{
    startAll();
    CProgram phone;
    call(phone, "early_media.xml");
    const nlohmann::json offered = m_application.wait("offered");
    auto ring = of("ring", offered);
    ring["media"] = true;
    EXPECT_TRUE(m_application.request(ring).value("ok", false));
    EXPECT_EQ(m_media.waitRequest("update")["direction"], "sendrecv");
    EXPECT_TRUE(m_application.request(of("answer", offered)).value("ok", false));
    EXPECT_FALSE(m_application.wait("answered").is_null());
    EXPECT_TRUE(m_application.request(of("hangup", offered)).value("ok", false));
    expectDone(phone);
}

TEST_F(SipCaller, ReliableRingingIsFollowedByTheAnswer)
{
    startAll();
    CProgram phone;
    call(phone, "prack.xml");
    const nlohmann::json offered = m_application.wait("offered");
    auto ring = of("ring", offered);
    ring["media"] = true;
    EXPECT_TRUE(m_application.request(ring).value("ok", false));
    EXPECT_TRUE(m_application.request(of("answer", offered)).value("ok", false));
    EXPECT_EQ(m_application.wait("ended")["reason"], "hangup");
    expectDone(phone);
}

TEST_F(SipCaller, AnswerIsRepeatedUntilItsAck)
{
    startAll();
    CProgram phone;
    call(phone, "lost_ack.xml");
    answerNext();
    EXPECT_EQ(m_application.wait("ended")["reason"], "hangup");
    expectDone(phone);
}

TEST_F(SipCaller, CallerMayHoldAndResume)
{
    startAll();
    CProgram phone;
    call(phone, "reinvite_hold.xml");
    answerNext();
    EXPECT_EQ(m_application.wait("held")["held"], true);
    EXPECT_EQ(m_application.wait("held")["held"], false);
    EXPECT_EQ(m_media.waitRequest("update", 2)["direction"], "recvonly");
    EXPECT_EQ(m_media.waitRequest("update", 3)["direction"], "sendrecv");
    EXPECT_FALSE(m_application.wait("ended").is_null());
    expectDone(phone);
}

TEST_F(SipCaller, OldWayToHoldIsUnderstood)
{
    startAll();
    CProgram phone;
    call(phone, "hold_by_nowhere.xml");
    answerNext();
    EXPECT_EQ(m_application.wait("held")["held"], true);
    const nlohmann::json update = m_media.waitRequest("update", 2);
    EXPECT_FALSE(update.contains("remote"));
    EXPECT_FALSE(m_application.wait("ended").is_null());
    expectDone(phone);
}

TEST_F(SipCaller, ApplicationMayHoldAndResume)
{
    startAll();
    CProgram phone;
    call(phone, "held_by_daemon.xml");
    const nlohmann::json offered = answerNext();
    EXPECT_TRUE(m_application.request(of("hold", offered)).value("ok", false));
    EXPECT_EQ(m_application.wait("held")["held"], true);
    EXPECT_EQ(m_media.waitRequest("update", 2)["direction"], "sendonly");
    EXPECT_TRUE(m_application.request(of("resume", offered)).value("ok", false));
    EXPECT_EQ(m_application.wait("held")["held"], false);
    EXPECT_TRUE(m_application.request(of("hangup", offered)).value("ok", false));
    expectDone(phone);
}

TEST_F(SipCaller, OfferThatMetAnotherOneIsMadeAgain)
{
    startAll();
    CProgram phone;
    call(phone, "glare.xml");
    const nlohmann::json offered = answerNext();
    EXPECT_TRUE(m_application.request(of("hold", offered)).value("ok", false));
    EXPECT_EQ(m_application.wait("held")["held"], true);
    EXPECT_TRUE(m_application.request(of("hangup", offered)).value("ok", false));
    expectDone(phone);
}

TEST_F(SipCaller, UpdateChangesTheMedia)
{
    startAll();
    CProgram phone;
    call(phone, "update.xml");
    answerNext();
    EXPECT_EQ(m_application.wait("held")["held"], true);
    EXPECT_EQ(m_media.waitRequest("update", 2)["direction"], "recvonly");
    EXPECT_FALSE(m_application.wait("ended").is_null());
    expectDone(phone);
}

TEST_F(SipCaller, DigitsMayComeByInfo)
{
    startAll();
    CProgram phone;
    call(phone, "info_digits.xml");
    answerNext();
    const nlohmann::json digit = m_application.wait("digit");
    EXPECT_EQ(digit["digit"], "5");
    EXPECT_EQ(digit["ms"], 160);
    EXPECT_FALSE(m_application.wait("ended").is_null());
    expectDone(phone);
}

TEST_F(SipCaller, SessionTimerIsAgreedOn)
{
    startAll();
    CProgram phone;
    call(phone, "refreshed_by_daemon.xml");
    answerNext();
    EXPECT_FALSE(m_application.wait("ended").is_null());
    expectDone(phone);
}

TEST_F(SipCaller, TransferEndsTheCallWhenItSucceeded)
{
    startAll();
    CProgram phone;
    call(phone, "blind_transfer.xml");
    auto request = of("transfer", answerNext());
    request["uri"] = "sip:200@127.0.0.1";
    EXPECT_TRUE(m_application.request(request).value("ok", false));
    EXPECT_EQ(m_application.wait("transferred")["status"], 200);
    EXPECT_EQ(m_application.wait("ended")["reason"], "transferred");
    expectDone(phone);
}

TEST_F(SipCaller, RefusedTransferLeavesTheCall)
{
    startAll();
    CProgram phone;
    call(phone, "transfer_refused.xml");
    const nlohmann::json offered = answerNext();
    auto request = of("transfer", offered);
    request["uri"] = "sip:200@127.0.0.1";
    EXPECT_TRUE(m_application.request(request).value("ok", false));
    EXPECT_EQ(m_application.wait("transferred")["status"], 603);
    EXPECT_TRUE(m_application.request(of("hangup", offered)).value("ok", false));
    expectDone(phone);
}

TEST_F(SipCaller, TerminatedDaemonEndsItsCalls)
{
    startAll();
    CProgram phone;
    call(phone, "call_until_bye.xml");
    answerNext();
    EXPECT_EQ(stopDaemon(), 0);
    expectDone(phone);
}

TEST_F(SipCaller, CallMayComeByTcp)
{
    startAll();
    CProgram phone;
    call(phone, "call_and_hang_up.xml", {"-t", "t1"});
    answerNext();
    EXPECT_EQ(m_application.wait("ended")["reason"], "hangup");
    expectDone(phone);
}

TEST_F(SipCaller, AttendedTransferNamesTheOtherCall)
{
    startAll();
    CProgram first;
    CProgram second;
    call(first, "attended_transfer.xml");
    const nlohmann::json moved = answerNext();
    call(second, "call_until_bye.xml");
    const nlohmann::json other = answerNext();
    auto request = of("transfer_to", moved);
    request["other_call"] = other["call"];
    request["other_leg"] = other["leg"];
    EXPECT_TRUE(m_application.request(request).value("ok", false));
    EXPECT_EQ(m_application.wait("transferred")["status"], 200);
    const nlohmann::json ended = m_application.wait("ended");
    EXPECT_EQ(ended["call"], moved["call"]);
    EXPECT_EQ(ended["reason"], "transferred");
    EXPECT_EQ(first.wait(), 0);
    EXPECT_TRUE(m_application.request(of("hangup", other)).value("ok", false));
    expectDone(second);
}

TEST_F(SipCaller, CallsAreBridgedByTheDriver)
{
    startAll();
    CProgram first;
    CProgram second;
    call(first, "call_until_bye.xml");
    const nlohmann::json one = answerNext();
    call(second, "call_until_bye.xml");
    const nlohmann::json two = answerNext();
    auto request = of("bridge", one);
    request["other_call"] = two["call"];
    request["other_leg"] = two["leg"];
    EXPECT_TRUE(m_application.request(request).value("ok", false));
    const nlohmann::json bridge = m_media.waitRequest("bridge");
    EXPECT_EQ(bridge["call"], one["call"]);
    EXPECT_EQ(bridge["other_call"], two["call"]);
    EXPECT_TRUE(m_application.request(of("unbridge", one)).value("ok", false));
    EXPECT_TRUE(m_application.request(of("hangup", one)).value("ok", false));
    EXPECT_TRUE(m_application.request(of("hangup", two)).value("ok", false));
    EXPECT_EQ(first.wait(), 0);
    expectDone(second);
}
