// The sweep of the event thread: commands past their deadline, and the alarm.
#include "EventThreadFixture.h"
#include "PlatformSeams.h"

#include <future>
#include <unistd.h>

class MIntfEventThreadSweep : public CEventThreadTest
{
protected:
    MIntfEventThreadSweep()
    {
        seams::freezeTick(NOW);
        m_pmintf->m_ullLastResponseTick = NOW;
    }

    // Active, entered by hand, with its deadline so long ago. nSide: 1 for the play side.
    CMIntf::CCommand* overdue(int nStreamID, MICMD micmd, uint64_t ullOverdue, bool bPlaySide = true)
    {
        CMIntf::CCommand* const pcommand = newCommand(nStreamID, micmd, 0, &m_handler);
        int bSend = 0;
        seams::freezeTick(NOW - ullOverdue);
        if (bPlaySide)
            m_pmintf->processPlayActiveCommand(pcommand, bSend);
        else
            m_pmintf->processRecordActiveCommand(pcommand, bSend);
        seams::freezeTick(NOW);
        return pcommand;
    }

    // An idle pass whose cancel requests are accepted.
    CLogLines sweep(uint32_t nCancels)
    {
        takeRequests();
        for (uint32_t n = 0; n < nCancels; ++n)
            respondNext(MIRSP_STATUS, 0, n);
        m_newLines.beginHere();
        m_pmintf->idlePass();
        return m_newLines.get();
    }

    static CLogLines timedOutLines(int nStreamID, uint32_t nSequenceNo)
    {
        return {operationLine(text("CMIntf::eventThreadFunc - Sending MICMD_CANCEL, m_nConnectID = 77, m_nStreamID = "
                                   "%d",
                                   nStreamID)),
                infoLine(text(" (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion-4 ,sid = %d, nSequenceID = "
                              "%u",
                              nStreamID, nSequenceNo))};
    }

    static constexpr uint64_t NOW = 10000000;
};

TEST_F(MIntfEventThreadSweep, CommandIsTimedOutAtItsDeadlineAndNotAMillisecondBefore)
{
    sendCommand(5, MICMD_PLAYFILE, 2, &m_handler);
    seams::advanceTick(1999);
    EXPECT_EQ(CLogLines(), sweep(0));
    seams::advanceTick(1);
    sweep(1);
    EXPECT_EQ((CReports{{5, 46, PLAY}}), m_handler.m_vReports);
    expectNothingLeft();
}

TEST_F(MIntfEventThreadSweep, OverdueCommandIsRemovedCancelledReportedAndDestroyed)
{
    CMIntf::CCommand* const pcommand = overdue(5, MICMD_PLAYFILE, 0);
    CMIntf::CCommand* const pcommandQueued = newCommand(5);
    int bSend = 0;
    m_pmintf->processPlayActiveCommand(pcommandQueued, bSend);
    const CLogLines vRemoved = removalLines(5, 1, pcommand, nullptr) + CLogLines{destroyedLine(pcommandQueued)};
    const CLogLine lineDestroyed = destroyedLine(pcommand);
    const CLogLines vLines = sweep(1);

    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(1u, vAddresses.size());
    EXPECT_EQ(vRemoved + immediateLines(vAddresses[0], "MICMD_CANCEL", 2) + timedOutLines(5, 1) +
                  CLogLines{lineDestroyed},
              vLines);
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_CANCEL, vRequests[0].s_micmd);
    EXPECT_EQ(77, vRequests[0].nConnectID);
    EXPECT_EQ(5, vRequests[0].cancel.nStreamID);
    EXPECT_EQ((CReports{{5, 46, PLAY}}), m_handler.m_vReports);
    expectNothingLeft();
}

TEST_F(MIntfEventThreadSweep, CancelTypeAndReasonFollowFromTheCode)
{
    overdue(1, MICMD_PLAYCLIP, 4);
    overdue(2, MICMD_PLAYFILE, 3);
    overdue(3, MICMD_RECORDFILE, 2, false);
    overdue(4, MICMD_RECORDFILE, 1); // behind a prompt it is on the play side
    overdue(5, MICMD_PING, 0);
    sweep(5);
    EXPECT_EQ((CReports{{1, 46, PLAY}, {2, 46, PLAY}, {3, 46, RECORD}, {4, 46, RECORD}, {5, 46, OTHER}}),
              m_handler.m_vReports);
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(5u, vRequests.size());
    const uint32_t anExpected[] = {1, 1, 2, 2};
    for (size_t n = 0; n < 4; ++n)
    {
        EXPECT_EQ(static_cast<int>(n + 1), vRequests[n].cancel.nStreamID);
        EXPECT_EQ(anExpected[n], vRequests[n].cancel.nCancelType);
    }
    expectNothingLeft();
}

TEST_F(MIntfEventThreadSweep, AllAreUnlinkedBeforeTheFirstIsReported)
{
    CMIntf::CCommand* const pcommand1 = overdue(9, MICMD_PLAYFILE, 20);
    CMIntf::CCommand* const pcommand2 = overdue(5, MICMD_RECORDFILE, 10, false);
    CMIntf::CCommand* const pcommandLater = sendCommand(4, MICMD_PLAYFILE, 1);
    const CLogLines vRemoved = removalLines(9, 1, pcommand1, nullptr) + removalLines(5, 2, nullptr, pcommand2);
    const CLogLine lineDestroyed1 = destroyedLine(pcommand1);
    const CLogLine lineDestroyed2 = destroyedLine(pcommand2);
    const CLogLines vLines = sweep(2);
    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(2u, vAddresses.size());
    EXPECT_EQ(vRemoved + immediateLines(vAddresses[0], "MICMD_CANCEL", 4) + timedOutLines(9, 1) +
                  CLogLines{lineDestroyed1} + immediateLines(vAddresses[1], "MICMD_CANCEL", 5) + timedOutLines(5, 2) +
                  CLogLines{lineDestroyed2},
              vLines);
    EXPECT_EQ(pcommandLater, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(4));
    EXPECT_EQ(1, commandsAlive());
}

TEST_F(MIntfEventThreadSweep, BothSidesOfAStreamTimeOut)
{
    overdue(5, MICMD_PLAYFILE, 0);
    overdue(5, MICMD_RECORDFILE, 0, false);
    sweep(2);
    EXPECT_EQ((CReports{{5, 46, PLAY}, {5, 46, RECORD}}), m_handler.m_vReports);
    expectNothingLeft();
}

TEST_F(MIntfEventThreadSweep, UnknownCodesAreNeverTimedOutAndRaiseNoAlarm)
{
    overdue(1, static_cast<MICMD>(17), 900000);
    overdue(2, static_cast<MICMD>(-1), 900000);
    overdue(3, MICMD_NULL, 900000);
    EXPECT_EQ(CLogLines(), sweep(0));
    EXPECT_EQ(3u, m_pmintf->m_mapActiveCommandByStreamIDPlay.size());
    EXPECT_TRUE(m_pLog->alarms().empty());
    EXPECT_TRUE(takeRequests().empty());

    overdue(4, MICMD_RECORDGETSTATUS, 0);
    sweep(1);
    EXPECT_EQ((CReports{{4, 46, OTHER}}), m_handler.m_vReports);
}

TEST_F(MIntfEventThreadSweep, AlarmIsRaisedAtFiveMinutesOverdue)
{
    overdue(5, MICMD_PLAYFILE, 299999);
    sweep(1);
    EXPECT_TRUE(m_pLog->alarms().empty());

    overdue(5, MICMD_PLAYFILE, 300000);
    sweep(1);
    const std::vector<CAlarm> vAlarms = m_pLog->alarms();
    ASSERT_EQ(1u, vAlarms.size());
    EXPECT_EQ(0xC1030190u, vAlarms[0].nEventID);
    EXPECT_EQ(std::vector<std::string>{"CMIntf::eventThreadFunc: ActiveCommand command timed out"},
              vAlarms[0].vStrings);
    EXPECT_EQ(0u, vAlarms[0].ulDataSize);
    EXPECT_TRUE(vAlarms[0].bDataNull);
    EXPECT_EQ((CReports{{5, 46, PLAY}, {5, 46, PLAY}}), m_handler.m_vReports);
}

TEST_F(MIntfEventThreadSweep, OnePassRaisesOneAlarm)
{
    overdue(5, MICMD_PLAYFILE, 400000);
    overdue(6, MICMD_PLAYFILE, 300000);
    sweep(2);
    EXPECT_EQ(1u, m_pLog->alarms().size());
    overdue(5, MICMD_PLAYFILE, 300000);
    sweep(1);
    EXPECT_EQ(2u, m_pLog->alarms().size());
}

TEST_F(MIntfEventThreadSweep, QueuesOfTheStreamAreDroppedWithoutCompletions)
{
    overdue(5, MICMD_RECORDFILE, 0, false);
    play(5);
    play(5);
    record(5);
    play(6);
    play(6);
    sweep(1);
    EXPECT_EQ((CReports{{5, 46, RECORD}}), m_handler.m_vReports);
    EXPECT_EQ(0u, m_pmintf->m_mapCommandQueue.count(5));
    EXPECT_EQ(0u, m_pmintf->m_mapCommandQueueRecord.count(5));
    EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDPlay.count(5)); // goes on
    EXPECT_EQ(1u, m_pmintf->m_mapCommandQueue.at(6)->size());
}

TEST_F(MIntfEventThreadSweep, PlainRecordingEndsOnlyAtItsDeadline)
{
    sendCommand(5, MICMD_RECORDFILE, 30, &m_handler);
    done(5, 1, 0);
    EXPECT_TRUE(m_handler.m_vReports.empty());
    seams::advanceTick(30000);
    m_pmintf->m_ullLastResponseTick = NOW + 30000;
    sweep(1);
    EXPECT_EQ((CReports{{5, 46, RECORD}}), m_handler.m_vReports);
    expectNothingLeft();
}

TEST_F(MIntfEventThreadSweep, OrdinaryStepIsReportedWhenItTimesOut)
{
    overdue(5, MICMD_PLAYFILE, 0)->m_bDone = 0;
    sweep(1);
    EXPECT_EQ((CReports{{5, 46, PLAY}}), m_handler.m_vReports);
}

TEST_F(MIntfEventThreadSweep, CommandWithoutHandlerIsCancelledAndDestroyed)
{
    overdue(5, MICMD_PLAYFILE, 0)->m_pcomplHandler = nullptr;
    const CLogLines vLines = sweep(1);
    EXPECT_EQ(1u, takeRequests().size());
    EXPECT_EQ(0u, m_pLog->count("OnCMIntfCompletion"));
    EXPECT_EQ(1u, m_pLog->count("Sending MICMD_CANCEL"));
    expectNothingLeft();
}

TEST_F(MIntfEventThreadSweep, RefusedCancelChangesNothing)
{
    overdue(5, MICMD_PLAYFILE, 0);
    respondNext(MIRSP_STATUS, 1);
    m_pmintf->idlePass();
    EXPECT_EQ((CReports{{5, 46, PLAY}}), m_handler.m_vReports);
    expectNothingLeft();
}

TEST_F(MIntfEventThreadSweep, CommandsTimeOutWithoutAConnection)
{
    overdue(5, MICMD_PLAYFILE, 0);
    disconnect();
    m_pmintf->idlePass();
    EXPECT_EQ((CReports{{5, 46, PLAY}}), m_handler.m_vReports);
    EXPECT_TRUE(m_pLog->has(operationLine("CMIntf::eventThreadFunc - Sending MICMD_CANCEL, m_nConnectID = -1, "
                                          "m_nStreamID = 5")));
    expectNothingLeft();
}

TEST_F(MIntfEventThreadSweep, CancelThatLosesTheDriverEndsTheOtherOverdueOnesAllTheSame)
{
    overdue(5, MICMD_PLAYFILE, 1);
    overdue(6, MICMD_PLAYFILE, 0);
    close(m_nRequestReader);
    m_nRequestReader = -1;
    m_pmintf->idlePass();
    EXPECT_EQ((CReports{{5, 46, PLAY}, {6, 46, PLAY}}), m_handler.m_vReports);
    EXPECT_EQ(-1, m_pmintf->m_npipeReq);
    EXPECT_EQ(-1, m_pmintf->m_nConnectID);
    EXPECT_TRUE(takeEvents().empty()); // they were active no more
    expectNothingLeft();
}

TEST_F(MIntfEventThreadSweep, EqualDeadlinesAreAllSwept)
{
    for (int nStreamID = 1; nStreamID <= 50; ++nStreamID)
        overdue(nStreamID, MICMD_PLAYFILE, 0);
    sweep(50);
    EXPECT_EQ(50u, m_handler.m_vReports.size());
    expectNothingLeft();
}

TEST_F(MIntfEventThreadSweep, HandlerRunsWithoutTheLockAndMayPlayTheNext)
{
    bool bLockFree = false;
    CMIntf::CCommand* pcommandNew = nullptr;
    CCallingHandler handler([&] {
        auto entered = std::async(std::launch::async, [this] { CCritSecHold hold(m_pmintf->m_pCritSecCMIntf); });
        bLockFree = entered.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
        pcommandNew = play(5);
    });
    overdue(5, MICMD_PLAYFILE, 0)->m_pcomplHandler = &handler;
    sweep(1);
    EXPECT_TRUE(bLockFree);
    EXPECT_EQ(pcommandNew, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ(1, commandsAlive());
}
