// What the sessions of calls do with media: bridges, recordings of whole calls, tones, speech, encryption.
#include "CallServerFixture.h"
#include "G711.h"

#include <sndfile.h>

#include <cmath>

using nlohmann::json;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{
class CallMedia : public CCallServerFixture
{
protected:
    CallMedia() { client().attach(); }

    std::string ask(const std::string& strRequest, const std::string& strCall,
                    nlohmann::ordered_json more = nlohmann::ordered_json::object())
    {
        nlohmann::ordered_json request = {{"request", strRequest}, {"call", strCall}, {"leg", 1}};
        request.update(more);
        return client().codeOf(request);
    }
    static uint8_t lastByte(const CFarEnd& far)
    {
        const auto vPackets = far.receivePackets();
        return vPackets.empty() || vPackets.back().m_payload.empty() ? 0 : vPackets.back().m_payload.back();
    }
    void sayTo(const CFarEnd& far, const CNetAddress& local, uint8_t nPayload, uint8_t nSample)
    {
        const uint16_t nSequence = m_mapSequences[local.port()]++;
        far.send(rtpBytes({false, nPayload, nSequence, nSequence * 160U, 3}, CBytes(160, nSample)), local);
    }

    std::map<uint16_t, uint16_t> m_mapSequences; // by the port that they go to
};

// What a stereo file holds, side by side.
std::pair<CBytes, CBytes> readStereo(const char* pPath)
{
    SF_INFO info = {};
    SNDFILE* pFile = sf_open(pPath, SFM_READ, &info);
    EXPECT_NE(pFile, nullptr);
    EXPECT_EQ(info.channels, 2);
    EXPECT_EQ(info.samplerate, 8000);
    CBytes both(static_cast<size_t>(info.frames) * 2);
    EXPECT_EQ(sf_read_raw(pFile, both.data(), static_cast<sf_count_t>(both.size())),
              static_cast<sf_count_t>(both.size()));
    sf_close(pFile);
    std::pair<CBytes, CBytes> sides;
    for (size_t n = 0; n + 1 < both.size(); n += 2)
    {
        sides.first.push_back(both[n]);
        sides.second.push_back(both[n + 1]);
    }
    return sides;
}

CBytes tone(double dLow, double dHigh, size_t nSamples)
{
    CBytes samples;
    for (size_t n = 0; n < nSamples; ++n)
    {
        const double dTime = static_cast<double>(n) / 8000 * 2 * M_PI;
        samples.push_back(encodeULaw(static_cast<int16_t>(6000 * (std::sin(dLow * dTime) + std::sin(dHigh * dTime)))));
    }
    return samples;
}
} // namespace

TEST_F(CallMedia, BridgedLegsHearEachOtherInTheirOwnCodecsAndNoLongerAfterwards)
{
    const CFarEnd farA;
    const CFarEnd farB;
    const CNetAddress localA = create("a", farA);
    const CNetAddress localB = create("b", farB, {{"send", {{"name", "PCMA"}, {"payload", 8}, {"rate", 8000}}}});
    EXPECT_EQ(ask("bridge", "a", {{"other_call", "b"}, {"other_leg", 1}}), "ok");
    EXPECT_EQ(ask("bridge", "b", {{"other_call", "a"}, {"other_leg", 1}}), "wrong-state");
    for (int n = 0; n < 10; ++n)
    {
        sayTo(farA, localA, 0, 0x21);
        sayTo(farB, localB, 8, uLawToALaw()[0x31]);
        ticks(1);
    }
    EXPECT_EQ(lastByte(farA), aLawToULaw()[uLawToALaw()[0x31]]);
    EXPECT_EQ(lastByte(farB), uLawToALaw()[0x21]);

    // What is played to one is heard by it alone.
    const auto pChannel = openChannel("a");
    sayTo(farA, localA, 0, 0x21);
    runTick(m_ports, [&] { pChannel->hear(CBytes(160, 0x41)); });
    EXPECT_EQ(lastByte(farA), 0x41);
    EXPECT_EQ(lastByte(farB), uLawToALaw()[0x21]);

    EXPECT_EQ(ask("unbridge", "b"), "ok");
    EXPECT_EQ(ask("unbridge", "a"), "wrong-state");
    sayTo(farA, localA, 0, 0x21);
    ticks(1);
    EXPECT_EQ(lastByte(farB), 0xD5);
    std::vector<std::string> vEvents;
    for (const json& event : client().takeEvents())
        vEvents.push_back(event["event"].get<std::string>() + " " + event["call"].get<std::string>());
    EXPECT_THAT(vEvents, ElementsAre("bridged a", "bridged b", "unbridged b", "unbridged a"));
}

TEST_F(CallMedia, EndOfOneLegUndoesItsBridge)
{
    const CFarEnd farA;
    const CFarEnd farB;
    create("a", farA);
    create("b", farB);
    EXPECT_EQ(ask("bridge", "a", {{"other_call", "a"}, {"other_leg", 1}}), "wrong-state");
    EXPECT_EQ(ask("bridge", "a", {{"other_call", "c"}, {"other_leg", 1}}), "no-such-call");
    EXPECT_EQ(ask("bridge", "a", {{"other_call", "b"}, {"other_leg", 1}}), "ok");
    EXPECT_EQ(ask("end", "a"), "ok");
    ticks(3);
    EXPECT_FALSE(get("b").contains("bridged"));
    EXPECT_EQ(lastByte(farB), 0xFF);
    EXPECT_EQ(ask("unbridge", "b"), "wrong-state");
}

TEST_F(CallMedia, RecordingHasBothSidesInTheirTime)
{
    const CFarEnd far;
    const CNetAddress local = create("a", far,
                                     {{"receive",
                                       {{{"name", "PCMU"}, {"payload", 0}, {"rate", 8000}},
                                        {{"name", "telephone-event"}, {"payload", 101}, {"rate", 8000}}}}});
    EXPECT_EQ(ask("record", "a", {{"file", "/tmp/call.mp3"}}), "bad-request");
    EXPECT_EQ(ask("record", "a", {{"file", "/tmp/call.wav"}}), "ok");
    ticks(2); // while the file is opened
    m_disk.runAll();
    const auto pChannel = openChannel("a");
    for (uint8_t n = 0; n < 10; ++n)
    {
        sayTo(far, local, 0, static_cast<uint8_t>(0x20 + n));
        runTick(m_ports, [&] {
            if (n % 2 == 0)
                pChannel->hear(CBytes(160, static_cast<uint8_t>(0x60 + n)));
        });
    }
    m_disk.runAll();
    EXPECT_EQ(ask("record", "a", {{"file", ""}}), "ok");
    m_disk.runAll();
    const auto vEvents = client().takeEvents();
    ASSERT_EQ(vEvents.size(), 1U);
    EXPECT_EQ(vEvents[0]["event"], "recorded");
    EXPECT_EQ(vEvents[0]["ok"], true);
    EXPECT_EQ(vEvents[0]["samples"], 12 * 160);
    const auto [said, heard] = readStereo("/tmp/call.wav");
    ASSERT_EQ(said.size(), 12 * 160U);
    for (size_t n = 0; n < 12; ++n)
    {
        EXPECT_EQ(heard[160 * n], n >= 2 && n % 2 == 0 ? 0x60 + n - 2 : 0xFF) << n;
        EXPECT_EQ(said[160 * n], n >= 5 ? 0x20 + n - 5 : 0xFF) << n; // later by the jitter time
    }
}

TEST_F(CallMedia, RecordingIsWholeBeforeTheSessionsEndIsTold)
{
    const CFarEnd far;
    create("a", far);
    EXPECT_EQ(ask("record", "a", {{"file", "/tmp/end.wav"}}), "ok");
    m_disk.runAll();
    ticks(5);
    EXPECT_EQ(ask("end", "a"), "ok");
    EXPECT_THAT(client().takeEvents(), IsEmpty());
    m_disk.runAll();
    const auto vEvents = client().takeEvents();
    ASSERT_EQ(vEvents.size(), 2U);
    EXPECT_EQ(vEvents[0]["event"], "recorded");
    EXPECT_EQ(vEvents[1]["event"], "ended");
    EXPECT_EQ(readStereo("/tmp/end.wav").first.size(), 5 * 160U);
}

TEST_F(CallMedia, RecordingThatCannotBeWrittenIsToldAndTheSessionGoesOn)
{
    const CFarEnd far;
    create("a", far);
    EXPECT_EQ(ask("record", "a", {{"file", "/nowhere/call.wav"}}), "ok");
    m_disk.runAll();
    auto vEvents = client().takeEvents();
    ASSERT_EQ(vEvents.size(), 1U);
    EXPECT_EQ(vEvents[0]["ok"], false);
    ticks(2);
    EXPECT_EQ(ask("end", "a"), "ok");
    vEvents = client().takeEvents();
    ASSERT_EQ(vEvents.size(), 1U);
    EXPECT_EQ(vEvents[0]["event"], "ended");
}

TEST_F(CallMedia, LastSecondButOneIsInTheFileWhateverBecomesOfUs)
{
    const CFarEnd far;
    create("a", far);
    EXPECT_EQ(ask("record", "a", {{"file", "/tmp/crash.wav"}}), "ok");
    m_disk.runAll();
    for (int n = 0; n < 200; ++n)
    {
        ticks(1);
        m_disk.runAll();
    }
    EXPECT_GE(readStereo("/tmp/crash.wav").first.size(), 150 * 160U);
}

TEST_F(CallMedia, TonesAreKeysWhereNoEventsWereAgreed)
{
    const CFarEnd far;
    const CNetAddress local = create(
        "a", far, {{"receive", {{{"name", "PCMU"}, {"payload", 0}, {"rate", 8000}}}}, {"interrupt_digits", "5"}});
    const auto pChannel = openChannel("a");
    const CBytes five = tone(770, 1336, 800) + CBytes(1600, 0xFF);
    bool bInterrupted = false;
    for (size_t n = 0; n + 160 <= five.size(); n += 160)
    {
        const uint16_t nSequence = m_nSequence++;
        far.send(rtpBytes({false, 0, nSequence, nSequence * 160U, 3},
                          {five.begin() + static_cast<ptrdiff_t>(n), five.begin() + static_cast<ptrdiff_t>(n + 160)}),
                 local);
        runTick(m_ports, [&] { bInterrupted |= pChannel->isInterrupted(); });
    }
    EXPECT_TRUE(bInterrupted);
    const auto vEvents = client().takeEvents();
    ASSERT_EQ(vEvents.size(), 1U);
    EXPECT_EQ(vEvents[0]["digit"], "5");
}

TEST_F(CallMedia, TonesAreNoKeysWhereEventsWereAgreed)
{
    const CFarEnd far;
    const CNetAddress local = create("a", far);
    const CBytes five = tone(770, 1336, 1600);
    for (size_t n = 0; n + 160 <= five.size(); n += 160)
    {
        const uint16_t nSequence = m_nSequence++;
        far.send(rtpBytes({false, 0, nSequence, nSequence * 160U, 3},
                          {five.begin() + static_cast<ptrdiff_t>(n), five.begin() + static_cast<ptrdiff_t>(n + 160)}),
                 local);
        ticks(1);
    }
    ticks(10);
    EXPECT_THAT(client().takeEvents(), IsEmpty());
}

TEST_F(CallMedia, EncryptedSessionTakesAndSendsNothingElse)
{
    const std::string strOurs = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwd";
    const std::string strTheirs = "HRwbGhkYFxYVFBMSERAPDg0MCwoJCAcGBQQDAgEA";
    const CFarEnd far;
    EXPECT_EQ(ask("create", "x", {{"srtp", {{"suite", "NONE"}, {"send", strOurs}, {"receive", strTheirs}}}}),
              "bad-request");
    EXPECT_EQ(ask("create", "x",
                  {{"srtp", {{"suite", "AES_CM_128_HMAC_SHA1_80"}, {"send", "AA=="}, {"receive", strTheirs}}}}),
              "bad-request");
    const CNetAddress local =
        create("a", far, {{"srtp", {{"suite", "AES_CM_128_HMAC_SHA1_80"}, {"send", strOurs}, {"receive", strTheirs}}}});
    CSrtpKeys keys;
    keys.m_strSuite = "AES_CM_128_HMAC_SHA1_80";
    for (uint8_t n = 0; n < 30; ++n)
    {
        keys.m_vReceive.push_back(n); // the far end's view
        keys.m_vSend.push_back(static_cast<uint8_t>(29 - n));
    }
    std::string strError;
    const auto pTheirs = CSrtp::create(keys, strError);
    ASSERT_TRUE(pTheirs) << strError;
    const auto pChannel = openChannel("a");
    pChannel->beginListening([](bool bOk, const std::string&) { EXPECT_TRUE(bOk); });
    for (uint16_t n = 0; n < 6; ++n)
    {
        alignas(SRTP_ALIGNMENT) std::array<uint8_t, 512> abBuffer{};
        const CBytes plain = rtpBytes({false, 0, n, n * 160U, 9}, CBytes(160, 0x2A));
        std::copy(plain.begin(), plain.end(), abBuffer.begin());
        const size_t nSize = pTheirs->protect(abBuffer, plain.size());
        ASSERT_GT(nSize, plain.size());
        far.send({abBuffer.begin(), abBuffer.begin() + static_cast<ptrdiff_t>(nSize)}, local);
        far.send(plain, local); // not with the key
        ticks(1);
    }
    CBytes samples(160);
    pChannel->listen(samples);
    EXPECT_EQ(samples, CBytes(160, 0x2A));
    EXPECT_EQ(get("a")["received"]["packets"], 6);
    EXPECT_EQ(get("a")["received"]["malformed"], 6);

    const auto sent = far.receive();
    ASSERT_TRUE(sent);
    alignas(SRTP_ALIGNMENT) std::array<uint8_t, 512> abBuffer{};
    std::copy(sent->begin(), sent->end(), abBuffer.begin());
    const size_t nSize = pTheirs->unprotect(std::span(abBuffer).first(sent->size()));
    ASSERT_EQ(nSize, 172U);
    EXPECT_EQ(abBuffer[171], 0xFF);
}

TEST_F(CallMedia, ComfortNoiseIsSilenceAndNoLoss)
{
    const CFarEnd far;
    const CNetAddress local = create("a", far, {{"comfort_noise", 13}});
    say(far, local);
    far.send(rtpBytes({false, 13, m_nSequence, m_nSequence * 160U, 1}, {70}), local);
    ++m_nSequence;
    ticks(1);
    say(far, local);
    EXPECT_EQ(get("a")["received"]["other_payloads"], 0);
    EXPECT_EQ(get("a")["received"]["lost"], 0);
    EXPECT_EQ(get("a")["received"]["packets"], 2);
}

TEST_F(CallMedia, WidebandCodecsAreTakenAndSent)
{
    const CFarEnd far;
    EXPECT_EQ(ask("create", "x", {{"receive", {{{"name", "opus"}, {"payload", 96}, {"rate", 48000}}}}, {"ptime", 30}}),
              "bad-request");
    create("a", far, {{"receive", {{{"name", "opus"}, {"payload", 96}, {"rate", 48000}}}}});
    create("b", far, {{"receive", {{{"name", "G722"}, {"payload", 9}, {"rate", 8000}}}}});
    ticks(2);
    std::map<uint8_t, std::vector<uint32_t>> mapTimes;
    for (const CFarEnd::CPacket& packet : far.receivePackets())
        mapTimes[packet.m_header.m_nPayloadType].push_back(packet.m_header.m_nTimestamp);
    ASSERT_EQ(mapTimes[96].size(), 2U);
    ASSERT_EQ(mapTimes[9].size(), 2U);
    EXPECT_EQ(mapTimes[96][1] - mapTimes[96][0], 960U);
    EXPECT_EQ(mapTimes[9][1] - mapTimes[9][0], 160U);
}
