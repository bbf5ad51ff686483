// Requests on the control socket: what each asks of the driver, and how mistakes are answered.
#include "ControlRequests.h"

#include <gmock/gmock.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <sstream>

using nlohmann::ordered_json;
using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::Return;
using testing::ReturnRef;
using testing::StrictMock;

namespace
{
class CMockDriver : public CDriverControl
{
public:
    MOCK_METHOD(std::vector<CClientState>, clients, (), (const, override));
    MOCK_METHOD(std::vector<CStreamState>, streams, (), (const, override));
    MOCK_METHOD(CStatistics, statistics, (), (const, override));
    MOCK_METHOD(CFaultRules&, faults, (), (override));
    MOCK_METHOD(size_t, hangUp, (const std::string&, std::optional<uint32_t>), (override));
    MOCK_METHOD(bool, dropClient, (int), (override));
    MOCK_METHOD(void, freeze, (std::optional<milliseconds>), (override));
    MOCK_METHOD(void, thaw, (), (override));
    MOCK_METHOD(void, die, (), (override));
};

// A request that the strict driver does not expect fails the test.
class ControlRequests : public testing::Test
{
protected:
    ControlRequests()
    {
        spdlog::set_default_logger(
            std::make_shared<spdlog::logger>("test", std::make_shared<spdlog::sinks::ostream_sink_st>(m_log)));
        EXPECT_CALL(m_driver, faults()).Times(testing::AnyNumber()).WillRepeatedly(ReturnRef(m_rules));
    }
    ~ControlRequests() override { spdlog::set_default_logger(m_pFormerLog); }

    std::string errorOf(const std::string& strLine)
    {
        const ordered_json answer = ordered_json::parse(m_requests.handle(strLine));
        EXPECT_EQ(answer["ok"], false);
        EXPECT_EQ(answer.size(), 2U);
        return answer["error"];
    }

    std::ostringstream m_log;
    const std::shared_ptr<spdlog::logger> m_pFormerLog = spdlog::default_logger();
    StrictMock<CMockDriver> m_driver;
    CFaultRules m_rules;
    CControlRequests m_requests{m_driver};
};

const char* const OK = R"({"ok":true})";
} // namespace

TEST_F(ControlRequests, PingDoesNothing)
{
    EXPECT_EQ(m_requests.handle(R"({"request":"ping"})"), OK);
}

TEST_F(ControlRequests, ClientsAreListed)
{
    EXPECT_CALL(m_driver, clients()).WillOnce(Return(std::vector<CClientState>{{1, 100, 2, 3, 4}, {5, 101, 0, 0, 0}}));
    EXPECT_EQ(m_requests.handle(R"({"request":"clients"})"),
              R"({"ok":true,"clients":[{"client":1,"process":100,"files":2,"streams":3,"waiting_events":4},)"
              R"({"client":5,"process":101,"files":0,"streams":0,"waiting_events":0}]})");
    EXPECT_CALL(m_driver, clients()).WillOnce(Return(std::vector<CClientState>()));
    EXPECT_EQ(m_requests.handle(R"({"request":"clients"})"), R"({"ok":true,"clients":[]})");
}

TEST_F(ControlRequests, StreamsAreListedWithWhatIsActiveOnThem)
{
    CStreamState idle;
    idle.m_nID = 7;
    idle.m_nConnectID = 2;
    idle.m_strCallID = "1001";
    idle.m_nLegID = 4294967295U;
    idle.m_pChannelKind = "null";
    idle.m_ullRecorded = 5000000000U;
    idle.m_nRecordStatus = 2;
    CStreamState busy = idle;
    busy.m_bHungUp = true;
    busy.m_bPlaying = true;
    busy.m_strPlayPath = "/a.wav";
    busy.m_nPlayPosition = 160;
    busy.m_nPlayEnd = 8000;
    busy.m_nPlaySequence = 11;
    busy.m_bRecording = true;
    busy.m_strRecordPath = "/b.wav";
    busy.m_ullMaxSamples = 80000;
    busy.m_nRecordSequence = 12;
    EXPECT_CALL(m_driver, streams()).WillOnce(Return(std::vector<CStreamState>{idle, busy}));
    EXPECT_EQ(m_requests.handle(R"({"request":"streams"})"),
              R"({"ok":true,"streams":[{"stream":7,"client":2,"call":"1001","leg":4294967295,"channel":"null",)"
              R"("hung_up":false,"play":null,"record":null,"recorded":5000000000,"record_status":2},)"
              R"({"stream":7,"client":2,"call":"1001","leg":4294967295,"channel":"null","hung_up":true,)"
              R"("play":{"file":"/a.wav","position":160,"end":8000,"sequence":11},)"
              R"("record":{"file":"/b.wav","max_samples":80000,"sequence":12},)"
              R"("recorded":5000000000,"record_status":2}]})");
}

TEST_F(ControlRequests, StreamsOfOneCallCanBeAskedFor)
{
    std::vector<CStreamState> vStreams(3);
    vStreams[0].m_strCallID = "1001";
    vStreams[1].m_strCallID = "1002";
    vStreams[2].m_strCallID = "1001";
    EXPECT_CALL(m_driver, streams()).WillRepeatedly(Return(vStreams));
    EXPECT_EQ(ordered_json::parse(m_requests.handle(R"({"request":"streams","call":"1001"})"))["streams"].size(), 2U);
    EXPECT_EQ(m_requests.handle(R"({"request":"streams","call":"5"})"), R"({"ok":true,"streams":[]})");
}

TEST_F(ControlRequests, NamesThatAreNoTextAreMadePresentable)
{
    std::vector<CStreamState> vStreams(1);
    vStreams[0].m_strCallID = "a\xff\"\n\x01z";
    EXPECT_CALL(m_driver, streams()).WillOnce(Return(vStreams));
    const std::string strAnswer = m_requests.handle(R"({"request":"streams"})");
    EXPECT_EQ(strAnswer.find('\n'), std::string::npos);
    EXPECT_EQ(ordered_json::parse(strAnswer)["streams"][0]["call"], "a\xef\xbf\xbd\"\n\x01z");
}

TEST_F(ControlRequests, StatisticsAreShown)
{
    CStatistics statistics;
    statistics.m_ullRefused = 77;
    EXPECT_CALL(m_driver, statistics()).WillOnce(Return(statistics));
    EXPECT_EQ(ordered_json::parse(m_requests.handle(R"({"request":"stats"})"))["stats"]["refused"], 77);
}

TEST_F(ControlRequests, FaultRulesAreSetListedAndRemoved)
{
    EXPECT_EQ(m_requests.handle(R"({"request":"fault","do":"refuse","on":"playfile","nth":1})"),
              R"({"ok":true,"id":1})");
    EXPECT_EQ(m_requests.handle(R"({"on":"ping","request":"fault","do":"drop"})"), R"({"ok":true,"id":2})");
    EXPECT_TRUE(m_rules.onCommand(MICMD_PLAYFILE, "").m_bRefuse);
    EXPECT_EQ(m_requests.handle(R"({"request":"faults"})"),
              R"({"ok":true,"faults":[{"id":1,"do":"refuse","on":"playfile","count":1,"matched":1,"acted":1},)"
              R"({"id":2,"do":"drop","on":"ping","matched":0,"acted":0}]})");
    EXPECT_EQ(m_requests.handle(R"({"request":"unfault","id":1})"), R"({"ok":true,"removed":1})");
    EXPECT_EQ(errorOf(R"({"request":"unfault","id":1})"), "there is no fault rule 1");
    EXPECT_EQ(m_requests.handle(R"({"request":"unfault"})"), R"({"ok":true,"removed":1})");
    EXPECT_EQ(m_requests.handle(R"({"request":"faults"})"), R"({"ok":true,"faults":[]})");
}

TEST_F(ControlRequests, AFaultRuleWithAMistakeIsRefused)
{
    EXPECT_EQ(errorOf(R"({"request":"fault","do":"refuse","on":"pong"})"), "there is no command or event \"pong\"");
    EXPECT_EQ(m_rules.toJson().size(), 0U);
}

TEST_F(ControlRequests, CallsAreHungUp)
{
    EXPECT_CALL(m_driver, hangUp("1001", std::optional<uint32_t>())).WillOnce(Return(2));
    EXPECT_EQ(m_requests.handle(R"({"request":"hangup","call":"1001"})"), R"({"ok":true,"streams":2})");
    EXPECT_CALL(m_driver, hangUp("1001", std::optional<uint32_t>(4294967295U))).WillOnce(Return(1));
    EXPECT_EQ(m_requests.handle(R"({"request":"hangup","call":"1001","leg":4294967295})"),
              R"({"ok":true,"streams":1})");
    EXPECT_CALL(m_driver, hangUp("5", std::optional<uint32_t>(3))).WillOnce(Return(0));
    EXPECT_EQ(errorOf(R"({"request":"hangup","call":"5","leg":3})"), "there is no stream on call id \"5\", leg 3");
    EXPECT_EQ(errorOf(R"({"request":"hangup"})"), "\"call\" is missing");
    EXPECT_EQ(errorOf(R"({"request":"hangup","call":1001})"), "\"call\" must be text");
    EXPECT_THAT(errorOf(R"({"request":"hangup","call":"5","leg":4294967296})"), HasSubstr("\"leg\" must be"));
}

TEST_F(ControlRequests, ClientsAreDropped)
{
    EXPECT_CALL(m_driver, dropClient(3)).WillOnce(Return(true)).WillOnce(Return(false));
    EXPECT_EQ(m_requests.handle(R"({"request":"drop","client":3})"), OK);
    EXPECT_EQ(errorOf(R"({"request":"drop","client":3})"), "there is no client 3");
    EXPECT_EQ(errorOf(R"({"request":"drop"})"), "\"client\" is missing");
    EXPECT_THAT(errorOf(R"({"request":"drop","client":0})"), HasSubstr("\"client\" must be"));
}

TEST_F(ControlRequests, TheDriverIsFrozenAndThawed)
{
    EXPECT_CALL(m_driver, freeze(std::optional<milliseconds>()));
    EXPECT_EQ(m_requests.handle(R"({"request":"freeze"})"), OK);
    EXPECT_CALL(m_driver, freeze(std::optional<milliseconds>(250)));
    EXPECT_EQ(m_requests.handle(R"({"request":"freeze","ms":250})"), OK);
    EXPECT_CALL(m_driver, thaw());
    EXPECT_EQ(m_requests.handle(R"({"request":"thaw"})"), OK);
    EXPECT_THAT(errorOf(R"({"request":"freeze","ms":0})"), HasSubstr("\"ms\" must be"));
}

TEST_F(ControlRequests, TheDriverDies)
{
    EXPECT_CALL(m_driver, die());
    EXPECT_EQ(m_requests.handle(R"({"request":"die"})"), OK);
}

TEST_F(ControlRequests, HelpNamesEveryRequest)
{
    const ordered_json requests = ordered_json::parse(m_requests.handle(R"({"request":"help"})"))["requests"];
    EXPECT_EQ(requests.size(), 13U);
    EXPECT_TRUE(requests.contains("hangup call=CALLID [leg=N]"));
    EXPECT_TRUE(requests.contains("ping"));
}

TEST_F(ControlRequests, WhatHasAFieldTooManyIsNotDone)
{
    for (const char* pName : {"ping", "clients", "streams", "stats", "faults", "thaw", "die", "help", "freeze"})
    {
        EXPECT_EQ(errorOf(std::string(R"({"extra":1,"request":")") + pName + "\"}"), "\"extra\" has no meaning here")
            << pName;
    }
    m_requests.handle(R"({"request":"fault","do":"drop","on":"ping"})");
    EXPECT_EQ(errorOf(R"({"request":"unfault","extra":1})"), "\"extra\" has no meaning here");
    EXPECT_EQ(m_rules.toJson().size(), 1U);
    EXPECT_EQ(errorOf(R"({"request":"hangup","call":"5","extra":1})"), "\"extra\" has no meaning here");
    EXPECT_EQ(errorOf(R"({"request":"drop","client":5,"extra":1})"), "\"extra\" has no meaning here");
}

TEST_F(ControlRequests, WhatIsNoRequestIsAnsweredWithAnError)
{
    for (const std::string& strLine :
         {std::string(), std::string("hello"), std::string("[]"), std::string("5"), std::string("null"),
          std::string("{\"request\":\"ping\""), std::string("{}{}"), std::string("\0\xff\x80", 3),
          std::string("\"\xff\""), std::string(60000, '['), std::string(60000, '{')})
        EXPECT_EQ(errorOf(strLine), "a request is an object of JSON, alone on its line");
    for (const char* pLine :
         {"{}", R"({"request":5})", R"({"request":"jump"})", R"({"request":"PING"})", R"({"request":null})"})
        EXPECT_EQ(errorOf(pLine), "there is no such request; \"help\" lists them");
}

TEST_F(ControlRequests, AFieldOfAnyDepthIsJustWrong)
{
    const std::string strDeep = std::string(30000, '[') + std::string(30000, ']');
    EXPECT_EQ(errorOf(R"({"request":"freeze","ms":)" + strDeep + "}"),
              "\"ms\" must be a whole number from 1 to 3600000");
    EXPECT_EQ(errorOf(R"({"request":"ping","x":)" + strDeep + "}"), "\"x\" has no meaning here");
    EXPECT_EQ(errorOf(R"({"request":)" + strDeep + "}"), "there is no such request; \"help\" lists them");
}

TEST_F(ControlRequests, WhatTheDriverThrowsIsAnError)
{
    EXPECT_CALL(m_driver, clients()).WillOnce(testing::Throw(std::bad_alloc()));
    EXPECT_EQ(errorOf(R"({"request":"clients"})"), "std::bad_alloc");
}

TEST_F(ControlRequests, WhatChangesTheDriverGoesIntoTheLog)
{
    EXPECT_CALL(m_driver, freeze(testing::_));
    m_requests.handle(R"({"request":"freeze","ms":250})");
    EXPECT_THAT(m_log.str(), HasSubstr("control: freeze {\"ms\":250}"));
    m_log.str("");
    m_requests.handle(R"({"request":"ping"})");
    errorOf(R"({"request":"freeze","ms":0})");
    EXPECT_EQ(m_log.str(), "");
}
