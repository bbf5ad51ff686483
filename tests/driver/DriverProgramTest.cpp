// The driver program end to end: real FIFOs, real files, its start, and its end.
#include "DriverTestSupport.h"
#include "ProgramSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>

using testing::HasSubstr;

namespace
{
class DriverProgram : public testing::Test
{
protected:
    DriverProgram()
    {
        ::unlink(MI_REQUEST_PIPE);
        ::unlink(MI_REQUEST_PIPE ".lock");
        writeULaw(m_folder.path("clip.wav"), SF_FORMAT_WAV, m_clip);
        writeULaw(m_folder.path("call.in.wav"), SF_FORMAT_WAV, m_said);
    }

    std::vector<std::string> arguments(const std::string& strSpeed = "max") const
    {
        return {"--audio", m_folder.folder(), "--speed", strSpeed, "--log", m_folder.path("log")};
    }

    void expectDone(CRawClient& client, int nStreamID, uint32_t nSequenceNo, int nStatus)
    {
        const auto evt = client.waitEvent();
        ASSERT_TRUE(evt);
        EXPECT_EQ(*evt, (structMIEVT{MIEVT_DONE, nStreamID, nSequenceNo, nStatus}));
    }

    static bool exists(const char* pPath) { return ::access(pPath, F_OK) == 0; }

    const CSamples m_clip = noise(3200, 1);
    const CSamples m_said = noise(30000, 2);
    CTempFolder m_folder;
};
} // namespace

TEST_F(DriverProgram, PlaysAndRecordsSampleBySampleAtFullSpeed)
{
    CDriverProgram driver(arguments());
    ASSERT_TRUE(driver.waitReady());
    CRawClient client;
    ASSERT_TRUE(client.connect());
    const int nFileID = client.openFile(m_folder.path("clip.wav"));
    const int nStreamID = client.openStream("call", 3);
    ASSERT_GT(nFileID, 0);
    ASSERT_GT(nStreamID, 0);

    ASSERT_TRUE(client.playClip(nStreamID, nFileID, 1000, 500));
    expectDone(client, nStreamID, client.sequence(), 0);
    ASSERT_TRUE(client.playFile(nStreamID, m_folder.path("clip.wav")));
    expectDone(client, nStreamID, client.sequence(), 0);
    EXPECT_EQ(readULawWav(m_folder.path("call-3.heard.wav")), slice(m_clip, 1000, 1500) + m_clip);

    ASSERT_TRUE(client.recordFile(nStreamID, m_folder.path("msg.wav"), 24000));
    expectDone(client, nStreamID, client.sequence(), 0);
    EXPECT_EQ(readULawWav(m_folder.path("msg.wav")), slice(m_said, 0, 24000));

    EXPECT_TRUE(client.request(command(MICMD_DISCONNECT, 0, 0)));
    driver.signal(SIGTERM);
    EXPECT_EQ(driver.waitExit(), 0);
}

TEST_F(DriverProgram, PlaysNoFasterThanRealTimeByDefault)
{
    CDriverProgram driver(arguments("realtime"));
    ASSERT_TRUE(driver.waitReady());
    CRawClient client;
    ASSERT_TRUE(client.connect());
    const int nStreamID = client.openStream("call", 1);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(client.playFile(nStreamID, m_folder.path("clip.wav")));
    expectDone(client, nStreamID, client.sequence(), 0);
    // 400 ms of audio, less the tick in which it began.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(375));
    EXPECT_EQ(readULawWav(m_folder.path("call-1.heard.wav")), m_clip);
}

TEST_F(DriverProgram, CompletesItsFilesAndRemovesItsPipeOnSigterm)
{
    CDriverProgram driver(arguments("realtime"));
    ASSERT_TRUE(driver.waitReady());
    CRawClient client;
    ASSERT_TRUE(client.connect());
    const int nStreamID = client.openStream("call", 1);
    ASSERT_TRUE(client.recordFile(nStreamID, m_folder.path("msg.wav"), 800000));
    ASSERT_TRUE(client.playFile(nStreamID, m_folder.path("clip.wav")));
    expectDone(client, nStreamID, client.sequence(), 0);
    driver.signal(SIGTERM);
    EXPECT_EQ(driver.waitExit(), 0);
    EXPECT_FALSE(exists(MI_REQUEST_PIPE));
    EXPECT_FALSE(exists(MI_REQUEST_PIPE ".lock"));
    const CSamples recorded = readULawWav(m_folder.path("msg.wav"));
    ASSERT_GE(recorded.size(), 3200U);
    ASSERT_LE(recorded.size(), m_said.size());
    EXPECT_EQ(recorded, slice(m_said, 0, recorded.size()));
    EXPECT_FALSE(client.request(command(MICMD_PING, 0, 0)));
}

TEST_F(DriverProgram, RemovesItsPipeOnSigint)
{
    CDriverProgram driver(arguments());
    ASSERT_TRUE(driver.waitReady());
    driver.signal(SIGINT);
    EXPECT_EQ(driver.waitExit(), 0);
    EXPECT_FALSE(exists(MI_REQUEST_PIPE));
}

TEST_F(DriverProgram, RestartedServesTheSameClientAgain)
{
    CRawClient client;
    {
        CDriverProgram driver(arguments());
        ASSERT_TRUE(driver.waitReady());
        ASSERT_TRUE(client.connect());
        driver.signal(SIGKILL);
        EXPECT_EQ(driver.waitExit(), -SIGKILL);
    }
    EXPECT_FALSE(client.request(command(MICMD_PING, 0, 0)));
    CDriverProgram driver(arguments());
    ASSERT_TRUE(driver.waitReady());
    EXPECT_FALSE(client.request(command(MICMD_PING, 0, 0))); // the old pipe stays broken
    ASSERT_TRUE(client.connect());
    EXPECT_TRUE(client.request(command(MICMD_PING, 0, 0)));
}

TEST_F(DriverProgram, RefusesToStartBesideAnother)
{
    CDriverProgram driver(arguments());
    ASSERT_TRUE(driver.waitReady());
    CDriverProgram second(arguments());
    EXPECT_EQ(second.waitExit(), 1);
    EXPECT_THAT(second.errors(), HasSubstr("zelmedia-driver: another driver is running"));
    CRawClient client;
    EXPECT_TRUE(client.connect());
}

TEST_F(DriverProgram, RefusesToStartWithItsPathTakenByAFile)
{
    writeBytes(MI_REQUEST_PIPE, {1, 2, 3});
    CDriverProgram driver(arguments());
    EXPECT_EQ(driver.waitExit(), 1);
    EXPECT_THAT(driver.errors(), HasSubstr("/tmp/OrvMediaIntf-Req exists and is not a FIFO"));
    EXPECT_EQ(readBytes(MI_REQUEST_PIPE), (CSamples{1, 2, 3}));
    ::unlink(MI_REQUEST_PIPE);
}

TEST_F(DriverProgram, RefusesToStartWithoutItsAudioFolderOrLog)
{
    CDriverProgram noFolder({"--audio", m_folder.path("none")});
    EXPECT_EQ(noFolder.waitExit(), 2);
    EXPECT_THAT(noFolder.errors(), HasSubstr("--audio"));
    CDriverProgram noLog({"--log", "/proc/none/log"});
    EXPECT_EQ(noLog.waitExit(), 1);
    EXPECT_THAT(noLog.errors(), HasSubstr("/proc/none/log"));
}

TEST_F(DriverProgram, ClosesTheStreamsOfAClientThatDies)
{
    CDriverProgram driver(arguments("realtime"));
    ASSERT_TRUE(driver.waitReady());
    CChild child;
    child.start([this] {
        CRawClient doomed;
        bool bOk = doomed.connect();
        const int nStreamID = doomed.openStream("call", 1);
        bOk = bOk && doomed.recordFile(nStreamID, m_folder.path("msg.wav"), 800000) &&
              doomed.playFile(nStreamID, m_folder.path("clip.wav")) && doomed.waitEvent();
        return bOk ? ::kill(::getpid(), SIGKILL) : 1;
    });
    const pid_t nChild = child.processID();
    EXPECT_EQ(child.waitExit(), -SIGKILL);

    // The channel is refused for as long as the dead client's stream is open.
    CRawClient client;
    ASSERT_TRUE(client.connect());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    int nStreamID = 0;
    while (nStreamID == 0 && std::chrono::steady_clock::now() < deadline)
        nStreamID = client.openStream("call", 1);
    EXPECT_GT(nStreamID, 0);
    const CSamples recorded = readULawWav(m_folder.path("msg.wav"));
    ASSERT_GE(recorded.size(), 3200U);
    EXPECT_EQ(recorded, slice(m_said, 0, recorded.size()));
    ::unlink((MI_RESPONSE_PIPE_PREFIX + std::to_string(nChild)).c_str());
    ::unlink((MI_EVENT_PIPE_PREFIX + std::to_string(nChild)).c_str());
}

TEST_F(DriverProgram, SurvivesRubbishInItsPipe)
{
    CDriverProgram driver(arguments());
    ASSERT_TRUE(driver.waitReady());
    CRawClient client;
    ASSERT_TRUE(client.connect());
    for (const size_t nSize : {1, 279, 281, 1000})
    {
        const CSamples rubbish = noise(nSize, 5);
        ASSERT_EQ(::write(client.requestFd(), rubbish.data(), nSize), static_cast<ssize_t>(nSize));
        // Records that follow rubbish at once may be read out of step; those after a pause are not.
        int nWaiting = 1;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (nWaiting > 0 && std::chrono::steady_clock::now() < deadline)
            ASSERT_EQ(::ioctl(client.requestFd(), FIONREAD, &nWaiting), 0);
        EXPECT_TRUE(client.request(command(MICMD_PING, 0, 0))) << "after " << nSize << " bytes of rubbish";
    }
}

TEST_F(DriverProgram, KeepsNoDescriptorOfClientsThatComeAndGo)
{
    CDriverProgram driver(arguments());
    ASSERT_TRUE(driver.waitReady());
    CRawClient client;
    size_t nBefore = 0;
    for (int nRound = 0; nRound < 200; ++nRound)
    {
        // Every other time it comes back without having left.
        ASSERT_TRUE(client.connect());
        nBefore = nRound == 0 ? driver.openDescriptors() : nBefore;
        const int nStreamID = client.openStream("call", 1);
        ASSERT_GT(nStreamID, 0);
        ASSERT_GT(client.openFile(m_folder.path("clip.wav")), 0);
        ASSERT_TRUE(client.recordFile(nStreamID, m_folder.path("msg.wav"), 4000000000U));
        if (nRound % 2 != 0)
            ASSERT_TRUE(client.request(command(MICMD_DISCONNECT, 0, 0)));
    }
    ASSERT_TRUE(client.connect());
    EXPECT_EQ(driver.openDescriptors(), nBefore);
}

TEST_F(DriverProgram, ServesManyClientsAtOnce)
{
    CDriverProgram driver(arguments());
    ASSERT_TRUE(driver.waitReady());
    constexpr int CLIENTS = 12;
    CChild aChildren[CLIENTS];
    for (int nClient = 0; nClient < CLIENTS; ++nClient)
        aChildren[nClient].start([this, nClient] {
            CRawClient client;
            bool bOk = client.connect();
            const int nFileID = client.openFile(m_folder.path("clip.wav"));
            const int nStreamID = client.openStream("many", static_cast<uint32_t>(nClient));
            for (int nPlay = 0; nPlay < 20 && bOk; ++nPlay)
            {
                bOk = client.playClip(nStreamID, nFileID, 0, 100);
                const auto evt = client.waitEvent();
                bOk = bOk && evt && evt->nSequenceID == client.sequence() && evt->nStreamID == nStreamID;
            }
            bOk = bOk && client.request(command(MICMD_DISCONNECT, 0, 0));
            return bOk ? 0 : 1;
        });
    for (CChild& child : aChildren)
        EXPECT_EQ(child.waitExit(), 0);
    for (int nClient = 0; nClient < CLIENTS; ++nClient)
        EXPECT_EQ(readULawWav(m_folder.path("many-" + std::to_string(nClient) + ".heard.wav")).size(), 2000U);
}
