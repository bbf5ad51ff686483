// CMIntf without memory: locks, commands and their bookkeeping that cannot be had.
#include "ExpectedLines.h"
#include "FailingAllocations.h"
#include "MIntfFixture.h"
#include "PlatformSeams.h"

#include <fstream>
#include <optional>
#include <unistd.h>
#include <utility>

namespace
{
// A capture whose own allocations do not fail.
class CSparedCapture : public CLogCapture
{
public:
    using CLogCapture::CLogCapture;
    int LogStringArgListX(OrvLogLib::LogLib_Priority priority, const char* pszFormat, const char* pszSource,
                          va_list arguments) override
    {
        const CAllocationsSpared spared;
        return CLogCapture::LogStringArgListX(priority, pszFormat, pszSource, arguments);
    }
};

structMICMD playRequest()
{
    structMICMD cmd = structMICMD();
    cmd.s_micmd = MICMD_PLAYFILE;
    return cmd;
}
} // namespace

class MIntfMemory : public CMIntfTest
{
protected:
    MIntfMemory() { m_pmintf->replaceLogFile(new CSparedCapture(m_pLog)); }

    // A play on that stream, with the nth allocation of the library failing.
    MCSTATUS play(int nStreamID, int nth)
    {
        structMICMD cmd = playRequest();
        structMIRSP rsp;
        CAllocationFailure failure(nth, Failing::Once);
        return m_pmintf->sendCommand(nStreamID, &cmd, &rsp, 10, nullptr, 0, 0);
    }
};

TEST_F(MIntfMemory, CommandWithoutMemoryFailsWithoutALine)
{
    EXPECT_EQ(MCS_OUTOFMEMORY, play(5, 1));
    EXPECT_TRUE(m_pLog->lines().empty());
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(1u, m_pmintf->m_nNextSequenceNo);
    EXPECT_TRUE(m_pmintf->m_nConnectID == CONNECT_ID);
    EXPECT_EQ(0, m_pmintf->m_pCritSecCMIntf->depth());
}

TEST_F(MIntfMemory, PlayThatCannotBecomeActiveIsRefusedWithTheResultLineAndFreed)
{
    seams::freezeTick(1000);
    for (const int nth : {2, 3}) // its entry by stream, its entry by deadline
    {
        m_pLog->clear();
        EXPECT_EQ(MCS_OUTOFMEMORY, play(5, nth));
        CLogLines vLines = m_pLog->lines();
        const std::string strAddress = createdAddresses(vLines).at(0);
        ASSERT_LE(3u, vLines.size());
        EXPECT_EQ((CLogLines{resultLine(5, "MIRSP_NULL", 4), failedLine(5, 4, strAddress), destroyedLine(strAddress)}),
                  CLogLines(vLines.end() - 3, vLines.end()));
        EXPECT_EQ(0u, m_pLog->count("remActiveCommand"));
        EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
        EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
        EXPECT_TRUE(takeRequests().empty());
        EXPECT_EQ(1u, m_pmintf->m_nNextSequenceNo);
    }
    respondNext();
    EXPECT_EQ(MCS_OK, play(5, 4));
    EXPECT_EQ(1u, takeRequests().size());
}

TEST_F(MIntfMemory, PlayThatCannotBeQueuedLeavesTheActiveOne)
{
    const CMIntf::CCommand* const pactive = sendCommand(5);
    takeRequests();
    for (const int nth : {2, 3, 4}) // the queue, its entry by stream, its first place
    {
        EXPECT_EQ(MCS_OUTOFMEMORY, play(5, nth));
        EXPECT_EQ(pactive, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
        EXPECT_EQ(1, commandsAlive());
        const auto it = m_pmintf->m_mapCommandQueue.find(5);
        EXPECT_TRUE(it == m_pmintf->m_mapCommandQueue.end() || it->second->empty());
    }
    EXPECT_EQ(MCS_OK, play(5, 3));
    EXPECT_EQ(1u, m_pmintf->m_mapCommandQueue.at(5)->size());
}

TEST_F(MIntfMemory, SetDoneWithoutMemoryReportsNothing)
{
    CHandlerRecorder handler;
    for (const int nth : {1, 2, 3}) // the command, its entry by stream, its entry by deadline
    {
        CAllocationFailure failure(nth, Failing::Once);
        EXPECT_EQ(MCS_OUTOFMEMORY, m_pmintf->setDone(5, &handler));
        EXPECT_EQ(0, commandsAlive());
        EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
        EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
        EXPECT_TRUE(takeEvents().empty());
    }
    EXPECT_EQ(MCS_OK, m_pmintf->setDone(5, &handler));
}

TEST_F(MIntfMemory, ActiveCommandThatCannotEvenBeNotedAsUntoldStaysActiveUntilItsDeadline)
{
    const CMIntf::CCommand* const pactive = sendCommand(5);
    const int nEventPipe = std::exchange(m_pmintf->m_npipeEvt, -1);
    {
        CAllocationFailure failure(1, Failing::Once);
        m_pmintf->clearActiveCommands(MCS_PIPEWRITE);
    }
    m_pmintf->m_npipeEvt = nEventPipe;
    EXPECT_EQ(pactive, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ(1u, m_pmintf->m_mmapActiveCommandByTimeout.size());
}

TEST(LogMemory, LongLineWithoutMemoryIsCut)
{
    const std::string strPath = "/tmp/cut-" + std::to_string(getpid());
    OrvLogLib::CLogFile log("Media", strPath.c_str(), false, false, false);
    const std::string strLong(5000, 'x');
    {
        CAllocationFailure failure(1, Failing::FromThenOn);
        EXPECT_GT(log.TraceString(1, OrvLogLib::LogLib_Normal, "%s", strLong.c_str()), 0);
    }
    EXPECT_GT(log.TraceString(1, OrvLogLib::LogLib_Normal, "%s", strLong.c_str()), 5000);
    log.flush();
    std::ifstream file(strPath);
    std::string strCut;
    std::string strWhole;
    std::getline(file, strCut);
    std::getline(file, strWhole);
    EXPECT_LT(strCut.size(), 5000u);
    EXPECT_GT(strCut.size(), 500u);
    EXPECT_TRUE(strWhole.ends_with(strLong));
    unlink(strPath.c_str());
}

TEST(LogMemory, LogFileThatWasMadeWithoutMemoryIsSilent)
{
    std::optional<OrvLogLib::CLogFile> log;
    {
        CAllocationFailure failure(1, Failing::FromThenOn);
        log.emplace("Media", "/tmp/silent", false, false, false);
    }
    const char* apszTexts[] = {"alarm"};
    EXPECT_GE(0, log->TraceString(1, OrvLogLib::LogLib_Normal, "line"));
    EXPECT_EQ(0, log->ReportEventToWIN32Log(7, 1, 0, apszTexts, nullptr));
    log->flush();
    EXPECT_NE(0, access("/tmp/silent", F_OK));
}

// Fails each allocation of a start in turn: two of them are the locks, those before are the log's.
TEST(MIntfMemoryStart, LocksThatCannotBeHadLeaveNoPipesAndNoThread)
{
    seams::setThreads(seams::Threads::Pretend);
    auto pmintf = std::make_unique<CMIntf>();
    const std::string strRspPipe = pmintf->m_szRspPipe;
    const std::string strEvtPipe = pmintf->m_szEvtPipe;
    const std::string strLog =
        std::string(access("/var/log/zelmedia", W_OK | X_OK) == 0 ? "/var/log/zelmedia" : "/tmp") + "/Media-p" +
        std::to_string(getpid()) + ".log";
    int nLockFailures = 0;
    for (CAttempts attempts(Failing::Once); attempts.next();)
    {
        pmintf->m_bEventThreadRunning = 0;
        pmintf->m_nConnectID = -1;
        pmintf->finalize();
        pmintf->m_szRspPipe[0] = pmintf->m_szEvtPipe[0] = '\0';
        unlink(strLog.c_str());
        const int nStatus = attempts.run([&] { return pmintf->initialize(); });
        if (nStatus == MCS_OK)
        {
            EXPECT_EQ(1, pmintf->m_bEventThreadRunning);
            continue;
        }
        ASSERT_EQ(MCS_LOCKFAILED, nStatus) << "at allocation " << attempts.nth();
        ++nLockFailures;
        EXPECT_EQ(-1, pmintf->m_npipeRsp);
        EXPECT_EQ(-1, pmintf->m_npipeEvt);
        EXPECT_STREQ("", pmintf->m_szRspPipe);
        EXPECT_STREQ("", pmintf->m_szEvtPipe);
        EXPECT_EQ(0, pmintf->m_bEventThreadRunning);
        EXPECT_NE(0, access(strRspPipe.c_str(), F_OK));
        EXPECT_NE(0, access(strEvtPipe.c_str(), F_OK));
        std::ifstream file(strLog);
        std::string strLine;
        EXPECT_TRUE(std::getline(file, strLine));
        EXPECT_TRUE(contains(strLine, " 2 CMIntf::initialize")) << strLine;
        EXPECT_FALSE(std::getline(file, strLine)) << strLine;
        EXPECT_EQ(MCS_NOTCONNECTED, pmintf->ping());
    }
    EXPECT_EQ(2, nLockFailures);
    pmintf->m_bEventThreadRunning = 0;
    pmintf.reset();
    unlink(strLog.c_str());
    seams::setThreads(seams::Threads::Real);
}
