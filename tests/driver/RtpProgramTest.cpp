// The driver as a program with an RTP channel: against GStreamer, and when it is stopped for a while.
#include "GStreamerPeer.h"
#include "ProgramSupport.h"
#include "RtpTestSupport.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>
#include <utility>
#include <vector>

TEST(RtpProgram, LetsAPeerHearEverySampleOfAFile)
{
    CPipeline receiver("udpsrc address=127.0.0.1 port=0 caps=application/x-rtp,media=audio,clock-rate=8000,"
                       "encoding-name=PCMU ! rtpjitterbuffer ! rtppcmudepay ! filesink buffer-mode=unbuffered "
                       "location=/tmp/received");
    const std::string strRemote = receiver.waitAddress().text();
    ASSERT_FALSE(testing::Test::HasFailure());
    std::ofstream("/tmp/channels.json") << R"({"channels": [{"call": "talk", "type": "rtp", "local": ")"
                                        << CFarEnd().address().text() << R"(", "remote": ")" << strRemote << R"("}]})";
    const CBytes speech = ::speech(16000);
    std::ofstream("/tmp/speech.ul", std::ios::binary)
        .write(reinterpret_cast<const char*>(speech.data()), static_cast<std::streamsize>(speech.size()));

    CDriverProgram driver({"--channels", "/tmp/channels.json", "--log", "/tmp/log"});
    ASSERT_TRUE(driver.waitReady());
    CRawClient client;
    ASSERT_TRUE(client.connect());
    const int nStreamID = client.openStream("talk", 1);
    EXPECT_TRUE(client.playFile(nStreamID, "/tmp/speech.ul"));
    const uint32_t nSequenceNo = client.sequence();
    const auto evt = client.waitEvent();
    ASSERT_TRUE(evt);
    EXPECT_EQ(evt->nSequenceID, nSequenceNo);
    EXPECT_EQ(evt->s_mcstatus, 0);

    std::error_code error;
    const auto end = std::chrono::steady_clock::now() + PEER_DEADLINE;
    while (std::filesystem::file_size("/tmp/received", error) < speech.size() && receiver.isRunning() &&
           std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    receiver.finish();
    EXPECT_TRUE(readFile("/tmp/received") == speech);
}

TEST(RtpProgram, SkipsWhatItMissedWhileItWasStopped)
{
    constexpr std::chrono::milliseconds STOPPED(800);
    constexpr std::chrono::milliseconds CATCH_UP(100 + 2 * 20); // a tick at either end
    constexpr size_t PACKETS = 60;
    const CFarEnd farEnd;
    std::ofstream("/tmp/channels.json") << R"({"channels": [{"call": "talk", "type": "rtp", "local": ")"
                                        << CFarEnd().address().text() << R"(", "remote": ")" << farEnd.address().text()
                                        << R"("}]})";
    std::ofstream("/tmp/sound.ul", std::ios::binary) << std::string(PACKETS * RTP_SAMPLES, 'x');
    CDriverProgram driver({"--channels", "/tmp/channels.json", "--log", "/tmp/log"});
    ASSERT_TRUE(driver.waitReady());
    CRawClient client;
    ASSERT_TRUE(client.connect());
    ASSERT_TRUE(client.playFile(client.openStream("talk", 1), "/tmp/sound.ul"));

    std::vector<CFarEnd::CPacket> vPackets;
    const auto receive = [&] {
        for (auto& packet : farEnd.receivePackets())
            vPackets.push_back(std::move(packet));
    };
    for (const auto end = std::chrono::steady_clock::now() + PEER_DEADLINE;
         vPackets.size() < 5 && std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        receive();
    driver.signal(SIGSTOP);
    siginfo_t stopped;
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(driver.processID()), &stopped, WSTOPPED | WNOWAIT), 0);
    std::this_thread::sleep_for(STOPPED);
    driver.signal(SIGCONT);
    ASSERT_TRUE(client.waitEvent());
    receive();

    ASSERT_EQ(vPackets.size(), PACKETS);
    uint32_t nLargestStep = 0;
    for (size_t n = 1; n < vPackets.size(); ++n)
    {
        const CRtpHeader& header = vPackets[n].m_header;
        EXPECT_EQ(header.m_nSequence, static_cast<uint16_t>(vPackets[n - 1].m_header.m_nSequence + 1));
        nLargestStep = std::max(nLargestStep, header.m_nTimestamp - vPackets[n - 1].m_header.m_nTimestamp);
    }
    EXPECT_GE(nLargestStep, static_cast<uint32_t>((STOPPED - CATCH_UP).count() * 8));
}
