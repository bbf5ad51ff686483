// Clearing and cancelling: how commands end in bulk or on request.
#include "ExpectedLines.h"
#include "MIntfFixture.h"
#include "PlatformSeams.h"

#include <fcntl.h>
#include <unistd.h>

class MIntfClearing : public CMIntfTest
{
protected:
    static constexpr size_t EVENTS_OF_A_PAGE = 4096 / sizeof(structMIEVT);

    void closeEventPipe()
    {
        close(m_pmintf->m_npipeEvt);
        m_pmintf->m_npipeEvt = -1;
    }

    // Leaves room for so many events in the event pipe, fewer than a page has.
    void fillEventPipe(size_t nRoom)
    {
        const structMIEVT evt = {MIEVT_NULL, 0, 0, 0};
        while (write(m_pmintf->m_npipeEvt, &evt, sizeof(evt)) > 0)
        {
        }
        ASSERT_EQ(EAGAIN, errno);
        if (nRoom == 0)
            return;
        // Room comes by whole pages only.
        std::vector<structMIEVT> vPage(EVENTS_OF_A_PAGE);
        ASSERT_EQ(4096, read(m_pmintf->m_npipeEvt, vPage.data(), 4096));
        for (size_t n = nRoom; n < EVENTS_OF_A_PAGE; ++n)
            ASSERT_EQ(static_cast<ssize_t>(sizeof(evt)), write(m_pmintf->m_npipeEvt, &evt, sizeof(evt)));
    }

    // The events in the pipe that are not the filling.
    std::vector<structMIEVT> takeDoneEvents()
    {
        std::vector<structMIEVT> vEvents = takeEvents();
        std::erase_if(vEvents, [](const structMIEVT& evt) { return evt.s_mievt != MIEVT_DONE; });
        return vEvents;
    }

    void expectNothingActive() const
    {
        EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
        EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
        EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
        EXPECT_EQ(0, commandsAlive());
    }

    // One command removed directly: it was unlinked before, and is destroyed.
    static CLogLines directRemovalLines(const CMIntf::CCommand* pcommand)
    {
        return ::directRemovalLines(addressOf(pcommand)) + CLogLines{destroyedLine(pcommand)};
    }

    const CLogLine m_lineEntry = clearActiveLine();
    const CLogLine m_lineEvent = wakeUpLine(1);
    const CLogLine m_lineEventFailed = wakeUpFailedLine(EAGAIN);
};

TEST_F(MIntfClearing, OpenEventPipeTakesOneEventPerActiveCommandPlaysFirst)
{
    m_pmintf->m_nNextSequenceNo = 40;
    sendCommand(3, MICMD_RECORDFILE); // 40
    sendCommand(3, MICMD_PLAYFILE);
    sendCommand(2, MICMD_PLAYCLIP); // 42
    sendCommand(1, MICMD_RECORDFILE);
    sendCommand(-1, MICMD_PLAYFILE); // 44
    m_pLog->clear();
    m_pmintf->clearActiveCommands(16);

    EXPECT_EQ((CLogLines{m_lineEntry, m_lineEvent, m_lineEvent, m_lineEvent, m_lineEvent, m_lineEvent}),
              m_pLog->lines());
    const int aanExpected[][2] = {{-1, 44}, {2, 42}, {3, 41}, {1, 43}, {3, 40}};
    const std::vector<structMIEVT> vEvents = takeEvents();
    ASSERT_EQ(5u, vEvents.size());
    for (size_t n = 0; n < 5; ++n)
    {
        EXPECT_EQ(MIEVT_DONE, vEvents[n].s_mievt);
        EXPECT_EQ(aanExpected[n][0], vEvents[n].nStreamID);
        EXPECT_EQ(static_cast<uint32_t>(aanExpected[n][1]), vEvents[n].nSequenceID);
        EXPECT_EQ(16, vEvents[n].s_mcstatus);
    }
    EXPECT_EQ(3u, m_pmintf->m_mapActiveCommandByStreamIDPlay.size());
    EXPECT_EQ(2u, m_pmintf->m_mapActiveCommandByStreamIDRecord.size());
    EXPECT_EQ(5u, m_pmintf->m_mmapActiveCommandByTimeout.size());
}

TEST_F(MIntfClearing, ClosedEventPipeDestroysEveryActiveCommandPlaysFirst)
{
    CHandlerRecorder handler;
    CMIntf::CCommand* const pcommandRecord = sendCommand(1, MICMD_RECORDFILE, 300, &handler);
    CMIntf::CCommand* const pcommandPlay3 = sendCommand(3, MICMD_PLAYFILE, 300, &handler);
    CMIntf::CCommand* const pcommandPlay2 = sendCommand(2, MICMD_PLAYFILE, 300, &handler);
    closeEventPipe();
    const CLogLines vExpected = CLogLines{m_lineEntry, m_lineEvent, m_lineEvent, m_lineEvent} +
                                removalLines(2, 3, pcommandPlay2, nullptr) + directRemovalLines(pcommandPlay2) +
                                removalLines(3, 2, pcommandPlay3, nullptr) + directRemovalLines(pcommandPlay3) +
                                removalLines(1, 1, nullptr, pcommandRecord) + directRemovalLines(pcommandRecord);
    EXPECT_EQ(3, commandsAlive());
    CNewLines newLines(m_pLog);
    newLines.beginHere();
    m_pmintf->clearActiveCommands(45);

    EXPECT_EQ(vExpected, newLines.get());
    expectNothingActive();
    EXPECT_TRUE(handler.m_vReports.empty());
}

TEST_F(MIntfClearing, ClosedEventPipeClearsBothSidesOfOneStream)
{
    CMIntf::CCommand* const pcommandPlay = sendCommand(5, MICMD_PLAYFILE);
    CMIntf::CCommand* const pcommandRecord = sendCommand(5, MICMD_RECORDFILE);
    closeEventPipe();
    // The record's entry in the map goes with the play's turn; its deadline must not stay behind.
    const CLogLines vExpected = CLogLines{m_lineEntry, m_lineEvent, m_lineEvent} +
                                removalLines(5, 1, pcommandPlay, nullptr) + directRemovalLines(pcommandPlay) +
                                removalLines(5, 2, nullptr, nullptr) + directRemovalLines(pcommandRecord);
    CNewLines newLines(m_pLog);
    newLines.beginHere();
    m_pmintf->clearActiveCommands(45);

    EXPECT_EQ(vExpected, newLines.get());
    expectNothingActive();
}

TEST_F(MIntfClearing, ClosedEventPipeClearsManyStreamsWithBothSides)
{
    for (int nStreamID = 1; nStreamID <= 20; ++nStreamID)
    {
        sendCommand(nStreamID, MICMD_PLAYFILE);
        sendCommand(nStreamID, MICMD_RECORDFILE);
    }
    closeEventPipe();
    m_pmintf->clearActiveCommands(45);
    expectNothingActive();
}

TEST_F(MIntfClearing, RecordWhoseEventDoesNotFitTakesTheToldPlayWithIt)
{
    sendCommand(5, MICMD_PLAYFILE);
    sendCommand(5, MICMD_RECORDFILE);
    fillEventPipe(1);
    m_pmintf->clearActiveCommands(45);

    EXPECT_EQ(1u, m_pLog->count("error writing event pipe"));
    EXPECT_TRUE(m_pLog->has(m_lineEventFailed));
    expectNothingActive();
    const std::vector<structMIEVT> vEvents = takeDoneEvents();
    ASSERT_EQ(1u, vEvents.size());
    EXPECT_EQ(1u, vEvents[0].nSequenceID); // the play's, and stale by now
    m_pmintf->doneEventPass(vEvents[0]);
    expectNothingActive();
}

TEST_F(MIntfClearing, ManyRecordsWhoseEventsDoNotFitTakeTheToldPlaysWithThem)
{
    for (const int nStreamID : {5, 6, 7})
    {
        sendCommand(nStreamID, MICMD_PLAYFILE);
        sendCommand(nStreamID, MICMD_RECORDFILE);
    }
    fillEventPipe(3);
    m_pmintf->clearActiveCommands(45);
    EXPECT_EQ(3u, takeDoneEvents().size());
    expectNothingActive();
}

TEST_F(MIntfClearing, PlayWhoseEventDoesNotFitTakesTheToldRecordWithIt)
{
    sendCommand(5, MICMD_PLAYFILE);
    sendCommand(5, MICMD_RECORDFILE);
    fillEventPipe(0);
    {
        // The reader comes between the two.
        CLineHook hook(m_pLog, [this](const std::string& strLine) {
            if (contains(strLine, "error writing event pipe"))
                takeEvents();
        });
        m_pmintf->clearActiveCommands(45);
    }

    EXPECT_EQ(1u, m_pLog->count("error writing event pipe"));
    expectNothingActive();
    const std::vector<structMIEVT> vEvents = takeDoneEvents();
    ASSERT_EQ(1u, vEvents.size());
    EXPECT_EQ(2u, vEvents[0].nSequenceID); // the record's
    m_pmintf->doneEventPass(vEvents[0]);
    expectNothingActive();
}

TEST_F(MIntfClearing, OnlyTheStreamsWhoseEventsDoNotFitAreClearedDirectly)
{
    CMIntf::CCommand* const pcommandTold = sendCommand(5, MICMD_PLAYFILE);
    sendCommand(6, MICMD_PLAYFILE);
    sendCommand(7, MICMD_RECORDFILE);
    fillEventPipe(1);
    m_pmintf->clearActiveCommands(45);

    EXPECT_EQ(1, commandsAlive());
    EXPECT_EQ((std::map<int, CMIntf::CCommand*>{{5, pcommandTold}}), m_pmintf->m_mapActiveCommandByStreamIDPlay);
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
    ASSERT_EQ(1u, m_pmintf->m_mmapActiveCommandByTimeout.size());
    EXPECT_EQ(pcommandTold, m_pmintf->m_mmapActiveCommandByTimeout.begin()->second);
}

TEST_F(MIntfClearing, NothingActiveMeansNothingButTheEntryLine)
{
    m_pmintf->clearActiveCommands(45);
    EXPECT_EQ(CLogLines{m_lineEntry}, m_pLog->lines());
    EXPECT_TRUE(takeEvents().empty());
}

TEST_F(MIntfClearing, EventPipeIsLargerThanPipesAre)
{
    EXPECT_GT(fcntl(m_pmintf->m_npipeEvt, F_GETPIPE_SZ), 65536);
}

class MIntfMassClearing : public MIntfClearing
{
protected:
    static constexpr int COUNT = 100000;

    // Active plays of that many streams. Without a log: their lines would be the most of the work.
    MIntfMassClearing()
    {
        m_pmintf->replaceLogFile(nullptr);
        for (int nStreamID = 0; nStreamID < COUNT; ++nStreamID)
        {
            int bSend = 0;
            m_pmintf->processPlayActiveCommand(newCommand(nStreamID, MICMD_PLAYFILE, 300, &m_handler), bSend);
        }
        EXPECT_EQ(static_cast<size_t>(COUNT), m_pmintf->m_mapActiveCommandByStreamIDPlay.size());
    }

    CHandlerRecorder m_handler;
};

TEST_F(MIntfMassClearing, FullEventPipeNeverBlocks)
{
    fillEventPipe(0);
    m_pmintf->clearActiveCommands(16);
    EXPECT_TRUE(takeDoneEvents().empty());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
    EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
}

TEST_F(MIntfMassClearing, EventPipeThatFillsUpNeverBlocksAndLosesNobodyHalfway)
{
    m_pmintf->clearActiveCommands(16);
    const std::vector<structMIEVT> vEvents = takeDoneEvents();
    EXPECT_GE(vEvents.size(), 4096u); // what the smallest pipe takes
    EXPECT_EQ(vEvents.size(), m_pmintf->m_mapActiveCommandByStreamIDPlay.size());
    EXPECT_EQ(vEvents.size(), m_pmintf->m_mmapActiveCommandByTimeout.size());
    for (const structMIEVT& evt : vEvents)
        m_pmintf->doneEventPass(evt);
    EXPECT_EQ(vEvents.size(), m_handler.m_vReports.size());
    EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
}

// A driver that is gone: the transport clears twice.
TEST_F(MIntfClearing, FailedWriteInjectsBothClearingsAndTheSecondEventIsStale)
{
    CHandlerRecorder handler;
    sendCommand(5, MICMD_PLAYFILE, 300, &handler);
    sendCommand(5, MICMD_PLAYFILE, 300, &handler);
    close(m_nRequestReader);
    m_nRequestReader = -1;
    EXPECT_EQ(45, m_pmintf->ping());
    EXPECT_EQ(-1, m_pmintf->m_npipeReq);
    EXPECT_EQ(-1, m_pmintf->m_nConnectID);
    EXPECT_EQ(1, commandsAlive()); // the queued one is gone already

    const std::vector<structMIEVT> vEvents = takeEvents();
    ASSERT_EQ(2u, vEvents.size());
    EXPECT_EQ(0, memcmp(&vEvents[0], &vEvents[1], sizeof(structMIEVT)));
    EXPECT_EQ(45, vEvents[0].s_mcstatus);
    m_pmintf->doneEventPass(vEvents[0]);
    expectNothingActive();
    m_pmintf->doneEventPass(vEvents[1]);
    expectNothingActive();
    EXPECT_EQ(1u, m_pLog->count("pcommandCompleted is set"));
    EXPECT_TRUE(handler.m_vReports.empty());
}

TEST_F(MIntfClearing, AllQueuesAreEmptiedWithoutCompletionsPlaysFirst)
{
    CHandlerRecorder handler;
    for (const int nStreamID : {7, 5})
    {
        sendCommand(nStreamID, MICMD_RECORDFILE);
        sendCommand(nStreamID, MICMD_PLAYFILE);
    }
    CMIntf::CCommand* const pcommandRecord5 = sendCommand(5, MICMD_RECORDFILE, 300, &handler);
    CMIntf::CCommand* const pcommandPlay7a = sendCommand(7, MICMD_PLAYFILE, 300, &handler);
    CMIntf::CCommand* const pcommandPlay7b = sendCommand(7, MICMD_PLAYFILE, 300, &handler);
    CMIntf::CCommand* const pcommandPlay5 = sendCommand(5, MICMD_PLAYFILE, 300, &handler);
    const CLogLines vExpected = {destroyedLine(pcommandPlay5), destroyedLine(pcommandPlay7a),
                                 destroyedLine(pcommandPlay7b), destroyedLine(pcommandRecord5)};
    m_pLog->clear();
    m_pmintf->clearCommandQueues();

    EXPECT_EQ(vExpected, m_pLog->lines());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueueRecord.empty());
    EXPECT_EQ(2u, m_pmintf->m_mapActiveCommandByStreamIDPlay.size());
    EXPECT_EQ(2u, m_pmintf->m_mapActiveCommandByStreamIDRecord.size());
    EXPECT_TRUE(takeEvents().empty());
    EXPECT_TRUE(handler.m_vReports.empty());
}

TEST_F(MIntfClearing, ClearingEmptyQueueMapsDoesNothing)
{
    m_pmintf->clearCommandQueues();
    m_pmintf->clearCommandQueuePlay(5, 0);
    m_pmintf->clearCommandQueuePlay(5, 1);
    m_pmintf->clearCommandQueueRecord(5);
    EXPECT_EQ(CLogLines(), m_pLog->lines());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueueRecord.empty());
}

TEST_F(MIntfClearing, OneStreamsPlayQueueIsDestroyedFrontToBack)
{
    sendCommand(5);
    sendCommand(6);
    sendCommand(5, MICMD_RECORDFILE);
    CMIntf::CCommand* const pcommand1 = sendCommand(5);
    CMIntf::CCommand* const pcommand2 = sendCommand(5, MICMD_RECORDFILE, 300, nullptr, 1, 1);
    CMIntf::CCommand* const pcommandOther = sendCommand(6);
    CMIntf::CCommand* const pcommandRecord = sendCommand(5, MICMD_RECORDFILE);
    const CLogLines vExpected = {destroyedLine(pcommand1), destroyedLine(pcommand2)};
    m_pLog->clear();
    m_pmintf->clearCommandQueuePlay(5, 0);

    EXPECT_EQ(vExpected, m_pLog->lines());
    EXPECT_EQ(0u, m_pmintf->m_mapCommandQueue.count(5));
    EXPECT_EQ(CMIntf::CCommandList{pcommandOther}, *m_pmintf->m_mapCommandQueue.at(6));
    EXPECT_EQ(CMIntf::CCommandList{pcommandRecord}, *m_pmintf->m_mapCommandQueueRecord.at(5));
}

TEST_F(MIntfClearing, RecordsOnlyDestroysTheRecordsAndDropsThePlays)
{
    sendCommand(5);
    CMIntf::CCommand* const pcommandPlay1 = sendCommand(5);
    CMIntf::CCommand* const pcommandRecord = sendCommand(5, MICMD_RECORDFILE, 300, nullptr, 1, 1);
    CMIntf::CCommand* const pcommandPlay2 = sendCommand(5, MICMD_PLAYCLIP);
    const CLogLines vExpected = {destroyedLine(pcommandRecord)};
    m_pLog->clear();
    m_pmintf->clearCommandQueuePlay(5, 1);
    EXPECT_EQ(vExpected, m_pLog->lines());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
    delete pcommandPlay1;
    delete pcommandPlay2;
}

TEST_F(MIntfClearing, OneStreamsRecordQueueIsDestroyedWhateverTheCodes)
{
    sendCommand(5, MICMD_RECORDFILE);
    sendCommand(5, MICMD_PLAYFILE);
    CMIntf::CCommand* const pcommandRecord = sendCommand(5, MICMD_RECORDFILE);
    CMIntf::CCommand* const pcommandPlay = sendCommand(5, MICMD_PLAYFILE);
    int bSend = 0;
    CMIntf::CCommand* const pcommandOdd = newCommand(5, MICMD_PLAYFILE);
    m_pmintf->processRecordActiveCommand(pcommandOdd, bSend);
    const CLogLines vExpected = {destroyedLine(pcommandRecord), destroyedLine(pcommandOdd)};
    m_pLog->clear();
    m_pmintf->clearCommandQueueRecord(5);
    EXPECT_EQ(vExpected, m_pLog->lines());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueueRecord.empty());
    EXPECT_EQ(CMIntf::CCommandList{pcommandPlay}, *m_pmintf->m_mapCommandQueue.at(5));
}
