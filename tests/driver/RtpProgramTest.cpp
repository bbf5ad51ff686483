// The driver as a program with an RTP channel, against GStreamer.
#include "GStreamerPeer.h"
#include "ProgramSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

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
