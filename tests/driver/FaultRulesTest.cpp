// Fault rules: which are accepted, when they act, and what they do together.
#include "FaultRules.h"

#include "Fields.h"

#include <gmock/gmock.h>

using nlohmann::json;
using nlohmann::ordered_json;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{
class FaultRules : public testing::Test
{
protected:
    int mustAdd(const std::string& strRule)
    {
        json rule;
        std::string strError;
        EXPECT_TRUE(parseWordList(strRule, rule, strError)) << strError;
        const auto nID = m_rules.add(rule, strError);
        EXPECT_TRUE(nID) << strError;
        return nID.value_or(0);
    }
    std::string errorOf(const std::string& strRule)
    {
        json rule;
        std::string strError;
        EXPECT_TRUE(parseWordList(strRule, rule, strError)) << strError;
        return errorOfObject(rule);
    }
    std::string errorOfObject(const json& rule)
    {
        std::string strError;
        EXPECT_EQ(m_rules.add(rule, strError), std::nullopt) << rule;
        EXPECT_EQ(m_rules.toJson().size(), 0U);
        return strError;
    }
    CFaultAction on(MICMD micmd, const std::string& strCallID = "") { return m_rules.onCommand(micmd, strCallID); }
    CEventFault onPlay(const std::string& strCallID = "") { return m_rules.onEvent(false, strCallID); }
    CEventFault onRecord(const std::string& strCallID = "") { return m_rules.onEvent(true, strCallID); }
    std::vector<bool> refusals(MICMD micmd, int nCount)
    {
        std::vector<bool> vRefused;
        for (int n = 0; n < nCount; ++n)
            vRefused.push_back(on(micmd).m_bRefuse);
        return vRefused;
    }

    CFaultRules m_rules;
};

bool isNoFault(const CFaultAction& action)
{
    return !action.m_bDie && !action.m_bDropClient && !action.m_bFreeze && !action.m_freezeFor && !action.m_bRefuse &&
           action.m_delay == milliseconds(0) && action.m_nAnswers == 1 && !action.m_bOldNumber;
}

bool isNoFault(const CEventFault& fault)
{
    return !fault.m_nStatus && fault.m_delay == milliseconds(0) && fault.m_nEvents == 1;
}
} // namespace

TEST_F(FaultRules, WithoutAnyNothingHappens)
{
    EXPECT_TRUE(isNoFault(on(MICMD_PLAYFILE, "a")));
    EXPECT_TRUE(isNoFault(onPlay("a")));
    EXPECT_TRUE(isNoFault(onRecord("a")));
}

TEST_F(FaultRules, ActOnTheirCommandAlone)
{
    mustAdd("do=refuse,on=playfile");
    EXPECT_TRUE(on(MICMD_PLAYFILE).m_bRefuse);
    EXPECT_TRUE(isNoFault(on(MICMD_PLAYCLIP)));
    EXPECT_TRUE(isNoFault(on(static_cast<MICMD>(99))));
    EXPECT_TRUE(isNoFault(onPlay()));
}

TEST_F(FaultRules, ActOnEveryCommandIfTheyAreOnAny)
{
    mustAdd("do=refuse,on=any");
    for (const CCommandInfo& command : aCommands)
        EXPECT_TRUE(on(command.m_micmd).m_bRefuse) << command.m_pszName;
    EXPECT_TRUE(on(static_cast<MICMD>(99)).m_bRefuse);
}

TEST_F(FaultRules, ActOnTheNthMatchOnce)
{
    mustAdd("do=refuse,on=ping,nth=3");
    on(MICMD_DUMP);
    EXPECT_THAT(refusals(MICMD_PING, 5), ElementsAre(false, false, true, false, false));
}

TEST_F(FaultRules, ActAsOftenAsTheirCount)
{
    mustAdd("do=refuse,on=ping,count=2");
    EXPECT_THAT(refusals(MICMD_PING, 4), ElementsAre(true, true, false, false));
    m_rules.removeAll();
    mustAdd("do=refuse,on=ping,nth=2,count=2");
    EXPECT_THAT(refusals(MICMD_PING, 4), ElementsAre(false, true, true, false));
    m_rules.removeAll();
    mustAdd("do=refuse,on=ping");
    EXPECT_THAT(refusals(MICMD_PING, 4), ElementsAre(true, true, true, true));
}

TEST_F(FaultRules, ActOnTheStreamsOfTheirCallAlone)
{
    mustAdd("do=refuse,on=any,call=1001");
    mustAdd("do=drop-event,on=any,call=1001");
    EXPECT_TRUE(on(MICMD_PLAYFILE, "1001").m_bRefuse);
    EXPECT_TRUE(isNoFault(on(MICMD_PLAYFILE, "1002")));
    EXPECT_TRUE(isNoFault(on(MICMD_PING)));
    EXPECT_EQ(onPlay("1001").m_nEvents, 0);
    EXPECT_TRUE(isNoFault(onPlay("100")));
}

TEST_F(FaultRules, SayWhatHappensToTheAnswer)
{
    mustAdd("do=late,on=ping,ms=250");
    EXPECT_EQ(on(MICMD_PING).m_delay, milliseconds(250));
    mustAdd("do=twice,on=dump");
    EXPECT_EQ(on(MICMD_DUMP).m_nAnswers, 2);
    mustAdd("do=drop,on=cancel");
    EXPECT_EQ(on(MICMD_CANCEL).m_nAnswers, 0);
    mustAdd("do=old-number,on=openfile");
    EXPECT_TRUE(on(MICMD_OPENFILE).m_bOldNumber);
}

TEST_F(FaultRules, SayWhatHappensToTheClientAndTheDriver)
{
    mustAdd("do=drop-client,on=ping");
    EXPECT_TRUE(on(MICMD_PING).m_bDropClient);
    mustAdd("do=die,on=dump");
    EXPECT_TRUE(on(MICMD_DUMP).m_bDie);
    mustAdd("do=freeze,on=cancel,ms=100");
    EXPECT_TRUE(on(MICMD_CANCEL).m_bFreeze);
    EXPECT_EQ(on(MICMD_CANCEL).m_freezeFor, milliseconds(100));
    mustAdd("do=freeze,on=openfile");
    EXPECT_TRUE(on(MICMD_OPENFILE).m_bFreeze);
    EXPECT_EQ(on(MICMD_OPENFILE).m_freezeFor, std::nullopt);
}

TEST_F(FaultRules, SayWhatHappensToTheEvent)
{
    mustAdd("do=status,on=play,status=-7");
    EXPECT_EQ(onPlay().m_nStatus, -7);
    EXPECT_TRUE(isNoFault(onRecord()));
    mustAdd("do=late,on=record,ms=5");
    EXPECT_EQ(onRecord().m_delay, milliseconds(5));
    mustAdd("do=twice,on=event");
    EXPECT_EQ(onRecord().m_nEvents, 2);
    EXPECT_EQ(onPlay().m_nEvents, 2);
    mustAdd("do=drop-event,on=record");
    EXPECT_EQ(onRecord().m_nEvents, 0);
    EXPECT_EQ(onPlay().m_nEvents, 2);
    EXPECT_TRUE(isNoFault(on(MICMD_PLAYFILE)));
}

TEST_F(FaultRules, OnAnyAreForCommandsIfTheyCanBeForBoth)
{
    mustAdd("do=late,on=any,ms=5");
    mustAdd("do=twice,on=any");
    EXPECT_EQ(on(MICMD_PING).m_nAnswers, 2);
    EXPECT_TRUE(isNoFault(onPlay()));
}

TEST_F(FaultRules, ActTogether)
{
    for (const char* pRule : {"do=refuse,on=ping", "do=late,on=ping,ms=30", "do=late,on=any,ms=20",
                              "do=old-number,on=any", "do=twice,on=ping"})
        mustAdd(pRule);
    const CFaultAction action = on(MICMD_PING);
    EXPECT_TRUE(action.m_bRefuse);
    EXPECT_TRUE(action.m_bOldNumber);
    EXPECT_EQ(action.m_delay, milliseconds(30));
    EXPECT_EQ(action.m_nAnswers, 2);
}

TEST_F(FaultRules, DropWhatOneOfThemDrops)
{
    mustAdd("do=drop,on=ping");
    mustAdd("do=twice,on=ping");
    EXPECT_EQ(on(MICMD_PING).m_nAnswers, 0);
    mustAdd("do=drop-event,on=any");
    mustAdd("do=twice,on=play");
    EXPECT_EQ(onPlay().m_nEvents, 0);
}

TEST_F(FaultRules, TakeTheLongestFreezeAndTheLastStatus)
{
    mustAdd("do=freeze,on=any,ms=100");
    mustAdd("do=freeze,on=any,ms=50");
    EXPECT_EQ(on(MICMD_PING).m_freezeFor, milliseconds(100));
    mustAdd("do=freeze,on=ping");
    mustAdd("do=freeze,on=any,ms=200");
    EXPECT_TRUE(on(MICMD_PING).m_bFreeze);
    EXPECT_EQ(on(MICMD_PING).m_freezeFor, std::nullopt);
    mustAdd("do=status,on=any,status=5");
    mustAdd("do=status,on=play,status=6");
    EXPECT_EQ(onPlay().m_nStatus, 6);
}

TEST_F(FaultRules, AreRemovedByTheirId)
{
    EXPECT_EQ(mustAdd("do=refuse,on=ping"), 1);
    EXPECT_EQ(mustAdd("do=drop,on=ping"), 2);
    EXPECT_TRUE(m_rules.remove(1));
    EXPECT_FALSE(m_rules.remove(1));
    EXPECT_FALSE(on(MICMD_PING).m_bRefuse);
    EXPECT_EQ(on(MICMD_PING).m_nAnswers, 0);
    EXPECT_EQ(mustAdd("do=refuse,on=ping"), 3);
    EXPECT_EQ(m_rules.removeAll(), 2U);
    EXPECT_TRUE(isNoFault(on(MICMD_PING)));
}

TEST_F(FaultRules, AreListedWithWhatTheyHaveDone)
{
    mustAdd("do=refuse,on=playfile,nth=2,call=1001");
    mustAdd("do=late,on=record,ms=40,count=3");
    mustAdd("do=status,on=any,status=5");
    on(MICMD_PLAYFILE, "1001");
    on(MICMD_PLAYFILE, "1001");
    on(MICMD_PLAYFILE, "1001");
    onRecord();
    EXPECT_EQ(m_rules.toJson().dump(), ordered_json::parse(R"([
        {"id":1,"do":"refuse","on":"playfile","call":"1001","nth":2,"count":1,"matched":3,"acted":1},
        {"id":2,"do":"late","on":"record","count":3,"ms":40,"matched":1,"acted":1},
        {"id":3,"do":"status","on":"any","status":5,"matched":1,"acted":1}])")
                                           .dump());
}

TEST_F(FaultRules, NeedAFaultAndATarget)
{
    EXPECT_EQ(errorOf("on=ping"), "\"do\" is missing");
    EXPECT_EQ(errorOf("do=explode,on=ping"), "there is no fault \"explode\"");
    EXPECT_THAT(errorOf("do=refuse"), HasSubstr("\"on\" is missing"));
    EXPECT_EQ(errorOf("do=refuse,on=pong"), "there is no command or event \"pong\"");
    EXPECT_EQ(errorOfObject(json({{"do", 5}, {"on", "ping"}})), "\"do\" must be text");
    EXPECT_EQ(errorOfObject(json({{"do", "refuse"}, {"on", 5}})), "\"on\" must be text");
    EXPECT_EQ(errorOfObject(json::array()), "a fault rule is an object");
}

TEST_F(FaultRules, AreForTheTargetsThatTheyCanActOn)
{
    EXPECT_THAT(errorOf("do=refuse,on=play"), HasSubstr("\"refuse\" is for commands"));
    EXPECT_THAT(errorOf("do=drop,on=event"), HasSubstr("\"drop\" is for commands"));
    EXPECT_THAT(errorOf("do=drop-event,on=playfile"), HasSubstr("\"drop-event\" is for events"));
    EXPECT_THAT(errorOf("do=status,on=cancel,status=1"), HasSubstr("\"status\" is for events"));
    EXPECT_EQ(errorOf("do=refuse,on=ping,call=1001"), "\"ping\" is not of a call");
}

TEST_F(FaultRules, HaveTheFieldsThatGoWithTheFault)
{
    EXPECT_EQ(errorOf("do=late,on=ping"), "\"ms\" is missing");
    EXPECT_EQ(errorOf("do=refuse,on=ping,ms=5"), "\"ms\" has no meaning for this fault");
    EXPECT_EQ(errorOf("do=status,on=play"), "\"status\" is missing");
    EXPECT_EQ(errorOf("do=late,on=play,ms=5,status=5"), "\"status\" has no meaning for this fault");
    EXPECT_EQ(errorOf("do=refuse,on=ping,often=5"), "\"often\" has no meaning here");
    EXPECT_EQ(errorOfObject(json({{"do", "refuse"}, {"on", "any"}, {"call", 1001}})), "\"call\" must be text");
    EXPECT_EQ(errorOf("do=refuse,on=any,call="), "\"call\" is empty");
}

TEST_F(FaultRules, HaveNumbersThatMakeSense)
{
    EXPECT_THAT(errorOf("do=refuse,on=ping,nth=0"), HasSubstr("\"nth\" must be a whole number from 1"));
    EXPECT_THAT(errorOf("do=refuse,on=ping,nth=two"), HasSubstr("\"nth\" must be a whole number"));
    EXPECT_THAT(errorOf("do=refuse,on=ping,count=0"), HasSubstr("\"count\" must be a whole number from 1"));
    EXPECT_THAT(errorOf("do=late,on=ping,ms=-1"), HasSubstr("\"ms\" must be a whole number from 1 to 3600000"));
    EXPECT_THAT(errorOf("do=late,on=ping,ms=3600001"), HasSubstr("\"ms\" must be"));
    EXPECT_THAT(errorOf("do=status,on=play,status=2147483648"), HasSubstr("\"status\" must be"));
}

TEST_F(FaultRules, AreBoundedInNumber)
{
    for (size_t n = 0; n < CFaultRules::MAX_RULES; ++n)
        mustAdd("do=refuse,on=ping");
    std::string strError;
    EXPECT_EQ(m_rules.add({{"do", "refuse"}, {"on", "ping"}}, strError), std::nullopt);
    EXPECT_EQ(strError, "there are too many fault rules");
    EXPECT_TRUE(m_rules.remove(500));
    mustAdd("do=refuse,on=ping");
}
