// CLogPending: lines on their way into a log file, kept where a killed process does not lose them.
#include "LogPending.h"

#include "LogTarget.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace OrvLogLib
{

// Of the same layout in processes of either width.
struct CLogPending::CFile
{
    char szMagic[16];
    uint32_t uBegin; // what is pending: bytes uBegin to uEnd of the text, none unless uBegin is less
    uint32_t uEnd;

    // While bytes are moved: from where on, and what the log file was before, so that it can be told
    // how many arrived.
    uint32_t bMoving;
    uint32_t uMovedFrom;
    uint64_t ullLogSize;
    uint64_t ullLogInode;

    alignas(64) char szText[CAPACITY];
};

namespace
{
constexpr char SUFFIX[] = ".pending";
constexpr char MAGIC[16] = "ZelMedia lines\n";
constexpr long XFS_MAGIC = 0x58465342;

// Elsewhere space that was allocated ahead may be missing again when it is written to.
bool keepsAllocatedSpace(int nFile)
{
    struct statfs system;
    if (fstatfs(nFile, &system) != 0)
        return false;
    const long nType = static_cast<long>(system.f_type);
    return nType == EXT4_SUPER_MAGIC || nType == XFS_MAGIC || nType == TMPFS_MAGIC;
}

bool beginsWith(const char* pszText, const char* pszBegin)
{
    return strncmp(pszText, pszBegin, strlen(pszBegin)) == 0;
}

bool endsWith(const char* pszText, size_t nText, const char* pszEnd)
{
    const size_t nEnd = strlen(pszEnd);
    return nText >= nEnd && memcmp(pszText + nText - nEnd, pszEnd, nEnd) == 0;
}

// The process may be killed between any two instructions: what was stored before is there then.
void storeInOrder(uint32_t& uNumber, uint32_t uNewNumber)
{
    std::atomic_ref<uint32_t>(uNumber).store(uNewNumber, std::memory_order_release);
}
} // namespace

// Maps the pending file of this log file.
bool CLogPending::attach(const char* pszLogPath, int nCreate)
{
    static_assert(sizeof(CFile) == 64 + CAPACITY);
    close();
    snprintf(m_szPath, sizeof(m_szPath), "%s%s", pszLogPath, SUFFIX);
    m_nFile = ::open(m_szPath, O_RDWR | nCreate | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600);
    if (m_nFile >= 0 && isOurs() && keepsAllocatedSpace(m_nFile) &&
        (nCreate ? fallocate(m_nFile, 0, 0, sizeof(CFile)) == 0 : hasContent()))
    {
        void* const pMapped =
            mmap(nullptr, sizeof(CFile), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, m_nFile, 0);
        if (pMapped != MAP_FAILED)
            m_pFile = static_cast<CFile*>(pMapped);
    }
    if (!m_pFile)
        abandon();
    return m_pFile != nullptr;
}

// A plain file of this user that no other process uses. Locks it.
bool CLogPending::isOurs() const
{
    struct stat status;
    struct stat named;
    return fstat(m_nFile, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
           status.st_nlink == 1 && flock(m_nFile, LOCK_EX | LOCK_NB) == 0 &&
           // The process that had the lock may have removed the file meanwhile.
           lstat(m_szPath, &named) == 0 && named.st_dev == status.st_dev && named.st_ino == status.st_ino;
}

bool CLogPending::hasContent() const
{
    char szMagic[sizeof(MAGIC)];
    struct stat status;
    return fstat(m_nFile, &status) == 0 && status.st_size == sizeof(CFile) &&
           pread(m_nFile, szMagic, sizeof(szMagic), 0) == sizeof(szMagic) && memcmp(szMagic, MAGIC, sizeof(MAGIC)) == 0;
}

bool CLogPending::open(const char* pszLogPath)
{
    if (!attach(pszLogPath, O_CREAT))
        return false;
    // Someone was killed, and there was no room in the log file for what he left.
    if (hasContent() && length() > 0)
    {
        abandon();
        return false;
    }
    memset(m_pFile, 0, offsetof(CFile, szText));
    memcpy(m_pFile->szMagic, MAGIC, sizeof(MAGIC));
    return true;
}

void CLogPending::close()
{
    if (isOpen() && length() == 0)
        unlink(m_szPath);
    abandon();
}

void CLogPending::abandon()
{
    if (m_pFile)
        munmap(m_pFile, sizeof(CFile));
    if (m_nFile >= 0)
        ::close(m_nFile);
    m_pFile = nullptr;
    m_nFile = -1;
}

size_t CLogPending::length() const
{
    return m_pFile && m_pFile->uBegin < m_pFile->uEnd ? m_pFile->uEnd - m_pFile->uBegin : 0;
}

char* CLogPending::end()
{
    return m_pFile->szText + m_pFile->uEnd;
}

size_t CLogPending::room() const
{
    return CAPACITY - m_pFile->uEnd;
}

void CLogPending::add(size_t nBytes)
{
    storeInOrder(m_pFile->uEnd, m_pFile->uEnd + static_cast<uint32_t>(nBytes));
}

bool CLogPending::moveInto(int nLogFile)
{
    struct stat status;
    if (fstat(nLogFile, &status) != 0)
        return false;
    m_pFile->uMovedFrom = m_pFile->uBegin;
    m_pFile->ullLogSize = static_cast<uint64_t>(status.st_size);
    m_pFile->ullLogInode = status.st_ino;
    storeInOrder(m_pFile->bMoving, 1);
    uint32_t uDone = m_pFile->uBegin;
    while (uDone < m_pFile->uEnd)
    {
        const ssize_t nWritten = write(nLogFile, m_pFile->szText + uDone, m_pFile->uEnd - uDone);
        if (nWritten > 0)
            uDone += static_cast<uint32_t>(nWritten);
        else if (nWritten == 0)
            errno = ENOSPC;
        if (nWritten == 0 || (nWritten < 0 && errno != EINTR))
            break;
    }
    const bool bAll = uDone >= m_pFile->uEnd;
    if (bAll)
    {
        storeInOrder(m_pFile->uEnd, 0);
        uDone = 0;
    }
    storeInOrder(m_pFile->uBegin, uDone);
    storeInOrder(m_pFile->bMoving, 0);
    return bAll;
}

// How many bytes had reached the log file when the process was killed while it moved them.
uint32_t CLogPending::arrivedBytes(int nLogFile) const
{
    struct stat status;
    if (!m_pFile->bMoving || fstat(nLogFile, &status) != 0 || status.st_ino != m_pFile->ullLogInode ||
        static_cast<uint64_t>(status.st_size) < m_pFile->ullLogSize)
        return 0;
    return static_cast<uint32_t>(
        std::min<uint64_t>(static_cast<uint64_t>(status.st_size) - m_pFile->ullLogSize, CAPACITY));
}

void CLogPending::recover(const char* pszLogPath)
{
    CLogPending left;
    if (!left.attach(pszLogPath, 0))
        return;
    CFile& file = *left.m_pFile;
    const int nLogFile = openLogFile(pszLogPath);
    if (nLogFile < 0)
    {
        left.abandon();
        return;
    }
    file.uEnd = std::min<uint32_t>(file.uEnd, CAPACITY);
    if (file.bMoving)
    {
        storeInOrder(file.uBegin, std::min(file.uMovedFrom, file.uEnd) + left.arrivedBytes(nLogFile));
        storeInOrder(file.bMoving, 0);
    }
    if (left.length() == 0 || left.moveInto(nLogFile))
        left.close();
    else
        left.abandon();
    ::close(nLogFile);
}

void CLogPending::recoverAll(const char* pszFolder, const char* pszNameBegin, const char* pszNameEnd)
{
    DIR* const pFolder = opendir(pszFolder);
    if (!pFolder)
        return;
    while (const dirent* const pEntry = readdir(pFolder))
    {
        const char* const pszName = pEntry->d_name;
        const size_t nName = strlen(pszName);
        if (!endsWith(pszName, nName, SUFFIX) || !beginsWith(pszName, pszNameBegin))
            continue;
        const size_t nLogName = nName - strlen(SUFFIX);
        char szLogPath[PATH_MAX];
        const int nLength =
            snprintf(szLogPath, sizeof(szLogPath), "%s/%.*s", pszFolder, static_cast<int>(nLogName), pszName);
        if (endsWith(pszName, nLogName, pszNameEnd) && nLength < static_cast<int>(sizeof(szLogPath)))
            recover(szLogPath);
    }
    closedir(pFolder);
}

} // namespace OrvLogLib
