// A leg's state machine, with a dialog, a driver and a daemon that only write down.
#include "Leg.h"

#include <gmock/gmock.h>

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{
const std::string s_strSdp = "v=0\r\no=- 1 1 IN IP4 192.0.2.9\r\ns=-\r\nc=IN IP4 192.0.2.9\r\nt=0 0\r\n"
                             "m=audio 4000 RTP/AVP 0\r\n";

class CFakeDialog : public CSipDialog
{
public:
    explicit CFakeDialog(std::vector<std::string>& vDone) : m_vDone(vDone) {}

    void setHandler(CSipDialogHandler*) override {}
    void reply(uint64_t, int nStatus, const CSipContent&) override { done(std::to_string(nStatus)); }
    bool replyReliably(uint64_t, int, const CSipContent&) override { return false; }
    uint64_t invite(const std::string&, const CSipContent&) override { return sent("INVITE"); }
    uint64_t reinvite(const CSipContent&) override { return sent("re-INVITE"); }
    void ack(uint64_t, const CSipContent&) override { done("ACK"); }
    void cancel(uint64_t) override { done("CANCEL"); }
    uint64_t request(const std::string& strMethod, const CSipContent&) override { return sent(strMethod); }
    void authenticateAs(const CSipCredentials&) override {}
    std::string replaces() const override { return "a;to-tag=b;from-tag=c"; }
    std::string localContact() const override { return "sip:127.0.0.1"; }
    CSipSavedDialog save() const override { return {}; }

private:
    void done(const std::string& strWhat) { m_vDone.push_back(strWhat); }
    uint64_t sent(const std::string& strWhat)
    {
        done(strWhat);
        return ++m_ullLast;
    }

    std::vector<std::string>& m_vDone;
    uint64_t m_ullLast = 100;
};

class CLegTest : public testing::Test, public CLegServices, public CMediaDriver
{
protected:
    static constexpr uint64_t s_ullInvite = 1;

    CLegTest()
    {
        m_negotiation.m_vCodecs = {{"PCMU", 0, 8000, "", ""}};
        m_policy.m_uSessionExpires = 0;
        m_pLeg = std::make_shared<CLeg>(*this, CLegName{"c", 1}, m_negotiation);
    }

    CLoop& loop() override { return m_loop; }
    CMediaDriver& driver() override { return *this; }
    const CPolicy& policy() const override { return m_policy; }
    std::string mediaAddress() const override { return ""; }
    bool offer(CLeg&) override { return m_bTaken; }
    void part(std::unique_ptr<CSipDialog>) override {}
    void emit(CLeg&, nlohmann::ordered_json event) override
    {
        m_vEvents.push_back(event.value("event", "") +
                            (event.contains("reason") ? ":" + event.value("reason", "") : ""));
    }
    void ended(CLeg&) override {}
    void changed(CLeg&) override {}
    void finished(CLeg&) override { ++m_nFinished; }
    void request(const char* pName, const CLegName&, nlohmann::ordered_json, Answer answer) override
    {
        m_vMedia.push_back(pName);
        if (std::string(pName) == "create" && !m_bMedia)
            answer({{"ok", false}, {"error", {{"code", "full"}}}});
        else
            answer({{"ok", true}, {"local", "127.0.0.1:20000"}, {"rtcp", "127.0.0.1:20001"}});
    }

    static CSipMessage message(int nStatus = 0, const std::string& strBody = "")
    {
        CSipMessage message;
        message.m_nStatus = nStatus;
        message.m_strMethod = "INVITE";
        message.m_strCallID = "id";
        message.m_strRequestUri = "sip:100@127.0.0.1";
        message.m_strBody = strBody;
        message.m_strContentType = strBody.empty() ? "" : "application/sdp";
        return message;
    }
    void comesIn(const std::string& strBody = s_strSdp)
    {
        m_pLeg->begin(std::make_unique<CFakeDialog>(m_vDone), s_ullInvite, message(0, strBody));
    }
    void goesOut() { m_pLeg->dial(std::make_unique<CFakeDialog>(m_vDone), "sip:100@127.0.0.1", "sip:a@b", {}); }
    bool app(ELegEvent eEvent, int nStatus = 0, const std::string& strText = "")
    {
        CLegEvent event = {eEvent};
        event.m_nStatus = nStatus;
        event.m_strText = strText;
        return m_pLeg->take(event);
    }
    void answered()
    {
        comesIn();
        app(ELegEvent::Answer);
        m_pLeg->onAck(s_ullInvite, message());
        m_vDone.clear();
        m_vEvents.clear();
    }
    bool waitFor(const std::function<bool()>& condition)
    {
        for (const auto end = CLoop::Clock::now() + std::chrono::seconds(30);
             !condition() && CLoop::Clock::now() < end;)
            m_loop.step(milliseconds(20));
        return condition();
    }

    CLoop m_loop;
    CPolicy m_policy;
    CNegotiationSettings m_negotiation;
    std::vector<std::string> m_vDone;   // in the network
    std::vector<std::string> m_vEvents; // told
    std::vector<std::string> m_vMedia;
    bool m_bTaken = true;
    bool m_bMedia = true;
    int m_nFinished = 0;
    std::shared_ptr<CLeg> m_pLeg;
};
using Leg = CLegTest;
} // namespace

TEST_F(Leg, ComesInRingsIsAnsweredAndEnded)
{
    comesIn();
    EXPECT_EQ(m_pLeg->state(), ELegState::Offered);
    EXPECT_TRUE(app(ELegEvent::Ring));
    EXPECT_TRUE(app(ELegEvent::Answer));
    EXPECT_EQ(m_pLeg->state(), ELegState::Answering);
    m_pLeg->onAck(s_ullInvite, message());
    EXPECT_EQ(m_pLeg->state(), ELegState::Answered);
    EXPECT_TRUE(m_pLeg->hangUp("local"));
    EXPECT_EQ(m_pLeg->state(), ELegState::Ending);
    m_pLeg->onResponse(101, message(200));
    EXPECT_EQ(m_pLeg->state(), ELegState::Ended);
    EXPECT_THAT(m_vDone, ElementsAre("180", "200", "BYE"));
    EXPECT_THAT(m_vEvents, ElementsAre("answered", "ended:local"));
    EXPECT_THAT(m_vMedia, ElementsAre("create", "update", "end"));
    EXPECT_EQ(m_nFinished, 1);
}

TEST_F(Leg, HangUpBeforeTheAckWaitsForIt)
{
    comesIn();
    app(ELegEvent::Answer);
    EXPECT_TRUE(m_pLeg->hangUp("local"));
    EXPECT_THAT(m_vDone, ElementsAre("200"));
    EXPECT_THAT(m_vEvents, ElementsAre("ended:local"));
    m_pLeg->onAck(s_ullInvite, message());
    EXPECT_THAT(m_vDone, ElementsAre("200", "BYE"));
    EXPECT_THAT(m_vEvents, ElementsAre("ended:local"));
}

TEST_F(Leg, AckThatNeverComesEndsIt)
{
    comesIn();
    app(ELegEvent::Answer);
    m_pLeg->onAckMissing(s_ullInvite);
    EXPECT_THAT(m_vDone, ElementsAre("200", "BYE"));
    EXPECT_THAT(m_vEvents, ElementsAre("ended:failed"));
}

TEST_F(Leg, CancelEndsItWhileItRings)
{
    comesIn();
    app(ELegEvent::Ring);
    m_pLeg->onCancel(s_ullInvite);
    EXPECT_THAT(m_vDone, ElementsAre("180", "487"));
    EXPECT_THAT(m_vEvents, ElementsAre("ended:cancelled"));
    EXPECT_EQ(m_nFinished, 1);
}

TEST_F(Leg, NobodyIsToldOfWhatWasNeverOffered)
{
    m_bMedia = false;
    comesIn();
    EXPECT_THAT(m_vDone, ElementsAre("503"));
    EXPECT_EQ(m_pLeg->state(), ELegState::Ended);
}

TEST_F(Leg, CommandsThatMakeNoSenseAreRefused)
{
    comesIn();
    EXPECT_FALSE(app(ELegEvent::Hold));
    EXPECT_FALSE(app(ELegEvent::Resume));
    EXPECT_FALSE(m_pLeg->transfer("sip:200@127.0.0.1", ""));
    EXPECT_FALSE(m_pLeg->collect({}));
    app(ELegEvent::Answer);
    EXPECT_FALSE(app(ELegEvent::Ring));
    EXPECT_FALSE(app(ELegEvent::Answer));
    EXPECT_FALSE(app(ELegEvent::Reject, 486));
    m_pLeg->onAck(s_ullInvite, message());
    EXPECT_FALSE(app(ELegEvent::Answer));
    EXPECT_FALSE(app(ELegEvent::Redirect));
    CSipMessage bye = message();
    bye.m_strMethod = "BYE";
    m_pLeg->onRequest(7, bye);
    for (const ELegEvent eEvent : {ELegEvent::Ring, ELegEvent::Answer, ELegEvent::Reject, ELegEvent::Redirect,
                                   ELegEvent::HangUp, ELegEvent::Hold, ELegEvent::Resume, ELegEvent::TimeOut})
        EXPECT_FALSE(app(eEvent, 486));
}

TEST_F(Leg, NoEventInAnyOrderEndsItTwice)
{
    const ELegEvent all[] = {ELegEvent::Ring,      ELegEvent::Answer, ELegEvent::HangUp,     ELegEvent::Hold,
                             ELegEvent::Cancelled, ELegEvent::Bye,    ELegEvent::AckMissing, ELegEvent::MediaFailed,
                             ELegEvent::TimeOut,   ELegEvent::Retry};
    for (const ELegEvent eFirst : all)
        for (const ELegEvent eSecond : all)
            for (const ELegEvent eThird : all)
            {
                m_pLeg = std::make_shared<CLeg>(*this, CLegName{"c", 1}, m_negotiation);
                m_vEvents.clear();
                comesIn();
                for (const ELegEvent eEvent : {eFirst, eSecond, eThird, ELegEvent::HangUp, ELegEvent::TimeOut,
                                               ELegEvent::TimeOut, ELegEvent::TimeOut})
                    app(eEvent, 0, "x");
                EXPECT_EQ(m_pLeg->state(), ELegState::Ended);
                EXPECT_EQ(std::count_if(m_vEvents.begin(), m_vEvents.end(),
                                        [](const std::string& str) { return str.rfind("ended", 0) == 0; }),
                          1)
                    << static_cast<int>(eFirst) << " " << static_cast<int>(eSecond) << " " << static_cast<int>(eThird);
            }
}

TEST_F(Leg, GoesOutAndIsAnswered)
{
    goesOut();
    EXPECT_EQ(m_pLeg->state(), ELegState::Dialing);
    m_pLeg->onResponse(101, message(180));
    m_pLeg->onResponse(101, message(200, s_strSdp));
    EXPECT_EQ(m_pLeg->state(), ELegState::Answered);
    EXPECT_THAT(m_vDone, ElementsAre("INVITE", "ACK"));
    EXPECT_THAT(m_vEvents, ElementsAre("progress", "answered"));
}

TEST_F(Leg, AnswerWithoutMediaIsEnded)
{
    goesOut();
    m_pLeg->onResponse(101, message(200));
    EXPECT_THAT(m_vDone, ElementsAre("INVITE", "ACK", "BYE"));
    EXPECT_THAT(m_vEvents, ElementsAre("ended:failed"));
}

TEST_F(Leg, AnswerThatCrossesTheCancelIsAcknowledgedAndEnded)
{
    goesOut();
    m_pLeg->hangUp("local");
    EXPECT_EQ(m_pLeg->state(), ELegState::Cancelling);
    m_pLeg->onResponse(101, message(200, s_strSdp));
    EXPECT_THAT(m_vDone, ElementsAre("INVITE", "CANCEL", "ACK", "BYE"));
    EXPECT_THAT(m_vEvents, ElementsAre("ended:local"));
}

TEST_F(Leg, OfferOfThePeerIsRefusedWhileOursIsOut)
{
    answered();
    EXPECT_TRUE(app(ELegEvent::Hold));
    EXPECT_EQ(m_pLeg->state(), ELegState::Reoffering);
    m_pLeg->onRequest(9, message(0, s_strSdp));
    EXPECT_THAT(m_vDone, ElementsAre("re-INVITE", "491"));
    EXPECT_EQ(m_pLeg->state(), ELegState::Reoffering);
}

TEST_F(Leg, OfferThatWasRefusedByGlareIsMadeAgain)
{
    answered();
    app(ELegEvent::Hold);
    m_pLeg->onResponse(101, message(491));
    EXPECT_EQ(m_pLeg->state(), ELegState::Answered);
    EXPECT_TRUE(waitFor([this] { return m_pLeg->state() == ELegState::Reoffering; }));
    EXPECT_THAT(m_vDone, ElementsAre("re-INVITE", "re-INVITE"));
}

TEST_F(Leg, HoldWaitsUntilThePeersOfferIsDone)
{
    answered();
    m_pLeg->onRequest(9, message(0, s_strSdp));
    EXPECT_EQ(m_pLeg->state(), ELegState::Reoffered);
    EXPECT_TRUE(app(ELegEvent::Hold));
    EXPECT_THAT(m_vDone, ElementsAre("200"));
    m_pLeg->onAck(9, message());
    EXPECT_THAT(m_vDone, ElementsAre("200", "re-INVITE"));
}

TEST_F(Leg, SecondOfferBeforeTheAckIsPutOff)
{
    answered();
    m_pLeg->onRequest(9, message(0, s_strSdp));
    m_pLeg->onRequest(10, message(0, s_strSdp));
    EXPECT_THAT(m_vDone, ElementsAre("200", "500"));
}

TEST_F(Leg, OfferWithNothingInCommonLeavesTheCall)
{
    answered();
    m_pLeg->onRequest(9, message(0, "v=0\r\no=- 1 1 IN IP4 192.0.2.9\r\ns=-\r\nc=IN IP4 192.0.2.9\r\nt=0 0\r\n"
                                    "m=audio 4000 RTP/AVP 3\r\n"));
    EXPECT_THAT(m_vDone, ElementsAre("488"));
    EXPECT_EQ(m_pLeg->state(), ELegState::Answered);
}

TEST_F(Leg, DialogThatIsUnknownToThePeerIsOver)
{
    answered();
    app(ELegEvent::Hold);
    m_pLeg->onResponse(101, message(481));
    EXPECT_THAT(m_vEvents, ElementsAre("ended:failed"));
}

TEST_F(Leg, LostDriverEndsIt)
{
    answered();
    m_pLeg->onDriverLost();
    EXPECT_THAT(m_vDone, ElementsAre("BYE"));
    EXPECT_THAT(m_vEvents, ElementsAre("ended:driver-lost"));
}

TEST_F(Leg, SessionTimerThatThePeerLetsRunOutEndsIt)
{
    CSipMessage invite = message(0, s_strSdp);
    invite.m_bTimerSupported = true;
    invite.m_sessionExpires = {1, "uac"};
    m_policy.m_uMinimumExpires = 1;
    m_pLeg->begin(std::make_unique<CFakeDialog>(m_vDone), s_ullInvite, invite);
    app(ELegEvent::Answer);
    m_pLeg->onAck(s_ullInvite, message());
    EXPECT_TRUE(waitFor([this] { return m_pLeg->isOver(); }));
    EXPECT_THAT(m_vEvents, ElementsAre("answered", "ended:timer"));
}

TEST_F(Leg, SessionTimerIsRefreshedByUsWhenThatWasAgreedOn)
{
    CSipMessage invite = message(0, s_strSdp);
    invite.m_bTimerSupported = true;
    invite.m_bUpdateAllowed = true;
    invite.m_sessionExpires = {2, "uas"};
    m_policy.m_uMinimumExpires = 1;
    m_pLeg->begin(std::make_unique<CFakeDialog>(m_vDone), s_ullInvite, invite);
    app(ELegEvent::Answer);
    m_pLeg->onAck(s_ullInvite, message());
    EXPECT_TRUE(waitFor([this] { return m_vDone.back() == "UPDATE"; }));
    EXPECT_FALSE(m_pLeg->isOver());
}
