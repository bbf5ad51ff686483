// Every allocation of every public operation fails in turn: statuses, and no crash, leak or exception.
#include "FailingAllocations.h"
#include "ServicesFixture.h"

#include <new>
#include <thread>

namespace
{
const unsigned long NO_FILE = 0xFFFFFFFFUL;

// What the capture allocates is no allocation of the library.
class CSparedCapture : public CLogCapture
{
public:
    using CLogCapture::CLogCapture;
    int LogStringArgListX(OrvLogLib::LogLib_Priority priority, const char* pszFormat, const char* pszSource,
                          va_list arguments) override
    {
        CAllocationsSpared spared;
        return CLogCapture::LogStringArgListX(priority, pszFormat, pszSource, arguments);
    }
};

class CThrowingLog : public OrvLogLib::CLogFile
{
public:
    CThrowingLog() : CLogFile("Throwing", nullptr, false, false, false) {}
    int LogStringArgListX(OrvLogLib::LogLib_Priority, const char*, const char*, va_list) override
    {
        throw std::bad_alloc();
    }
    long ReportEventToWIN32Log(long, unsigned short, unsigned long, const char**, void*) override
    {
        throw std::bad_alloc();
    }
};
} // namespace

class OutOfMemory : public CServicesTest, public testing::WithParamInterface<Failing>
{
protected:
    OutOfMemory()
    {
        m_pServices->setLogger(new CSparedCapture(m_pLog), nullptr);
        EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text("/p/phrases.ul"), &m_ulFileID));
        m_pLog->clear();
    }

    // Every command record that was made is gone.
    void expectNoCommandLeft()
    {
        EXPECT_TRUE(m_pLog->waitFor("CCommand::~CCommand", m_pLog->count("CCommand::CCommand")));
        EXPECT_EQ(m_pLog->count("CCommand::CCommand"), m_pLog->count("CCommand::~CCommand"));
    }

    // Runs an operation of a stream with each of its allocations failing in turn; the status then is
    // 4 and the operation works right afterwards. Each attempt has a stream of its own, on which
    // prepare has been called. Gives the number of allocations that failed.
    int onEachStream(const std::function<void(CZelMediaStream*)>& prepare,
                     const std::function<int(CZelMediaStream*)>& operation)
    {
        CAttempts attempts(GetParam());
        std::vector<CZelMediaStream*> vpBusy;
        while (vpBusy.size() < m_nBusyBefore)
            vpBusy.push_back(openBusyStream());
        while (attempts.next())
        {
            vpBusy.push_back(openBusyStream());
            CZelMediaStream* const pStream = openStream();
            prepare(pStream);
            const int nStatus = attempts.run([&] { return operation(pStream); });
            EXPECT_EQ(attempts.failed() ? MCS_OUTOFMEMORY : MCS_OK, nStatus) << "at allocation " << attempts.nth();
            EXPECT_EQ(MCS_OK, operation(pStream)) << "after allocation " << attempts.nth();
            m_pServices->closeMediaStream(pStream);
        }
        for (CZelMediaStream* const pStream : vpBusy)
            m_pServices->closeMediaStream(pStream);
        m_nBusyBefore = vpBusy.size() + 1;
        expectNoCommandLeft();
        return attempts.nth() - 1;
    }
    // Uses up the entries that the commands of a stream closed before have left for reuse.
    CZelMediaStream* openBusyStream()
    {
        CZelMediaStream* const pStream = openStream();
        startPlay(pStream);
        startPlay(pStream);
        startRecord(pStream);
        return pStream;
    }
    static void nothing(CZelMediaStream*) {}
    static void startPlay(CZelMediaStream* pStream)
    {
        EXPECT_EQ(MCS_OK, pStream->playAddFile(text("/p/first.wav"), 0, 60, 0, 0, 0));
    }
    static void startRecord(CZelMediaStream* pStream)
    {
        EXPECT_EQ(MCS_OK, pStream->recordToFile(text("/r/first.wav"), 0, 5, 60, 0));
    }
    static int playFile(CZelMediaStream* pStream)
    {
        return pStream->playAddFile(text("/p/second.wav"), 0, 60, 0, 0, 0);
    }
    static int record(CZelMediaStream* pStream) { return pStream->recordToFile(text("/r/second.wav"), 0, 5, 60, 0); }
    int playPhrase(CZelMediaStream* pStream) const { return pStream->playAddPhrase(m_ulFileID, 0, 1, 60, 0, 0); }

    unsigned long m_ulFileID = 0;
    size_t m_nBusyBefore = 0;
};

INSTANTIATE_TEST_SUITE_P(Allocation, OutOfMemory, testing::Values(Failing::Once, Failing::FromThenOn),
                         testing::PrintToStringParamName());

TEST_P(OutOfMemory, OpenIsStatus4WithNoStreamOrAStreamToClose)
{
    for (const bool bDevice : {false, true})
    {
        std::vector<bool> vGotStream;
        for (CAttempts attempts(GetParam()); attempts.next();)
        {
            std::string strFirst = "a text that is too long for a string without memory";
            std::string strSecond = strFirst;
            CZelMediaStream* pStream = reinterpret_cast<CZelMediaStream*>(1);
            const int nStatus = attempts.run([&] {
                return bDevice ? m_pServices->openMediaStream(std::move(strFirst), std::move(strSecond), &pStream)
                               : m_pServices->openMediaStream(&pStream, std::move(strFirst), 1);
            });
            if (attempts.failed())
            {
                EXPECT_EQ(MCS_OUTOFMEMORY, nStatus) << "at allocation " << attempts.nth();
                vGotStream.push_back(pStream != nullptr);
                if (pStream)
                    EXPECT_EQ(MCS_NOTINITIALIZED, pStream->playCancel());
            }
            else
            {
                ASSERT_EQ(MCS_OK, nStatus);
                EXPECT_EQ(MCS_OK, playFile(pStream));
            }
            m_pServices->closeMediaStream(pStream);
        }
        ASSERT_LE(4u, vGotStream.size());
        EXPECT_FALSE(vGotStream[0]) << "the stream itself";
        EXPECT_FALSE(vGotStream[1]) << "its implementation";
        EXPECT_TRUE(vGotStream[2]) << "a copy of the text";
    }
    EXPECT_EQ(m_driver.count(MICMD_OPENSTREAM), m_driver.count(MICMD_CLOSESTREAM));
    expectNoCommandLeft();
}

TEST_P(OutOfMemory, StreamMadeOnItsOwnThrowsAnInt)
{
    for (int nth : {1, 2})
    {
        int nThrown = -1;
        alignas(CZelMediaStream) unsigned char abMemory[sizeof(CZelMediaStream)];
        CZelMediaStream* pStream = nullptr;
        try
        {
            CAllocationFailure failure(nth, GetParam());
            pStream = new (abMemory) CZelMediaStream;
        }
        catch (int n)
        {
            nThrown = n;
        }
        EXPECT_EQ(nth == 1 ? 0 : -1, nThrown);
        if (pStream)
            pStream->~CZelMediaStream();
    }
}

TEST_P(OutOfMemory, OpenPhraseFileIsStatus4AndTheFileOpensAfterwards)
{
    for (CAttempts attempts(GetParam()); attempts.next();)
    {
        const std::string strName = std::string("/p/a-file-with-a-long-name-").append(std::to_string(attempts.nth()));
        unsigned long ulFileID = ~0UL;
        const int nStatus = attempts.run([&] { return m_pServices->openPhraseFile(text(strName.c_str()), &ulFileID); });
        EXPECT_EQ(attempts.failed() ? MCS_OUTOFMEMORY : MCS_OK, nStatus) << "at allocation " << attempts.nth();
        EXPECT_TRUE(nStatus != MCS_OK || ulFileID != NO_FILE);
        EXPECT_GE(NO_FILE, ulFileID) << "written whole";
        EXPECT_EQ(MCS_OK, m_pServices->closePhraseFile(ulFileID));

        EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text(strName.c_str()), &ulFileID));
        EXPECT_NE(NO_FILE, ulFileID);
        EXPECT_EQ(MCS_OK, m_pServices->closePhraseFile(ulFileID));
    }
    EXPECT_EQ(m_driver.count(MICMD_OPENFILE), m_driver.count(MICMD_CLOSEFILE) + 1) << "the fixture's file is open";
    expectNoCommandLeft();
}

TEST_P(OutOfMemory, PlayIsStatus4)
{
    EXPECT_LE(3, onEachStream(nothing, playFile)) << "the command and its two places";
    EXPECT_LE(3, onEachStream(nothing, [this](CZelMediaStream* pStream) { return playPhrase(pStream); }));
}

TEST_P(OutOfMemory, QueuedPlayIsStatus4)
{
    EXPECT_LE(4, onEachStream(startPlay, playFile)) << "the command, the list, its entry, its node";
    EXPECT_LE(4, onEachStream(startPlay, [this](CZelMediaStream* pStream) { return playPhrase(pStream); }));
}

TEST_P(OutOfMemory, RecordIsStatus4)
{
    EXPECT_LE(3, onEachStream(nothing, record));
    EXPECT_LE(3, onEachStream(startPlay, record));
    EXPECT_LE(4, onEachStream(startRecord, record));
}

TEST_P(OutOfMemory, RecordBehindAPromptIsStatus4WithPromptAndRecordCancelled)
{
    const auto operation = [this](CZelMediaStream* pStream) {
        return pStream->recordToFileWithPromptPhrase(m_ulFileID, 0, 1, text("/r/a.wav"), 0, 5, 60, 0);
    };
    EXPECT_LE(7, onEachStream(nothing, operation)) << "the prompt's and the record's";
    if (GetParam() == Failing::Once)
    {
        // Without memory for the record the prompt is on its way already: the record side is cancelled.
        EXPECT_LE(4u, m_driver.count(MICMD_CANCEL));
        for (const structMICMD& request : m_driver.requests(MICMD_CANCEL))
            EXPECT_EQ(2u, request.cancel.nCancelType);
    }
}

TEST_P(OutOfMemory, CancelIsStatus4)
{
    EXPECT_LE(1, onEachStream(
                     startPlay, [](CZelMediaStream* pStream) { return pStream->playCancel(); }));
    EXPECT_LE(1, onEachStream(startPlay, [](CZelMediaStream* pStream) { return pStream->recordCancel(); }));
}

TEST_P(OutOfMemory, RecordQueriesAreStatus4AndTheTimeIsZero)
{
    unsigned long ulMs = ~0UL;
    EXPECT_LE(1, onEachStream(
                     nothing,
                     [&](CZelMediaStream* pStream) {
                         const int nStatus = pStream->recordGetTimeMilliseconds(&ulMs);
                         EXPECT_EQ(nStatus == MCS_OK ? 1234u : 0u, ulMs);
                         return nStatus;
                     }));
    m_driver.onCommand(
        MICMD_RECORDGETSTATUS,
        [this](const structMICMD& request) { m_driver.respond(request, MIRSP_RECORDGETSTATUS, 0); });
    EXPECT_LE(1, onEachStream(nothing, [](CZelMediaStream* pStream) { return pStream->recordGetStatus(); }));
}

TEST_P(OutOfMemory, DumpIsStatus4)
{
    CZelMediaStream* const pStream = openStream();
    startPlay(pStream);
    for (CAttempts attempts(GetParam()); attempts.next();)
    {
        const MCSTATUS mcstatus = attempts.run([&] { return m_pServices->dump(); });
        EXPECT_EQ(attempts.failed() ? MCS_OUTOFMEMORY : MCS_OK, mcstatus);
        EXPECT_EQ(MCS_OK, m_pServices->dump());
    }
    m_pServices->closeMediaStream(pStream);
}

TEST_P(OutOfMemory, ClosePhraseFileIsStatus4AndTheFileIsClosedHere)
{
    for (CAttempts attempts(GetParam()); attempts.next();)
    {
        unsigned long ulFileID = 0;
        EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text("/p/a.ul"), &ulFileID));
        const int nStatus = attempts.run([&] { return m_pServices->closePhraseFile(ulFileID); });
        EXPECT_EQ(attempts.failed() ? MCS_OUTOFMEMORY : MCS_OK, nStatus);
        EXPECT_EQ(MCS_OK, m_pServices->closePhraseFile(ulFileID)) << "not known any more";
    }
}

TEST_P(OutOfMemory, CloseDestroysTheStreamAndAllItsCommands)
{
    for (CAttempts attempts(GetParam()); attempts.next();)
    {
        CZelMediaStream* const pStream = openStream();
        startPlay(pStream);
        EXPECT_EQ(MCS_OK, playFile(pStream));
        startRecord(pStream);
        EXPECT_EQ(MCS_OK, record(pStream));
        attempts.run([&] {
            m_pServices->closeMediaStream(pStream);
            return 0;
        });
    }
    expectNoCommandLeft();
    EXPECT_EQ(0u, m_completions.count());
}

TEST_P(OutOfMemory, OtherOperationsNeedNoMemory)
{
    CZelMediaStream* const pStream = openStream();
    unsigned long ul = 0;
    int n = 0;
    const std::function<int()> aOperations[] = {
        [&] { return pStream->playGetSeconds(&ul); },
        [&] { return pStream->playGetMilliSeconds(&ul); },
        [&] { return pStream->playGetCancelled(&n); },
        [&] { return pStream->playSetCancelled(1); },
        [&] { return pStream->playGetInfo(nullptr); },
        [&] { return pStream->playResetBuffers(); },
        [&] { return pStream->playCancel(); },
        [&] { return pStream->recordCancel(); },
        [&] { return pStream->recordGetInfo(nullptr); },
        [&] { return pStream->recordSetSilenceParameters(1, 2, 3); },
        [&] { return m_pServices->setMinimumSilenceDuration(1); },
        [&] { return pStream->playAddBuffer(nullptr, 0, 0, 0, 0) - MCS_NOTSUPPORTED; },
        [&] { return pStream->recordToBuffer(nullptr, 0, 0, 0) - MCS_NOTSUPPORTED; },
        [&] { return pStream->recordToBufferWithPromptPhrase(0, 0, 0, nullptr, 0, 0, 0) - MCS_NOTSUPPORTED; }};
    for (const auto& operation : aOperations)
    {
        CAttempts attempts(GetParam());
        EXPECT_TRUE(attempts.next());
        EXPECT_EQ(MCS_OK, attempts.run(operation)) << &operation - aOperations;
        EXPECT_FALSE(attempts.failed()) << &operation - aOperations;
    }
    auto* const pLogFile = new CSparedCapture(m_pLog);
    CAttempts attempts(GetParam());
    EXPECT_TRUE(attempts.next());
    attempts.run([&] {
        m_pServices->setLogger(pLogFile, nullptr);
        return 0;
    });
    EXPECT_FALSE(attempts.failed());
    m_pServices->closeMediaStream(pStream);
}

TEST_P(OutOfMemory, FirstLineOfAThreadSurvives)
{
    CAttempts attempts(GetParam());
    while (attempts.next())
    {
        std::thread([&] { attempts.run([&] { return m_pServices->setMinimumSilenceDuration(1); }); }).join();
        EXPECT_EQ(static_cast<size_t>(attempts.nth()), m_pLog->count("setMinimumSilenceDuration"));
    }
    EXPECT_LE(2, attempts.nth()) << "a new thread's first line takes a record";
}

TEST_P(OutOfMemory, LogFileThatThrowsLosesItsLinesAndNothingElse)
{
    m_pServices->setLogger(new CThrowingLog, nullptr);
    CZelMediaStream* const pStream = openStream();
    EXPECT_EQ(MCS_OK, playFile(pStream));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ(MCS_OK, pStream->playAddPhrase(m_ulFileID, 0, 1, 60, 0, 0));
    EXPECT_EQ(MCS_OK, pStream->playCancel());
    EXPECT_EQ(MCS_OK, m_pServices->dump());
    m_pServices->closeMediaStream(pStream);
    EXPECT_EQ(1, m_driver.waitRequest(MICMD_CLOSESTREAM).stream.nStreamID);
}
