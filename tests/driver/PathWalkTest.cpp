// Opening part by part: the file that the system would open, the links that are refused, and where a walk stops.
#include "PathWalk.h"
#include "DriverTestSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <filesystem>

using testing::HasSubstr;

namespace
{
constexpr uid_t OTHER_USER = 12345;

class PathWalk : public testing::Test
{
protected:
    // The error, empty when it is opened.
    std::string open(const std::string& strPath, int nFlags = O_RDONLY, ELinks eLinks = ELinks::Trusted)
    {
        CPathWalk walk(strPath, eLinks);
        std::string strError;
        m_fd.close();
        const auto eEnd = walk.run(
            nFlags, [](const std::string&) { return true; }, m_fd, m_status, strError);
        EXPECT_EQ(eEnd == CPathWalk::EEnd::Opened, strError.empty());
        return strError;
    }

    std::string write(const std::string& strName, ELinks eLinks = ELinks::Trusted)
    {
        return open(m_folder.path(strName), O_RDWR | O_CREAT, eLinks);
    }

    void link(const std::string& strTarget, const std::string& strName, std::optional<uid_t> nOwner = {}) const
    {
        std::filesystem::create_symlink(strTarget, m_folder.path(strName));
        if (nOwner)
            ASSERT_EQ(::lchown(m_folder.path(strName).c_str(), *nOwner, *nOwner), 0);
    }

    bool isOpened(const std::string& strName) const
    {
        struct stat there = {};
        return ::stat(m_folder.path(strName).c_str(), &there) == 0 && there.st_ino == m_status.st_ino;
    }

    CTempFolder m_folder;
    CFd m_fd;
    struct stat m_status = {};
};

// Links of others can only be made by root.
class PathWalkAsRoot : public PathWalk
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "only root can make links of other users";
    }
};
} // namespace

TEST_F(PathWalk, OpensAndCreatesWhatTheSystemWould)
{
    std::filesystem::create_directories(m_folder.path("a/b"));
    EXPECT_EQ(write("a/b/new.wav"), "");
    EXPECT_TRUE(isOpened("a/b/new.wav"));
    EXPECT_EQ(open(m_folder.path("a//./b/../b/new.wav")), "");
    EXPECT_TRUE(isOpened("a/b/new.wav"));
    const auto former = std::filesystem::current_path();
    std::filesystem::current_path(m_folder.path("a"));
    EXPECT_EQ(open("b/../b/new.wav"), "");
    std::filesystem::current_path(former);
    EXPECT_TRUE(isOpened("a/b/new.wav"));
}

TEST_F(PathWalk, SaysWhyNothingCanBeOpened)
{
    writeBytes(m_folder.path("file"), {1});
    ASSERT_EQ(::mkfifo(m_folder.path("fifo").c_str(), 0600), 0);
    EXPECT_THAT(open(m_folder.path("none/a.wav")), HasSubstr("No such file"));
    EXPECT_THAT(open(m_folder.path("none.wav")), HasSubstr("No such file"));
    EXPECT_THAT(open(""), HasSubstr("No such file"));
    EXPECT_THAT(open(m_folder.path("file/a.wav")), HasSubstr("Not a directory"));
    EXPECT_THAT(write("file/"), HasSubstr("Not a directory"));
    EXPECT_THAT(open("/"), HasSubstr("Is a directory"));
    EXPECT_THAT(open(m_folder.folder()), HasSubstr("it is not a regular file"));
    EXPECT_THAT(write("fifo"), HasSubstr("it is not a regular file"));
    EXPECT_THAT(open("/dev/zero"), HasSubstr("it is not a regular file"));
}

TEST_F(PathWalk, FollowsLinksInEachPlace)
{
    std::filesystem::create_directories(m_folder.path("real/deep"));
    link("real", "relative");
    link(m_folder.path("real/deep"), "absolute");
    link("../real/deep/file.wav", "real/up.wav");
    link("relative/up.wav", "chain.wav");
    EXPECT_EQ(write("relative/deep/file.wav"), "");
    EXPECT_TRUE(isOpened("real/deep/file.wav"));
    EXPECT_EQ(write("absolute/file.wav"), "");
    EXPECT_TRUE(isOpened("real/deep/file.wav"));
    EXPECT_EQ(write("chain.wav"), "");
    EXPECT_TRUE(isOpened("real/deep/file.wav"));
    link("real/new.wav", "dangling.wav");
    EXPECT_EQ(write("dangling.wav"), "");
    EXPECT_TRUE(isOpened("real/new.wav"));
}

TEST_F(PathWalk, FollowsNoRingOfLinks)
{
    link("b", "a");
    link("a", "b");
    EXPECT_THAT(write("a"), HasSubstr("Too many levels of symbolic links"));
    EXPECT_THAT(write("a/file.wav"), HasSubstr("Too many levels of symbolic links"));
}

TEST_F(PathWalk, StopsAtALinkThatLeadsElsewhereAndGoesOnFromThere)
{
    std::filesystem::create_directories(m_folder.path("here"));
    std::filesystem::create_directories(m_folder.path("there"));
    link("../there", "here/link");
    const std::string strThere = std::filesystem::path(m_folder.path("there")).string();
    const auto isHere = [&strThere](const std::string& strPath) {
        return std::filesystem::path(strPath).lexically_normal().string().rfind(strThere, 0) != 0;
    };
    CPathWalk walk(m_folder.path("here/link/a.wav"), ELinks::Trusted);
    std::string strError;
    EXPECT_EQ(walk.run(O_RDWR | O_CREAT, isHere, m_fd, m_status, strError), CPathWalk::EEnd::Elsewhere);
    EXPECT_EQ(std::filesystem::path(walk.path()).lexically_normal(), strThere + "/a.wav");
    EXPECT_FALSE(std::filesystem::exists(m_folder.path("there/a.wav")));
    EXPECT_EQ(walk.run(O_RDWR | O_CREAT, isHere, m_fd, m_status, strError), CPathWalk::EEnd::Opened) << strError;
    EXPECT_TRUE(isOpened("there/a.wav"));
}

TEST_F(PathWalkAsRoot, RefusesALinkOfAnotherUser)
{
    std::filesystem::create_directories(m_folder.path("real"));
    link("real", "folder", OTHER_USER);
    link("real/file.wav", "file.wav", OTHER_USER);
    EXPECT_THAT(write("folder/a.wav"), HasSubstr("folder\" may be another user's: it belongs to user 12345"));
    EXPECT_THAT(write("file.wav"), HasSubstr("file.wav\" may be another user's: it belongs to user 12345"));
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.path("real")));
    EXPECT_EQ(write("folder/a.wav", ELinks::All), "");
    EXPECT_EQ(write("file.wav", ELinks::All), "");
}

TEST_F(PathWalkAsRoot, RefusesALinkOfAnotherUserBehindItsOwn)
{
    link("second.wav", "first.wav");
    link("file.wav", "second.wav", OTHER_USER);
    EXPECT_THAT(write("first.wav"), HasSubstr("second.wav\" may be another user's"));
}

TEST_F(PathWalkAsRoot, FollowsLinksOfRootAndOfItsOwnUser)
{
    ASSERT_EQ(::chmod(m_folder.folder().c_str(), 0777), 0);
    link("real.wav", "roots.wav");
    link("real.wav", "own.wav", OTHER_USER);
    ASSERT_EQ(::seteuid(OTHER_USER), 0);
    const std::string strRoots = write("roots.wav");
    const std::string strOwn = write("own.wav");
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(strRoots, "");
    EXPECT_EQ(strOwn, "");
}

TEST_F(PathWalk, RefusesSecondNamesWhereOthersCanHaveMadeThem)
{
    writeBytes(m_folder.path("file.wav"), {1});
    std::filesystem::create_hard_link(m_folder.path("file.wav"), m_folder.path("second.wav"));
    link("file.wav", "link.wav");
    ASSERT_EQ(::linkat(AT_FDCWD, m_folder.path("link.wav").c_str(), AT_FDCWD, m_folder.path("link2.wav").c_str(), 0),
              0);
    ASSERT_EQ(::chmod(m_folder.folder().c_str(), 0700), 0);
    EXPECT_EQ(write("second.wav"), "");
    EXPECT_EQ(write("link2.wav"), "");
    ASSERT_EQ(::chmod(m_folder.folder().c_str(), 01777), 0);
    EXPECT_THAT(write("second.wav"), HasSubstr("it has other names"));
    EXPECT_THAT(write("link2.wav"), HasSubstr("may be another user's"));
    EXPECT_EQ(write("second.wav", ELinks::All), "");
    EXPECT_EQ(open(m_folder.path("second.wav")), "") << "what is only read";
}
