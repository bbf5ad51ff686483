// Done events: which command they finish, who is told, what happens to its stream.
#include "EventThreadFixture.h"
#include "PlatformSeams.h"

#include <future>
#include <thread>

class MIntfEventThread : public CEventThreadTest
{
};

TEST_F(MIntfEventThread, FinishedCommandIsReportedAndDestroyed)
{
    CMIntf::CCommand* const pcommand = play(5);
    m_newLines.beginHere();
    const CLogLines vExpected = readLines(5, 1, 0) + matchedLines(pcommand) +
                                CLogLines{infoLine(" (Info) CMIntf::eventThreadFunc before OnCMIntfCompletion,"
                                                   "m_pcomplHandler ,sid = 5, nSequenceID = 1"),
                                          infoLine(" (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion ,sid = "
                                                   "5, nSequenceID = 1"),
                                          destroyedLine(pcommand)};
    done(5, 1, 0);
    EXPECT_EQ(vExpected, m_newLines.get());
    EXPECT_EQ((CReports{{5, 0, PLAY}}), m_handler.m_vReports);
    expectNothingLeft();
}

TEST_F(MIntfEventThread, CommandWithoutHandlerIsDestroyedWithALine)
{
    CMIntf::CCommand* const pcommand = sendCommand(5);
    m_newLines.beginHere();
    const CLogLines vExpected = readLines(5, 1, 7) + matchedLines(pcommand) +
                                CLogLines{infoLine(" (Info) CMIntf::eventThreadFunc before OnCMIntfCompletion,"
                                                   "m_pcomplHandler ,sid = 5, nSequenceID = 1"),
                                          infoLine("Brudel502 (Info) CMIntf::eventThreadFunc OnCMIntfCompletion, "
                                                   "pcommandCompleted->m_pcomplHandler is NULL ,sid = 5, nSequenceID "
                                                   "= 1"),
                                          destroyedLine(pcommand)};
    done(5, 1, 7);
    EXPECT_EQ(vExpected, m_newLines.get());
}

TEST_F(MIntfEventThread, OrdinaryStepThatEndsWellIsNotReported)
{
    CMIntf::CCommand* const pcommand = play(5, 0);
    m_newLines.beginHere();
    const CLogLines vExpected = readLines(5, 1, 0) + matchedLines(pcommand) + CLogLines{destroyedLine(pcommand)};
    done(5, 1, 0);
    EXPECT_EQ(vExpected, m_newLines.get());
    EXPECT_TRUE(m_handler.m_vReports.empty());
    expectNothingLeft();
}

TEST_F(MIntfEventThread, OrdinaryStepThatFailsIsReported)
{
    play(5, 0);
    done(5, 1, 3);
    play(5, 0);
    done(5, 2, -1);
    EXPECT_EQ((CReports{{5, 3, PLAY}, {5, -1, PLAY}}), m_handler.m_vReports);
    expectNothingLeft();
}

TEST_F(MIntfEventThread, ReasonFollowsFromTheCode)
{
    const std::pair<MICMD, Reason> aCases[] = {{MICMD_PLAYCLIP, PLAY},
                                               {MICMD_PLAYFILE, PLAY},
                                               {MICMD_RECORDFILE, RECORD},
                                               {MICMD_NULL, OTHER},
                                               {MICMD_CANCEL, OTHER}};
    CReports vExpected;
    uint32_t nSequenceNo = 1;
    for (const auto& [micmd, reason] : aCases)
    {
        int bSend = 0;
        m_pmintf->processPlayActiveCommand(newCommand(5, micmd, 300, &m_handler), bSend);
        done(5, nSequenceNo++, 0);
        vExpected.push_back({5, 0, reason});
    }
    EXPECT_EQ(vExpected, m_handler.m_vReports);
}

TEST_F(MIntfEventThread, StaleNumberLeavesTheActiveCommand)
{
    CMIntf::CCommand* const pcommand = play(5);
    m_newLines.beginHere();
    done(5, 2, 0);
    done(5, 0xFFFFFFFF, 0);
    EXPECT_EQ(readLines(5, 2, 0) + readLines(5, 0xFFFFFFFF, 0), m_newLines.get());
    EXPECT_EQ(pcommand, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ(1u, m_pmintf->m_mmapActiveCommandByTimeout.size());
    EXPECT_TRUE(m_handler.m_vReports.empty());
}

TEST_F(MIntfEventThread, UnknownStreamIsLoggedOnly)
{
    play(5);
    m_newLines.beginHere();
    done(6, 1, 0);
    done(6, 1, 34);
    EXPECT_EQ(readLines(6, 1, 0) + readLines(6, 1, 34), m_newLines.get());
    EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDPlay.size());
    EXPECT_TRUE(m_handler.m_vReports.empty());
}

TEST_F(MIntfEventThread, EventsAreMatchedAgainstPlaysOnly)
{
    CMIntf::CCommand* const pcommand = record(5);
    m_newLines.beginHere();
    done(5, 1, 0);
    done(5, 1, 34);
    EXPECT_EQ(readLines(5, 1, 0) + readLines(5, 1, 34), m_newLines.get());
    EXPECT_EQ(pcommand, m_pmintf->m_mapActiveCommandByStreamIDRecord.at(5));
    EXPECT_TRUE(m_handler.m_vReports.empty());
}

TEST_F(MIntfEventThread, HighestNumberFinishesThePlayAndLeavesTheRecord)
{
    CMIntf::CCommand* const pcommandRecord = record(5);
    m_pmintf->m_nNextSequenceNo = 0xFFFFFFFF;
    play(5);
    m_newLines.beginHere();
    done(5, 0xFFFFFFFF, 0);
    EXPECT_EQ((CReports{{5, 0, PLAY}}), m_handler.m_vReports);
    EXPECT_EQ(pcommandRecord, m_pmintf->m_mapActiveCommandByStreamIDRecord.at(5));
    ASSERT_EQ(1u, m_pmintf->m_mmapActiveCommandByTimeout.size());
    EXPECT_EQ(pcommandRecord, m_pmintf->m_mmapActiveCommandByTimeout.begin()->second);
    EXPECT_TRUE(m_pLog->has(infoLine("CMIntf::eventThreadFunc, read event, nSequenceID = (-1), nStreamID = (5), evt "
                                     "MIEVT_DONE, stat 0\n")));
}

TEST_F(MIntfEventThread, FailureDropsEverythingQueuedOnTheStream)
{
    CMIntf::CCommand* const pcommand = play(5);
    record(5);
    CMIntf::CCommand* const pcommandPlay = play(5);
    CMIntf::CCommand* const pcommandRecord = record(5);
    play(6);
    play(6);
    takeRequests();
    m_newLines.beginHere();
    const CLogLines vExpected = readLines(5, 1, 34) + matchedLines(pcommand) +
                                CLogLines{destroyedLine(pcommandPlay), destroyedLine(pcommandRecord)} +
                                reportedLines(5, 1) + CLogLines{destroyedLine(pcommand)};
    done(5, 1, 34);
    EXPECT_EQ(vExpected, m_newLines.get());
    EXPECT_EQ((CReports{{5, 34, PLAY}}), m_handler.m_vReports);
    EXPECT_EQ(0u, m_pmintf->m_mapCommandQueue.count(5));
    EXPECT_EQ(0u, m_pmintf->m_mapCommandQueueRecord.count(5));
    EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDRecord.count(5));
    EXPECT_EQ(1u, m_pmintf->m_mapCommandQueue.at(6)->size());
    EXPECT_TRUE(takeRequests().empty());
}

TEST_F(MIntfEventThread, StaleFailureDropsTheQueuesToo)
{
    play(5);
    play(5);
    done(5, 99, 34);
    EXPECT_EQ(0u, m_pmintf->m_mapCommandQueue.count(5));
    EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDPlay.count(5));
    EXPECT_TRUE(m_handler.m_vReports.empty());
}

TEST_F(MIntfEventThread, FatalStatusDropsBothSidesWithoutACompletion)
{
    for (const MCSTATUS mcstatus : {42, 43, 44, 45})
    {
        CZelMediaStreamImpl* const pstream = addStream(5);
        m_pmintf->m_nNextSequenceNo = 1;
        CMIntf::CCommand* const pcommand = play(5);
        CMIntf::CCommand* const pcommandRecord = record(5);
        CMIntf::CCommand* const pcommandPlayQueued = play(5);
        CMIntf::CCommand* const pcommandRecordQueued = record(5);
        takeRequests();
        m_newLines.beginHere();
        const CLogLines vExpected =
            readLines(5, 1, mcstatus) + matchedLines(pcommand) +
            CLogLines{destroyedLine(pcommandPlayQueued), destroyedLine(pcommandRecordQueued),
                      errorLine("(Error) CMIntf::markStreamInvalid, cannot open/create/read/write pipe, errrno= 32"),
                      infoLine("(Info) CMIntf::eventThreadFunc:: pcommandCompleted->m_pcomplHandler is set to NULL")} +
            removalLines(5, 0xFFFFFFFF, nullptr, pcommandRecord) +
            CLogLines{destroyedLine(pcommand), destroyedLine(pcommandRecord), m_lineFatal};
        errno = EPIPE;
        done(5, 1, mcstatus);

        EXPECT_EQ(vExpected, m_newLines.get());
        EXPECT_EQ(0, pstream->m_bInitialized);
        EXPECT_TRUE(m_handler.m_vReports.empty());
        const std::vector<CAlarm> vAlarms = m_pLog->alarms();
        ASSERT_EQ(1u, vAlarms.size());
        EXPECT_EQ(0xC1030190u, vAlarms[0].nEventID);
        EXPECT_EQ(std::vector<std::string>{"ZelMediaServices CMIntf::markStreamInvalid, cannot open/create/read/write "
                                           "pipe"},
                  vAlarms[0].vStrings);
        m_pLog->clear();
        m_newLines.beginHere();
        EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
        EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
        EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
        EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
        EXPECT_TRUE(m_pmintf->m_mapCommandQueueRecord.empty());
        EXPECT_TRUE(takeRequests().empty());
    }
}

TEST_F(MIntfEventThread, FatalStatusLeavesNoRecordBehind)
{
    play(5);
    record(5);
    done(5, 1, 45);
    expectNothingLeft();
}

TEST_F(MIntfEventThread, StaleFatalStatusInvalidatesTheStreamAndLeavesWhatIsActive)
{
    CZelMediaStreamImpl* const pstream = addStream(5);
    play(5);
    record(5);
    CMIntf::CCommand* const pcommandQueued = play(5);
    m_newLines.beginHere();
    const CLogLines vExpected =
        readLines(5, 99, 44) +
        CLogLines{destroyedLine(pcommandQueued),
                  errorLine("(Error) CMIntf::markStreamInvalid, cannot open/create/read/write pipe, errrno= 9"),
                  m_lineFatal};
    errno = EBADF;
    done(5, 99, 44);
    EXPECT_EQ(vExpected, m_newLines.get());
    EXPECT_EQ(0, pstream->m_bInitialized);
    EXPECT_EQ(1u, m_pLog->alarms().size());
    EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDPlay.size());
    EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDRecord.size());
    EXPECT_EQ(2u, m_pmintf->m_mmapActiveCommandByTimeout.size());
}

TEST_F(MIntfEventThread, FatalStatusOfAnUnknownStreamRaisesTheAlarmOnly)
{
    done(6, 99, 42);
    EXPECT_EQ(readLines(6, 99, 42) + CLogLines{m_lineFatal}, m_newLines.get());
    EXPECT_EQ(1u, m_pLog->alarms().size());
}

TEST_F(MIntfEventThread, NeighboursOfTheFatalStatusesAreReported)
{
    play(5);
    done(5, 1, 41);
    play(5);
    done(5, 2, 46);
    EXPECT_EQ((CReports{{5, 41, PLAY}, {5, 46, PLAY}}), m_handler.m_vReports);
    EXPECT_TRUE(m_pLog->alarms().empty());
    EXPECT_EQ(0u, m_pLog->count("driverFatalError"));
}

TEST_F(MIntfEventThread, ClearedCommandCompletesWithTheStatusOfTheClearing)
{
    play(5, 0);
    m_pmintf->clearActiveCommands(16);
    for (const structMIEVT& evt : takeEvents())
        m_pmintf->doneEventPass(evt);
    EXPECT_EQ((CReports{{5, 16, PLAY}}), m_handler.m_vReports);
    expectNothingLeft();
}

TEST_F(MIntfEventThread, HandlerRunsWithoutTheLockAndAfterTheUnlinking)
{
    CMIntf::CCommand* pcommand = nullptr;
    bool bLockFree = false;
    bool bUnlinked = false;
    bool bAlive = false;
    CCallingHandler handler([&] {
        bUnlinked =
            m_pmintf->m_mapActiveCommandByStreamIDPlay.empty() && m_pmintf->m_mmapActiveCommandByTimeout.empty();
        bAlive = !m_pLog->has(destroyedLine(pcommand));
        auto entered = std::async(std::launch::async, [this] { CCritSecHold hold(m_pmintf->m_pCritSecCMIntf); });
        bLockFree = entered.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    });
    pcommand = sendCommand(5, MICMD_PLAYFILE, 300, &handler);
    done(5, 1, 0);
    EXPECT_TRUE(bLockFree);
    EXPECT_TRUE(bUnlinked);
    EXPECT_TRUE(bAlive);
    expectNothingLeft();
}

// What an end does to the time played.
class MIntfPlayTiming : public MIntfEventThread
{
protected:
    MIntfPlayTiming()
    {
        seams::freezeTick(7500);
        m_pstream = addStream(5);
        m_pstream->m_ullPlayStartTick = 7000;
        m_pstream->m_ullPlayElapsed = 11;
        play(5);
    }

    void expectFrozen() const
    {
        EXPECT_EQ(0u, m_pstream->m_ullPlayStartTick);
        EXPECT_EQ(500u, m_pstream->m_ullPlayElapsed);
    }

    void expectRunning() const
    {
        EXPECT_EQ(7000u, m_pstream->m_ullPlayStartTick);
        EXPECT_EQ(11u, m_pstream->m_ullPlayElapsed);
    }

    CZelMediaStreamImpl* m_pstream;
};

TEST_F(MIntfPlayTiming, SuccessWithNothingQueuedStopsIt)
{
    done(5, 1, 0);
    expectFrozen();
}

TEST_F(MIntfPlayTiming, NextPlayKeepsItRunning)
{
    play(5);
    respondNext();
    done(5, 1, 0);
    expectRunning();
}

TEST_F(MIntfPlayTiming, NextRecordKeepsItRunning)
{
    record(5);
    record(5);
    m_pmintf->remActiveCommand(5, 2, 1);
    respondNext();
    done(5, 1, 0);
    expectRunning();
}

TEST_F(MIntfPlayTiming, CancelledPlayStopsItWhateverWasQueued)
{
    play(5);
    done(5, 1, 3);
    expectFrozen();
}

TEST_F(MIntfPlayTiming, AnyOtherFailureKeepsItRunning)
{
    done(5, 1, 34);
    done(5, 1, 46);
    done(5, 1, 45);
    expectRunning();
}

TEST_F(MIntfPlayTiming, StaleSuccessStopsItToo)
{
    done(5, 99, 0);
    expectFrozen();
    EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDPlay.count(5));
}

TEST_F(MIntfPlayTiming, ElapsedTimeStaysWhenNoPlayIsTimed)
{
    m_pstream->m_ullPlayStartTick = 0;
    done(5, 1, 0);
    EXPECT_EQ(0u, m_pstream->m_ullPlayStartTick);
    EXPECT_EQ(11u, m_pstream->m_ullPlayElapsed);
}
