// Commands that the event thread has taken out of the containers and has not yet started or reported.
#include "MediaStreamFixture.h"

#include <algorithm>
#include <stdexcept>

// Streams of services that a completion may delete, as the interface allows.
class MIntfHands : public CMediaStreamTest
{
protected:
    static constexpr int OTHER_ID = 6;

    MIntfHands()
    {
        seams::freezeTick(NOW);
        m_pmintf->m_ullLastResponseTick = NOW;
        m_pOwn = std::make_unique<CZelMediaServicesImpl>(&m_completions);
        m_pStream = openAs(STREAM_ID);
    }

    ~MIntfHands() override
    {
        disconnect();
        m_pStream.reset(); // before its services
    }

    std::unique_ptr<CZelMediaStreamImpl> openAs(int nStreamID, CZelMediaServicesImpl* pServices = nullptr)
    {
        auto pStream = std::make_unique<CZelMediaStreamImpl>();
        respondNext(MIRSP_OPENSTREAM, nStreamID);
        EXPECT_EQ(0, pStream->initialize(pServices ? pServices : m_pOwn.get(), publicStream(), "call-1", 1UL));
        return pStream;
    }

    void close(std::unique_ptr<CZelMediaStreamImpl>& pStream)
    {
        respondNext();
        pStream.reset();
    }

    int playFor(CZelMediaStreamImpl& stream, const char* pszFile, unsigned long ulTimeout = 60)
    {
        if (m_pmintf->m_mapActiveCommandByStreamIDPlay.count(stream.m_nStreamID) == 0)
            respondNext();
        return stream.playAddFile(chars(pszFile), 0, ulTimeout, 0, 0, 0);
    }

    int recordFor(CZelMediaStreamImpl& stream, const char* pszFile, unsigned long ulTimeout = 60, int nFlag = 0)
    {
        if (m_pmintf->m_mapActiveCommandByStreamIDRecord.count(stream.m_nStreamID) == 0)
            respondNext();
        return stream.recordToFile(chars(pszFile), 0, 5, ulTimeout, nFlag);
    }

    // A prompt that plays, and the recording that waits behind it. The prompt's number.
    uint32_t recordBehindPrompt(int nFlag)
    {
        const unsigned long ulFileID = openPhraseFile(501);
        const uint32_t nSequenceNo = m_pmintf->m_nNextSequenceNo;
        respondNext();
        EXPECT_EQ(0, m_pStream->recordToFileWithPromptPhrase(ulFileID, 0, 800, chars("/r/a"), 0, 5, 60, nFlag));
        return nSequenceNo;
    }

    // The sweep, whose first cancel is accepted.
    void sweep()
    {
        takeRequests();
        respondNext();
        m_pmintf->idlePass();
    }

    std::vector<MICMD> requestCodes()
    {
        std::vector<MICMD> vCodes;
        for (const structMICMD& cmd : takeRequests())
            vCodes.push_back(cmd.s_micmd);
        return vCodes;
    }

    size_t requestsOf(MICMD micmd)
    {
        const std::vector<MICMD> vCodes = requestCodes();
        return static_cast<size_t>(std::count(vCodes.begin(), vCodes.end(), micmd));
    }

    void expectNothingLeft() const
    {
        EXPECT_EQ(0, commandsAlive());
        EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
    }

    // How often the stream was told something, and its last status.
    void expectToldOnce(MCSTATUS mcstatus)
    {
        ASSERT_EQ(1u, m_completions.count());
        EXPECT_EQ(mcstatus, m_completions.all()[0].mcstatus);
    }

    static constexpr uint64_t NOW = 10000000;
    std::unique_ptr<CZelMediaServicesImpl> m_pOwn;
};

TEST_F(MIntfHands, CompletionMayCloseTheStreamAndItsServicesWhileMoreOfItIsOverdue)
{
    playFor(*m_pStream, "/p/a", 0);
    recordFor(*m_pStream, "/r/a", 0);
    m_completions.m_onCompletion = [this](const CCompletion&) {
        close(m_pStream);
        m_pOwn.reset();
        respondNext(); // to what must not be asked
    };
    sweep();
    expectToldOnce(MCS_TIMEDOUT);
    EXPECT_EQ(1u, requestsOf(MICMD_CANCEL));
    expectNothingLeft();
}

TEST_F(MIntfHands, CompletionMayCloseAnotherStreamThatIsOverdue)
{
    std::unique_ptr<CZelMediaStreamImpl> pOther = openAs(OTHER_ID);
    playFor(*m_pStream, "/p/a", 0);
    playFor(*pOther, "/p/b", 0);
    recordFor(*m_pStream, "/r/a", 0);
    m_completions.m_onCompletion = [&](const CCompletion&) {
        if (pOther)
            close(pOther);
        respondNext();
    };
    sweep();
    EXPECT_EQ(2u, m_completions.count()); // both of the stream that stays
    EXPECT_EQ(2u, requestsOf(MICMD_CANCEL));
    close(m_pStream);
    expectNothingLeft();
}

TEST_F(MIntfHands, OverdueCommandOfAClosedStreamIsNotEndedOnANewOneOfTheSameID)
{
    playFor(*m_pStream, "/p/a", 0);
    recordFor(*m_pStream, "/r/a", 0);
    m_completions.m_onCompletion = [this](const CCompletion&) {
        close(m_pStream);
        m_pStream = openAs(STREAM_ID);
        takeRequests();
        respondNext();
    };
    sweep();
    expectToldOnce(MCS_TIMEDOUT);
    EXPECT_EQ(0u, requestsOf(MICMD_CANCEL));
    close(m_pStream);
    expectNothingLeft();
}

TEST_F(MIntfHands, NextCommandsOfAClosedStreamAreNotSentToANewOneOfTheSameID)
{
    const uint32_t nSequenceNo = m_pmintf->m_nNextSequenceNo;
    playFor(*m_pStream, "/p/a");
    playFor(*m_pStream, "/p/b");
    recordFor(*m_pStream, "/r/a");
    recordFor(*m_pStream, "/r/b");
    m_pmintf->remActiveCommand(STREAM_ID, static_cast<int>(nSequenceNo + 1), 1);
    takeRequests();
    m_completions.m_onCompletion = [this](const CCompletion&) {
        close(m_pStream);
        m_pStream = openAs(STREAM_ID);
        respondNext();
        respondNext(MIRSP_STATUS, 0, 1);
    };
    end(nSequenceNo);
    expectToldOnce(MCS_OK);
    EXPECT_EQ((std::vector<MICMD>{MICMD_CLOSESTREAM, MICMD_OPENSTREAM}), requestCodes());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
    close(m_pStream);
    expectNothingLeft();
}

TEST_F(MIntfHands, PlayThatCannotBeStartedMayCloseTheStreamAndItsServicesBeforeTheRecordIsStarted)
{
    const uint32_t nSequenceNo = m_pmintf->m_nNextSequenceNo;
    playFor(*m_pStream, "/p/a");
    playFor(*m_pStream, "/p/b");
    recordFor(*m_pStream, "/r/a");
    recordFor(*m_pStream, "/r/b");
    m_pmintf->remActiveCommand(STREAM_ID, static_cast<int>(nSequenceNo + 1), 1);
    takeRequests();
    std::unique_ptr<CZelMediaStreamImpl> pOther;
    m_completions.m_onCompletion = [&](const CCompletion& completion) {
        if (completion.mcstatus != MCS_REFUSED)
        {
            respondNext(MIRSP_STATUS, MISTATUS_FAILED); // of the next play
            return;
        }
        close(m_pStream);
        m_pOwn.reset();
        pOther = openAs(STREAM_ID, &m_services);
        respondNext();
    };
    end(nSequenceNo);
    close(pOther);
    EXPECT_EQ(2u, m_completions.count());
    EXPECT_EQ(0u, requestsOf(MICMD_RECORDFILE));
    expectNothingLeft();
}

// The stream's own close is what drops them, not the one of a stream that has another number.
TEST_F(MIntfHands, NextPlayIsSentWhenAnotherStreamIsClosed)
{
    std::unique_ptr<CZelMediaStreamImpl> pOther = openAs(OTHER_ID);
    const uint32_t nSequenceNo = m_pmintf->m_nNextSequenceNo;
    playFor(*m_pStream, "/p/a");
    playFor(*m_pStream, "/p/b");
    takeRequests();
    m_completions.m_onCompletion = [&](const CCompletion&) {
        respondNext();
        pOther.reset();
        respondNext();
    };
    end(nSequenceNo);
    EXPECT_STREQ("/p/b", activePlay().m_cmd.playFile.szFileName);
}

TEST_F(MIntfHands, StreamThatTheDriverNumberedBelowZeroTakesItsCommandsAlong)
{
    std::unique_ptr<CZelMediaStreamImpl> pNegative = openAs(-7);
    playFor(*pNegative, "/p/a", 0);
    recordFor(*pNegative, "/r/a", 0);
    m_completions.m_onCompletion = [&](const CCompletion&) { pNegative.reset(); };
    sweep();
    expectToldOnce(MCS_TIMEDOUT);
    EXPECT_EQ(1u, requestsOf(MICMD_CANCEL));
    expectNothingLeft();
}

TEST_F(MIntfHands, RecordingOnItsWayToTheDriverIsWhatSetDoneWaitsFor)
{
    const uint32_t nPrompt = recordBehindPrompt(0);
    CMIntf::CCommand* const pcommand = m_pmintf->m_mapCommandQueue.at(STREAM_ID)->front();
    pcommand->m_bDone = 0; // as long as setDone has not been called
    m_completions.m_onCompletion = [this](const CCompletion&) {
        EXPECT_EQ(MCS_OK, m_pmintf->setDone(STREAM_ID, m_pOwn.get()));
        respondNext();
    };
    end(nPrompt);
    EXPECT_TRUE(takeEvents().empty());
    expectToldOnce(MCS_OK);

    m_completions.m_onCompletion = nullptr;
    ASSERT_EQ(pcommand, &activePlay());
    EXPECT_EQ(1, pcommand->m_bDone);
    end(activePlay().m_cmd.nSequenceNo);
    ASSERT_EQ(2u, m_completions.count());
    EXPECT_EQ(CZelMediaStreamCompletionHandler::MCCR_RECORD, m_completions.all()[1].reason);
}

TEST_F(MIntfHands, PlainRecordingOnItsWayIsWhatSetDoneWaitsFor)
{
    const uint32_t nPlay = play();
    recordFor(*m_pStream, "/r/a", 60, 1);
    recordFor(*m_pStream, "/r/b", 60, 1);
    m_pmintf->remActiveCommand(STREAM_ID, static_cast<int>(nPlay + 1), 1);
    CMIntf::CCommand* const pcommand = m_pmintf->m_mapCommandQueueRecord.at(STREAM_ID)->front();
    pcommand->m_bDone = 0;
    m_completions.m_onCompletion = [this](const CCompletion&) {
        EXPECT_EQ(MCS_OK, m_pmintf->setDone(STREAM_ID, m_pOwn.get()));
        respondNext();
    };
    end(nPlay);
    EXPECT_TRUE(takeEvents().empty());
    ASSERT_EQ(pcommand, &activeRecord());
    EXPECT_EQ(1, pcommand->m_bDone);
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
}

TEST_F(MIntfHands, WhatIsOnItsWayOnAnotherStreamIsNothingToWaitFor)
{
    const uint32_t nPrompt = recordBehindPrompt(0);
    m_completions.m_onCompletion = [this](const CCompletion&) {
        EXPECT_EQ(MCS_OK, m_pmintf->setDone(OTHER_ID, m_pOwn.get()));
        respondNext(MIRSP_STATUS, 0, 0);
    };
    end(nPrompt);
    const std::vector<structMIEVT> vEvents = takeEvents();
    ASSERT_EQ(1u, vEvents.size());
    EXPECT_EQ(OTHER_ID, vEvents[0].nStreamID);
    m_pmintf->remActiveCommand(OTHER_ID, -1, 1);
}

TEST_F(MIntfHands, OverdueRecordingIsWhatSetDoneWaitsForUntilItIsReported)
{
    std::unique_ptr<CZelMediaStreamImpl> pOther = openAs(OTHER_ID);
    playFor(*m_pStream, "/p/a", 0);
    recordFor(*pOther, "/r/a", 0);
    std::vector<size_t> vEvents;
    m_completions.m_onCompletion = [&](const CCompletion&) {
        EXPECT_EQ(MCS_OK, m_pmintf->setDone(OTHER_ID, m_pOwn.get()));
        vEvents.push_back(takeEvents().size());
        respondNext();
    };
    sweep();
    EXPECT_EQ((std::vector<size_t>{0, 1}), vEvents);
    close(pOther);
}

// Nobody would ever start what a thread that ended had taken.
TEST_F(MIntfHands, ExceptionOfACompletionLeavesNothingInHand)
{
    playFor(*m_pStream, "/p/a", 0);
    recordFor(*m_pStream, "/r/a", 0);
    m_completions.m_onCompletion = [](const CCompletion&) { throw std::runtime_error("the application's"); };
    respondNext();
    m_pmintf->eventThreadFunc();
    EXPECT_TRUE(m_pLog->has(errorLine("(Error) CMIntf::eventThreadFunc had an exception")));
    expectNothingLeft();
}
