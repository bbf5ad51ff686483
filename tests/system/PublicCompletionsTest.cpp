// What an application does with completions: plays on, closes, holds two services objects.
#include "SystemFixture.h"

#include <algorithm>
#include <atomic>

namespace
{
size_t pipeNamesOfThisProcess()
{
    const std::vector<std::string> vNames = namesIn("/tmp");
    return static_cast<size_t>(std::count_if(vNames.begin(), vNames.end(), [](const std::string& strName) {
        return "/tmp/" + strName == responsePipe() || "/tmp/" + strName == eventPipe();
    }));
}

size_t threadsNamed(const std::string& strWanted)
{
    const std::vector<std::string> vTasks = namesIn("/proc/self/task");
    return static_cast<size_t>(std::count_if(vTasks.begin(), vTasks.end(), [&](const std::string& strTask) {
        return taskLine(std::stoi(strTask), "comm", "") == strWanted;
    }));
}
} // namespace

class PublicCompletions : public CServicesTest
{
protected:
    PublicCompletions() { m_pLog->clear(); }

    static int play(CZelMediaStream* pStream, const char* pszFile = "/p/a.wav")
    {
        return pStream->playAddFile(text(pszFile), 0, 60, 0, 0, 0);
    }
    unsigned long openPhraseFile()
    {
        unsigned long ulFileID = 0;
        EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text("/p/a.ul"), &ulFileID));
        return ulFileID;
    }

    // Returns when the event thread has done with every event before: it has read one more.
    void passEventThread()
    {
        const size_t nEvents = m_pLog->count("CMIntf::eventThreadFunc, read event");
        m_driver.event(-9, 0, MCS_OK);
        EXPECT_TRUE(m_pLog->waitFor("CMIntf::eventThreadFunc, read event", nEvents + 1));
    }
    void expectNoCommandLeft() const
    {
        EXPECT_EQ(m_pLog->count("CCommand::CCommand"), m_pLog->count("CCommand::~CCommand"));
    }
};

TEST_F(PublicCompletions, PlayIsReportedWithItsStreamStatusAndReason)
{
    CZelMediaStream* const pStream = openStream();
    EXPECT_EQ(MCS_OK, play(pStream));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ(MCS_OK, pStream->playAddPhrase(openPhraseFile(), 0, 8000, 60, 0, 0));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYCLIP), MCS_CANCELLED);
    ASSERT_TRUE(m_completions.waitCount(2));
    EXPECT_EQ((std::vector<CCompletion>{{pStream, MCS_OK, CHandler::MCCR_PLAY},
                                        {pStream, MCS_CANCELLED, CHandler::MCCR_PLAY}}),
              m_completions.all());
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicCompletions, QueuedPlaysFollowEachOther)
{
    CZelMediaStream* const pStream = openStream();
    for (const char* const pszFile : {"/p/1.wav", "/p/2.wav", "/p/3.wav"})
        EXPECT_EQ(MCS_OK, play(pStream, pszFile));
    for (size_t n = 0; n < 3; ++n)
    {
        const structMICMD request = m_driver.waitRequest(MICMD_PLAYFILE, n);
        EXPECT_EQ(static_cast<char>('1' + n), request.playFile.szFileName[3]);
        EXPECT_EQ(n + 1, m_driver.count(MICMD_PLAYFILE));
        m_driver.done(request);
    }
    ASSERT_TRUE(m_completions.waitCount(3));
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicCompletions, RecordBehindAPromptIsReportedWhenItEnds)
{
    CZelMediaStream* const pStream = openStream();
    EXPECT_EQ(MCS_OK, pStream->recordToFileWithPromptPhrase(openPhraseFile(), 0, 8000, text("/r/a.wav"), 0, 5, 60, 0));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYCLIP));
    m_driver.done(m_driver.waitRequest(MICMD_RECORDFILE));
    ASSERT_TRUE(m_completions.waitCount(2));
    EXPECT_EQ(
        (std::vector<CCompletion>{{pStream, MCS_OK, CHandler::MCCR_PLAY}, {pStream, MCS_OK, CHandler::MCCR_RECORD}}),
        m_completions.all());
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicCompletions, PlainRecordEndsAtItsDeadlineWhateverTheDriverTold)
{
    CZelMediaStream* const pStream = openStream();
    EXPECT_EQ(MCS_OK, pStream->recordToFile(text("/r/a.wav"), 0, 5, 1, 0));
    m_driver.done(m_driver.waitRequest(MICMD_RECORDFILE));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ((std::vector<CCompletion>{{pStream, MCS_TIMEDOUT, CHandler::MCCR_RECORD}}), m_completions.all());
    EXPECT_EQ(2u, m_driver.waitRequest(MICMD_CANCEL).cancel.nCancelType);
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicCompletions, RecordThatTheDriverRefusesBehindAPromptIsReported)
{
    CZelMediaStream* const pStream = openStream();
    m_driver.refuse(MICMD_RECORDFILE);
    EXPECT_EQ(MCS_OK, pStream->recordToFileWithPromptPhrase(openPhraseFile(), 0, 8000, text("/r/a.wav"), 0, 5, 60, 0));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYCLIP));
    ASSERT_TRUE(m_completions.waitCount(2));
    EXPECT_EQ((CCompletion{pStream, MCS_REFUSED, CHandler::MCCR_RECORD}), m_completions.all()[1]);
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicCompletions, RefusedRecordWhileAFilePlaysIsCancelledWithTypeTwo)
{
    CZelMediaStream* const pStream = openStream();
    m_driver.refuse(MICMD_RECORDFILE);
    EXPECT_EQ(MCS_OK, play(pStream));
    EXPECT_EQ(MCS_REFUSED, pStream->recordToFile(text("/r/a.wav"), 0, 5, 60, 0));
    EXPECT_EQ(2u, m_driver.waitRequest(MICMD_CANCEL).cancel.nCancelType);
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicCompletions, HandlerMayPlayTheNextFile)
{
    CZelMediaStream* const pStream = openStream();
    std::atomic<int> nPlayStatus{-1};
    m_completions.m_onCompletion = [&](const CCompletion& completion) {
        if (m_completions.count() == 0)
            nPlayStatus = play(completion.pStream, "/p/next.wav");
    };
    EXPECT_EQ(MCS_OK, play(pStream));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    const structMICMD next = m_driver.waitRequest(MICMD_PLAYFILE, 1);
    EXPECT_STREQ("/p/next.wav", next.playFile.szFileName);
    m_driver.done(next);
    ASSERT_TRUE(m_completions.waitCount(2));
    EXPECT_EQ(MCS_OK, nPlayStatus);
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicCompletions, HandlersNewPlayOvertakesTheNextQueuedOne)
{
    CZelMediaStream* const pStream = openStream();
    m_completions.m_onCompletion = [&](const CCompletion& completion) {
        if (m_completions.count() == 0)
            EXPECT_EQ(MCS_OK, play(completion.pStream, "/p/handler.wav"));
    };
    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, play(pStream, "/p/2.wav"));
    for (const char* const pszFile : {"/p/1.wav", "/p/handler.wav", "/p/2.wav"})
    {
        const structMICMD request = m_driver.waitRequest(MICMD_PLAYFILE, m_completions.count());
        EXPECT_STREQ(pszFile, request.playFile.szFileName);
        const size_t nCompletions = m_completions.count();
        m_driver.done(request);
        ASSERT_TRUE(m_completions.waitCount(nCompletions + 1));
    }
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicCompletions, HandlerMayCloseItsStream)
{
    CZelMediaStream* const pStream = openStream();
    m_completions.m_onCompletion = [&](const CCompletion& completion) {
        m_pServices->closeMediaStream(completion.pStream);
    };
    EXPECT_EQ(MCS_OK, play(pStream));
    EXPECT_EQ(MCS_OK, pStream->recordToFile(text("/r/a.wav"), 0, 5, 60, 0));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ(1, m_driver.waitRequest(MICMD_CLOSESTREAM).stream.nStreamID);
    passEventThread();
    EXPECT_EQ(1u, m_completions.count());
    expectNoCommandLeft();
}

TEST_F(PublicCompletions, NothingOfAStreamIsSentOnceItsHandlerHasClosedIt)
{
    CZelMediaStream* const pStream = openStream();
    m_completions.m_onCompletion = [&](const CCompletion& completion) {
        m_pServices->closeMediaStream(completion.pStream);
    };
    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, play(pStream, "/p/2.wav"));
    EXPECT_EQ(MCS_OK, pStream->recordToFile(text("/r/1.wav"), 0, 5, 60, 0));
    EXPECT_EQ(MCS_OK, pStream->recordToFile(text("/r/2.wav"), 0, 5, 60, 0));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    ASSERT_TRUE(m_completions.waitCount(1));
    passEventThread();
    EXPECT_EQ(1u, m_driver.count(MICMD_PLAYFILE));
    EXPECT_EQ(1u, m_driver.count(MICMD_RECORDFILE));
    EXPECT_EQ(1u, m_completions.count());
}

TEST_F(PublicCompletions, NullCompletionHandlerIsAllowed)
{
    CZelMediaServices services(nullptr);
    CZelMediaStream* pStream = nullptr;
    ASSERT_EQ(MCS_OK, services.openMediaStream(&pStream, "call-1", 1));
    m_pLog->clear();
    EXPECT_EQ(MCS_OK, play(pStream));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    EXPECT_TRUE(m_pLog->waitFor("CZelMediaServicesImpl::OnCMIntfCompletion"));
    EXPECT_EQ(MCS_OK, play(pStream));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, 1));
    EXPECT_TRUE(m_pLog->waitFor("CZelMediaServicesImpl::OnCMIntfCompletion", 2));
    services.closeMediaStream(pStream);
    EXPECT_EQ(0u, m_completions.count());
}

TEST_F(PublicCompletions, TwoServicesObjectsShareOneInterfaceAndRouteTheirOwnStreams)
{
    CCompletions completionsSecond;
    CZelMediaServices second(&completionsSecond);
    EXPECT_EQ(2u, pipeNamesOfThisProcess());
    EXPECT_EQ(1u, threadsNamed("ZelMedia"));

    CZelMediaStream* const pFirst = openStream("call-1");
    CZelMediaStream* pSecond = nullptr;
    ASSERT_EQ(MCS_OK, second.openMediaStream(&pSecond, "call-2", 1));
    EXPECT_EQ(MCS_OK, play(pFirst));
    EXPECT_EQ(MCS_OK, play(pSecond));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, 1));
    ASSERT_TRUE(completionsSecond.waitCount(1));
    EXPECT_EQ(0u, m_completions.count());
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, 0));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ((std::vector<CCompletion>{{pSecond, MCS_OK, CHandler::MCCR_PLAY}}), completionsSecond.all());
    EXPECT_EQ((std::vector<CCompletion>{{pFirst, MCS_OK, CHandler::MCCR_PLAY}}), m_completions.all());
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));

    unsigned long ulFirst = 0;
    unsigned long ulSecond = 0;
    EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text("/p/a.ul"), &ulFirst));
    EXPECT_EQ(MCS_OK, second.openPhraseFile(text("/p/a.ul"), &ulSecond));
    EXPECT_EQ(ulFirst, ulSecond);
    EXPECT_EQ(1u, m_driver.count(MICMD_OPENFILE));
    second.closeMediaStream(pSecond);
    m_pServices->closeMediaStream(pFirst);
}

TEST_F(PublicCompletions, InterfaceOutlivesTheServicesObjectAndServesTheNextOne)
{
    m_pServices.reset();
    EXPECT_EQ(2u, pipeNamesOfThisProcess());
    m_pServices = std::make_unique<CZelMediaServices>(&m_completions);
    CZelMediaStream* const pStream = openStream();
    EXPECT_EQ(MCS_OK, play(pStream));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    EXPECT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicCompletions, StreamLostWithThePipesReturns48AndIsStillClosedAtTheDriver)
{
    CZelMediaStream* const pStream = openStream();
    CZelMediaStream* const pOther = openStream("call-2");
    EXPECT_EQ(MCS_OK, play(pStream));
    m_driver.die();
    EXPECT_EQ(MCS_PIPEWRITE, pOther->playAddFile(text("/p/a.wav"), 0, 60, 0, 0, 0));
    ASSERT_TRUE(m_pLog->waitFor("(Error) CMIntf::markStreamInvalid"));
    EXPECT_EQ(MCS_NOTINITIALIZED, pStream->playGetInfo(nullptr));
    EXPECT_EQ(MCS_NOTINITIALIZED, play(pStream));
    m_driver.start();
    ASSERT_TRUE(waitConnected());
    m_pServices->closeMediaStream(pStream);
    EXPECT_EQ(1, m_driver.waitRequest(MICMD_CLOSESTREAM).stream.nStreamID);
    EXPECT_EQ(0u, m_completions.count()) << "nothing completes after a fatal status";
    m_pServices->closeMediaStream(pOther);
}

TEST_F(PublicCompletions, HandlerMayReplaceTheLogger)
{
    CZelMediaStream* const pStream = openStream();
    const auto pLogNew = std::make_shared<CLogRecord>();
    m_completions.m_onCompletion = [&](const CCompletion&) {
        m_pServices->setLogger(new CLogCapture(pLogNew), nullptr);
    };
    EXPECT_EQ(MCS_OK, play(pStream));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    ASSERT_TRUE(m_completions.waitCount(1));
    m_pServices->closeMediaStream(pStream);
    EXPECT_EQ(1u, pLogNew->count("CZelMediaStreamImpl::~CZelMediaStreamImpl"));
}
