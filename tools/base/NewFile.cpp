// CNewFile: a file that appears under its name only when it is complete.
#include "base/NewFile.h"

#include "base/ToolError.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace
{
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
    m_strTemporary = strPath + ".XXXXXX";
    const int nFile = mkostemp(m_strTemporary.data(), 0);
    if (nFile < 0)
    {
        m_strTemporary.clear();
        fail(errno);
    }
    const mode_t nMask = umask(0);
    umask(nMask);
    const bool bWritten = fchmod(nFile, 0666 & ~nMask) == 0 && writeAll(nFile, content) && fsync(nFile) == 0;
    const int nErrno = errno;
    close(nFile);
    if (!bWritten)
        fail(nErrno);
}

CNewFile::~CNewFile()
{
    remove();
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
