// Fault rules as a client sees them: each kind of fault, on a driver in memory.
#include "DriverTestSupport.h"
#include "Fields.h"

#include <gmock/gmock.h>

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
class FaultyDriver : public testing::Test
{
protected:
    FaultyDriver()
    {
        writeULaw(m_driver.path("clip.wav"), SF_FORMAT_WAV, noise(300));
        m_nStreamID = m_driver.openStream("call");
        forget();
    }

    void addFault(const std::string& strWords)
    {
        nlohmann::json rule;
        std::string strError;
        EXPECT_TRUE(parseWordList(strWords, rule, strError)) << strError;
        EXPECT_TRUE(m_driver.m_faults.add(rule, strError)) << strError;
    }

    CMemoryClient& client() { return m_driver.client(); }

    void forget()
    {
        client().m_vResponses.clear();
        client().m_vEvents.clear();
        client().m_vOrder.clear();
    }

    // Sends a request and returns its number.
    uint32_t ping()
    {
        const structMICMD cmd = m_driver.next(MICMD_PING);
        m_driver.send(cmd);
        return cmd.nSequenceNo;
    }

    uint32_t play() { return m_driver.sendPlayFile(m_nStreamID, m_driver.path("clip.wav")); }

    // The statuses of the responses so far, in words.
    std::vector<std::string> answers()
    {
        std::vector<std::string> vAnswers;
        for (const structMIRSP& rsp : client().m_vResponses)
        {
            const bool bRefused = rsp.s_mirsp == MIRSP_STATUS && rsp.s_nResult == MISTATUS_FAILED;
            vAnswers.push_back((bRefused ? "refused " : "ok ") + std::to_string(rsp.nRespSequenceNo));
        }
        return vAnswers;
    }

    static std::string ok(uint32_t nSequenceNo) { return "ok " + std::to_string(nSequenceNo); }
    static std::string refused(uint32_t nSequenceNo) { return "refused " + std::to_string(nSequenceNo); }

    // A request to connect, of process 200.
    structMICMD connectRecord()
    {
        structMICMD cmd = m_driver.next(MICMD_CONNECT);
        setText(cmd.connect.szRspPipe, MI_RESPONSE_PIPE_PREFIX "200");
        setText(cmd.connect.szEvtPipe, MI_EVENT_PIPE_PREFIX "200");
        return cmd;
    }
    std::vector<structMIRSP>& otherResponses() { return m_driver.client(200).m_vResponses; }

    CDriverInMemory m_driver;
    int m_nStreamID = 0;
};
} // namespace

TEST_F(FaultyDriver, RefusesTheNthCommandAndDoesNotCarryItOut)
{
    addFault("do=refuse,on=playfile,nth=2");
    const uint32_t nFirst = play();
    m_driver.ticks(2);
    const uint32_t nPing = ping();
    const uint32_t nSecond = play();
    EXPECT_FALSE(m_driver.stream(m_nStreamID)->isPlaying());
    const uint32_t nThird = play();
    EXPECT_THAT(answers(), ElementsAre(ok(nFirst), ok(nPing), refused(nSecond), ok(nThird)));
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("a fault rule says so"));
}

TEST_F(FaultyDriver, CountsOverAllClients)
{
    const int nOther = m_driver.connect(200);
    otherResponses().clear();
    addFault("do=refuse,on=ping,nth=2,count=2");
    const uint32_t nFirst = ping();
    m_driver.send(command(MICMD_PING, nOther, 7));
    const uint32_t nThird = ping();
    m_driver.send(command(MICMD_PING, nOther, 8));
    EXPECT_THAT(answers(), ElementsAre(ok(nFirst), refused(nThird)));
    ASSERT_EQ(otherResponses().size(), 2U);
    EXPECT_EQ(otherResponses()[0].s_nResult, MISTATUS_FAILED);
    EXPECT_EQ(otherResponses()[1].s_nResult, MISTATUS_OK);
}

TEST_F(FaultyDriver, ActsOnTheStreamsOfOneCall)
{
    addFault("do=refuse,on=any,call=other");
    EXPECT_EQ(m_driver.openStream("other"), 0);
    EXPECT_GT(m_driver.openStream("third"), 0);
    EXPECT_TRUE(m_driver.playFile(m_nStreamID, m_driver.path("clip.wav"), 0));
}

TEST_F(FaultyDriver, AnswersLateAndServesTheNextRequestsMeanwhile)
{
    addFault("do=late,on=ping,nth=1,ms=500");
    const uint32_t nLate = ping();
    const uint32_t nNext = ping();
    EXPECT_THAT(answers(), ElementsAre(ok(nNext)));
    m_driver.pass(milliseconds(499));
    EXPECT_THAT(answers(), ElementsAre(ok(nNext)));
    m_driver.pass(milliseconds(1));
    EXPECT_THAT(answers(), ElementsAre(ok(nNext), ok(nLate)));
}

TEST_F(FaultyDriver, CarriesOutAtOnceWhatItAnswersLate)
{
    addFault("do=late,on=playfile,ms=500");
    const uint32_t nPlay = play();
    m_driver.ticks(2);
    EXPECT_THAT(client().m_vOrder, ElementsAre("event " + std::to_string(nPlay)));
    m_driver.pass(milliseconds(500));
    EXPECT_THAT(client().m_vOrder, ElementsAre("event " + std::to_string(nPlay), "response " + std::to_string(nPlay)));
}

TEST_F(FaultyDriver, AnswersADisconnectLateAndLetsTheClientGoThen)
{
    addFault("do=late,on=disconnect,ms=500");
    const structMICMD cmd = m_driver.next(MICMD_DISCONNECT);
    m_driver.send(cmd);
    EXPECT_THAT(answers(), IsEmpty());
    m_driver.pass(milliseconds(500));
    EXPECT_THAT(answers(), ElementsAre(ok(cmd.nSequenceNo)));
    EXPECT_FALSE(client().m_bPortOpen);
    EXPECT_EQ(m_driver.m_statistics.m_ullClientsDropped, 0U);
}

TEST_F(FaultyDriver, LateAnswersToAClientThatIsGoneGoNowhere)
{
    addFault("do=late,on=ping,ms=500");
    ping();
    m_driver.m_registry.drop(m_driver.m_nConnectID, "test");
    m_driver.m_registry.sweep();
    m_driver.m_nConnectID = m_driver.connect(100);
    forget();
    m_driver.pass(milliseconds(500));
    EXPECT_THAT(answers(), IsEmpty());
}

TEST_F(FaultyDriver, AnswersTwice)
{
    addFault("do=twice,on=openstream,nth=1");
    structMICMD cmd = m_driver.next(MICMD_OPENSTREAM);
    setText(cmd.openStream.szCallID, "other");
    m_driver.send(cmd);
    ASSERT_EQ(client().m_vResponses.size(), 2U);
    EXPECT_EQ(client().m_vResponses[0].s_nStreamID, client().m_vResponses[1].s_nStreamID);
    EXPECT_THAT(answers(), ElementsAre(ok(cmd.nSequenceNo), ok(cmd.nSequenceNo)));
    const uint32_t nNext = ping();
    EXPECT_EQ(answers().back(), ok(nNext));
    EXPECT_EQ(client().m_vResponses.size(), 3U);
}

TEST_F(FaultyDriver, AnswersTwiceLate)
{
    addFault("do=twice,on=ping,nth=1");
    addFault("do=late,on=ping,nth=1,ms=20");
    const uint32_t nPing = ping();
    EXPECT_THAT(answers(), IsEmpty());
    m_driver.pass(milliseconds(20));
    EXPECT_THAT(answers(), ElementsAre(ok(nPing), ok(nPing)));
}

TEST_F(FaultyDriver, AnswersWithAnOldNumber)
{
    addFault("do=old-number,on=ping,nth=1");
    const uint32_t nPing = ping();
    EXPECT_THAT(answers(), ElementsAre(ok(nPing - 1)));
}

TEST_F(FaultyDriver, DropsAnAnswerButCarriesTheRequestOut)
{
    addFault("do=drop,on=playfile,nth=1");
    const uint32_t nPlay = play();
    EXPECT_THAT(answers(), IsEmpty());
    m_driver.ticks(2);
    EXPECT_THAT(client().m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, nPlay, 0}));
    const uint32_t nPing = ping();
    EXPECT_THAT(answers(), ElementsAre(ok(nPing)));
}

TEST_F(FaultyDriver, DropsAnEventAndTheStreamGoesOn)
{
    addFault("do=drop-event,on=play,nth=1");
    play();
    m_driver.ticks(3);
    EXPECT_THAT(client().m_vEvents, IsEmpty());
    const uint32_t nSecond = play();
    m_driver.ticks(3);
    EXPECT_THAT(client().m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, nSecond, 0}));
}

TEST_F(FaultyDriver, SendsAnEventTwiceOrLateOrWithAnotherStatus)
{
    addFault("do=twice,on=play,nth=1");
    addFault("do=late,on=play,nth=2,ms=500");
    addFault("do=status,on=play,nth=3,status=77");
    const uint32_t nFirst = play();
    m_driver.ticks(2);
    const structMIEVT first = {MIEVT_DONE, m_nStreamID, nFirst, 0};
    EXPECT_THAT(client().m_vEvents, ElementsAre(first, first));
    forget();
    const uint32_t nSecond = play();
    m_driver.ticks(2);
    m_driver.pass(milliseconds(499));
    EXPECT_THAT(client().m_vEvents, IsEmpty());
    m_driver.pass(milliseconds(1));
    EXPECT_THAT(client().m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, nSecond, 0}));
    forget();
    const uint32_t nThird = play();
    m_driver.ticks(2);
    EXPECT_THAT(client().m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, nThird, 77}));
}

TEST_F(FaultyDriver, EventsOfRecordingsHaveRulesOfTheirOwn)
{
    addFault("do=status,on=record,status=-5");
    play();
    EXPECT_TRUE(m_driver.recordFile(m_nStreamID, m_driver.path("msg.wav"), 300));
    const uint32_t nRecord = m_driver.sequence();
    m_driver.ticks(2);
    ASSERT_EQ(client().m_vEvents.size(), 2U);
    EXPECT_EQ(client().m_vEvents[0].s_mcstatus, 0);
    EXPECT_EQ(client().m_vEvents[1], (structMIEVT{MIEVT_DONE, m_nStreamID, nRecord, -5}));
}

TEST_F(FaultyDriver, FreezesOverARequestAndCarriesItOutOnceThereafter)
{
    addFault("do=freeze,on=playfile,nth=1,ms=100");
    const uint32_t nPlay = play();
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("freeze 100"));
    EXPECT_FALSE(m_driver.stream(m_nStreamID)->isPlaying());
    const uint32_t nPing = ping();
    EXPECT_THAT(answers(), IsEmpty());
    m_driver.m_handler.freeze(false);
    EXPECT_THAT(answers(), ElementsAre(ok(nPlay), ok(nPing)));
    EXPECT_TRUE(m_driver.stream(m_nStreamID)->isPlaying());
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("freeze 100"));
}

TEST_F(FaultyDriver, AsksTheRulesOnceForARequestOverWhichItFreezes)
{
    addFault("do=freeze,on=ping");
    addFault("do=refuse,on=ping,nth=1");
    const uint32_t nPing = ping();
    m_driver.m_handler.freeze(false);
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("freeze"));
    EXPECT_THAT(answers(), ElementsAre(refused(nPing)));
    const auto rules = m_driver.m_faults.toJson();
    EXPECT_EQ(rules[0]["matched"], 1);
    EXPECT_EQ(rules[1]["matched"], 1);
}

TEST_F(FaultyDriver, FreezesAgainOverTheNextRequest)
{
    addFault("do=freeze,on=ping,count=2,ms=10");
    const uint32_t nFirst = ping();
    const uint32_t nSecond = ping();
    m_driver.m_handler.freeze(false);
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("freeze 10", "freeze 10"));
    EXPECT_THAT(answers(), ElementsAre(ok(nFirst)));
    m_driver.m_handler.freeze(false);
    EXPECT_THAT(answers(), ElementsAre(ok(nFirst), ok(nSecond)));
}

TEST_F(FaultyDriver, ServesAllClientsWhenItHasThawed)
{
    const int nOther = m_driver.connect(200);
    otherResponses().clear();
    m_driver.m_handler.freeze(true);
    const uint32_t nPing = ping();
    m_driver.send(command(MICMD_PING, nOther, 7));
    m_driver.send(command(MICMD_PING, nOther, 8));
    EXPECT_THAT(otherResponses(), IsEmpty());
    m_driver.m_handler.freeze(false);
    EXPECT_THAT(answers(), ElementsAre(ok(nPing)));
    EXPECT_EQ(otherResponses().size(), 2U);
}

TEST_F(FaultyDriver, ForgetsTheRequestsOfAClientThatIsDroppedWhileItIsFrozen)
{
    addFault("do=freeze,on=playfile,nth=1");
    play();
    ping();
    m_driver.m_registry.drop(m_driver.m_nConnectID, "test");
    m_driver.m_registry.sweep();
    m_driver.m_handler.freeze(false);
    EXPECT_THAT(answers(), IsEmpty());
}

TEST_F(FaultyDriver, DropsTheClientInsteadOfAnswering)
{
    const int nOther = m_driver.connect(200);
    otherResponses().clear();
    addFault("do=drop-client,on=ping,nth=2");
    const uint32_t nFirst = ping();
    ping();
    EXPECT_THAT(answers(), ElementsAre(ok(nFirst)));
    EXPECT_FALSE(client().m_bPortOpen);
    EXPECT_EQ(m_driver.m_statistics.m_ullClientsDropped, 1U);
    m_driver.send(command(MICMD_PING, nOther, 7));
    EXPECT_EQ(otherResponses().size(), 1U);
}

TEST_F(FaultyDriver, DiesInsteadOfCarryingTheRequestOut)
{
    addFault("do=die,on=playfile");
    play();
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("die"));
    EXPECT_FALSE(m_driver.stream(m_nStreamID)->isPlaying());
    EXPECT_THAT(answers(), IsEmpty());
}

TEST_F(FaultyDriver, RefusesAConnectAndForgetsTheClient)
{
    addFault("do=refuse,on=connect");
    const structMICMD cmd = connectRecord();
    m_driver.send(cmd);
    ASSERT_EQ(otherResponses().size(), 1U);
    EXPECT_EQ(otherResponses()[0].s_mirsp, MIRSP_STATUS);
    EXPECT_EQ(otherResponses()[0].s_nResult, MISTATUS_FAILED);
    EXPECT_EQ(otherResponses()[0].nRespSequenceNo, cmd.nSequenceNo);
    EXPECT_FALSE(m_driver.client(200).m_bPortOpen);
}

TEST_F(FaultyDriver, RefusesAConnectLate)
{
    addFault("do=refuse,on=connect");
    addFault("do=late,on=connect,ms=500");
    m_driver.send(connectRecord());
    EXPECT_THAT(otherResponses(), IsEmpty());
    m_driver.pass(milliseconds(500));
    ASSERT_EQ(otherResponses().size(), 1U);
    EXPECT_EQ(otherResponses()[0].s_nResult, MISTATUS_FAILED);
    EXPECT_FALSE(m_driver.client(200).m_bPortOpen);
}

TEST_F(FaultyDriver, AnswersAConnectLateTwiceOrWithAnOldNumber)
{
    addFault("do=late,on=connect,nth=1,ms=500");
    addFault("do=twice,on=connect,nth=2");
    addFault("do=old-number,on=connect,nth=3");
    m_driver.send(connectRecord());
    EXPECT_THAT(otherResponses(), IsEmpty());
    m_driver.pass(milliseconds(500));
    ASSERT_EQ(otherResponses().size(), 1U);
    EXPECT_GT(otherResponses()[0].s_nConnectID, m_driver.m_nConnectID);
    m_driver.send(connectRecord());
    ASSERT_EQ(otherResponses().size(), 3U);
    EXPECT_EQ(otherResponses()[1].s_nConnectID, otherResponses()[2].s_nConnectID);
    const structMICMD cmd = connectRecord();
    m_driver.send(cmd);
    ASSERT_EQ(otherResponses().size(), 4U);
    EXPECT_EQ(otherResponses()[3].nRespSequenceNo, cmd.nSequenceNo - 1);
}

TEST_F(FaultyDriver, DropsAConnectWithOrWithoutItsClient)
{
    addFault("do=drop,on=connect,nth=1");
    addFault("do=drop-client,on=connect,nth=2");
    m_driver.send(connectRecord());
    EXPECT_THAT(otherResponses(), IsEmpty());
    EXPECT_TRUE(m_driver.client(200).m_bPortOpen);
    m_driver.send(connectRecord());
    EXPECT_THAT(otherResponses(), IsEmpty());
    EXPECT_FALSE(m_driver.client(200).m_bPortOpen);
}

TEST_F(FaultyDriver, FreezesOverAConnectAndCarriesItOutOnceThereafter)
{
    addFault("do=freeze,on=connect,nth=1,ms=100");
    const structMICMD cmd = connectRecord();
    m_driver.send(cmd);
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("freeze 100"));
    EXPECT_THAT(otherResponses(), IsEmpty());
    m_driver.m_handler.freeze(false);
    ASSERT_EQ(otherResponses().size(), 1U);
    EXPECT_EQ(otherResponses()[0].s_mirsp, MIRSP_CONNECT);
    EXPECT_EQ(otherResponses()[0].nRespSequenceNo, cmd.nSequenceNo);
    EXPECT_EQ(m_driver.m_faults.toJson()[0]["matched"], 1);
}

TEST_F(FaultyDriver, ConnectsNobodyWhileItIsFrozenAndNotTooManyThereafter)
{
    m_driver.m_handler.freeze(true);
    for (int nConnect = 0; nConnect < 1000; ++nConnect)
        m_driver.send(connectRecord());
    EXPECT_THAT(otherResponses(), IsEmpty());
    m_driver.m_handler.freeze(false);
    EXPECT_EQ(otherResponses().size(), CClient::MAX_WAITING_REQUESTS);
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("dropped MICMD_CONNECT"));
}

TEST_F(FaultyDriver, DiesOverAConnect)
{
    addFault("do=die,on=connect");
    m_driver.send(connectRecord());
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("die"));
    EXPECT_THAT(otherResponses(), IsEmpty());
}
