// What a done event starts: the next queued play and record of its stream, and their failures.
#include "EventThreadFixture.h"
#include "PlatformSeams.h"

#include <unistd.h>

class MIntfEventThreadQueue : public CEventThreadTest
{
protected:
    // The play with number 1, a record, and behind each of them a queued one.
    void fillBothSides()
    {
        m_pcommandActive = play(5, 0);
        m_pcommandActiveRecord = record(5, 0);
        m_pcommandPlay = play(5);
        m_pcommandRecord = record(5);
        takeRequests();
    }

    static CLogLines playSideLines(const CMIntf::CCommand* pcommand, uint32_t nSequenceNo, uint64_t ullDeadline)
    {
        const char* const pszCommand = MICMDToString(pcommand->m_cmd.s_micmd);
        return CLogLines{requestLine(5, pszCommand)} +
               playActiveLines(5, pszCommand, nSequenceNo, addressOf(pcommand), static_cast<int>(ullDeadline));
    }

    static CLogLines recordSideLines(uint32_t nSequenceNo)
    {
        return CLogLines{requestLine(5, "MICMD_RECORDFILE")} + recordActiveLines(5, nSequenceNo);
    }

    // A command as it will be when it has got this number.
    static CLogLines withdrawnLines(CMIntf::CCommand* pcommand, uint32_t nSequenceNo, bool bPlaySide)
    {
        const uint32_t nKept = pcommand->m_cmd.nSequenceNo;
        pcommand->m_cmd.nSequenceNo = nSequenceNo;
        const CLogLines vLines =
            CLogLines{removingLine()} +
            removalLines(5, nSequenceNo, bPlaySide ? pcommand : nullptr, bPlaySide ? nullptr : pcommand);
        pcommand->m_cmd.nSequenceNo = nKept;
        return vLines;
    }

    CMIntf::CCommand* m_pcommandActive = nullptr;
    CMIntf::CCommand* m_pcommandActiveRecord = nullptr;
    CMIntf::CCommand* m_pcommandPlay = nullptr;
    CMIntf::CCommand* m_pcommandRecord = nullptr;
};

TEST_F(MIntfEventThreadQueue, SuccessStartsTheNextPlayAndThenTheNextRecord)
{
    seams::freezeTick(1000);
    fillBothSides();
    m_pmintf->remActiveCommand(5, 2, 1); // the record side is free
    m_newLines.beginHere();
    const CLogLines vExpected = readLines(5, 1, 0) + matchedLines(m_pcommandActive) +
                                CLogLines{destroyedLine(m_pcommandActive)} + playSideLines(m_pcommandPlay, 3, 301000) +
                                exchangeLines(5, "MICMD_PLAYFILE", 3) + recordSideLines(4) +
                                exchangeLines(5, "MICMD_RECORDFILE", 4);
    respondNext();
    respondNext(MIRSP_STATUS, 0, 1);
    done(5, 1, 0);

    EXPECT_EQ(vExpected, m_newLines.get());
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(2u, vRequests.size());
    EXPECT_EQ(MICMD_PLAYFILE, vRequests[0].s_micmd);
    EXPECT_EQ(MICMD_RECORDFILE, vRequests[1].s_micmd);
    EXPECT_EQ(m_pcommandPlay, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ(m_pcommandRecord, m_pmintf->m_mapActiveCommandByStreamIDRecord.at(5));
    // The lists stay, empty.
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.at(5)->empty());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueueRecord.at(5)->empty());
    EXPECT_TRUE(m_handler.m_vReports.empty());
}

TEST_F(MIntfEventThreadQueue, OnlyTheFirstOfEachQueueIsStarted)
{
    play(5);
    CMIntf::CCommand* const pcommand2 = play(5);
    CMIntf::CCommand* const pcommand3 = play(5);
    respondNext();
    done(5, 1, 0);
    EXPECT_EQ(pcommand2, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ(CMIntf::CCommandList{pcommand3}, *m_pmintf->m_mapCommandQueue.at(5));
    respondNext();
    done(5, 2, 0);
    EXPECT_EQ(pcommand3, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
}

TEST_F(MIntfEventThreadQueue, RecordBehindAnActiveRecordGoesBackToItsQueue)
{
    fillBothSides();
    respondNext();
    done(5, 1, 0);
    EXPECT_EQ(1u, takeRequests().size()); // the play's
    EXPECT_EQ(m_pcommandActiveRecord, m_pmintf->m_mapActiveCommandByStreamIDRecord.at(5));
    EXPECT_EQ(CMIntf::CCommandList{m_pcommandRecord}, *m_pmintf->m_mapCommandQueueRecord.at(5));
}

TEST_F(MIntfEventThreadQueue, RecordFromThePlayQueueBecomesActiveOnThePlaySide)
{
    play(5, 0);
    CMIntf::CCommand* const pcommandRecord = sendCommand(5, MICMD_RECORDFILE, 300, &m_handler, 1, 1);
    takeRequests();
    respondNext();
    done(5, 1, 0);
    EXPECT_EQ(pcommandRecord, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
    EXPECT_EQ(MICMD_RECORDFILE, takeRequests().at(0).s_micmd);

    done(5, 2, 0);
    EXPECT_EQ((CReports{{5, 0, RECORD}}), m_handler.m_vReports);
    expectNothingLeft();
}

TEST_F(MIntfEventThreadQueue, StaleSuccessTurnsTheQueue)
{
    CMIntf::CCommand* const pcommandActive = play(5);
    CMIntf::CCommand* const pcommandA = play(5);
    CMIntf::CCommand* const pcommandB = play(5);
    takeRequests();
    done(5, 99, 0);
    EXPECT_EQ(pcommandActive, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ((CMIntf::CCommandList{pcommandB, pcommandA}), *m_pmintf->m_mapCommandQueue.at(5));
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_TRUE(m_handler.m_vReports.empty());
}

TEST_F(MIntfEventThreadQueue, SuccessForAnIdleStreamStartsWhatIsQueued)
{
    fillBothSides();
    m_pmintf->remActiveCommand(5, -1, 1);
    respondNext();
    respondNext(MIRSP_STATUS, 0, 1);
    done(5, 99, 0);
    EXPECT_EQ(m_pcommandPlay, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ(m_pcommandRecord, m_pmintf->m_mapActiveCommandByStreamIDRecord.at(5));
}

TEST_F(MIntfEventThreadQueue, HandlersNewPlayOvertakesTheNextQueuedOne)
{
    CMIntf::CCommand* pcommandNew = nullptr;
    CCallingHandler handler([&] { pcommandNew = play(5); });
    sendCommand(5, MICMD_PLAYFILE, 300, &handler);
    CMIntf::CCommand* const pcommandQueued = play(5);
    CMIntf::CCommand* const pcommandLast = play(5);
    takeRequests();
    done(5, 1, 0);

    EXPECT_EQ(pcommandNew, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ((CMIntf::CCommandList{pcommandLast, pcommandQueued}), *m_pmintf->m_mapCommandQueue.at(5));
    EXPECT_EQ(1u, takeRequests().size());
}

TEST_F(MIntfEventThreadQueue, RefusedPlayCompletesWithTheSendStatusAndDropsThePlayQueue)
{
    seams::freezeTick(1000);
    fillBothSides();
    CMIntf::CCommand* const pcommandLast = play(5);
    m_newLines.beginHere();
    const CLogLines vExpected =
        readLines(5, 1, 0) + matchedLines(m_pcommandActive) + CLogLines{destroyedLine(m_pcommandActive)} +
        playSideLines(m_pcommandPlay, 3, 301000) + exchangeLines(5, "MICMD_PLAYFILE", 3, "MIRSP_STATUS", MCS_REFUSED) +
        withdrawnLines(m_pcommandPlay, 3, true) +
        CLogLines{destroyedLine(pcommandLast),
                  infoLine(" (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion-2 ,sid = 5, nSequenceID = 3"),
                  destroyedLine(m_pcommandPlay),
                  // The record waits behind the active one again.
                  requestLine(5, "MICMD_RECORDFILE")} +
        recordWaitsLines() + CLogLines{resultLine(5, "MIRSP_NULL", MCS_OK)};
    respondNext(MIRSP_STATUS, 1);
    done(5, 1, 0);

    EXPECT_EQ(vExpected, m_newLines.get());
    EXPECT_EQ((CReports{{5, 34, PLAY}}), m_handler.m_vReports);
    EXPECT_EQ(0u, m_pmintf->m_mapCommandQueue.count(5));
    EXPECT_EQ(CMIntf::CCommandList{m_pcommandRecord}, *m_pmintf->m_mapCommandQueueRecord.at(5));
    EXPECT_EQ(1u, m_pmintf->m_mmapActiveCommandByTimeout.size());
}

TEST_F(MIntfEventThreadQueue, RefusedRecordCompletesWithTheSendStatusAndDropsTheRecordQueue)
{
    seams::freezeTick(1000);
    m_pcommandActive = play(5, 0);
    record(5);
    m_pcommandRecord = record(5);
    CMIntf::CCommand* const pcommandLast = record(5);
    m_pmintf->remActiveCommand(5, 2, 1);
    m_newLines.beginHere();
    const CLogLines vExpected =
        readLines(5, 1, 0) + matchedLines(m_pcommandActive) + CLogLines{destroyedLine(m_pcommandActive)} +
        recordSideLines(3) + exchangeLines(5, "MICMD_RECORDFILE", 3, "MIRSP_STATUS", MCS_REFUSED) +
        withdrawnLines(m_pcommandRecord, 3, false) +
        CLogLines{destroyedLine(pcommandLast),
                  infoLine(" (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion-3 ,sid = 5, nSequenceID = 3"),
                  destroyedLine(m_pcommandRecord)};
    respondNext(MIRSP_STATUS, 1);
    done(5, 1, 0);

    EXPECT_EQ(vExpected, m_newLines.get());
    EXPECT_EQ((CReports{{5, 34, RECORD}}), m_handler.m_vReports);
    EXPECT_EQ(0u, m_pmintf->m_mapCommandQueueRecord.count(5));
    EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
}

TEST_F(MIntfEventThreadQueue, RefusedRecordLeavesThePlayQueue)
{
    m_pcommandActive = play(5, 0);
    record(5);
    record(5);
    play(5);
    play(5);
    m_pmintf->remActiveCommand(5, 2, 1);
    respondNext();
    respondNext(MIRSP_STATUS, 1, 1);
    done(5, 1, 0);
    EXPECT_EQ((CReports{{5, 34, RECORD}}), m_handler.m_vReports);
    EXPECT_EQ(1u, m_pmintf->m_mapCommandQueue.at(5)->size());
    EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDPlay.size());
}

TEST_F(MIntfEventThreadQueue, RecordThatCannotBeSentFromThePlayQueueHasTheRecordReason)
{
    play(5, 0);
    sendCommand(5, MICMD_RECORDFILE, 300, &m_handler, 1, 1);
    respondNext(MIRSP_STATUS, 1);
    done(5, 1, 0);
    EXPECT_EQ((CReports{{5, 34, RECORD}}), m_handler.m_vReports);
    EXPECT_EQ(1u, m_pLog->count("OnCMIntfCompletion-2"));
    expectNothingLeft();
}

TEST_F(MIntfEventThreadQueue, QueuedCommandsWithoutAConnectionCompleteAsNotConnected)
{
    fillBothSides();
    m_pmintf->remActiveCommand(5, 2, 1);
    disconnect();
    m_newLines.beginHere();
    done(5, 1, 0);
    EXPECT_EQ((CReports{{5, 47, PLAY}, {5, 47, RECORD}}), m_handler.m_vReports);
    // Never numbered.
    EXPECT_TRUE(m_pLog->has(
        infoLine(" (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion-2 ,sid = 5, nSequenceID = 0")));
    EXPECT_TRUE(m_pLog->has(
        infoLine(" (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion-3 ,sid = 5, nSequenceID = 0")));
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueueRecord.empty());
    EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
}

TEST_F(MIntfEventThreadQueue, DriverThatIsGoneEndsTheNextPlayAndThenTheNextRecord)
{
    fillBothSides();
    m_pmintf->remActiveCommand(5, 2, 1);
    close(m_nRequestReader);
    m_nRequestReader = -1;
    done(5, 1, 0);
    EXPECT_EQ((CReports{{5, 45, PLAY}, {5, 47, RECORD}}), m_handler.m_vReports);
    EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
}

TEST_F(MIntfEventThreadQueue, CommandWithoutHandlerThatCannotBeSentIsDestroyedWithoutALine)
{
    sendCommand(5, MICMD_PLAYFILE, 300, nullptr, 0);
    sendCommand(5);
    sendCommand(6, MICMD_RECORDFILE);
    sendCommand(6, MICMD_RECORDFILE);
    m_pmintf->remActiveCommand(6, 2, 1);
    respondNext(MIRSP_STATUS, 1);
    respondNext(MIRSP_STATUS, 1, 1);
    done(5, 1, 0);
    done(6, 99, 0);
    EXPECT_EQ(0u, m_pLog->count("OnCMIntfCompletion"));
    expectNothingLeft();
}

TEST_F(MIntfEventThreadQueue, LongQueueIsPlayedToItsEnd)
{
    const uint32_t PLAYS = 300; // more than there are spare entries of the queue
    for (uint32_t n = 0; n < PLAYS; ++n)
        play(5);
    for (uint32_t nSequenceNo = 1; nSequenceNo <= PLAYS; ++nSequenceNo)
    {
        EXPECT_EQ(nSequenceNo, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5)->m_cmd.nSequenceNo);
        if (nSequenceNo < PLAYS)
            respondNext();
        done(5, nSequenceNo, 0);
        takeRequests();
    }
    EXPECT_EQ(PLAYS, m_handler.m_vReports.size());
    expectNothingLeft();
}
