// The commands of the request table, each done and refused, on a driver in memory.
#include "DriverTestSupport.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
class RequestHandlerTest : public testing::Test
{
protected:
    RequestHandlerTest()
    {
        writeULaw(m_driver.path("clip.wav"), SF_FORMAT_WAV, m_clip);
        m_nFileID = m_driver.openFile(m_driver.path("clip.wav"));
        m_nStreamID = m_driver.openStream("call");
    }

    CSamples heard() { return readULawWav(m_driver.path("call-1.heard.wav")); }

    structMIEVT done(uint32_t nSequenceNo, int32_t nStatus) const
    {
        return {MIEVT_DONE, m_nStreamID, nSequenceNo, nStatus};
    }

    std::vector<structMIEVT>& events() { return m_driver.client().m_vEvents; }

    const CSamples m_clip = noise(1000);
    CDriverInMemory m_driver;
    int m_nFileID = 0;
    int m_nStreamID = 0;
};

using Commands = RequestHandlerTest;

bool isRefusal(const structMIRSP& rsp)
{
    return rsp.s_mirsp == MIRSP_STATUS && rsp.s_nResult == MISTATUS_FAILED;
}

bool isSuccess(const structMIRSP& rsp)
{
    return rsp.s_mirsp == MIRSP_STATUS && rsp.s_nResult == MISTATUS_OK;
}
} // namespace

TEST_F(Commands, OpenFileAndOpenStreamIssuePositiveIDs)
{
    EXPECT_GT(m_nFileID, 0);
    EXPECT_GT(m_nStreamID, 0);
}

TEST_F(Commands, IDsAreNeverUsedAgain)
{
    structMICMD cmd = command(MICMD_CLOSEFILE, m_driver.m_nConnectID, 900);
    cmd.closeFile.nFileID = m_nFileID;
    EXPECT_TRUE(isSuccess(m_driver.request(cmd)));
    EXPECT_TRUE(isRefusal(m_driver.request(cmd)));
    EXPECT_GT(m_driver.openFile(m_driver.path("clip.wav")), m_nFileID);
    EXPECT_TRUE(isSuccess(m_driver.streamRequest(MICMD_CLOSESTREAM, m_nStreamID)));
    EXPECT_TRUE(isRefusal(m_driver.streamRequest(MICMD_CLOSESTREAM, m_nStreamID)));
    EXPECT_GT(m_driver.openStream("call"), m_nStreamID);
}

TEST_F(Commands, OpenFileTwiceSharesTheClipUnderTwoIDs)
{
    const int nSecond = m_driver.openFile(m_driver.path("clip.wav"));
    EXPECT_NE(nSecond, m_nFileID);
    EXPECT_EQ(m_driver.m_clipStore.count(), 1U);
}

TEST_F(Commands, OpenFileRefusesMissingAndUnreadableFilesWithALine)
{
    EXPECT_EQ(m_driver.openFile(m_driver.path("none.wav")), 0);
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("refused MICMD_OPENFILE (3) of client 1"));
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("none.wav\" cannot be opened: No such file"));
    EXPECT_EQ(m_driver.openFile(""), 0);
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("the file name is empty"));
    EXPECT_EQ(m_driver.openFile(std::string(MI_FILE_NAME_SIZE, 'x')), 0);
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("the file name has no end"));
}

TEST_F(Commands, OpenStreamRefusesBadCallIDsWithALine)
{
    EXPECT_EQ(m_driver.openStream("../call"), 0);
    EXPECT_EQ(m_driver.openStream(""), 0);
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("refused MICMD_OPENSTREAM"));
    EXPECT_EQ(m_driver.openStream(std::string(MI_CALL_ID_SIZE, 'x')), 0);
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("the call id has no end"));
}

TEST_F(Commands, LogLinesCannotBeForged)
{
    EXPECT_EQ(m_driver.openFile("a\nerror: forged"), 0);
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("a\\x0aerror: forged"));
}

TEST_F(Commands, PlayClipPlaysItsPart)
{
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 100, 300));
    const uint32_t nSequenceNo = m_driver.sequence();
    EXPECT_THAT(events(), IsEmpty());
    m_driver.ticks(2);
    EXPECT_THAT(events(), ElementsAre(done(nSequenceNo, 0)));
    EXPECT_EQ(heard(), slice(m_clip, 100, 400));
}

TEST_F(Commands, PlayClipPastTheEndPlaysToTheEnd)
{
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 900, 0xFFFFFFFF));
    m_driver.ticks(10);
    EXPECT_EQ(heard(), slice(m_clip, 900, 1000));
}

TEST_F(Commands, PlayClipAtTheEndPlaysNothingAndPastItIsRefused)
{
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 1000, 5));
    m_driver.ticks(1);
    EXPECT_EQ(events().size(), 1U);
    EXPECT_FALSE(m_driver.playClip(m_nStreamID, m_nFileID, 1001, 5));
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("position 1001 is past the end"));
    EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(Commands, PlayClipRefusesUnknownFilesAndStreams)
{
    EXPECT_FALSE(m_driver.playClip(m_nStreamID, m_nFileID + 1, 0, 5));
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("the client has no file 2"));
    EXPECT_FALSE(m_driver.playClip(m_nStreamID + 1, m_nFileID, 0, 5));
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("the client has no stream 2"));
    EXPECT_FALSE(m_driver.playClip(-1, m_nFileID, 0, 5));
}

TEST_F(Commands, PlayOfAFileThatIsClosedMeanwhileGoesOn)
{
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1000));
    structMICMD cmd = command(MICMD_CLOSEFILE, m_driver.m_nConnectID, 900);
    cmd.closeFile.nFileID = m_nFileID;
    EXPECT_TRUE(isSuccess(m_driver.request(cmd)));
    m_driver.ticks(10);
    EXPECT_EQ(heard(), m_clip);
}

TEST_F(Commands, SecondPlayIsRefusedAndDisturbsNothing)
{
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1000));
    EXPECT_FALSE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 10));
    EXPECT_FALSE(m_driver.playFile(m_nStreamID, m_driver.path("clip.wav"), 0));
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("stream 1 is playing"));
    m_driver.ticks(10);
    EXPECT_EQ(heard(), m_clip);
    EXPECT_EQ(events().size(), 1U);
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 10));
}

TEST_F(Commands, PlayFilePlaysFromItsStartPosition)
{
    EXPECT_TRUE(m_driver.playFile(m_nStreamID, m_driver.path("clip.wav"), 400));
    m_driver.ticks(10);
    EXPECT_EQ(heard(), slice(m_clip, 400, 1000));
}

TEST_F(Commands, PlayFileRefusesMissingFilesAndPositionsPastTheEnd)
{
    EXPECT_FALSE(m_driver.playFile(m_nStreamID, m_driver.path("none.wav"), 0));
    EXPECT_FALSE(m_driver.playFile(m_nStreamID, m_driver.path("clip.wav"), 1001));
    EXPECT_FALSE(m_driver.playFile(m_nStreamID, "", 0));
    EXPECT_FALSE(m_driver.playFile(m_nStreamID + 1, m_driver.path("clip.wav"), 0));
    m_driver.ticks(1);
    EXPECT_THAT(events(), IsEmpty());
}

TEST_F(Commands, RecordFileRecordsAndIsAskedForTimeAndStatus)
{
    writeULaw(m_driver.path("call.in.wav"), SF_FORMAT_WAV, noise(3000, 2));
    EXPECT_EQ(m_driver.streamRequest(MICMD_RECORDGETTIME, m_nStreamID).s_nTimeMs, 0);
    EXPECT_EQ(m_driver.streamRequest(MICMD_RECORDGETSTATUS, m_nStreamID).s_nRecordStatus, 0);
    EXPECT_TRUE(m_driver.recordFile(m_nStreamID, m_driver.path("msg.au"), 800));
    const uint32_t nSequenceNo = m_driver.sequence();
    m_driver.ticks(3);
    structMIRSP rsp = m_driver.streamRequest(MICMD_RECORDGETTIME, m_nStreamID);
    EXPECT_EQ(rsp.s_mirsp, MIRSP_RECORDGETTIME);
    EXPECT_EQ(rsp.s_nTimeMs, 60);
    rsp = m_driver.streamRequest(MICMD_RECORDGETSTATUS, m_nStreamID);
    EXPECT_EQ(rsp.s_mirsp, MIRSP_RECORDGETSTATUS);
    EXPECT_EQ(rsp.s_nRecordStatus, 1);
    m_driver.ticks(2);
    EXPECT_THAT(events(), ElementsAre(done(nSequenceNo, 0)));
    EXPECT_EQ(m_driver.streamRequest(MICMD_RECORDGETTIME, m_nStreamID).s_nTimeMs, 100);
    EXPECT_EQ(m_driver.streamRequest(MICMD_RECORDGETSTATUS, m_nStreamID).s_nRecordStatus, 2);
    EXPECT_EQ(readULawFile(m_driver.path("msg.au"), SF_FORMAT_AU), slice(noise(3000, 2), 0, 800));
}

TEST_F(Commands, RecordFileRefusesWhatItCannotWriteAndASecondRecording)
{
    EXPECT_FALSE(m_driver.recordFile(m_nStreamID, m_driver.path("msg.mp3"), 800));
    EXPECT_FALSE(m_driver.recordFile(m_nStreamID, m_driver.path("none/msg.wav"), 800));
    EXPECT_FALSE(m_driver.recordFile(m_nStreamID, "", 800));
    EXPECT_FALSE(m_driver.recordFile(m_nStreamID, m_driver.path("call-1.heard.wav"), 800));
    EXPECT_FALSE(m_driver.recordFile(m_nStreamID + 1, m_driver.path("msg.wav"), 800));
    EXPECT_TRUE(m_driver.recordFile(m_nStreamID, m_driver.path("msg.wav"), 800));
    EXPECT_FALSE(m_driver.recordFile(m_nStreamID, m_driver.path("other.wav"), 800));
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("stream 1 is recording"));
    EXPECT_NE(::access(m_driver.path("other.wav").c_str(), F_OK), 0);
}

TEST_F(Commands, QueriesOfUnknownStreamsAreRefused)
{
    EXPECT_TRUE(isRefusal(m_driver.streamRequest(MICMD_RECORDGETTIME, 77)));
    EXPECT_TRUE(isRefusal(m_driver.streamRequest(MICMD_RECORDGETSTATUS, 77)));
    EXPECT_FALSE(m_driver.cancel(77, 1));
}

TEST_F(Commands, CancelEndsTheSideThatItsTypeNames)
{
    struct CCase
    {
        uint32_t m_nType;
        bool m_bPlay;
        bool m_bRecord;
    };
    for (const CCase& test : {CCase{1, true, false}, CCase{2, false, true}, CCase{0, true, true}, CCase{9, true, true}})
    {
        events().clear();
        EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1000));
        const uint32_t nPlay = m_driver.sequence();
        EXPECT_TRUE(m_driver.recordFile(m_nStreamID, m_driver.path("msg.wav"), 8000));
        const uint32_t nRecord = m_driver.sequence();
        EXPECT_TRUE(m_driver.cancel(m_nStreamID, test.m_nType));
        std::vector<structMIEVT> vExpected;
        if (test.m_bPlay)
            vExpected.push_back(done(nPlay, DONE_CANCELLED));
        if (test.m_bRecord)
            vExpected.push_back(done(nRecord, DONE_CANCELLED));
        EXPECT_EQ(events(), vExpected) << "type " << test.m_nType;
        EXPECT_TRUE(m_driver.cancel(m_nStreamID, 0));
    }
}

TEST_F(Commands, CancelOfNothingSucceedsWithoutAnEvent)
{
    EXPECT_TRUE(m_driver.cancel(m_nStreamID, 1));
    EXPECT_TRUE(m_driver.cancel(m_nStreamID, 2));
    EXPECT_THAT(events(), IsEmpty());
}

TEST_F(Commands, EventsFollowTheResponsesToTheirCommands)
{
    m_driver.client().m_vOrder.clear();
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1));
    m_driver.ticks(1);
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1));
    EXPECT_TRUE(m_driver.cancel(m_nStreamID, 1));
    const uint32_t n = m_driver.sequence();
    EXPECT_THAT(m_driver.client().m_vOrder,
                ElementsAre("response " + std::to_string(n - 2), "event " + std::to_string(n - 2),
                            "response " + std::to_string(n - 1), "response " + std::to_string(n),
                            "event " + std::to_string(n - 1)));
}

TEST_F(Commands, StatisticsAreRefused)
{
    EXPECT_TRUE(isRefusal(m_driver.streamRequest(MICMD_PLAYGETSTATS, m_nStreamID)));
    EXPECT_TRUE(isRefusal(m_driver.streamRequest(MICMD_RECORDGETSTATS, m_nStreamID)));
}

TEST_F(Commands, UnknownCodesAreRefused)
{
    for (const int nCode : {0, 17, -1, INT_MIN})
        EXPECT_TRUE(isRefusal(m_driver.streamRequest(static_cast<MICMD>(nCode), m_nStreamID))) << nCode;
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("refused unknown command (17) of client 1"));
}

TEST_F(Commands, PingIsAnswered)
{
    const structMIRSP rsp = m_driver.streamRequest(MICMD_PING, 0);
    EXPECT_TRUE(isSuccess(rsp));
    for (const unsigned char byte : rsp.abReserved)
        EXPECT_EQ(byte, 0);
}

TEST_F(Commands, DumpLogsTheWholeState)
{
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1000));
    EXPECT_TRUE(m_driver.recordFile(m_nStreamID, m_driver.path("msg.wav"), 8000));
    m_driver.ticks(1);
    EXPECT_TRUE(isSuccess(m_driver.streamRequest(MICMD_DUMP, 0)));
    const std::string strLog = m_driver.m_log.text();
    EXPECT_THAT(strLog, HasSubstr("dump for client 1: 1 clients, 1 clips in memory"));
    EXPECT_THAT(strLog, HasSubstr("dump: client 1, process 100, 0 events wait"));
    EXPECT_THAT(strLog, HasSubstr("dump:   file 1, \"" + m_driver.path("clip.wav") + "\", 1000 samples"));
    EXPECT_THAT(strLog, HasSubstr("dump:   stream 1, file channel, call id \"call\", leg 1, plays"));
    EXPECT_THAT(strLog, HasSubstr("record status 1, 20 ms recorded"));
}

TEST_F(Commands, CloseStreamEndsEverythingOnItWithoutEvents)
{
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 1000));
    EXPECT_TRUE(m_driver.recordFile(m_nStreamID, m_driver.path("msg.wav"), 8000));
    m_driver.ticks(2);
    EXPECT_TRUE(isSuccess(m_driver.streamRequest(MICMD_CLOSESTREAM, m_nStreamID)));
    m_driver.ticks(10);
    EXPECT_THAT(events(), IsEmpty());
    EXPECT_EQ(heard(), slice(m_clip, 0, 320));
    EXPECT_EQ(readULawWav(m_driver.path("msg.wav")).size(), 320U);
    EXPECT_FALSE(m_driver.m_mediaClock.hasFast());
}

TEST_F(Commands, NothingIsMovedUnlessItPlaysOrRecords)
{
    EXPECT_FALSE(m_driver.m_mediaClock.hasFast());
    EXPECT_TRUE(m_driver.playClip(m_nStreamID, m_nFileID, 0, 100));
    EXPECT_TRUE(m_driver.m_mediaClock.hasFast());
    m_driver.ticks(1);
    EXPECT_FALSE(m_driver.m_mediaClock.hasFast());
    EXPECT_TRUE(m_driver.recordFile(m_nStreamID, m_driver.path("msg.wav"), 160));
    EXPECT_TRUE(m_driver.m_mediaClock.hasFast());
}

// A client may have two streams and two files open.
class CommandsWithinLimits : public testing::Test
{
protected:
    CommandsWithinLimits()
    {
        m_driver.m_nConnectID = m_driver.connect(100);
        writeULaw(m_driver.path("clip.wav"), SF_FORMAT_WAV, noise(100));
    }

    int openFile() { return m_driver.openFile(m_driver.path("clip.wav")); }

    CInlineExecutor m_inline;
    CDriverInMemory m_driver{m_inline, m_inline, {.m_bRealTime = false}, {2, 2}};
};

TEST_F(CommandsWithinLimits, FurtherStreamsAreRefusedUntilOneIsClosed)
{
    const int nFirst = m_driver.openStream("call", 1);
    EXPECT_NE(nFirst, 0);
    EXPECT_NE(m_driver.openStream("call", 2), 0);
    EXPECT_EQ(m_driver.openStream("call", 3), 0);
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("the client has 2 streams open, which is the most"));
    EXPECT_TRUE(isSuccess(m_driver.streamRequest(MICMD_CLOSESTREAM, nFirst)));
    EXPECT_NE(m_driver.openStream("call", 3), 0);
}

TEST_F(CommandsWithinLimits, FurtherFilesAreRefusedUntilOneIsClosed)
{
    const int nFirst = openFile();
    EXPECT_NE(nFirst, 0);
    EXPECT_NE(openFile(), 0);
    EXPECT_EQ(openFile(), 0);
    EXPECT_THAT(m_driver.m_log.text(), HasSubstr("the client has 2 files open, which is the most"));
    structMICMD cmd = command(MICMD_CLOSEFILE, m_driver.m_nConnectID, 900);
    cmd.closeFile.nFileID = nFirst;
    EXPECT_TRUE(isSuccess(m_driver.request(cmd)));
    EXPECT_NE(openFile(), 0);
}

TEST_F(CommandsWithinLimits, OtherClientsHaveTheirOwn)
{
    EXPECT_NE(openFile(), 0);
    EXPECT_NE(openFile(), 0);
    m_driver.m_nConnectID = m_driver.connect(200);
    structMICMD cmd = command(MICMD_OPENFILE, m_driver.m_nConnectID, 900);
    setText(cmd.openFile.szFileName, m_driver.path("clip.wav"));
    EXPECT_EQ(m_driver.request(cmd, 200).s_mirsp, MIRSP_OPENFILE);
}
