// A quiet second of the event thread: the request pipe, the connect, the ping, the counted lines.
#include "EventThreadFixture.h"
#include "PlatformSeams.h"

#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

class MIntfEventThreadIdle : public CEventThreadTest
{
protected:
    MIntfEventThreadIdle()
    {
        seams::freezeTick(NOW);
        m_pmintf->m_ullLastResponseTick = NOW;
    }

    ~MIntfEventThreadIdle() override
    {
        stopDriver();
        unlink(MI_REQUEST_PIPE);
    }

    // A driver with a request pipe of its own, silent.
    void startDriver()
    {
        mkfifo(MI_REQUEST_PIPE, 0666);
        m_nDriverReader = open(MI_REQUEST_PIPE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(m_nDriverReader, 0);
    }

    void stopDriver()
    {
        if (m_nDriverReader != -1)
            close(m_nDriverReader);
        m_nDriverReader = -1;
    }

    std::vector<structMICMD> takeDriverRequests() const
    {
        std::vector<structMICMD> vRequests;
        structMICMD cmd;
        while (read(m_nDriverReader, &cmd, sizeof(cmd)) == static_cast<ssize_t>(sizeof(cmd)))
            vRequests.push_back(cmd);
        return vRequests;
    }

    CLogLines idlePassLines()
    {
        m_newLines.beginHere();
        m_pmintf->idlePass();
        return m_newLines.get();
    }

    // The driver behind the fixture's pipe goes, unnoticed so far.
    void loseRequestReader()
    {
        close(m_nRequestReader);
        m_nRequestReader = -1;
    }

    static constexpr uint64_t NOW = 1000000;
    const CLogLine m_lineOpening = operationLine("CMIntf::eventThreadFunc, about to open request pipe "
                                                 "\"/tmp/OrvMediaIntf-Req\"\n");
    const CLogLine m_lineReopening = operationLine("CMIntf::reopenClipFiles");
    int m_nDriverReader = -1;
};

TEST_F(MIntfEventThreadIdle, ConnectedPassWritesNothing)
{
    EXPECT_EQ(CLogLines(), idlePassLines());
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(77, m_pmintf->m_nConnectID);
}

TEST_F(MIntfEventThreadIdle, MissingRequestPipeIsTriedAtEachPass)
{
    disconnect();
    unlink(MI_REQUEST_PIPE);
    const CLogLines vExpected = {m_lineOpening, errorLine(text("(Error) CMIntf::eventThreadFunc, can't open request "
                                                               "pipe \"/tmp/OrvMediaIntf-Req\" (%d)",
                                                               ENOENT))};
    for (int nPass = 0; nPass < 3; ++nPass)
        EXPECT_EQ(vExpected, idlePassLines());
    EXPECT_EQ(-1, m_pmintf->m_npipeReq);
    EXPECT_EQ(-1, m_pmintf->m_nConnectID);
}

TEST_F(MIntfEventThreadIdle, RequestPipeWithoutAReaderIsTriedAtEachPass)
{
    disconnect();
    startDriver();
    stopDriver();
    const CLogLines vExpected = {m_lineOpening, errorLine(text("(Error) CMIntf::eventThreadFunc, can't open request "
                                                               "pipe \"/tmp/OrvMediaIntf-Req\" (%d)",
                                                               ENXIO))};
    for (int nPass = 0; nPass < 2; ++nPass)
        EXPECT_EQ(vExpected, idlePassLines());
    EXPECT_EQ(-1, m_pmintf->m_npipeReq);
}

TEST_F(MIntfEventThreadIdle, DriverThatAppearsIsConnectedAndGetsTheClipFiles)
{
    int nFileID = 0;
    char szName[] = "/a.vox";
    disconnect();
    EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->openFile(szName, &nFileID));
    startDriver();
    m_pmintf->m_nNextSequenceNo = 41;
    respond(41, MIRSP_CONNECT, 1234);
    respond(42, MIRSP_OPENFILE, 9);
    const CLogLines vLines = idlePassLines();

    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(2u, vAddresses.size());
    const CLogLines vExpected =
        CLogLines{m_lineOpening} + immediateLines(vAddresses[0], "MICMD_CONNECT", 41, "MIRSP_CONNECT") +
        CLogLines{infoLine("(Info) CMIntf::eventThreadFunc, MICMD_CONNECT returned s_nConnectID = \"1234\", "
                           ": fileid = (1234)"),
                  m_lineReopening, infoLine("(Info) CMIntf::reopenClipFiles, m_nConnectID= \"1234\" ")} +
        immediateLines(vAddresses[1], "MICMD_OPENFILE", 42, "MIRSP_OPENFILE") +
        CLogLines{infoLine("(Info) CMIntf::reopenClipFiles, m_nCMIntfFileID= \"9\" ")};
    EXPECT_EQ(vExpected, vLines);
    EXPECT_EQ(1234, m_pmintf->m_nConnectID);
    EXPECT_NE(-1, m_pmintf->m_npipeReq);
    EXPECT_EQ(9, m_pmintf->mapFileIDToCMIntfFileID(nFileID));

    const std::vector<structMICMD> vRequests = takeDriverRequests();
    ASSERT_EQ(2u, vRequests.size());
    EXPECT_EQ(MICMD_CONNECT, vRequests[0].s_micmd);
    EXPECT_EQ(41u, vRequests[0].nSequenceNo);
    const std::string strProcessID = std::to_string(getpid());
    EXPECT_EQ("/tmp/OrvMediaIntf-Rsp-p" + strProcessID, vRequests[0].connect.szRspPipe);
    EXPECT_EQ("/tmp/OrvMediaIntf-Evt-p" + strProcessID, vRequests[0].connect.szEvtPipe);
    EXPECT_EQ(MICMD_OPENFILE, vRequests[1].s_micmd);
    EXPECT_EQ(1234, vRequests[1].nConnectID);

    EXPECT_EQ(CLogLines(), idlePassLines()); // and no second connect

    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->closeFile(nFileID));
}

TEST_F(MIntfEventThreadIdle, RequestPipeIsOpenedForNonBlockingWrites)
{
    disconnect();
    startDriver();
    respondNext(MIRSP_CONNECT, 1234);
    m_pmintf->idlePass();
    const int nFlags = fcntl(m_pmintf->m_npipeReq, F_GETFL);
    EXPECT_EQ(O_WRONLY, nFlags & O_ACCMODE);
    EXPECT_NE(0, nFlags & O_NONBLOCK);
}

TEST_F(MIntfEventThreadIdle, LocksAreFreeWhileItConnectsAndReopens)
{
    disconnect();
    startDriver();
    respondNext(MIRSP_CONNECT, 1234);
    std::vector<int> vDepths;
    {
        CLineHook hook(m_pLog, [&](const std::string& strLine) {
            if (contains(strLine, "CMIntf::sendCommand (0), cmd") || contains(strLine, "CMIntf::reopenClipFiles"))
                vDepths.push_back(m_pmintf->m_pCritSecCMIntf->depth());
        });
        m_pmintf->idlePass();
    }
    EXPECT_EQ((std::vector<int>{0, 0, 0}), vDepths); // the request, two lines of the reopening
}

TEST_F(MIntfEventThreadIdle, RefusedConnectIsNotRetriedWhileThePipeIsOpen)
{
    disconnect();
    startDriver();
    respond(1, MIRSP_STATUS, 1);
    const CLogLines vLines = idlePassLines();
    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(1u, vAddresses.size());
    EXPECT_EQ(CLogLines{m_lineOpening} + immediateRefusedLines(vAddresses[0], "MICMD_CONNECT", 1), vLines);
    EXPECT_EQ(-1, m_pmintf->m_nConnectID);
    EXPECT_EQ(1u, takeDriverRequests().size());

    for (int nPass = 0; nPass < 3; ++nPass)
        EXPECT_EQ(CLogLines(), idlePassLines());
    EXPECT_TRUE(takeDriverRequests().empty());
    EXPECT_NE(-1, m_pmintf->m_npipeReq);
    EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->ping());
}

TEST_F(MIntfEventThreadIdle, RefusedConnectKeepsTheOldConnectID)
{
    close(m_pmintf->m_npipeReq);
    m_pmintf->m_npipeReq = -1;
    startDriver();
    respondNext(MIRSP_STATUS, 1);
    m_pmintf->idlePass();
    EXPECT_EQ(77, m_pmintf->m_nConnectID);
    EXPECT_EQ(0u, m_pLog->count("reopenClipFiles"));
}

TEST_F(MIntfEventThreadIdle, PingFollowsMoreThanTwentySecondsOfSilence)
{
    seams::advanceTick(20000);
    EXPECT_EQ(CLogLines(), idlePassLines());
    EXPECT_TRUE(takeRequests().empty());

    seams::advanceTick(1);
    respondNext();
    const CLogLines vLines = idlePassLines();
    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(1u, vAddresses.size());
    EXPECT_EQ(immediateLines(vAddresses[0], "MICMD_PING", 1), vLines);
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_PING, vRequests[0].s_micmd);
    EXPECT_EQ(77, vRequests[0].nConnectID);

    EXPECT_EQ(CLogLines(), idlePassLines()); // the response was heard
}

TEST_F(MIntfEventThreadIdle, NoPingWhileTheLastResponseIsUnknown)
{
    m_pmintf->m_ullLastResponseTick = 0;
    seams::advanceTick(100000);
    EXPECT_EQ(CLogLines(), idlePassLines());
}

TEST_F(MIntfEventThreadIdle, NoPingWithoutARequestPipe)
{
    disconnect();
    seams::advanceTick(100000);
    m_pmintf->idlePass();
    EXPECT_EQ(0u, m_pLog->count("MICMD_PING"));
}

TEST_F(MIntfEventThreadIdle, PingGoesBeforeTheConnectOnAPipeJustOpened)
{
    disconnect();
    startDriver();
    seams::advanceTick(20001);
    respond(1, MIRSP_CONNECT, 1234);
    const CLogLines vLines = idlePassLines();
    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(2u, vAddresses.size());
    const CLogLines vExpected =
        CLogLines{m_lineOpening} + immediateNotConnectedLines(vAddresses[0], "MICMD_PING") +
        immediateLines(vAddresses[1], "MICMD_CONNECT", 1, "MIRSP_CONNECT") +
        CLogLines{infoLine("(Info) CMIntf::eventThreadFunc, MICMD_CONNECT returned s_nConnectID = \"1234\", "
                           ": fileid = (1234)"),
                  m_lineReopening, infoLine("(Info) CMIntf::reopenClipFiles, m_nConnectID= \"1234\" ")};
    EXPECT_EQ(vExpected, vLines);
    EXPECT_EQ(1u, takeDriverRequests().size());
}

TEST_F(MIntfEventThreadIdle, DriverThatRestartedIsNotNoticedUntilAWriteFails)
{
    loseRequestReader();
    startDriver();
    EXPECT_EQ(CLogLines(), idlePassLines());
    EXPECT_TRUE(takeDriverRequests().empty());

    EXPECT_EQ(MCS_PIPEWRITE, m_pmintf->ping());
    respondNext(MIRSP_CONNECT, 1234);
    m_pmintf->idlePass();
    EXPECT_EQ(1u, takeDriverRequests().size());
    EXPECT_EQ(1234, m_pmintf->m_nConnectID);
}

TEST_F(MIntfEventThreadIdle, NotConnectedFollowsAPingThatFailed)
{
    loseRequestReader();
    seams::advanceTick(20001);
    m_pmintf->idlePass();
    EXPECT_EQ(1u, m_pLog->count("error writing request pipe"));
    EXPECT_EQ(-1, m_pmintf->m_npipeReq);
    EXPECT_EQ(-1, m_pmintf->m_nConnectID);
    EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->ping());
}

// The application opens a file just when the ping has closed the request pipe, and gets its number.
TEST_F(MIntfEventThreadIdle, DescriptorNumberThatTheApplicationGotIsNotWrittenTo)
{
    const int nOldDescriptor = m_pmintf->m_npipeReq;
    int anPipe[2] = {-1, -1};
    loseRequestReader();
    seams::advanceTick(20001);
    {
        CLineHook hook(m_pLog, [&](const std::string& strLine) {
            if (contains(strLine, "oops timeout clear cmd"))
            {
                EXPECT_EQ(0, pipe2(anPipe, O_NONBLOCK | O_CLOEXEC));
                EXPECT_EQ(nOldDescriptor, dup2(anPipe[1], nOldDescriptor));
            }
        });
        m_pmintf->idlePass();
    }
    EXPECT_EQ(-1, m_pmintf->m_npipeReq);
    EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->ping());
    m_pmintf->idlePass();
    m_pmintf->ping();
    char c;
    EXPECT_EQ(-1, read(anPipe[0], &c, 1));
    EXPECT_EQ(EAGAIN, errno);
    // The application's write end may have got the number itself.
    if (anPipe[1] != nOldDescriptor)
        close(anPipe[1]);
    close(anPipe[0]);
    close(nOldDescriptor);
}

TEST_F(MIntfEventThreadIdle, FailedConnectThatLostThePipeIsRetriedAtTheNextPass)
{
    disconnect();
    startDriver();
    {
        // The driver dies between the open and the request.
        CLineHook hook(m_pLog, [&](const std::string& strLine) {
            if (contains(strLine, "CMIntf::sendCommand - sending"))
                stopDriver();
        });
        m_pmintf->idlePass();
    }
    EXPECT_EQ(-1, m_pmintf->m_npipeReq);
    startDriver();
    respondNext(MIRSP_CONNECT, 1234);
    m_pmintf->idlePass();
    EXPECT_EQ(1234, m_pmintf->m_nConnectID);
}

TEST_F(MIntfEventThreadIdle, CountedLinesComeOnTwoSuccessivePassesOfSixtyTwo)
{
    const CLogLine lineQuiet = {8, 4,
                                "(Info) CMIntf::eventThreadFunc - select on m_npipeEvt timed out, no data to read "};
    const CLogLine lineConnectID = infoLine("(Info) CMIntf::eventThreadFunc, m_nConnectID= \"77\" ");
    for (int nPass = 1; nPass <= 200; ++nPass)
    {
        CLogLines vExpected;
        if (nPass % 62 == 61)
            vExpected = {lineQuiet};
        if (nPass % 62 == 0)
            vExpected = {lineConnectID};
        EXPECT_EQ(vExpected, idlePassLines()) << "pass " << nPass;
    }
}

TEST_F(MIntfEventThreadIdle, QuietLineEndsItsPass)
{
    m_pmintf->m_nIdleCount = 60;
    disconnect();
    startDriver();
    respondNext(MIRSP_CONNECT, 1234);
    const CLogLines vLines = idlePassLines();
    EXPECT_EQ("(Info) CMIntf::eventThreadFunc - select on m_npipeEvt timed out, no data to read ",
              vLines.back().strText);
}

TEST_F(MIntfEventThreadIdle, ConnectIDLineShowsTheNewIDBeforeTheReopening)
{
    m_pmintf->m_nIdleCount = 61;
    disconnect();
    startDriver();
    respondNext(MIRSP_CONNECT, 1234);
    const CLogLines vLines = idlePassLines();
    ASSERT_LE(3u, vLines.size());
    EXPECT_EQ((CLogLines{infoLine("(Info) CMIntf::eventThreadFunc, m_nConnectID= \"1234\" "), m_lineReopening,
                         infoLine("(Info) CMIntf::reopenClipFiles, m_nConnectID= \"1234\" ")}),
              CLogLines(vLines.end() - 3, vLines.end()));
    EXPECT_EQ(0, m_pmintf->m_nIdleCount);
}

// The log file moves what it collected with its next line, which may never come.
TEST_F(MIntfEventThreadIdle, CollectedLinesAreInTheLogFileAfterIt)
{
    const std::string strPath = "/tmp/collected";
    m_pmintf->replaceLogFile(new OrvLogLib::CLogFile("Media", strPath.c_str(), false, false, false));
    const auto hasLine = [&](const std::string& strText) {
        std::ifstream file(strPath);
        for (std::string strLine; std::getline(file, strLine);)
            if (strLine.ends_with(strText))
                return true;
        return false;
    };

    std::string strLast;
    bool bCollected = false;
    for (int n = 0; n < 100 && !bCollected; ++n)
    {
        for (int nLine = 0; nLine < 11000; ++nLine)
            m_pmintf->trace(TRACE_INFO, OrvLogLib::LogLib_Normal, "line %d", nLine);
        strLast = text("last line of burst %d", n);
        m_pmintf->trace(TRACE_INFO, OrvLogLib::LogLib_Normal, "%s", strLast.c_str());
        bCollected = !hasLine(strLast);
    }
    if (!bCollected)
        GTEST_SKIP() << "lines are not collected on this file system";
    m_pmintf->idlePass();
    EXPECT_TRUE(hasLine(strLast));
}
