// The driver program end to end: real FIFOs, real files, its start, and its end.
#include "DriverTestSupport.h"
#include "ProgramSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

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
        WriteULaw(m_folder.Path("clip.wav"), SF_FORMAT_WAV, m_clip);
        WriteULaw(m_folder.Path("call.in.wav"), SF_FORMAT_WAV, m_said);
    }

    std::vector<std::string> Arguments(const std::string& strSpeed = "max") const
    {
        return {"--audio", m_folder.Folder(), "--speed", strSpeed, "--log", m_folder.Path("log")};
    }

    void ExpectDone(CRawClient& client, int nStreamID, std::uint32_t nSequenceNo, int nStatus)
    {
        const auto evt = client.WaitEvent();
        ASSERT_TRUE(evt);
        EXPECT_EQ(*evt, (structMIEVT{MIEVT_DONE, nStreamID, nSequenceNo, nStatus}));
    }

    static bool Exists(const char* pPath) { return ::access(pPath, F_OK) == 0; }

    const CSamples m_clip = Noise(3200, 1);
    const CSamples m_said = Noise(30000, 2);
    CTempFolder m_folder;
};
} // namespace

TEST_F(DriverProgram, PlaysAndRecordsSampleBySampleAtFullSpeed)
{
    CDriverProgram driver(Arguments());
    ASSERT_TRUE(driver.WaitReady());
    CRawClient client;
    ASSERT_TRUE(client.Connect());
    const int nFileID = client.OpenFile(m_folder.Path("clip.wav"));
    const int nStreamID = client.OpenStream("call", 3);
    ASSERT_GT(nFileID, 0);
    ASSERT_GT(nStreamID, 0);

    ASSERT_TRUE(client.PlayClip(nStreamID, nFileID, 1000, 500));
    ExpectDone(client, nStreamID, client.Sequence(), 0);
    ASSERT_TRUE(client.PlayFile(nStreamID, m_folder.Path("clip.wav")));
    ExpectDone(client, nStreamID, client.Sequence(), 0);
    EXPECT_EQ(ReadULawWav(m_folder.Path("call-3.heard.wav")), Slice(m_clip, 1000, 1500) + m_clip);

    ASSERT_TRUE(client.RecordFile(nStreamID, m_folder.Path("msg.wav"), 24000));
    ExpectDone(client, nStreamID, client.Sequence(), 0);
    EXPECT_EQ(ReadULawWav(m_folder.Path("msg.wav")), Slice(m_said, 0, 24000));

    EXPECT_TRUE(client.Request(Command(MICMD_DISCONNECT, 0, 0)));
    driver.Signal(SIGTERM);
    EXPECT_EQ(driver.WaitExit(), 0);
}

TEST_F(DriverProgram, PlaysNoFasterThanRealTimeByDefault)
{
    CDriverProgram driver(Arguments("realtime"));
    ASSERT_TRUE(driver.WaitReady());
    CRawClient client;
    ASSERT_TRUE(client.Connect());
    const int nStreamID = client.OpenStream("call", 1);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(client.PlayFile(nStreamID, m_folder.Path("clip.wav")));
    ExpectDone(client, nStreamID, client.Sequence(), 0);
    // 400 ms of audio, less the tick in which it began.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(375));
    EXPECT_EQ(ReadULawWav(m_folder.Path("call-1.heard.wav")), m_clip);
}

TEST_F(DriverProgram, CompletesItsFilesAndRemovesItsPipeOnSigterm)
{
    CDriverProgram driver(Arguments("realtime"));
    ASSERT_TRUE(driver.WaitReady());
    CRawClient client;
    ASSERT_TRUE(client.Connect());
    const int nStreamID = client.OpenStream("call", 1);
    ASSERT_TRUE(client.RecordFile(nStreamID, m_folder.Path("msg.wav"), 800000));
    ASSERT_TRUE(client.PlayFile(nStreamID, m_folder.Path("clip.wav")));
    ExpectDone(client, nStreamID, client.Sequence(), 0);
    driver.Signal(SIGTERM);
    EXPECT_EQ(driver.WaitExit(), 0);
    EXPECT_FALSE(Exists(MI_REQUEST_PIPE));
    EXPECT_FALSE(Exists(MI_REQUEST_PIPE ".lock"));
    const CSamples recorded = ReadULawWav(m_folder.Path("msg.wav"));
    ASSERT_GE(recorded.size(), 3200U);
    ASSERT_LE(recorded.size(), m_said.size());
    EXPECT_EQ(recorded, Slice(m_said, 0, recorded.size()));
    EXPECT_FALSE(client.Request(Command(MICMD_PING, 0, 0)));
}

TEST_F(DriverProgram, RemovesItsPipeOnSigint)
{
    CDriverProgram driver(Arguments());
    ASSERT_TRUE(driver.WaitReady());
    driver.Signal(SIGINT);
    EXPECT_EQ(driver.WaitExit(), 0);
    EXPECT_FALSE(Exists(MI_REQUEST_PIPE));
}

TEST_F(DriverProgram, RestartedServesTheSameClientAgain)
{
    CRawClient client;
    {
        CDriverProgram driver(Arguments());
        ASSERT_TRUE(driver.WaitReady());
        ASSERT_TRUE(client.Connect());
        driver.Signal(SIGKILL);
        EXPECT_EQ(driver.WaitExit(), -SIGKILL);
    }
    EXPECT_FALSE(client.Request(Command(MICMD_PING, 0, 0)));
    CDriverProgram driver(Arguments());
    ASSERT_TRUE(driver.WaitReady());
    EXPECT_FALSE(client.Request(Command(MICMD_PING, 0, 0))); // the old pipe stays broken
    ASSERT_TRUE(client.Connect());
    EXPECT_TRUE(client.Request(Command(MICMD_PING, 0, 0)));
}

TEST_F(DriverProgram, RefusesToStartBesideAnother)
{
    CDriverProgram driver(Arguments());
    ASSERT_TRUE(driver.WaitReady());
    CDriverProgram second(Arguments());
    EXPECT_EQ(second.WaitExit(), 1);
    EXPECT_THAT(second.Errors(), HasSubstr("zelmedia-driver: another driver is running"));
    CRawClient client;
    EXPECT_TRUE(client.Connect());
}

TEST_F(DriverProgram, RefusesToStartWithItsPathTakenByAFile)
{
    WriteBytes(MI_REQUEST_PIPE, {1, 2, 3});
    CDriverProgram driver(Arguments());
    EXPECT_EQ(driver.WaitExit(), 1);
    EXPECT_THAT(driver.Errors(), HasSubstr("/tmp/OrvMediaIntf-Req exists and is not a FIFO"));
    EXPECT_EQ(ReadBytes(MI_REQUEST_PIPE), (CSamples{1, 2, 3}));
    ::unlink(MI_REQUEST_PIPE);
}

TEST_F(DriverProgram, RefusesToStartWithoutItsAudioFolderOrLog)
{
    CDriverProgram noFolder({"--audio", m_folder.Path("none")});
    EXPECT_EQ(noFolder.WaitExit(), 2);
    EXPECT_THAT(noFolder.Errors(), HasSubstr("--audio"));
    CDriverProgram noLog({"--log", "/proc/none/log"});
    EXPECT_EQ(noLog.WaitExit(), 1);
    EXPECT_THAT(noLog.Errors(), HasSubstr("/proc/none/log"));
}

TEST_F(DriverProgram, ClosesTheStreamsOfAClientThatDies)
{
    CDriverProgram driver(Arguments("realtime"));
    ASSERT_TRUE(driver.WaitReady());
    int anGate[2];
    ASSERT_EQ(::pipe2(anGate, O_CLOEXEC), 0);
    const pid_t nChild = ::fork();
    if (nChild == 0)
    {
        CRawClient doomed;
        bool bOk = doomed.Connect();
        const int nStreamID = doomed.OpenStream("call", 1);
        bOk = bOk && doomed.RecordFile(nStreamID, m_folder.Path("msg.wav"), 800000) &&
              doomed.PlayFile(nStreamID, m_folder.Path("clip.wav")) && doomed.WaitEvent();
        const char c = bOk ? 'y' : 'n';
        ::kill(::write(anGate[1], &c, 1) == 1 ? ::getpid() : 0, SIGKILL);
    }
    char c = 0;
    ASSERT_EQ(::read(anGate[0], &c, 1), 1);
    EXPECT_EQ(c, 'y');
    EXPECT_EQ(::waitpid(nChild, nullptr, 0), nChild);
    ::close(anGate[0]);
    ::close(anGate[1]);

    // The channel is refused for as long as the dead client's stream is open.
    CRawClient client;
    ASSERT_TRUE(client.Connect());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    int nStreamID = 0;
    while (nStreamID == 0 && std::chrono::steady_clock::now() < deadline)
    {
        nStreamID = client.OpenStream("call", 1);
    }
    EXPECT_GT(nStreamID, 0);
    const CSamples recorded = ReadULawWav(m_folder.Path("msg.wav"));
    ASSERT_GE(recorded.size(), 3200U);
    EXPECT_EQ(recorded, Slice(m_said, 0, recorded.size()));
    ::unlink((MI_RESPONSE_PIPE_PREFIX + std::to_string(nChild)).c_str());
    ::unlink((MI_EVENT_PIPE_PREFIX + std::to_string(nChild)).c_str());
}

TEST_F(DriverProgram, SurvivesRubbishInItsPipe)
{
    CDriverProgram driver(Arguments());
    ASSERT_TRUE(driver.WaitReady());
    CRawClient client;
    ASSERT_TRUE(client.Connect());
    for (const std::size_t nSize : {1, 279, 281, 1000})
    {
        const CSamples rubbish = Noise(nSize, 5);
        ASSERT_EQ(::write(client.RequestFd(), rubbish.data(), nSize), static_cast<ssize_t>(nSize));
        // Records that follow rubbish at once may be read out of step; those after a pause are not.
        int nWaiting = 1;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (nWaiting > 0 && std::chrono::steady_clock::now() < deadline)
        {
            ASSERT_EQ(::ioctl(client.RequestFd(), FIONREAD, &nWaiting), 0);
        }
        EXPECT_TRUE(client.Request(Command(MICMD_PING, 0, 0))) << "after " << nSize << " bytes of rubbish";
    }
}

TEST_F(DriverProgram, KeepsNoDescriptorOfClientsThatComeAndGo)
{
    CDriverProgram driver(Arguments());
    ASSERT_TRUE(driver.WaitReady());
    CRawClient client;
    std::size_t nBefore = 0;
    for (int nRound = 0; nRound < 200; ++nRound)
    {
        // Every other time it comes back without having left.
        ASSERT_TRUE(client.Connect());
        nBefore = nRound == 0 ? driver.OpenDescriptors() : nBefore;
        const int nStreamID = client.OpenStream("call", 1);
        ASSERT_GT(nStreamID, 0);
        ASSERT_GT(client.OpenFile(m_folder.Path("clip.wav")), 0);
        ASSERT_TRUE(client.RecordFile(nStreamID, m_folder.Path("msg.wav"), 4000000000U));
        if (nRound % 2 != 0)
        {
            ASSERT_TRUE(client.Request(Command(MICMD_DISCONNECT, 0, 0)));
        }
    }
    ASSERT_TRUE(client.Connect());
    EXPECT_EQ(driver.OpenDescriptors(), nBefore);
}

TEST_F(DriverProgram, ServesManyClientsAtOnce)
{
    CDriverProgram driver(Arguments());
    ASSERT_TRUE(driver.WaitReady());
    constexpr int CLIENTS = 12;
    std::vector<pid_t> vChildren;
    for (int nClient = 0; nClient < CLIENTS; ++nClient)
    {
        const pid_t nChild = ::fork();
        if (nChild == 0)
        {
            CRawClient client;
            bool bOk = client.Connect();
            const int nFileID = client.OpenFile(m_folder.Path("clip.wav"));
            const int nStreamID = client.OpenStream("many", static_cast<std::uint32_t>(nClient));
            for (int nPlay = 0; nPlay < 20 && bOk; ++nPlay)
            {
                bOk = client.PlayClip(nStreamID, nFileID, 0, 100);
                const auto evt = client.WaitEvent();
                bOk = bOk && evt && evt->nSequenceID == client.Sequence() && evt->nStreamID == nStreamID;
            }
            bOk = bOk && client.Request(Command(MICMD_DISCONNECT, 0, 0));
            client.~CRawClient();
            ::_exit(bOk ? 0 : 1);
        }
        vChildren.push_back(nChild);
    }
    for (const pid_t nChild : vChildren)
    {
        int nStatus = 0;
        EXPECT_EQ(::waitpid(nChild, &nStatus, 0), nChild);
        EXPECT_EQ(nStatus, 0);
    }
    for (int nClient = 0; nClient < CLIENTS; ++nClient)
    {
        EXPECT_EQ(ReadULawWav(m_folder.Path("many-" + std::to_string(nClient) + ".heard.wav")).size(), 2000U);
    }
}
