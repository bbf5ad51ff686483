#include "Application.h"
#include "ServicesFixture.h"

#include <fstream>

namespace
{
const char SHORT_FILE[] = "/tmp/short.ul"; // 40 ms
const char LONG_FILE[] = "/tmp/long.ul";   // longer than any test waits
const unsigned long TIMEOUT = 600;         // s: no command of a run times out
const std::chrono::milliseconds POLL{20};
const std::chrono::seconds LONGEST_EPISODE{90};

std::string phraseFile(int nFile)
{
    return "/tmp/phrases-" + std::to_string(nFile) + ".ul";
}

void writeFile(const std::string& strPath, size_t nBytes)
{
    std::ofstream(strPath, std::ios::binary) << std::string(nBytes, '\x55');
}
} // namespace

struct CApplication::CThread
{
    std::mt19937 random;
    int nThread = 0;
    int nEpisode = 0;
    CZelMediaStream* pStream = nullptr;
    bool bPlainRecording = false;

    int below(int nLimit) { return static_cast<int>(random() % static_cast<unsigned int>(nLimit)); }
    // "/tmp/r-3.ul": threads do not record into the files of others.
    std::string recordFile() const { return "/tmp/r-" + std::to_string(nThread) + ".ul"; }
};

CApplication::CApplication(CLedger& ledger, unsigned int nSeed) : m_ledger(ledger), m_nSeed(nSeed)
{
    writeFile(SHORT_FILE, 320);
    writeFile(LONG_FILE, 600 * 8000);
    m_pServices = std::make_unique<CZelMediaServices>(this);
    m_pServices->setLogger(ledger.makeLogFile(), nullptr);
    for (int nFile = 0; nFile < PHRASE_FILES; ++nFile)
    {
        writeFile(phraseFile(nFile), 16000);
        // No driver runs yet: the id is good all the same.
        m_pServices->openPhraseFile(phraseFile(nFile).data(), &m_aulPhrases[nFile]);
    }
}

CApplication::~CApplication()
{
    auto* const pQuiet = new OrvLogLib::CLogFile("Quiet", nullptr, false, false, false);
    pQuiet->setTraceMask(0);
    m_pServices->setLogger(pQuiet, nullptr);
}

void CApplication::start()
{
    for (int nThread = 0; nThread < THREADS; ++nThread)
        m_vThreads.emplace_back(
            [this, nThread] { run(nThread, m_nSeed * THREADS + static_cast<unsigned int>(nThread)); });
}

void CApplication::finish()
{
    m_gate.open(true);
    for (std::thread& thread : m_vThreads)
        thread.join();
}

void CApplication::run(int nThread, unsigned int nSeed)
{
    CThread thread;
    thread.random.seed(nSeed);
    thread.nThread = nThread;
    while (!m_gate.isOver())
        if (m_gate.isShut())
            m_gate.wait();
        else
            episode(thread);
}

// Whether the operation shows that there is a driver, and that it knows the stream.
bool CApplication::note(MCSTATUS mcstatus)
{
    if (mcstatus == MCS_PIPEWRITE || mcstatus == MCS_NOTCONNECTED || mcstatus == MCS_NOTINITIALIZED)
        m_gate.lost();
    return mcstatus == MCS_OK;
}

void CApplication::episode(CThread& thread)
{
    const std::string strCall = "c" + std::to_string(thread.nThread) + "-" + std::to_string(thread.nEpisode++);
    if (!note(m_pServices->openMediaStream(&thread.pStream, strCall, 1)))
        return;
    m_ledger.opened(thread.pStream);
    thread.bPlainRecording = false;
    const int nActs = 1 + thread.below(3);
    bool bUsable = true;
    for (int nAct = 0; nAct < nActs && bUsable; ++nAct)
        bUsable = act(thread);
    // Some are closed by their own completion, with what they have queued or playing by then.
    if (bUsable && thread.below(4) == 0)
    {
        m_ledger.closeAtNextCompletion(thread.pStream);
        m_ledger.waitIdle(thread.pStream, std::chrono::milliseconds(500));
    }
    if (m_ledger.takeBack(thread.pStream))
    {
        settle(thread);
        close(thread.pStream);
    }
    else if (!m_ledger.waitIdle(thread.pStream, LONGEST_EPISODE))
    {
        m_ledger.violation("a handler did not come to the end of its close");
    }
    ++m_nEpisodes;
}

bool CApplication::act(CThread& thread)
{
    switch (thread.below(14))
    {
    case 0: return playLong(thread) && query(thread) && cancel(thread, false);
    case 1: return playLong(thread) && playChain(thread) && cancel(thread, false);
    case 2: return record(thread);
    case 3: return recordWithPrompt(thread);
    case 4: return recordWithPrompt(thread) && cancel(thread, true);
    case 5: return usePhraseFile(thread);
    case 6:
    case 7: return playPhrase(thread);
    case 8: return query(thread);
    case 9: return playLong(thread);
    case 10: return cancelRecordUnderPlay(thread);
    default: return playChain(thread);
    }
}

bool CApplication::playFile(CThread& thread, const char* pszFile, bool bStep, int nTag)
{
    CLedger::CCall call(m_ledger, EOperation::Play, thread.pStream, bStep, nTag);
    return note(call.returned(
        thread.pStream->playAddFile(text(pszFile), 0, TIMEOUT, bStep, 0, static_cast<unsigned long>(nTag))));
}

// Steps of which only the last is reported, at times with a status of its own.
bool CApplication::playChain(CThread& thread)
{
    for (int nSteps = thread.below(4); nSteps > 0; --nSteps)
        if (!playFile(thread, SHORT_FILE, thread.below(2) == 0, 0))
            return false;
    return playFile(thread, SHORT_FILE, false, thread.below(2) == 0 ? m_nNextTag++ : 0);
}

bool CApplication::playLong(CThread& thread)
{
    return playFile(thread, LONG_FILE, false, 0);
}

bool CApplication::playPhrase(CThread& thread)
{
    CLedger::CCall call(m_ledger, EOperation::Play, thread.pStream);
    return note(call.returned(
        thread.pStream->playAddPhrase(m_aulPhrases[thread.below(PHRASE_FILES)], 800, 320, TIMEOUT, 0, 0)));
}

// One of a stream at most: the library knows only the time-out of its end.
bool CApplication::record(CThread& thread)
{
    if (std::exchange(thread.bPlainRecording, true))
        return true;
    CLedger::CCall call(m_ledger, EOperation::Record, thread.pStream);
    return note(call.returned(thread.pStream->recordToFile(thread.recordFile().data(), 0, 1, TIMEOUT, 0)));
}

bool CApplication::recordWithPrompt(CThread& thread)
{
    const bool bStep = thread.below(2) == 0;
    CLedger::CCall call(m_ledger, EOperation::RecordWithPrompt, thread.pStream, bStep);
    return note(call.returned(thread.pStream->recordToFileWithPromptPhrase(
        m_aulPhrases[thread.below(PHRASE_FILES)], 0, 320, thread.recordFile().data(), 0, 1, TIMEOUT, bStep)));
}

// The driver tells of the end of the recording, which must not end the play.
bool CApplication::cancelRecordUnderPlay(CThread& thread)
{
    return record(thread) && playLong(thread) && cancel(thread, true);
}

bool CApplication::cancel(CThread& thread, bool bRecord)
{
    CLedger::CCall call(m_ledger, EOperation::Cancel, thread.pStream);
    return note(call.returned(bRecord ? thread.pStream->recordCancel() : thread.pStream->playCancel()));
}

bool CApplication::query(CThread& thread)
{
    unsigned long ulMs = 0;
    if (thread.below(8) == 0)
        return note(m_pServices->dump());
    if (thread.below(2) == 0)
        return note(thread.pStream->recordGetTimeMilliseconds(&ulMs));
    const int nStatus = thread.pStream->recordGetStatus();
    return note(nStatus <= 3 ? MCS_OK : nStatus); // 0 to 3: of the recording
}

bool CApplication::usePhraseFile(CThread& thread)
{
    unsigned long ulFileID = 0;
    const bool bOpen = note(m_pServices->openPhraseFile(phraseFile(thread.below(PHRASE_FILES)).data(), &ulFileID));
    note(m_pServices->closePhraseFile(ulFileID));
    std::string strOwn = "/tmp/own-" + std::to_string(thread.nThread) + ".ul";
    writeFile(strOwn, 800);
    note(m_pServices->openPhraseFile(strOwn.data(), &ulFileID));
    note(m_pServices->closePhraseFile(ulFileID));
    return bOpen;
}

// Returns when all that can be reported has ended. Asks the driver meanwhile, which is how the
// application learns that it is gone.
void CApplication::settle(CThread& thread)
{
    const auto end = CLedger::CClock::now() + LONGEST_EPISODE;
    unsigned long ulMs = 0;
    for (int nTry = 1; !m_ledger.waitIdle(thread.pStream, POLL); ++nTry)
    {
        note(thread.pStream->recordGetTimeMilliseconds(&ulMs));
        if (nTry % 4 == 0)
            cancel(thread, nTry % 8 == 0);
        if (CLedger::CClock::now() > end)
            return m_ledger.violation("never ended:" + m_ledger.describe(thread.pStream));
    }
}

void CApplication::close(CZelMediaStream* pStream)
{
    CLedger::CCall call(m_ledger, EOperation::Close, pStream);
    m_pServices->closeMediaStream(pStream);
}

void CApplication::OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason)
{
    const bool bClose = m_ledger.completionBegins(pStream, mcstatus, reason);
    if (pStream == m_pPhraseStream && mcstatus == MCS_OK)
        ++m_nPhrasesPlayed;
    if (bClose)
        close(pStream);
    m_ledger.completionEnds();
}

bool CApplication::phrasesPlay()
{
    CThread thread;
    if (m_pServices->openMediaStream(&thread.pStream, "phrases", 1) != MCS_OK)
        return false;
    m_ledger.opened(thread.pStream);
    m_pPhraseStream = thread.pStream;
    m_nPhrasesPlayed = 0;
    bool bAccepted = true;
    for (const unsigned long ulPhrases : m_aulPhrases)
    {
        CLedger::CCall call(m_ledger, EOperation::Play, thread.pStream);
        bAccepted &= call.returned(thread.pStream->playAddPhrase(ulPhrases, 800, 160, TIMEOUT, 0, 0)) == MCS_OK;
    }
    bAccepted &= m_ledger.waitIdle(thread.pStream, LONGEST_EPISODE);
    close(thread.pStream);
    return bAccepted && m_nPhrasesPlayed == PHRASE_FILES;
}
