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
        WriteULaw(m_driver.Path("clip.wav"), SF_FORMAT_WAV, Noise(300));
        m_nStreamID = m_driver.OpenStream("call");
        Forget();
    }

    void AddFault(const std::string& strWords)
    {
        nlohmann::json rule;
        std::string strError;
        EXPECT_TRUE(ParseWordList(strWords, rule, strError)) << strError;
        EXPECT_TRUE(m_driver.m_faults.Add(rule, strError)) << strError;
    }

    CMemoryClient& Client() { return m_driver.Client(); }

    void Forget()
    {
        Client().m_vResponses.clear();
        Client().m_vEvents.clear();
        Client().m_vOrder.clear();
    }

    // Sends a request and returns its number.
    std::uint32_t Ping()
    {
        const structMICMD cmd = m_driver.Next(MICMD_PING);
        m_driver.Send(cmd);
        return cmd.nSequenceNo;
    }

    std::uint32_t Play() { return m_driver.SendPlayFile(m_nStreamID, m_driver.Path("clip.wav")); }

    // The statuses of the responses so far, in words.
    std::vector<std::string> Answers()
    {
        std::vector<std::string> vAnswers;
        for (const structMIRSP& rsp : Client().m_vResponses)
        {
            const bool bRefused = rsp.s_mirsp == MIRSP_STATUS && rsp.s_nResult == MISTATUS_FAILED;
            vAnswers.push_back((bRefused ? "refused " : "ok ") + std::to_string(rsp.nRespSequenceNo));
        }
        return vAnswers;
    }

    static std::string Ok(std::uint32_t nSequenceNo) { return "ok " + std::to_string(nSequenceNo); }
    static std::string Refused(std::uint32_t nSequenceNo) { return "refused " + std::to_string(nSequenceNo); }

    // A request to connect, of process 200.
    structMICMD ConnectRecord()
    {
        structMICMD cmd = m_driver.Next(MICMD_CONNECT);
        SetText(cmd.connect.szRspPipe, MI_RESPONSE_PIPE_PREFIX "200");
        SetText(cmd.connect.szEvtPipe, MI_EVENT_PIPE_PREFIX "200");
        return cmd;
    }
    std::vector<structMIRSP>& OtherResponses() { return m_driver.Client(200).m_vResponses; }

    CDriverInMemory m_driver;
    int m_nStreamID = 0;
};
} // namespace

TEST_F(FaultyDriver, RefusesTheNthCommandAndDoesNotCarryItOut)
{
    AddFault("do=refuse,on=playfile,nth=2");
    const std::uint32_t nFirst = Play();
    m_driver.Ticks(2);
    const std::uint32_t nPing = Ping();
    const std::uint32_t nSecond = Play();
    EXPECT_FALSE(m_driver.Stream(m_nStreamID)->IsPlaying());
    const std::uint32_t nThird = Play();
    EXPECT_THAT(Answers(), ElementsAre(Ok(nFirst), Ok(nPing), Refused(nSecond), Ok(nThird)));
    EXPECT_THAT(m_driver.m_log.Text(), HasSubstr("a fault rule says so"));
}

TEST_F(FaultyDriver, CountsOverAllClients)
{
    const int nOther = m_driver.Connect(200);
    OtherResponses().clear();
    AddFault("do=refuse,on=ping,nth=2,count=2");
    const std::uint32_t nFirst = Ping();
    m_driver.Send(Command(MICMD_PING, nOther, 7));
    const std::uint32_t nThird = Ping();
    m_driver.Send(Command(MICMD_PING, nOther, 8));
    EXPECT_THAT(Answers(), ElementsAre(Ok(nFirst), Refused(nThird)));
    ASSERT_EQ(OtherResponses().size(), 2U);
    EXPECT_EQ(OtherResponses()[0].s_nResult, MISTATUS_FAILED);
    EXPECT_EQ(OtherResponses()[1].s_nResult, MISTATUS_OK);
}

TEST_F(FaultyDriver, ActsOnTheStreamsOfOneCall)
{
    AddFault("do=refuse,on=any,call=other");
    EXPECT_EQ(m_driver.OpenStream("other"), 0);
    EXPECT_GT(m_driver.OpenStream("third"), 0);
    EXPECT_TRUE(m_driver.PlayFile(m_nStreamID, m_driver.Path("clip.wav"), 0));
}

TEST_F(FaultyDriver, AnswersLateAndServesTheNextRequestsMeanwhile)
{
    AddFault("do=late,on=ping,nth=1,ms=500");
    const std::uint32_t nLate = Ping();
    const std::uint32_t nNext = Ping();
    EXPECT_THAT(Answers(), ElementsAre(Ok(nNext)));
    m_driver.Pass(milliseconds(499));
    EXPECT_THAT(Answers(), ElementsAre(Ok(nNext)));
    m_driver.Pass(milliseconds(1));
    EXPECT_THAT(Answers(), ElementsAre(Ok(nNext), Ok(nLate)));
}

TEST_F(FaultyDriver, CarriesOutAtOnceWhatItAnswersLate)
{
    AddFault("do=late,on=playfile,ms=500");
    const std::uint32_t nPlay = Play();
    m_driver.Ticks(2);
    EXPECT_THAT(Client().m_vOrder, ElementsAre("event " + std::to_string(nPlay)));
    m_driver.Pass(milliseconds(500));
    EXPECT_THAT(Client().m_vOrder, ElementsAre("event " + std::to_string(nPlay), "response " + std::to_string(nPlay)));
}

TEST_F(FaultyDriver, AnswersADisconnectLateAndLetsTheClientGoThen)
{
    AddFault("do=late,on=disconnect,ms=500");
    const structMICMD cmd = m_driver.Next(MICMD_DISCONNECT);
    m_driver.Send(cmd);
    EXPECT_THAT(Answers(), IsEmpty());
    m_driver.Pass(milliseconds(500));
    EXPECT_THAT(Answers(), ElementsAre(Ok(cmd.nSequenceNo)));
    EXPECT_FALSE(Client().m_bPortOpen);
    EXPECT_EQ(m_driver.m_statistics.m_ullClientsDropped, 0U);
}

TEST_F(FaultyDriver, LateAnswersToAClientThatIsGoneGoNowhere)
{
    AddFault("do=late,on=ping,ms=500");
    Ping();
    m_driver.m_registry.Drop(m_driver.m_nConnectID, "test");
    m_driver.m_registry.Sweep();
    m_driver.m_nConnectID = m_driver.Connect(100);
    Forget();
    m_driver.Pass(milliseconds(500));
    EXPECT_THAT(Answers(), IsEmpty());
}

TEST_F(FaultyDriver, AnswersTwice)
{
    AddFault("do=twice,on=openstream,nth=1");
    structMICMD cmd = m_driver.Next(MICMD_OPENSTREAM);
    SetText(cmd.openStream.szCallID, "other");
    m_driver.Send(cmd);
    ASSERT_EQ(Client().m_vResponses.size(), 2U);
    EXPECT_EQ(Client().m_vResponses[0].s_nStreamID, Client().m_vResponses[1].s_nStreamID);
    EXPECT_THAT(Answers(), ElementsAre(Ok(cmd.nSequenceNo), Ok(cmd.nSequenceNo)));
    const std::uint32_t nNext = Ping();
    EXPECT_EQ(Answers().back(), Ok(nNext));
    EXPECT_EQ(Client().m_vResponses.size(), 3U);
}

TEST_F(FaultyDriver, AnswersTwiceLate)
{
    AddFault("do=twice,on=ping,nth=1");
    AddFault("do=late,on=ping,nth=1,ms=20");
    const std::uint32_t nPing = Ping();
    EXPECT_THAT(Answers(), IsEmpty());
    m_driver.Pass(milliseconds(20));
    EXPECT_THAT(Answers(), ElementsAre(Ok(nPing), Ok(nPing)));
}

TEST_F(FaultyDriver, AnswersWithAnOldNumber)
{
    AddFault("do=old-number,on=ping,nth=1");
    const std::uint32_t nPing = Ping();
    EXPECT_THAT(Answers(), ElementsAre(Ok(nPing - 1)));
}

TEST_F(FaultyDriver, DropsAnAnswerButCarriesTheRequestOut)
{
    AddFault("do=drop,on=playfile,nth=1");
    const std::uint32_t nPlay = Play();
    EXPECT_THAT(Answers(), IsEmpty());
    m_driver.Ticks(2);
    EXPECT_THAT(Client().m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, nPlay, 0}));
    const std::uint32_t nPing = Ping();
    EXPECT_THAT(Answers(), ElementsAre(Ok(nPing)));
}

TEST_F(FaultyDriver, DropsAnEventAndTheStreamGoesOn)
{
    AddFault("do=drop-event,on=play,nth=1");
    Play();
    m_driver.Ticks(3);
    EXPECT_THAT(Client().m_vEvents, IsEmpty());
    const std::uint32_t nSecond = Play();
    m_driver.Ticks(3);
    EXPECT_THAT(Client().m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, nSecond, 0}));
}

TEST_F(FaultyDriver, SendsAnEventTwiceOrLateOrWithAnotherStatus)
{
    AddFault("do=twice,on=play,nth=1");
    AddFault("do=late,on=play,nth=2,ms=500");
    AddFault("do=status,on=play,nth=3,status=77");
    const std::uint32_t nFirst = Play();
    m_driver.Ticks(2);
    const structMIEVT first = {MIEVT_DONE, m_nStreamID, nFirst, 0};
    EXPECT_THAT(Client().m_vEvents, ElementsAre(first, first));
    Forget();
    const std::uint32_t nSecond = Play();
    m_driver.Ticks(2);
    m_driver.Pass(milliseconds(499));
    EXPECT_THAT(Client().m_vEvents, IsEmpty());
    m_driver.Pass(milliseconds(1));
    EXPECT_THAT(Client().m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, nSecond, 0}));
    Forget();
    const std::uint32_t nThird = Play();
    m_driver.Ticks(2);
    EXPECT_THAT(Client().m_vEvents, ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, nThird, 77}));
}

TEST_F(FaultyDriver, EventsOfRecordingsHaveRulesOfTheirOwn)
{
    AddFault("do=status,on=record,status=-5");
    Play();
    EXPECT_TRUE(m_driver.RecordFile(m_nStreamID, m_driver.Path("msg.wav"), 300));
    const std::uint32_t nRecord = m_driver.Sequence();
    m_driver.Ticks(2);
    ASSERT_EQ(Client().m_vEvents.size(), 2U);
    EXPECT_EQ(Client().m_vEvents[0].s_mcstatus, 0);
    EXPECT_EQ(Client().m_vEvents[1], (structMIEVT{MIEVT_DONE, m_nStreamID, nRecord, -5}));
}

TEST_F(FaultyDriver, FreezesOverARequestAndCarriesItOutOnceThereafter)
{
    AddFault("do=freeze,on=playfile,nth=1,ms=100");
    const std::uint32_t nPlay = Play();
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("freeze 100"));
    EXPECT_FALSE(m_driver.Stream(m_nStreamID)->IsPlaying());
    const std::uint32_t nPing = Ping();
    EXPECT_THAT(Answers(), IsEmpty());
    m_driver.m_handler.Freeze(false);
    EXPECT_THAT(Answers(), ElementsAre(Ok(nPlay), Ok(nPing)));
    EXPECT_TRUE(m_driver.Stream(m_nStreamID)->IsPlaying());
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("freeze 100"));
}

TEST_F(FaultyDriver, AsksTheRulesOnceForARequestOverWhichItFreezes)
{
    AddFault("do=freeze,on=ping");
    AddFault("do=refuse,on=ping,nth=1");
    const std::uint32_t nPing = Ping();
    m_driver.m_handler.Freeze(false);
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("freeze"));
    EXPECT_THAT(Answers(), ElementsAre(Refused(nPing)));
    const auto rules = m_driver.m_faults.ToJson();
    EXPECT_EQ(rules[0]["matched"], 1);
    EXPECT_EQ(rules[1]["matched"], 1);
}

TEST_F(FaultyDriver, FreezesAgainOverTheNextRequest)
{
    AddFault("do=freeze,on=ping,count=2,ms=10");
    const std::uint32_t nFirst = Ping();
    const std::uint32_t nSecond = Ping();
    m_driver.m_handler.Freeze(false);
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("freeze 10", "freeze 10"));
    EXPECT_THAT(Answers(), ElementsAre(Ok(nFirst)));
    m_driver.m_handler.Freeze(false);
    EXPECT_THAT(Answers(), ElementsAre(Ok(nFirst), Ok(nSecond)));
}

TEST_F(FaultyDriver, ServesAllClientsWhenItHasThawed)
{
    const int nOther = m_driver.Connect(200);
    OtherResponses().clear();
    m_driver.m_handler.Freeze(true);
    const std::uint32_t nPing = Ping();
    m_driver.Send(Command(MICMD_PING, nOther, 7));
    m_driver.Send(Command(MICMD_PING, nOther, 8));
    EXPECT_THAT(OtherResponses(), IsEmpty());
    m_driver.m_handler.Freeze(false);
    EXPECT_THAT(Answers(), ElementsAre(Ok(nPing)));
    EXPECT_EQ(OtherResponses().size(), 2U);
}

TEST_F(FaultyDriver, ForgetsTheRequestsOfAClientThatIsDroppedWhileItIsFrozen)
{
    AddFault("do=freeze,on=playfile,nth=1");
    Play();
    Ping();
    m_driver.m_registry.Drop(m_driver.m_nConnectID, "test");
    m_driver.m_registry.Sweep();
    m_driver.m_handler.Freeze(false);
    EXPECT_THAT(Answers(), IsEmpty());
}

TEST_F(FaultyDriver, DropsTheClientInsteadOfAnswering)
{
    const int nOther = m_driver.Connect(200);
    OtherResponses().clear();
    AddFault("do=drop-client,on=ping,nth=2");
    const std::uint32_t nFirst = Ping();
    Ping();
    EXPECT_THAT(Answers(), ElementsAre(Ok(nFirst)));
    EXPECT_FALSE(Client().m_bPortOpen);
    EXPECT_EQ(m_driver.m_statistics.m_ullClientsDropped, 1U);
    m_driver.Send(Command(MICMD_PING, nOther, 7));
    EXPECT_EQ(OtherResponses().size(), 1U);
}

TEST_F(FaultyDriver, DiesInsteadOfCarryingTheRequestOut)
{
    AddFault("do=die,on=playfile");
    Play();
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("die"));
    EXPECT_FALSE(m_driver.Stream(m_nStreamID)->IsPlaying());
    EXPECT_THAT(Answers(), IsEmpty());
}

TEST_F(FaultyDriver, RefusesAConnectAndForgetsTheClient)
{
    AddFault("do=refuse,on=connect");
    const structMICMD cmd = ConnectRecord();
    m_driver.Send(cmd);
    ASSERT_EQ(OtherResponses().size(), 1U);
    EXPECT_EQ(OtherResponses()[0].s_mirsp, MIRSP_STATUS);
    EXPECT_EQ(OtherResponses()[0].s_nResult, MISTATUS_FAILED);
    EXPECT_EQ(OtherResponses()[0].nRespSequenceNo, cmd.nSequenceNo);
    EXPECT_FALSE(m_driver.Client(200).m_bPortOpen);
}

TEST_F(FaultyDriver, RefusesAConnectLate)
{
    AddFault("do=refuse,on=connect");
    AddFault("do=late,on=connect,ms=500");
    m_driver.Send(ConnectRecord());
    EXPECT_THAT(OtherResponses(), IsEmpty());
    m_driver.Pass(milliseconds(500));
    ASSERT_EQ(OtherResponses().size(), 1U);
    EXPECT_EQ(OtherResponses()[0].s_nResult, MISTATUS_FAILED);
    EXPECT_FALSE(m_driver.Client(200).m_bPortOpen);
}

TEST_F(FaultyDriver, AnswersAConnectLateTwiceOrWithAnOldNumber)
{
    AddFault("do=late,on=connect,nth=1,ms=500");
    AddFault("do=twice,on=connect,nth=2");
    AddFault("do=old-number,on=connect,nth=3");
    m_driver.Send(ConnectRecord());
    EXPECT_THAT(OtherResponses(), IsEmpty());
    m_driver.Pass(milliseconds(500));
    ASSERT_EQ(OtherResponses().size(), 1U);
    EXPECT_GT(OtherResponses()[0].s_nConnectID, m_driver.m_nConnectID);
    m_driver.Send(ConnectRecord());
    ASSERT_EQ(OtherResponses().size(), 3U);
    EXPECT_EQ(OtherResponses()[1].s_nConnectID, OtherResponses()[2].s_nConnectID);
    const structMICMD cmd = ConnectRecord();
    m_driver.Send(cmd);
    ASSERT_EQ(OtherResponses().size(), 4U);
    EXPECT_EQ(OtherResponses()[3].nRespSequenceNo, cmd.nSequenceNo - 1);
}

TEST_F(FaultyDriver, DropsAConnectWithOrWithoutItsClient)
{
    AddFault("do=drop,on=connect,nth=1");
    AddFault("do=drop-client,on=connect,nth=2");
    m_driver.Send(ConnectRecord());
    EXPECT_THAT(OtherResponses(), IsEmpty());
    EXPECT_TRUE(m_driver.Client(200).m_bPortOpen);
    m_driver.Send(ConnectRecord());
    EXPECT_THAT(OtherResponses(), IsEmpty());
    EXPECT_FALSE(m_driver.Client(200).m_bPortOpen);
}

TEST_F(FaultyDriver, FreezesOverAConnectAndCarriesItOutOnceThereafter)
{
    AddFault("do=freeze,on=connect,nth=1,ms=100");
    const structMICMD cmd = ConnectRecord();
    m_driver.Send(cmd);
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("freeze 100"));
    EXPECT_THAT(OtherResponses(), IsEmpty());
    m_driver.m_handler.Freeze(false);
    ASSERT_EQ(OtherResponses().size(), 1U);
    EXPECT_EQ(OtherResponses()[0].s_mirsp, MIRSP_CONNECT);
    EXPECT_EQ(OtherResponses()[0].nRespSequenceNo, cmd.nSequenceNo);
    EXPECT_EQ(m_driver.m_faults.ToJson()[0]["matched"], 1);
}

TEST_F(FaultyDriver, ConnectsNobodyWhileItIsFrozenAndNotTooManyThereafter)
{
    m_driver.m_handler.Freeze(true);
    for (int nConnect = 0; nConnect < 1000; ++nConnect)
    {
        m_driver.Send(ConnectRecord());
    }
    EXPECT_THAT(OtherResponses(), IsEmpty());
    m_driver.m_handler.Freeze(false);
    EXPECT_EQ(OtherResponses().size(), CClient::MAX_WAITING_REQUESTS);
    EXPECT_THAT(m_driver.m_log.Text(), HasSubstr("dropped MICMD_CONNECT"));
}

TEST_F(FaultyDriver, DiesOverAConnect)
{
    AddFault("do=die,on=connect");
    m_driver.Send(ConnectRecord());
    EXPECT_THAT(m_driver.m_vHooks, ElementsAre("die"));
    EXPECT_THAT(OtherResponses(), IsEmpty());
}
