// Clients: connecting, leaving, dying, not reading, and sending rubbish, on a driver in memory.
#include "DriverTestSupport.h"

#include <gmock/gmock.h>

#include <random>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{
// A driver with a clip, and client 1 playing it on a stream.
class Clients : public testing::Test
{
protected:
    Clients()
    {
        writeULaw(m_driver.path("clip.wav"), SF_FORMAT_WAV, noise(1000));
        m_nFileID = m_driver.openFile(m_driver.path("clip.wav"));
        m_nStreamID = m_driver.openStream("call");
    }

    void startBoth()
    {
        EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1000));
        EXPECT_TRUE(m_driver.recordFile(m_nStreamID, m_driver.path("msg.wav"), 8000));
        m_driver.ticks(1);
    }

    // All that client 1 held is gone, and its files are complete.
    void expectDropped()
    {
        m_driver.m_registry.sweep();
        EXPECT_FALSE(m_driver.client().m_bPortOpen);
        EXPECT_EQ(m_driver.m_registry.find(m_driver.m_nConnectID), nullptr);
        EXPECT_FALSE(m_driver.m_mediaClock.hasFast());
        EXPECT_EQ(m_driver.m_clipStore.count(), 0U);
        EXPECT_EQ(readULawWav(m_driver.path("msg.wav")).size(), 160U);
        EXPECT_EQ(readULawWav(m_driver.path("call-1.heard.wav")).size(), 160U);
    }

    CDriverInMemory m_driver;
    int m_nFileID = 0;
    int m_nStreamID = 0;
};
} // namespace

TEST_F(Clients, GetPositiveConnectIDsThatAreNeverUsedAgain)
{
    EXPECT_GT(m_driver.m_nConnectID, 0);
    const int nSecond = m_driver.connect(200);
    EXPECT_GT(nSecond, m_driver.m_nConnectID);
    m_driver.request(command(MICMD_DISCONNECT, nSecond, 1), 200);
    EXPECT_GT(m_driver.connect(200), nSecond);
}

TEST_F(Clients, OfUnknownIDsAreNotAnswered)
{
    for (const int nConnectID : {0, -1, 2, INT_MAX, INT_MIN})
    {
        m_driver.client().m_vResponses.clear();
        m_driver.request(command(MICMD_PING, nConnectID, 5));
        EXPECT_THAT(m_driver.client().m_vResponses, IsEmpty());
        EXPECT_THAT(m_driver.m_log.text(), HasSubstr("there is no client " + std::to_string(nConnectID)));
    }
}

TEST_F(Clients, WithOtherPipeNamesAreNotConnected)
{
    structMICMD cmd = command(MICMD_CONNECT, 0, 7);
    setText(cmd.connect.szRspPipe, "/etc/passwd");
    setText(cmd.connect.szEvtPipe, MI_EVENT_PIPE_PREFIX "100");
    m_driver.request(cmd);
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("dropped MICMD_CONNECT, sequence 7: \"/etc/passwd\""));
    EXPECT_THAT(m_driver.m_registry.clients(), SizeIs(1));
}

TEST_F(Clients, LeaveAfterTheAnswerToTheirDisconnect)
{
    startBoth();
    const structMIRSP rsp = m_driver.streamRequest(MICMD_DISCONNECT, 0);
    EXPECT_EQ(rsp.s_mirsp, MIRSP_STATUS);
    EXPECT_EQ(rsp.s_nResult, MISTATUS_OK);
    expectDropped();
    EXPECT_THAT(m_driver.client().m_vEvents, IsEmpty());
}

TEST_F(Clients, ThatConnectAgainReplaceTheirFormerSelves)
{
    startBoth();
    const int nNew = m_driver.connect(100);
    EXPECT_GT(nNew, m_driver.m_nConnectID);
    EXPECT_EQ(m_driver.m_registry.find(m_driver.m_nConnectID), nullptr);
    EXPECT_FALSE(m_driver.m_mediaClock.hasFast());
    EXPECT_EQ(readULawWav(m_driver.path("msg.wav")).size(), 160U);
    m_driver.m_nConnectID = nNew;
    EXPECT_FALSE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 10));
    EXPECT_GT(m_driver.openStream("call"), m_nStreamID);
}

TEST_F(Clients, WhoseProcessEndedAreDropped)
{
    startBoth();
    m_driver.m_registry.dropDead();
    EXPECT_NE(m_driver.m_registry.find(m_driver.m_nConnectID), nullptr);
    m_driver.client().m_bProcessGone = true;
    m_driver.m_registry.dropDead();
    expectDropped();
}

TEST_F(Clients, WithoutAReaderAreDroppedAtTheNextResponse)
{
    startBoth();
    m_driver.client().m_bGone = true;
    m_driver.streamRequest(MICMD_PING, 0);
    expectDropped();
}

TEST_F(Clients, WithoutAReaderAreDroppedAtTheNextEvent)
{
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 160));
    m_driver.client().m_bGone = true;
    m_driver.ticks(1);
    EXPECT_EQ(m_driver.m_registry.find(m_driver.m_nConnectID), nullptr);
}

TEST_F(Clients, ThatDoNotReadTheirResponsesLoseThemAndNothingElse)
{
    m_driver.client().m_bResponsesFull = true;
    structMICMD cmd = command(MICMD_PLAYCLIP, m_driver.m_nConnectID, 55);
    cmd.playClip.nStreamID = m_nStreamID;
    cmd.playClip.nFileID = m_nFileID;
    cmd.playClip.nOffset = 0;
    cmd.playClip.nLength = 160;
    m_driver.request(cmd);
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("the one to sequence 55 is lost"));
    m_driver.ticks(1);
    EXPECT_THAT(m_driver.client().m_vEvents, SizeIs(1));
}

TEST_F(Clients, ThatDoNotReadTheirEventsGetThemAllLaterInOrder)
{
    m_driver.client().m_nRoom = 3;
    std::vector<uint32_t> vExpected;
    for (int nPlay = 0; nPlay < 200; ++nPlay)
    {
        EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1));
        vExpected.push_back(m_driver.sequence());
        m_driver.ticks(1);
    }
    EXPECT_THAT(m_driver.client().m_vEvents, SizeIs(3));
    EXPECT_TRUE(m_driver.client().m_bWatchesRoom);

    m_driver.client().m_nRoom = 100;
    m_driver.m_registry.flushEvents(m_driver.m_nConnectID);
    EXPECT_THAT(m_driver.client().m_vEvents, SizeIs(103));
    EXPECT_TRUE(m_driver.client().m_bWatchesRoom);

    m_driver.client().m_nRoom = 1000;
    m_driver.m_registry.flushEvents(m_driver.m_nConnectID);
    EXPECT_FALSE(m_driver.client().m_bWatchesRoom);
    std::vector<uint32_t> vGot;
    for (const structMIEVT& evt : m_driver.client().m_vEvents)
        vGot.push_back(evt.nSequenceID);
    EXPECT_EQ(vGot, vExpected);
}

TEST_F(Clients, WithTooManyWaitingEventsCanStartNothingMore)
{
    m_driver.client().m_nRoom = 0;
    CClient* pClient = m_driver.m_registry.find(m_driver.m_nConnectID);
    for (size_t nEvent = 0; nEvent + 1 < CClient::MAX_WAITING_EVENTS; ++nEvent)
        pClient->queueEvent({});
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1));
    m_driver.ticks(1);
    EXPECT_FALSE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1));
    EXPECT_FALSE(m_driver.recordFile(m_nStreamID, m_driver.path("msg.wav"), 1));
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("does not take its events"));
    m_driver.client().m_nRoom = SIZE_MAX;
    m_driver.m_registry.flushEvents(m_driver.m_nConnectID);
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1));
}

TEST_F(Clients, CannotTouchStreamsAndFilesOfOthers)
{
    const int nOther = m_driver.connect(200);
    structMICMD cmd = command(MICMD_CLOSESTREAM, nOther, 5);
    cmd.stream.nStreamID = m_nStreamID;
    EXPECT_EQ(m_driver.request(cmd, 200).s_nResult, MISTATUS_FAILED);
    cmd = command(MICMD_CLOSEFILE, nOther, 6);
    cmd.closeFile.nFileID = m_nFileID;
    EXPECT_EQ(m_driver.request(cmd, 200).s_nResult, MISTATUS_FAILED);
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1));
}

TEST_F(Clients, AreServedApartWithEqualSequenceNumbers)
{
    const int nOther = m_driver.connect(200);
    structMICMD cmd = command(MICMD_OPENSTREAM, nOther, 5);
    setText(cmd.openStream.szCallID, "other");
    cmd.openStream.nLegID = 1;
    const int nOtherStream = m_driver.request(cmd, 200).s_nStreamID;
    EXPECT_NE(nOtherStream, m_nStreamID);
    for (const auto& [nConnectID, nProcess, nStream] :
         {std::tuple(nOther, 200, nOtherStream), std::tuple(m_driver.m_nConnectID, 100, m_nStreamID)})
    {
        cmd = command(MICMD_PLAYFILE, nConnectID, 77);
        cmd.playFile.nStreamID = nStream;
        setText(cmd.playFile.szFileName, m_driver.path("clip.wav"));
        cmd.playFile.nStartPos = 900;
        EXPECT_EQ(m_driver.request(cmd, nProcess).s_nResult, MISTATUS_OK);
    }
    m_driver.ticks(1);
    EXPECT_THAT(m_driver.client(100).m_vEvents, testing::ElementsAre(structMIEVT{MIEVT_DONE, m_nStreamID, 77, 0}));
    EXPECT_THAT(m_driver.client(200).m_vEvents, testing::ElementsAre(structMIEVT{MIEVT_DONE, nOtherStream, 77, 0}));
}

TEST_F(Clients, SendingRandomRecordsAreAnsweredOnceEachAndBreakNothing)
{
    ASSERT_EQ(::chdir(m_driver.m_folder.folder().c_str()), 0); // names that come out valid are made here
    std::mt19937 random(20);
    size_t nAnswerable = 0;
    m_driver.client().m_vResponses.clear();
    for (int nRound = 0; nRound < 30000; ++nRound)
    {
        structMICMD cmd;
        auto* pBytes = reinterpret_cast<unsigned char*>(&cmd);
        for (size_t nByte = 0; nByte < sizeof(cmd); ++nByte)
            pBytes[nByte] = static_cast<unsigned char>(random() >> 24);
        // Mostly commands that exist, of a client that exists, half of them on a stream that exists.
        if (random() % 8 != 0)
        {
            cmd.s_micmd = static_cast<MICMD>(random() % 19);
            cmd.nConnectID = m_driver.m_nConnectID;
            if (random() % 2 != 0)
                cmd.stream.nStreamID = m_nStreamID;
        }
        if (cmd.s_micmd == MICMD_DISCONNECT || (cmd.s_micmd == MICMD_CLOSESTREAM && random() % 16 != 0))
            cmd.s_micmd = MICMD_DUMP;
        nAnswerable += cmd.s_micmd != MICMD_CONNECT && cmd.nConnectID == m_driver.m_nConnectID ? 1 : 0;
        m_driver.m_handler.handle(cmd);
        if (random() % 16 == 0)
            m_driver.ticks(1);
    }
    EXPECT_GT(nAnswerable, 20000U);
    EXPECT_EQ(m_driver.client().m_vResponses.size(), nAnswerable);
    EXPECT_GT(m_driver.openStream("after"), 0);
}
