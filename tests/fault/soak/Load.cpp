#include "Load.h"
#include "WaitUntil.h"

#include <chrono>
#include <fstream>
#include <unistd.h>
#include <utility>

namespace
{
const char SHORT_FILE[] = "/tmp/short.ul"; // 20 ms
const char LONG_FILE[] = "/tmp/long.ul";   // 60 s
const unsigned long TIMEOUT = 250;         // s

void writeFile(const std::string& strPath, size_t nBytes)
{
    std::ofstream(strPath, std::ios::binary) << std::string(nBytes, '\x55');
}

char* text(const char* pszText)
{
    return const_cast<char*>(pszText);
}
} // namespace

void CLoad::makeFiles()
{
    writeFile(SHORT_FILE, 160);
    writeFile(LONG_FILE, 60 * 8000);
    for (int nFile = 0; nFile < PHRASE_FILES; ++nFile)
        writeFile("/tmp/phrases-" + std::to_string(nFile) + ".ul", 8000);
    writeFile("/tmp/others.ul", 800);
    writeFile(ANOTHER_FILE, 800);
}

CLoad::CLoad(const std::string& strName, const std::vector<unsigned long>& vPhrases)
    : m_strName(strName), m_strRecordFile("/tmp/" + strName + "-record.ul"), m_vPhrases(vPhrases)
{
}

void CLoad::OnMediaStreamCompletion(CZelMediaStream*, MCSTATUS, MCCOMPLETION_REASON)
{
    std::lock_guard hold(m_mutex);
    ++m_nCompletions;
    m_changed.notify_all();
}

// Of this many more, all are there and none is too many.
bool CLoad::waitCompletions(long nCount)
{
    m_nExpected += nCount;
    std::unique_lock hold(m_mutex);
    return m_changed.wait_for(hold, std::chrono::seconds(60), [this] { return m_nCompletions >= m_nExpected; }) &&
           m_nCompletions == m_nExpected;
}

bool CLoad::did(MCSTATUS mcstatus)
{
    ++m_nDone;
    return mcstatus == MCS_OK;
}

CZelMediaStream* CLoad::open()
{
    CZelMediaStream* pStream = nullptr;
    did(m_services.openMediaStream(&pStream, m_strName + "-" + std::to_string(m_nCalls++), 1));
    return pStream;
}

bool CLoad::play(CZelMediaStream* pStream, const char* pszFile)
{
    return did(pStream->playAddFile(text(pszFile), 0, TIMEOUT, 0, 0, 0));
}

// Recordings end when their streams are closed.
bool CLoad::record(CZelMediaStream* pStream)
{
    return did(pStream->recordToFile(m_strRecordFile.data(), 0, 60, TIMEOUT, 0));
}

bool CLoad::callUntilDone(std::atomic<long>& nToDo)
{
    bool bGood = true;
    while (bGood && nToDo > 0)
    {
        m_nDone = 0;
        bGood = call();
        nToDo -= m_nDone;
    }
    unlink(m_strRecordFile.c_str());
    return bGood;
}

bool CLoad::call()
{
    CZelMediaStream* const pStream = open();
    const bool bGood = pStream && ask(pStream) && playAndCancel(pStream) && usePhraseFile() &&
                       (m_nCalls % 2 == 0 ? record(pStream) : recordWithPrompt(pStream)) && ask(pStream);
    did(MCS_OK);
    m_services.closeMediaStream(pStream);
    return bGood;
}

bool CLoad::ask(CZelMediaStream* pStream)
{
    const int TIMES = 300;
    bool bGood = true;
    for (int n = 0; n < TIMES && bGood; ++n)
    {
        unsigned long ulMs = 0;
        bGood = did(pStream->recordGetTimeMilliseconds(&ulMs));
    }
    return bGood;
}

bool CLoad::playAndCancel(CZelMediaStream* pStream)
{
    return play(pStream, SHORT_FILE) && play(pStream, SHORT_FILE) && waitCompletions(2) && play(pStream, LONG_FILE) &&
           play(pStream, SHORT_FILE) && play(pStream, SHORT_FILE) && did(pStream->playCancel()) && waitCompletions(1);
}

// The end of the prompt is all that is reported.
bool CLoad::recordWithPrompt(CZelMediaStream* pStream)
{
    ++m_nDone;
    return did(pStream->recordToFileWithPromptPhrase(m_vPhrases[static_cast<size_t>(m_nCalls) % m_vPhrases.size()], 0,
                                                     160, m_strRecordFile.data(), 0, 60, TIMEOUT, 0)) &&
           waitCompletions(1);
}

bool CLoad::usePhraseFile()
{
    unsigned long ulFileID = 0;
    return did(m_services.openPhraseFile(text("/tmp/others.ul"), &ulFileID)) &&
           did(m_services.closePhraseFile(ulFileID));
}

int CLoad::playEachPhrase()
{
    CZelMediaStream* const pStream = open();
    int nPlayed = 0;
    for (const unsigned long ulFileID : m_vPhrases)
        nPlayed += waitUntil([&] { return pStream->playAddPhrase(ulFileID, 0, 160, TIMEOUT, 0, 0) == MCS_OK; });
    const bool bEnded = waitCompletions(nPlayed);
    m_services.closeMediaStream(pStream);
    return bEnded ? nPlayed : 0;
}

bool CLoad::abandon()
{
    m_pIdle = open();
    m_pAbandoned = open();
    return m_pIdle && m_pAbandoned && record(m_pAbandoned) && record(m_pAbandoned) && play(m_pAbandoned, LONG_FILE) &&
           play(m_pAbandoned, SHORT_FILE) && did(m_pAbandoned->playAddPhrase(m_vPhrases[0], 0, 160, TIMEOUT, 0, 0));
}

void CLoad::closeAbandoned()
{
    m_services.closeMediaStream(std::exchange(m_pAbandoned, nullptr));
    m_services.closeMediaStream(std::exchange(m_pIdle, nullptr));
    unlink(m_strRecordFile.c_str());
}
