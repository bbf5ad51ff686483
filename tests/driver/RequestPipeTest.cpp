// The request pipe: fresh, for everybody, one driver at a time, and whole records only.
#include "RequestPipe.h"
#include "DriverTestSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

using testing::HasSubstr;

namespace
{
const char* const PATH = MI_REQUEST_PIPE;
const char* const LOCK = MI_REQUEST_PIPE ".lock";

class RequestPipe : public testing::Test
{
protected:
    RequestPipe()
    {
        ::unlink(PATH);
        ::unlink(LOCK);
    }
    ~RequestPipe() override
    {
        ::unlink(PATH);
        ::unlink(LOCK);
    }

    void MustOpen(CRequestPipe& pipe)
    {
        std::string strError;
        ASSERT_TRUE(pipe.Open(strError)) << strError;
    }
    static std::string ErrorOfOpen()
    {
        CRequestPipe pipe;
        std::string strError;
        EXPECT_FALSE(pipe.Open(strError));
        return strError;
    }
    static bool Exists(const char* pPath) { return ::access(pPath, F_OK) == 0; }

    CLogCapture m_log;
};
} // namespace

TEST_F(RequestPipe, IsAFifoForEverybodyWhateverTheUmask)
{
    const mode_t nFormer = ::umask(0077);
    CRequestPipe pipe;
    MustOpen(pipe);
    ::umask(nFormer);
    struct stat status = {};
    ASSERT_EQ(::stat(PATH, &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0666U);
}

TEST_F(RequestPipe, IsRemovedAtTheEndWithItsLock)
{
    {
        CRequestPipe pipe;
        MustOpen(pipe);
        EXPECT_TRUE(Exists(PATH));
    }
    EXPECT_FALSE(Exists(PATH));
    EXPECT_FALSE(Exists(LOCK));
}

TEST_F(RequestPipe, IsFreshSoThatClientsOfAnEarlierDriverFindTheirsBroken)
{
    ::signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(::mkfifo(PATH, 0600), 0);
    CFd fdOldDriver(::open(PATH, O_RDWR | O_NONBLOCK));
    const CFd fdOldClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    fdOldDriver.Close();
    CRequestPipe pipe;
    MustOpen(pipe);
    EXPECT_EQ(::write(fdOldClient.Get(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(RequestPipe, HasOnlyOneDriver)
{
    CRequestPipe pipe;
    MustOpen(pipe);
    EXPECT_THAT(ErrorOfOpen(), HasSubstr("another driver is running"));
    EXPECT_TRUE(Exists(PATH));
    EXPECT_TRUE(Exists(LOCK));
}

TEST_F(RequestPipe, NeverReplacesWhatIsNoFifo)
{
    WriteBytes(PATH, {1, 2, 3});
    EXPECT_THAT(ErrorOfOpen(), HasSubstr("exists and is not a FIFO"));
    EXPECT_EQ(ReadBytes(PATH), (CSamples{1, 2, 3}));
    ::unlink(PATH);
    ASSERT_EQ(::symlink("/tmp/elsewhere", PATH), 0);
    EXPECT_THAT(ErrorOfOpen(), HasSubstr("exists and is not a FIFO"));
    EXPECT_FALSE(Exists("/tmp/elsewhere"));
}

TEST_F(RequestPipe, FollowsNoLinkToItsLock)
{
    ASSERT_EQ(::symlink("/tmp/elsewhere", LOCK), 0);
    EXPECT_THAT(ErrorOfOpen(), HasSubstr("cannot open the lock file"));
    EXPECT_FALSE(Exists("/tmp/elsewhere"));
    ::unlink(LOCK);
    ASSERT_EQ(::mkfifo(LOCK, 0600), 0);
    EXPECT_THAT(ErrorOfOpen(), HasSubstr("is not a regular file"));
}

TEST_F(RequestPipe, LeavesAPipeAloneThatTookItsPlace)
{
    {
        CRequestPipe pipe;
        MustOpen(pipe);
        ASSERT_EQ(::unlink(PATH), 0);
        ASSERT_EQ(::mkfifo(PATH, 0600), 0);
    }
    EXPECT_TRUE(Exists(PATH));
}

TEST_F(RequestPipe, GivesOutRecordsInOrderAndThenNone)
{
    CRequestPipe pipe;
    MustOpen(pipe);
    structMICMD cmd;
    EXPECT_FALSE(pipe.Read(cmd));
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    for (std::uint32_t n = 1; n <= 3; ++n)
    {
        const structMICMD sent = Command(MICMD_PING, 1, n);
        ASSERT_EQ(::write(fdClient.Get(), &sent, sizeof(sent)), 280);
    }
    for (std::uint32_t n = 1; n <= 3; ++n)
    {
        ASSERT_TRUE(pipe.Read(cmd));
        EXPECT_EQ(cmd.nSequenceNo, n);
    }
    EXPECT_FALSE(pipe.Read(cmd));
}

TEST_F(RequestPipe, DropsBytesThatAreNoRecord)
{
    CRequestPipe pipe;
    MustOpen(pipe);
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    ASSERT_EQ(::write(fdClient.Get(), "hello", 5), 5);
    structMICMD cmd;
    EXPECT_FALSE(pipe.Read(cmd));
    EXPECT_THAT(m_log.Text(), HasSubstr("dropped 5 bytes"));
    const structMICMD sent = Command(MICMD_PING, 1, 9);
    ASSERT_EQ(::write(fdClient.Get(), &sent, sizeof(sent)), 280);
    ASSERT_TRUE(pipe.Read(cmd));
    EXPECT_EQ(cmd.nSequenceNo, 9U);
}
