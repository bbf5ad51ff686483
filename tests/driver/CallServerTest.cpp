// The call socket: programs make, change and end the sessions of calls, and get their events.
#include "CallServerFixture.h"

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
class CallServer : public CCallServerFixture
{
protected:
    std::vector<std::string> eventNames(CCallClient& client)
    {
        std::vector<std::string> vNames;
        for (const json& event : client.takeEvents())
            vNames.push_back(event["event"]);
        return vNames;
    }
};
} // namespace

TEST_F(CallServer, SaysWhoItIs)
{
    EXPECT_EQ(client().m_hello["hello"], "zelmedia-driver");
    EXPECT_EQ(client().m_hello["protocol"], 1);
    EXPECT_THAT(client().m_hello["abilities"], testing::IsSupersetOf({"pcmu", "pcma", "dtmf"}));
}

TEST_F(CallServer, WantsToKnowWhomItServes)
{
    const CFarEnd far;
    EXPECT_EQ(client().codeOf({{"request", "create"}, {"call", "a"}, {"leg", 1}}), "not-attached");
    EXPECT_EQ(client().codeOf({{"request", "list"}}), "ok");
    client().attach();
    EXPECT_EQ(client().codeOf({{"request", "create"}, {"call", "a"}, {"leg", 1}}), "ok");
    EXPECT_EQ(client().codeOf({{"request", "attach"}, {"owner", "somebody else"}}), "wrong-state");
}

TEST_F(CallServer, RefusesWhatItDoesNotUnderstand)
{
    client().attach();
    EXPECT_EQ(client().codeOf({{"request", "dance"}}), "unknown-request");
    const json wrong = json::parse(R"([
        {}, {"call":""}, {"call":"12345678901234567890123456789012"}, {"call":7}, {"leg":-1}, {"leg":4294967296},
        {"colour":"red"}, {"remote":"nowhere"}, {"remote":"127.0.0.1:0"}, {"local":"example.org"}, {"receive":[]},
        {"receive":[7]}, {"receive":[{"name":"PCMU","payload":128,"rate":8000}]},
        {"receive":[{"name":"MP3","payload":7,"rate":8000}]}, {"receive":[{"name":"PCMU","payload":0,"rate":16000}]},
        {"receive":[{"name":"PCMU","payload":0,"rate":8000},{"name":"PCMA","payload":0,"rate":8000}]},
        {"send":{"name":"telephone-event","payload":101,"rate":8000}}, {"send":7}, {"ptime":5}, {"ptime":25},
        {"ptime":70}, {"direction":"sideways"}, {"interrupt_digits":"x"}, {"no_media_s":-1}, {"send_digits":128}
    ])");
    for (const json& fields : wrong)
    {
        nlohmann::ordered_json request = {{"request", "create"}};
        if (!fields.empty())
            request.update({{"call", "a"}, {"leg", 1}});
        request.update(nlohmann::ordered_json(fields));
        EXPECT_EQ(client().codeOf(request), "bad-request") << fields;
    }
    EXPECT_EQ(m_server.count(), 0U);
    EXPECT_EQ(client().codeOf({{"request", "digits"}, {"call", "a"}, {"leg", 1}, {"digits", "1"}}), "no-such-call");
    EXPECT_EQ(client().codeOf({{"request", "end"}, {"call", "a"}, {"leg", 1}}), "no-such-call");
}

TEST_F(CallServer, SessionReceivesAtAnEvenPortOfItsOwn)
{
    const CFarEnd far;
    client().attach();
    const CNetAddress first = create("a", far);
    const CNetAddress second = create("b", far);
    EXPECT_EQ(first.port() % 2, 0);
    EXPECT_GE(first.port(), FIRST_PORT);
    EXPECT_NE(first.port(), second.port());
    EXPECT_EQ(client().codeOf({{"request", "create"}, {"call", "a"}, {"leg", 1}}), "exists");
}

TEST_F(CallServer, PortsAreNotUsedAgainForFiveSeconds)
{
    const CFarEnd far;
    client().attach();
    for (const char* pCall : {"a", "b", "c", "d", "e"})
        create(pCall, far);
    EXPECT_EQ(client().codeOf({{"request", "create"}, {"call", "f"}, {"leg", 1}}), "full");
    EXPECT_EQ(client().codeOf({{"request", "end"}, {"call", "b"}, {"leg", 1}}), "ok");
    m_clock.m_now += std::chrono::milliseconds(4999);
    EXPECT_EQ(client().codeOf({{"request", "create"}, {"call", "f"}, {"leg", 1}}), "full");
    m_clock.m_now += std::chrono::milliseconds(1);
    EXPECT_EQ(client().codeOf({{"request", "create"}, {"call", "f"}, {"leg", 1}}), "ok");
}

TEST_F(CallServer, PortsOfOthersArePassedOver)
{
    const CFarEnd far;
    std::string strError;
    const CFd fdTaken = bindUdp(ours(FIRST_PORT + 1), strError);
    ASSERT_TRUE(fdTaken.isOpen()) << strError;
    client().attach();
    EXPECT_EQ(create("a", far).port(), FIRST_PORT + 2);
}

TEST_F(CallServer, SendsAlwaysAndWhatAStreamPlaysTakesTheSilencesPlace)
{
    const CFarEnd far;
    client().attach();
    create("a", far);
    ticks(3);
    auto pChannel = openChannel("a");
    ASSERT_TRUE(pChannel) << m_strChannelError;
    runTick(m_ports, [&] { EXPECT_EQ(pChannel->hear(CBytes(160, 5)), 160U); });
    pChannel.reset();
    ticks(1);
    const auto vPackets = far.receivePackets();
    ASSERT_EQ(vPackets.size(), 5U);
    EXPECT_EQ(vPackets[2].m_payload, CBytes(160, 0xFF));
    EXPECT_EQ(vPackets[3].m_payload, CBytes(160, 5));
    EXPECT_EQ(vPackets[4].m_payload, CBytes(160, 0xFF));
    EXPECT_EQ(vPackets[4].m_header.m_nTimestamp - vPackets[0].m_header.m_nTimestamp, 640U);
}

TEST_F(CallServer, StreamsComeAndGoOneAtATime)
{
    const CFarEnd far;
    client().attach();
    create("a", far);
    EXPECT_FALSE(openChannel("b"));
    EXPECT_FALSE(openChannel("a", 2));
    auto pChannel = openChannel("a");
    ASSERT_TRUE(pChannel);
    EXPECT_FALSE(openChannel("a"));
    EXPECT_THAT(m_strChannelError, HasSubstr("another stream is open on call a, leg 1"));
    EXPECT_EQ(get("a")["stream"], true);
    pChannel.reset();
    EXPECT_EQ(get("a")["stream"], false);
    EXPECT_TRUE(openChannel("a"));
}

TEST_F(CallServer, StreamListensToTheFarEnd)
{
    const CFarEnd far;
    client().attach();
    const CNetAddress local = create("a", far);
    const auto pChannel = openChannel("a");
    pChannel->beginListening([](bool bOk, const std::string&) { EXPECT_TRUE(bOk); });
    for (int n = 0; n < 3; ++n)
        say(far, local, static_cast<uint8_t>(n + 1));
    CBytes samples(160);
    for (int n = 0; n < 3; ++n)
    {
        say(far, local);
        pChannel->listen(samples);
        EXPECT_EQ(samples, CBytes(160, static_cast<uint8_t>(n + 1)));
    }
}

TEST_F(CallServer, EndOfASessionHangsItsStreamsUpAndFreesNothingThatIsInUse)
{
    const CFarEnd far;
    client().attach();
    create("a", far);
    const auto pChannel = openChannel("a");
    EXPECT_EQ(client().codeOf({{"request", "end"}, {"call", "a"}, {"leg", 1}, {"reason", "gone"}}), "ok");
    EXPECT_THAT(m_vHangUps, ElementsAre("a/1"));
    const auto vEvents = client().takeEvents();
    ASSERT_EQ(vEvents.size(), 1U);
    EXPECT_EQ(vEvents[0]["event"], "ended");
    EXPECT_EQ(vEvents[0]["reason"], "gone");
    EXPECT_EQ(vEvents[0]["number"], 1);
    EXPECT_EQ(pChannel->hear(CBytes(160, 1)), 160U);
    CBytes samples(160);
    EXPECT_EQ(pChannel->listen(samples), 160U);
    EXPECT_EQ(samples, CBytes(160, 0xFF));
    ticks(2);
    EXPECT_EQ(far.receivePackets().size(), 0U);
    EXPECT_EQ(m_ports.count(), 0U);
}

TEST_F(CallServer, HangUpReachesTheStreamsAndLeavesTheSession)
{
    const CFarEnd far;
    client().attach();
    create("a", far);
    EXPECT_EQ(client().codeOf({{"request", "hangup"}, {"call", "a"}}), "ok");
    EXPECT_EQ(client().codeOf({{"request", "hangup"}, {"call", "a"}, {"leg", 1}}), "ok");
    EXPECT_THAT(m_vHangUps, ElementsAre("a", "a/1"));
    EXPECT_EQ(m_server.count(), 1U);
}

TEST_F(CallServer, MediaFollowsAFarEndThatIsElsewhereAndTellsIt)
{
    const CFarEnd signalled;
    const CFarEnd real;
    const CFarEnd stranger;
    client().attach();
    const CNetAddress local = create("a", signalled);
    ticks(1);
    EXPECT_EQ(signalled.receivePackets().size(), 1U);
    say(real, local);
    say(real, local);
    real.receivePackets();
    signalled.receivePackets();
    ticks(1);
    EXPECT_EQ(real.receivePackets().size(), 1U);
    EXPECT_EQ(signalled.receivePackets().size(), 0U);
    const auto vEvents = client().takeEvents();
    ASSERT_EQ(vEvents.size(), 1U);
    EXPECT_EQ(vEvents[0]["event"], "source");
    EXPECT_EQ(vEvents[0]["address"], real.address().text());
    say(stranger, local);
    say(stranger, local);
    EXPECT_EQ(get("a")["received"]["strangers"], 3);
    EXPECT_EQ(get("a")["remote"], real.address().text());
    EXPECT_THAT(client().takeEvents(), IsEmpty());
}

TEST_F(CallServer, UpdateMovesMediaAndLeavesWhatItDoesNotName)
{
    const CFarEnd before;
    const CFarEnd after;
    client().attach();
    create("a", before);
    ticks(1);
    EXPECT_EQ(client().codeOf({{"request", "update"},
                               {"call", "a"},
                               {"leg", 1},
                               {"remote", after.address().text()},
                               {"send", {{"name", "PCMA"}, {"payload", 8}, {"rate", 8000}}}}),
              "ok");
    ticks(1);
    const auto vPackets = after.receivePackets();
    ASSERT_EQ(vPackets.size(), 1U);
    EXPECT_EQ(vPackets[0].m_header.m_nPayloadType, 8);
    EXPECT_EQ(vPackets[0].m_payload, CBytes(160, 0xD5));
    EXPECT_EQ(before.receivePackets().size(), 1U);
}

TEST_F(CallServer, DirectionSaysWhoIsHeard)
{
    const CFarEnd far;
    client().attach();
    const CNetAddress local = create("a", far, {{"direction", "recvonly"}, {"no_media_s", 1}});
    ticks(60);
    EXPECT_EQ(far.receivePackets().size(), 0U);
    EXPECT_THAT(eventNames(client()), ElementsAre("no_media"));
    const auto turn = [&](const char* pDirection) {
        return client().codeOf({{"request", "update"}, {"call", "a"}, {"leg", 1}, {"direction", pDirection}});
    };
    EXPECT_EQ(turn("sendonly"), "ok");
    ticks(60);
    EXPECT_EQ(far.receivePackets().size(), 60U);
    EXPECT_THAT(client().takeEvents(), IsEmpty()) << "nothing is missed";
    EXPECT_EQ(turn("inactive"), "ok");
    say(far, local);
    EXPECT_EQ(far.receivePackets().size(), 0U);
    EXPECT_EQ(get("a")["received"]["packets"], 0);
    EXPECT_EQ(turn("sendrecv"), "ok");
    say(far, local);
    const auto vPackets = far.receivePackets();
    ASSERT_EQ(vPackets.size(), 1U);
    EXPECT_TRUE(vPackets[0].m_header.m_bMarker);
    EXPECT_EQ(get("a")["received"]["packets"], 1);
    ticks(49);
    EXPECT_THAT(client().takeEvents(), IsEmpty()) << "it counts anew";
}

TEST_F(CallServer, NothingForTooLongIsToldOnceAndThatItComesAgain)
{
    const CFarEnd far;
    client().attach();
    const CNetAddress local = create("a", far, {{"no_media_s", 2}});
    say(far, local);
    ticks(99);
    EXPECT_THAT(client().takeEvents(), IsEmpty());
    ticks(200);
    const auto vEvents = client().takeEvents();
    ASSERT_EQ(vEvents.size(), 1U);
    EXPECT_EQ(vEvents[0]["event"], "no_media");
    EXPECT_EQ(vEvents[0]["seconds"], 2);
    say(far, local);
    EXPECT_THAT(eventNames(client()), ElementsAre("media"));
}

TEST_F(CallServer, KeysAreToldAndEndAPlayInTheSameTick)
{
    const CFarEnd far;
    client().attach();
    const CNetAddress local = create("a", far, {{"interrupt_digits", "5#"}});
    const auto pChannel = openChannel("a");
    say(far, local);
    const auto press = [&](uint8_t nEvent, uint32_t nTimestamp, bool bEnd) {
        far.send(rtpBytes({false, 101, m_nSequence++, nTimestamp, 1},
                          {nEvent, static_cast<uint8_t>(bEnd ? 0x8A : 0x0A), 3, 0x20}),
                 local);
        bool bInterrupted = false;
        runTick(m_ports, [&] { bInterrupted = pChannel->isInterrupted(); });
        return bInterrupted;
    };
    EXPECT_TRUE(press(5, 10000, false));
    EXPECT_FALSE(press(5, 10000, false));
    EXPECT_FALSE(press(5, 10000, true));
    EXPECT_FALSE(press(6, 20000, true));
    const auto vEvents = client().takeEvents();
    ASSERT_EQ(vEvents.size(), 2U);
    EXPECT_EQ(vEvents[0]["digit"], "5");
    EXPECT_EQ(vEvents[0]["ms"], 100);
    EXPECT_EQ(vEvents[1]["digit"], "6");
    EXPECT_EQ(get("a")["received"]["lost"], 0);
}

TEST_F(CallServer, KeysAreSentAndToldWhenTheyAreDone)
{
    const CFarEnd far;
    client().attach();
    create("a", far);
    EXPECT_EQ(client().codeOf({{"request", "digits"}, {"call", "a"}, {"leg", 1}, {"digits", "1"}}), "wrong-state");
    EXPECT_EQ(client().codeOf({{"request", "update"}, {"call", "a"}, {"leg", 1}, {"send_digits", 101}}), "ok");
    EXPECT_EQ(client().codeOf({{"request", "digits"}, {"call", "a"}, {"leg", 1}, {"digits", "1x"}}), "bad-request");
    EXPECT_EQ(client().codeOf({{"request", "digits"}, {"call", "a"}, {"leg", 1}, {"digits", "19"}, {"ms", 60}}), "ok");
    ticks(20);
    EXPECT_THAT(eventNames(client()), ElementsAre("digits_sent"));
    std::string strKeys;
    uint32_t nTimestamp = 0;
    int nLastPackets = 0;
    for (const CFarEnd::CPacket& packet : far.receivePackets())
    {
        if (packet.m_header.m_nPayloadType != 101)
            continue;
        if (packet.m_header.m_nTimestamp != nTimestamp)
            strKeys += static_cast<char>('0' + packet.m_payload[0]);
        nTimestamp = packet.m_header.m_nTimestamp;
        nLastPackets += (packet.m_payload[1] & 0x80) != 0 ? 1 : 0;
    }
    EXPECT_EQ(strKeys, "19");
    EXPECT_EQ(nLastPackets, 6);
}

TEST_F(CallServer, OwnerWhoComesBackHasItsSessionsAndMissesNoEvent)
{
    const CFarEnd far;
    client().attach("sip@n1");
    const CNetAddress local = create("a", far, {{"no_media_s", 1}});
    ticks(60);
    EXPECT_THAT(eventNames(client()), ElementsAre("no_media"));
    client().close();
    say(far, local);
    m_clock.m_now += std::chrono::milliseconds(9999);
    m_server.dropLost();
    CCallClient again(m_server, SOCKET);
    const json answer = again.ask({{"request", "attach"}, {"owner", "sip@n1"}});
    EXPECT_EQ(answer["sessions"], json::parse(R"([{"call":"a","leg":1,"last":2}])"));
    const json events = again.ask({{"request", "events"}, {"call", "a"}, {"leg", 1}, {"after", 1}})["events"];
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0]["event"], "media");
    m_clock.m_now += std::chrono::seconds(60);
    m_server.dropLost();
    EXPECT_EQ(m_server.count(), 1U);
}

TEST_F(CallServer, OwnerWhoStaysAwayLosesItsSessions)
{
    const CFarEnd far;
    client().attach();
    create("a", far);
    create("b", far);
    CCallClient other(m_server, SOCKET);
    other.attach("other");
    EXPECT_EQ(other.codeOf({{"request", "create"}, {"call", "c"}, {"leg", 1}}), "ok");
    client().close();
    m_clock.m_now += std::chrono::seconds(10);
    m_server.dropLost();
    EXPECT_EQ(m_server.count(), 1U);
    EXPECT_THAT(m_vHangUps, ElementsAre("a/1", "b/1"));
}

TEST_F(CallServer, SecondConnectionOfAnOwnerTakesThePlaceOfTheFirst)
{
    client().attach();
    const CFarEnd far;
    create("a", far);
    CCallClient second(m_server, SOCKET);
    second.attach();
    EXPECT_FALSE(client().isConnected());
    EXPECT_EQ(second.codeOf({{"request", "end"}, {"call", "a"}, {"leg", 1}}), "ok");
    EXPECT_EQ(second.takeEvents().size(), 1U);
}

TEST_F(CallServer, SessionsOfOthersAreNotToBeTouched)
{
    const CFarEnd far;
    client().attach();
    create("a", far);
    CCallClient other(m_server, SOCKET);
    other.attach("other");
    for (const char* pRequest : {"update", "end"})
        EXPECT_EQ(other.codeOf({{"request", pRequest}, {"call", "a"}, {"leg", 1}}), "refused");
    EXPECT_EQ(other.codeOf({{"request", "digits"}, {"call", "a"}, {"leg", 1}, {"digits", "1"}}), "refused");
    EXPECT_EQ(other.codeOf({{"request", "events"}, {"call", "a"}, {"leg", 1}, {"after", 0}}), "refused");
    EXPECT_EQ(other.codeOf({{"request", "get"}, {"call", "a"}, {"leg", 1}}), "ok");
    EXPECT_EQ(other.ask({{"request", "list"}})["sessions"].size(), 1U);
}

TEST_F(CallServer, ReportsGoBesideTheMediaAndGoodbyeAtTheEnd)
{
    const CFarEnd far;
    const CFarEnd farReports;
    client().attach();
    const CNetAddress local = create("a", far, {{"rtcp_remote", farReports.address().text()}});
    say(far, local);
    ticks(200);
    const auto report = farReports.receive();
    ASSERT_TRUE(report);
    const auto news = parseRtcp(*report, 1);
    ASSERT_TRUE(news && news->m_aboutUs && news->m_ullTime);
    while (farReports.receive())
        ;
    EXPECT_EQ(client().codeOf({{"request", "end"}, {"call", "a"}, {"leg", 1}}), "ok");
    const auto last = farReports.receive();
    ASSERT_TRUE(last);
    EXPECT_TRUE(parseRtcp(*last, 1)->m_bBye);
}

TEST_F(CallServer, ReportsMayShareThePortOfTheMedia)
{
    const CFarEnd far;
    client().attach();
    const CNetAddress local = create("a", far, {{"rtcp_mux", true}});
    ticks(1);
    const auto packets = far.receivePackets();
    ASSERT_EQ(packets.size(), 1U);
    CRtcpReport theirs;
    theirs.m_nSource = 7;
    theirs.m_block = CRtcpBlock{packets[0].m_header.m_nSource, 0, 3, 0, 80, 0, 0};
    std::array<uint8_t, RTCP_MAX_REPORT> bytes{};
    const size_t nSize = writeRtcp(theirs, bytes);
    far.send({bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(nSize)}, local);
    ticks(1);
    const json rtcp = get("a")["rtcp"];
    EXPECT_EQ(rtcp["received"], 1);
    EXPECT_EQ(rtcp["lost"], 3);
    EXPECT_EQ(rtcp["jitter_ms"], 10.0);
    ticks(200);
    bool bReport = false;
    while (const auto datagram = far.receive())
        bReport |= isRtcp(*datagram);
    EXPECT_TRUE(bReport);
}

TEST_F(CallServer, RubbishAtThePortsOfACallIsCountedAndHarmless)
{
    const CFarEnd far;
    client().attach();
    const CNetAddress local = create("a", far);
    far.send({}, local);
    far.send({1, 2, 3}, local);
    far.send(CBytes(172, 0), local);
    far.send(rtpBytes({}, CBytes(RTP_MAX_DATAGRAM, 1)), local);
    far.send(rtpBytes({false, 77, 1, 1, 1}, CBytes(10, 1)), local);
    far.send({1, 2, 3}, local.withPort(static_cast<uint16_t>(local.port() + 1)));
    ticks(1);
    EXPECT_EQ(get("a")["received"]["malformed"], 5);
    EXPECT_EQ(get("a")["received"]["other_payloads"], 1);
    EXPECT_EQ(get("a")["media"], "waiting");
}

TEST_F(CallServer, SaysGoodbyeOnAllSessionsAtItsEnd)
{
    const CFarEnd far;
    const CFarEnd farReports;
    {
        CRtpPorts ports;
        CCallServer server({ports, nullptr, m_clock, m_disk, [](const auto&, auto) { return size_t{0}; }},
                           {"/tmp/other.sock", ours(), FIRST_PORT + 20, FIRST_PORT + 30});
        std::string strError;
        ASSERT_TRUE(server.open(strError)) << strError;
        CCallClient client(server, "/tmp/other.sock");
        client.attach();
        client.ask({{"request", "create"},
                    {"call", "a"},
                    {"leg", 1},
                    {"remote", far.address().text()},
                    {"rtcp_remote", farReports.address().text()}});
    }
    const auto last = farReports.receive();
    ASSERT_TRUE(last);
    EXPECT_TRUE(parseRtcp(*last, 1)->m_bBye);
}
