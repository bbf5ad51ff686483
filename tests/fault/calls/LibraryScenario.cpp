#include "LibraryScenario.h"
#include "OrvException.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <unistd.h>
#include <utility>

using namespace faults;

namespace
{
using Reason = CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON;
constexpr Reason PLAY = CZelMediaStreamCompletionHandler::MCCR_PLAY;
constexpr Reason RECORD = CZelMediaStreamCompletionHandler::MCCR_RECORD;

char* text(const char* pszText)
{
    return const_cast<char*>(pszText);
}

constexpr char AGAIN[] = "/p/again.wav";

const std::set<int> STATUSES = {MCS_OK,        MCS_NORESPONSE,   MCS_UNKNOWNPHRASEFILE, MCS_PIPEREAD,
                                MCS_PIPEWRITE, MCS_NOTCONNECTED, MCS_NOTINITIALIZED};

bool isOfFault(int nStatus)
{
    return STATUSES.count(nStatus) || (nStatus == MCS_OUTOFMEMORY && CLibraryAllocations::isArmed());
}
} // namespace

CLibraryScenario::CLibraryScenario() : m_driver(false)
{
    for (const MICMD micmd : {MICMD_PLAYFILE, MICMD_PLAYCLIP, MICMD_RECORDFILE})
        m_driver.onCommand(
            micmd, [this](const structMICMD& request) { accept(request); });
    m_driver.onCommand(MICMD_CANCEL, [this](const structMICMD& request) { cancelled(request); });
}

CLibraryScenario::~CLibraryScenario()
{
    m_driver.die();
}

void CLibraryScenario::accept(const structMICMD& request)
{
    m_driver.accept(request);
    const std::lock_guard hold(m_mutex);
    if (m_bQuiet && strcmp(request.playFile.szFileName, AGAIN) != 0)
        return;
    if (m_bHold)
        m_mapHeld[{request.stream.nStreamID, request.s_micmd == MICMD_RECORDFILE}] = request;
    else
        m_driver.done(request);
}

void CLibraryScenario::cancelled(const structMICMD& request)
{
    m_driver.accept(request);
    const std::lock_guard hold(m_mutex);
    const auto it = m_mapHeld.find({request.cancel.nStreamID, request.cancel.nCancelType == MICANCEL_RECORD});
    if (it == m_mapHeld.end())
        return;
    m_driver.done(it->second, MCS_CANCELLED);
    m_mapHeld.erase(it);
}

void CLibraryScenario::hold()
{
    const std::lock_guard hold(m_mutex);
    m_bHold = true;
}

void CLibraryScenario::release()
{
    const std::lock_guard hold(m_mutex);
    m_bHold = false;
    for (const auto& entry : m_mapHeld)
        m_driver.done(entry.second);
    m_mapHeld.clear();
}

void CLibraryScenario::forgetHeld()
{
    const std::lock_guard hold(m_mutex);
    m_bHold = false;
    m_mapHeld.clear();
}

void CLibraryScenario::start()
{
    try
    {
        const CInsideLibrary inside;
        m_services.emplace(&m_ledger);
    }
    catch (int n)
    {
        if (n != 0)
            complain("the services object threw " + std::to_string(n));
    }
    catch (const OrvException& exception)
    {
        if (exception.code() != OrvException::OUT_OF_MEMORY)
            complain("the services object threw code " + std::to_string(exception.code()));
    }
    if (!m_services && !CLibraryAllocations::isArmed())
        complain("no services object although there is memory");
    m_bHitStart = hasFired();
}

// Leaves null what was not opened.
int CLibraryScenario::tryOpen(CZelMediaStream*& pStream, const char* pszCallID)
{
    if (!m_services)
        return MCS_NOTCONNECTED;
    const int nStatus = inside([&] { return m_services->openMediaStream(&pStream, pszCallID, 1); });
    if (nStatus == MCS_OK)
        m_ledger.opened(pStream);
    else
        m_services->closeMediaStream(std::exchange(pStream, nullptr));
    return nStatus;
}

CZelMediaStream* CLibraryScenario::open()
{
    CZelMediaStream* pStream = nullptr;
    expect("openMediaStream", tryOpen(pStream, "call-1"));
    if (pStream)
        m_vStreams.push_back(pStream);
    return pStream;
}

CZelMediaStream* CLibraryScenario::connect()
{
    CZelMediaStream* pStream = nullptr;
    waitFor([&] {
        const int nStatus = tryOpen(pStream, "call-1");
        if (nStatus != MCS_NOTCONNECTED)
            expect("openMediaStream", nStatus);
        return pStream != nullptr;
    });
    if (pStream)
        m_vStreams.push_back(pStream);
    return pStream;
}

CZelMediaStream* CLibraryScenario::startedStream()
{
    m_driver.start();
    start();
    CZelMediaStream* pStream = nullptr;
    if (!waitUntil([&] { return tryOpen(pStream, "call-0") == MCS_OK; }, std::chrono::seconds(30)))
    {
        complain("the library does not connect although no call fails");
        fflush(stdout);
        _exit(1); // nothing can be tried without
    }
    m_vStreams.push_back(pStream);
    return pStream;
}

void CLibraryScenario::close(CZelMediaStream*& pStream)
{
    if (!pStream)
        return;
    m_vStreams.erase(std::remove(m_vStreams.begin(), m_vStreams.end(), pStream), m_vStreams.end());
    m_ledger.closed(pStream);
    const CInsideLibrary inside;
    m_services->closeMediaStream(std::exchange(pStream, nullptr));
}

int CLibraryScenario::dump(int nExpected)
{
    return m_services ? call(
                            "dump", [&] { return m_services->dump(); }, nExpected)
                      : MCS_NOTCONNECTED;
}

int CLibraryScenario::expect(const char* pszOperation, int nStatus, int nExpected) const
{
    if (isFaulty() ? !isOfFault(nStatus) : nStatus != nExpected)
        complain(std::string(pszOperation) + " returned " + std::to_string(nStatus));
    return nStatus;
}

template <class OPERATION> void CLibraryScenario::command(CZelMediaStream* pStream, Reason reason,
                                                          const char* pszOperation, int nExpected, OPERATION operation)
{
    if (!pStream)
        return;
    m_ledger.sent(pStream, reason);
    m_ledger.answered(pStream, reason, call(pszOperation, operation, nExpected));
}

void CLibraryScenario::play(CZelMediaStream* pStream, unsigned long ulTimeout, int nFlag, int nExpected)
{
    command(
        pStream, PLAY, "playAddFile", nExpected,
        [&] { return pStream->playAddFile(text("/p/1.wav"), 0, ulTimeout, nFlag, 0, 0); });
}

void CLibraryScenario::playPhrase(CZelMediaStream* pStream, unsigned long ulFileID)
{
    command(
        pStream, PLAY, "playAddPhrase", MCS_OK, [&] { return pStream->playAddPhrase(ulFileID, 0, 8, LONG, 0, 0); });
}

void CLibraryScenario::record(CZelMediaStream* pStream, unsigned long ulTimeout)
{
    command(
        pStream, RECORD, "recordToFile", MCS_OK,
        [&] { return pStream->recordToFile(text("/r/1.wav"), 0, 5, ulTimeout, 0); });
}

// The prompt is an ordinary step, but reported when it fails.
void CLibraryScenario::recordWithPrompt(CZelMediaStream* pStream, unsigned long ulFileID)
{
    if (pStream)
        m_ledger.sent(pStream, PLAY);
    command(pStream, RECORD, "recordToFileWithPromptPhrase", MCS_OK,
            [&] { return pStream->recordToFileWithPromptPhrase(ulFileID, 0, 8, text("/r/1.wav"), 0, 5, LONG, 0); });
}

unsigned long CLibraryScenario::openPhraseFile(const char* pszFile, int nExpected)
{
    unsigned long ulFileID = 0;
    if (m_services)
        call(
            "openPhraseFile", [&] { return m_services->openPhraseFile(text(pszFile), &ulFileID); }, nExpected);
    m_vFiles.push_back(ulFileID);
    return ulFileID;
}

bool CLibraryScenario::waitCompletions(size_t nCount)
{
    return waitFor([&] { return m_ledger.count() >= nCount; });
}

bool CLibraryScenario::playCompletes(CZelMediaStream*& pStream)
{
    if (!pStream)
    {
        const int nStatus = tryOpen(pStream, "call-2");
        if (nStatus != MCS_NOTCONNECTED)
            expect("openMediaStream", nStatus);
        if (!pStream)
            return false;
    }
    const size_t nBefore = m_ledger.count(pStream, MCS_OK);
    m_ledger.sent(pStream, PLAY);
    const int nStatus = pStream->playAddFile(text(AGAIN), 0, LONG, 0, 0, 0);
    m_ledger.answered(pStream, PLAY, nStatus);
    if (isFaulty() ? !isOfFault(nStatus) : nStatus != MCS_OK)
        complain("playAddFile returned " + std::to_string(nStatus) + " afterwards");
    if (nStatus == MCS_OK &&
        waitUntil([&] { return m_ledger.count(pStream, MCS_OK) > nBefore; }, std::chrono::milliseconds(1000)))
        return true;
    close(pStream);
    return false;
}

// Without a connection, and without hope of one: the start failed, or found the pipes of an earlier life; or
// the connect was not answered in time, or after the answer to a request that was given up: it is not repeated.
bool CLibraryScenario::isCutOff()
{
    const size_t nConnects = m_driver.count(MICMD_CONNECT);
    if (!m_bHitStart && !m_bLateAnswers && m_plan.nAllocation == 0 && !failsFor(Call::Unlink) &&
        !failsFor(Call::Poll) && !failsFor(Call::Read))
        return false;
    CZelMediaStream* pStream = nullptr;
    const bool bChanged = waitUntil(
        [&] { return tryOpen(pStream, "call-3") != MCS_NOTCONNECTED || m_driver.count(MICMD_CONNECT) > nConnects; },
        std::chrono::milliseconds(150));
    close(pStream);
    return !bChanged && m_services->dump() == MCS_NOTCONNECTED;
}

void CLibraryScenario::check()
{
    if (!m_services)
    {
        start();
        m_bHitStart = false;
    }
    forgetHeld();
    {
        // No stream may be closed while a completion is on its way: once the play below has completed, none is.
        const std::lock_guard hold(m_mutex);
        m_bQuiet = true;
    }
    CZelMediaStream* pStream = nullptr;
    bool bWorks = waitUntil([&] { return playCompletes(pStream) || isCutOff(); }, std::chrono::seconds(15));
    if (bWorks && !pStream)
    {
        stop(); // which is the only way out
        start();
        bWorks = waitUntil([&] { return playCompletes(pStream) || (failsFor(Call::Unlink) && isCutOff()); },
                           std::chrono::seconds(15));
    }
    if (!bWorks)
        complain("it does not work again");
    if (pStream)
        close(pStream);
    m_ledger.check();
    checkDescriptors();
}

// Each pipe and the log file at most once.
void CLibraryScenario::checkDescriptors() const
{
    std::multiset<std::string> setTargets;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
        std::error_code error;
        setTargets.insert(std::filesystem::read_symlink(entry.path(), error).string());
    }
    const std::string strProcess = std::to_string(getpid());
    for (const std::string& strTarget : setTargets)
    {
        // The driver has the other ends open, and reads and writes its own pipe by one descriptor.
        const bool bPipe = strTarget.find("/OrvMediaIntf-") != std::string::npos;
        if ((bPipe || strTarget.find("/Media-p") != std::string::npos) && setTargets.count(strTarget) > (bPipe ? 2 : 1))
            complain("open " + std::to_string(setTargets.count(strTarget)) + " times: " + strTarget);
    }
}

void CLibraryScenario::end()
{
    stop();
    m_driver.die();
    m_ledger.check();
}

void CLibraryScenario::stop()
{
    while (!m_vStreams.empty())
    {
        CZelMediaStream* pStream = m_vStreams.back();
        close(pStream);
    }
    const CInsideLibrary inside;
    for (const unsigned long ulFileID : std::exchange(m_vFiles, {}))
        m_services->closePhraseFile(ulFileID);
    m_services.reset();
    stopLibrary();
}

bool CLibraryScenario::mayRemain(const std::string& strName) const
{
    // A pending file that could not be looked at or moved; the next process removes it.
    static const Call aCalls[] = {Call::Fstat, Call::Flock, Call::Lstat, Call::Pread, Call::Unlink, Call::Write};
    const bool bPending =
        std::any_of(std::begin(aCalls), std::end(aCalls), [this](Call call) { return failsFor(call); });
    if (strName.starts_with("Media-p"))
        return strName.ends_with(".log") || (bPending && strName.ends_with(".log.pending"));
    return strName.starts_with("OrvMediaIntf-") && failsFor(Call::Unlink);
}
