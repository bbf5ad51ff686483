// Requests that have to wait: each client's are carried out in order, each is answered once, and clients
// do not wait for each other.
#include "DriverTestSupport.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <random>
#include <set>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{
// A driver whose loader and disk run when the test says so. Processes are 100, 101, ...
class RequestOrder : public testing::Test
{
protected:
    RequestOrder()
    {
        WriteULaw(m_driver.Path("clip.wav"), SF_FORMAT_WAV, Noise(1000));
        WriteULaw(m_driver.Path("long.wav"), SF_FORMAT_WAV, Noise(300000));
        WriteULaw(m_driver.Path("call.in.wav"), SF_FORMAT_WAV, Noise(5000, 2));
    }

    structMICMD Make(MICMD micmd, int nConnectID) { return Command(micmd, nConnectID, ++m_nSequenceNo); }

    std::uint32_t Ping(int nConnectID)
    {
        m_driver.Send(Make(MICMD_PING, nConnectID));
        return m_nSequenceNo;
    }

    std::uint32_t OpenFile(int nConnectID, const std::string& strName = "clip.wav")
    {
        structMICMD cmd = Make(MICMD_OPENFILE, nConnectID);
        SetText(cmd.openFile.szFileName, m_driver.Path(strName));
        m_driver.Send(cmd);
        return cmd.nSequenceNo;
    }

    std::uint32_t OpenStream(int nConnectID, const std::string& strCallID = "call")
    {
        structMICMD cmd = Make(MICMD_OPENSTREAM, nConnectID);
        SetText(cmd.openStream.szCallID, strCallID);
        cmd.openStream.nLegID = 1;
        m_driver.Send(cmd);
        return cmd.nSequenceNo;
    }

    // An open stream that plays the clip and records into msg.wav.
    int BusyStream(int nConnectID)
    {
        OpenStream(nConnectID);
        RunBoth();
        const int nStreamID = m_driver.Client().m_vResponses.back().s_nStreamID;
        structMICMD play = Make(MICMD_PLAYFILE, nConnectID);
        play.playFile.nStreamID = nStreamID;
        SetText(play.playFile.szFileName, m_driver.Path("clip.wav"));
        play.playFile.nStartPos = 0;
        m_driver.Send(play);
        structMICMD record = Make(MICMD_RECORDFILE, nConnectID);
        record.recordFile.nStreamID = nStreamID;
        SetText(record.recordFile.szFileName, m_driver.Path("msg.wav"));
        record.recordFile.nMaxSamples = 80000;
        m_driver.Send(record);
        RunBoth();
        m_driver.Ticks(2);
        EXPECT_EQ(m_driver.Client().m_vResponses.back().s_nResult, MISTATUS_OK);
        return nStreamID;
    }

    void RunBoth()
    {
        for (bool bRan = true; bRan;)
        {
            const bool bLoaded = m_loader.RunOne();
            bRan = m_disk.RunOne() || bLoaded;
        }
        m_driver.Pass({});
    }

    // The numbers of the requests that were answered.
    std::vector<std::uint32_t> Answered(pid_t nProcessID = 100)
    {
        std::vector<std::uint32_t> vNumbers;
        for (const structMIRSP& rsp : m_driver.Client(nProcessID).m_vResponses)
        {
            vNumbers.push_back(rsp.nRespSequenceNo);
        }
        return vNumbers;
    }

    void ExpectCompleteFiles(std::size_t nSamples)
    {
        EXPECT_EQ(ReadULawWav(m_driver.Path("call-1.heard.wav")), Slice(Noise(1000), 0, nSamples));
        EXPECT_EQ(ReadULawWav(m_driver.Path("msg.wav")), Slice(Noise(5000, 2), 0, nSamples));
    }

    CManualExecutor m_loader;
    CManualExecutor m_disk;
    CDriverInMemory m_driver{m_loader, m_disk, {.m_bRealTime = false}};
    std::uint32_t m_nSequenceNo = 10000; // the numbers before are the driver's own
};
} // namespace

TEST_F(RequestOrder, RequestsOfAClientWaitForItsEarlierOnes)
{
    const int nClient = m_driver.Connect(100);
    m_driver.Client().m_vResponses.clear();
    const std::uint32_t nOpen = OpenFile(nClient);
    const std::uint32_t nPing = Ping(nClient);
    const std::uint32_t nStream = OpenStream(nClient);
    const std::uint32_t nLast = Ping(nClient);
    EXPECT_THAT(Answered(), IsEmpty());
    m_disk.RunAll();
    EXPECT_THAT(Answered(), IsEmpty());
    m_loader.RunAll();
    EXPECT_THAT(Answered(), ElementsAre(nOpen, nPing));
    m_disk.RunAll();
    EXPECT_THAT(Answered(), ElementsAre(nOpen, nPing, nStream, nLast));
}

TEST_F(RequestOrder, RequestsOfOtherClientsDoNotWait)
{
    const int nClient = m_driver.Connect(100);
    const int nOther = m_driver.Connect(101);
    m_driver.Client(100).m_vResponses.clear();
    m_driver.Client(101).m_vResponses.clear();
    OpenFile(nClient, "long.wav");
    const std::uint32_t nPing = Ping(nOther);
    EXPECT_THAT(Answered(101), ElementsAre(nPing));
    const std::uint32_t nStream = OpenStream(nOther, "other");
    m_disk.RunAll();
    EXPECT_THAT(Answered(101), ElementsAre(nPing, nStream));
    EXPECT_THAT(Answered(100), IsEmpty());
}

TEST_F(RequestOrder, MoreThanACertainNumberOfWaitingRequestsAreDroppedWithALine)
{
    const int nClient = m_driver.Connect(100);
    m_driver.Client().m_vResponses.clear();
    std::vector<std::uint32_t> vExpected = {OpenFile(nClient)};
    for (std::size_t nRequest = 0; nRequest < CClient::MAX_WAITING_REQUESTS; ++nRequest)
    {
        vExpected.push_back(Ping(nClient));
    }
    EXPECT_EQ(m_driver.m_statistics.m_ullDropped, 0U);
    const std::uint32_t nDropped = Ping(nClient);
    Ping(nClient);
    EXPECT_EQ(m_driver.m_statistics.m_ullDropped, 2U);
    EXPECT_THAT(m_driver.m_log.Text(), HasSubstr("dropped MICMD_PING of client 1, sequence " +
                                                 std::to_string(nDropped) + ": too many of its requests wait"));
    RunBoth();
    EXPECT_EQ(Answered(), vExpected);
    vExpected.push_back(Ping(nClient));
    EXPECT_EQ(Answered(), vExpected);
}

TEST_F(RequestOrder, CloseStreamIsAnsweredWhenTheFilesAreComplete)
{
    const int nClient = m_driver.Connect(100);
    const int nStreamID = BusyStream(nClient);
    m_driver.Client().m_vResponses.clear();
    structMICMD cmd = Make(MICMD_CLOSESTREAM, nClient);
    cmd.stream.nStreamID = nStreamID;
    m_driver.Send(cmd);
    while (Answered().empty())
    {
        ASSERT_TRUE(m_disk.RunOne());
    }
    ExpectCompleteFiles(320);
    EXPECT_FALSE(m_disk.RunOne()) << "there was more to be written";
    EXPECT_THAT(m_driver.Client().m_vEvents, IsEmpty());
}

TEST_F(RequestOrder, DisconnectIsAnsweredWhenTheFilesAreComplete)
{
    const int nClient = m_driver.Connect(100);
    BusyStream(nClient);
    m_driver.Client().m_vResponses.clear();
    m_driver.Send(Make(MICMD_DISCONNECT, nClient));
    EXPECT_TRUE(m_driver.Client().m_bPortOpen);
    while (Answered().empty())
    {
        ASSERT_TRUE(m_disk.RunOne());
    }
    ExpectCompleteFiles(320);
    EXPECT_FALSE(m_disk.RunOne()) << "there was more to be written";
    m_driver.m_registry.Sweep();
    EXPECT_FALSE(m_driver.Client().m_bPortOpen);
}

TEST_F(RequestOrder, CancelOfBothIsAnsweredBehindBothEvents)
{
    const int nClient = m_driver.Connect(100);
    const int nStreamID = BusyStream(nClient);
    m_driver.Client().m_vOrder.clear();
    structMICMD cmd = Make(MICMD_CANCEL, nClient);
    cmd.cancel.nStreamID = nStreamID;
    cmd.cancel.nCancelType = 0;
    m_driver.Send(cmd);
    const std::uint32_t nPing = Ping(nClient);
    EXPECT_THAT(m_driver.Client().m_vOrder, IsEmpty());
    RunBoth();
    EXPECT_THAT(Answered(), testing::IsSupersetOf({cmd.nSequenceNo, nPing}));
    EXPECT_THAT(m_driver.Client().m_vEvents, SizeIs(2));
    ExpectCompleteFiles(320);
}

TEST_F(RequestOrder, ChannelThatIsOpenedForAClientThatIsGoneIsClosed)
{
    const int nClient = m_driver.Connect(100);
    OpenStream(nClient);
    m_driver.m_registry.Drop(nClient, "test");
    m_driver.m_registry.Sweep();
    RunBoth();
    const int nNext = m_driver.Connect(100);
    OpenStream(nNext);
    RunBoth();
    EXPECT_EQ(m_driver.Client().m_vResponses.back().s_mirsp, MIRSP_OPENSTREAM) << "the file is still being written";
}

TEST_F(RequestOrder, ClipThatIsLoadedForAClientThatIsGoneIsReleased)
{
    const int nClient = m_driver.Connect(100);
    OpenFile(nClient, "long.wav");
    m_driver.m_registry.Drop(nClient, "test");
    m_driver.m_registry.Sweep();
    RunBoth();
    EXPECT_EQ(m_driver.m_clipStore.Count(), 0U);
    EXPECT_THAT(m_driver.Client().m_vResponses, SizeIs(1)) << "of the connection";
}

TEST_F(RequestOrder, WaitingRequestsOfAClientThatConnectsAnewAreForgotten)
{
    const int nClient = m_driver.Connect(100);
    OpenFile(nClient);
    Ping(nClient);
    const int nAgain = m_driver.Connect(100);
    m_driver.Client().m_vResponses.clear();
    const std::uint32_t nPing = Ping(nAgain);
    RunBoth();
    EXPECT_THAT(Answered(), ElementsAre(nPing));
}

TEST_F(RequestOrder, ReplyIsGoodForOneAnswer)
{
    const int nClient = m_driver.Connect(100);
    m_driver.Client().m_vResponses.clear();
    const std::uint32_t nOpen = OpenFile(nClient);
    const CReply reply(m_driver.m_handler, nClient, m_driver.m_registry.Find(nClient)->m_ullTicket,
                       Command(MICMD_OPENFILE, nClient, nOpen), {});
    reply.Refuse("something else went wrong");
    reply.Ok();
    const std::uint32_t nNext = OpenFile(nClient);
    EXPECT_THAT(Answered(), ElementsAre(nOpen));
    RunBoth();
    EXPECT_THAT(Answered(), ElementsAre(nOpen, nNext));
    EXPECT_EQ(m_driver.m_statistics.m_ullRefused, 1U);
}

namespace
{
// A random mix of everything at once, from several clients.
class RequestMix : public RequestOrder, public testing::WithParamInterface<unsigned>
{
protected:
    static constexpr std::size_t CLIENTS = 4;

    struct CSent
    {
        std::vector<std::uint32_t> m_vNumbers; // in order, of one connection
        std::size_t m_nBefore = 0;             // responses that the process had got before
    };
    struct CConnection
    {
        int m_nConnectID = 0;
        bool m_bLeaving = false; // has sent its disconnect
        CSent m_sent;
    };

    static pid_t ProcessOf(std::size_t nClient) { return static_cast<pid_t>(100 + nClient); }

    void Connect(std::size_t nClient)
    {
        CConnection& connection = m_vConnections[nClient];
        connection = {m_driver.Connect(ProcessOf(nClient)), false, {}};
        ASSERT_GT(connection.m_nConnectID, 0);
        connection.m_sent.m_nBefore = Answered(ProcessOf(nClient)).size();
    }

    // What was answered is what was sent, in order, and nothing is left out in the middle.
    void ExpectAnswersInOrder(std::size_t nClient, bool bAll)
    {
        const CSent& sent = m_vConnections[nClient].m_sent;
        std::vector<std::uint32_t> vAnswered = Answered(ProcessOf(nClient));
        vAnswered.erase(vAnswered.begin(), vAnswered.begin() + static_cast<std::ptrdiff_t>(sent.m_nBefore));
        ASSERT_LE(vAnswered.size(), sent.m_vNumbers.size());
        ASSERT_TRUE(std::equal(vAnswered.begin(), vAnswered.end(), sent.m_vNumbers.begin()));
        ASSERT_TRUE(!bAll || vAnswered.size() == sent.m_vNumbers.size())
            << vAnswered.size() << " of " << sent.m_vNumbers.size() << " requests are answered";
    }

    structMICMD RandomRequest(std::size_t nClient)
    {
        static constexpr std::array NAMES = {"clip.wav", "long.wav", "none.wav", "text.wav"};
        structMICMD cmd = Make(static_cast<MICMD>(2 + m_random() % 16), m_vConnections[nClient].m_nConnectID);
        const int nAnyStream = static_cast<int>(1 + m_random() % (m_nStreams + 1));
        const std::string strPath = m_driver.Path(NAMES[m_random() % NAMES.size()]);
        switch (cmd.s_micmd)
        {
        case MICMD_DISCONNECT: cmd.s_micmd = m_random() % 8 == 0 ? MICMD_DISCONNECT : MICMD_PING; break;
        case MICMD_OPENFILE: SetText(cmd.openFile.szFileName, strPath); break;
        case MICMD_CLOSEFILE: cmd.closeFile.nFileID = static_cast<int>(m_random() % 100); break;
        case MICMD_OPENSTREAM:
            SetText(cmd.openStream.szCallID, "call" + std::to_string(m_random() % 12));
            cmd.openStream.nLegID = 1;
            ++m_nStreams;
            break;
        case MICMD_PLAYFILE:
            cmd.playFile.nStreamID = nAnyStream;
            SetText(cmd.playFile.szFileName, strPath);
            cmd.playFile.nStartPos = static_cast<std::uint32_t>(m_random() % 2000);
            break;
        case MICMD_RECORDFILE:
            cmd.recordFile.nStreamID = nAnyStream;
            SetText(cmd.recordFile.szFileName, m_driver.Path("rec" + std::to_string(m_random() % 6) + ".wav"));
            cmd.recordFile.nMaxSamples = static_cast<std::uint32_t>(m_random() % 4000);
            break;
        default: cmd.stream.nStreamID = nAnyStream; break; // the first of the others, too
        }
        return cmd;
    }

    void Send(std::size_t nClient)
    {
        CConnection& connection = m_vConnections[nClient];
        const std::size_t nAnswered = Answered(ProcessOf(nClient)).size() - connection.m_sent.m_nBefore;
        if (connection.m_bLeaving || connection.m_sent.m_vNumbers.size() - nAnswered >= CClient::MAX_WAITING_REQUESTS)
        {
            return;
        }
        const structMICMD cmd = RandomRequest(nClient);
        connection.m_sent.m_vNumbers.push_back(cmd.nSequenceNo);
        connection.m_bLeaving = cmd.s_micmd == MICMD_DISCONNECT;
        m_driver.Send(cmd);
    }

    void Step()
    {
        const std::size_t nClient = m_random() % CLIENTS;
        const auto nAction = m_random() % 100;
        if (nAction < 40)
        {
            Send(nClient);
        }
        else if (nAction < 60)
        {
            m_loader.RunOne();
        }
        else if (nAction < 85)
        {
            m_disk.RunOne();
        }
        else if (nAction < 97)
        {
            m_driver.Ticks(1);
        }
        else if (nAction < 99)
        {
            m_driver.m_registry.Drop(m_vConnections[nClient].m_nConnectID, "test");
            m_driver.m_registry.Sweep();
            Connect(nClient);
        }
        else
        {
            Connect(nClient); // while it is connected
        }
        m_driver.Pass(std::chrono::milliseconds(1));
    }

    std::mt19937 m_random{GetParam()};
    std::array<CConnection, CLIENTS> m_vConnections;
    unsigned m_nStreams = 0;
};
} // namespace

TEST_P(RequestMix, EveryRequestIsAnsweredOnceAndInOrder)
{
    WriteBytes(m_driver.Path("text.wav"), {'h', 'e', 'l', 'l', 'o'});
    for (std::size_t nClient = 0; nClient < CLIENTS; ++nClient)
    {
        Connect(nClient);
    }
    for (int nStep = 0; nStep < 6000; ++nStep)
    {
        SCOPED_TRACE("step " + std::to_string(nStep) + ", seed " + std::to_string(GetParam()));
        Step();
        for (std::size_t nClient = 0; nClient < CLIENTS; ++nClient)
        {
            ASSERT_NO_FATAL_FAILURE(ExpectAnswersInOrder(nClient, false));
        }
    }
    for (int nTick = 0; nTick < 2000; ++nTick)
    {
        m_driver.Ticks(1);
        RunBoth();
    }
    std::size_t nAnswered = 0;
    for (std::size_t nClient = 0; nClient < CLIENTS; ++nClient)
    {
        ASSERT_NO_FATAL_FAILURE(ExpectAnswersInOrder(nClient, true));
        nAnswered += Answered(ProcessOf(nClient)).size();
    }
    EXPECT_GT(nAnswered, 1000U);
    EXPECT_EQ(m_driver.m_statistics.m_ullDropped, 0U);
    m_driver.m_registry.DropAll("test");
    m_driver.m_registry.Sweep();
    RunBoth();
    EXPECT_FALSE(m_driver.m_mediaClock.HasFast());
    EXPECT_EQ(m_driver.m_clipStore.Count(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RequestMix, testing::Range(1U, 7U));
