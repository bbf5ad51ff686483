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
    int MustAdd(const std::string& strRule)
    {
        json rule;
        std::string strError;
        EXPECT_TRUE(ParseWordList(strRule, rule, strError)) << strError;
        const auto nID = m_rules.Add(rule, strError);
        EXPECT_TRUE(nID) << strError;
        return nID.value_or(0);
    }
    std::string ErrorOf(const std::string& strRule)
    {
        json rule;
        std::string strError;
        EXPECT_TRUE(ParseWordList(strRule, rule, strError)) << strError;
        return ErrorOfObject(rule);
    }
    std::string ErrorOfObject(const json& rule)
    {
        std::string strError;
        EXPECT_EQ(m_rules.Add(rule, strError), std::nullopt) << rule;
        EXPECT_EQ(m_rules.ToJson().size(), 0U);
        return strError;
    }
    CFaultAction On(MICMD micmd, const std::string& strCallID = "") { return m_rules.OnCommand(micmd, strCallID); }
    CEventFault OnPlay(const std::string& strCallID = "") { return m_rules.OnEvent(false, strCallID); }
    CEventFault OnRecord(const std::string& strCallID = "") { return m_rules.OnEvent(true, strCallID); }
    std::vector<bool> Refusals(MICMD micmd, int nCount)
    {
        std::vector<bool> vRefused;
        for (int n = 0; n < nCount; ++n)
        {
            vRefused.push_back(On(micmd).m_bRefuse);
        }
        return vRefused;
    }

    CFaultRules m_rules;
};

bool IsNoFault(const CFaultAction& action)
{
    return !action.m_bDie && !action.m_bDropClient && !action.m_bFreeze && !action.m_freezeFor && !action.m_bRefuse &&
           action.m_delay == milliseconds(0) && action.m_nAnswers == 1 && !action.m_bOldNumber;
}

bool IsNoFault(const CEventFault& fault)
{
    return !fault.m_nStatus && fault.m_delay == milliseconds(0) && fault.m_nEvents == 1;
}
} // namespace

TEST_F(FaultRules, WithoutAnyNothingHappens)
{
    EXPECT_TRUE(IsNoFault(On(MICMD_PLAYFILE, "a")));
    EXPECT_TRUE(IsNoFault(OnPlay("a")));
    EXPECT_TRUE(IsNoFault(OnRecord("a")));
}

TEST_F(FaultRules, ActOnTheirCommandAlone)
{
    MustAdd("do=refuse,on=playfile");
    EXPECT_TRUE(On(MICMD_PLAYFILE).m_bRefuse);
    EXPECT_TRUE(IsNoFault(On(MICMD_PLAYCLIP)));
    EXPECT_TRUE(IsNoFault(On(static_cast<MICMD>(99))));
    EXPECT_TRUE(IsNoFault(OnPlay()));
}

TEST_F(FaultRules, ActOnEveryCommandIfTheyAreOnAny)
{
    MustAdd("do=refuse,on=any");
    for (const CCommandName& command : CommandNames())
    {
        EXPECT_TRUE(On(command.m_micmd).m_bRefuse) << command.m_pName;
    }
    EXPECT_TRUE(On(static_cast<MICMD>(99)).m_bRefuse);
}

TEST_F(FaultRules, ActOnTheNthMatchOnce)
{
    MustAdd("do=refuse,on=ping,nth=3");
    On(MICMD_DUMP);
    EXPECT_THAT(Refusals(MICMD_PING, 5), ElementsAre(false, false, true, false, false));
}

TEST_F(FaultRules, ActAsOftenAsTheirCount)
{
    MustAdd("do=refuse,on=ping,count=2");
    EXPECT_THAT(Refusals(MICMD_PING, 4), ElementsAre(true, true, false, false));
    m_rules.RemoveAll();
    MustAdd("do=refuse,on=ping,nth=2,count=2");
    EXPECT_THAT(Refusals(MICMD_PING, 4), ElementsAre(false, true, true, false));
    m_rules.RemoveAll();
    MustAdd("do=refuse,on=ping");
    EXPECT_THAT(Refusals(MICMD_PING, 4), ElementsAre(true, true, true, true));
}

TEST_F(FaultRules, ActOnTheStreamsOfTheirCallAlone)
{
    MustAdd("do=refuse,on=any,call=1001");
    MustAdd("do=drop-event,on=any,call=1001");
    EXPECT_TRUE(On(MICMD_PLAYFILE, "1001").m_bRefuse);
    EXPECT_TRUE(IsNoFault(On(MICMD_PLAYFILE, "1002")));
    EXPECT_TRUE(IsNoFault(On(MICMD_PING)));
    EXPECT_EQ(OnPlay("1001").m_nEvents, 0);
    EXPECT_TRUE(IsNoFault(OnPlay("100")));
}

TEST_F(FaultRules, SayWhatHappensToTheAnswer)
{
    MustAdd("do=late,on=ping,ms=250");
    EXPECT_EQ(On(MICMD_PING).m_delay, milliseconds(250));
    MustAdd("do=twice,on=dump");
    EXPECT_EQ(On(MICMD_DUMP).m_nAnswers, 2);
    MustAdd("do=drop,on=cancel");
    EXPECT_EQ(On(MICMD_CANCEL).m_nAnswers, 0);
    MustAdd("do=old-number,on=openfile");
    EXPECT_TRUE(On(MICMD_OPENFILE).m_bOldNumber);
}

TEST_F(FaultRules, SayWhatHappensToTheClientAndTheDriver)
{
    MustAdd("do=drop-client,on=ping");
    EXPECT_TRUE(On(MICMD_PING).m_bDropClient);
    MustAdd("do=die,on=dump");
    EXPECT_TRUE(On(MICMD_DUMP).m_bDie);
    MustAdd("do=freeze,on=cancel,ms=100");
    EXPECT_TRUE(On(MICMD_CANCEL).m_bFreeze);
    EXPECT_EQ(On(MICMD_CANCEL).m_freezeFor, milliseconds(100));
    MustAdd("do=freeze,on=openfile");
    EXPECT_TRUE(On(MICMD_OPENFILE).m_bFreeze);
    EXPECT_EQ(On(MICMD_OPENFILE).m_freezeFor, std::nullopt);
}

TEST_F(FaultRules, SayWhatHappensToTheEvent)
{
    MustAdd("do=status,on=play,status=-7");
    EXPECT_EQ(OnPlay().m_nStatus, -7);
    EXPECT_TRUE(IsNoFault(OnRecord()));
    MustAdd("do=late,on=record,ms=5");
    EXPECT_EQ(OnRecord().m_delay, milliseconds(5));
    MustAdd("do=twice,on=event");
    EXPECT_EQ(OnRecord().m_nEvents, 2);
    EXPECT_EQ(OnPlay().m_nEvents, 2);
    MustAdd("do=drop-event,on=record");
    EXPECT_EQ(OnRecord().m_nEvents, 0);
    EXPECT_EQ(OnPlay().m_nEvents, 2);
    EXPECT_TRUE(IsNoFault(On(MICMD_PLAYFILE)));
}

TEST_F(FaultRules, OnAnyAreForCommandsIfTheyCanBeForBoth)
{
    MustAdd("do=late,on=any,ms=5");
    MustAdd("do=twice,on=any");
    EXPECT_EQ(On(MICMD_PING).m_nAnswers, 2);
    EXPECT_TRUE(IsNoFault(OnPlay()));
}

TEST_F(FaultRules, ActTogether)
{
    for (const char* pRule : {"do=refuse,on=ping", "do=late,on=ping,ms=30", "do=late,on=any,ms=20",
                              "do=old-number,on=any", "do=twice,on=ping"})
    {
        MustAdd(pRule);
    }
    const CFaultAction action = On(MICMD_PING);
    EXPECT_TRUE(action.m_bRefuse);
    EXPECT_TRUE(action.m_bOldNumber);
    EXPECT_EQ(action.m_delay, milliseconds(30));
    EXPECT_EQ(action.m_nAnswers, 2);
}

TEST_F(FaultRules, DropWhatOneOfThemDrops)
{
    MustAdd("do=drop,on=ping");
    MustAdd("do=twice,on=ping");
    EXPECT_EQ(On(MICMD_PING).m_nAnswers, 0);
    MustAdd("do=drop-event,on=any");
    MustAdd("do=twice,on=play");
    EXPECT_EQ(OnPlay().m_nEvents, 0);
}

TEST_F(FaultRules, TakeTheLongestFreezeAndTheLastStatus)
{
    MustAdd("do=freeze,on=any,ms=100");
    MustAdd("do=freeze,on=any,ms=50");
    EXPECT_EQ(On(MICMD_PING).m_freezeFor, milliseconds(100));
    MustAdd("do=freeze,on=ping");
    MustAdd("do=freeze,on=any,ms=200");
    EXPECT_TRUE(On(MICMD_PING).m_bFreeze);
    EXPECT_EQ(On(MICMD_PING).m_freezeFor, std::nullopt);
    MustAdd("do=status,on=any,status=5");
    MustAdd("do=status,on=play,status=6");
    EXPECT_EQ(OnPlay().m_nStatus, 6);
}

TEST_F(FaultRules, AreRemovedByTheirId)
{
    EXPECT_EQ(MustAdd("do=refuse,on=ping"), 1);
    EXPECT_EQ(MustAdd("do=drop,on=ping"), 2);
    EXPECT_TRUE(m_rules.Remove(1));
    EXPECT_FALSE(m_rules.Remove(1));
    EXPECT_FALSE(On(MICMD_PING).m_bRefuse);
    EXPECT_EQ(On(MICMD_PING).m_nAnswers, 0);
    EXPECT_EQ(MustAdd("do=refuse,on=ping"), 3);
    EXPECT_EQ(m_rules.RemoveAll(), 2U);
    EXPECT_TRUE(IsNoFault(On(MICMD_PING)));
}

TEST_F(FaultRules, AreListedWithWhatTheyHaveDone)
{
    MustAdd("do=refuse,on=playfile,nth=2,call=1001");
    MustAdd("do=late,on=record,ms=40,count=3");
    MustAdd("do=status,on=any,status=5");
    On(MICMD_PLAYFILE, "1001");
    On(MICMD_PLAYFILE, "1001");
    On(MICMD_PLAYFILE, "1001");
    OnRecord();
    EXPECT_EQ(m_rules.ToJson().dump(), ordered_json::parse(R"([
        {"id":1,"do":"refuse","on":"playfile","call":"1001","nth":2,"count":1,"matched":3,"acted":1},
        {"id":2,"do":"late","on":"record","count":3,"ms":40,"matched":1,"acted":1},
        {"id":3,"do":"status","on":"any","status":5,"matched":1,"acted":1}])")
                                           .dump());
}

TEST_F(FaultRules, NeedAFaultAndATarget)
{
    EXPECT_EQ(ErrorOf("on=ping"), "\"do\" is missing");
    EXPECT_EQ(ErrorOf("do=explode,on=ping"), "there is no fault \"explode\"");
    EXPECT_THAT(ErrorOf("do=refuse"), HasSubstr("\"on\" is missing"));
    EXPECT_EQ(ErrorOf("do=refuse,on=pong"), "there is no command or event \"pong\"");
    EXPECT_EQ(ErrorOfObject(json({{"do", 5}, {"on", "ping"}})), "\"do\" must be text");
    EXPECT_EQ(ErrorOfObject(json({{"do", "refuse"}, {"on", 5}})), "\"on\" must be text");
    EXPECT_EQ(ErrorOfObject(json::array()), "a fault rule is an object");
}

TEST_F(FaultRules, AreForTheTargetsThatTheyCanActOn)
{
    EXPECT_THAT(ErrorOf("do=refuse,on=play"), HasSubstr("\"refuse\" is for commands"));
    EXPECT_THAT(ErrorOf("do=drop,on=event"), HasSubstr("\"drop\" is for commands"));
    EXPECT_THAT(ErrorOf("do=drop-event,on=playfile"), HasSubstr("\"drop-event\" is for events"));
    EXPECT_THAT(ErrorOf("do=status,on=cancel,status=1"), HasSubstr("\"status\" is for events"));
    EXPECT_EQ(ErrorOf("do=refuse,on=ping,call=1001"), "\"ping\" is not of a call");
}

TEST_F(FaultRules, HaveTheFieldsThatGoWithTheFault)
{
    EXPECT_EQ(ErrorOf("do=late,on=ping"), "\"ms\" is missing");
    EXPECT_EQ(ErrorOf("do=refuse,on=ping,ms=5"), "\"ms\" has no meaning for this fault");
    EXPECT_EQ(ErrorOf("do=status,on=play"), "\"status\" is missing");
    EXPECT_EQ(ErrorOf("do=late,on=play,ms=5,status=5"), "\"status\" has no meaning for this fault");
    EXPECT_EQ(ErrorOf("do=refuse,on=ping,often=5"), "\"often\" has no meaning here");
    EXPECT_EQ(ErrorOfObject(json({{"do", "refuse"}, {"on", "any"}, {"call", 1001}})), "\"call\" must be text");
    EXPECT_EQ(ErrorOf("do=refuse,on=any,call="), "\"call\" is empty");
}

TEST_F(FaultRules, HaveNumbersThatMakeSense)
{
    EXPECT_THAT(ErrorOf("do=refuse,on=ping,nth=0"), HasSubstr("\"nth\" must be a whole number from 1"));
    EXPECT_THAT(ErrorOf("do=refuse,on=ping,nth=two"), HasSubstr("\"nth\" must be a whole number"));
    EXPECT_THAT(ErrorOf("do=refuse,on=ping,count=0"), HasSubstr("\"count\" must be a whole number from 1"));
    EXPECT_THAT(ErrorOf("do=late,on=ping,ms=-1"), HasSubstr("\"ms\" must be a whole number from 1 to 3600000"));
    EXPECT_THAT(ErrorOf("do=late,on=ping,ms=3600001"), HasSubstr("\"ms\" must be"));
    EXPECT_THAT(ErrorOf("do=status,on=play,status=2147483648"), HasSubstr("\"status\" must be"));
}

TEST_F(FaultRules, AreBoundedInNumber)
{
    for (std::size_t n = 0; n < CFaultRules::MAX_RULES; ++n)
    {
        MustAdd("do=refuse,on=ping");
    }
    std::string strError;
    EXPECT_EQ(m_rules.Add({{"do", "refuse"}, {"on", "ping"}}, strError), std::nullopt);
    EXPECT_EQ(strError, "there are too many fault rules");
    EXPECT_TRUE(m_rules.Remove(500));
    MustAdd("do=refuse,on=ping");
}
