// Which file system a path is on, as far as that can be told without touching the file system.
#include "MountTable.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <sstream>

namespace
{
// Blanks, tabs, line ends and backslashes of a mount point are written as \ooo.
std::string unescape(std::string_view text)
{
    std::string strResult;
    for (size_t n = 0; n < text.size(); ++n)
    {
        const auto isOctal = [&](size_t nAt) { return nAt < text.size() && text[nAt] >= '0' && text[nAt] <= '7'; };
        if (text[n] == '\\' && isOctal(n + 1) && isOctal(n + 2) && isOctal(n + 3))
        {
            strResult += static_cast<char>((text[n + 1] - '0') * 64 + (text[n + 2] - '0') * 8 + (text[n + 3] - '0'));
            n += 3;
        }
        else
            strResult += text[n];
    }
    return strResult;
}

bool isBelow(const std::string& strPath, const std::string& strFolder)
{
    return strPath.starts_with(strFolder) && (strPath.size() == strFolder.size() || strPath[strFolder.size()] == '/');
}

std::string readAll(int nFd)
{
    std::string strText;
    std::array<char, 16384> buffer;
    ::lseek(nFd, 0, SEEK_SET);
    for (ssize_t nRead = 0; (nRead = ::read(nFd, buffer.data(), buffer.size())) > 0;)
        strText.append(buffer.data(), static_cast<size_t>(nRead));
    return strText;
}
} // namespace

CMountTable::CMountTable(std::string_view text)
{
    while (!text.empty())
    {
        const size_t nEnd = std::min(text.find('\n'), text.size());
        add(text.substr(0, nEnd));
        text.remove_prefix(std::min(nEnd + 1, text.size()));
    }
    // What is mounted over something else comes behind it in the list.
    std::reverse(m_vMounts.begin(), m_vMounts.end());
    std::stable_sort(m_vMounts.begin(), m_vMounts.end(), [](const CMount& left, const CMount& right) {
        return left.m_strPath.size() > right.m_strPath.size();
    });
}

// "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue"
void CMountTable::add(std::string_view line)
{
    std::istringstream stream{std::string(line)};
    std::string strID;
    std::string strParent;
    std::string strDevice;
    std::string strRoot;
    std::string strMountPoint;
    if (!(stream >> strID >> strParent >> strDevice >> strRoot >> strMountPoint) || strMountPoint.front() != '/')
        return;
    strMountPoint = unescape(strMountPoint);
    m_vMounts.push_back({strMountPoint == "/" ? "" : strMountPoint, strDevice});
}

const std::string& CMountTable::fileSystemOf(const std::string& strPath) const
{
    static const std::string NONE;
    const auto it = std::find_if(m_vMounts.begin(), m_vMounts.end(),
                                 [&strPath](const CMount& mount) { return isBelow(strPath, mount.m_strPath); });
    return it == m_vMounts.end() ? NONE : it->m_strDevice;
}

CMounts::CMounts(std::string strPath)
    : m_strPath(std::move(strPath)), m_fd(::open(m_strPath.c_str(), O_RDONLY | O_CLOEXEC))
{
}

std::shared_ptr<const CMountTable> CMounts::table()
{
    pollfd changed = {m_fd.get(), POLLPRI, 0};
    if (!m_pTable || (::poll(&changed, 1, 0) == 1 && (changed.revents & POLLPRI) != 0))
        m_pTable = std::make_shared<CMountTable>(m_fd.isOpen() ? readAll(m_fd.get()) : "");
    return m_pTable;
}

std::string plainPath(const std::string& strPath)
{
    std::error_code ignored;
    const auto folder = strPath.starts_with('/') ? std::filesystem::path("/") : std::filesystem::current_path(ignored);
    return (folder / strPath).lexically_normal().string();
}
