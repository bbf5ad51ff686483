// The bookkeeping of play and record commands: what becomes active, what waits, deadlines, removal.
#include "ExpectedLines.h"
#include "MIntfFixture.h"
#include "PlatformSeams.h"

class MIntfCommands : public CMIntfTest
{
protected:
    MIntfCommands() { seams::freezeTick(NOW); }

    // Both expect bSend 1, or 0 for a command that has to wait.
    CMIntf::CCommand* processPlay(int nStreamID, int bSendExpected, MICMD micmd = MICMD_PLAYFILE,
                                  uint32_t nTimeout = 300)
    {
        CMIntf::CCommand* const pcommand = newCommand(nStreamID, micmd, nTimeout);
        int bSend = 0;
        EXPECT_EQ(0, m_pmintf->processPlayActiveCommand(pcommand, bSend));
        EXPECT_EQ(bSendExpected, bSend);
        return pcommand;
    }

    CMIntf::CCommand* processRecord(int nStreamID, int bSendExpected)
    {
        CMIntf::CCommand* const pcommand = newCommand(nStreamID, MICMD_RECORDFILE);
        int bSend = 0;
        EXPECT_EQ(0, m_pmintf->processRecordActiveCommand(pcommand, bSend));
        EXPECT_EQ(bSendExpected, bSend);
        return pcommand;
    }

    std::vector<CMIntf::CCommand*> deadlineIndex() const
    {
        std::vector<CMIntf::CCommand*> vCommands;
        for (const auto& entry : m_pmintf->m_mmapActiveCommandByTimeout)
        {
            EXPECT_EQ(entry.first, entry.second->m_ullTimeoutTick);
            vCommands.push_back(entry.second);
        }
        return vCommands;
    }

    typedef std::vector<CMIntf::CCommand*> CCommands;
    static constexpr uint64_t NOW = 5000000000; // more than 32 bits
};

TEST_F(MIntfCommands, RecordIsTracedWhenItIsMadeAndWhenItIsDestroyed)
{
    auto* const pcommand = new CMIntf::CCommand;
    const CLogLines vExpected = {createdLine(pcommand), destroyedLine(pcommand)};
    delete pcommand;
    EXPECT_EQ(vExpected, m_pLog->lines());
}

TEST_F(MIntfCommands, RecordIsNotTracedWithoutAnInterface)
{
    g_pmintf = nullptr;
    delete new CMIntf::CCommand;
    g_pmintf = m_pmintf;
    EXPECT_EQ(CLogLines(), m_pLog->lines());
}

TEST_F(MIntfCommands, FirstPlayBecomesActiveWithNumberAndDeadline)
{
    m_pmintf->m_nNextSequenceNo = 41;
    CMIntf::CCommand* const pcommand = newCommand(5, MICMD_PLAYCLIP, 20);
    m_pLog->clear();
    int bSend = 0;
    EXPECT_EQ(0, m_pmintf->processPlayActiveCommand(pcommand, bSend));

    EXPECT_EQ(1, bSend);
    EXPECT_EQ(41u, pcommand->m_cmd.nSequenceNo);
    EXPECT_EQ(42u, m_pmintf->m_nNextSequenceNo);
    EXPECT_EQ(NOW + 20000, pcommand->m_ullTimeoutTick);
    EXPECT_EQ((std::map<int, CMIntf::CCommand*>{{5, pcommand}}), m_pmintf->m_mapActiveCommandByStreamIDPlay);
    EXPECT_EQ(CCommands{pcommand}, deadlineIndex());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
    EXPECT_TRUE(takeRequests().empty());
    // The deadline's low 32 bits.
    EXPECT_EQ(playActiveLines(5, "MICMD_PLAYCLIP", 41, addressOf(pcommand), 705052704), m_pLog->lines());
}

TEST_F(MIntfCommands, SecondPlayWaitsWithoutNumberAndDeadline)
{
    m_pmintf->m_nNextSequenceNo = 41;
    CMIntf::CCommand* const pcommandActive = processPlay(5, 1, MICMD_PLAYCLIP);
    CMIntf::CCommand* const pcommand = newCommand(5, MICMD_PLAYFILE);
    pcommand->m_cmd.nSequenceNo = 0xABCD;
    m_pLog->clear();
    int bSend = 7;
    EXPECT_EQ(0, m_pmintf->processPlayActiveCommand(pcommand, bSend));

    EXPECT_EQ(7, bSend);
    EXPECT_EQ(0xABCDu, pcommand->m_cmd.nSequenceNo);
    EXPECT_EQ(0u, pcommand->m_ullTimeoutTick);
    EXPECT_EQ(42u, m_pmintf->m_nNextSequenceNo);
    EXPECT_EQ(CCommands{pcommandActive}, deadlineIndex());
    EXPECT_EQ(pcommandActive, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ(CMIntf::CCommandList{pcommand}, *m_pmintf->m_mapCommandQueue.at(5));
    EXPECT_TRUE(m_pmintf->m_mapCommandQueueRecord.empty());
    EXPECT_EQ(playWaitsLines(5, "MICMD_PLAYCLIP", 41), m_pLog->lines());
}

TEST_F(MIntfCommands, WaitingPlaysStandInTheOrderOfTheirComing)
{
    processPlay(5, 1);
    CMIntf::CCommand* const pcommand1 = processPlay(5, 0);
    CMIntf::CCommandList* const plist = m_pmintf->m_mapCommandQueue.at(5);
    CMIntf::CCommand* const pcommand2 = processPlay(5, 0);
    CMIntf::CCommand* const pcommand3 = processPlay(5, 0, MICMD_RECORDFILE);
    EXPECT_EQ(plist, m_pmintf->m_mapCommandQueue.at(5));
    EXPECT_EQ((CMIntf::CCommandList{pcommand1, pcommand2, pcommand3}), *plist);
}

TEST_F(MIntfCommands, PlaysOfTwoStreamsAreBothActive)
{
    CMIntf::CCommand* const pcommand1 = processPlay(5, 1);
    CMIntf::CCommand* const pcommand2 = processPlay(6, 1);
    EXPECT_EQ((std::map<int, CMIntf::CCommand*>{{5, pcommand1}, {6, pcommand2}}),
              m_pmintf->m_mapActiveCommandByStreamIDPlay);
}

TEST_F(MIntfCommands, RecordBesideAnActivePlayBecomesActiveAtOnce)
{
    m_pmintf->m_nNextSequenceNo = 41;
    CMIntf::CCommand* const pcommandPlay = processPlay(5, 1);
    CMIntf::CCommand* const pcommand = newCommand(5, MICMD_RECORDFILE, 30);
    m_pLog->clear();
    int bSend = 0;
    EXPECT_EQ(0, m_pmintf->processRecordActiveCommand(pcommand, bSend));

    EXPECT_EQ(1, bSend);
    EXPECT_EQ(42u, pcommand->m_cmd.nSequenceNo);
    EXPECT_EQ(43u, m_pmintf->m_nNextSequenceNo);
    EXPECT_EQ(NOW + 30000, pcommand->m_ullTimeoutTick);
    EXPECT_EQ((std::map<int, CMIntf::CCommand*>{{5, pcommand}}), m_pmintf->m_mapActiveCommandByStreamIDRecord);
    EXPECT_EQ((std::map<int, CMIntf::CCommand*>{{5, pcommandPlay}}), m_pmintf->m_mapActiveCommandByStreamIDPlay);
    EXPECT_EQ((CCommands{pcommand, pcommandPlay}), deadlineIndex());
    EXPECT_EQ(recordActiveLines(5, 42), m_pLog->lines());
}

TEST_F(MIntfCommands, SecondRecordWaitsOnTheRecordSide)
{
    CMIntf::CCommand* const pcommandActive = processRecord(5, 1);
    CMIntf::CCommand* const pcommand1 = newCommand(5, MICMD_RECORDFILE);
    pcommand1->m_cmd.nSequenceNo = 0xABCD;
    m_pLog->clear();
    int bSend = 7;
    EXPECT_EQ(0, m_pmintf->processRecordActiveCommand(pcommand1, bSend));

    EXPECT_EQ(7, bSend);
    EXPECT_EQ(recordWaitsLines(), m_pLog->lines());
    EXPECT_EQ(0xABCDu, pcommand1->m_cmd.nSequenceNo);
    EXPECT_EQ(0u, pcommand1->m_ullTimeoutTick);
    CMIntf::CCommand* const pcommand2 = processRecord(5, 0);
    EXPECT_EQ((CMIntf::CCommandList{pcommand1, pcommand2}), *m_pmintf->m_mapCommandQueueRecord.at(5));
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
    EXPECT_EQ(pcommandActive, m_pmintf->m_mapActiveCommandByStreamIDRecord.at(5));
    EXPECT_EQ(CCommands{pcommandActive}, deadlineIndex());
}

TEST_F(MIntfCommands, NumbersWrapAt32Bits)
{
    m_pmintf->m_nNextSequenceNo = 0xFFFFFFFF;
    m_pLog->clear();
    EXPECT_EQ(0xFFFFFFFFu, processPlay(5, 1)->m_cmd.nSequenceNo);
    EXPECT_EQ(0u, processRecord(5, 1)->m_cmd.nSequenceNo);
    EXPECT_EQ(1u, m_pmintf->m_nNextSequenceNo);
    EXPECT_TRUE(m_pLog->has(playNumberLine(5, "MICMD_PLAYFILE", 4294967295)));
}

TEST_F(MIntfCommands, DeadlineIsTheTimeoutAfterTheTick)
{
    EXPECT_EQ(NOW + 2000, processPlay(1, 1, MICMD_PLAYFILE, 2)->m_ullTimeoutTick);
    EXPECT_EQ(NOW + 300000, processPlay(2, 1, MICMD_PLAYFILE, 0xFFFFFFFF)->m_ullTimeoutTick);
    EXPECT_EQ(NOW, processPlay(3, 1, MICMD_PLAYFILE, 0)->m_ullTimeoutTick);
}

TEST_F(MIntfCommands, DeadlineProductWrapsAt32Bits)
{
    EXPECT_EQ(NOW + 4294967000u, processPlay(1, 1, MICMD_PLAYFILE, 4294967)->m_ullTimeoutTick);
    EXPECT_EQ(NOW + 704, processPlay(2, 1, MICMD_PLAYFILE, 4294968)->m_ullTimeoutTick);
    EXPECT_EQ(NOW + 4294965296u, processPlay(3, 1, MICMD_PLAYFILE, 0xFFFFFFFE)->m_ullTimeoutTick);
}

TEST_F(MIntfCommands, EqualDeadlinesStandInTheOrderOfActivation)
{
    CMIntf::CCommand* const pcommand1 = processPlay(9, 1);
    CMIntf::CCommand* const pcommand2 = processPlay(1, 1);
    CMIntf::CCommand* const pcommand3 = processRecord(5, 1);
    EXPECT_EQ((CCommands{pcommand1, pcommand2, pcommand3}), deadlineIndex());
}

TEST_F(MIntfCommands, AddedPlayIsActiveUnderItsOwnNumber)
{
    for (const MICMD micmd : {MICMD_PLAYCLIP, MICMD_PLAYFILE})
    {
        CMIntf::CCommand* const pcommand = newCommand(micmd, micmd, 10);
        pcommand->m_cmd.nSequenceNo = 99;
        m_pLog->clear();
        m_pmintf->addActiveCommand(pcommand);
        EXPECT_EQ((CLogLines{infoLine(text(" (Info) CMIntf::addActiveCommand called, SequenceNo = 99, sid = %d, "
                                           "cmd = %s",
                                           micmd, MICMDToString(micmd))),
                             infoLine(text("801(Info) CMIntf::addActiveCommand m_mapActiveCommandByStreamIDPlay,"
                                           "pcommand =0x%x",
                                           addressForLog(pcommand))),
                             infoLine(" (Info) CMIntf::addActiveCommand TimeOut 705042704")}),
                  m_pLog->lines());
        EXPECT_EQ(99u, pcommand->m_cmd.nSequenceNo);
        EXPECT_EQ(NOW + 10000, pcommand->m_ullTimeoutTick);
        EXPECT_EQ(pcommand, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(micmd));
        EXPECT_EQ(pcommand, deadlineIndex().back());
    }
    EXPECT_EQ(1u, m_pmintf->m_nNextSequenceNo);
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
}

TEST_F(MIntfCommands, AddedCommandIsActiveWithoutALineWhenLinesAreOff)
{
    m_pmintf->m_pLogFile->setTraceMask(0);
    CMIntf::CCommand* const pplay = newCommand(5, MICMD_PLAYFILE, 10);
    CMIntf::CCommand* const precord = newCommand(5, MICMD_RECORDFILE, 10);
    m_pLog->clear();
    m_pmintf->addActiveCommand(pplay);
    m_pmintf->addActiveCommand(precord);
    EXPECT_TRUE(m_pLog->lines().empty());
    EXPECT_EQ(pplay, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ(precord, m_pmintf->m_mapActiveCommandByStreamIDRecord.at(5));
    EXPECT_EQ(2u, deadlineIndex().size());
}

TEST_F(MIntfCommands, AddedCommandOfAnyOtherCodeIsOnTheRecordSide)
{
    for (const MICMD micmd : {MICMD_RECORDFILE, MICMD_NULL, MICMD_CANCEL})
    {
        CMIntf::CCommand* const pcommand = newCommand(micmd, micmd, 10);
        m_pLog->clear();
        m_pmintf->addActiveCommand(pcommand);
        EXPECT_EQ((CLogLines{infoLine(text(" (Info) CMIntf::addActiveCommand called, SequenceNo = 0, sid = %d, "
                                           "cmd = %s",
                                           micmd, MICMDToString(micmd))),
                             infoLine(" (Info) CMIntf::addActiveCommand TimeOut 705042704")}),
                  m_pLog->lines());
        EXPECT_EQ(pcommand, m_pmintf->m_mapActiveCommandByStreamIDRecord.at(micmd));
        EXPECT_EQ(pcommand, deadlineIndex().back());
    }
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
}

TEST_F(MIntfCommands, AddedCommandReplacesTheActiveOneAndNeverWaits)
{
    CMIntf::CCommand* const pcommandReplaced = processPlay(5, 1);
    CMIntf::CCommand* const pcommand = newCommand(5);
    m_pmintf->addActiveCommand(pcommand);
    EXPECT_EQ(pcommand, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
    EXPECT_EQ((CCommands{pcommandReplaced, pcommand}), deadlineIndex());

    m_pmintf->m_mmapActiveCommandByTimeout.erase(m_pmintf->m_mmapActiveCommandByTimeout.begin());
    delete pcommandReplaced;
}

TEST_F(MIntfCommands, RemovedPlayIsUnlinkedAndLeftToTheCaller)
{
    m_pmintf->m_nNextSequenceNo = 41;
    CMIntf::CCommand* const pcommand = processPlay(5, 1);
    CMIntf::CCommand* const pcommandRecord = processRecord(5, 1);
    m_pLog->clear();
    m_pmintf->remActiveCommand(5, 41, 0);
    EXPECT_EQ(removalLines(5, 41, pcommand, nullptr), m_pLog->lines());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
    EXPECT_EQ(pcommandRecord, m_pmintf->m_mapActiveCommandByStreamIDRecord.at(5));
    EXPECT_EQ(CCommands{pcommandRecord}, deadlineIndex());
    delete pcommand;
}

TEST_F(MIntfCommands, RemovedRecordIsUnlinkedAndLeftToTheCaller)
{
    m_pmintf->m_nNextSequenceNo = 41;
    CMIntf::CCommand* const pcommandPlay = processPlay(5, 1);
    CMIntf::CCommand* const pcommand = processRecord(5, 1);
    m_pLog->clear();
    m_pmintf->remActiveCommand(5, 42, 0);
    EXPECT_EQ(removalLines(5, 42, nullptr, pcommand), m_pLog->lines());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
    EXPECT_EQ(pcommandPlay, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ(CCommands{pcommandPlay}, deadlineIndex());
    delete pcommand;
}

TEST_F(MIntfCommands, AnyNumberRemovesAndDestroysBothSides)
{
    CMIntf::CCommand* const pcommandPlay = processPlay(5, 1);
    CMIntf::CCommand* const pcommandRecord = processRecord(5, 1);
    CMIntf::CCommand* const pcommandOther = processPlay(6, 1);
    m_pLog->clear();
    const CLogLines vExpected = removalLines(5, 0xFFFFFFFF, pcommandPlay, pcommandRecord, true);
    m_pmintf->remActiveCommand(5, -1, 1);
    EXPECT_EQ(vExpected, m_pLog->lines());
    EXPECT_EQ(CCommands{pcommandOther}, deadlineIndex());
    EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDPlay.size());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
}

TEST_F(MIntfCommands, NumberRemovesAndDestroysOnlyTheMatchingSide)
{
    CMIntf::CCommand* const pcommandPlay = processPlay(5, 1);
    CMIntf::CCommand* const pcommandRecord = processRecord(5, 1);
    m_pLog->clear();
    const CLogLines vExpected = removalLines(5, 2, nullptr, pcommandRecord, true);
    m_pmintf->remActiveCommand(5, 2, 1);
    EXPECT_EQ(vExpected, m_pLog->lines());
    EXPECT_EQ(CCommands{pcommandPlay}, deadlineIndex());

    m_pLog->clear();
    const CLogLines vExpectedPlay = removalLines(5, 1, pcommandPlay, nullptr, true);
    m_pmintf->remActiveCommand(5, 1, 1);
    EXPECT_EQ(vExpectedPlay, m_pLog->lines());
    EXPECT_TRUE(deadlineIndex().empty());
}

TEST_F(MIntfCommands, NumberOfNeitherSideRemovesNothing)
{
    CMIntf::CCommand* const pcommandPlay = processPlay(5, 1);
    CMIntf::CCommand* const pcommandRecord = processRecord(5, 1);
    m_pLog->clear();
    m_pmintf->remActiveCommand(5, 3, 1);
    m_pmintf->remActiveCommand(6, -1, 1);
    EXPECT_EQ(removalLines(5, 3, nullptr, nullptr) + removalLines(6, 0xFFFFFFFF, nullptr, nullptr), m_pLog->lines());
    EXPECT_EQ((CCommands{pcommandPlay, pcommandRecord}), deadlineIndex());
}

TEST_F(MIntfCommands, RemovalTakesItsOwnEntryAmongEqualDeadlines)
{
    CMIntf::CCommand* const pcommand1 = processPlay(1, 1);
    processPlay(2, 1);
    CMIntf::CCommand* const pcommand3 = processRecord(3, 1);
    m_pmintf->remActiveCommand(2, 2, 1);
    EXPECT_EQ((CCommands{pcommand1, pcommand3}), deadlineIndex());
    m_pmintf->remActiveCommand(3, 3, 1);
    EXPECT_EQ(CCommands{pcommand1}, deadlineIndex());
    m_pmintf->remActiveCommand(1, 1, 1);
    EXPECT_TRUE(deadlineIndex().empty());
}

TEST_F(MIntfCommands, CommandWithoutDeadlineEntryIsRemovedWithoutThatLine)
{
    CMIntf::CCommand* const pcommandPlay = processPlay(5, 1);
    CMIntf::CCommand* const pcommandRecord = processRecord(5, 1);
    CMIntf::CCommand* const pcommandOther = processPlay(6, 1);
    auto& mmapIndex = m_pmintf->m_mmapActiveCommandByTimeout;
    mmapIndex.erase(mmapIndex.begin(), std::next(mmapIndex.begin(), 2));
    pcommandRecord->m_ullTimeoutTick = 0; // says so itself; the play's entry is missing though it has a deadline

    CLogLines vExpected;
    for (const CLogLine& line : removalLines(5, 0xFFFFFFFF, pcommandPlay, pcommandRecord, true))
        if (!contains(line.strText, "ByTimeout.erase") && !contains(line.strText, "called for RECORD"))
            vExpected.push_back(line);
    m_pLog->clear();
    m_pmintf->remActiveCommand(5, -1, 1);
    EXPECT_EQ(vExpected, m_pLog->lines());
    EXPECT_EQ(CCommands{pcommandOther}, deadlineIndex());
}

TEST_F(MIntfCommands, RemovalLeavesTheQueues)
{
    processPlay(5, 1);
    processRecord(5, 1);
    CMIntf::CCommand* const pcommandPlay = processPlay(5, 0);
    CMIntf::CCommand* const pcommandRecord = processRecord(5, 0);
    m_pmintf->remActiveCommand(5, -1, 1);
    EXPECT_EQ(CMIntf::CCommandList{pcommandPlay}, *m_pmintf->m_mapCommandQueue.at(5));
    EXPECT_EQ(CMIntf::CCommandList{pcommandRecord}, *m_pmintf->m_mapCommandQueueRecord.at(5));
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
    EXPECT_TRUE(takeRequests().empty());
}
