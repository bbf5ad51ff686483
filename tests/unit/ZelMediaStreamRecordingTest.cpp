// A stream's recordings: plain, behind a prompt, their queries and their cancel.
#include "MediaStreamFixture.h"

#include <cstring>

class MediaStreamRecord : public CMediaStreamTest
{
protected:
    MediaStreamRecord()
    {
        seams::freezeTick(1000000);
        open();
    }

    int record(unsigned long ulMaxSeconds = 30, unsigned long ulTimeout = 60, int nFlag = 0)
    {
        return m_pStream->recordToFile(chars("/r/a.wav"), 5, ulMaxSeconds, ulTimeout, nFlag);
    }

    int recordBehindPrompt(unsigned long ulFileID, int nFlag = 0)
    {
        return m_pStream->recordToFileWithPromptPhrase(ulFileID, 100, 200, chars("/r/a.wav"), 5, 30, 60, nFlag);
    }

    // Acts when a line is written; the line itself is kept as ever.
    void onLine(const char* pszPart, std::function<void()> action)
    {
        m_services.setLogger(new CHookedCapture(
                                 m_pLog,
                                 [pszPart, action](const std::string& strText) {
                                     if (contains(strText, pszPart))
                                         action();
                                 }),
                             nullptr);
    }
};

class MediaStreamRecordQuery : public MediaStreamRecord
{
};

TEST_F(MediaStreamRecord, FileIsSentWithStreamNameAndSamples)
{
    respondNext();
    EXPECT_EQ(0, m_pStream->recordToFile(chars("/r/a.wav"), 5, 30, 60000, 1));
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(MICMD_RECORDFILE, request.s_micmd);
    EXPECT_EQ(CONNECTION, request.nConnectID);
    EXPECT_EQ(STREAM_ID, request.recordFile.nStreamID);
    EXPECT_STREQ("/r/a.wav", request.recordFile.szFileName);
    EXPECT_EQ(240000u, request.recordFile.nMaxSamples);
    EXPECT_EQ(60000u, activeRecord().m_nTimeout);
    EXPECT_EQ(1000000u + 60000000u, activeRecord().m_ullTimeoutTick);
    EXPECT_EQ(&m_services, activeRecord().m_pcomplHandler);
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
}

TEST_F(MediaStreamRecord, LineShowsTheSecondsUnderTheLabelTimeout)
{
    respondNext();
    m_pStream->recordToFile(chars("/r/a.wav"), 5, 30, 60000, 1);
    expectOperationLine("CZelMediaStreamImpl::recordToFile (0x00001234), fname /r/a.wav, rlen 5, timeout 30");
}

TEST_F(MediaStreamRecord, SamplesWrapIn32Bits)
{
    for (const unsigned long ulMaxSeconds : {600000UL, static_cast<unsigned long>(0x1000927C0ULL)})
    {
        respondNext();
        EXPECT_EQ(0, record(ulMaxSeconds));
        EXPECT_EQ(505032704u, takeOnlyRequest().recordFile.nMaxSamples);
        m_pmintf->remActiveCommand(STREAM_ID, -1, 1);
    }
}

TEST_F(MediaStreamRecord, LongFileNameIsCutTo255CharactersAndTerminated)
{
    respondNext();
    EXPECT_EQ(0, m_pStream->recordToFile(chars(std::string(300, 'f').c_str()), 0, 1, 60, 0));
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(std::string(255, 'f'), request.recordFile.szFileName);
    EXPECT_EQ(0, reinterpret_cast<const char*>(&request)[271]);
}

TEST_F(MediaStreamRecord, BothSpellingsOfTheDefaultTimeoutMean300Seconds)
{
    for (const unsigned long ulTimeout : {0xFFFFFFFFUL, static_cast<unsigned long>(-1)})
    {
        respondNext();
        EXPECT_EQ(0, record(30, ulTimeout));
        EXPECT_EQ(1000000u + 300000u, activeRecord().m_ullTimeoutTick);
        m_pmintf->remActiveCommand(STREAM_ID, -1, 1);
    }
}

TEST_F(MediaStreamRecord, AcceptedRecordIsMarkedAsTheFinalCommand)
{
    respondNext();
    EXPECT_EQ(0, record(30, 60, 1));
    EXPECT_EQ(setDoneLine(5), m_pLog->lines().back());
    EXPECT_EQ(1, activeRecord().m_bDone) << "setDone undoes the flag";
    EXPECT_TRUE(takeEvents().empty());
}

TEST_F(MediaStreamRecord, SecondRecordWaitsBehindTheFirst)
{
    respondNext();
    EXPECT_EQ(0, record());
    takeRequests();
    EXPECT_EQ(0, record(30, 60, 1));
    EXPECT_TRUE(takeRequests().empty());
    ASSERT_EQ(1u, m_pmintf->m_mapCommandQueueRecord.at(STREAM_ID)->size());
    EXPECT_EQ(1, m_pmintf->m_mapCommandQueueRecord.at(STREAM_ID)->back()->m_bDone);
}

TEST_F(MediaStreamRecord, RejectedRecordIsFollowedByARecordCancel)
{
    play();
    takeRequests();
    m_pLog->clear();
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    respondNext(MIRSP_STATUS, MISTATUS_OK, 1);
    EXPECT_EQ(MCS_REFUSED, record()) << "the record's own status";
    const auto vRequests = takeRequests();
    ASSERT_EQ(2u, vRequests.size());
    EXPECT_EQ(MICMD_RECORDFILE, vRequests[0].s_micmd);
    EXPECT_EQ(MICMD_CANCEL, vRequests[1].s_micmd);
    EXPECT_EQ(STREAM_ID, vRequests[1].cancel.nStreamID);
    EXPECT_EQ(2u, vRequests[1].cancel.nCancelType);
    EXPECT_EQ(0u, m_pLog->count("CMIntf::setDone"));
    EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
}

TEST_F(MediaStreamRecord, RejectedRecordWithoutAPlayAsksTheDriverForNoCancel)
{
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, record());
    EXPECT_EQ(MICMD_RECORDFILE, takeOnlyRequest().s_micmd);
    EXPECT_EQ(cancelLine(5), m_pLog->lines().back());
}

TEST_F(MediaStreamRecord, FailuresOfTheTransportAreReturned)
{
    const unsigned long ulFileID = openPhraseFile(501);
    respondLateOnly();
    EXPECT_EQ(MCS_NORESPONSE, record());
    respondLateOnly();
    EXPECT_EQ(MCS_NORESPONSE, recordBehindPrompt(ulFileID));
    disconnect();
    EXPECT_EQ(MCS_NOTCONNECTED, record());
    EXPECT_EQ(MCS_NOTCONNECTED, recordBehindPrompt(ulFileID));
    EXPECT_EQ(0, commandsAlive());
}

TEST_F(MediaStreamRecord, PromptIsSentAndTheRecordQueuedBehindIt)
{
    const unsigned long ulFileID = openPhraseFile(501);
    respondNext();
    EXPECT_EQ(0, recordBehindPrompt(ulFileID));
    expectOperationLine(" calling recordToFile: CZelMediaStreamImpl::recordToFileWithPromptPhrase (0x00001234), fid 1, "
                        "offset 100, plen 200, fname /r/a.wav, rlen 5, timeout 30");
    const structMICMD prompt = takeOnlyRequest();
    EXPECT_EQ(MICMD_PLAYCLIP, prompt.s_micmd);
    EXPECT_EQ(CONNECTION, prompt.nConnectID);
    EXPECT_EQ(STREAM_ID, prompt.playClip.nStreamID);
    EXPECT_EQ(501, prompt.playClip.nFileID);
    EXPECT_EQ(100u, prompt.playClip.nOffset);
    EXPECT_EQ(200u, prompt.playClip.nLength);
    EXPECT_EQ(0u, prompt.playClip.nPlayParam);

    ASSERT_EQ(1u, m_pmintf->m_mapCommandQueue.at(STREAM_ID)->size());
    const CMIntf::CCommand& record = *m_pmintf->m_mapCommandQueue.at(STREAM_ID)->front();
    EXPECT_EQ(MICMD_RECORDFILE, record.m_cmd.s_micmd);
    EXPECT_EQ(CONNECTION, record.m_cmd.nConnectID);
    EXPECT_EQ(STREAM_ID, record.m_cmd.recordFile.nStreamID);
    EXPECT_STREQ("/r/a.wav", record.m_cmd.recordFile.szFileName);
    EXPECT_EQ(240000u, record.m_cmd.recordFile.nMaxSamples);
    EXPECT_TRUE(m_pmintf->m_mapCommandQueueRecord.empty());
}

TEST_F(MediaStreamRecord, PromptAndRecordShareTimeoutHandlerAndFinalMark)
{
    const unsigned long ulFileID = openPhraseFile(501);
    respondNext();
    EXPECT_EQ(0, recordBehindPrompt(ulFileID, 1));
    const CMIntf::CCommand& record = *m_pmintf->m_mapCommandQueue.at(STREAM_ID)->front();
    for (const CMIntf::CCommand* const pcommand : {&activePlay(), &record})
    {
        EXPECT_EQ(60u, pcommand->m_nTimeout);
        EXPECT_EQ(&m_services, pcommand->m_pcomplHandler);
        EXPECT_EQ(1, pcommand->m_bDone) << "setDone marks the running prompt and the last one queued";
    }
}

TEST_F(MediaStreamRecord, RecordBehindAPromptIsReportedWhenItEnds)
{
    const unsigned long ulFileID = openPhraseFile(501);
    const uint32_t nPrompt = m_pmintf->m_nNextSequenceNo;
    respondNext();
    EXPECT_EQ(0, recordBehindPrompt(ulFileID));
    takeRequests();
    respondNext();
    end(nPrompt);
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(MICMD_RECORDFILE, request.s_micmd);
    EXPECT_EQ(240000u, request.recordFile.nMaxSamples);
    end(request.nSequenceNo);
    EXPECT_EQ((std::vector<CCompletion>{{publicStream(), 0, CZelMediaStreamCompletionHandler::MCCR_PLAY},
                                        {publicStream(), 0, CZelMediaStreamCompletionHandler::MCCR_RECORD}}),
              m_completions.all());
}

TEST_F(MediaStreamRecord, UnknownPromptPhraseIs41AndNothingIsSent)
{
    EXPECT_EQ(MCS_UNKNOWNPHRASEFILE, recordBehindPrompt(9));
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ((std::vector<CLogLine>{operationLine(
                  " calling recordToFile: CZelMediaStreamImpl::recordToFileWithPromptPhrase (0x00001234), fid 9, "
                  "offset 100, plen 200, fname /r/a.wav, rlen 5, timeout 30")}),
              m_pLog->lines());
}

TEST_F(MediaStreamRecord, RefusedPromptStartsNoRecordAndCancelsNothing)
{
    const unsigned long ulFileID = openPhraseFile(501);
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, recordBehindPrompt(ulFileID));
    EXPECT_EQ(MICMD_PLAYCLIP, takeOnlyRequest().s_micmd);
    EXPECT_EQ(0u, m_pLog->count("CMIntf::cancel"));
    EXPECT_EQ(0u, m_pLog->count("MICMD_RECORDFILE"));
    EXPECT_EQ(0u, m_pLog->count("CMIntf::setDone"));
    EXPECT_EQ(0, commandsAlive());
}

TEST_F(MediaStreamRecord, FailedRecordBehindAPromptCancelsTheRecordSideAndThePromptPlaysOn)
{
    const unsigned long ulFileID = openPhraseFile(501);
    // The connection is away just while the record is handed over.
    onLine("cmd MICMD_RECORDFILE", [this] { m_pmintf->m_nConnectID = -1; });
    respondNext();
    const uint32_t nPrompt = m_pmintf->m_nNextSequenceNo;
    EXPECT_EQ(MCS_NOTCONNECTED, recordBehindPrompt(ulFileID));
    EXPECT_TRUE(m_pLog->has(cancelLine(5)));
    EXPECT_EQ(1u, m_pLog->count("cmd MICMD_CANCEL")) << "tried, and there is no connection for it either";
    EXPECT_EQ(0u, m_pLog->count("CMIntf::setDone"));
    EXPECT_EQ(nPrompt, activePlay().m_cmd.nSequenceNo);
}

TEST_F(MediaStreamRecord, CancelAfterAFailedRecordBehindAPromptIsOfTypeTwo)
{
    const unsigned long ulFileID = openPhraseFile(501);
    const uint32_t nPrompt = m_pmintf->m_nNextSequenceNo;
    onLine("CMIntf::", [this] {
        const std::string strLine = m_pLog->lines().back().strText;
        if (contains(strLine, "cmd MICMD_RECORDFILE"))
            m_pmintf->m_nConnectID = -1;
        else if (contains(strLine, "CMIntf::cancel"))
            m_pmintf->m_nConnectID = CONNECTION;
    });
    respondNext();
    respondNext(MIRSP_STATUS, MISTATUS_OK, 1);
    EXPECT_EQ(MCS_NOTCONNECTED, recordBehindPrompt(ulFileID));
    const auto vRequests = takeRequests();
    ASSERT_EQ(2u, vRequests.size());
    EXPECT_EQ(MICMD_PLAYCLIP, vRequests[0].s_micmd);
    EXPECT_EQ(MICMD_CANCEL, vRequests[1].s_micmd);
    EXPECT_EQ(2u, vRequests[1].cancel.nCancelType);
    EXPECT_EQ(nPrompt, activePlay().m_cmd.nSequenceNo);
}

TEST_F(MediaStreamRecord, RecordWhosePromptHasEndedMeanwhileIsSentAtOnceOnThePlaySide)
{
    const unsigned long ulFileID = openPhraseFile(501);
    const uint32_t nPrompt = m_pmintf->m_nNextSequenceNo;
    onLine("cmd MICMD_RECORDFILE", [this, nPrompt] {
        if (m_pmintf->m_mapActiveCommandByStreamIDPlay.count(STREAM_ID))
            end(nPrompt);
    });
    respondNext();
    respondNext(MIRSP_STATUS, MISTATUS_OK, 1);
    EXPECT_EQ(0, recordBehindPrompt(ulFileID));
    EXPECT_EQ(2u, takeRequests().size());
    EXPECT_EQ(MICMD_RECORDFILE, activePlay().m_cmd.s_micmd);
    EXPECT_EQ(1, activePlay().m_bDone);
}

TEST_F(MediaStreamRecord, CancelIsOfTypeTwoForTheRecordBehindAPrompt)
{
    const unsigned long ulFileID = openPhraseFile(501);
    respondNext();
    EXPECT_EQ(0, recordBehindPrompt(ulFileID));
    takeRequests();
    m_pLog->clear();
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_pStream->recordCancel());
    expectOperationLine("CZelMediaStreamImpl::recordCancel (0x00001234)");
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(MICMD_CANCEL, request.s_micmd);
    EXPECT_EQ(STREAM_ID, request.cancel.nStreamID);
    EXPECT_EQ(2u, request.cancel.nCancelType);
    EXPECT_TRUE(m_pmintf->m_mapCommandQueue.empty()) << "the record that waited is dropped";
}

TEST_F(MediaStreamRecord, CancelLeavesAPlainRecordAlone)
{
    respondNext();
    EXPECT_EQ(0, record());
    takeRequests();
    EXPECT_EQ(0, m_pStream->recordCancel());
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(MICMD_RECORDFILE, activeRecord().m_cmd.s_micmd);
}

TEST_F(MediaStreamRecord, SilenceParametersAndInfoTellOnlyThatTheStreamIsUsable)
{
    expectOnlyLine("CZelMediaStreamImpl::recordSetSilenceParameters (0x00001234), limitms 300, ulawlimit 10, "
                   "dwlimitms 5000",
                   0, [&] { return m_pStream->recordSetSilenceParameters(300, 10, 5000); });
    unsigned char abInfo[64];
    memset(abInfo, 0xA5, sizeof(abInfo));
    expectOnlyLine("CZelMediaStreamImpl::recordGetInfo (0x00001234)", 0,
                   [&] { return m_pStream->recordGetInfo(reinterpret_cast<_CHANNEL_RECORD_DATA*>(abInfo)); });
    for (const unsigned char ucByte : abInfo)
        EXPECT_EQ(0xA5, ucByte);
    expectOnlyLine("CZelMediaStreamImpl::recordGetInfo (0x00001234)", 0,
                   [&] { return m_pStream->recordGetInfo(nullptr); });
}

TEST_F(MediaStreamRecord, BufferRecordIsNotSupportedInAnyStateAndLeavesNoLine)
{
    unsigned char abBuffer[4] = {};
    CZelMediaStreamImpl fresh;
    for (CZelMediaStreamImpl* const pStream : {m_pStream.get(), &fresh})
    {
        EXPECT_EQ(MCS_NOTSUPPORTED, pStream->recordToBuffer(abBuffer, sizeof(abBuffer), 60, 0));
        EXPECT_EQ(MCS_NOTSUPPORTED,
                  pStream->recordToBufferWithPromptPhrase(1, 0, 1, abBuffer, sizeof(abBuffer), 60, 0));
    }
    EXPECT_EQ(std::vector<CLogLine>(), m_pLog->lines());
    EXPECT_TRUE(takeRequests().empty());
}

TEST_F(MediaStreamRecord, UninitialisedStreamLogsEachRecordOperationAndReturns48)
{
    CZelMediaStreamImpl stream;
    unsigned long ul = UNTOUCHED;
    const auto expect = [&](const char* pszLine, const std::function<int()>& operation) {
        expectOnlyLine(pszLine, MCS_NOTINITIALIZED, operation);
    };

    expect(
        "CZelMediaStreamImpl::recordToFile (0x00000000), fname /r/a.wav, rlen 5, timeout 30",
        [&] { return stream.recordToFile(chars("/r/a.wav"), 5, 30, 60, 0); });
    expect(
        " calling recordToFile: CZelMediaStreamImpl::recordToFileWithPromptPhrase (0x00000000), fid 1, offset 2, "
        "plen 3, fname /r/a.wav, rlen 5, timeout 30",
        [&] { return stream.recordToFileWithPromptPhrase(1, 2, 3, chars("/r/a.wav"), 5, 30, 60, 0); });
    expect(
        "CZelMediaStreamImpl::recordGetTimeMilliseconds (0x00000000)",
        [&] { return stream.recordGetTimeMilliseconds(&ul); });
    expect(
        "CZelMediaStreamImpl::recordGetStatus (0x00000000)", [&] { return stream.recordGetStatus(); });
    expect(
        "CZelMediaStreamImpl::recordCancel (0x00000000)", [&] { return stream.recordCancel(); });
    expect(
        "CZelMediaStreamImpl::recordSetSilenceParameters (0x00000000), limitms 1, ulawlimit 2, dwlimitms -1",
        [&] { return stream.recordSetSilenceParameters(1, 2, 0xFFFFFFFFUL); });
    expect("CZelMediaStreamImpl::recordGetInfo (0x00000000)", [&] { return stream.recordGetInfo(nullptr); });
    EXPECT_EQ(UNTOUCHED, ul);
}

TEST_F(MediaStreamRecordQuery, TimeIsTheDriversAnswer)
{
    unsigned long ulMs = UNTOUCHED;
    respondNext(MIRSP_RECORDGETTIME, 4321);
    EXPECT_EQ(0, m_pStream->recordGetTimeMilliseconds(&ulMs));
    EXPECT_EQ(4321u, ulMs) << "all of it, also where unsigned long has 64 bits";
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(MICMD_RECORDGETTIME, request.s_micmd);
    EXPECT_EQ(CONNECTION, request.nConnectID);
    EXPECT_EQ(STREAM_ID, request.stream.nStreamID);
    const std::vector<CLogLine> vLines = m_pLog->lines();
    EXPECT_EQ(operationLine("CZelMediaStreamImpl::recordGetTimeMilliseconds (0x00001234)"), vLines.front());
    EXPECT_EQ(operationLine("CZelMediaStreamImpl::recordGetTimeMilliseconds result = (4321)"), vLines.back());
    EXPECT_EQ(0, commandsAlive());
}

TEST_F(MediaStreamRecordQuery, TimeIsZeroWhenTheQueryFails)
{
    unsigned long ulMs = UNTOUCHED;
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_pStream->recordGetTimeMilliseconds(&ulMs));
    EXPECT_EQ(0u, ulMs);
    EXPECT_EQ(operationLine("CZelMediaStreamImpl::recordGetTimeMilliseconds result = (0)"), m_pLog->lines().back());
    disconnect();
    ulMs = UNTOUCHED;
    EXPECT_EQ(MCS_NOTCONNECTED, m_pStream->recordGetTimeMilliseconds(&ulMs));
    EXPECT_EQ(0u, ulMs);
}

TEST_F(MediaStreamRecordQuery, StatusIsTheDriversRecordStatus)
{
    respondNext(MIRSP_RECORDGETSTATUS, 34);
    EXPECT_EQ(34, m_pStream->recordGetStatus()) << "as it came, whatever it looks like";
    const structMICMD request = takeOnlyRequest();
    EXPECT_EQ(MICMD_RECORDGETSTATUS, request.s_micmd);
    EXPECT_EQ(CONNECTION, request.nConnectID);
    EXPECT_EQ(STREAM_ID, request.stream.nStreamID);
    const std::vector<CLogLine> vLines = m_pLog->lines();
    EXPECT_EQ(operationLine("CZelMediaStreamImpl::recordGetStatus (0x00001234)"), vLines.front());
    EXPECT_EQ(operationLine("CZelMediaStreamImpl::recordGetStatus result = (34)"), vLines.back());
    respondNext(MIRSP_RECORDGETSTATUS, -5);
    EXPECT_EQ(-5, m_pStream->recordGetStatus());
    EXPECT_EQ(operationLine("CZelMediaStreamImpl::recordGetStatus result = (-5)"), m_pLog->lines().back());
}

TEST_F(MediaStreamRecordQuery, StatusIsTheFailureWhenTheQueryFails)
{
    respondLateOnly();
    EXPECT_EQ(MCS_NORESPONSE, m_pStream->recordGetStatus());
    EXPECT_EQ(operationLine("CZelMediaStreamImpl::recordGetStatus result = (16)"), m_pLog->lines().back());
    disconnect();
    EXPECT_EQ(MCS_NOTCONNECTED, m_pStream->recordGetStatus());
}

TEST_F(MediaStreamRecordQuery, QueriesGoPastTheQueueOfTheStream)
{
    play();
    takeRequests();
    respondNext(MIRSP_RECORDGETSTATUS, 1);
    EXPECT_EQ(1, m_pStream->recordGetStatus());
    EXPECT_EQ(MICMD_RECORDGETSTATUS, takeOnlyRequest().s_micmd);
    EXPECT_EQ(1, commandsAlive());
}
