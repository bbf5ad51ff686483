// Which file system a path is on, by the list of mount points.
#include "MountTable.h"
#include "DriverTestSupport.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace
{
constexpr const char* TABLE = "22 1 8:1 / / rw,relatime - ext4 /dev/sda1 rw\n"
                              "30 22 0:50 / /srv/rec rw,relatime shared:5 - nfs server:/rec rw\n"
                              "31 22 0:51 / /srv/rec/old rw,relatime - nfs server:/old rw\n"
                              "32 22 0:52 / /with\\040blank\\134 rw,relatime - tmpfs tmpfs rw\n";
} // namespace

TEST(MountTable, TakesTheLongestMountPointThatHoldsThePath)
{
    const CMountTable table(TABLE);
    EXPECT_EQ(table.fileSystemOf("/"), "8:1");
    EXPECT_EQ(table.fileSystemOf("/srv/a.wav"), "8:1");
    EXPECT_EQ(table.fileSystemOf("/srv/rec"), "0:50");
    EXPECT_EQ(table.fileSystemOf("/srv/rec/a.wav"), "0:50");
    EXPECT_EQ(table.fileSystemOf("/srv/rec/old/a.wav"), "0:51");
    EXPECT_EQ(table.fileSystemOf("/srv/recent/a.wav"), "8:1") << "another folder that begins alike";
}

TEST(MountTable, ReadsMountPointsWithBlanks)
{
    const CMountTable table(TABLE);
    EXPECT_EQ(table.fileSystemOf("/with blank\\/a.wav"), "0:52");
}

TEST(MountTable, TakesWhatIsMountedLastOverOnePlace)
{
    const CMountTable table(std::string(TABLE) + "40 30 0:60 / /srv/rec rw - tmpfs tmpfs rw\n");
    EXPECT_EQ(table.fileSystemOf("/srv/rec/a.wav"), "0:60");
}

TEST(MountTable, KnowsNothingWithoutATable)
{
    EXPECT_EQ(CMountTable("").fileSystemOf("/a"), "");
    EXPECT_EQ(CMountTable("rubbish\n\n1 2 3\n1 2 3 4 nowhere\n").fileSystemOf("/a"), "");
}

TEST(Mounts, AreThoseOfTheSystem)
{
    CMounts mounts;
    struct stat status = {};
    ASSERT_EQ(::stat("/proc/self", &status), 0);
    EXPECT_EQ(mounts.table()->fileSystemOf("/proc/self/status"),
              std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev)));
    EXPECT_EQ(mounts.table(), mounts.table()) << "read again without a reason";
}

TEST(Mounts, AreReadAgainWhenTheyHaveChanged)
{
    const CTempFolder folder;
    CMounts mounts;
    const std::string strBefore = mounts.table()->fileSystemOf(folder.path("a"));
    if (::mount("tmpfs", folder.folder().c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "nothing can be mounted here";
    EXPECT_NE(mounts.table()->fileSystemOf(folder.path("a")), strBefore);
    ASSERT_EQ(::umount(folder.folder().c_str()), 0);
    EXPECT_EQ(mounts.table()->fileSystemOf(folder.path("a")), strBefore);
}

TEST(Mounts, WithoutTheSystemsListThereIsOneFileSystem)
{
    CMounts mounts("/nowhere");
    EXPECT_EQ(mounts.table()->fileSystemOf("/a"), mounts.table()->fileSystemOf("/proc/b"));
}

TEST(PlainPath, IsAbsoluteAndWithoutDetours)
{
    EXPECT_EQ(plainPath("/a/b/../c//./d.wav"), "/a/c/d.wav");
    EXPECT_EQ(plainPath("x.wav"), (std::filesystem::current_path() / "x.wav").string());
    EXPECT_EQ(plainPath("/../a"), "/a");
}
