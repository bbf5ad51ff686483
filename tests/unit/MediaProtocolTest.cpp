// The records byte for byte as the library sends and reads them.
#include "MIntfFixture.h"
#include "ZelMediaServicesImpl.h"
#include "ZelMediaStreamImpl.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
typedef std::vector<unsigned char> CBytes;

// A record written down by hand: little-endian words and texts at their offsets, 0 elsewhere.
class CGolden
{
public:
    explicit CGolden(size_t nSize) : m_vBytes(nSize) {}

    CGolden& word(size_t nOffset, uint32_t nValue)
    {
        for (size_t n = 0; n < 4; ++n)
            m_vBytes.at(nOffset + n) = static_cast<unsigned char>(nValue >> (8 * n));
        return *this;
    }

    CGolden& text(size_t nOffset, const std::string& strText)
    {
        for (size_t n = 0; n < strText.size(); ++n)
            m_vBytes.at(nOffset + n) = static_cast<unsigned char>(strText[n]);
        return *this;
    }

    operator CBytes() const { return m_vBytes; }

private:
    CBytes m_vBytes;
};

// A request's head: command code, the fixture's connection id, sequence number.
CGolden request(uint32_t nCommand, uint32_t nSequenceNo, uint32_t nConnectID = 77)
{
    return CGolden(280).word(0, nCommand).word(4, nConnectID).word(8, nSequenceNo);
}

template <class RECORD> CBytes bytesOf(const RECORD& record)
{
    CBytes vBytes(sizeof(record));
    memcpy(vBytes.data(), &record, sizeof(record));
    return vBytes;
}

// A name of that length in which every place can be told from its neighbours.
std::string longName(size_t nLength)
{
    std::string strName = "/";
    while (strName.size() < nLength)
        strName += static_cast<char>('a' + strName.size() % 26);
    return strName;
}
} // namespace

class MediaProtocol : public CMIntfTest
{
protected:
    void TearDown() override
    {
        disconnect(); // so that closing the stream waits for no response
        m_pStream.reset();
        m_pServices.reset();
        for (const auto& entry : m_pmintf->m_mapClipFileByID)
            delete entry.second;
    }

    // A stream that the driver calls 31, through the response that opens it; uses up number 1.
    CZelMediaStreamImpl& openStream()
    {
        m_pServices = std::make_unique<CZelMediaServicesImpl>(nullptr);
        m_pStream = std::make_unique<CZelMediaStreamImpl>();
        respondNext(MIRSP_OPENSTREAM, 31);
        EXPECT_EQ(MCS_OK, m_pStream->initialize(m_pServices.get(), nullptr, std::string("call"), 7));
        takeRequests();
        return *m_pStream;
    }

    // A phrase file with library id 1 that the driver calls 501; uses up one number.
    void openPhraseFile()
    {
        int nFileID = -1;
        char szName[] = "/p.ul";
        respondNext(MIRSP_OPENFILE, 501);
        EXPECT_EQ(MCS_OK, m_pmintf->openFile(szName, &nFileID));
        EXPECT_EQ(1, nFileID);
        takeRequests();
    }

    CBytes takeRequestBytes()
    {
        const std::vector<structMICMD> vRequests = takeRequests();
        EXPECT_EQ(1u, vRequests.size());
        return vRequests.empty() ? CBytes() : bytesOf(vRequests.front());
    }

    void respondBytes(const CBytes& vBytes)
    {
        ASSERT_EQ(48u, vBytes.size());
        ASSERT_EQ(48, write(m_pmintf->m_npipeRsp, vBytes.data(), vBytes.size()));
    }

    // A response whose unread part is not empty.
    static CGolden response(uint32_t nResponse, uint32_t nSequenceNo, uint32_t nResult)
    {
        return CGolden(48).word(0, nResponse).word(4, nSequenceNo).word(8, nResult).text(12, std::string(36, '\xEE'));
    }

    std::unique_ptr<CZelMediaServicesImpl> m_pServices;
    std::unique_ptr<CZelMediaStreamImpl> m_pStream;
};

TEST_F(MediaProtocol, ConnectCarriesBothPipeNames)
{
    disconnect();
    ASSERT_EQ(0, mkfifo("/tmp/OrvMediaIntf-Req", 0600));
    const int nReader = open("/tmp/OrvMediaIntf-Req", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    respondNext(MIRSP_CONNECT, 42);
    m_pmintf->idlePass();

    structMICMD record;
    ASSERT_EQ(280, read(nReader, &record, sizeof(record)));
    const std::string strProcessID = std::to_string(getpid());
    EXPECT_EQ(CBytes(request(1, 1, 0)
                         .text(12, "/tmp/OrvMediaIntf-Rsp-p" + strProcessID)
                         .text(44, "/tmp/OrvMediaIntf-Evt-p" + strProcessID)),
              bytesOf(record));
    EXPECT_EQ(-1, read(nReader, &record, sizeof(record)));
    EXPECT_EQ(42, m_pmintf->m_nConnectID);
    close(nReader);
    unlink("/tmp/OrvMediaIntf-Req");
}

TEST_F(MediaProtocol, DisconnectIsAHeadAlone)
{
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->finalize());
    EXPECT_EQ(CBytes(request(2, 1)), takeRequestBytes());
}

TEST_F(MediaProtocol, PingIsAHeadAlone)
{
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->ping());
    EXPECT_EQ(CBytes(request(13, 1)), takeRequestBytes());
}

TEST_F(MediaProtocol, DumpIsAHeadAlone)
{
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->dump());
    EXPECT_EQ(CBytes(request(14, 1)), takeRequestBytes());
}

TEST_F(MediaProtocol, OpenFileCarriesTheName)
{
    int nFileID = -1;
    char szName[] = "/var/prompts/a.ul";
    respondNext(MIRSP_OPENFILE, 501);
    EXPECT_EQ(MCS_OK, m_pmintf->openFile(szName, &nFileID));
    EXPECT_EQ(CBytes(request(3, 1).text(12, "/var/prompts/a.ul")), takeRequestBytes());
}

TEST_F(MediaProtocol, CloseFileCarriesTheDriversFileID)
{
    openPhraseFile();
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->closeFile(1));
    EXPECT_EQ(CBytes(request(4, 2).word(12, 501)), takeRequestBytes());
}

TEST_F(MediaProtocol, OpenStreamCarriesCallIDAndLeg)
{
    int nStreamID = -1;
    char szCallID[] = "call-17";
    respondNext(MIRSP_OPENSTREAM, 31);
    EXPECT_EQ(MCS_OK, m_pmintf->openStream(nullptr, &nStreamID, szCallID, 0x89ABCDEF));
    EXPECT_EQ(CBytes(request(5, 1).text(12, "call-17").word(44, 0x89ABCDEF)), takeRequestBytes());
}

TEST_F(MediaProtocol, CloseStreamCarriesTheStreamID)
{
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->closeStream(31));
    EXPECT_EQ(CBytes(request(6, 1).word(12, 31)), takeRequestBytes());
}

TEST_F(MediaProtocol, PlayClipCarriesTheMappedFileAndTheCallersNumbers)
{
    openPhraseFile();
    CZelMediaStreamImpl& stream = openStream();
    respondNext();
    EXPECT_EQ(MCS_OK, stream.playAddPhrase(1, 0x01020304, 0xF1F2F3F4, 60, 0, 0xA1A2A3A4));
    EXPECT_EQ(
        CBytes(request(7, 3).word(12, 31).word(16, 501).word(20, 0x01020304).word(24, 0xF1F2F3F4).word(28, 0xA1A2A3A4)),
        takeRequestBytes());
}

TEST_F(MediaProtocol, PlayFileStartsInSamplesOfMilliseconds)
{
    CZelMediaStreamImpl& stream = openStream();
    char szName[] = "/g.wav";
    respondNext();
    EXPECT_EQ(MCS_OK, stream.playAddFile(szName, 3, 60, 0, 1, 0xA1A2A3A4));
    EXPECT_EQ(CBytes(request(8, 2).word(12, 31).text(16, "/g.wav").word(272, 24).word(276, 0xA1A2A3A4)),
              takeRequestBytes());
}

TEST_F(MediaProtocol, PlayFileStartsInSamplesOfSeconds)
{
    CZelMediaStreamImpl& stream = openStream();
    char szName[] = "/g.wav";
    respondNext();
    EXPECT_EQ(MCS_OK, stream.playAddFile(szName, 3, 60, 0, 0, 0));
    EXPECT_EQ(CBytes(request(8, 2).word(12, 31).text(16, "/g.wav").word(272, 24000)), takeRequestBytes());
}

TEST_F(MediaProtocol, RecordFileCarriesItsLimitInSamples)
{
    CZelMediaStreamImpl& stream = openStream();
    char szName[] = "/r.wav";
    respondNext();
    EXPECT_EQ(MCS_OK, stream.recordToFile(szName, 0, 5, 60, 0));
    EXPECT_EQ(CBytes(request(9, 2).word(12, 31).text(16, "/r.wav").word(272, 40000)), takeRequestBytes());
}

TEST_F(MediaProtocol, PromptedRecordingSendsClipThenRecord)
{
    openPhraseFile();
    CZelMediaStreamImpl& stream = openStream();
    char szName[] = "/r.wav";
    respondNext();
    EXPECT_EQ(MCS_OK, stream.recordToFileWithPromptPhrase(1, 800, 1600, szName, 0, 2, 60, 0));
    EXPECT_EQ(CBytes(request(7, 3).word(12, 31).word(16, 501).word(20, 800).word(24, 1600)), takeRequestBytes());

    structMIEVT evt;
    const CBytes vDone = CGolden(16).word(0, 1).word(4, 31).word(8, 3);
    memcpy(&evt, vDone.data(), sizeof(evt));
    respondNext();
    m_pmintf->doneEventPass(evt);
    EXPECT_EQ(CBytes(request(9, 4).word(12, 31).text(16, "/r.wav").word(272, 16000)), takeRequestBytes());
}

TEST_F(MediaProtocol, CancelOfAPlayIsOfTypeOne)
{
    CZelMediaStreamImpl& stream = openStream();
    sendCommand(31);
    takeRequests();
    respondNext();
    EXPECT_EQ(MCS_OK, stream.playCancel());
    EXPECT_EQ(CBytes(request(10, 3).word(12, 31).word(16, 1)), takeRequestBytes());
}

TEST_F(MediaProtocol, CancelOfARecordingIsOfTypeTwo)
{
    CZelMediaStreamImpl& stream = openStream();
    sendCommand(31);
    takeRequests();
    respondNext();
    EXPECT_EQ(MCS_OK, stream.recordCancel());
    EXPECT_EQ(CBytes(request(10, 3).word(12, 31).word(16, 2)), takeRequestBytes());
}

TEST_F(MediaProtocol, RecordQueriesCarryTheStreamID)
{
    CZelMediaStreamImpl& stream = openStream();
    unsigned long ulMilliSeconds = 0;
    respondNext(MIRSP_RECORDGETTIME, 1);
    EXPECT_EQ(MCS_OK, stream.recordGetTimeMilliseconds(&ulMilliSeconds));
    EXPECT_EQ(CBytes(request(15, 2).word(12, 31)), takeRequestBytes());
    respondNext(MIRSP_RECORDGETSTATUS, 1);
    EXPECT_EQ(1, stream.recordGetStatus());
    EXPECT_EQ(CBytes(request(16, 3).word(12, 31)), takeRequestBytes());
}

TEST_F(MediaProtocol, FileNamesOf255BytesTravelWholeAndLongerOnesEndInANul)
{
    CZelMediaStreamImpl& stream = openStream();
    uint32_t nSequenceNo = 2;
    int nStream = 31;
    for (const size_t nLength : {size_t(255), size_t(256), size_t(1000)})
    {
        std::string strName = longName(nLength);
        const std::string strKept = strName.substr(0, 255);
        int nFileID = -1;
        respondNext(MIRSP_OPENFILE, 1);
        EXPECT_EQ(MCS_OK, m_pmintf->openFile(strName.data(), &nFileID));
        EXPECT_EQ(CBytes(request(3, nSequenceNo++).text(12, strKept).word(268, 0)), takeRequestBytes());

        stream.m_nStreamID = nStream++; // each time one without active commands
        const uint32_t nID = static_cast<uint32_t>(stream.m_nStreamID);
        respondNext();
        EXPECT_EQ(MCS_OK, stream.playAddFile(strName.data(), 1, 60, 0, 1, 5));
        EXPECT_EQ(CBytes(request(8, nSequenceNo++).word(12, nID).text(16, strKept).word(272, 8).word(276, 5)),
                  takeRequestBytes());
        respondNext();
        EXPECT_EQ(MCS_OK, stream.recordToFile(strName.data(), 0, 1, 60, 0));
        EXPECT_EQ(CBytes(request(9, nSequenceNo++).word(12, nID).text(16, strKept).word(272, 8000)),
                  takeRequestBytes());
    }
}

TEST_F(MediaProtocol, CallIDsOf31BytesTravelWholeAndLongerOnesAreCut)
{
    for (const uint32_t nLength : {31u, 32u, 300u})
    {
        std::string strCallID = longName(nLength);
        int nStreamID = -1;
        respondNext(MIRSP_OPENSTREAM, 1);
        EXPECT_EQ(MCS_OK, m_pmintf->openStream(nullptr, &nStreamID, strCallID.data(), 0xFFFFFFFF));
        const std::vector<structMICMD> vRequests = takeRequests();
        ASSERT_EQ(1u, vRequests.size());
        EXPECT_EQ(CBytes(request(5, vRequests[0].nSequenceNo).text(12, strCallID.substr(0, 31)).word(44, 0xFFFFFFFF)),
                  bytesOf(vRequests[0]));
    }
}

TEST_F(MediaProtocol, RequestIsOneWrite)
{
    // A pipe in packet mode keeps each write apart.
    int anPipe[2];
    ASSERT_EQ(0, pipe2(anPipe, O_NONBLOCK | O_CLOEXEC | O_DIRECT));
    close(m_pmintf->m_npipeReq);
    m_pmintf->m_npipeReq = anPipe[1];
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->ping());
    char szRecord[1024];
    EXPECT_EQ(280, read(anPipe[0], szRecord, sizeof(szRecord)));
    EXPECT_EQ(-1, read(anPipe[0], szRecord, sizeof(szRecord)));
    close(anPipe[0]);
}

TEST_F(MediaProtocol, ResultWordIsAtOffsetEightForEveryResponse)
{
    int nID = -1;
    char szName[] = "/p.ul";
    respondBytes(response(3, 1, 0x11223344));
    EXPECT_EQ(MCS_OK, m_pmintf->openFile(szName, &nID));
    EXPECT_EQ(0x11223344, m_pmintf->mapFileIDToCMIntfFileID(nID));

    respondBytes(response(4, 2, 0x55667788));
    EXPECT_EQ(MCS_OK, m_pmintf->openStream(nullptr, &nID, szName, 0));
    EXPECT_EQ(0x55667788, nID);

    m_pStream = std::make_unique<CZelMediaStreamImpl>();
    m_pStream->m_bInitialized = 1;
    unsigned long ulMilliSeconds = 0;
    respondBytes(response(7, 3, 0x99AABBCC));
    EXPECT_EQ(MCS_OK, m_pStream->recordGetTimeMilliseconds(&ulMilliSeconds));
    EXPECT_EQ(0x99AABBCCul, ulMilliSeconds);
    respondBytes(response(8, 4, 0x0D0E0F10));
    EXPECT_EQ(0x0D0E0F10, m_pStream->recordGetStatus());
    respondBytes(response(1, 5, 1));
    EXPECT_EQ(MCS_REFUSED, m_pmintf->ping());
}

TEST_F(MediaProtocol, ResultWordCountsWhateverTheResponseCode)
{
    int nStreamID = -1;
    char szCallID[] = "c";
    uint32_t nSequenceNo = 1;
    for (const uint32_t nResponse : {0u, 1u, 2u, 3u, 5u, 8u, 9u, 0xFFFFFFFFu})
    {
        respondBytes(response(nResponse, nSequenceNo++, 1000 + nResponse));
        EXPECT_EQ(MCS_OK, m_pmintf->openStream(nullptr, &nStreamID, szCallID, 0));
        EXPECT_EQ(static_cast<int>(1000 + nResponse), nStreamID);
    }
}

TEST_F(MediaProtocol, EventIsSentByteForByte)
{
    const CBytes vGolden = CGolden(16).word(0, 1).word(4, 0x01020304).word(8, 0xF5F6F7F8).word(12, 0xFFFFFFFE);
    structMIEVT evt;
    evt.s_mievt = MIEVT_DONE;
    evt.nStreamID = 0x01020304;
    evt.nSequenceID = 0xF5F6F7F8;
    evt.s_mcstatus = -2;
    EXPECT_EQ(MCS_OK, m_pmintf->sendEvent(&evt));
    CBytes vRead(64);
    ASSERT_EQ(16, read(m_pmintf->m_npipeEvt, vRead.data(), vRead.size()));
    vRead.resize(16);
    EXPECT_EQ(vGolden, vRead);
}

TEST_F(MediaProtocol, EventFinishesTheCommandOfItsStreamAndNumberWithItsStatus)
{
    CHandlerRecorder handler;
    sendCommand(31, MICMD_PLAYFILE, 300, &handler);
    structMIEVT evt;
    const CBytes vDone = CGolden(16).word(0, 1).word(4, 31).word(8, 1).word(12, 4711);
    memcpy(&evt, vDone.data(), sizeof(evt));
    m_pmintf->doneEventPass(evt);
    EXPECT_EQ((std::vector<CHandlerRecorder::CReport>{{31, 4711, CZelMediaStreamCompletionHandler::MCCR_PLAY}}),
              handler.m_vReports);
}
