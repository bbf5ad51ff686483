// One leg: which commands it takes in which state, and its events in order.
#include "CallLeg.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace
{
constexpr ECallCommand s_all[] = {ECallCommand::Ring,          ECallCommand::Answer,     ECallCommand::Reject,
                                  ECallCommand::Redirect,      ECallCommand::HangUp,     ECallCommand::Hold,
                                  ECallCommand::Resume,        ECallCommand::Transfer,   ECallCommand::TransferTo,
                                  ECallCommand::Bridge,        ECallCommand::Unbridge,   ECallCommand::SendDigits,
                                  ECallCommand::CollectDigits, ECallCommand::RecordCall, ECallCommand::Set};

CCallLeg legIn(CC_CALL_STATE eState)
{
    CZelCallInfo info;
    info.m_strCallID = "n1-1";
    info.m_ulLegID = 1;
    info.m_eState = eState;
    return CCallLeg(info, 0);
}

std::string allowed(const CCallLeg& leg)
{
    std::string strNames;
    for (const ECallCommand command : s_all)
        if (leg.allows(command))
            strNames += std::string(strNames.empty() ? "" : " ") + requestNameOf(command);
    return strNames;
}

nlohmann::json event(uint64_t ullNumber, const char* pEvent, const char* pMore = "{}")
{
    nlohmann::json result = nlohmann::json::parse(pMore);
    result["number"] = ullNumber;
    result["event"] = pEvent;
    return result;
}

TEST(CallLeg, EachStateTakesItsCommands)
{
    EXPECT_EQ(allowed(legIn(CCCS_OFFERED)), "ring answer reject redirect hangup set");
    EXPECT_EQ(allowed(legIn(CCCS_RINGING)), "ring answer reject redirect hangup send_digits collect_digits set");
    EXPECT_EQ(allowed(legIn(CCCS_DIALING)), "hangup send_digits collect_digits set");
    const std::string strAnswered = "hangup hold resume transfer transfer_to bridge unbridge send_digits "
                                    "collect_digits record_call set";
    EXPECT_EQ(allowed(legIn(CCCS_ANSWERED)), strAnswered);
    EXPECT_EQ(allowed(legIn(CCCS_HELD)), strAnswered);
    EXPECT_EQ(allowed(legIn(CCCS_ENDED)), "");
}

TEST(CallLeg, WhatWasAskedExcludesWhatCannotFollow)
{
    CCallLeg leg = legIn(CCCS_OFFERED);
    leg.asked(ECallCommand::Answer, 1);
    EXPECT_EQ(allowed(leg), "hangup send_digits collect_digits record_call set");
    leg.refused(ECallCommand::Answer);
    EXPECT_EQ(allowed(leg), "ring answer reject redirect hangup set");
    leg.asked(ECallCommand::Redirect, 7);
    EXPECT_EQ(allowed(leg), "");
    EXPECT_TRUE(leg.isEnding());
    EXPECT_EQ(leg.endRequest(), 7U);
    leg.refused(ECallCommand::Answer);
    EXPECT_TRUE(leg.isEnding());
    leg.refused(ECallCommand::Redirect);
    EXPECT_EQ(allowed(leg), "ring answer reject redirect hangup set");
}

TEST(CallLeg, RingingBeginsWhenItIsAccepted)
{
    CCallLeg leg = legIn(CCCS_OFFERED);
    leg.asked(ECallCommand::Ring, 1);
    EXPECT_EQ(leg.info().m_eState, CCCS_OFFERED);
    leg.accepted(ECallCommand::Ring);
    EXPECT_EQ(leg.info().m_eState, CCCS_RINGING);
    CCallLeg answering = legIn(CCCS_OFFERED);
    answering.asked(ECallCommand::Answer, 1);
    answering.accepted(ECallCommand::Ring);
    EXPECT_EQ(answering.info().m_eState, CCCS_RINGING);
    EXPECT_FALSE(answering.allows(ECallCommand::Answer));
}

TEST(CallLeg, AnEndThatWasAskedForSurvivesOtherEvents)
{
    CCallLeg leg = legIn(CCCS_DIALING);
    std::vector<CallbackFunction> vCallbacks;
    leg.asked(ECallCommand::HangUp, 1);
    EXPECT_TRUE(leg.take(event(1, "answered"), vCallbacks));
    EXPECT_TRUE(leg.isEnding());
    EXPECT_EQ(leg.info().m_eState, CCCS_ANSWERED);
    EXPECT_TRUE(leg.take(event(2, "ended"), vCallbacks));
    EXPECT_TRUE(leg.hasEnded());
    EXPECT_EQ(vCallbacks.size(), 2U);
}

TEST(CallLeg, EventsAreTakenOnceAndInOrder)
{
    class CDigits : public CZelCallHandler
    {
    public:
        void OnCallDigit(const CZelCallInfo&, char cDigit, unsigned long) override { m_strDigits += cDigit; }
        std::string m_strDigits;
    } digits;
    const auto digit = [](uint64_t ullNumber) {
        nlohmann::json result = event(ullNumber, "digit");
        result["digit"] = std::to_string(ullNumber);
        return result;
    };
    CCallLeg leg = legIn(CCCS_ANSWERED);
    std::vector<CallbackFunction> vCallbacks;
    EXPECT_TRUE(leg.take(digit(1), vCallbacks));
    EXPECT_TRUE(leg.take(digit(1), vCallbacks));
    EXPECT_FALSE(leg.take(digit(4), vCallbacks));
    leg.awaitReplay();
    EXPECT_TRUE(leg.take(digit(6), vCallbacks));
    EXPECT_TRUE(leg.take(digit(2), vCallbacks));
    EXPECT_EQ(leg.last(), 1U);
    leg.replayed({digit(3), digit(2), digit(4)}, vCallbacks);
    EXPECT_EQ(leg.last(), 6U);
    EXPECT_TRUE(leg.take(digit(7), vCallbacks));
    for (const CallbackFunction& callback : vCallbacks)
        callback(digits);
    EXPECT_EQ(digits.m_strDigits, "123467");
}

TEST(CallLeg, EndsOnce)
{
    CCallLeg leg = legIn(CCCS_ANSWERED);
    std::vector<CallbackFunction> vCallbacks;
    leg.take(event(1, "ended"), vCallbacks);
    leg.take(event(2, "ended"), vCallbacks);
    leg.end(CCER_CONTROLLOST, vCallbacks);
    leg.replayed({event(3, "ended")}, vCallbacks);
    EXPECT_EQ(vCallbacks.size(), 1U);
}

TEST(CallLeg, WhatWaitsForAReplayIsBounded)
{
    CCallLeg leg = legIn(CCCS_ANSWERED);
    std::vector<CallbackFunction> vCallbacks;
    leg.awaitReplay();
    for (uint64_t n = 2; n < 10000; ++n)
        leg.take(event(n, "answered"), vCallbacks);
    leg.replayed(nullptr, vCallbacks);
    EXPECT_EQ(vCallbacks.size(), 4096U);
}

TEST(CallLeg, ReasonsHaveTheNamesOfTheProtocol)
{
    for (int n = CCER_FAILED; n < CCER_CONTROLLOST; ++n)
        EXPECT_EQ(endReasonOf(CCENDREASONToString(static_cast<CC_END_REASON>(n))), n);
    EXPECT_EQ(endReasonOf("of a later version"), CCER_FAILED);
    EXPECT_STREQ(CCENDREASONToString(static_cast<CC_END_REASON>(15)), "unknown");
    EXPECT_STREQ(CCSTATUSToString(CCS_REFUSED), "CCS_REFUSED");
    EXPECT_STREQ(CCSTATUSToString(99), "CCSTATUS unknown");
}
} // namespace
