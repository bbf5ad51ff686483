// CMIntf's exchange when it fails: the status, the lines, the connection, and what becomes of every command.
#include "ExpectedLines.h"
#include "MIntfFixture.h"
#include "PlatformSeams.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

namespace
{
typedef std::chrono::steady_clock Clock;
typedef std::vector<std::pair<int, int>> CStreamsAndStatuses;

const CLogLine closingLine = {8, 2, "CMIntf::sendCommand - closing request pipe"};
const CLogLine clearingLine = {8, 2, "CMIntf::sendCommand - oops timeout clear cmd"};

// The line without the number at its end: where errno is not the failing call's, any will do.
CLogLine withoutNumber(CLogLine line)
{
    line.strText.erase(line.strText.find_last_not_of("0123456789") + 1);
    return line;
}
} // namespace

// Before each failing request stream 5 has an active play, an active record and one more of each
// queued, stream 6 an active play; the handler stands in all of them.
class MIntfTransportFailures : public CMIntfTest
{
protected:
    MIntfTransportFailures()
    {
        sendCommand(5, MICMD_PLAYFILE, 300, &m_handler);
        m_vQueueLines.push_back(destroyedLine(sendCommand(5, MICMD_PLAYCLIP, 300, &m_handler)));
        sendCommand(5, MICMD_RECORDFILE, 300, &m_handler);
        m_vQueueLines.push_back(destroyedLine(sendCommand(5, MICMD_RECORDFILE, 300, &m_handler)));
        sendCommand(6, MICMD_PLAYFILE, 300, &m_handler);
        takeRequests();
        m_pLog->clear();
        memset(&m_rsp, 0xAA, sizeof(m_rsp));
    }

    MCSTATUS send(MICMD micmd, int nStreamID = 0)
    {
        structMICMD cmd = structMICMD();
        cmd.s_micmd = micmd;
        return m_pmintf->sendCommand(nStreamID, &cmd, &m_rsp, CMIntf::DEFAULT_TIMEOUT, &m_handler, 0, 0);
    }

    void expectResponseZero() const
    {
        const structMIRSP rspZero = structMIRSP();
        EXPECT_EQ(0, memcmp(&m_rsp, &rspZero, sizeof(rspZero)));
    }

    // The failing command was freed once, everything else is as it was.
    void expectOthersUntouched()
    {
        EXPECT_EQ(0, commandsAlive());
        EXPECT_EQ(2u, m_pmintf->m_mapActiveCommandByStreamIDPlay.size());
        EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDRecord.size());
        EXPECT_EQ(3u, m_pmintf->m_mmapActiveCommandByTimeout.size());
        EXPECT_EQ(1u, m_pmintf->m_mapCommandQueue.at(5)->size());
        EXPECT_EQ(1u, m_pmintf->m_mapCommandQueueRecord.at(5)->size());
        EXPECT_TRUE(m_pmintf->m_nConnectID == CONNECT_ID);
        EXPECT_NE(-1, m_pmintf->m_npipeReq);
        EXPECT_TRUE(takeEvents().empty());
        EXPECT_TRUE(m_handler.m_vReports.empty());
    }

    // The failing command was freed once, the queues are gone, each active command waits for the
    // events that complete it.
    void expectAllCleared(MCSTATUS mcstatus, int nClearings)
    {
        EXPECT_EQ(-2, commandsAlive()); // both queued ones
        EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
        EXPECT_TRUE(m_pmintf->m_mapCommandQueueRecord.empty());
        EXPECT_EQ(2u, m_pmintf->m_mapActiveCommandByStreamIDPlay.size());
        EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDRecord.size());
        EXPECT_EQ(3u, m_pmintf->m_mmapActiveCommandByTimeout.size());
        EXPECT_TRUE(m_handler.m_vReports.empty());

        CStreamsAndStatuses vExpected;
        for (int n = 0; n < nClearings; ++n)
            for (const int nStreamID : {5, 6, 5})
                vExpected.emplace_back(nStreamID, mcstatus);
        CStreamsAndStatuses vEvents;
        for (const structMIEVT& evt : takeEvents())
        {
            EXPECT_EQ(MIEVT_DONE, evt.s_mievt);
            vEvents.emplace_back(evt.nStreamID, evt.s_mcstatus);
        }
        EXPECT_EQ(vExpected, vEvents);
    }

    void expectDisconnected(int npipeReqBefore)
    {
        EXPECT_EQ(-1, m_pmintf->m_npipeReq);
        EXPECT_EQ(-1, m_pmintf->m_nConnectID);
        EXPECT_EQ(-1, fcntl(npipeReqBefore, F_GETFD));
        m_pLog->clear();
        EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->ping());
    }

    // What the clearing of the active commands writes.
    CLogLines bulkLines() const
    {
        const CLogLine event = wakeUpLine(1);
        return {clearActiveLine(), event, event, event};
    }

    // A failed exchange of an immediate command, from the error line on. Commands 1 to 3 are active.
    CLogLines transportFailureLines(const char* pszCommand, const CLogLine& error, MCSTATUS mcstatus,
                                    bool bCloses) const
    {
        const std::string strAddress = createdAddresses(m_pLog->lines()).at(0);
        CLogLines v = immediateBeginLines(strAddress, pszCommand) +
                      CLogLines{sendingLine(), numberLine(0, pszCommand, 4), error,
                                resultLine(0, "MIRSP_NULL", mcstatus), removingLine()} +
                      removalLines(0, 4, nullptr, nullptr);
        if (bCloses)
            v = v + CLogLines{closingLine} + m_vQueueLines + bulkLines() + CLogLines{clearingLine};
        else
            v = v + CLogLines{clearingLine} + m_vQueueLines;
        return v + bulkLines() + immediateFailedLines(strAddress, mcstatus);
    }

    // Captured lines with the errno of the error line taken off.
    CLogLines linesWithoutNumberOf(const char* pszError) const
    {
        CLogLines v = m_pLog->lines();
        for (CLogLine& line : v)
            if (contains(line.strText, pszError))
                line = withoutNumber(line);
        return v;
    }

    CHandlerRecorder m_handler;
    CLogLines m_vQueueLines; // what the clearing of the queues writes
    structMIRSP m_rsp;
};

TEST_F(MIntfTransportFailures, NothingIsWrittenWithoutAConnection)
{
    m_pmintf->m_nConnectID = -1;
    for (int nCode = MICMD_DISCONNECT; nCode <= MICMD_RECORDGETSTATUS; ++nCode)
    {
        const MICMD micmd = static_cast<MICMD>(nCode);
        m_pLog->clear();
        memset(&m_rsp, 0xAA, sizeof(m_rsp));
        EXPECT_EQ(MCS_NOTCONNECTED, send(micmd));
        expectResponseZero();
        const std::string strAddress = createdAddresses(m_pLog->lines()).at(0);
        EXPECT_EQ(immediateNotConnectedLines(strAddress, MICMDToString(micmd)), m_pLog->lines());
    }
    EXPECT_EQ(4u, m_pmintf->m_nNextSequenceNo);
    EXPECT_TRUE(takeRequests().empty());
    m_pmintf->m_nConnectID = CONNECT_ID;
    expectOthersUntouched();
}

TEST_F(MIntfTransportFailures, PlayQueueFlagDoesNotGetAroundAMissingConnection)
{
    m_pmintf->m_nConnectID = -1;
    CMIntf::CCommand* const pcommand = newCommand(5, MICMD_RECORDFILE);
    EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->sendCommand(pcommand, &m_rsp, 1));
    EXPECT_EQ(0u, m_pLog->count("processPlayActiveCommand"));
    delete pcommand;
}

TEST_F(MIntfTransportFailures, RefusedPlayLeavesTheTablesAndIsFreedUnreported)
{
    seams::freezeTick(1000);
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, send(MICMD_PLAYFILE, 9));
    EXPECT_EQ(1, m_rsp.s_nResult);
    const std::string strAddress = createdAddresses(m_pLog->lines()).at(0);
    EXPECT_EQ(
        (CLogLines{createdLine(strAddress), commandLine(9, strAddress), requestLine(9, "MICMD_PLAYFILE")}) +
            playActiveLines(9, "MICMD_PLAYFILE", 4, strAddress, 301000) +
            exchangeLines(9, "MICMD_PLAYFILE", 4, "MIRSP_STATUS", MCS_REFUSED) +
            (CLogLines{
                removingLine(),
                {1, 2, " (Info) CMIntf::CMIntf::remActiveCommand called, sid = 9, nSequenceIDParam = 4"},
                {1, 2, "801(Info) CMIntf::remActiveCommand m_mapActiveCommandByStreamIDPlay,pcommand =0x" + strAddress},
                {1, 2,
                 "(Info) CMIntf::remActiveCommand:calling m_mmapActiveCommandByTimeout.erase, SequenceNo = 4, sid = "
                 "9, cmd = MICMD_PLAYFILE"},
                {1, 2, " (Info) CMIntf::CMIntf::remActiveCommand  before active record,sid = 9, nSequenceIDParam = 4"},
                {1, 2, " (Info) CMIntf::CMIntf::remActiveCommand EXIT: sid = 9, nSequenceIDParam = 4"},
                failedLine(9, MCS_REFUSED, strAddress),
                destroyedLine(strAddress),
            }),
        m_pLog->lines());
    expectOthersUntouched();
}

TEST_F(MIntfTransportFailures, RefusedRecordAndImmediateCommandLeaveTheRestAlone)
{
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, send(MICMD_RECORDFILE, 6));
    expectOthersUntouched();
    m_pLog->clear();
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_pmintf->ping());
    EXPECT_EQ(immediateRefusedLines(createdAddresses(m_pLog->lines()).at(0), "MICMD_PING", 5), m_pLog->lines());
    expectOthersUntouched();
}

TEST_F(MIntfTransportFailures, FailedCommandGivenByItsOwnerIsItsOwnersAgain)
{
    CMIntf::CCommand* const pcommand = newCommand(9, MICMD_PLAYFILE, 300, &m_handler);
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_pmintf->sendCommand(pcommand, &m_rsp, 0));
    EXPECT_EQ(0u, m_pLog->count("CCommand::~CCommand"));
    delete pcommand;
    expectOthersUntouched();
}

TEST_F(MIntfTransportFailures, FiveLateResponsesFailTheRequestAlone)
{
    for (uint32_t nLate = 1001; nLate <= 1006; ++nLate)
        respond(nLate, MIRSP_STATUS, MISTATUS_OK);
    EXPECT_EQ(MCS_NORESPONSE, send(MICMD_PLAYFILE, 9));
    expectResponseZero();
    EXPECT_EQ(5u, m_pLog->count("got response for the previous issued cmd"));
    EXPECT_TRUE(m_pLog->has(responseLine(5, 0, "MIRSP_NULL")));
    EXPECT_TRUE(m_pLog->has(resultLine(9, "MIRSP_NULL", MCS_NORESPONSE)));
    EXPECT_TRUE(m_pLog->has(removingLine()));
    EXPECT_FALSE(m_pLog->has(clearingLine));
    int nLeft = 0;
    EXPECT_EQ(0, ioctl(m_pmintf->m_npipeRsp, FIONREAD, &nLeft));
    EXPECT_EQ(48, nLeft);
    expectOthersUntouched();
}

TEST_F(MIntfTransportFailures, SilentDriverFailsTheRequestAfterTenSecondsAndEveryCommandWithIt)
{
    const int npipeReq = m_pmintf->m_npipeReq;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(MCS_NORESPONSE, send(MICMD_DUMP));
    const auto elapsed = Clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(9900));
    EXPECT_LT(elapsed, std::chrono::seconds(15));

    expectResponseZero();
    EXPECT_EQ(transportFailureLines("MICMD_DUMP",
                                    {1, 64, "(Error) CMIntf::sendCommand, timeout reading response pipe "},
                                    MCS_NORESPONSE, false),
              linesWithoutNumberOf("timeout reading"));
    EXPECT_EQ(npipeReq, m_pmintf->m_npipeReq);
    EXPECT_NE(-1, fcntl(npipeReq, F_GETFD));
    EXPECT_TRUE(m_pmintf->m_nConnectID == CONNECT_ID);
    EXPECT_EQ(0u, m_pmintf->m_ullLastResponseTick);
    expectAllCleared(MCS_NORESPONSE, 1);
}

// Late responses that trickle in share the one budget; with a budget for each try this would last
// nearly twice as long. The signals would break off a wait, or stretch it by starting it again.
TEST_F(MIntfTransportFailures, TenSecondsAreOneBudgetForAllTriesAlsoInASignalStorm)
{
    const int nResponses = m_pmintf->m_npipeRsp;
    const Clock::time_point start = Clock::now();
    std::thread driver([&] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        structMIRSP rsp = structMIRSP();
        rsp.s_mirsp = MIRSP_STATUS;
        for (int n = 1; n <= 4; ++n)
        {
            std::this_thread::sleep_until(start + n * std::chrono::milliseconds(2300));
            rsp.nRespSequenceNo = static_cast<uint32_t>(1000 + n);
            if (write(nResponses, &rsp, sizeof(rsp)) != 48)
                break;
        }
    });
    static std::atomic<int> s_nSignals;
    struct sigaction action = {};
    struct sigaction actionBefore;
    action.sa_handler = [](int) { ++s_nSignals; };
    sigaction(SIGALRM, &action, &actionBefore);
    itimerval timer = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &timer, nullptr);

    EXPECT_EQ(MCS_NORESPONSE, send(MICMD_PLAYFILE, 9));

    const auto elapsed = Clock::now() - start;
    timer = itimerval();
    setitimer(ITIMER_REAL, &timer, nullptr);
    sigaction(SIGALRM, &actionBefore, nullptr);
    driver.join();
    EXPECT_GE(elapsed, std::chrono::milliseconds(9900));
    EXPECT_LT(elapsed, std::chrono::seconds(15));
    EXPECT_GT(s_nSignals, 100);
    EXPECT_EQ(4u, m_pLog->count("got response for the previous issued cmd"));
    EXPECT_EQ(1u, m_pLog->count("(Error) CMIntf::sendCommand, timeout reading response pipe"));
    expectResponseZero();
    expectAllCleared(MCS_NORESPONSE, 1);
}

TEST_F(MIntfTransportFailures, DriverThatIsGoneEndsTheConnectionAndEveryCommand)
{
    const int npipeReq = m_pmintf->m_npipeReq;
    close(m_nRequestReader);
    m_nRequestReader = -1;
    EXPECT_EQ(MCS_PIPEWRITE, send(MICMD_PING));
    expectResponseZero();
    EXPECT_EQ(transportFailureLines("MICMD_PING",
                                    {1, 64, text("(Error) CMIntf::sendCommand, error writing request pipe %d", EPIPE)},
                                    MCS_PIPEWRITE, true),
              m_pLog->lines());
    EXPECT_EQ(5u, m_pmintf->m_nNextSequenceNo);
    EXPECT_EQ(0u, m_pmintf->m_ullLastResponseTick);
    // The second clearing finds the active commands where the first has left them.
    expectAllCleared(MCS_PIPEWRITE, 2);
    expectDisconnected(npipeReq);
}

TEST_F(MIntfTransportFailures, PlayThatCannotBeWrittenIsNotCompletedItself)
{
    const int npipeReq = m_pmintf->m_npipeReq;
    close(m_nRequestReader);
    m_nRequestReader = -1;
    EXPECT_EQ(MCS_PIPEWRITE, send(MICMD_PLAYFILE, 9));
    expectAllCleared(MCS_PIPEWRITE, 2); // no event of stream 9
    expectDisconnected(npipeReq);
}

TEST_F(MIntfTransportFailures, FullRequestPipeIsAFailedWrite)
{
    const int npipeReq = m_pmintf->m_npipeReq;
    const char szFill[4096] = {};
    while (write(npipeReq, szFill, sizeof(szFill)) > 0)
    {
    }
    EXPECT_EQ(MCS_PIPEWRITE, send(MICMD_PING));
    EXPECT_TRUE(m_pLog->has({1, 64, text("(Error) CMIntf::sendCommand, error writing request pipe %d", EAGAIN)}));
    expectAllCleared(MCS_PIPEWRITE, 2);
    expectDisconnected(npipeReq);
}

TEST_F(MIntfTransportFailures, ShortWriteIsAFailedWrite)
{
    // A file that may not grow beyond 100 bytes stands in for the pipe.
    const int nFile = open("/tmp/short-write", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(nFile, 0);
    close(m_pmintf->m_npipeReq);
    m_pmintf->m_npipeReq = nFile;
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &limit));
    const rlimit limitSmall = {100, limit.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limitSmall));
    const MCSTATUS mcstatus = send(MICMD_PING);
    setrlimit(RLIMIT_FSIZE, &limit);
    unlink("/tmp/short-write");
    EXPECT_EQ(MCS_PIPEWRITE, mcstatus);
    EXPECT_EQ(1u, m_pLog->count("(Error) CMIntf::sendCommand, error writing request pipe"));
    expectAllCleared(MCS_PIPEWRITE, 2);
    expectDisconnected(nFile);
}

TEST_F(MIntfTransportFailures, ClosedRequestPipeIsAFailedWrite)
{
    close(m_pmintf->m_npipeReq);
    m_pmintf->m_npipeReq = -1;
    EXPECT_EQ(MCS_PIPEWRITE, send(MICMD_PING));
    EXPECT_TRUE(m_pLog->has({1, 64, text("(Error) CMIntf::sendCommand, error writing request pipe %d", EBADF)}));
    expectAllCleared(MCS_PIPEWRITE, 2);
    EXPECT_EQ(-1, m_pmintf->m_nConnectID);
}

TEST_F(MIntfTransportFailures, ClosedEventPipeMeansThatEveryCommandIsDestroyedUnreported)
{
    close(m_nRequestReader);
    m_nRequestReader = -1;
    close(m_pmintf->m_npipeEvt);
    m_pmintf->m_npipeEvt = -1;
    EXPECT_EQ(MCS_PIPEWRITE, send(MICMD_PLAYFILE, 9));
    EXPECT_EQ(-5, commandsAlive()); // all of the set-up; the failing one was made and freed since
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
    EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
    EXPECT_TRUE(m_handler.m_vReports.empty());
}

TEST_F(MIntfTransportFailures, ClosedResponsePipeIsAFailedWait)
{
    const int npipeReq = m_pmintf->m_npipeReq;
    const int npipeRsp = m_pmintf->m_npipeRsp;
    m_pmintf->m_npipeRsp = -1;
    EXPECT_EQ(MCS_PIPEREAD, send(MICMD_PING));
    m_pmintf->m_npipeRsp = npipeRsp;
    EXPECT_EQ(transportFailureLines(
                  "MICMD_PING", {1, 64, text("(Error) CMIntf::sendCommand.2, error reading response pipe %d", EBADF)},
                  MCS_PIPEREAD, true),
              m_pLog->lines());
    expectAllCleared(MCS_PIPEREAD, 2);
    expectDisconnected(npipeReq);
}

TEST_F(MIntfTransportFailures, ResponseDescriptorThatIsNotOpenIsAFailedWait)
{
    const int npipeRsp = m_pmintf->m_npipeRsp;
    m_pmintf->m_npipeRsp = fcntl(npipeRsp, F_DUPFD, 500);
    close(m_pmintf->m_npipeRsp);
    EXPECT_EQ(MCS_PIPEREAD, send(MICMD_PING));
    m_pmintf->m_npipeRsp = npipeRsp;
    EXPECT_TRUE(m_pLog->has({1, 64, text("(Error) CMIntf::sendCommand.2, error reading response pipe %d", EBADF)}));
    expectAllCleared(MCS_PIPEREAD, 2);
}

TEST_F(MIntfTransportFailures, FailedReadEndsTheConnection)
{
    // A folder is readable to who waits, but cannot be read.
    const int npipeReq = m_pmintf->m_npipeReq;
    const int npipeRsp = m_pmintf->m_npipeRsp;
    m_pmintf->m_npipeRsp = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(MCS_PIPEREAD, send(MICMD_PING));
    close(m_pmintf->m_npipeRsp);
    m_pmintf->m_npipeRsp = npipeRsp;
    EXPECT_EQ(transportFailureLines(
                  "MICMD_PING", {1, 64, text("(Error) CMIntf::sendCommand, error reading response pipe %d", EISDIR)},
                  MCS_PIPEREAD, true),
              m_pLog->lines());
    expectAllCleared(MCS_PIPEREAD, 2);
    expectDisconnected(npipeReq);
}

TEST_F(MIntfTransportFailures, ShortResponseEndsTheConnectionAndIsNeverContinued)
{
    const int npipeReq = m_pmintf->m_npipeReq;
    structMIRSP rsp = structMIRSP();
    rsp.s_mirsp = MIRSP_STATUS;
    rsp.nRespSequenceNo = 4;
    ASSERT_EQ(47, write(m_pmintf->m_npipeRsp, &rsp, 47));
    EXPECT_EQ(MCS_PIPEREAD, send(MICMD_PING));
    EXPECT_EQ(1u, m_pLog->count("(Error) CMIntf::sendCommand, error reading response pipe"));
    EXPECT_EQ(0u, m_pLog->count("tried to get correct response"));
    expectAllCleared(MCS_PIPEREAD, 2);
    expectDisconnected(npipeReq);
}

TEST_F(MIntfTransportFailures, EndOfTheResponsePipeEndsTheConnection)
{
    const int npipeReq = m_pmintf->m_npipeReq;
    const int npipeRsp = m_pmintf->m_npipeRsp;
    m_pmintf->m_npipeRsp = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(MCS_PIPEREAD, send(MICMD_PING));
    close(m_pmintf->m_npipeRsp);
    m_pmintf->m_npipeRsp = npipeRsp;
    EXPECT_EQ(1u, m_pLog->count("(Error) CMIntf::sendCommand, error reading response pipe"));
    expectAllCleared(MCS_PIPEREAD, 2);
    expectDisconnected(npipeReq);
}
