// The request pipe: fresh, for everybody, one driver at a time, and bounded work for whatever is in it.
#include "RequestPipe.h"
#include "DriverTestSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>

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

    // A pipe whose clients are 1 and 2, each with the same latest number.
    std::unique_ptr<CRequestPipe> make()
    {
        return std::make_unique<CRequestPipe>(
            [this](int nConnectID) -> std::optional<uint32_t> {
                return nConnectID == 1 || nConnectID == 2 ? std::optional(m_nLatest) : std::nullopt;
            },
            m_rubbishLog);
    }
    std::unique_ptr<CRequestPipe> mustOpen()
    {
        auto pPipe = make();
        std::string strError;
        EXPECT_TRUE(pPipe->open(strError)) << strError;
        return pPipe;
    }
    std::string errorOfOpen()
    {
        std::string strError;
        EXPECT_FALSE(make()->open(strError));
        return strError;
    }
    static void write(int nFd, const CSamples& bytes)
    {
        ASSERT_EQ(::write(nFd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    static CSamples ping(uint32_t nSequenceNo, int nConnectID = 1)
    {
        const structMICMD cmd = command(MICMD_PING, nConnectID, nSequenceNo);
        const auto* pBytes = reinterpret_cast<const uint8_t*>(&cmd);
        return {pBytes, pBytes + sizeof(cmd)};
    }
    static bool exists(const char* pPath) { return ::access(pPath, F_OK) == 0; }

    CLogCapture m_log;
    uint32_t m_nLatest = 100;
    CLogLimiter m_rubbishLog{"rubbish"};
};
} // namespace

TEST_F(RequestPipe, IsAFifoForEverybodyWhateverTheUmask)
{
    const mode_t nFormer = ::umask(0077);
    const auto pPipe = mustOpen();
    ::umask(nFormer);
    struct stat status = {};
    ASSERT_EQ(::stat(PATH, &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0666U);
}

TEST_F(RequestPipe, IsRemovedAtTheEndWithItsLock)
{
    {
        const auto pPipe = mustOpen();
        EXPECT_TRUE(exists(PATH));
    }
    EXPECT_FALSE(exists(PATH));
    EXPECT_FALSE(exists(LOCK));
}

TEST_F(RequestPipe, IsFreshSoThatClientsOfAnEarlierDriverFindTheirsBroken)
{
    ::signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(::mkfifo(PATH, 0600), 0);
    CFd fdOldDriver(::open(PATH, O_RDWR | O_NONBLOCK));
    const CFd fdOldClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    fdOldDriver.close();
    const auto pPipe = mustOpen();
    EXPECT_EQ(::write(fdOldClient.get(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(RequestPipe, HasOnlyOneDriver)
{
    const auto pPipe = mustOpen();
    EXPECT_THAT(errorOfOpen(), HasSubstr("another driver is running"));
    EXPECT_TRUE(exists(PATH));
    EXPECT_TRUE(exists(LOCK));
}

TEST_F(RequestPipe, NeverReplacesWhatIsNoFifo)
{
    writeBytes(PATH, {1, 2, 3});
    EXPECT_THAT(errorOfOpen(), HasSubstr("exists and is not a FIFO"));
    EXPECT_EQ(readBytes(PATH), (CSamples{1, 2, 3}));
    ::unlink(PATH);
    ASSERT_EQ(::symlink("/tmp/elsewhere", PATH), 0);
    EXPECT_THAT(errorOfOpen(), HasSubstr("exists and is not a FIFO"));
    EXPECT_FALSE(exists("/tmp/elsewhere"));
}

TEST_F(RequestPipe, FollowsNoLinkToItsLock)
{
    ASSERT_EQ(::symlink("/tmp/elsewhere", LOCK), 0);
    EXPECT_THAT(errorOfOpen(), HasSubstr("cannot open the lock file"));
    EXPECT_FALSE(exists("/tmp/elsewhere"));
    ::unlink(LOCK);
    ASSERT_EQ(::mkfifo(LOCK, 0600), 0);
    EXPECT_THAT(errorOfOpen(), HasSubstr("is not a regular file"));
}

TEST_F(RequestPipe, LeavesAPipeAloneThatTookItsPlace)
{
    {
        const auto pPipe = mustOpen();
        ASSERT_EQ(::unlink(PATH), 0);
        ASSERT_EQ(::mkfifo(PATH, 0600), 0);
    }
    EXPECT_TRUE(exists(PATH));
}

TEST_F(RequestPipe, GivesOutRecordsInOrderAndThenNone)
{
    const auto pPipe = mustOpen();
    structMICMD cmd;
    EXPECT_FALSE(pPipe->read(cmd));
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    for (uint32_t n = 101; n <= 103; ++n)
    {
        const structMICMD sent = command(MICMD_PING, 1, n);
        ASSERT_EQ(::write(fdClient.get(), &sent, sizeof(sent)), 280);
    }
    for (uint32_t n = 101; n <= 103; ++n)
    {
        ASSERT_TRUE(pPipe->read(cmd));
        EXPECT_EQ(cmd.nSequenceNo, n);
    }
    EXPECT_FALSE(pPipe->read(cmd));
}

TEST_F(RequestPipe, DropsAndReportsBytesThatAreNoRequest)
{
    const auto pPipe = mustOpen();
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    write(fdClient.get(), {1, 2, 3, 4, 5});
    structMICMD cmd;
    EXPECT_FALSE(pPipe->read(cmd));
    EXPECT_THAT(m_log.text(), HasSubstr("dropped 5 bytes"));
    write(fdClient.get(), noise(700) + ping(101));
    ASSERT_TRUE(pPipe->read(cmd));
    EXPECT_EQ(cmd.nSequenceNo, 101U);
    EXPECT_THAT(m_log.text(), HasSubstr("dropped 700 bytes"));
}

TEST_F(RequestPipe, ReportsEndlessRubbishInABoundedNumberOfLines)
{
    const auto pPipe = mustOpen();
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    structMICMD cmd;
    for (int n = 0; n < 5000; ++n)
    {
        write(fdClient.get(), noise(10));
        EXPECT_FALSE(pPipe->read(cmd));
    }
    const std::string strText = m_log.text();
    EXPECT_LT(std::count(strText.begin(), strText.end(), '\n'), 2000);
}

TEST_F(RequestPipe, SaysThatRequestsWaitWhichThePipeDoesNotTellOf)
{
    const auto pPipe = mustOpen();
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    EXPECT_FALSE(pPipe->hasBuffered());
    write(fdClient.get(), ping(101) + ping(102));
    EXPECT_FALSE(pPipe->hasBuffered());
    structMICMD cmd;
    ASSERT_TRUE(pPipe->read(cmd));
    pollfd wait = {pPipe->fd(), POLLIN, 0};
    EXPECT_EQ(::poll(&wait, 1, 0), 0);
    EXPECT_TRUE(pPipe->hasBuffered());
    ASSERT_TRUE(pPipe->read(cmd));
    EXPECT_FALSE(pPipe->hasBuffered());
}

TEST_F(RequestPipe, GivesTheLoopItsTurnUnderAFloodOfRubbish)
{
    const auto pPipe = mustOpen();
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    constexpr size_t FLOOD = 900000;
    const CSamples flood = noise(FLOOD);
    const CSamples ping = this->ping(101);
    write(fdClient.get(), flood);
    write(fdClient.get(), ping);
    structMICMD cmd;
    size_t nBefore = FLOOD + ping.size();
    int nTurns = 0;
    while (!pPipe->read(cmd))
    {
        int nLeft = 0;
        ASSERT_EQ(::ioctl(pPipe->fd(), FIONREAD, &nLeft), 0);
        ASSERT_LE(nBefore - static_cast<size_t>(nLeft), CRequestFramer::BUFFER_BYTES);
        ASSERT_TRUE(nLeft > 0 || pPipe->hasBuffered());
        nBefore = static_cast<size_t>(nLeft);
        ++nTurns;
    }
    EXPECT_GE(nTurns, 13);
    EXPECT_EQ(cmd.nSequenceNo, 101U);
}

TEST_F(RequestPipe, LeavesNothingBehindThatFillsItsBufferExactly)
{
    const auto pPipe = mustOpen();
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    // The last bytes are a request of an unknown client: it is given out once nothing can come behind it.
    const CSamples stranger = ping(7, 77);
    const CSamples bytes = noise(16) + ping(101) + CSamples(232 * 280) + stranger;
    ASSERT_EQ(bytes.size(), CRequestFramer::BUFFER_BYTES);
    write(fdClient.get(), bytes);
    structMICMD cmd;
    ASSERT_TRUE(pPipe->read(cmd));
    bool bTaken = false;
    for (int nTurn = 0; nTurn < 3 && !bTaken; ++nTurn)
    {
        bTaken = pPipe->read(cmd);
        ASSERT_TRUE(bTaken || pPipe->hasBuffered());
    }
    EXPECT_TRUE(bTaken);
    EXPECT_EQ(cmd.nSequenceNo, 7U);
    EXPECT_FALSE(pPipe->hasBuffered());
}

TEST_F(RequestPipe, FindsRequestsBetweenWritesInPacketMode)
{
    const auto pPipe = mustOpen();
    const CFd fdHostile(::open(PATH, O_WRONLY | O_NONBLOCK));
    ASSERT_EQ(::fcntl(fdHostile.get(), F_SETFL, O_NONBLOCK | O_DIRECT), 0);
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    for (uint32_t n = 1; n <= 50; ++n)
    {
        write(fdHostile.get(), noise(n * 80, n));
        write(fdClient.get(), ping(100 + n));
    }
    uint32_t nNext = 101;
    structMICMD cmd;
    for (int nTurn = 0; nTurn < 200 && nNext <= 150; ++nTurn)
    {
        if (pPipe->read(cmd))
        {
            ASSERT_EQ(cmd.nSequenceNo, nNext);
            m_nLatest = nNext++;
        }
    }
    EXPECT_EQ(nNext, 151U);
}

TEST_F(RequestPipe, OfAnotherUserIsReplacedByRootOnly)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can make a pipe of another user";
    ASSERT_EQ(::mkfifo(PATH, 0600), 0);
    ASSERT_EQ(::chown(PATH, 12345, 12345), 0);
    ASSERT_EQ(::seteuid(23456), 0);
    const std::string strError = errorOfOpen();
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_THAT(strError, HasSubstr("belongs to user 12345"));
    EXPECT_TRUE(exists(PATH));
    mustOpen();
}

TEST_F(RequestPipe, OfADriverOfAnotherUserIsRecognisedByItsLock)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    const mode_t nFormer = ::umask(0077);
    const auto pPipe = mustOpen();
    ::umask(nFormer);
    ASSERT_EQ(::seteuid(23456), 0);
    const std::string strError = errorOfOpen();
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_THAT(strError, HasSubstr("another driver is running"));
}

TEST_F(RequestPipe, LocksAFileThatNobodyElseCanLock)
{
    const mode_t nFormer = ::umask(0);
    const auto pPipe = mustOpen();
    ::umask(nFormer);
    struct stat status = {};
    ASSERT_EQ(::stat(LOCK, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(RequestPipe, TakesRightsAwayFromALockFileThatIsThere)
{
    writeBytes(LOCK, {});
    ASSERT_EQ(::chmod(LOCK, 0666), 0);
    const auto pPipe = mustOpen();
    struct stat status = {};
    ASSERT_EQ(::stat(LOCK, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

// What needs several users.
class RequestPipeAsRoot : public RequestPipe
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "only root can become another user";
        writeBytes(LOCK, {});
        ASSERT_EQ(::chmod(LOCK, 0644), 0);
        ASSERT_EQ(::chown(LOCK, 12345, 12345), 0);
    }

    static uid_t ownerOfLock()
    {
        struct stat status = {};
        EXPECT_EQ(::lstat(LOCK, &status), 0);
        return status.st_uid;
    }
};

TEST_F(RequestPipeAsRoot, ReplacesTheLockFileThatAUsersDriverHasLeft)
{
    const CFd fdUser(::open(LOCK, O_RDONLY));
    const auto pPipe = mustOpen();
    EXPECT_EQ(ownerOfLock(), 0U);
    EXPECT_EQ(::flock(fdUser.get(), LOCK_EX | LOCK_NB), 0) << "the former file is still in use";
    EXPECT_THAT(errorOfOpen(), HasSubstr("another driver is running"));
}

TEST_F(RequestPipeAsRoot, StaysAwayFromAUsersDriverThatRuns)
{
    const CFd fdUser(::open(LOCK, O_RDONLY));
    ASSERT_EQ(::flock(fdUser.get(), LOCK_EX), 0);
    EXPECT_THAT(errorOfOpen(), HasSubstr("another driver is running"));
    EXPECT_EQ(ownerOfLock(), 12345U);
}

TEST_F(RequestPipeAsRoot, OfAUserTakesNoLockFileOfAnother)
{
    ASSERT_EQ(::seteuid(23456), 0);
    const std::string strError = errorOfOpen();
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_THAT(strError, HasSubstr("belongs to user 12345"));
    EXPECT_EQ(ownerOfLock(), 12345U);
    EXPECT_FALSE(exists(PATH));
}
