// Opening a path part by part, so that it is known which links it takes and where it leads.
#include "PathWalk.h"

#include "Text.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <climits>
#include <utility>

namespace
{
// As many as the system follows.
constexpr int MAX_LINKS = 40;

bool isTrusted(uid_t nUser)
{
    return nUser == 0 || nUser == ::geteuid();
}
} // namespace

CPathWalk::CPathWalk(std::string strPath, ELinks eLinks) : m_strPath(std::move(strPath)), m_eLinks(eLinks) {}

CPathWalk::EEnd CPathWalk::run(int nFlags, const HereFunction& isHere, CFd& fd, struct stat& status,
                               std::string& strError)
{
    if (!begin())
        return fail(errno, strError);
    for (;;)
    {
        const std::string strPart = nextPart();
        if (strPart.empty())
            return fail(m_strPath.empty() ? ENOENT : EISDIR, strError);
        const Step end = m_strRest.empty() ? openLast(strPart, nFlags, isHere, fd, status, strError)
                                           : enter(strPart, isHere, strError);
        if (end)
            return *end;
    }
}

CPathWalk::EEnd CPathWalk::fail(int nError, std::string& strError)
{
    m_nError = nError;
    strError = errnoText(nError);
    return EEnd::Failed;
}

bool CPathWalk::begin()
{
    const bool bAbsolute = m_strPath.starts_with('/');
    m_strDone = bAbsolute ? "" : ".";
    m_strRest = m_strPath;
    m_fdFolder = CFd(::open(bAbsolute ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    return m_fdFolder.isOpen();
}

// Takes it out of the rest. Behind the last part the rest is empty, unless the path ends with a slash.
std::string CPathWalk::nextPart()
{
    m_strRest.erase(0, m_strRest.find_first_not_of('/'));
    const std::string strPart = m_strRest.substr(0, m_strRest.find('/'));
    m_strRest.erase(0, strPart.size());
    return strPart;
}

CPathWalk::Step CPathWalk::enter(const std::string& strPart, const HereFunction& isHere, std::string& strError)
{
    CFd fd(::openat(m_fdFolder.get(), strPart.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!fd.isOpen() || ::fstat(fd.get(), &status) != 0)
        return fail(errno, strError);
    if (S_ISLNK(status.st_mode))
        return follow(fd, status, strPart, isHere, strError);
    if (!S_ISDIR(status.st_mode))
        return fail(ENOTDIR, strError);
    m_fdFolder = std::move(fd);
    m_strDone += "/" + strPart;
    return std::nullopt;
}

CPathWalk::Step CPathWalk::openLast(const std::string& strPart, int nFlags, const HereFunction& isHere, CFd& fd,
                                    struct stat& status, std::string& strError)
{
    // Non-blocking for the case that the path names a FIFO or a device.
    fd =
        CFd(::openat(m_fdFolder.get(), strPart.c_str(), nFlags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
    if (!fd.isOpen() && errno == ELOOP)
        return enter(strPart, isHere, strError);
    if (!fd.isOpen() || ::fstat(fd.get(), &status) != 0)
        return fail(errno, strError);
    if (!S_ISREG(status.st_mode))
    {
        strError = "it is not a regular file";
        return EEnd::Failed;
    }
    if ((nFlags & O_ACCMODE) != O_RDONLY && status.st_nlink > 1 && mayOthersPutNames())
    {
        strError = "it has other names, and others may write into its folder";
        return EEnd::Failed;
    }
    return EEnd::Opened;
}

CPathWalk::Step CPathWalk::follow(const CFd& fdLink, const struct stat& link, const std::string& strPart,
                                  const HereFunction& isHere, std::string& strError)
{
    std::array<char, PATH_MAX> target{};
    const ssize_t nTarget = ::readlinkat(fdLink.get(), "", target.data(), target.size());
    if (nTarget <= 0 || ++m_nLinks > MAX_LINKS)
        return fail(nTarget < 0 ? errno : ELOOP, strError);
    if (m_eLinks == ELinks::Trusted && (!isTrusted(link.st_uid) || (link.st_nlink > 1 && mayOthersPutNames())))
    {
        strError = fmt::format("the link \"{}/{}\" may be another user's: it belongs to user {}", printable(m_strDone),
                               printable(strPart), link.st_uid);
        return EEnd::Failed;
    }
    const std::string strTarget(target.data(), static_cast<size_t>(nTarget));
    m_strPath = (strTarget.starts_with('/') ? strTarget : m_strDone + "/" + strTarget) + m_strRest;
    if (!isHere(m_strPath))
        return EEnd::Elsewhere;
    if (!begin())
        return fail(errno, strError);
    return std::nullopt;
}

// Into the folder that the walk has come to.
bool CPathWalk::mayOthersPutNames() const
{
    struct stat folder = {};
    return m_eLinks == ELinks::Trusted && ::fstat(m_fdFolder.get(), &folder) == 0 &&
           (!isTrusted(folder.st_uid) || (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0);
}
