// The exchange of a request and its response when the driver answers late, wrongly or never.
#include "SystemFixture.h"

#include <atomic>
#include <future>
#include <sys/ioctl.h>

namespace
{
using std::chrono::milliseconds;

const char GIVEN_UP[] = "(Error) CMIntf::sendCommand, timeout reading response pipe";

std::string skippedLine(int nTry)
{
    return "(Error) CMIntf::sendCommand, got response for the previous issued cmd, ignoring it trycount = " +
           std::to_string(nTry) + ", psrsp->nRespSequenceNo = 0, psrsp->s_mirsp = MIRSP_NULL";
}

std::string triedLine(int nTries, uint32_t nSequenceNo, const char* pszResponse)
{
    return "(Info) CMIntf::sendCommand, tried to get correct response, trycount = " + std::to_string(nTries) +
           ", psrsp->nRespSequenceNo = " + std::to_string(nSequenceNo) + ", psrsp->s_mirsp = " + pszResponse;
}
} // namespace

class Exchange : public CSystemTest
{
protected:
    // Requests that the driver has not read yet.
    static int bytesInRequestPipe()
    {
        int nBytes = -1;
        const int nPipe = ::open(MI_REQUEST_PIPE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        ioctl(nPipe, FIONREAD, &nBytes);
        close(nPipe);
        return nBytes;
    }

    // Answers a command after nLate answers to a request of long ago.
    void answerAfterLateOnes(MICMD micmd, int nLate, bool bAnswer = true)
    {
        m_driver.onCommand(
            micmd,
            [=, this](const structMICMD& request) {
                for (int n = 0; n < nLate; ++n)
                    m_driver.respondTo(1, MIRSP_STATUS, MISTATUS_OK);
                if (bAnswer)
                    m_driver.accept(request);
            });
    }
};

TEST_F(Exchange, UnansweredRequestIs16AfterTenSecondsWithEverythingClearedAndThePipeKept)
{
    CZelMediaStream* const pPlaying = open("playing");
    CZelMediaStream* const pStep = open("step");
    CZelMediaStream* const pRecording = open("recording");
    CZelMediaStream* const pPrompted = open("prompted");
    const unsigned long ulPhrases = openPhraseFile("/p/a.ul");
    EXPECT_EQ(MCS_OK, play(pPlaying, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, play(pPlaying, "/p/queued.wav"));
    EXPECT_EQ(MCS_OK, play(pStep, "/p/2.wav", 60, 1));
    EXPECT_EQ(MCS_OK, record(pRecording, "/r/1.wav"));
    EXPECT_EQ(MCS_OK, record(pRecording, "/r/queued.wav"));
    EXPECT_EQ(MCS_OK, recordWithPrompt(pPrompted, ulPhrases, "/r/queued.wav"));

    m_driver.ignore(MICMD_RECORDGETSTATUS);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(MCS_NORESPONSE, pPlaying->recordGetStatus());
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(9900));
    drainEvents();

    EXPECT_EQ((std::vector<CCompletion>{{pPlaying, MCS_NORESPONSE, CHandler::MCCR_PLAY},
                                        {pStep, MCS_NORESPONSE, CHandler::MCCR_PLAY},
                                        {pPrompted, MCS_NORESPONSE, CHandler::MCCR_PLAY}}),
              m_completions.all());
    EXPECT_TRUE(waitCommandsAlive(1)); // the recording, which knows only its deadline
    EXPECT_EQ(0u, m_pLog->alarms().size());
    EXPECT_EQ(0u, m_pLog->count("closing request pipe"));
    EXPECT_EQ(1u, m_pLog->count("oops timeout clear cmd"));

    // The same connection serves the next request at once.
    EXPECT_EQ(MCS_OK, play(pPlaying, "/p/3.wav"));
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
    EXPECT_EQ((std::vector<std::string>{"/p/1.wav", "/p/2.wav", "/r/1.wav", "/p/3.wav"}), filesAtDriver());
}

TEST_F(Exchange, TenSecondsAreOneBudgetForAllTries)
{
    CZelMediaStream* const pStream = open();
    m_driver.onCommand(MICMD_PLAYFILE, [this](const structMICMD& request) {
        for (int n = 0; n < 3; ++n)
        {
            std::this_thread::sleep_for(milliseconds(3000));
            m_driver.respondTo(1, MIRSP_STATUS, MISTATUS_OK);
        }
        // A budget of each try's own would still wait, and take this one.
        m_pLog->waitFor(GIVEN_UP, 1, milliseconds(4000));
        m_driver.accept(request);
    });
    EXPECT_EQ(MCS_NORESPONSE, play(pStream, "/p/1.wav"));
    for (int nTry = 0; nTry < 3; ++nTry)
        EXPECT_TRUE(m_pLog->has({1, 64, skippedLine(nTry)}));
    EXPECT_EQ(3u, m_pLog->count("ignoring it trycount"));
    EXPECT_EQ(1u, m_pLog->count(GIVEN_UP));
}

TEST_F(Exchange, FiveLateResponsesAre16WithEverythingElseIntact)
{
    CZelMediaStream* const pPlaying = open("playing");
    CZelMediaStream* const pAsking = open("asking");
    EXPECT_EQ(MCS_OK, play(pPlaying, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, play(pPlaying, "/p/2.wav"));
    answerAfterLateOnes(MICMD_PLAYFILE, 5, false);
    m_pLog->clear();
    EXPECT_EQ(MCS_NORESPONSE, play(pAsking, "/p/3.wav"));
    for (int nTry = 0; nTry < 5; ++nTry)
        EXPECT_TRUE(m_pLog->has({1, 64, skippedLine(nTry)}));
    EXPECT_TRUE(m_pLog->has({8, 64, triedLine(5, 0, "MIRSP_NULL")}));
    EXPECT_EQ(0, commandsAlive());
    EXPECT_EQ(0u, m_pLog->count("oops timeout clear cmd"));

    m_driver.acceptAgain(MICMD_PLAYFILE);
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, 0));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, 2));
    ASSERT_TRUE(m_completions.waitCount(2));
    EXPECT_EQ(
        (std::vector<CCompletion>{{pPlaying, MCS_OK, CHandler::MCCR_PLAY}, {pPlaying, MCS_OK, CHandler::MCCR_PLAY}}),
        m_completions.all());
    EXPECT_EQ(MCS_OK, play(pAsking, "/p/4.wav"));
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
}

TEST_F(Exchange, MatchingStatusAfterLateResponsesCounts)
{
    CZelMediaStream* const pStream = open();
    answerAfterLateOnes(MICMD_PLAYFILE, 4);
    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
    const uint32_t nSequenceNo = m_driver.waitRequest(MICMD_PLAYFILE).nSequenceNo;
    EXPECT_TRUE(m_pLog->has({8, 64, triedLine(5, nSequenceNo, "MIRSP_STATUS")}));
}

TEST_F(Exchange, MatchingAnswerOfAnotherKindAfterALateResponseStays16)
{
    answerAfterLateOnes(MICMD_OPENSTREAM, 1);
    EXPECT_EQ(MCS_NORESPONSE, tryOpen());
    m_driver.acceptAgain(MICMD_OPENSTREAM);
    EXPECT_EQ(MCS_OK, tryOpen());
}

TEST_F(Exchange, LateAnswerOfThePreviousRequestIsSkipped)
{
    CZelMediaStream* const pStream = open();
    m_driver.onCommand(MICMD_RECORDGETTIME, [this](const structMICMD& request) {
        m_driver.accept(request);
        m_driver.respond(request, MIRSP_STATUS, MISTATUS_FAILED);
    });
    unsigned long ulMilliSeconds = 0;
    EXPECT_EQ(MCS_OK, pStream->recordGetTimeMilliseconds(&ulMilliSeconds));
    EXPECT_EQ(1234u, ulMilliSeconds);
    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
    EXPECT_EQ(1u, m_pLog->count(skippedLine(0)));
}

TEST_F(Exchange, FrozenDriverThatThawsAnswersTooLateAndItsEventIsStale)
{
    CZelMediaStream* const pStream = open();
    // Frozen on its own thread, so that no request slips through any more.
    m_driver.onCommand(MICMD_RECORDGETSTATUS, [this](const structMICMD& request) {
        m_driver.freeze();
        m_driver.accept(request);
    });
    EXPECT_EQ(1, pStream->recordGetStatus());
    EXPECT_EQ(MCS_NORESPONSE, play(pStream, "/p/frozen.wav"));
    m_driver.thaw();
    const structMICMD late = m_driver.waitRequest(MICMD_PLAYFILE);
    EXPECT_EQ(MCS_OK, play(pStream, "/p/next.wav"));
    EXPECT_EQ(1u, m_pLog->count(skippedLine(0)));
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));

    m_driver.done(late); // the driver plays what the application was told had failed
    drainEvents();
    EXPECT_EQ(0u, m_completions.count());
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, 1));
    ASSERT_TRUE(m_completions.waitCount(1));
}

TEST_F(Exchange, OtherThreadsRequestWaitsForItsTurnAndIsAnswered)
{
    CZelMediaStream* const pFirst = open("first");
    CZelMediaStream* const pSecond = open("second");
    m_driver.ignore(MICMD_PLAYFILE);
    auto first = std::async(std::launch::async, [&] { return play(pFirst, "/p/1.wav"); });
    const structMICMD unanswered = m_driver.waitRequest(MICMD_PLAYFILE);
    std::atomic<pid_t> nSecond{0};
    auto second = std::async(std::launch::async, [&] {
        nSecond = gettid();
        return pSecond->recordGetStatus();
    });
    ASSERT_TRUE(m_pLog->waitFor("cmd MICMD_RECORDGETSTATUS"));
    ASSERT_TRUE(waitUntil([&] { return taskLine(nSecond, "status", "State:\t").starts_with("S"); }));
    EXPECT_EQ(0, bytesInRequestPipe());
    EXPECT_EQ(0u, m_driver.count(MICMD_RECORDGETSTATUS));
    m_driver.accept(unanswered);
    EXPECT_EQ(MCS_OK, first.get());
    EXPECT_EQ(1, second.get());
    EXPECT_EQ(1u, m_driver.count(MICMD_RECORDGETSTATUS));
}

TEST_F(Exchange, ShortResponseIs44AndTheLibraryConnectsAgain)
{
    CZelMediaStream* const pPlaying = open("playing");
    CZelMediaStream* const pAsking = open("asking");
    EXPECT_EQ(MCS_OK, play(pPlaying, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, play(pPlaying, "/p/2.wav"));
    m_driver.onCommand(MICMD_PLAYFILE, [this](const structMICMD&) {
        const char acShort[47] = {};
        m_driver.respondRaw(acShort, sizeof(acShort));
    });
    EXPECT_EQ(MCS_PIPEREAD, play(pAsking, "/p/3.wav"));
    m_driver.acceptAgain(MICMD_PLAYFILE);
    drainEvents();
    EXPECT_EQ(1u, m_pLog->count("(Error) CMIntf::sendCommand, error reading response pipe"));
    EXPECT_EQ(2u, m_pLog->count("evt MIEVT_DONE, stat 44"));
    EXPECT_EQ(2u, m_pLog->alarms().size());
    EXPECT_EQ(0u, m_completions.count());
    EXPECT_TRUE(waitCommandsAlive(0));
    EXPECT_EQ(MCS_NOTINITIALIZED, play(pPlaying, "/p/4.wav"));
    ASSERT_TRUE(waitConnected(2));
    EXPECT_EQ(MCS_OK, play(pAsking, "/p/5.wav"));
}

TEST_F(Exchange, AnswerBeforeTheCallerHasReturnedCompletesOnce)
{
    CZelMediaStream* const pStream = open();
    m_driver.onCommand(MICMD_PLAYFILE, [this](const structMICMD& request) {
        m_driver.done(request); // the event overtakes the response
        m_driver.accept(request);
    });
    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
    ASSERT_TRUE(m_completions.waitCount(1));
    drainEvents();
    EXPECT_EQ((std::vector<CCompletion>{{pStream, MCS_OK, CHandler::MCCR_PLAY}}), m_completions.all());
    EXPECT_TRUE(waitCommandsAlive(0));
}
