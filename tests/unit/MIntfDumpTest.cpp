// CMIntf's dump: the listing of every registry, line by line, and the request that follows it.
#include "ExpectedLines.h"
#include "Golden.h"
#include "MIntfFixture.h"
#include "PlatformSeams.h"
#include "ZelMediaServicesImpl.h"
#include "ZelMediaStreamImpl.h"

#include <memory>
#include <utility>

class MIntfDump : public CMIntfTest
{
protected:
    void TearDown() override
    {
        m_pmintf->m_mapStreamByStreamID.clear();
        for (const auto& entry : m_pmintf->m_mapClipFileByID)
            delete entry.second;
        m_pmintf->m_mapClipFileByID.clear();
    }

    void addClipFile(int nFileID, const char* pszName, int nDriverID, int nUseCount)
    {
        auto* const pClipFile = new CMIntf::CClipFile;
        pClipFile->m_strName = pszName;
        pClipFile->m_nCMIntfFileID = nDriverID;
        pClipFile->m_nUseCount = nUseCount;
        m_pmintf->m_mapClipFileByID[nFileID] = pClipFile;
    }

    // The lines of a dump up to the request, which is accepted.
    CLogLines listing()
    {
        m_pLog->clear();
        respondNext();
        EXPECT_EQ(MCS_OK, m_pmintf->dump());
        CLogLines vLines = m_pLog->lines();
        const CLogLines vRequest =
            immediateLines(createdAddresses(vLines).at(0), "MICMD_DUMP", m_pmintf->m_nNextSequenceNo - 1);
        EXPECT_LE(vRequest.size(), vLines.size());
        if (vRequest.size() > vLines.size())
            return vLines;
        const auto begin = vLines.end() - static_cast<std::ptrdiff_t>(vRequest.size());
        EXPECT_EQ(vRequest, CLogLines(begin, vLines.end()));
        vLines.erase(begin, vLines.end());
        return vLines;
    }

    const CLogLine m_clipFiles = {1, 64, "-- m_mapClipFileByID"};
    const CLogLine m_streams = {1, 64, "-- m_mapStreamByStreamID"};
    const CLogLine m_plays = {1, 64, "-- m_mapActiveCommandByStreamIDPlay"};
    const CLogLine m_deadlines = {1, 64, "-- m_mmapActiveCommandByTimeout"};
    const CLogLine m_queues = {1, 64, "-- m_mapCommandQueue"};
};

TEST_F(MIntfDump, EmptyRegistriesAreFiveHeadingsAndTheRequest)
{
    expectGolden("dump-empty.txt", listing());
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_DUMP, vRequests[0].s_micmd);
    EXPECT_TRUE(vRequests[0].nConnectID == CONNECT_ID);
}

TEST_F(MIntfDump, ClipFilesAscendByLibraryID)
{
    addClipFile(12, "/b.ul", -1, 1);
    addClipFile(2, "/a %s.ul", 501, 3);
    expectGolden("dump-clip-files.txt", listing());
}

TEST_F(MIntfDump, StreamsAscendByDriverIDAndShowTheirState)
{
    CZelMediaStreamImpl streamLow;
    CZelMediaStreamImpl streamHigh;
    streamLow.m_bInitialized = 1;
    streamHigh.m_bPlayCancelled = 7;
    streamHigh.m_pStream = reinterpret_cast<CZelMediaStream*>(0x89ABCDE0);
    m_pmintf->m_mapStreamByStreamID[30] = &streamHigh;
    m_pmintf->m_mapStreamByStreamID[4] = &streamLow;
    expectGolden("dump-streams.txt", listing(), {{"low", &streamLow}, {"high", &streamHigh}});
}

TEST_F(MIntfDump, ActivePlaysAscendByStreamAndAllActiveCommandsByDeadline)
{
    seams::freezeTick(18446744073709000000ull);
    const CMIntf::CCommand* const pplayHigh = sendCommand(30, MICMD_PLAYCLIP, 0xFFFFFFFF, nullptr, 0);
    const CMIntf::CCommand* const pplayLow = sendCommand(4, MICMD_PLAYFILE, 20);
    const CMIntf::CCommand* const precord = sendCommand(4, MICMD_RECORDFILE, 10);
    takeRequests();
    expectGolden("dump-active-commands.txt", listing(),
                 {{"low play", pplayLow}, {"high play", pplayHigh}, {"record", precord}});
}

TEST_F(MIntfDump, QueuedRecordsFollowThePlaysUnderTheNumberOfPlayQueues)
{
    seams::freezeTick(1000);
    const CMIntf::CCommand* apActive[4];
    const CMIntf::CCommand* apQueued[3];
    for (const int n : {2, 1, 0})
    {
        apActive[n] = sendCommand(10 + n, MICMD_PLAYFILE, 1);
        apQueued[n] = sendCommand(10 + n, MICMD_PLAYCLIP, 2, nullptr, 0);
    }
    const CMIntf::CCommand* const pqueuedSecond = sendCommand(11, MICMD_RECORDFILE, 0x80000000, nullptr, 1, 1);
    apActive[3] = sendCommand(50, MICMD_RECORDFILE, 1);
    const CMIntf::CCommand* const precordFirst = sendCommand(50, MICMD_RECORDFILE, 3);
    const CMIntf::CCommand* const precordSecond = sendCommand(50, MICMD_RECORDFILE, 0xFFFFFFFF, nullptr, 0);
    takeRequests();
    expectGolden("dump-queues.txt", listing(),
                 {{"active 0", apActive[0]},
                  {"active 1", apActive[1]},
                  {"active 2", apActive[2]},
                  {"active 3", apActive[3]},
                  {"queued 0", apQueued[0]},
                  {"queued 1", apQueued[1]},
                  {"queued 2", apQueued[2]},
                  {"queued second", pqueuedSecond},
                  {"first record", precordFirst},
                  {"second record", precordSecond}});
}

TEST_F(MIntfDump, EmptyPlayQueueHasNoLineButCounts)
{
    m_pmintf->m_mapCommandQueue[8] = new CMIntf::CCommandList;
    sendCommand(5, MICMD_RECORDFILE);
    const CMIntf::CCommand* const pqueued = sendCommand(5, MICMD_RECORDFILE, 3);
    const CLogLines vLines = listing();
    EXPECT_EQ(m_queues, vLines.at(vLines.size() - 2));
    EXPECT_EQ(errorLine(text("   sid 1, cmd 0x%08X, cmd MICMD_RECORDFILE, done 1, timeout 3", addressForLog(pqueued))),
              vLines.back());
}

TEST_F(MIntfDump, ListingIsWrittenWithoutAConnection)
{
    addClipFile(1, "/a.ul", -1, 1);
    disconnect();
    m_pLog->clear();
    EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->dump());
    EXPECT_EQ((CLogLines{m_clipFiles,
                         {1, 64, "   fid 1, cmfid -1, name /a.ul, usecount 1"},
                         m_streams,
                         m_plays,
                         m_deadlines,
                         m_queues}) +
                  immediateNotConnectedLines(createdAddresses(m_pLog->lines()).at(0), "MICMD_DUMP"),
              m_pLog->lines());
}

TEST_F(MIntfDump, RefusalByTheDriverIsTheResult)
{
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_pmintf->dump());
    EXPECT_EQ(1u, m_pLog->count("-- m_mapCommandQueue"));
}

TEST_F(MIntfDump, ServicesTraceTheCallAndReturnItsResult)
{
    CZelMediaServicesImpl services(nullptr);
    m_pLog->clear();
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, services.dump());
    EXPECT_EQ((CLogLine{8, 2, "CZelMediaServicesImpl::dump()"}), m_pLog->lines().at(0));
    EXPECT_EQ(m_clipFiles, m_pLog->lines().at(1));
}

TEST_F(MIntfDump, LocksAreHeldOneAfterTheOtherAndNeitherAcrossTheStartOfTheRequest)
{
    addClipFile(1, "/a.ul", -1, 1);
    sendCommand(5);
    m_pLog->clear();
    respondNext();
    typedef std::vector<std::pair<int, int>> CDepths; // clip-file lock, main lock
    CDepths vDepths;
    {
        const CLineHook hook(m_pLog, [&](const std::string&) {
            vDepths.emplace_back(m_pmintf->m_pCritSecClipFiles->depth(), m_pmintf->m_pCritSecCMIntf->depth());
        });
        EXPECT_EQ(MCS_OK, m_pmintf->dump());
    }
    // Two lines of clip files; six of the rest; the request's three before it takes the lock itself.
    vDepths.resize(11);
    EXPECT_EQ((CDepths{{1, 0}, {1, 0}, {0, 1}, {0, 1}, {0, 1}, {0, 1}, {0, 1}, {0, 1}, {0, 0}, {0, 0}, {0, 0}}),
              vDepths);
}

TEST_F(MIntfDump, LineOfAClassThatIsOffIsNoLineAlsoWhenItIsTurnedOffOnTheWay)
{
    m_pmintf->m_pLogFile->setTraceMask(TRACE_OPERATION);
    EXPECT_EQ(0, m_pmintf->trace(TRACE_INFO, OrvLogLib::LogLib_High, "too late"));
    EXPECT_TRUE(m_pLog->lines().empty());
    m_pmintf->replaceLogFile(nullptr);
    EXPECT_EQ(0, m_pmintf->trace(TRACE_OPERATION, OrvLogLib::LogLib_High, "too late"));
}
