// The exported classes of the built library: opening, closing, forwarding, bad arguments.
#include "ServicesFixture.h"

#include <cstring>
#include <type_traits>

namespace
{
using CHandler = CZelMediaStreamCompletionHandler;
const unsigned long UNTOUCHED = ~0UL;

static_assert(sizeof(CZelMediaServices) == sizeof(void*) && !std::is_polymorphic_v<CZelMediaServices>);
static_assert(sizeof(CZelMediaStream) == sizeof(void*) && !std::is_polymorphic_v<CZelMediaStream>);
static_assert(sizeof(CHandler) == sizeof(void*) && std::is_abstract_v<CHandler>);
static_assert(std::has_virtual_destructor_v<CHandler>);
static_assert(CHandler::MCCR_OTHER == 0 && CHandler::MCCR_PLAY == 1 && CHandler::MCCR_RECORD == 2);

CLogLine operation(const char* pszText)
{
    return CLogLine{8, 2, pszText};
}

// With the stream's address where pszFormat has it, as lines show it.
std::string withStream(const char* pszFormat, const CZelMediaStream* pStream)
{
    char szText[300];
    snprintf(szText, sizeof(szText), pszFormat, static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pStream)));
    return szText;
}

CLogLine operation(const char* pszFormat, const CZelMediaStream* pStream)
{
    return operation(withStream(pszFormat, pStream).c_str());
}
} // namespace

class PublicInterface : public CServicesTest
{
protected:
    // Runs an operation of an open stream and takes its own lines, those of deeper layers left out.
    std::vector<CLogLine> linesOf(const std::function<void()>& run)
    {
        m_pLog->clear();
        run();
        std::vector<CLogLine> vLines;
        for (const CLogLine& line : m_pLog->lines())
            if (line.strText.find("CZelMedia") != std::string::npos)
                vLines.push_back(line);
        return vLines;
    }
    size_t requestCount() const { return m_driver.requests().size(); }
};

TEST(PublicTypes, CompletionIsTheThirdVirtualOperation)
{
    const auto pmember = &CHandler::OnMediaStreamCompletion;
    uintptr_t nSlot = 0;
    memcpy(&nSlot, &pmember, sizeof(nSlot));
#if defined(__arm__) || defined(__aarch64__) // where another word says that it is virtual
    EXPECT_EQ(2 * sizeof(void*), nSlot);
#else
    EXPECT_EQ(2 * sizeof(void*) + 1, nSlot);
#endif
}

TEST(PublicTypes, EveryStatusHasItsValueAndName)
{
    const std::pair<int, const char*> aStatuses[] = {{0, "MCS_OK"},
                                                     {2, "MCS_INVALIDHANDLE"},
                                                     {3, "MCS_CANCELLED"},
                                                     {4, "MCS_OUTOFMEMORY"},
                                                     {6, "MCS_THREADFAILED"},
                                                     {8, "MCS_LOCKFAILED"},
                                                     {16, "MCS_NORESPONSE"},
                                                     {34, "MCS_REFUSED"},
                                                     {41, "MCS_UNKNOWNPHRASEFILE"},
                                                     {42, "MCS_PIPECREATE"},
                                                     {43, "MCS_PIPEOPEN"},
                                                     {44, "MCS_PIPEREAD"},
                                                     {45, "MCS_PIPEWRITE"},
                                                     {46, "MCS_TIMEDOUT"},
                                                     {47, "MCS_NOTCONNECTED"},
                                                     {48, "MCS_NOTINITIALIZED"},
                                                     {49, "MCS_NOTSUPPORTED"},
                                                     {1, "MCSTATUS unknown"},
                                                     {-1, "MCSTATUS unknown"}};
    for (const auto& [nStatus, pszName] : aStatuses)
        EXPECT_STREQ(pszName, MCSTATUSToString(nStatus)) << nStatus;
}

TEST_F(PublicInterface, CallIsOpenedWithItsLegAnd31CharactersOfItsId)
{
    CZelMediaStream* pStream = nullptr;
    EXPECT_EQ(MCS_OK, m_pServices->openMediaStream(&pStream, std::string(40, 'c'), 7));
    ASSERT_NE(nullptr, pStream);
    const structMICMD request = m_driver.waitRequest(MICMD_OPENSTREAM);
    EXPECT_EQ(std::string(31, 'c'), request.openStream.szCallID);
    EXPECT_EQ(7u, request.openStream.nLegID);
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicInterface, DeviceIsOpenedByItsInputWithLegZero)
{
    CZelMediaStream* pStream = nullptr;
    const auto vLines =
        linesOf([&] { EXPECT_EQ(MCS_OK, m_pServices->openMediaStream("in-device", "out-device", &pStream)); });
    ASSERT_NE(nullptr, pStream);
    const structMICMD request = m_driver.waitRequest(MICMD_OPENSTREAM);
    EXPECT_STREQ("in-device", request.openStream.szCallID);
    EXPECT_EQ(0u, request.openStream.nLegID);
    EXPECT_EQ((std::vector<CLogLine>{
                  operation("CZelMediaStreamImpl::initialize (0x%08X), indev in-device, outdev out-device", pStream),
                  operation("CZelMediaServicesImpl::addStream 0x%08X, id 1", pStream)}),
              vLines);
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicInterface, RefusedStreamIsDestroyedWithItsDestructorOnlyLogging)
{
    m_driver.refuse(MICMD_OPENSTREAM);
    for (const bool bDevice : {false, true})
    {
        CZelMediaStream* pStream = reinterpret_cast<CZelMediaStream*>(1);
        const size_t nRequests = requestCount();
        const auto vLines = linesOf([&] {
            EXPECT_EQ(MCS_REFUSED, bDevice ? m_pServices->openMediaStream("in", "out", &pStream)
                                           : m_pServices->openMediaStream(&pStream, "call-1", 1));
        });
        EXPECT_EQ(nullptr, pStream);
        ASSERT_EQ(2u, vLines.size());
        EXPECT_EQ(operation("CZelMediaStreamImpl::~CZelMediaStreamImpl, m_nStreamID =-1"), vLines[1]);
        EXPECT_EQ(nRequests + 1, requestCount()) << "the open alone";
    }
}

TEST_F(PublicInterface, OpenWithoutAPlaceForTheStreamFailsBeforeTheDriverIsAsked)
{
    EXPECT_EQ(MCS_INVALIDHANDLE, m_pServices->openMediaStream(nullptr, "call-1", 1));
    EXPECT_EQ(MCS_INVALIDHANDLE, m_pServices->openMediaStream("in", "out", nullptr));
    EXPECT_EQ(0u, m_driver.count(MICMD_OPENSTREAM));
}

TEST_F(PublicInterface, CloseOfNoStreamDoesNothing)
{
    const size_t nRequests = requestCount();
    m_pLog->clear();
    m_pServices->closeMediaStream(nullptr);
    EXPECT_EQ(nRequests, requestCount());
    EXPECT_TRUE(m_pLog->linesWith("CZelMedia").empty());
}

TEST_F(PublicInterface, CloseUnregistersAndClosesAtTheDriver)
{
    CZelMediaStream* const pStream = openStream();
    const auto vLines = linesOf([&] { m_pServices->closeMediaStream(pStream); });
    EXPECT_EQ((std::vector<CLogLine>{operation("CZelMediaStreamImpl::~CZelMediaStreamImpl, m_nStreamID =1"),
                                     operation("CZelMediaServicesImpl::remStream, id 1")}),
              vLines);
    EXPECT_EQ(1, m_driver.waitRequest(MICMD_CLOSESTREAM).stream.nStreamID);
}

TEST_F(PublicInterface, NeverInitialisedStreamReturns48AndCanBeClosedAndDestroyed)
{
    auto* const pStream = new CZelMediaStream;
    unsigned long ul = UNTOUCHED;
    EXPECT_EQ(MCS_NOTINITIALIZED, pStream->playAddFile(text("/p/a.wav"), 0, 1, 0, 0, 0));
    EXPECT_EQ(MCS_NOTINITIALIZED, pStream->recordToFile(text("/r/a.wav"), 0, 1, 1, 0));
    EXPECT_EQ(MCS_NOTINITIALIZED, pStream->recordGetTimeMilliseconds(&ul));
    EXPECT_EQ(MCS_NOTSUPPORTED, pStream->playAddBuffer(nullptr, 0, 1, 0, 0));
    EXPECT_EQ(UNTOUCHED, ul);
    m_pServices->closeMediaStream(pStream);
    {
        CZelMediaStream stream;
    }
    EXPECT_EQ(2u, m_pLog->count("CZelMediaStreamImpl::~CZelMediaStreamImpl, m_nStreamID =0"));
    EXPECT_EQ(0u, m_driver.count(MICMD_CLOSESTREAM));
}

TEST_F(PublicInterface, PlayOperationsForwardEveryArgumentInItsPlace)
{
    CZelMediaStream* const pStream = openStream();
    const auto expect = [&](const char* pszLine, const std::function<int()>& run) {
        int nStatus = -1;
        EXPECT_EQ((std::vector<CLogLine>{operation(pszLine, pStream)}), linesOf([&] { nStatus = run(); }));
        EXPECT_EQ(MCS_OK, nStatus) << pszLine;
    };
    unsigned long ulFileID = 0;
    int nCancelled = 0;
    EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text("/p/a.ul"), &ulFileID));

    expect("CZelMediaStreamImpl::playAddFile (0x%08X), file /p/a.wav, startpos 3, timeout 60",
           [&] { return pStream->playAddFile(text("/p/a.wav"), 3, 60, 1, 1, 99); });
    const structMICMD playFile = m_driver.waitRequest(MICMD_PLAYFILE);
    EXPECT_EQ(24u, playFile.playFile.nStartPos);
    EXPECT_EQ(99u, playFile.playFile.nPlayParam);
    m_driver.done(playFile);
    ASSERT_TRUE(m_pLog->waitFor("CCommand::~CCommand")) << "an ordinary step ends without a completion";
    EXPECT_EQ(0u, m_completions.count());

    expect("CZelMediaStreamImpl::playAddPhrase (0x%08X), fid 1, offset 2, len 3, timeout 4",
           [&] { return pStream->playAddPhrase(ulFileID, 2, 3, 4, 0, 5); });
    const structMICMD playClip = m_driver.waitRequest(MICMD_PLAYCLIP);
    EXPECT_EQ(501, playClip.playClip.nFileID);
    EXPECT_EQ(2u, playClip.playClip.nOffset);
    EXPECT_EQ(3u, playClip.playClip.nLength);
    EXPECT_EQ(5u, playClip.playClip.nPlayParam);
    expect("CZelMediaStreamImpl::playCancel (0x%08X)", [&] { return pStream->playCancel(); });
    EXPECT_EQ(1u, m_driver.waitRequest(MICMD_CANCEL).cancel.nCancelType);
    expect(
        "CZelMediaStreamImpl::playResetBuffers (0x%08X)", [&] { return pStream->playResetBuffers(); });
    expect(
        "CZelMediaStreamImpl::playSetCancelled (0x%08X) 8", [&] { return pStream->playSetCancelled(8); });
    expect("CZelMediaStreamImpl::playGetCancelled (0x%08X) 8", [&] { return pStream->playGetCancelled(&nCancelled); });
    EXPECT_EQ(8, nCancelled);
    expect("CZelMediaStreamImpl::playGetInfo (0x%08X)", [&] { return pStream->playGetInfo(nullptr); });
    EXPECT_EQ(MCS_NOTSUPPORTED, pStream->playAddBuffer(nullptr, 1, 2, 3, 4));
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicInterface, RecordOperationsForwardEveryArgumentInItsPlace)
{
    CZelMediaStream* const pStream = openStream();
    unsigned long ulFileID = 0;
    EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text("/p/a.ul"), &ulFileID));

    EXPECT_EQ((std::vector<CLogLine>{operation(
                  "CZelMediaStreamImpl::recordToFile (0x%08X), fname /r/a.wav, rlen 5, timeout 30", pStream)}),
              linesOf([&] { EXPECT_EQ(0, pStream->recordToFile(text("/r/a.wav"), 5, 30, 60000, 1)); }));
    EXPECT_EQ(240000u, m_driver.waitRequest(MICMD_RECORDFILE).recordFile.nMaxSamples);
    EXPECT_EQ(
        (std::vector<CLogLine>{operation(" calling recordToFile: CZelMediaStreamImpl::recordToFileWithPromptPhrase "
                                         "(0x%08X), fid 1, offset 2, plen 3, fname /r/b.wav, rlen 4, timeout 6",
                                         pStream)}),
        linesOf([&] {
            EXPECT_EQ(0, pStream->recordToFileWithPromptPhrase(ulFileID, 2, 3, text("/r/b.wav"), 4, 6, 7, 0));
        }));
    const structMICMD prompt = m_driver.waitRequest(MICMD_PLAYCLIP);
    EXPECT_EQ(2u, prompt.playClip.nOffset);
    EXPECT_EQ(3u, prompt.playClip.nLength);
    EXPECT_EQ(MCS_OK, pStream->recordCancel());
    EXPECT_EQ(2u, m_driver.waitRequest(MICMD_CANCEL).cancel.nCancelType);

    unsigned long ulMs = UNTOUCHED;
    EXPECT_EQ(MCS_OK, pStream->recordGetTimeMilliseconds(&ulMs));
    EXPECT_EQ(1234u, ulMs);
    EXPECT_EQ(1, pStream->recordGetStatus());
    EXPECT_EQ((std::vector<CLogLine>{operation(
                  "CZelMediaStreamImpl::recordSetSilenceParameters (0x%08X), limitms 300, ulawlimit 10, dwlimitms 5000",
                  pStream)}),
              linesOf([&] { EXPECT_EQ(0, pStream->recordSetSilenceParameters(300, 10, 5000)); }));
    EXPECT_EQ((std::vector<CLogLine>{operation("CZelMediaStreamImpl::recordGetInfo (0x%08X)", pStream)}),
              linesOf([&] { EXPECT_EQ(0, pStream->recordGetInfo(nullptr)); }));
    EXPECT_EQ(MCS_NOTSUPPORTED, pStream->recordToBuffer(nullptr, 1, 2, 3));
    EXPECT_EQ(MCS_NOTSUPPORTED, pStream->recordToBufferWithPromptPhrase(1, 2, 3, nullptr, 5, 6, 7));
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicInterface, NullTextCountsAsEmptyText)
{
    CZelMediaStream* const pStream = openStream();
    unsigned long ulFileID = UNTOUCHED;
    EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(nullptr, &ulFileID));
    EXPECT_EQ(1u, ulFileID);
    EXPECT_STREQ("", m_driver.waitRequest(MICMD_OPENFILE).openFile.szFileName);
    unsigned long ulAgain = UNTOUCHED;
    EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text(""), &ulAgain));
    EXPECT_EQ(ulFileID, ulAgain) << "the same name";

    EXPECT_EQ(MCS_OK, pStream->recordToFile(nullptr, 0, 1, 60, 0));
    EXPECT_STREQ("", m_driver.waitRequest(MICMD_RECORDFILE).recordFile.szFileName);
    EXPECT_EQ(MCS_OK, pStream->playAddFile(nullptr, 0, 60, 1, 0, 0));
    EXPECT_STREQ("", m_driver.waitRequest(MICMD_PLAYFILE).playFile.szFileName);
    EXPECT_EQ(1u, m_pLog->count(withStream("playAddFile (0x%08X), file , startpos 0, timeout 60", pStream)));
    EXPECT_EQ(MCS_OK, pStream->recordToFileWithPromptPhrase(ulFileID, 0, 1, nullptr, 0, 1, 60, 0));
    EXPECT_EQ(1u, m_pLog->count("plen 1, fname , rlen 0, timeout 1"));
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicInterface, NullOutPointersAreAllowed)
{
    CZelMediaStream* const pStream = openStream();
    EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text("/p/a.ul"), nullptr));
    EXPECT_EQ(MCS_OK, pStream->playGetSeconds(nullptr));
    EXPECT_EQ(MCS_OK, pStream->playGetMilliSeconds(nullptr));
    EXPECT_EQ(MCS_OK, pStream->playGetCancelled(nullptr));
    EXPECT_EQ(MCS_OK, pStream->recordGetTimeMilliseconds(nullptr));
    m_driver.refuse(MICMD_RECORDGETTIME);
    EXPECT_EQ(MCS_REFUSED, pStream->recordGetTimeMilliseconds(nullptr));
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicInterface, PhraseFileIdIsWrittenWholeAlsoWhenTheDriverRefuses)
{
    unsigned long ulFileID = UNTOUCHED;
    m_driver.refuse(MICMD_OPENFILE);
    EXPECT_EQ(MCS_REFUSED, m_pServices->openPhraseFile(text("/p/a.ul"), &ulFileID));
    EXPECT_EQ(1u, ulFileID);
    m_driver.acceptAgain(MICMD_OPENFILE);
    CZelMediaStream* const pStream = openStream();
    EXPECT_EQ(MCS_UNKNOWNPHRASEFILE, pStream->playAddPhrase(ulFileID, 0, 1, 60, 0, 0));
    ulFileID = UNTOUCHED;
    EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text("/p/b.ul"), &ulFileID));
    EXPECT_EQ(2u, ulFileID);
    EXPECT_EQ(MCS_OK, pStream->playAddPhrase(ulFileID, 0, 1, 60, 0, 0));
    EXPECT_EQ(MCS_OK, m_pServices->closePhraseFile(ulFileID));
    EXPECT_EQ(501, m_driver.waitRequest(MICMD_CLOSEFILE).closeFile.nFileID);
    EXPECT_EQ(MCS_OK, m_pServices->closePhraseFile(ulFileID)) << "no longer known: no error";
    m_pServices->closeMediaStream(pStream);
}

TEST_F(PublicInterface, DumpWithoutStreamsWritesEmptyListsAndAsksTheDriver)
{
    m_pLog->clear();
    EXPECT_EQ(MCS_OK, m_pServices->dump());
    EXPECT_EQ(1u, m_driver.count(MICMD_DUMP));
    EXPECT_TRUE(m_pLog->has(operation("CZelMediaServicesImpl::dump()")));
    EXPECT_EQ(1u, m_pLog->count("-- m_mapStreamByStreamID"));
    EXPECT_EQ(0u, m_pLog->count("   sid "));
    m_driver.refuse(MICMD_DUMP);
    EXPECT_EQ(MCS_REFUSED, m_pServices->dump());
}

TEST_F(PublicInterface, MinimumSilenceDurationChangesNothing)
{
    const size_t nRequests = requestCount();
    EXPECT_EQ((std::vector<CLogLine>{operation("CZelMediaServicesImpl::setMinimumSilenceDuration d")}),
              linesOf([&] { EXPECT_EQ(0, m_pServices->setMinimumSilenceDuration(500)); }));
    EXPECT_EQ(nRequests, requestCount());
}

TEST(PublicWithoutADriver, OpenReturnsTheTransportsStatusAndRegistersNothing)
{
    CCompletions completions;
    CZelMediaServices services(&completions);
    const auto pLog = std::make_shared<CLogRecord>();
    services.setLogger(new CLogCapture(pLog), nullptr);
    CZelMediaStream* pStream = reinterpret_cast<CZelMediaStream*>(1);
    EXPECT_EQ(MCS_NOTCONNECTED, services.openMediaStream(&pStream, "call-1", 1));
    EXPECT_EQ(nullptr, pStream);
    pStream = reinterpret_cast<CZelMediaStream*>(1);
    EXPECT_EQ(MCS_NOTCONNECTED, services.openMediaStream("in", "out", &pStream));
    EXPECT_EQ(nullptr, pStream);
    EXPECT_EQ(2u, pLog->count("CZelMediaStreamImpl::~CZelMediaStreamImpl, m_nStreamID =-1"));
    EXPECT_EQ(0u, pLog->count("addStream"));
    unsigned long ulFileID = UNTOUCHED;
    EXPECT_EQ(MCS_NOTCONNECTED, services.openPhraseFile(text("/p/a.ul"), &ulFileID));
    EXPECT_EQ(1u, ulFileID);
    EXPECT_EQ(MCS_OK, services.closePhraseFile(ulFileID));
    EXPECT_EQ(MCS_NOTCONNECTED, services.dump());
}
