// Tests of the file that lines go into, with times of the test's own.
#include "LogTarget.h"
#include "LogFileSupport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace logtest;
using namespace OrvLogLib;

namespace
{
class LogTarget : public LogFileTest
{
protected:
    LogTarget() : m_strFile(path("file.log")), m_target(m_strFile.c_str(), false, false) {}

    const std::string m_strFile;
    CLogTarget m_target;
};
} // namespace

TEST_F(LogTarget, WhatAnotherProcessWroteBehindALineIsNotCutOffWithIt)
{
    ASSERT_TRUE(m_target.makeRoom(5, 0));
    ASSERT_TRUE(m_target.write("mine\n", 5));
    const int nOther = open(m_strFile.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_EQ(write(nOther, "theirs\n", 7), 7);
    close(nOther);
    EXPECT_FALSE(m_target.takeBack(5));
    EXPECT_EQ(contentOf(m_strFile), "mine\ntheirs\n");
}

TEST_F(LogTarget, LastLineIsTakenBack)
{
    ASSERT_TRUE(m_target.makeRoom(10, 0));
    ASSERT_TRUE(m_target.write("first\n", 6));
    ASSERT_TRUE(m_target.write("second\n", 7));
    EXPECT_TRUE(m_target.takeBack(7));
    EXPECT_EQ(contentOf(m_strFile), "first\n");
}

TEST_F(LogTarget, RotationThatIsRefusedIsTriedAgainAfterThePause)
{
    m_settings.nMaxFileMegabytes = 1;
    m_settings.nRotatedFiles = 1;
    m_settings.nRetryMilliseconds = 1000;
    m_target.applySettings(m_settings);
    const std::string strMegabyte(1024 * 1024, 'x');
    ASSERT_TRUE(m_target.makeRoom(strMegabyte.size(), 0));
    ASSERT_TRUE(m_target.write(strMegabyte.data(), strMegabyte.size()));

    const std::string strRotated = m_strFile + ".1";
    ASSERT_EQ(mkdir(strRotated.c_str(), 0700), 0);
    EXPECT_TRUE(m_target.makeRoom(1, 5000));
    ASSERT_EQ(rmdir(strRotated.c_str()), 0);
    EXPECT_TRUE(m_target.makeRoom(1, 5999));
    EXPECT_FALSE(exists(strRotated));
    EXPECT_TRUE(m_target.makeRoom(1, 6000));
    EXPECT_TRUE(exists(strRotated));
}
