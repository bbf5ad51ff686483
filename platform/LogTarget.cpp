// CLogTarget: the file that lines are written into: where it is, its rotation, whole writes.
#include "LogTarget.h"

#include "LogPending.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
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

bool isLogFile(int nFile)
{
    struct stat status;
    return fstat(nFile, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           (status.st_uid == geteuid() || status.st_uid == 0);
}

const char* defaultFolder()
{
    static constexpr char szSystemFolder[] = "/var/log/zelmedia";
    struct stat status;
    return stat(szSystemFolder, &status) == 0 && S_ISDIR(status.st_mode) &&
                   faccessat(AT_FDCWD, szSystemFolder, W_OK | X_OK, AT_EACCESS) == 0
               ? szSystemFolder
               : "/tmp";
}
} // namespace

uint64_t fileSizeLimit()
{
    rlimit limit;
    return getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY ? limit.rlim_cur : UINT64_MAX;
}

int openLogFile(const char* pszPath)
{
    // Without O_NONBLOCK a FIFO in place of the file would hold up the caller here.
    const int nFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    const int nFile = open(pszPath, nFlags, 0640);
    if (nFile >= 0 && !isLogFile(nFile))
    {
        close(nFile);
        errno = EPERM;
        return -1;
    }
    return nFile;
}

CLogTarget::CLogTarget(const char* pszFileName, bool bTruncate, bool bProcessID)
    : m_bTruncate(bTruncate), m_bProcessID(bProcessID)
{
    snprintf(m_szFileName, sizeof(m_szFileName), "%s", textOr(pszFileName, ""));
    applySettings(CLogSettings());
}

bool CLogTarget::isElsewhere(const CLogSettings& settings) const
{
    return !strchr(m_szFileName, '/') && (strcmp(m_szFolder, textOr(settings.pszFolder, "")) != 0 ||
                                          strcmp(m_szExtension, textOr(settings.pszExtension, ".log")) != 0);
}

void CLogTarget::applySettings(const CLogSettings& settings)
{
    m_settings = settings;
    m_settings.pszFolder = m_settings.pszExtension = m_settings.pszLinePrefix = nullptr;
    snprintf(m_szFolder, sizeof(m_szFolder), "%s", textOr(settings.pszFolder, ""));
    snprintf(m_szExtension, sizeof(m_szExtension), "%s", textOr(settings.pszExtension, ".log"));
    m_ullRotateAt = m_ullLookAt = 0;
}

void CLogTarget::forget()
{
    close();
    m_bStarted = false;
}

bool CLogTarget::buildPath(const char* pszFolder)
{
    int nLength;
    if (strchr(m_szFileName, '/'))
    {
        nLength = snprintf(m_szPath, sizeof(m_szPath), "%s", m_szFileName);
    }
    else
    {
        char szProcess[16] = "";
        if (m_bProcessID)
            snprintf(szProcess, sizeof(szProcess), "-p%d", static_cast<int>(getpid()));
        nLength = snprintf(m_szPath, sizeof(m_szPath), "%s/%s%s%s", pszFolder, m_szFileName, szProcess, m_szExtension);
    }
    errno = ENAMETOOLONG;
    return nLength > 0 && nLength < static_cast<int>(sizeof(m_szPath));
}

bool CLogTarget::open()
{
    const char* const pszFolder = m_szFolder[0] ? m_szFolder : defaultFolder();
    if (!buildPath(pszFolder))
        return false;
    if (!m_bStarted)
        recoverLines(pszFolder);
    m_nFile = openLogFile(m_szPath);
    struct stat status;
    if (m_nFile < 0 || fstat(m_nFile, &status) != 0)
    {
        close();
        return false;
    }
    m_device = status.st_dev;
    m_inode = status.st_ino;
    m_ullSize = static_cast<uint64_t>(status.st_size);
    m_bBrokenLine = false;
    return true;
}

// Killed processes had other ids, and so other files.
void CLogTarget::recoverLines(const char* pszFolder)
{
    CLogPending::recover(m_szPath);
    if (!m_bProcessID || strchr(m_szFileName, '/'))
        return;
    char szNameBegin[PATH_MAX + 4];
    snprintf(szNameBegin, sizeof(szNameBegin), "%s-p", m_szFileName);
    CLogPending::recoverAll(pszFolder, szNameBegin, m_szExtension);
}

void CLogTarget::close()
{
    if (m_nFile >= 0)
        ::close(m_nFile);
    m_nFile = -1;
}

bool CLogTarget::isStillThere()
{
    struct stat status;
    if (lstat(m_szPath, &status) != 0 || status.st_dev != m_device || status.st_ino != m_inode)
        return false;
    m_ullSize = static_cast<uint64_t>(status.st_size); // someone may have cut it
    return true;
}

void CLogTarget::lookForFile(uint64_t ullNow)
{
    if (m_nFile < 0 || m_settings.nReopenMilliseconds == 0 || ullNow < m_ullLookAt)
        return;
    if (!isStillThere())
        close();
    m_ullLookAt = ullNow + m_settings.nReopenMilliseconds;
}

// Leaves the file closed and its name free, or the file open and empty; false when the names could
// not be moved, with the file as it was.
bool CLogTarget::rotate()
{
    if (!isStillThere())
    {
        close();
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
        if (lstat(szTo, &status) == 0)
            continue;
        if (errno != ENOENT)
            return false; // there may be a file that would be overwritten
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
    close();
    return true;
}

bool CLogTarget::makeRoom(size_t nBytes, uint64_t ullNow)
{
    lookForFile(ullNow);
    if (m_nFile < 0 && !open())
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
        if (m_nFile < 0 && !open())
            return false;
    }
    // A write beyond the limit of the process would raise SIGXFSZ.
    errno = EFBIG;
    return m_ullSize + nBytes <= ullLimit && endBrokenLine();
}

bool CLogTarget::endBrokenLine()
{
    if (m_bBrokenLine && !write("\n", 1))
        return false;
    m_bBrokenLine = false;
    return true;
}

bool CLogTarget::write(const char* pBytes, size_t nBytes)
{
    size_t nDone = 0;
    while (nDone < nBytes)
    {
        const ssize_t nWritten = ::write(m_nFile, pBytes + nDone, nBytes - nDone);
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

bool CLogTarget::takeBack(size_t nBytes)
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

void CLogTarget::sync()
{
    fdatasync(m_nFile);
}

} // namespace OrvLogLib
