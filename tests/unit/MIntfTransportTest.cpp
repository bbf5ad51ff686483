// CMIntf's exchange when the driver answers: routing, numbering, late responses, one request at a time.
#include "ExpectedLines.h"
#include "MIntfFixture.h"
#include "PlatformSeams.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace
{
const MICMD aImmediate[] = {MICMD_CONNECT,        MICMD_DISCONNECT,  MICMD_OPENFILE, MICMD_CLOSEFILE,
                            MICMD_OPENSTREAM,     MICMD_CLOSESTREAM, MICMD_CANCEL,   MICMD_PLAYGETSTATS,
                            MICMD_RECORDGETSTATS, MICMD_PING,        MICMD_DUMP,     MICMD_RECORDGETTIME,
                            MICMD_RECORDGETSTATUS};

structMICMD makeRequest(MICMD micmd)
{
    structMICMD cmd = structMICMD();
    cmd.s_micmd = micmd;
    return cmd;
}

bool isZero(const structMIRSP& rsp)
{
    const structMIRSP rspZero = structMIRSP();
    return memcmp(&rsp, &rspZero, sizeof(rsp)) == 0;
}

CLogLine lateLine(int nTryCount)
{
    return errorLine(text("(Error) CMIntf::sendCommand, got response for the previous issued cmd, ignoring it "
                          "trycount = %d, psrsp->nRespSequenceNo = 0, psrsp->s_mirsp = MIRSP_NULL",
                          nTryCount));
}
} // namespace

class MIntfTransport : public CMIntfTest
{
protected:
    // The record-level entry as most callers use it.
    MCSTATUS send(MICMD micmd, structMIRSP& rsp, int nStreamID = 0)
    {
        structMICMD cmd = makeRequest(micmd);
        return m_pmintf->sendCommand(nStreamID, &cmd, &rsp, CMIntf::DEFAULT_TIMEOUT, nullptr, 0, 0);
    }

    MCSTATUS send(MICMD micmd, int nStreamID = 0)
    {
        structMIRSP rsp;
        return send(micmd, rsp, nStreamID);
    }

    std::string address(size_t nIndex = 0) const { return createdAddresses(m_pLog->lines()).at(nIndex); }

    // Runs a request and, at each of its lines, what the test wants to look at.
    MCSTATUS pingObserved(const std::function<void(const std::string&)>& onLine)
    {
        const CLineHook hook(m_pLog, onLine);
        respondNext();
        return send(MICMD_PING);
    }
};

TEST_F(MIntfTransport, ImmediateCommandEndsWithItsResponseAndIsFreed)
{
    respondNext();
    EXPECT_EQ(MCS_OK, send(MICMD_PING));
    const std::string strAddress = address();
    EXPECT_EQ(immediateLines(strAddress, "MICMD_PING", 1), m_pLog->lines());
}

TEST_F(MIntfTransport, PlayIsSentWithItsFieldsAndStaysActive)
{
    seams::freezeTick(5000);
    CHandlerRecorder handler;
    structMICMD cmd = makeRequest(MICMD_PLAYFILE);
    memset(cmd.abBody, 0x5A, sizeof(cmd.abBody));
    cmd.nConnectID = -17;
    structMIRSP rsp;
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->sendCommand(9, &cmd, &rsp, 20, &handler, 0, 0));

    const CMIntf::CCommand* const pcommand = m_pmintf->m_mapActiveCommandByStreamIDPlay.at(9);
    EXPECT_EQ(9, pcommand->m_nStreamID);
    EXPECT_EQ(1, pcommand->m_bDone);
    EXPECT_EQ(20u, pcommand->m_nTimeout);
    EXPECT_EQ(25000u, pcommand->m_ullTimeoutTick);
    EXPECT_EQ(&handler, pcommand->m_pcomplHandler);
    cmd.nSequenceNo = 1;
    EXPECT_EQ(0, memcmp(&cmd, &pcommand->m_cmd, sizeof(cmd)));
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(0, memcmp(&cmd, &vRequests[0], sizeof(cmd)));

    const std::string strAddress = address();
    EXPECT_EQ((CLogLines{createdLine(strAddress), commandLine(9, strAddress), requestLine(9, "MICMD_PLAYFILE")}) +
                  playActiveLines(9, "MICMD_PLAYFILE", 1, strAddress, 25000) + exchangeLines(9, "MICMD_PLAYFILE", 1),
              m_pLog->lines());
}

TEST_F(MIntfTransport, NoDoneFlagMakesAnOrdinaryStep)
{
    structMIRSP rsp;
    structMICMD cmd = makeRequest(MICMD_RECORDFILE);
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->sendCommand(9, &cmd, &rsp, 20, nullptr, 5, 0));
    EXPECT_EQ(0, m_pmintf->m_mapActiveCommandByStreamIDRecord.at(9)->m_bDone);
}

TEST_F(MIntfTransport, TimeOutArgumentIsTakenIn32Bits)
{
    structMIRSP rsp;
    structMICMD cmd = makeRequest(MICMD_PLAYFILE);
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->sendCommand(9, &cmd, &rsp, static_cast<unsigned long>(-1), nullptr, 0, 0));
    EXPECT_EQ(0xFFFFFFFFu, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(9)->m_nTimeout);
}

TEST_F(MIntfTransport, EveryImmediateCommandIsFreedOnce)
{
    for (const MICMD micmd : aImmediate)
    {
        m_pLog->clear();
        respondNext();
        EXPECT_EQ(MCS_OK, send(micmd)) << MICMDToString(micmd);
        EXPECT_EQ(1u, m_pLog->count("CCommand::~CCommand")) << MICMDToString(micmd);
        EXPECT_TRUE(m_pLog->has(endedLine(address(), MICMDToString(micmd))));
        EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
    }
    EXPECT_EQ(std::size(aImmediate), takeRequests().size());
}

TEST_F(MIntfTransport, PlaysGoToThePlaySideAndRecordsToTheRecordSide)
{
    const CMIntf::CCommand* const pclip = sendCommand(1, MICMD_PLAYCLIP);
    const CMIntf::CCommand* const pfile = sendCommand(2, MICMD_PLAYFILE);
    const CMIntf::CCommand* const precord = sendCommand(1, MICMD_RECORDFILE);
    const std::map<int, CMIntf::CCommand*>& mapPlay = m_pmintf->m_mapActiveCommandByStreamIDPlay;
    const std::map<int, CMIntf::CCommand*>& mapRecord = m_pmintf->m_mapActiveCommandByStreamIDRecord;
    EXPECT_EQ(2u, mapPlay.size());
    EXPECT_EQ(pclip, mapPlay.at(1));
    EXPECT_EQ(pfile, mapPlay.at(2));
    EXPECT_EQ(1u, mapRecord.size());
    EXPECT_EQ(precord, mapRecord.at(1));
    EXPECT_EQ(3u, takeRequests().size());
    EXPECT_EQ(3, commandsAlive());
}

TEST_F(MIntfTransport, PlayQueueFlagTakesARecordToThePlaySide)
{
    const CMIntf::CCommand* const precord = sendCommand(1, MICMD_RECORDFILE, 300, nullptr, 1, 1);
    EXPECT_EQ(precord, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(1));
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
    EXPECT_TRUE(m_pLog->has(playEnteringLine(1)));
}

TEST_F(MIntfTransport, SecondPlayWaitsUnwrittenAndUnnumberedUntilTheFirstIsDone)
{
    sendCommand(5);
    takeRequests();
    m_pLog->clear();
    CMIntf::CCommand* const pwaiting = newCommand(5, MICMD_PLAYCLIP);
    structMIRSP rsp;
    memset(&rsp, 0xAA, sizeof(rsp));
    EXPECT_EQ(MCS_OK, m_pmintf->sendCommand(pwaiting, &rsp, 0));

    EXPECT_TRUE(isZero(rsp));
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(0u, pwaiting->m_cmd.nSequenceNo);
    EXPECT_EQ(2u, m_pmintf->m_nNextSequenceNo);
    EXPECT_EQ((CLogLines{createdLine(pwaiting), requestLine(5, "MICMD_PLAYCLIP")}) +
                  playWaitsLines(5, "MICMD_PLAYFILE", 1) + CLogLines{resultLine(5, "MIRSP_NULL", MCS_OK)},
              m_pLog->lines());

    structMIEVT evt = {};
    evt.s_mievt = MIEVT_DONE;
    evt.nStreamID = 5;
    evt.nSequenceID = 1;
    respondNext();
    m_pmintf->doneEventPass(evt);
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_PLAYCLIP, vRequests[0].s_micmd);
    EXPECT_EQ(2u, vRequests[0].nSequenceNo);
    EXPECT_EQ(pwaiting, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
}

TEST_F(MIntfTransport, ConnectIsSentWithoutAConnection)
{
    m_pmintf->m_nConnectID = -1;
    structMIRSP rsp;
    respondNext(MIRSP_CONNECT, 99);
    EXPECT_EQ(MCS_OK, send(MICMD_CONNECT, rsp));
    EXPECT_EQ(99, rsp.s_nConnectID);
    EXPECT_EQ(immediateLines(address(), "MICMD_CONNECT", 1, "MIRSP_CONNECT"), m_pLog->lines());
    EXPECT_EQ(1u, takeRequests().size());
    EXPECT_EQ(2u, m_pmintf->m_nNextSequenceNo);
    EXPECT_EQ(-1, m_pmintf->m_nConnectID); // its caller stores the id
}

TEST_F(MIntfTransport, MatchingStatusAfterLateResponsesCounts)
{
    for (const uint32_t nLate : {1001u, 1002u, 1003u})
        respond(nLate, MIRSP_STATUS, MISTATUS_FAILED);
    respondNext();
    structMIRSP rsp;
    EXPECT_EQ(MCS_OK, send(MICMD_PING, rsp));
    const std::string strAddress = address();
    EXPECT_EQ(immediateBeginLines(strAddress, "MICMD_PING") +
                  (CLogLines{
                      sendingLine(),
                      numberLine(0, "MICMD_PING", 1),
                      lateLine(0),
                      lateLine(1),
                      lateLine(2),
                      responseLine(4, 1, "MIRSP_STATUS"),
                      resultLine(0, "MIRSP_STATUS", MCS_OK),
                  }) +
                  immediateEndedLines(strAddress, "MICMD_PING"),
              m_pLog->lines());
}

TEST_F(MIntfTransport, MatchingRefusalAfterLateResponsesCounts)
{
    respond(1001, MIRSP_STATUS, MISTATUS_OK);
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, send(MICMD_PING));
}

TEST_F(MIntfTransport, MatchingFifthResponseCounts)
{
    for (uint32_t nLate = 1001; nLate <= 1004; ++nLate)
        respond(nLate);
    respondNext();
    EXPECT_EQ(MCS_OK, send(MICMD_PING));
}

TEST_F(MIntfTransport, MatchingResponseOtherThanStatusFailsAfterALateOne)
{
    for (const uint32_t nLate : {1001u, 1002u, 1003u})
        respond(nLate, MIRSP_OPENFILE, 1);
    respondNext(MIRSP_OPENFILE, 501);
    structMIRSP rsp;
    EXPECT_EQ(MCS_NORESPONSE, send(MICMD_OPENFILE, rsp));
    EXPECT_EQ(501, rsp.s_nFileID);
    const std::string strAddress = address();
    EXPECT_EQ(immediateBeginLines(strAddress, "MICMD_OPENFILE") +
                  (CLogLines{
                      sendingLine(),
                      numberLine(0, "MICMD_OPENFILE", 1),
                      lateLine(0),
                      lateLine(1),
                      lateLine(2),
                      responseLine(4, 1, "MIRSP_OPENFILE"),
                      resultLine(0, "MIRSP_OPENFILE", MCS_NORESPONSE),
                      removingLine(),
                  }) +
                  removalLines(0, 1, nullptr, nullptr) + immediateFailedLines(strAddress, MCS_NORESPONSE),
              m_pLog->lines());
    EXPECT_TRUE(m_pmintf->m_nConnectID == CONNECT_ID);
}

TEST_F(MIntfTransport, LastResponseTickIsThatOfTheLastResponseLateOrNot)
{
    seams::freezeTick(123456);
    respondNext();
    EXPECT_EQ(MCS_OK, send(MICMD_PING));
    EXPECT_EQ(123456u, m_pmintf->m_ullLastResponseTick);
    seams::freezeTick(200000);
    for (uint32_t nLate = 1001; nLate <= 1005; ++nLate)
        respond(nLate);
    EXPECT_EQ(MCS_NORESPONSE, send(MICMD_PING));
    EXPECT_EQ(200000u, m_pmintf->m_ullLastResponseTick);
}

TEST_F(MIntfTransport, LastResponseTickIsNullWhileARequestIsOutstanding)
{
    uint64_t ullAtWrite = 1;
    m_pmintf->m_ullLastResponseTick = 77;
    EXPECT_EQ(MCS_OK, pingObserved([&](const std::string& strText) {
                  if (contains(strText, "sequence number"))
                      ullAtWrite = m_pmintf->m_ullLastResponseTick;
              }));
    EXPECT_EQ(0u, ullAtWrite);
    EXPECT_NE(0u, m_pmintf->m_ullLastResponseTick);
}

TEST_F(MIntfTransport, MainLockIsHeldFromBeforeTheNumberToTheResultAndMayBeHeldByTheCaller)
{
    std::vector<int> vDepths;
    const auto keepDepth = [&](const std::string&) { vDepths.push_back(m_pmintf->m_pCritSecCMIntf->depth()); };
    EXPECT_EQ(MCS_OK, pingObserved(keepDepth));
    EXPECT_EQ((std::vector<int>{0, 0, 0, 1, 1, 1, 1, 1, 1}), vDepths);
    EXPECT_EQ(0, m_pmintf->m_pCritSecCMIntf->depth());

    vDepths.clear();
    {
        CCritSecHold hold(m_pmintf->m_pCritSecCMIntf);
        EXPECT_EQ(MCS_OK, pingObserved(keepDepth));
        EXPECT_EQ(1, m_pmintf->m_pCritSecCMIntf->depth());
    }
    EXPECT_EQ((std::vector<int>{1, 1, 1, 2, 2, 2, 2, 2, 2}), vDepths);
}

TEST_F(MIntfTransport, RequestsOfManyThreadsAreExchangedOneAtATime)
{
    const int THREADS = 4;
    const int nResponses = m_pmintf->m_npipeRsp;
    bool bOneAtATime = true;
    std::thread driver([&] {
        for (int n = 0; n < THREADS; ++n)
        {
            pollfd entry = {m_nRequestReader, POLLIN, 0};
            structMICMD cmd;
            if (poll(&entry, 1, 30000) != 1 || read(m_nRequestReader, &cmd, sizeof(cmd)) != 280)
                break;
            // While this one is open no other request may come.
            bOneAtATime = bOneAtATime && poll(&entry, 1, 50) == 0;
            structMIRSP rsp = structMIRSP();
            rsp.s_mirsp = MIRSP_STATUS;
            rsp.nRespSequenceNo = cmd.nSequenceNo;
            if (write(nResponses, &rsp, sizeof(rsp)) != 48)
                break;
        }
    });
    std::vector<MCSTATUS> vResults(THREADS, -1);
    std::vector<std::thread> vThreads;
    for (int n = 0; n < THREADS; ++n)
        vThreads.emplace_back([&, n] { vResults[static_cast<size_t>(n)] = m_pmintf->ping(); });
    for (std::thread& thread : vThreads)
        thread.join();
    driver.join();
    EXPECT_TRUE(bOneAtATime);
    EXPECT_EQ(std::vector<MCSTATUS>(THREADS, MCS_OK), vResults);
    EXPECT_EQ(0, commandsAlive());
}

TEST_F(MIntfTransport, ResponsePipeMayHaveANumberAbove1023)
{
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2000);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    const int nHigh = fcntl(m_pmintf->m_npipeRsp, F_DUPFD_CLOEXEC, 1500);
    ASSERT_GE(nHigh, 1500);
    close(m_pmintf->m_npipeRsp);
    m_pmintf->m_npipeRsp = nHigh;
    respond(1001);
    respondNext();
    EXPECT_EQ(MCS_OK, send(MICMD_PING));
}
