#include "LogWriter.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace OrvLogLib
{

namespace
{
constexpr uint64_t BYTES_PER_MEGABYTE = 1048576;

const char* textOr(const char* pszText, const char* pszDefault)
{
    return pszText ? pszText : pszDefault;
}

uint64_t milliseconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

uint64_t fileSizeLimit()
{
    rlimit limit;
    return getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY ? limit.rlim_cur : UINT64_MAX;
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

CLogFile::CWriter::CWriter(const char* pszName, const char* pszFileName, bool bTruncate, bool bProcessID, bool bSyslog)
    : m_bTruncate(bTruncate), m_bProcessID(bProcessID), m_bSyslog(bSyslog)
{
    snprintf(m_szName, sizeof(m_szName), "%s", textOr(pszName, ""));
    snprintf(m_szFileName, sizeof(m_szFileName), "%s", textOr(pszFileName, ""));
    const CLogHold hold(m_mutex);
    m_szPath[0] = m_szSecond[0] = '\0';
    copySettings(CLogSettings());
}

CLogFile::CWriter::~CWriter()
{
    const CLogHold hold(m_mutex);
    tellLost(milliseconds());
    closeFile();
}

void CLogFile::CWriter::applySettings(const CLogSettings& settings)
{
    const CLogHold hold(m_mutex);
    const bool bSamePlace = strcmp(m_szFolder, textOr(settings.pszFolder, "")) == 0 &&
                            strcmp(m_szExtension, textOr(settings.pszExtension, ".log")) == 0;
    copySettings(settings);
    m_ullTryAt = m_ullRotateAt = m_ullLookAt = 0;
    m_tSecond = -1;
    if (!bSamePlace && !strchr(m_szFileName, '/'))
    {
        closeFile();
        m_bStarted = false;
    }
}

void CLogFile::CWriter::copySettings(const CLogSettings& settings)
{
    m_settings = settings;
    m_settings.pszFolder = m_settings.pszExtension = m_settings.pszLinePrefix = nullptr;
    snprintf(m_szFolder, sizeof(m_szFolder), "%s", textOr(settings.pszFolder, ""));
    snprintf(m_szExtension, sizeof(m_szExtension), "%s", textOr(settings.pszExtension, ".log"));
    snprintf(m_szLinePrefix, sizeof(m_szLinePrefix), "%s", textOr(settings.pszLinePrefix, ""));
    CLogText::blankControls(m_szLinePrefix, strlen(m_szLinePrefix));
    if (m_szFileName[0] == '\0')
        m_settings.nFileEnabled = 0;
    m_uMaxLineLength = settings.nMaxLineLength;
    m_uSyslogMask = settings.nSyslogMask;
    m_bSyslogAlarms = m_bSyslog && settings.nSyslogAlarms != 0;
    m_uWanted = settings.nSyslogMask | settings.nStderrMask | (m_settings.nFileEnabled ? settings.nFileMask : 0);
}

int CLogFile::CWriter::writeLine(LogLib_Priority priority, CLogText& text)
{
    int nWritten = 0;
    text.makeOneLine();
    {
        const CLogHold hold(m_mutex);
        if (m_settings.nFileEnabled && (m_settings.nFileMask & priority))
            nWritten = writeToFile(priority, text);
        if (m_settings.nStderrMask & priority)
        {
            char szHead[CLogText::HEAD_ROOM];
            const size_t nHead = formatHead(szHead, priority);
            writeToStandardError(text.asLine(szHead, nHead), nHead + text.length() + 1);
        }
    }
    if (m_uSyslogMask & priority)
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

bool CLogFile::CWriter::buildPath()
{
    int nLength;
    if (strchr(m_szFileName, '/'))
    {
        nLength = snprintf(m_szPath, sizeof(m_szPath), "%s", m_szFileName);
    }
    else
    {
        static constexpr char szSystemFolder[] = "/var/log/zelmedia";
        const char* pszFolder = m_szFolder;
        struct stat status;
        if (*pszFolder == '\0')
            pszFolder = stat(szSystemFolder, &status) == 0 && S_ISDIR(status.st_mode) &&
                                faccessat(AT_FDCWD, szSystemFolder, W_OK | X_OK, AT_EACCESS) == 0
                            ? szSystemFolder
                            : "/tmp";
        char szProcess[16] = "";
        if (m_bProcessID)
            snprintf(szProcess, sizeof(szProcess), "-p%d", static_cast<int>(getpid()));
        nLength = snprintf(m_szPath, sizeof(m_szPath), "%s/%s%s%s", pszFolder, m_szFileName, szProcess, m_szExtension);
    }
    errno = ENAMETOOLONG;
    return nLength > 0 && nLength < static_cast<int>(sizeof(m_szPath));
}

bool CLogFile::CWriter::openFile()
{
    if (!buildPath())
        return false;
    // Without O_NONBLOCK a FIFO in place of the file would hold up the caller here.
    const int nFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    const int nFile = open(m_szPath, nFlags, 0640);
    if (nFile < 0)
        return false;
    struct stat status;
    if (fstat(nFile, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1 ||
        (status.st_uid != geteuid() && status.st_uid != 0))
    {
        close(nFile);
        errno = EPERM;
        return false;
    }
    m_nFile = nFile;
    m_device = status.st_dev;
    m_inode = status.st_ino;
    m_ullSize = static_cast<uint64_t>(status.st_size);
    m_bBrokenLine = false;
    return true;
}

void CLogFile::CWriter::closeFile()
{
    if (m_nFile >= 0)
        close(m_nFile);
    m_nFile = -1;
}

bool CLogFile::CWriter::isStillThere()
{
    struct stat status;
    if (lstat(m_szPath, &status) != 0 || status.st_dev != m_device || status.st_ino != m_inode)
        return false;
    m_ullSize = static_cast<uint64_t>(status.st_size); // someone may have cut it
    return true;
}

void CLogFile::CWriter::lookForFile(uint64_t ullNow)
{
    if (m_nFile < 0 || m_settings.nReopenMilliseconds == 0 || ullNow < m_ullLookAt)
        return;
    if (!isStillThere())
        closeFile();
    m_ullLookAt = ullNow + m_settings.nReopenMilliseconds;
}

// Leaves the file closed and its name free, or the file open and empty; false when the names could
// not be moved, with the file as it was.
bool CLogFile::CWriter::rotate()
{
    if (!isStillThere())
    {
        closeFile();
        return true;
    }
    if (m_settings.nRotatedFiles == 0)
    {
        if (ftruncate(m_nFile, 0) != 0)
            return false;
        m_ullSize = 0;
        m_bBrokenLine = false;
        return true;
    }

    char szFrom[PATH_MAX + 16];
    char szTo[PATH_MAX + 16];
    struct stat status;
    unsigned int n = 1;
    for (; n < m_settings.nRotatedFiles; ++n)
    {
        snprintf(szTo, sizeof(szTo), "%s.%u", m_szPath, n);
        if (lstat(szTo, &status) != 0)
            break;
    }
    for (; n > 1; --n)
    {
        snprintf(szFrom, sizeof(szFrom), "%s.%u", m_szPath, n - 1);
        snprintf(szTo, sizeof(szTo), "%s.%u", m_szPath, n);
        if (rename(szFrom, szTo) != 0)
            return false;
    }
    snprintf(szTo, sizeof(szTo), "%s.1", m_szPath);
    if (rename(m_szPath, szTo) != 0)
        return false;
    closeFile();
    return true;
}

// Makes sure of an open file that may take nBytes more. False, with errno, when there is none.
bool CLogFile::CWriter::makeRoom(size_t nBytes, uint64_t ullNow)
{
    lookForFile(ullNow);
    if (m_nFile < 0 && !openFile())
        return false;
    const uint64_t ullLimit = fileSizeLimit();
    bool bRotate = false;
    if (!m_bStarted)
    {
        bRotate = m_settings.nStartFresh != 0;
        if (!bRotate && m_bTruncate && m_ullSize > 0 && ftruncate(m_nFile, 0) == 0)
            m_ullSize = 0;
        m_bStarted = true;
    }
    if (m_settings.nMaxFileMegabytes > 0 && ullNow >= m_ullRotateAt)
    {
        const uint64_t ullMax = m_settings.nMaxFileMegabytes * BYTES_PER_MEGABYTE;
        bRotate = bRotate || m_ullSize + nBytes > (ullMax < ullLimit ? ullMax : ullLimit);
    }
    if (bRotate && m_ullSize > 0)
    {
        // The file goes on growing when its names cannot be moved: better long than lost.
        if (!rotate())
            m_ullRotateAt = ullNow + m_settings.nRetryMilliseconds;
        if (m_nFile < 0 && !openFile())
            return false;
    }
    // A write beyond the limit of the process would raise SIGXFSZ.
    errno = EFBIG;
    return m_ullSize + nBytes <= ullLimit;
}

int CLogFile::CWriter::writeToFile(LogLib_Priority priority, CLogText& text)
{
    const uint64_t ullNow = milliseconds();
    const int nTold = ullNow < m_ullTryAt ? -1 : tellLost(ullNow);
    if (nTold >= 0)
    {
        const int nWritten = append(priority, text, ullNow);
        // Else the last bytes of a disk would fill up with lines that tell of one lost line each.
        const bool bTakenBack = nWritten < 0 && nTold > 0 && takeBack(static_cast<size_t>(nTold));
        if (!bTakenBack)
            m_ullLost = 0;
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
    char szHead[CLogText::HEAD_ROOM];
    const size_t nHead = formatHead(szHead, priority);
    const size_t nBytes = nHead + text.length() + 1;
    if (!makeRoom(nBytes + 1, ullNow) || !endBrokenLine() || !writeBytes(text.asLine(szHead, nHead), nBytes))
    {
        m_nLostReason = errno;
        m_ullTryAt = ullNow + m_settings.nRetryMilliseconds;
        return -1;
    }
    if (m_settings.nSyncEachLine)
        fdatasync(m_nFile);
    return static_cast<int>(nBytes);
}

bool CLogFile::CWriter::endBrokenLine()
{
    if (m_bBrokenLine && !writeBytes("\n", 1))
        return false;
    m_bBrokenLine = false;
    return true;
}

// All bytes or none, but for m_bBrokenLine.
bool CLogFile::CWriter::writeBytes(const char* pBytes, size_t nBytes)
{
    size_t nDone = 0;
    while (nDone < nBytes)
    {
        const ssize_t nWritten = write(m_nFile, pBytes + nDone, nBytes - nDone);
        if (nWritten > 0)
        {
            nDone += static_cast<size_t>(nWritten);
        }
        else if (nWritten == 0 || errno != EINTR)
        {
            const int nError = nWritten == 0 ? ENOSPC : errno;
            if (nDone > 0 && !takeBack(nDone))
            {
                m_bBrokenLine = true;
                m_ullSize += nDone;
            }
            errno = nError;
            return false;
        }
    }
    m_ullSize += nBytes;
    return true;
}

// Cuts off the last nBytes that were written; false, with the file as it was, when that is refused or
// another process has appended since.
bool CLogFile::CWriter::takeBack(size_t nBytes)
{
    const off_t nEnd = lseek(m_nFile, 0, SEEK_CUR);
    const off_t nNewEnd = nEnd - static_cast<off_t>(nBytes);
    struct stat status;
    if (nNewEnd < 0 || fstat(m_nFile, &status) != 0 || status.st_size != nEnd || ftruncate(m_nFile, nNewEnd) != 0)
        return false;
    lseek(m_nFile, nNewEnd, SEEK_SET); // appending does not need it, the next call of this does
    m_ullSize = static_cast<uint64_t>(nNewEnd);
    return true;
}

size_t CLogFile::CWriter::formatHead(char (&szHead)[CLogText::HEAD_ROOM], LogLib_Priority priority)
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != m_tSecond)
    {
        tm parts;
        if (m_settings.nUtc ? gmtime_r(&now.tv_sec, &parts) : localtime_r(&now.tv_sec, &parts))
            strftime(m_szSecond, sizeof(m_szSecond), "%Y-%m-%d %H:%M:%S", &parts);
        m_tSecond = now.tv_sec;
    }
    const bool bMicroseconds = m_settings.nMicroseconds != 0;
    const int nLength = snprintf(szHead, sizeof(szHead), "%s.%0*ld p%d t%d %d %s", m_szSecond, bMicroseconds ? 6 : 3,
                                 now.tv_nsec / (bMicroseconds ? 1000 : 1000000), static_cast<int>(getpid()),
                                 static_cast<int>(gettid()), static_cast<int>(priority), m_szLinePrefix);
    return static_cast<size_t>(nLength);
}

} // namespace OrvLogLib
