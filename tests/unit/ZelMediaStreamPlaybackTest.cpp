// A stream's plays: what is logged, sent, returned and timed.
#include "MediaStreamFixture.h"

#include <cstring>

class MediaStreamPlay : public CMediaStreamTest
{
protected:
    MediaStreamPlay()
    {
        seams::freezeTick(1000000);
        open();
    }
};

class MediaStreamPlayTime : public MediaStreamPlay
{
protected:
    unsigned long milliSeconds()
    {
        unsigned long ulMs = UNTOUCHED;
        EXPECT_EQ(0, m_pStream->playGetMilliSeconds(&ulMs));
        return ulMs;
    }
    unsigned long seconds()
    {
        unsigned long ulSeconds = UNTOUCHED;
        EXPECT_EQ(0, m_pStream->playGetSeconds(&ulSeconds));
        return ulSeconds;
    }
};

TEST_F(MediaStreamPlay, FileIsSentWithStreamNameStartAndParameter)
{
    respondNext();
    EXPECT_EQ(0, m_pStream->playAddFile(chars("/p/a.wav"), 2, 60, 0, 0, 0xCAFE0001UL));
    expectOperationLine("CZelMediaStreamImpl::playAddFile (0x00001234), file /p/a.wav, startpos 2, timeout 60");
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(MICMD_PLAYFILE, request.s_micmd);
    EXPECT_EQ(CONNECTION, request.nConnectID);
    EXPECT_EQ(STREAM_ID, request.playFile.nStreamID);
    EXPECT_STREQ("/p/a.wav", request.playFile.szFileName);
    EXPECT_EQ(16000u, request.playFile.nStartPos);
    EXPECT_EQ(0xCAFE0001u, request.playFile.nPlayParam);
}

TEST_F(MediaStreamPlay, LargeNumbersAreShownSigned)
{
    respondNext();
    m_pStream->playAddFile(chars("/p/a.wav"), 0xFFFFFFFEUL, ~0UL, 0, 0, 0);
    expectOperationLine("CZelMediaStreamImpl::playAddFile (0x00001234), file /p/a.wav, startpos -2, timeout -1");
}

// Start position, its unit flag, samples on the wire.
class MediaStreamStart : public MediaStreamPlay,
                         public testing::WithParamInterface<std::tuple<unsigned long long, int, uint32_t>>
{
};

TEST_P(MediaStreamStart, IsSentInSamplesWrappingIn32Bits)
{
    const auto [ullStartPos, nInMs, nSamples] = GetParam();
    respondNext();
    EXPECT_EQ(0, m_pStream->playAddFile(chars("/p/a.wav"), static_cast<unsigned long>(ullStartPos), 60, 0, nInMs, 0));
    EXPECT_EQ(nSamples, takeOnlyRequest().playFile.nStartPos);
}

INSTANTIATE_TEST_SUITE_P(Positions, MediaStreamStart,
                         testing::Values(std::make_tuple(0, 0, 0u), std::make_tuple(2, 0, 16000u),
                                         std::make_tuple(1500, 1, 12000u), std::make_tuple(1500, -3, 12000u),
                                         std::make_tuple(600000, 0, 505032704u), std::make_tuple(0x20000001, 1, 8u),
                                         std::make_tuple(0xFFFFFFFF, 0, 0xFFFFE0C0u),
                                         // 64-bit arguments count with their low half
                                         std::make_tuple(0x100000002ULL, 0, 16000u)));

TEST_F(MediaStreamPlay, LongFileNameIsCutTo255CharactersAndTerminated)
{
    respondNext();
    EXPECT_EQ(0, m_pStream->playAddFile(chars(std::string(300, 'f').c_str()), 0, 60, 0, 0, 0));
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(std::string(255, 'f'), request.playFile.szFileName);
    EXPECT_EQ(0, reinterpret_cast<const char*>(&request)[271]);
}

TEST_F(MediaStreamPlay, CommandCarriesTimeoutFlagAndServices)
{
    respondNext();
    EXPECT_EQ(0, m_pStream->playAddFile(chars("/p/a.wav"), 0, 60, 0, 0, 0));
    EXPECT_EQ(60u, activePlay().m_nTimeout);
    EXPECT_EQ(1000000u + 60000u, activePlay().m_ullTimeoutTick);
    EXPECT_EQ(1, activePlay().m_bDone) << "flag 0: every end is reported";
    EXPECT_EQ(&m_services, activePlay().m_pcomplHandler);
    EXPECT_EQ(STREAM_ID, activePlay().m_nStreamID);
}

TEST_F(MediaStreamPlay, FlagMakesAnOrdinaryStep)
{
    respondNext();
    EXPECT_EQ(0, m_pStream->playAddFile(chars("/p/a.wav"), 0, 60, 5, 0, 0));
    EXPECT_EQ(0, activePlay().m_bDone);
}

TEST_F(MediaStreamPlay, BothSpellingsOfTheDefaultTimeoutMean300Seconds)
{
    for (const unsigned long ulTimeout : {0xFFFFFFFFUL, static_cast<unsigned long>(-1)})
    {
        respondNext();
        EXPECT_EQ(0, m_pStream->playAddFile(chars("/p/a.wav"), 0, ulTimeout, 0, 0, 0));
        EXPECT_EQ(1000000u + 300000u, activePlay().m_ullTimeoutTick);
        m_pmintf->remActiveCommand(STREAM_ID, -1, 1);
    }
}

TEST_F(MediaStreamPlay, PhraseIsSentWithTheDriversFileId)
{
    const unsigned long ulFileID = openPhraseFile(501);
    respondNext();
    EXPECT_EQ(0, m_pStream->playAddPhrase(ulFileID, 8000, 4000000000UL, 60, 1, 77));
    expectOperationLine(
        "CZelMediaStreamImpl::playAddPhrase (0x00001234), fid 1, offset 8000, len -294967296, timeout 60");
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(MICMD_PLAYCLIP, request.s_micmd);
    EXPECT_EQ(CONNECTION, request.nConnectID);
    EXPECT_EQ(STREAM_ID, request.playClip.nStreamID);
    EXPECT_EQ(501, request.playClip.nFileID);
    EXPECT_EQ(8000u, request.playClip.nOffset);
    EXPECT_EQ(4000000000u, request.playClip.nLength);
    EXPECT_EQ(77u, request.playClip.nPlayParam);
    EXPECT_EQ(60u, activePlay().m_nTimeout);
    EXPECT_EQ(0, activePlay().m_bDone);
    EXPECT_EQ(&m_services, activePlay().m_pcomplHandler);
    EXPECT_EQ(1000000u, m_pStream->m_ullPlayStartTick);
}

TEST_F(MediaStreamPlay, PhraseOfAnUnknownFileIs41AndNothingIsSent)
{
    EXPECT_EQ(MCS_UNKNOWNPHRASEFILE, m_pStream->playAddPhrase(9, 0, 1, 60, 0, 0));
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ((std::vector<CLogLine>{operationLine(
                  "CZelMediaStreamImpl::playAddPhrase (0x00001234), fid 9, offset 0, len 1, timeout 60")}),
              m_pLog->lines());
    EXPECT_EQ(0u, m_pStream->m_ullPlayStartTick);
}

TEST_F(MediaStreamPlay, PhraseOfAFileThatTheDriverRefusedIs41)
{
    unsigned long ulFileID = UNTOUCHED;
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_services.openPhraseFile(chars("/p/a.ul"), &ulFileID));
    takeRequests();
    EXPECT_EQ(MCS_UNKNOWNPHRASEFILE, m_pStream->playAddPhrase(ulFileID, 0, 1, 60, 0, 0));
    EXPECT_TRUE(takeRequests().empty());
}

TEST_F(MediaStreamPlay, SecondPlayWaitsInTheQueueAndSucceeds)
{
    play("/p/a.wav");
    takeRequests();
    play("/p/b.wav");
    EXPECT_TRUE(takeRequests().empty());
    ASSERT_EQ(1u, m_pmintf->m_mapCommandQueue.at(STREAM_ID)->size());
    EXPECT_STREQ("/p/b.wav", m_pmintf->m_mapCommandQueue.at(STREAM_ID)->front()->m_cmd.playFile.szFileName);
}

TEST_F(MediaStreamPlay, FailureOfTheTransportIsReturnedAndLeavesTheTimesAlone)
{
    m_pStream->m_ullPlayStartTick = 11;
    m_pStream->m_ullPlayElapsed = 22;
    const unsigned long ulFileID = openPhraseFile(501);
    const auto playBoth = [&](MCSTATUS mcstatus, const std::function<void()>& prepare) {
        prepare();
        EXPECT_EQ(mcstatus, m_pStream->playAddFile(chars("/p/a.wav"), 0, 60, 0, 0, 0));
        prepare();
        EXPECT_EQ(mcstatus, m_pStream->playAddPhrase(ulFileID, 0, 1, 60, 0, 0));
    };
    playBoth(
        MCS_REFUSED, [&] { respondNext(MIRSP_STATUS, MISTATUS_FAILED); });
    playBoth(MCS_NORESPONSE, [&] { respondLateOnly(); });
    close(m_nRequestReader);
    m_nRequestReader = -1;
    EXPECT_EQ(MCS_PIPEWRITE, m_pStream->playAddFile(chars("/p/a.wav"), 0, 60, 0, 0, 0));
    playBoth(MCS_NOTCONNECTED, [] {});
    EXPECT_EQ(11u, m_pStream->m_ullPlayStartTick);
    EXPECT_EQ(22u, m_pStream->m_ullPlayElapsed);
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
    EXPECT_EQ(0, commandsAlive());
}

TEST_F(MediaStreamPlay, CancelWithNothingPlayingSendsNothing)
{
    EXPECT_EQ(0, m_pStream->playCancel());
    EXPECT_EQ((std::vector<CLogLine>{operationLine("CZelMediaStreamImpl::playCancel (0x00001234)"), cancelLine(5)}),
              m_pLog->lines());
    EXPECT_TRUE(takeRequests().empty());
}

TEST_F(MediaStreamPlay, CancelOfAPlayIsOfTypeOneAndReturnsTheDriversStatus)
{
    play();
    takeRequests();
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_pStream->playCancel());
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(MICMD_CANCEL, request.s_micmd);
    EXPECT_EQ(STREAM_ID, request.cancel.nStreamID);
    EXPECT_EQ(1u, request.cancel.nCancelType);
}

TEST_F(MediaStreamPlay, CancelledFlagIsTheApplicationsOwn)
{
    int nCancelled = -7;
    expectOnlyLine("CZelMediaStreamImpl::playGetCancelled (0x00001234) 0", 0,
                   [&] { return m_pStream->playGetCancelled(&nCancelled); });
    EXPECT_EQ(0, nCancelled);
    expectOnlyLine(
        "CZelMediaStreamImpl::playSetCancelled (0x00001234) 42", 0, [&] { return m_pStream->playSetCancelled(42); });
    expectOnlyLine("CZelMediaStreamImpl::playGetCancelled (0x00001234) 42", 0,
                   [&] { return m_pStream->playGetCancelled(&nCancelled); });
    EXPECT_EQ(42, nCancelled);
    end(play());
    EXPECT_EQ(42, m_pStream->m_bPlayCancelled) << "the library never acts on it";
}

TEST_F(MediaStreamPlay, HollowOperationsTellOnlyThatTheStreamIsUsable)
{
    unsigned char abInfo[64];
    memset(abInfo, 0xA5, sizeof(abInfo));
    expectOnlyLine("CZelMediaStreamImpl::playGetInfo (0x00001234)", 0,
                   [&] { return m_pStream->playGetInfo(reinterpret_cast<_CHANNEL_PLAY_DATA*>(abInfo)); });
    for (const unsigned char ucByte : abInfo)
        EXPECT_EQ(0xA5, ucByte);
    expectOnlyLine(
        "CZelMediaStreamImpl::playGetInfo (0x00001234)", 0, [&] { return m_pStream->playGetInfo(nullptr); });
    expectOnlyLine("CZelMediaStreamImpl::playResetBuffers (0x00001234)", 0,
                   [&] { return m_pStream->playResetBuffers(); });
}

TEST_F(MediaStreamPlayTime, IsZeroBeforeAnyPlayAndOneInSeconds)
{
    expectOnlyLine("CZelMediaStreamImpl::playGetMilliSeconds (0x00001234)", 0,
                   [&] { return static_cast<int>(milliSeconds()); });
    unsigned long ulSeconds = UNTOUCHED;
    expectOnlyLine("CZelMediaStreamImpl::playGetSeconds (0x00001234)", 0,
                   [&] { return m_pStream->playGetSeconds(&ulSeconds); });
    EXPECT_EQ(1u, ulSeconds);
}

TEST_F(MediaStreamPlayTime, RunsFromTheAcceptedPlay)
{
    play();
    EXPECT_EQ(0u, milliSeconds());
    EXPECT_EQ(1u, seconds());
    seams::advanceTick(999);
    EXPECT_EQ(999u, milliSeconds());
    EXPECT_EQ(1u, seconds());
    seams::advanceTick(1);
    EXPECT_EQ(1000u, milliSeconds());
    EXPECT_EQ(2u, seconds()) << "one high on exact seconds";
    seams::advanceTick(4001);
    EXPECT_EQ(6u, seconds());
}

TEST_F(MediaStreamPlayTime, RestartsWithEveryAcceptedPlayTheQueuedOnesIncluded)
{
    const uint32_t nFirst = play();
    seams::advanceTick(700);
    const uint32_t nSecond = play();
    EXPECT_EQ(0u, milliSeconds());
    seams::advanceTick(300);
    respondNext();
    end(nFirst);
    EXPECT_EQ(300u, milliSeconds()) << "not frozen: the next play was waiting";
    seams::advanceTick(500);
    end(nSecond);
    EXPECT_EQ(800u, milliSeconds()) << "timed from the last one accepted";
}

TEST_F(MediaStreamPlayTime, FreezesWhenTheLastPlayEndsWell)
{
    const uint32_t nSequenceNo = play();
    seams::advanceTick(1234);
    end(nSequenceNo);
    seams::advanceTick(5000);
    EXPECT_EQ(1234u, milliSeconds());
    EXPECT_EQ(2u, seconds());
    EXPECT_EQ(0u, m_pStream->m_ullPlayStartTick);
}

TEST_F(MediaStreamPlayTime, FreezesWhenAPlayIsCancelled)
{
    const uint32_t nSequenceNo = play();
    seams::advanceTick(250);
    end(nSequenceNo, MCS_CANCELLED);
    seams::advanceTick(5000);
    EXPECT_EQ(250u, milliSeconds());
}

TEST_F(MediaStreamPlayTime, RunsOnWhenAPlayEndsWithAnotherStatus)
{
    const uint32_t nSequenceNo = play();
    seams::advanceTick(250);
    end(nSequenceNo, 17);
    seams::advanceTick(1000);
    EXPECT_EQ(1250u, milliSeconds());
}

TEST_F(MediaStreamPlayTime, KeepsTheLastCompletedPlayWhileANewerOneRuns)
{
    const uint32_t nFirst = play();
    seams::advanceTick(1500);
    end(nFirst);
    const uint32_t nSecond = play();
    seams::advanceTick(9000);
    EXPECT_EQ(1500u, milliSeconds());
    EXPECT_EQ(2u, seconds());
    end(nSecond);
    EXPECT_EQ(9000u, milliSeconds());
}

TEST_F(MediaStreamPlayTime, IsGivenWithItsLow32BitsInTheWholeOfTheResult)
{
    m_pStream->m_ullPlayElapsed = 0x100000005ULL;
    EXPECT_EQ(5u, milliSeconds());
    EXPECT_EQ(1u, seconds());
    m_pStream->m_ullPlayElapsed = 0;
    m_pStream->m_ullPlayStartTick = 1000;
    seams::freezeTick(1000 + 0x200000007ULL);
    EXPECT_EQ(7u, milliSeconds());
}

TEST_F(MediaStreamPlayTime, QueriesAskTheDriverNothing)
{
    milliSeconds();
    seconds();
    EXPECT_TRUE(takeRequests().empty());
}
