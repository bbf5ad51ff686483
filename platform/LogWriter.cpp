// CLogFile::CWriter: what a log file hides: where its lines go, how fast, and lines that were lost.
#include "LogWriter.h"

#include "LogFormat.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

namespace OrvLogLib
{

namespace
{
// Who follows a log sees each line at once unless there are more than anybody could read. A write
// costs about a microsecond, so this is at most one percent of a processor.
constexpr uint64_t DIRECT_LINES = 10000; // in one go
constexpr uint64_t DIRECT_LINES_PER_MS = 8;
constexpr uint64_t PENDING_MS = 32;         // for which a line waits while others follow
constexpr uint64_t PENDING_IDLE_MS = 10000; // for which the pending file is kept
constexpr size_t PENDING_ROOM = 2048;       // that a line should find

uint64_t milliseconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

// A write into a pipe that nobody reads must not raise SIGPIPE in the application.
void writeToStandardError(const char* pLine, size_t nLength)
{
    sigset_t brokenPipe;
    sigset_t pending;
    sigset_t before;
    sigemptyset(&brokenPipe);
    sigaddset(&brokenPipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &brokenPipe, &before);
    sigpending(&pending);
    ssize_t nWritten = 0;
    while (nLength > 0 && ((nWritten = write(STDERR_FILENO, pLine, nLength)) > 0 || (nWritten < 0 && errno == EINTR)))
    {
        if (nWritten < 0)
            continue;
        pLine += nWritten;
        nLength -= static_cast<size_t>(nWritten);
    }
    if (nWritten < 0 && errno == EPIPE && sigismember(&pending, SIGPIPE) == 0)
    {
        const timespec now = {0, 0};
        sigtimedwait(&brokenPipe, nullptr, &now);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}
} // namespace

// Every writer of the process: pending lines are moved when it ends, and a child process must leave
// those of its parent alone.
struct CLogFile::CWriter::CAllWriters
{
    CLogMutex mutex;
    CWriter* pFirst GUARDED_BY(mutex) = nullptr;

    void add(CWriter* pWriter);
    void remove(const CWriter* pWriter);

    static void beforeFork() NO_THREAD_SAFETY_ANALYSIS;
    static void afterForkInParent() NO_THREAD_SAFETY_ANALYSIS;
    static void afterForkInChild() NO_THREAD_SAFETY_ANALYSIS;
    static void atEnd() NO_THREAD_SAFETY_ANALYSIS;
};

constinit CLogFile::CWriter::CAllWriters CLogFile::CWriter::s_all;

void CLogFile::CWriter::CAllWriters::add(CWriter* pWriter)
{
    // Made by the first log file, so that it ends after all objects that were made later.
    static const struct CRegistration
    {
        CRegistration() { pthread_atfork(beforeFork, afterForkInParent, afterForkInChild); }
        ~CRegistration() { atEnd(); }
    } s_registration;
    const CLogHold hold(mutex);
    pWriter->m_pNext = pFirst;
    pFirst = pWriter;
}

void CLogFile::CWriter::CAllWriters::remove(const CWriter* pWriter)
{
    const CLogHold hold(mutex);
    CWriter** pp = &pFirst;
    while (*pp != pWriter)
        pp = &(*pp)->m_pNext;
    *pp = pWriter->m_pNext;
}

// The parent may end at once without cleaning up, as one that starts a daemon does: its lines come
// before those of the child.
void CLogFile::CWriter::CAllWriters::beforeFork()
{
    const CErrnoKeeper keeper;
    s_all.mutex.lock();
    for (CWriter* pWriter = s_all.pFirst; pWriter; pWriter = pWriter->m_pNext)
    {
        pWriter->m_mutex.lock();
        pWriter->movePending(milliseconds());
    }
}

void CLogFile::CWriter::CAllWriters::afterForkInParent()
{
    for (CWriter* pWriter = s_all.pFirst; pWriter; pWriter = pWriter->m_pNext)
        pWriter->m_mutex.unlock();
    s_all.mutex.unlock();
}

void CLogFile::CWriter::CAllWriters::afterForkInChild()
{
    forgetThreadIDs();
    for (CWriter* pWriter = s_all.pFirst; pWriter; pWriter = pWriter->m_pNext)
    {
        pWriter->m_bCollecting = false;
        pWriter->m_pending.abandon();
    }
    afterForkInParent();
}

// Other threads may still be running, and write their lines one by one from here on. A lock that is
// not to be had belongs to a thread that was interrupted for good: its lines stay in the pending file.
void CLogFile::CWriter::CAllWriters::atEnd()
{
    const CLogHold hold(s_all.mutex);
    for (CWriter* pWriter = s_all.pFirst; pWriter; pWriter = pWriter->m_pNext)
    {
        bool bLocked = pWriter->m_mutex.tryLock();
        for (int nTry = 0; !bLocked && nTry < 1000; ++nTry)
        {
            const timespec pause = {0, 1000000};
            nanosleep(&pause, nullptr);
            bLocked = pWriter->m_mutex.tryLock();
        }
        if (!bLocked)
            continue;
        pWriter->m_ullCollectAt = UINT64_MAX;
        pWriter->movePending(milliseconds());
        pWriter->stopCollecting();
        pWriter->m_mutex.unlock();
    }
}

CLogFile::CWriter::CWriter(const char* pszName, const char* pszFileName, bool bTruncate, bool bProcessID, bool bSyslog)
    : m_bSyslog(bSyslog), m_target(pszFileName, bTruncate, bProcessID), m_ullDirectLeft(DIRECT_LINES)
{
    snprintf(m_szName, sizeof(m_szName), "%s", pszName ? pszName : "");
    {
        const CLogHold hold(m_mutex);
        copySettings(CLogSettings());
    }
    s_all.add(this);
}

CLogFile::CWriter::~CWriter()
{
    s_all.remove(this);
    const CLogHold hold(m_mutex);
    const uint64_t ullNow = milliseconds();
    m_ullTryAt = 0;
    if (movePending(ullNow))
        tellLost(ullNow);
}

void CLogFile::CWriter::applySettings(const CLogSettings& settings)
{
    const CLogHold hold(m_mutex);
    m_ullTryAt = 0;
    const bool bElsewhere = m_target.isElsewhere(settings);
    // Lines for which there is no room now go before those that follow, unless they go elsewhere.
    if (movePending(milliseconds()) || bElsewhere)
        stopCollecting();
    if (bElsewhere)
        m_target.forget();
    copySettings(settings);
}

void CLogFile::CWriter::copySettings(const CLogSettings& settings)
{
    m_settings = settings;
    m_settings.pszFolder = m_settings.pszExtension = m_settings.pszLinePrefix = nullptr;
    m_head.applySettings(settings);
    m_target.applySettings(settings);
    if (!m_target.hasName())
        m_settings.nFileEnabled = 0;
    m_uMaxLineLength = settings.nMaxLineLength;
    m_uSyslogMask = settings.nSyslogMask;
    m_bSyslogAlarms = m_bSyslog && settings.nSyslogAlarms != 0;
    const unsigned int uFileMask = m_settings.nFileEnabled ? settings.nFileMask : 0;
    m_uWanted = settings.nSyslogMask | settings.nStderrMask | uFileMask;
    m_uCollected = settings.nSyncEachLine ? 0 : uFileMask & ~(settings.nSyslogMask | settings.nStderrMask);
    m_ullTryAt = 0;
    if (m_ullCollectAt != UINT64_MAX)
        m_ullCollectAt = 0;
}

int CLogFile::CWriter::collectLine(LogLib_Priority priority, const char* pszFormat, va_list arguments)
{
    if (!m_bCollecting.load(std::memory_order_relaxed))
        return 0;
    const CErrnoKeeper keeper;
    const CLogHold hold(m_mutex);
    if (!m_bCollecting || !contains(m_uCollected, priority) || m_ullLost > 0)
        return 0;
    const uint64_t ullNow = milliseconds();
    const bool bOld = ullNow - m_ullPendingAt >= PENDING_MS;
    if (bOld || m_pending.room() < PENDING_ROOM)
    {
        if (!movePending(ullNow))
            return 0;
        m_bCollecting = !bOld || !takeDirectTurn(ullNow);
        if (!m_bCollecting)
            return 0;
    }
    if (m_pending.length() == 0)
        m_ullPendingAt = ullNow;

    char* const pLine = m_pending.end();
    char* const pText = pLine + m_head.write(pLine, priority);
    const size_t nRoom = m_pending.room() - static_cast<size_t>(pText - pLine) - 1;
    keeper.restore();
    const int nFormatted = formatText(pText, nRoom, pszFormat, arguments);
    if (nFormatted < 0)
        return 0;
    const size_t nMaxLength = m_settings.nMaxLineLength ? m_settings.nMaxLineLength : nRoom;
    const size_t nText = std::min(static_cast<size_t>(nFormatted), nMaxLength);
    blankControls(pText, nText);
    pText[nText] = '\n';
    const size_t nLine = static_cast<size_t>(pText - pLine) + nText + 1;
    m_pending.add(nLine);
    return static_cast<int>(nLine);
}

// Counts a line that is to be written by itself, unless there were too many of them.
bool CLogFile::CWriter::takeDirectTurn(uint64_t ullNow)
{
    m_ullDirectLeft = std::min(DIRECT_LINES, m_ullDirectLeft + (ullNow - m_ullDirectAt) * DIRECT_LINES_PER_MS);
    m_ullDirectAt = ullNow;
    if (m_ullDirectLeft == 0)
        return false;
    --m_ullDirectLeft;
    return true;
}

void CLogFile::CWriter::startCollecting(uint64_t ullNow)
{
    if (m_bCollecting || m_uCollected == 0 || ullNow < m_ullCollectAt)
        return;
    // There may have been no room for what a killed process left when the log file was opened.
    if (!m_pending.isOpen())
        CLogPending::recover(m_target.path());
    m_bCollecting = m_pending.isOpen() || m_pending.open(m_target.path());
    if (!m_bCollecting)
        m_ullCollectAt = ullNow + m_settings.nRetryMilliseconds;
}

void CLogFile::CWriter::stopCollecting()
{
    m_bCollecting = false;
    m_pending.close();
}

// False when some are left; they are tried again later, and no other line overtakes them.
bool CLogFile::CWriter::movePending(uint64_t ullNow)
{
    const size_t nPending = m_pending.length();
    if (nPending == 0)
        return true;
    if (ullNow < m_ullTryAt)
        return false;
    const bool bMoved = m_target.makeRoom(nPending + 1, ullNow) && m_pending.moveInto(m_target.descriptor());
    if (!bMoved)
        failed(ullNow);
    m_target.grown(nPending - m_pending.length());
    return bMoved;
}

int CLogFile::CWriter::writeLine(LogLib_Priority priority, CLogText& text)
{
    int nWritten = 0;
    text.makeOneLine();
    {
        const CLogHold hold(m_mutex);
        if (m_settings.nFileEnabled && contains(m_settings.nFileMask, priority))
            nWritten = writeToFile(priority, text);
        if (contains(m_settings.nStderrMask, priority))
        {
            char szHead[CLogHead::MAX_LENGTH];
            const size_t nHead = m_head.write(szHead, priority);
            writeToStandardError(text.asLine(szHead, nHead), nHead + text.length() + 1);
        }
    }
    if (contains(m_uSyslogMask, priority))
        syslog(LOG_INFO | LOG_DAEMON, "%s: %.*s", m_szName, static_cast<int>(text.length()), text.text());
    return nWritten;
}

bool CLogFile::CWriter::writeAlarm(CLogText& text)
{
    text.makeOneLine();
    const bool bSyslog = m_bSyslogAlarms;
    if (bSyslog)
        syslog(LOG_ALERT | LOG_DAEMON, "%s: %.*s", m_szName, static_cast<int>(text.length()), text.text());
    const CLogHold hold(m_mutex);
    const bool bFile = m_settings.nFileEnabled && writeToFile(LogLib_High, text) > 0;
    return bSyslog || bFile;
}

void CLogFile::CWriter::flush()
{
    const CLogHold hold(m_mutex);
    const uint64_t ullNow = milliseconds();
    if (movePending(ullNow) && m_pending.isOpen() && ullNow - m_ullPendingAt >= PENDING_IDLE_MS)
        stopCollecting();
}

int CLogFile::CWriter::writeToFile(LogLib_Priority priority, CLogText& text)
{
    const uint64_t ullNow = milliseconds();
    const bool bTooMany = !takeDirectTurn(ullNow);
    const int nTold = ullNow < m_ullTryAt || !movePending(ullNow) ? -1 : tellLost(ullNow);
    if (nTold >= 0)
    {
        const int nWritten = append(priority, text, ullNow);
        // Else the last bytes of a disk would fill up with lines that tell of one lost line each.
        const bool bTakenBack = nWritten < 0 && nTold > 0 && m_target.takeBack(static_cast<size_t>(nTold));
        if (!bTakenBack)
            m_ullLost = 0;
        if (bTooMany && nWritten > 0)
            startCollecting(ullNow); // only here it is sure where the file is
        if (nWritten > 0)
            return nWritten;
    }
    ++m_ullLost;
    return -1;
}

// Returns the length of the line that tells of lost lines, 0 when none were, -1 when it could not be
// written.
int CLogFile::CWriter::tellLost(uint64_t ullNow)
{
    if (m_ullLost == 0)
        return 0;
    char szBuffer[128];
    CLogText text;
    text.append(0, "%llu line%s lost: %s", static_cast<unsigned long long>(m_ullLost), m_ullLost == 1 ? "" : "s",
                strerror_r(m_nLostReason, szBuffer, sizeof(szBuffer)));
    return append(LogLib_High, text, ullNow);
}

int CLogFile::CWriter::append(LogLib_Priority priority, CLogText& text, uint64_t ullNow)
{
    char szHead[CLogHead::MAX_LENGTH];
    const size_t nHead = m_head.write(szHead, priority);
    const size_t nBytes = nHead + text.length() + 1;
    if (!m_target.makeRoom(nBytes + 1, ullNow) || !m_target.write(text.asLine(szHead, nHead), nBytes))
    {
        failed(ullNow);
        return -1;
    }
    if (m_settings.nSyncEachLine)
        m_target.sync();
    return static_cast<int>(nBytes);
}

void CLogFile::CWriter::failed(uint64_t ullNow)
{
    m_nLostReason = errno;
    m_ullTryAt = ullNow + m_settings.nRetryMilliseconds;
}

} // namespace OrvLogLib
