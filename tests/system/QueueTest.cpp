// Plays and recordings that follow each other: queues, completions, cancel, time-outs.
#include "SystemFixture.h"

#include <atomic>

class Queue : public CSystemTest
{
protected:
    typedef std::vector<CCompletion> Completions;
    typedef std::vector<std::string> Files;

    // Ends the play or recording of this file, which the driver must have been asked for.
    void endOf(const std::string& strFile, int nStatus = MCS_OK)
    {
        ASSERT_TRUE(waitUntil([&] { return find(strFile) != nullptr; })) << strFile;
        m_driver.done(*find(strFile), nStatus);
    }

    bool waitStarted(const std::string& strFile)
    {
        return waitUntil([&] { return find(strFile) != nullptr; }, std::chrono::seconds(20));
    }

private:
    std::unique_ptr<structMICMD> find(const std::string& strFile) const
    {
        for (const structMICMD& request : m_driver.requests())
            if ((request.s_micmd == MICMD_PLAYFILE || request.s_micmd == MICMD_RECORDFILE) &&
                strFile == request.playFile.szFileName)
                return std::make_unique<structMICMD>(request);
        return nullptr;
    }
};

TEST_F(Queue, PlaysAreSentOneByOneAndCompleteInOrder)
{
    CZelMediaStream* const pStream = open();
    for (const char* const pszFile : {"1", "2", "3"})
        EXPECT_EQ(MCS_OK, play(pStream, pszFile));
    EXPECT_EQ((Files{"1"}), filesAtDriver());
    endOf("1");
    ASSERT_TRUE(waitStarted("2"));
    EXPECT_EQ((Files{"1", "2"}), filesAtDriver());
    endOf("2");
    endOf("3");
    ASSERT_TRUE(m_completions.waitCount(3));
    EXPECT_EQ(Completions(3, {pStream, MCS_OK, CHandler::MCCR_PLAY}), m_completions.all());
    EXPECT_TRUE(waitCommandsAlive(0));
}

TEST_F(Queue, QueuesOfStreamsAreIndependent)
{
    CZelMediaStream* const pA = open("a");
    CZelMediaStream* const pB = open("b");
    EXPECT_EQ(MCS_OK, play(pA, "a1"));
    EXPECT_EQ(MCS_OK, play(pA, "a2"));
    EXPECT_EQ(MCS_OK, play(pB, "b1"));
    EXPECT_EQ(MCS_OK, play(pB, "b2"));
    EXPECT_EQ((Files{"a1", "b1"}), filesAtDriver());
    endOf("b1");
    ASSERT_TRUE(waitStarted("b2"));
    endOf("a1", 5);
    ASSERT_TRUE(m_completions.waitCount(2));
    endOf("b2");
    ASSERT_TRUE(m_completions.waitCount(3));
    EXPECT_EQ((Completions{
                  {pB, MCS_OK, CHandler::MCCR_PLAY}, {pA, 5, CHandler::MCCR_PLAY}, {pB, MCS_OK, CHandler::MCCR_PLAY}}),
              m_completions.all());
    EXPECT_EQ((Files{"a1", "b1", "b2"}), filesAtDriver());
}

TEST_F(Queue, FailureDropsWhatWaitsBehindItWithoutACompletion)
{
    CZelMediaStream* const pStream = open();
    for (const char* const pszFile : {"1", "2", "3"})
        EXPECT_EQ(MCS_OK, play(pStream, pszFile));
    endOf("1", 1234);
    ASSERT_TRUE(m_completions.waitCount(1));
    drainEvents();
    EXPECT_EQ((Completions{{pStream, 1234, CHandler::MCCR_PLAY}}), m_completions.all());
    EXPECT_EQ((Files{"1"}), filesAtDriver());
    EXPECT_TRUE(waitCommandsAlive(0));
}

TEST_F(Queue, RefusedNextPlayIsReportedAndDropsTheRest)
{
    CZelMediaStream* const pStream = open();
    for (const char* const pszFile : {"1", "2", "3"})
        EXPECT_EQ(MCS_OK, play(pStream, pszFile));
    m_driver.refuse(MICMD_PLAYFILE);
    endOf("1");
    ASSERT_TRUE(m_completions.waitCount(2));
    drainEvents();
    EXPECT_EQ((Completions{{pStream, MCS_OK, CHandler::MCCR_PLAY}, {pStream, MCS_REFUSED, CHandler::MCCR_PLAY}}),
              m_completions.all());
    EXPECT_EQ((Files{"1", "2"}), filesAtDriver());
    EXPECT_TRUE(waitCommandsAlive(0));
}

TEST_F(Queue, CancelDropsWhatWaitsAndAsksTheDriverToEndTheRunningPlay)
{
    CZelMediaStream* const pStream = open();
    for (const char* const pszFile : {"1", "2", "3"})
        EXPECT_EQ(MCS_OK, play(pStream, pszFile, 60, 1));
    EXPECT_EQ(MCS_OK, pStream->playCancel());
    const structMICMD cancel = m_driver.waitRequest(MICMD_CANCEL);
    EXPECT_EQ(1, cancel.cancel.nStreamID);
    EXPECT_EQ(1u, cancel.cancel.nCancelType);
    EXPECT_EQ(1, commandsAlive());
    EXPECT_EQ(0u, m_completions.count());
    // A cancelled step is reported, also with success.
    endOf("1");
    ASSERT_TRUE(m_completions.waitCount(1));
    drainEvents();
    EXPECT_EQ((Completions{{pStream, MCS_OK, CHandler::MCCR_PLAY}}), m_completions.all());
    EXPECT_EQ((Files{"1"}), filesAtDriver());
}

TEST_F(Queue, CancelWhileNothingPlaysAsksNothing)
{
    EXPECT_EQ(MCS_OK, open()->playCancel());
    EXPECT_EQ(0u, m_driver.count(MICMD_CANCEL));
}

TEST_F(Queue, HandlersNewPlayOvertakesTheNextOneWhichGoesToTheEnd)
{
    CZelMediaStream* const pStream = open();
    std::atomic<bool> bFirst{true};
    m_completions.m_onCompletion = [&](const CCompletion& completion) {
        if (bFirst.exchange(false))
            EXPECT_EQ(MCS_OK, play(completion.pStream, "handler"));
    };
    for (const char* const pszFile : {"1", "2", "3"})
        EXPECT_EQ(MCS_OK, play(pStream, pszFile));
    for (const char* const pszFile : {"1", "handler", "3", "2"})
    {
        const size_t nCompletions = m_completions.count();
        endOf(pszFile);
        ASSERT_TRUE(m_completions.waitCount(nCompletions + 1));
    }
    EXPECT_EQ((Files{"1", "handler", "3", "2"}), filesAtDriver());
}

TEST_F(Queue, StaleSuccessTurnsTheQueue)
{
    CZelMediaStream* const pStream = open();
    for (const char* const pszFile : {"1", "2", "3"})
        EXPECT_EQ(MCS_OK, play(pStream, pszFile));
    m_driver.event(1, 99999, MCS_OK);
    drainEvents();
    EXPECT_EQ((Files{"1"}), filesAtDriver());
    EXPECT_EQ(0u, m_completions.count());
    for (const char* const pszFile : {"1", "3", "2"})
    {
        const size_t nCompletions = m_completions.count();
        endOf(pszFile);
        ASSERT_TRUE(m_completions.waitCount(nCompletions + 1));
    }
    EXPECT_EQ((Files{"1", "3", "2"}), filesAtDriver());
}

TEST_F(Queue, StaleFailureDropsTheQueueAndLeavesTheRunningPlay)
{
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, play(pStream, "1"));
    EXPECT_EQ(MCS_OK, play(pStream, "2"));
    m_driver.event(1, 99999, 7);
    drainEvents();
    EXPECT_EQ(0u, m_completions.count());
    EXPECT_EQ(1, commandsAlive());
    endOf("1");
    ASSERT_TRUE(m_completions.waitCount(1));
    drainEvents();
    EXPECT_EQ((Files{"1"}), filesAtDriver());
}

TEST_F(Queue, StepsAreReportedOnlyWhenTheyFail)
{
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, play(pStream, "1", 60, 1));
    EXPECT_EQ(MCS_OK, play(pStream, "2", 60, -1));
    EXPECT_EQ(MCS_OK, play(pStream, "3", 60, 1));
    endOf("1");
    endOf("2");
    ASSERT_TRUE(waitStarted("3"));
    EXPECT_EQ(0u, m_completions.count());
    endOf("3", 5);
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ((Completions{{pStream, 5, CHandler::MCCR_PLAY}}), m_completions.all());
    EXPECT_TRUE(waitCommandsAlive(0));
}

TEST_F(Queue, LastStepIsReportedWhenARecordingFollowsIt)
{
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, play(pStream, "1", 60, 1));
    EXPECT_EQ(MCS_OK, record(pStream, "r"));
    endOf("1");
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ((Completions{{pStream, MCS_OK, CHandler::MCCR_PLAY}}), m_completions.all());
}

TEST_F(Queue, PromptAndRecordingAreBothReportedWhateverTheFlag)
{
    const unsigned long ulPhrases = openPhraseFile("/p/a.ul");
    CZelMediaStream* const pStream = open();
    for (const int nFlag : {0, 1})
    {
        const std::string strFile = "/r/" + std::to_string(nFlag);
        EXPECT_EQ(MCS_OK, recordWithPrompt(pStream, ulPhrases, strFile, 60, nFlag));
        const structMICMD prompt = m_driver.waitRequest(MICMD_PLAYCLIP, static_cast<size_t>(nFlag));
        EXPECT_EQ(static_cast<size_t>(nFlag), m_driver.count(MICMD_RECORDFILE));
        m_driver.done(prompt);
        endOf(strFile);
        ASSERT_TRUE(m_completions.waitCount(2 * static_cast<size_t>(nFlag) + 2));
    }
    const CCompletion played = {pStream, MCS_OK, CHandler::MCCR_PLAY};
    const CCompletion recorded = {pStream, MCS_OK, CHandler::MCCR_RECORD};
    EXPECT_EQ((Completions{played, recorded, played, recorded}), m_completions.all());
    EXPECT_TRUE(waitCommandsAlive(0));
}

TEST_F(Queue, CancelledPromptNeverStartsItsRecording)
{
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, recordWithPrompt(pStream, openPhraseFile("/p/a.ul"), "/r/1"));
    EXPECT_EQ(MCS_OK, pStream->recordCancel());
    EXPECT_EQ(2u, m_driver.waitRequest(MICMD_CANCEL).cancel.nCancelType);
    m_driver.done(m_driver.waitRequest(MICMD_PLAYCLIP), MCS_CANCELLED);
    ASSERT_TRUE(m_completions.waitCount(1));
    drainEvents();
    EXPECT_EQ((Completions{{pStream, MCS_CANCELLED, CHandler::MCCR_PLAY}}), m_completions.all());
    EXPECT_EQ(0u, m_driver.count(MICMD_RECORDFILE));
}

TEST_F(Queue, RecordingBehindAPromptThatIsOverdueIsCancelledAsARecording)
{
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, recordWithPrompt(pStream, openPhraseFile("/p/a.ul"), "/r/1", 1));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYCLIP));
    ASSERT_TRUE(m_completions.waitCount(2));
    EXPECT_EQ((CCompletion{pStream, MCS_TIMEDOUT, CHandler::MCCR_RECORD}), m_completions.all()[1]);
    EXPECT_EQ(2u, m_driver.waitRequest(MICMD_CANCEL).cancel.nCancelType);
}

TEST_F(Queue, PlainRecordingEndsOnlyAtItsDeadlineWith46)
{
    CZelMediaStream* const pStream = open();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(MCS_OK, record(pStream, "r", 2));
    endOf("r");
    drainEvents();
    EXPECT_EQ(0u, m_completions.count());
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
    EXPECT_EQ((Completions{{pStream, MCS_TIMEDOUT, CHandler::MCCR_RECORD}}), m_completions.all());
    const structMICMD cancel = m_driver.waitRequest(MICMD_CANCEL);
    EXPECT_EQ(1, cancel.cancel.nStreamID);
    EXPECT_EQ(2u, cancel.cancel.nCancelType);
    EXPECT_TRUE(waitCommandsAlive(0));
}

TEST_F(Queue, PlainRecordingIsNotEndedByACancelOfItsOwn)
{
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, record(pStream, "r"));
    EXPECT_EQ(MCS_OK, pStream->recordCancel());
    EXPECT_EQ(0u, m_driver.count(MICMD_CANCEL));
    EXPECT_EQ(1, commandsAlive());
}

// An end that matches no play sends the next recording round to the end of its queue.
TEST_F(Queue, EndOfAPlainRecordingTurnsTheQueueOfRecordings)
{
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, record(pStream, "r1", 60));
    EXPECT_EQ(MCS_OK, record(pStream, "r2", 60));
    EXPECT_EQ(MCS_OK, record(pStream, "r3", 60));
    m_pLog->clear();
    endOf("r1");
    drainEvents();
    EXPECT_EQ((Files{"r1"}), filesAtDriver());
    EXPECT_TRUE(m_pLog->has({8, 2, "CMIntf::processRecordActiveCommand - queueing"}));
    EXPECT_EQ(0u, m_completions.count());
    EXPECT_EQ(0, commandsAlive());
}

TEST_F(Queue, OverduePlayIsCancelledCompletesWith46AndDropsItsQueue)
{
    CZelMediaStream* const pStream = open();
    CZelMediaStream* const pOther = open("other");
    EXPECT_EQ(MCS_OK, play(pOther, "other"));
    EXPECT_EQ(MCS_OK, play(pStream, "1", 1, 1));
    EXPECT_EQ(MCS_OK, play(pStream, "2"));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ((Completions{{pStream, MCS_TIMEDOUT, CHandler::MCCR_PLAY}}), m_completions.all());
    const structMICMD cancel = m_driver.waitRequest(MICMD_CANCEL);
    EXPECT_EQ(1, cancel.cancel.nStreamID);
    EXPECT_EQ(1u, cancel.cancel.nCancelType);
    EXPECT_TRUE(waitCommandsAlive(1));
    EXPECT_EQ(0u, m_pLog->alarms().size());

    // What the driver tells of it now comes too late.
    endOf("1", MCS_CANCELLED);
    drainEvents();
    EXPECT_EQ(1u, m_completions.count());
    EXPECT_EQ(MCS_OK, play(pStream, "3"));
    EXPECT_EQ((Files{"other", "1", "3"}), filesAtDriver());
}

TEST_F(Queue, TimeOutOfZeroIsOverdueAtOnce)
{
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, play(pStream, "1", 0));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ((Completions{{pStream, MCS_TIMEDOUT, CHandler::MCCR_PLAY}}), m_completions.all());
}

TEST_F(Queue, WaitingPlayIsTimedFromItsSending)
{
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, play(pStream, "1", 60));
    EXPECT_EQ(MCS_OK, play(pStream, "2", 0));
    CZelMediaStream* const pClock = open("clock");
    EXPECT_EQ(MCS_OK, play(pClock, "clock", 0)); // its end shows that a sweep took place
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ(pClock, m_completions.all()[0].pStream);
    endOf("1");
    ASSERT_TRUE(m_completions.waitCount(3));
    EXPECT_EQ((CCompletion{pStream, MCS_TIMEDOUT, CHandler::MCCR_PLAY}), m_completions.all()[2]);
    EXPECT_EQ((Files{"1", "clock", "2"}), filesAtDriver());
}

TEST_F(Queue, ClosingAStreamDropsEverythingWithoutCompletions)
{
    CZelMediaStream* const pStream = openStream();
    EXPECT_EQ(MCS_OK, recordWithPrompt(pStream, openPhraseFile("/p/a.ul"), "r1"));
    EXPECT_EQ(MCS_OK, play(pStream, "1"));
    EXPECT_EQ(MCS_OK, record(pStream, "r2"));
    EXPECT_EQ(MCS_OK, record(pStream, "r3"));
    m_pServices->closeMediaStream(pStream);
    EXPECT_EQ(0, commandsAlive());
    m_driver.done(m_driver.waitRequest(MICMD_PLAYCLIP));
    drainEvents();
    EXPECT_EQ(0u, m_completions.count());
    EXPECT_EQ((Files{"r2"}), filesAtDriver());
    EXPECT_EQ(1u, m_driver.count(MICMD_CLOSESTREAM));
}
