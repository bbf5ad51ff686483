// Cancelling a stream's play: what is dropped at once, and what waits for the driver.
#include "ExpectedLines.h"
#include "MIntfFixture.h"

#include <unistd.h>

class MIntfCancel : public CMIntfTest
{
};

TEST_F(MIntfCancel, DropsQueuedPlaysAndAsksTheDriverToEndTheActiveOne)
{
    CHandlerRecorder handler;
    CMIntf::CCommand* const pcommand = sendCommand(5, MICMD_PLAYFILE, 300, &handler, 0);
    CMIntf::CCommand* const pcommandQueued1 = sendCommand(5, MICMD_PLAYFILE, 300, &handler);
    CMIntf::CCommand* const pcommandQueued2 = sendCommand(5, MICMD_PLAYCLIP, 300, &handler);
    CMIntf::CCommand* const pcommandOther = sendCommand(6, MICMD_PLAYFILE, 300, &handler, 0);
    takeRequests();
    m_pmintf->m_nNextSequenceNo = 41;
    respondNext();
    m_pLog->clear();
    const CLogLines vDropped = {destroyedLine(pcommandQueued1), destroyedLine(pcommandQueued2)};
    EXPECT_EQ(MCS_OK, m_pmintf->cancel(5, 1));

    const std::string strAddress = createdAddresses(m_pLog->lines()).at(0);
    EXPECT_EQ(CLogLines{cancelLine(5)} + vDropped + immediateLines(strAddress, "MICMD_CANCEL", 41), m_pLog->lines());
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_CANCEL, vRequests[0].s_micmd);
    EXPECT_EQ(77, vRequests[0].nConnectID);
    EXPECT_EQ(41u, vRequests[0].nSequenceNo);
    EXPECT_EQ(5, vRequests[0].cancel.nStreamID);
    EXPECT_EQ(1u, vRequests[0].cancel.nCancelType);

    EXPECT_EQ(pcommand, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ(1, pcommand->m_bDone);
    EXPECT_EQ(0u, m_pmintf->m_mapCommandQueue.count(5));
    EXPECT_EQ(0, pcommandOther->m_bDone);
    EXPECT_EQ(2u, m_pmintf->m_mmapActiveCommandByTimeout.size());
    EXPECT_TRUE(handler.m_vReports.empty());
    EXPECT_TRUE(takeEvents().empty());
}

TEST_F(MIntfCancel, RecordTypeWorksOnThePlaySideToo)
{
    CMIntf::CCommand* const pcommand = sendCommand(5, MICMD_RECORDFILE, 300, nullptr, 0, 1);
    CMIntf::CCommand* const pcommandRecord = sendCommand(5, MICMD_RECORDFILE, 300, nullptr, 0);
    CMIntf::CCommand* const pcommandQueued = sendCommand(5, MICMD_RECORDFILE, 300, nullptr, 0);
    takeRequests();
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->cancel(5, 2));
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(2u, vRequests[0].cancel.nCancelType);
    EXPECT_EQ(1, pcommand->m_bDone);
    EXPECT_EQ(0, pcommandRecord->m_bDone);
    EXPECT_EQ(0, pcommandQueued->m_bDone);
}

TEST_F(MIntfCancel, IdleStreamIsNotCancelledAtTheDriver)
{
    EXPECT_EQ(MCS_OK, m_pmintf->cancel(5, 1));
    EXPECT_EQ((CLogLines{cancelLine(5)}), m_pLog->lines());
    EXPECT_TRUE(takeRequests().empty());
}

TEST_F(MIntfCancel, RecordSideGoesOnWhileThePlaySideIsIdle)
{
    CMIntf::CCommand* const pcommand = sendCommand(5, MICMD_RECORDFILE, 300, nullptr, 0);
    CMIntf::CCommand* const pcommandQueued = sendCommand(5, MICMD_RECORDFILE, 300, nullptr, 0);
    takeRequests();
    m_pLog->clear();
    EXPECT_EQ(MCS_OK, m_pmintf->cancel(5, 2));
    EXPECT_EQ((CLogLines{cancelLine(5)}), m_pLog->lines());
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(pcommand, m_pmintf->m_mapActiveCommandByStreamIDRecord.at(5));
    EXPECT_EQ(CMIntf::CCommandList{pcommandQueued}, *m_pmintf->m_mapCommandQueueRecord.at(5));
    EXPECT_EQ(0, pcommand->m_bDone);
    EXPECT_EQ(0, pcommandQueued->m_bDone);
}

TEST_F(MIntfCancel, QueueWithoutAnActivePlayIsDroppedAndNothingSent)
{
    sendCommand(5);
    sendCommand(5);
    m_pmintf->remActiveCommand(5, -1, 1);
    takeRequests();
    EXPECT_EQ(MCS_OK, m_pmintf->cancel(5, 1));
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
    EXPECT_EQ(0, commandsAlive());
}

TEST_F(MIntfCancel, DriversRefusalIsTheResult)
{
    CMIntf::CCommand* const pcommand = sendCommand(5);
    respondNext(MIRSP_STATUS, 1);
    EXPECT_EQ(34, m_pmintf->cancel(5, 1));
    EXPECT_EQ(pcommand, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
}

TEST_F(MIntfCancel, LostConnectionIsTheResult)
{
    CMIntf::CCommand* const pcommand = sendCommand(5, MICMD_PLAYFILE, 300, nullptr, 0);
    sendCommand(5);
    disconnect();
    EXPECT_EQ(47, m_pmintf->cancel(5, 1));
    EXPECT_EQ(pcommand, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ(1, pcommand->m_bDone);
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
}

TEST_F(MIntfCancel, DriverThatIsGoneEndsTheActivePlayWithinTheCancel)
{
    sendCommand(5);
    close(m_nRequestReader);
    m_nRequestReader = -1;
    close(m_pmintf->m_npipeEvt);
    m_pmintf->m_npipeEvt = -1;
    EXPECT_EQ(45, m_pmintf->cancel(5, 1));
    EXPECT_EQ(0, commandsAlive());
    EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
}

TEST_F(MIntfCancel, HoldsTheLockAcrossTheExchange)
{
    sendCommand(5);
    sendCommand(5);
    respondNext();
    m_pLog->clear();
    std::vector<int> vDepths;
    {
        CLineHook hook(m_pLog, [&](const std::string&) { vDepths.push_back(m_pmintf->m_pCritSecCMIntf->depth()); });
        m_pmintf->cancel(5, 1);
    }
    // Entry; the queued command's end; the command, its two lines; then the transport has it as well.
    EXPECT_EQ((std::vector<int>{0, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2}), vDepths);
    EXPECT_EQ(0, m_pmintf->m_pCritSecCMIntf->depth());
}
