// setDone: the stream's current operation ends with one reported completion.
#include "EventThreadFixture.h"
#include "PlatformSeams.h"

#include <unistd.h>
#include <utility>

class MIntfSetDone : public CEventThreadTest
{
protected:
    // A command that is an ordinary step so far.
    CMIntf::CCommand* step(MICMD micmd) { return sendCommand(5, micmd, 300, nullptr, 0); }

    // Nothing was made and no event written.
    void expectOnlyMarked(int nStreamID)
    {
        m_pLog->clear();
        EXPECT_EQ(MCS_OK, m_pmintf->setDone(nStreamID, &m_handler));
        EXPECT_EQ((CLogLines{setDoneLine(nStreamID)}), m_pLog->lines());
        EXPECT_TRUE(takeEvents().empty());
    }
};

TEST_F(MIntfSetDone, MarksEveryKindOfCommandOfTheStream)
{
    CMIntf::CCommand* const pcommandPlay = step(MICMD_PLAYFILE);
    CMIntf::CCommand* const pcommandRecord = step(MICMD_RECORDFILE);
    CMIntf::CCommand* const pcommandPlayQueued1 = step(MICMD_PLAYFILE);
    CMIntf::CCommand* const pcommandPlayQueued2 = step(MICMD_PLAYFILE);
    CMIntf::CCommand* const pcommandRecordQueued1 = step(MICMD_RECORDFILE);
    CMIntf::CCommand* const pcommandRecordQueued2 = step(MICMD_RECORDFILE);
    CMIntf::CCommand* const pcommandOther = sendCommand(6, MICMD_PLAYFILE, 300, nullptr, 0);
    expectOnlyMarked(5);

    EXPECT_EQ(1, pcommandPlay->m_bDone);
    EXPECT_EQ(1, pcommandRecord->m_bDone);
    EXPECT_EQ(0, pcommandPlayQueued1->m_bDone);
    EXPECT_EQ(1, pcommandPlayQueued2->m_bDone);
    EXPECT_EQ(0, pcommandRecordQueued1->m_bDone);
    EXPECT_EQ(1, pcommandRecordQueued2->m_bDone);
    EXPECT_EQ(0, pcommandOther->m_bDone);
}

TEST_F(MIntfSetDone, ActivePlayAloneIsEnough)
{
    CMIntf::CCommand* const pcommand = step(MICMD_PLAYCLIP);
    expectOnlyMarked(5);
    EXPECT_EQ(1, pcommand->m_bDone);
}

TEST_F(MIntfSetDone, ActiveRecordAloneIsEnough)
{
    CMIntf::CCommand* const pcommand = step(MICMD_RECORDFILE);
    expectOnlyMarked(5);
    EXPECT_EQ(1, pcommand->m_bDone);
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
}

TEST_F(MIntfSetDone, QueuedPlayAloneIsEnough)
{
    step(MICMD_PLAYFILE);
    CMIntf::CCommand* const pcommand = step(MICMD_PLAYFILE);
    m_pmintf->remActiveCommand(5, -1, 1);
    expectOnlyMarked(5);
    EXPECT_EQ(1, pcommand->m_bDone);
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
}

TEST_F(MIntfSetDone, QueuedRecordAloneIsEnough)
{
    step(MICMD_RECORDFILE);
    CMIntf::CCommand* const pcommand = step(MICMD_RECORDFILE);
    m_pmintf->remActiveCommand(5, -1, 1);
    expectOnlyMarked(5);
    EXPECT_EQ(1, pcommand->m_bDone);
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
}

TEST_F(MIntfSetDone, IdleStreamGetsARecordThatItsOwnEventCompletes)
{
    seams::freezeTick(5000000000);
    m_pmintf->m_nNextSequenceNo = 41;
    EXPECT_EQ(MCS_OK, m_pmintf->setDone(5, &m_handler));

    CMIntf::CCommand* const pcommand = m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5);
    EXPECT_EQ(
        (CLogLines{setDoneLine(5), createdLine(pcommand),
                   infoLine("(Info) CMIntf::setDone calling addActiveCommand called RECORD, seqno = 0, sid = 5")}) +
            playActiveLines(5, "MICMD_NULL", 41, addressOf(pcommand), 705332704) + CLogLines{wakeUpLine(1)},
        m_pLog->lines());
    EXPECT_EQ(5, pcommand->m_nStreamID);
    EXPECT_EQ(1, pcommand->m_bDone);
    EXPECT_EQ(0xFFFFFFFFu, pcommand->m_nTimeout);
    EXPECT_EQ(5000300000u, pcommand->m_ullTimeoutTick);
    EXPECT_EQ(&m_handler, pcommand->m_pcomplHandler);
    EXPECT_EQ(41u, pcommand->m_cmd.nSequenceNo);
    EXPECT_EQ(1u, m_pmintf->m_mmapActiveCommandByTimeout.count(5000300000u));
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
    EXPECT_TRUE(takeRequests().empty());

    const std::vector<structMIEVT> vEvents = takeEvents();
    ASSERT_EQ(1u, vEvents.size());
    EXPECT_EQ(MIEVT_DONE, vEvents[0].s_mievt);
    EXPECT_EQ(5, vEvents[0].nStreamID);
    EXPECT_EQ(41u, vEvents[0].nSequenceID);
    EXPECT_EQ(0, vEvents[0].s_mcstatus);

    m_pmintf->doneEventPass(vEvents[0]);
    EXPECT_EQ((CReports{{5, MCS_OK, OTHER}}), m_handler.m_vReports);
    EXPECT_EQ(0, commandsAlive());
}

TEST_F(MIntfSetDone, EmptyQueuesCountAsNothingInFlight)
{
    m_pmintf->m_mapCommandQueue[5] = new CMIntf::CCommandList;
    m_pmintf->m_mapCommandQueueRecord[5] = new CMIntf::CCommandList;
    EXPECT_EQ(MCS_OK, m_pmintf->setDone(5, &m_handler));
    EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDPlay.count(5));
    EXPECT_EQ(1u, takeEvents().size());
}

TEST_F(MIntfSetDone, EventThatCannotBeWrittenIsNoFailure)
{
    close(m_pmintf->m_npipeEvt);
    m_pmintf->m_npipeEvt = -1;
    EXPECT_EQ(MCS_OK, m_pmintf->setDone(5, &m_handler));
    EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDPlay.count(5));
    EXPECT_EQ(1u, m_pmintf->m_mmapActiveCommandByTimeout.size());
}

// The pipe is full of events, so the event thread comes by before long.
TEST_F(MIntfSetDone, CompletionThatFindsTheEventPipeFullFollowsTheNextEvent)
{
    const structMIEVT evtOther = {};
    while (write(m_pmintf->m_npipeEvt, &evtOther, sizeof(evtOther)) > 0)
        continue;
    CCallingHandler handler([this] {
        if (m_pmintf->m_mapActiveCommandByStreamIDPlay.empty())
            storeUnlocked(m_pmintf->m_bEventThreadStop, 1);
    });
    EXPECT_EQ(MCS_OK, m_pmintf->setDone(5, &handler));
    EXPECT_EQ(MCS_OK, m_pmintf->setDone(6, &handler));
    m_pmintf->eventThreadFunc();
    EXPECT_EQ((CReports{{5, MCS_OK, OTHER}, {6, MCS_OK, OTHER}}), handler.m_vReports);
    EXPECT_EQ(0, commandsAlive());
}

TEST_F(MIntfSetDone, CompletionWhoseEventCannotBeWrittenFollowsInTheNextQuietSecondOnce)
{
    const int nEventPipe = std::exchange(m_pmintf->m_npipeEvt, -1);
    EXPECT_EQ(MCS_OK, m_pmintf->setDone(5, &m_handler));
    m_pmintf->m_npipeEvt = nEventPipe;
    m_pmintf->idlePass();
    m_pmintf->idlePass();
    EXPECT_EQ((CReports{{5, MCS_OK, OTHER}}), m_handler.m_vReports);
    EXPECT_EQ(0, commandsAlive());
}

TEST_F(MIntfSetDone, StreamThatIsClosedBeforeItsCompletionCouldBeWrittenIsToldNothing)
{
    const int nEventPipe = std::exchange(m_pmintf->m_npipeEvt, -1);
    EXPECT_EQ(MCS_OK, m_pmintf->setDone(5, &m_handler));
    m_pmintf->m_npipeEvt = nEventPipe;
    respondNext();
    m_pmintf->closeStream(5);
    CMIntf::CCommand* const pcommand = play(5);
    m_pmintf->idlePass();
    EXPECT_TRUE(m_handler.m_vReports.empty());
    EXPECT_EQ(pcommand, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
}

TEST_F(MIntfSetDone, HoldsTheLockItselfFromTheSearchToTheEvent)
{
    std::vector<int> vDepths;
    CLineHook hook(m_pLog, [&](const std::string&) { vDepths.push_back(m_pmintf->m_pCritSecCMIntf->depth()); });
    m_pmintf->setDone(5, &m_handler);
    ASSERT_EQ(9u, vDepths.size());
    EXPECT_EQ(0, vDepths.front());
    EXPECT_EQ(std::vector<int>(8, 1), std::vector<int>(vDepths.begin() + 1, vDepths.end()));
    EXPECT_EQ(0, m_pmintf->m_pCritSecCMIntf->depth());
}
