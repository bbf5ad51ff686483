// CNewFile: a file that appears under its name only when it is complete.
#include "base/NewFile.h"

#include "base/ToolError.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace
{
constexpr int MAX_TRIES = 100; // names that are taken, of processes of this id that were killed

bool writeAll(int nFile, std::string_view content)
{
    while (!content.empty())
    {
        const ssize_t nWritten = write(nFile, content.data(), content.size());
        if (nWritten < 0 && errno != EINTR)
            return false;
        content.remove_prefix(nWritten > 0 ? static_cast<size_t>(nWritten) : 0);
    }
    return true;
}
} // namespace

CNewFile::CNewFile(const std::string& strPath, std::string_view content) : m_strPath(strPath)
{
    struct stat status = {};
    if (stat(strPath.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        throw CToolError(EXIT_CODE_USAGE, strPath + ": it is not a regular file");
    const int nFile = create();
    if (nFile < 0)
    {
        m_strTemporary.clear();
        fail(errno);
    }
    const bool bWritten = writeAll(nFile, content) && fsync(nFile) == 0;
    const int nErrno = errno;
    close(nFile);
    if (!bWritten)
        fail(nErrno);
}

CNewFile::~CNewFile()
{
    remove();
}

// Under a name of its own, with the rights that the umask leaves.
int CNewFile::create()
{
    int nFile = -1;
    for (int nTry = 0; nTry < MAX_TRIES && nFile < 0; ++nTry)
    {
        m_strTemporary = fmt::format("{}.{}-{}", m_strPath, getpid(), nTry);
        nFile = open(m_strTemporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (nFile < 0 && errno != EEXIST)
            break;
    }
    return nFile;
}

void CNewFile::putInPlace()
{
    if (rename(m_strTemporary.c_str(), m_strPath.c_str()) != 0)
        fail(errno);
    m_strTemporary.clear();
}

void CNewFile::fail(int nErrno)
{
    remove();
    throw CToolError(EXIT_CODE_FAILED, m_strPath + ": " + std::generic_category().message(nErrno));
}

void CNewFile::remove()
{
    if (!m_strTemporary.empty())
        unlink(m_strTemporary.c_str());
    m_strTemporary.clear();
}
