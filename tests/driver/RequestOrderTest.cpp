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
        writeULaw(m_driver.path("clip.wav"), SF_FORMAT_WAV, noise(1000));
        writeULaw(m_driver.path("long.wav"), SF_FORMAT_WAV, noise(300000));
        writeULaw(m_driver.path("call.in.wav"), SF_FORMAT_WAV, noise(5000, 2));
    }

    structMICMD make(MICMD micmd, int nConnectID) { return command(micmd, nConnectID, ++m_nSequenceNo); }

    uint32_t ping(int nConnectID)
    {
        m_driver.send(make(MICMD_PING, nConnectID));
        return m_nSequenceNo;
    }

    uint32_t openFile(int nConnectID, const std::string& strName = "clip.wav")
    {
        structMICMD cmd = make(MICMD_OPENFILE, nConnectID);
        setText(cmd.openFile.szFileName, m_driver.path(strName));
        m_driver.send(cmd);
        return cmd.nSequenceNo;
    }

    uint32_t openStream(int nConnectID, const std::string& strCallID = "call")
    {
        structMICMD cmd = make(MICMD_OPENSTREAM, nConnectID);
        setText(cmd.openStream.szCallID, strCallID);
        cmd.openStream.nLegID = 1;
        m_driver.send(cmd);
        return cmd.nSequenceNo;
    }

    // An open stream that plays the clip and records into msg.wav.
    int busyStream(int nConnectID)
    {
        openStream(nConnectID);
        runBoth();
        const int nStreamID = m_driver.client().m_vResponses.back().s_nStreamID;
        structMICMD play = make(MICMD_PLAYFILE, nConnectID);
        play.playFile.nStreamID = nStreamID;
        setText(play.playFile.szFileName, m_driver.path("clip.wav"));
        play.playFile.nStartPos = 0;
        m_driver.send(play);
        structMICMD record = make(MICMD_RECORDFILE, nConnectID);
        record.recordFile.nStreamID = nStreamID;
        setText(record.recordFile.szFileName, m_driver.path("msg.wav"));
        record.recordFile.nMaxSamples = 80000;
        m_driver.send(record);
        runBoth();
        m_driver.ticks(2);
        EXPECT_EQ(m_driver.client().m_vResponses.back().s_nResult, MISTATUS_OK);
        return nStreamID;
    }

    void runBoth()
    {
        for (bool bRan = true; bRan;)
        {
            const bool bLoaded = m_loader.runOne();
            bRan = m_disk.runOne() || bLoaded;
        }
        m_driver.pass({});
    }

    // The numbers of the requests that were answered.
    std::vector<uint32_t> answered(pid_t nProcessID = 100)
    {
        std::vector<uint32_t> vNumbers;
        for (const structMIRSP& rsp : m_driver.client(nProcessID).m_vResponses)
            vNumbers.push_back(rsp.nRespSequenceNo);
        return vNumbers;
    }

    void expectCompleteFiles(size_t nSamples)
    {
        EXPECT_EQ(readULawWav(m_driver.path("call-1.heard.wav")), slice(noise(1000), 0, nSamples));
        EXPECT_EQ(readULawWav(m_driver.path("msg.wav")), slice(noise(5000, 2), 0, nSamples));
    }

    CManualExecutor m_loader;
    CManualExecutor m_disk;
    CDriverInMemory m_driver{m_loader, m_disk, {.m_bRealTime = false}};
    uint32_t m_nSequenceNo = 10000; // the numbers before are the driver's own
};
} // namespace

TEST_F(RequestOrder, RequestsOfAClientWaitForItsEarlierOnes)
{
    const int nClient = m_driver.connect(100);
    m_driver.client().m_vResponses.clear();
    const uint32_t nOpen = openFile(nClient);
    const uint32_t nPing = ping(nClient);
    const uint32_t nStream = openStream(nClient);
    const uint32_t nLast = ping(nClient);
    EXPECT_THAT(answered(), IsEmpty());
    m_disk.runAll();
    EXPECT_THAT(answered(), IsEmpty());
    m_loader.runAll();
    EXPECT_THAT(answered(), ElementsAre(nOpen, nPing));
    m_disk.runAll();
    EXPECT_THAT(answered(), ElementsAre(nOpen, nPing, nStream, nLast));
}

TEST_F(RequestOrder, RequestsOfOtherClientsDoNotWait)
{
    const int nClient = m_driver.connect(100);
    const int nOther = m_driver.connect(101);
    m_driver.client(100).m_vResponses.clear();
    m_driver.client(101).m_vResponses.clear();
    openFile(nClient, "long.wav");
    const uint32_t nPing = ping(nOther);
    EXPECT_THAT(answered(101), ElementsAre(nPing));
    const uint32_t nStream = openStream(nOther, "other");
    m_disk.runAll();
    EXPECT_THAT(answered(101), ElementsAre(nPing, nStream));
    EXPECT_THAT(answered(100), IsEmpty());
}

TEST_F(RequestOrder, MoreThanACertainNumberOfWaitingRequestsAreDroppedWithALine)
{
    const int nClient = m_driver.connect(100);
    m_driver.client().m_vResponses.clear();
    std::vector<uint32_t> vExpected = {openFile(nClient)};
    for (size_t nRequest = 0; nRequest < CClient::MAX_WAITING_REQUESTS; ++nRequest)
        vExpected.push_back(ping(nClient));
    EXPECT_EQ(m_driver.m_statistics.m_ullDropped, 0U);
    const uint32_t nDropped = ping(nClient);
    ping(nClient);
    EXPECT_EQ(m_driver.m_statistics.m_ullDropped, 2U);
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("dropped MICMD_PING of client 1, sequence " +
                                                 std::to_string(nDropped) + ": too many of its requests wait"));
    runBoth();
    EXPECT_EQ(answered(), vExpected);
    vExpected.push_back(ping(nClient));
    EXPECT_EQ(answered(), vExpected);
}

TEST_F(RequestOrder, CloseStreamIsAnsweredWhenTheFilesAreComplete)
{
    const int nClient = m_driver.connect(100);
    const int nStreamID = busyStream(nClient);
    m_driver.client().m_vResponses.clear();
    structMICMD cmd = make(MICMD_CLOSESTREAM, nClient);
    cmd.stream.nStreamID = nStreamID;
    m_driver.send(cmd);
    while (answered().empty())
        ASSERT_TRUE(m_disk.runOne());
    expectCompleteFiles(320);
    EXPECT_FALSE(m_disk.runOne()) << "there was more to be written";
    EXPECT_THAT(m_driver.client().m_vEvents, IsEmpty());
}

TEST_F(RequestOrder, DisconnectIsAnsweredWhenTheFilesAreComplete)
{
    const int nClient = m_driver.connect(100);
    busyStream(nClient);
    m_driver.client().m_vResponses.clear();
    m_driver.send(make(MICMD_DISCONNECT, nClient));
    EXPECT_TRUE(m_driver.client().m_bPortOpen);
    while (answered().empty())
        ASSERT_TRUE(m_disk.runOne());
    expectCompleteFiles(320);
    EXPECT_FALSE(m_disk.runOne()) << "there was more to be written";
    m_driver.m_registry.sweep();
    EXPECT_FALSE(m_driver.client().m_bPortOpen);
}

TEST_F(RequestOrder, CancelOfBothIsAnsweredBehindBothEvents)
{
    const int nClient = m_driver.connect(100);
    const int nStreamID = busyStream(nClient);
    m_driver.client().m_vOrder.clear();
    structMICMD cmd = make(MICMD_CANCEL, nClient);
    cmd.cancel.nStreamID = nStreamID;
    cmd.cancel.nCancelType = 0;
    m_driver.send(cmd);
    const uint32_t nPing = ping(nClient);
    EXPECT_THAT(m_driver.client().m_vOrder, IsEmpty());
    runBoth();
    EXPECT_THAT(answered(), testing::IsSupersetOf({cmd.nSequenceNo, nPing}));
    EXPECT_THAT(m_driver.client().m_vEvents, SizeIs(2));
    expectCompleteFiles(320);
}

TEST_F(RequestOrder, ChannelThatIsOpenedForAClientThatIsGoneIsClosed)
{
    const int nClient = m_driver.connect(100);
    openStream(nClient);
    m_driver.m_registry.drop(nClient, "test");
    m_driver.m_registry.sweep();
    runBoth();
    const int nNext = m_driver.connect(100);
    openStream(nNext);
    runBoth();
    EXPECT_EQ(m_driver.client().m_vResponses.back().s_mirsp, MIRSP_OPENSTREAM) << "the file is still being written";
}

TEST_F(RequestOrder, ClipThatIsLoadedForAClientThatIsGoneIsReleased)
{
    const int nClient = m_driver.connect(100);
    openFile(nClient, "long.wav");
    m_driver.m_registry.drop(nClient, "test");
    m_driver.m_registry.sweep();
    runBoth();
    EXPECT_EQ(m_driver.m_clipStore.count(), 0U);
    EXPECT_THAT(m_driver.client().m_vResponses, SizeIs(1)) << "of the connection";
}

TEST_F(RequestOrder, WaitingRequestsOfAClientThatConnectsAnewAreForgotten)
{
    const int nClient = m_driver.connect(100);
    openFile(nClient);
    ping(nClient);
    const int nAgain = m_driver.connect(100);
    m_driver.client().m_vResponses.clear();
    const uint32_t nPing = ping(nAgain);
    runBoth();
    EXPECT_THAT(answered(), ElementsAre(nPing));
}

TEST_F(RequestOrder, ReplyIsGoodForOneAnswer)
{
    const int nClient = m_driver.connect(100);
    m_driver.client().m_vResponses.clear();
    const uint32_t nOpen = openFile(nClient);
    const CReply reply(m_driver.m_handler, nClient, m_driver.m_registry.find(nClient)->m_ullTicket,
                       command(MICMD_OPENFILE, nClient, nOpen), {});
    reply.refuse("something else went wrong");
    reply.ok();
    const uint32_t nNext = openFile(nClient);
    EXPECT_THAT(answered(), ElementsAre(nOpen));
    runBoth();
    EXPECT_THAT(answered(), ElementsAre(nOpen, nNext));
    EXPECT_EQ(m_driver.m_statistics.m_ullRefused, 1U);
}

namespace
{
// A random mix of everything at once, from several clients.
class RequestMix : public RequestOrder, public testing::WithParamInterface<unsigned>
{
protected:
    static constexpr size_t CLIENTS = 4;

    struct CSent
    {
        std::vector<uint32_t> m_vNumbers; // in order, of one connection
        size_t m_nBefore = 0;             // responses that the process had got before
    };
    struct CConnection
    {
        int m_nConnectID = 0;
        bool m_bLeaving = false; // has sent its disconnect
        CSent m_sent;
    };

    static pid_t processOf(size_t nClient) { return static_cast<pid_t>(100 + nClient); }

    void connect(size_t nClient)
    {
        CConnection& connection = m_vConnections[nClient];
        connection = {m_driver.connect(processOf(nClient)), false, {}};
        ASSERT_GT(connection.m_nConnectID, 0);
        connection.m_sent.m_nBefore = answered(processOf(nClient)).size();
    }

    // What was answered is what was sent, in order, and nothing is left out in the middle.
    void expectAnswersInOrder(size_t nClient, bool bAll)
    {
        const CSent& sent = m_vConnections[nClient].m_sent;
        std::vector<uint32_t> vAnswered = answered(processOf(nClient));
        vAnswered.erase(vAnswered.begin(), vAnswered.begin() + static_cast<std::ptrdiff_t>(sent.m_nBefore));
        ASSERT_LE(vAnswered.size(), sent.m_vNumbers.size());
        ASSERT_TRUE(std::equal(vAnswered.begin(), vAnswered.end(), sent.m_vNumbers.begin()));
        ASSERT_TRUE(!bAll || vAnswered.size() == sent.m_vNumbers.size())
            << vAnswered.size() << " of " << sent.m_vNumbers.size() << " requests are answered";
    }

    structMICMD randomRequest(size_t nClient)
    {
        static constexpr std::array NAMES = {"clip.wav", "long.wav", "none.wav", "text.wav"};
        structMICMD cmd = make(static_cast<MICMD>(2 + m_random() % 16), m_vConnections[nClient].m_nConnectID);
        const int nAnyStream = static_cast<int>(1 + m_random() % (m_nStreams + 1));
        const std::string strPath = m_driver.path(NAMES[m_random() % NAMES.size()]);
        switch (cmd.s_micmd)
        {
        case MICMD_DISCONNECT: cmd.s_micmd = m_random() % 8 == 0 ? MICMD_DISCONNECT : MICMD_PING; break;
        case MICMD_OPENFILE: setText(cmd.openFile.szFileName, strPath); break;
        case MICMD_CLOSEFILE: cmd.closeFile.nFileID = static_cast<int>(m_random() % 100); break;
        case MICMD_OPENSTREAM:
            setText(cmd.openStream.szCallID, "call" + std::to_string(m_random() % 12));
            cmd.openStream.nLegID = 1;
            ++m_nStreams;
            break;
        case MICMD_PLAYFILE:
            cmd.playFile.nStreamID = nAnyStream;
            setText(cmd.playFile.szFileName, strPath);
            cmd.playFile.nStartPos = static_cast<uint32_t>(m_random() % 2000);
            break;
        case MICMD_RECORDFILE:
            cmd.recordFile.nStreamID = nAnyStream;
            setText(cmd.recordFile.szFileName, m_driver.path("rec" + std::to_string(m_random() % 6) + ".wav"));
            cmd.recordFile.nMaxSamples = static_cast<uint32_t>(m_random() % 4000);
            break;
        default: cmd.stream.nStreamID = nAnyStream; break; // the first of the others, too
        }
        return cmd;
    }

    void send(size_t nClient)
    {
        CConnection& connection = m_vConnections[nClient];
        const size_t nAnswered = answered(processOf(nClient)).size() - connection.m_sent.m_nBefore;
        if (connection.m_bLeaving || connection.m_sent.m_vNumbers.size() - nAnswered >= CClient::MAX_WAITING_REQUESTS)
            return;
        const structMICMD cmd = randomRequest(nClient);
        connection.m_sent.m_vNumbers.push_back(cmd.nSequenceNo);
        connection.m_bLeaving = cmd.s_micmd == MICMD_DISCONNECT;
        m_driver.send(cmd);
    }

    void step()
    {
        const size_t nClient = m_random() % CLIENTS;
        const auto nAction = m_random() % 100;
        if (nAction < 40)
        {
            send(nClient);
        }
        else if (nAction < 60)
        {
            m_loader.runOne();
        }
        else if (nAction < 85)
        {
            m_disk.runOne();
        }
        else if (nAction < 97)
        {
            m_driver.ticks(1);
        }
        else if (nAction < 99)
        {
            m_driver.m_registry.drop(m_vConnections[nClient].m_nConnectID, "test");
            m_driver.m_registry.sweep();
            connect(nClient);
        }
        else
        {
            connect(nClient); // while it is connected
        }
        m_driver.pass(std::chrono::milliseconds(1));
    }

    std::mt19937 m_random{GetParam()};
    std::array<CConnection, CLIENTS> m_vConnections;
    unsigned m_nStreams = 0;
};
} // namespace

TEST_P(RequestMix, EveryRequestIsAnsweredOnceAndInOrder)
{
    writeBytes(m_driver.path("text.wav"), {'h', 'e', 'l', 'l', 'o'});
    for (size_t nClient = 0; nClient < CLIENTS; ++nClient)
        connect(nClient);
    for (int nStep = 0; nStep < 6000; ++nStep)
    {
        SCOPED_TRACE("step " + std::to_string(nStep) + ", seed " + std::to_string(GetParam()));
        step();
        for (size_t nClient = 0; nClient < CLIENTS; ++nClient)
            ASSERT_NO_FATAL_FAILURE(expectAnswersInOrder(nClient, false));
    }
    for (int nTick = 0; nTick < 2000; ++nTick)
    {
        m_driver.ticks(1);
        runBoth();
    }
    size_t nAnswered = 0;
    for (size_t nClient = 0; nClient < CLIENTS; ++nClient)
    {
        ASSERT_NO_FATAL_FAILURE(expectAnswersInOrder(nClient, true));
        nAnswered += answered(processOf(nClient)).size();
    }
    EXPECT_GT(nAnswered, 1000U);
    EXPECT_EQ(m_driver.m_statistics.m_ullDropped, 0U);
    m_driver.m_registry.dropAll("test");
    m_driver.m_registry.sweep();
    runBoth();
    EXPECT_FALSE(m_driver.m_mediaClock.hasFast());
    EXPECT_EQ(m_driver.m_clipStore.count(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RequestMix, testing::Range(1U, 7U));
