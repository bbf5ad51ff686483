// A completion handler that does not come back for long.
//
// ZELMEDIA_BLOCK_SECONDS: for how long.
#include "Machine.h"

namespace
{
class BlockedHandler : public CSystemTest
{
protected:
    // The event thread is in the handler, of the play of a stream of its own.
    void block()
    {
        m_completions.m_onCompletion = [this](const CCompletion& completion) {
            if (completion.pStream == m_pBlocking)
                m_barrier.wait();
        };
        m_pBlocking = open("blocking");
        const size_t nPlays = m_driver.count(MICMD_PLAYFILE);
        EXPECT_EQ(MCS_OK, play(m_pBlocking, "/p/blocking.wav"));
        m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, nPlays));
        ASSERT_TRUE(m_barrier.waitReached());
    }

    CZelMediaStream* m_pBlocking = nullptr;
    CBarrier m_barrier;
};
} // namespace

TEST_F(BlockedHandler, HoldsUpCompletionsAndTimeOutsOnlyAndLosesNone)
{
    CZelMediaStream* const pDone = open("done");
    CZelMediaStream* const pOverdue = open("overdue");
    block();
    EXPECT_EQ(MCS_OK, play(pDone, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, play(pDone, "/p/2.wav"));
    EXPECT_EQ(MCS_OK, play(pOverdue, "/p/3.wav", 0));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, 1));

    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(setting("ZELMEDIA_BLOCK_SECONDS", 2));
    unsigned long ulMilliSeconds = 0;
    do
    {
        EXPECT_EQ(MCS_OK, pDone->recordGetTimeMilliseconds(&ulMilliSeconds));
        CZelMediaStream* const pMeanwhile = openStream("meanwhile");
        EXPECT_EQ(MCS_OK, play(pMeanwhile, "/p/meanwhile.wav"));
        EXPECT_EQ(MCS_OK, pMeanwhile->playCancel());
        m_pServices->closeMediaStream(pMeanwhile);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    } while (std::chrono::steady_clock::now() < end);
    EXPECT_EQ(0u, m_completions.count());
    EXPECT_EQ(0u, m_pLog->count("MICMD_PING"));

    m_barrier.open();
    ASSERT_TRUE(m_completions.waitCount(3));
    const std::vector<CCompletion> vAll = m_completions.all();
    EXPECT_EQ((CCompletion{m_pBlocking, MCS_OK, CHandler::MCCR_PLAY}), vAll[0]);
    EXPECT_EQ((CCompletion{pDone, MCS_OK, CHandler::MCCR_PLAY}), vAll[1]);
    EXPECT_EQ((CCompletion{pOverdue, MCS_TIMEDOUT, CHandler::MCCR_PLAY}), vAll[2]);
    EXPECT_TRUE(waitUntil([&] { return filesAtDriver().back() == "/p/2.wav"; })) << "the next of the queue";
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
}

TEST_F(BlockedHandler, DriverMayDieAndComeBackMeanwhile)
{
    CZelMediaStream* const pLost = open("lost");
    const unsigned long ulFileID = openPhraseFile("/p/a.ul");
    EXPECT_EQ(MCS_OK, play(pLost, "/p/1.wav"));
    block();
    loseDriver();
    m_driver.start();
    EXPECT_EQ(MCS_NOTCONNECTED, tryOpen());
    m_barrier.open();
    ASSERT_TRUE(waitConnected(2));
    EXPECT_TRUE(m_driver.waitCount(MICMD_OPENFILE, 2));
    EXPECT_EQ(MCS_NOTINITIALIZED, play(pLost, "/p/2.wav"));
    CZelMediaStream* const pNext = open("next");
    EXPECT_EQ(MCS_OK, pNext->playAddPhrase(ulFileID, 0, 8000, 60, 0, 0));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYCLIP));
    ASSERT_TRUE(m_completions.waitCount(2));
    EXPECT_EQ((CCompletion{pNext, MCS_OK, CHandler::MCCR_PLAY}), m_completions.all()[1]);
}
