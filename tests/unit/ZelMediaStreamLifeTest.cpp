// A stream's life: opened, registered, lost, destroyed.
#include "MediaStreamFixture.h"

#include <future>

#include <cstring>
#include <new>

class MediaStreamLife : public CMediaStreamTest
{
};

TEST_F(MediaStreamLife, NewObjectIsZeroInEveryMember)
{
    alignas(CZelMediaStreamImpl) unsigned char abMemory[sizeof(CZelMediaStreamImpl)];
    memset(abMemory, 0xA5, sizeof(abMemory));
    auto* const pStream = new (abMemory) CZelMediaStreamImpl;
    EXPECT_EQ(nullptr, pStream->m_pServices);
    EXPECT_EQ(nullptr, pStream->m_pStream);
    EXPECT_EQ(0, pStream->m_nStreamID);
    EXPECT_EQ(0, pStream->m_bInitialized);
    EXPECT_EQ(0, pStream->m_bPlayCancelled);
    EXPECT_EQ(0u, pStream->m_ullPlayStartTick);
    EXPECT_EQ(0u, pStream->m_ullPlayElapsed);
    EXPECT_EQ(std::vector<CLogLine>(), m_pLog->lines());
    pStream->~CZelMediaStreamImpl();
}

TEST_F(MediaStreamLife, NeverInitialisedObjectOnlyLogsWhenDestroyed)
{
    m_pStream.reset();
    EXPECT_EQ((std::vector<CLogLine>{operationLine("CZelMediaStreamImpl::~CZelMediaStreamImpl, m_nStreamID =0")}),
              m_pLog->lines());
    EXPECT_TRUE(takeRequests().empty());
}

TEST_F(MediaStreamLife, DestructorIsVirtual)
{
    static_assert(std::has_virtual_destructor_v<CZelMediaStreamImpl>);
    struct CDerived : CZelMediaStreamImpl
    {
        explicit CDerived(int& nDeaths) : m_nDeaths(nDeaths) {}
        ~CDerived() override { ++m_nDeaths; }
        int& m_nDeaths;
    };
    int nDeaths = 0;
    std::unique_ptr<CZelMediaStreamImpl>(new CDerived(nDeaths)).reset();
    EXPECT_EQ(1, nDeaths);
}

TEST_F(MediaStreamLife, CallIsOpenedAtTheDriverThenRegistered)
{
    respondNext(MIRSP_OPENSTREAM, 7);
    EXPECT_EQ(0, m_pStream->initialize(&m_services, publicStream(), "call-1", 4000000000UL));
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(MICMD_OPENSTREAM, request.s_micmd);
    EXPECT_EQ(CONNECTION, request.nConnectID);
    EXPECT_STREQ("call-1", request.openStream.szCallID);
    EXPECT_EQ(4000000000u, request.openStream.nLegID);

    const std::vector<CLogLine> vLines = m_pLog->lines();
    ASSERT_LE(3u, vLines.size());
    EXPECT_EQ(operationLine("CZelMediaStreamImpl::initialize (0x00001234), callid call-1, legid 4000000000"),
              vLines.front());
    EXPECT_EQ(operationLine("<<<CMIntf::openConferenceStream (callid call-1, legid 4000000000), streamid 7"),
              vLines[vLines.size() - 2]);
    EXPECT_EQ(operationLine("CZelMediaServicesImpl::addStream 0x00001234, id 7"), vLines.back());

    EXPECT_EQ(1, m_pStream->m_bInitialized);
    EXPECT_EQ(7, m_pStream->m_nStreamID);
    EXPECT_EQ(publicStream(), m_pStream->m_pStream);
    EXPECT_EQ(&m_services, m_pStream->m_pServices);
    EXPECT_EQ(m_pStream.get(), m_pmintf->m_mapStreamByStreamID.at(7));
    m_services.OnCMIntfCompletion(7, 0, CZelMediaStreamCompletionHandler::MCCR_PLAY);
    EXPECT_EQ((std::vector<CCompletion>{{publicStream(), 0, CZelMediaStreamCompletionHandler::MCCR_PLAY}}),
              m_completions.all());
}

TEST_F(MediaStreamLife, DeviceIsOpenedByItsInputWithLegZero)
{
    respondNext(MIRSP_OPENSTREAM, 7);
    EXPECT_EQ(0, m_pStream->initialize(&m_services, publicStream(), "in-device", "out-device"));
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(MICMD_OPENSTREAM, request.s_micmd);
    EXPECT_STREQ("in-device", request.openStream.szCallID);
    EXPECT_EQ(0u, request.openStream.nLegID);
    EXPECT_EQ(nullptr, memmem(&request, sizeof(request), "out-device", 10)) << "the driver binds by the call id";
    EXPECT_EQ(operationLine("CZelMediaStreamImpl::initialize (0x00001234), indev in-device, outdev out-device"),
              m_pLog->lines().front());
    EXPECT_EQ(1u, m_pLog->count("<<<CMIntf::openConferenceStream (callid in-device, legid 0), streamid 7"));
}

TEST_F(MediaStreamLife, CallIdTravelsWith31Characters)
{
    respondNext(MIRSP_OPENSTREAM, 7);
    m_pStream->initialize(&m_services, publicStream(), std::string(40, 'c'), 0UL);
    EXPECT_EQ(std::string(31, 'c'), takeOnlyRequest().openStream.szCallID);
}

TEST_F(MediaStreamLife, RefusedStreamIsNotRegisteredAndItsDestructionOnlyLogs)
{
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_pStream->initialize(&m_services, publicStream(), "call-1", 1UL));
    EXPECT_EQ(-1, m_pStream->m_nStreamID);
    EXPECT_EQ(0, m_pStream->m_bInitialized);
    EXPECT_TRUE(m_pmintf->m_mapStreamByStreamID.empty());
    EXPECT_EQ(0u, m_pLog->count("CZelMediaServicesImpl::addStream"));
    takeRequests();
    m_pLog->clear();
    m_pStream.reset();
    EXPECT_EQ((std::vector<CLogLine>{operationLine("CZelMediaStreamImpl::~CZelMediaStreamImpl, m_nStreamID =-1")}),
              m_pLog->lines());
    EXPECT_TRUE(takeRequests().empty());
}

TEST_F(MediaStreamLife, FailedOpenReturnsTheTransportsStatus)
{
    respondLateOnly();
    EXPECT_EQ(MCS_NORESPONSE, m_pStream->initialize(&m_services, publicStream(), "call-1", 1UL));
    disconnect();
    EXPECT_EQ(MCS_NOTCONNECTED, m_pStream->initialize(&m_services, publicStream(), "call-1", 1UL));
    EXPECT_EQ(MCS_NOTCONNECTED, m_pStream->initialize(&m_services, publicStream(), "in", "out"));
    EXPECT_EQ(-1, m_pStream->m_nStreamID);
    EXPECT_EQ(0, m_pStream->m_bInitialized);
}

TEST_F(MediaStreamLife, OpeningClearsTheCancelledFlag)
{
    m_pStream->m_bPlayCancelled = 1;
    open();
    EXPECT_EQ(0, m_pStream->m_bPlayCancelled);
}

TEST_F(MediaStreamLife, DestructionUnregistersAndClosesWhateverTheDriverSays)
{
    open();
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    m_pStream.reset();
    const std::vector<CLogLine> vLines = m_pLog->lines();
    ASSERT_LE(3u, vLines.size());
    EXPECT_EQ(operationLine("CZelMediaStreamImpl::~CZelMediaStreamImpl, m_nStreamID =5"), vLines[0]);
    EXPECT_EQ(operationLine("CZelMediaServicesImpl::remStream, id 5"), vLines[1]);
    EXPECT_EQ(closeStreamLine(5), vLines[2]);
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(MICMD_CLOSESTREAM, request.s_micmd);
    EXPECT_EQ(STREAM_ID, request.stream.nStreamID);
    EXPECT_TRUE(m_pmintf->m_mapStreamByStreamID.empty());
    m_services.OnCMIntfCompletion(STREAM_ID, 0, CZelMediaStreamCompletionHandler::MCCR_PLAY);
    EXPECT_EQ(0u, m_completions.count());
}

TEST_F(MediaStreamLife, StreamZeroOfTheDriverIsClosedLikeAnyOther)
{
    respondNext(MIRSP_OPENSTREAM, 0);
    EXPECT_EQ(0, m_pStream->initialize(&m_services, publicStream(), "call-1", 1UL));
    takeRequests();
    respondNext();
    m_pStream.reset();
    EXPECT_EQ(MICMD_CLOSESTREAM, takeOnlyRequest().s_micmd);
}

// Of a stream that the driver gave a negative id nothing is closed there, but nothing of it may be left here:
// an event for that id would be for an object that is gone.
TEST_F(MediaStreamLife, StreamWithANegativeIDIsForgottenWithItsCommandsWhenItIsDestroyed)
{
    respondNext(MIRSP_OPENSTREAM, -5);
    ASSERT_EQ(0, m_pStream->initialize(&m_services, publicStream(), "call-1", 1UL));
    respondNext();
    EXPECT_EQ(0, m_pStream->playAddFile(chars("/p/a.wav"), 0, 60, 0, 0, 0));
    EXPECT_EQ(0, m_pStream->playAddFile(chars("/p/b.wav"), 0, 60, 0, 0, 0));
    respondNext();
    EXPECT_EQ(0, m_pStream->recordToFile(chars("/r/a.wav"), 0, 5, 60, 0));
    takeRequests();
    takeEvents();

    m_pStream.reset();
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_TRUE(m_pmintf->m_mapStreamByStreamID.empty());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
    EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty());
    EXPECT_EQ(0, commandsAlive());
    m_pmintf->doneEventPass(structMIEVT{MIEVT_DONE, -5, 1, MCS_PIPEREAD});
    m_services.OnCMIntfCompletion(-5, 0, CZelMediaStreamCompletionHandler::MCCR_PLAY);
    EXPECT_EQ(0u, m_completions.count());
}

TEST_F(MediaStreamLife, FailedOpenTouchesNeitherALockNorTheStreamThatTheDriverNumberedMinusOne)
{
    respondNext(MIRSP_OPENSTREAM, -1);
    ASSERT_EQ(0, m_pStream->initialize(&m_services, publicStream(), "call-1", 1UL));
    auto pFailed = std::make_unique<CZelMediaStreamImpl>();
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, pFailed->initialize(&m_services, publicStream(), "call-2", 1UL));

    {
        CCritSecHold hold(m_pmintf->m_pCritSecCMIntf); // as an exchange does
        auto destroyed = std::async(std::launch::async, [&] { pFailed.reset(); });
        EXPECT_EQ(std::future_status::ready, destroyed.wait_for(std::chrono::seconds(20)));
        m_pmintf->m_pCritSecCMIntf->leave(__LINE__); // or the end of the test would wait, too
        destroyed.wait();
        m_pmintf->m_pCritSecCMIntf->enter(__LINE__);
    }
    EXPECT_EQ(m_pStream.get(), m_pmintf->m_mapStreamByStreamID.at(-1));
    m_services.OnCMIntfCompletion(-1, 0, CZelMediaStreamCompletionHandler::MCCR_PLAY);
    EXPECT_EQ(1u, m_completions.count());
}

TEST_F(MediaStreamLife, InvalidStreamRefusesEverythingButIsStillClosedAtTheDriver)
{
    open();
    m_pmintf->markStreamInvalid(STREAM_ID);
    EXPECT_EQ(MCS_NOTINITIALIZED, m_pStream->playAddFile(chars("/p/a.wav"), 0, 1, 0, 0, 0));
    EXPECT_EQ(MCS_NOTINITIALIZED, m_pStream->playCancel());
    EXPECT_EQ(MCS_NOTINITIALIZED, m_pStream->recordCancel());
    EXPECT_EQ(STREAM_ID, m_pStream->m_nStreamID);
    EXPECT_TRUE(takeRequests().empty());
    respondNext();
    m_pStream.reset();
    EXPECT_EQ(STREAM_ID, takeOnlyRequest().stream.nStreamID);
}

TEST_F(MediaStreamLife, UninitialisedStreamLogsEachPlayOperationAndReturns48)
{
    unsigned long ul = UNTOUCHED;
    int n = -7;
    CZelMediaStreamImpl& stream = *m_pStream;
    const std::string strClass = "CZelMediaStreamImpl::";
    const auto expect = [&](const char* pszLine, const std::function<int()>& operation) {
        expectOnlyLine((strClass + pszLine).c_str(), MCS_NOTINITIALIZED, operation);
    };

    expect(
        "playAddFile (0x00000000), file /p/a.wav, startpos 2, timeout 60",
        [&] { return stream.playAddFile(chars("/p/a.wav"), 2, 60, 0, 0, 0); });
    expect(
        "playAddPhrase (0x00000000), fid 1, offset 2, len 3, timeout 4",
        [&] { return stream.playAddPhrase(1, 2, 3, 4, 0, 0); });
    expect(
        "playCancel (0x00000000)", [&] { return stream.playCancel(); });
    expect(
        "playGetMilliSeconds (0x00000000)", [&] { return stream.playGetMilliSeconds(&ul); });
    expect(
        "playGetSeconds (0x00000000)", [&] { return stream.playGetSeconds(&ul); });
    expect(
        "playGetInfo (0x00000000)", [&] { return stream.playGetInfo(nullptr); });
    expect(
        "playGetCancelled (0x00000000) 0", [&] { return stream.playGetCancelled(&n); });
    expect(
        "playSetCancelled (0x00000000) 9", [&] { return stream.playSetCancelled(9); });
    expect("playResetBuffers (0x00000000)", [&] { return stream.playResetBuffers(); });
    EXPECT_EQ(UNTOUCHED, ul);
    EXPECT_EQ(-7, n);
    EXPECT_EQ(0, stream.m_bPlayCancelled);
}

TEST_F(MediaStreamLife, BufferPlayIsNotSupportedInAnyStateAndLeavesNoLine)
{
    unsigned char abBuffer[4] = {};
    EXPECT_EQ(MCS_NOTSUPPORTED, m_pStream->playAddBuffer(abBuffer, sizeof(abBuffer), 60, 0, 0));
    open();
    EXPECT_EQ(MCS_NOTSUPPORTED, m_pStream->playAddBuffer(abBuffer, sizeof(abBuffer), 60, 0, 0));
    EXPECT_EQ(std::vector<CLogLine>(), m_pLog->lines());
    EXPECT_TRUE(takeRequests().empty());
}
