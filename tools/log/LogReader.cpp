// CLogReader: the lines of a log file, and of what is appended to it.
#include "log/LogReader.h"

#include "base/ToolError.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace
{
const size_t BUFFER_SIZE = 4 * CLogReader::MAX_LINE;
const int LOOK_AGAIN_MS = 100;

[[noreturn]] void cannotRead(const std::string& strPath, const char* pszReason)
{
    throw CToolError(EXIT_CODE_USAGE, "cannot read " + strPath + ": " + pszReason);
}
} // namespace

CLogReader::CLogReader(const std::string& strPath, EFollow follow)
    : m_strPath(strPath), m_pInterrupt(follow == FOLLOWING && strPath != "-" ? new CInterrupt : nullptr),
      m_vBuffer(BUFFER_SIZE)
{
    if (strPath == "-")
        m_nFile = STDIN_FILENO;
    else if (!open() && !m_pInterrupt)
        cannotRead(strPath, std::strerror(errno));
}

CLogReader::~CLogReader()
{
    if (m_nFile > STDIN_FILENO)
        close(m_nFile);
}

// False with errno when there is no such file.
bool CLogReader::open()
{
    // Whatever it is, a pipe without a writer included, opening it does not wait.
    const int nFile = ::open(m_strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (nFile < 0)
    {
        if (errno != ENOENT)
            cannotRead(m_strPath, std::strerror(errno));
        return false;
    }
    struct stat status;
    if (fstat(nFile, &status) != 0 || !S_ISREG(status.st_mode))
    {
        close(nFile);
        cannotRead(m_strPath, "it is not a file");
    }
    startAgain(nFile);
    return true;
}

void CLogReader::startAgain(int nFile)
{
    if (m_nFile != -1 && m_nFile != nFile)
        close(m_nFile);
    m_nFile = nFile;
    m_ullRead = 0;
    m_nBegin = m_nEnd = 0;
    m_bSkipping = false;
    m_bReplaced = false;
}

bool CLogReader::next(std::string_view& strvLine)
{
    while (!m_bInterrupted)
    {
        if (takeLine(strvLine))
            return true;
        if (m_nFile != -1 && readMore())
            m_bInterrupted = m_pInterrupt && wait(0);
        else if (!atEnd())
            return std::exchange(m_bLastLine, false) && takeLine(strvLine);
    }
    return false;
}

bool CLogReader::takeLine(std::string_view& strvLine)
{
    while (m_nBegin < m_nEnd)
    {
        const char* const pBegin = m_vBuffer.data() + m_nBegin;
        const size_t nThere = m_nEnd - m_nBegin;
        const char* const pEnd = static_cast<const char*>(std::memchr(pBegin, '\n', nThere));
        if (!pEnd && nThere < MAX_LINE)
            return false;
        const size_t nLength = pEnd ? static_cast<size_t>(pEnd - pBegin) : nThere;
        m_nBegin += pEnd ? nLength + 1 : nThere;
        if (std::exchange(m_bSkipping, pEnd == nullptr))
            continue;
        strvLine = std::string_view(pBegin, std::min(nLength, MAX_LINE));
        return true;
    }
    return false;
}

bool CLogReader::readMore()
{
    std::memmove(m_vBuffer.data(), m_vBuffer.data() + m_nBegin, m_nEnd - m_nBegin);
    m_nEnd -= std::exchange(m_nBegin, 0);
    ssize_t nRead;
    do
    {
        // One byte stays free: for the line end that the file may lack.
        nRead = read(m_nFile, m_vBuffer.data() + m_nEnd, m_vBuffer.size() - m_nEnd - 1);
    } while (nRead < 0 && errno == EINTR);
    if (nRead < 0)
        cannotRead(m_strPath, std::strerror(errno));
    m_nEnd += static_cast<size_t>(nRead);
    m_ullRead += static_cast<size_t>(nRead);
    return nRead > 0;
}

// At the end of what there is. Returns whether there may be more.
bool CLogReader::atEnd()
{
    if (!m_pInterrupt)
    {
        m_bLastLine = m_nBegin < m_nEnd;
        if (m_bLastLine)
            m_vBuffer[m_nEnd++] = '\n';
        return false;
    }
    if (m_nFile != -1 && isTruncated() && lseek(m_nFile, 0, SEEK_SET) == 0)
        startAgain(m_nFile);
    else if (m_nFile == -1 || m_bReplaced)
        m_bInterrupted = !open() && wait(LOOK_AGAIN_MS);
    else if (isReplaced())
        m_bReplaced = true;
    else
        m_bInterrupted = wait(LOOK_AGAIN_MS);
    return true;
}

bool CLogReader::isReplaced() const
{
    struct stat statusPath, statusFile;
    return stat(m_strPath.c_str(), &statusPath) == 0 && fstat(m_nFile, &statusFile) == 0 &&
           (statusPath.st_ino != statusFile.st_ino || statusPath.st_dev != statusFile.st_dev);
}

bool CLogReader::isTruncated() const
{
    struct stat status;
    return fstat(m_nFile, &status) == 0 && static_cast<uint64_t>(status.st_size) < m_ullRead;
}

bool CLogReader::wait(int nMilliseconds)
{
    return m_pInterrupt->wait(std::chrono::milliseconds(nMilliseconds));
}
