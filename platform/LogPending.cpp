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
#include <memory>
#include <new>
#include <string_view>
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

bool hasNumberBetween(std::string_view name, std::string_view begin, std::string_view end)
{
    if (name.size() <= begin.size() + end.size() || !name.starts_with(begin) || !name.ends_with(end))
        return false;
    return std::all_of(name.begin() + begin.size(), name.end() - end.size(),
                       [](char c) { return c >= '0' && c <= '9'; });
}

// Returns how many bytes were written; errno tells why not all.
uint32_t writeAll(int nFile, const char* pBytes, uint32_t uBytes)
{
    uint32_t uDone = 0;
    while (uDone < uBytes)
    {
        const ssize_t nWritten = write(nFile, pBytes + uDone, uBytes - uDone);
        if (nWritten > 0)
            uDone += static_cast<uint32_t>(nWritten);
        else if (nWritten == 0)
            errno = ENOSPC;
        if (nWritten == 0 || (nWritten < 0 && errno != EINTR))
            break;
    }
    return uDone;
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
    if (m_nFile >= 0 && isOurs() && (hasContent() || isBlank()))
    {
        if (keepsAllocatedSpace(m_nFile) && (nCreate ? allocate() : hasContent()))
            map();
        if (!m_pFile && isBlank())
            unlink(m_szPath);
    }
    if (!m_pFile)
        abandon();
    return m_pFile != nullptr;
}

bool CLogPending::allocate() const
{
    // Beyond the limit of the process this would raise SIGXFSZ.
    return sizeof(CFile) <= fileSizeLimit() && fallocate(m_nFile, 0, 0, sizeof(CFile)) == 0;
}

void CLogPending::map()
{
    void* const pMapped = mmap(nullptr, sizeof(CFile), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, m_nFile, 0);
    if (pMapped != MAP_FAILED)
        m_pFile = static_cast<CFile*>(pMapped);
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

// Just made, by this process or one that was killed then.
bool CLogPending::isBlank() const
{
    char szMagic[sizeof(MAGIC)];
    const ssize_t nRead = pread(m_nFile, szMagic, sizeof(szMagic), 0);
    return nRead >= 0 && std::all_of(szMagic, szMagic + nRead, [](char c) { return c == '\0'; });
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
    // Someone may have removed the file, and another process may have one there now.
    if (isOpen() && length() == 0 && isOurs())
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
    errno = EFBIG;
    if (m_pFile->ullLogSize + length() > fileSizeLimit())
        return false;
    storeInOrder(m_pFile->bMoving, 1);
    uint32_t uDone = m_pFile->uBegin;
    uDone += writeAll(nLogFile, m_pFile->szText + uDone, static_cast<uint32_t>(length()));
    const bool bAll = uDone >= m_pFile->uEnd;
    if (bAll)
    {
        storeInOrder(m_pFile->uEnd, 0);
        uDone = 0;
    }
    else
    {
        uDone = takeBackPart(nLogFile, uDone);
    }
    storeInOrder(m_pFile->uBegin, uDone);
    storeInOrder(m_pFile->bMoving, 0);
    return bAll;
}

// After a move that failed: cuts off the part of a line that the log file ends with, unless that is
// refused or another process has appended since. Returns up to where bytes are moved now.
uint32_t CLogPending::takeBackPart(int nLogFile, uint32_t uDone) const
{
    const int nError = errno;
    uint32_t uLines = uDone;
    while (uLines > m_pFile->uBegin && m_pFile->szText[uLines - 1] != '\n')
        --uLines;
    const uint64_t ullEnd = m_pFile->ullLogSize + (uDone - m_pFile->uBegin);
    struct stat status;
    if (fstat(nLogFile, &status) != 0 || static_cast<uint64_t>(status.st_size) != ullEnd ||
        ftruncate(nLogFile, static_cast<off_t>(ullEnd - (uDone - uLines))) != 0)
        uLines = uDone;
    errno = nError;
    return uLines;
}

// How many bytes had reached the log file when the process was killed while it moved them. They are
// compared, as other processes may have appended since.
uint32_t CLogPending::arrivedBytes(const char* pszLogPath) const
{
    const std::unique_ptr<char[]> pLog(new (std::nothrow) char[CAPACITY]);
    const int nLogFile = ::open(pszLogPath, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    struct stat status;
    ssize_t nRead = 0;
    if (pLog && nLogFile >= 0 && fstat(nLogFile, &status) == 0 && status.st_ino == m_pFile->ullLogInode)
        nRead = pread(nLogFile, pLog.get(), CAPACITY, static_cast<off_t>(m_pFile->ullLogSize));
    if (nLogFile >= 0)
        ::close(nLogFile);
    const char* const pMoved = m_pFile->szText + m_pFile->uMovedFrom;
    const char* const pEnd = m_pFile->szText + m_pFile->uEnd;
    const char* const pRead = pLog.get();
    return static_cast<uint32_t>(std::mismatch(pMoved, pEnd, pRead, pRead + std::max<ssize_t>(nRead, 0)).first -
                                 pMoved);
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
    file.uMovedFrom = std::min(file.uMovedFrom, file.uEnd);
    if (file.bMoving)
    {
        storeInOrder(file.uBegin, file.uMovedFrom + left.arrivedBytes(pszLogPath));
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
        const std::string_view name(pEntry->d_name);
        if (!name.ends_with(SUFFIX))
            continue;
        const std::string_view logName = name.substr(0, name.size() - strlen(SUFFIX));
        char szLogPath[PATH_MAX];
        const int nLength = snprintf(szLogPath, sizeof(szLogPath), "%s/%.*s", pszFolder,
                                     static_cast<int>(logName.size()), logName.data());
        if (hasNumberBetween(logName, pszNameBegin, pszNameEnd) && nLength < static_cast<int>(sizeof(szLogPath)))
            recover(szLogPath);
    }
    closedir(pFolder);
}

} // namespace OrvLogLib
