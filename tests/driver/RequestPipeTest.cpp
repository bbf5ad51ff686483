// The request pipe: fresh, for everybody, one driver at a time, and bounded work for whatever is in it.
#include "RequestPipe.h"
#include "DriverTestSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
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
    std::unique_ptr<CRequestPipe> Make()
    {
        return std::make_unique<CRequestPipe>(
            [this](int nConnectID) -> std::optional<std::uint32_t> {
                return nConnectID == 1 || nConnectID == 2 ? std::optional(m_nLatest) : std::nullopt;
            },
            m_rubbishLog);
    }
    std::unique_ptr<CRequestPipe> MustOpen()
    {
        auto pPipe = Make();
        std::string strError;
        EXPECT_TRUE(pPipe->Open(strError)) << strError;
        return pPipe;
    }
    std::string ErrorOfOpen()
    {
        std::string strError;
        EXPECT_FALSE(Make()->Open(strError));
        return strError;
    }
    static void Write(int nFd, const CSamples& bytes)
    {
        ASSERT_EQ(::write(nFd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    static CSamples Ping(std::uint32_t nSequenceNo, int nConnectID = 1)
    {
        const structMICMD cmd = Command(MICMD_PING, nConnectID, nSequenceNo);
        const auto* pBytes = reinterpret_cast<const std::uint8_t*>(&cmd);
        return {pBytes, pBytes + sizeof(cmd)};
    }
    static bool Exists(const char* pPath) { return ::access(pPath, F_OK) == 0; }

    CLogCapture m_log;
    std::uint32_t m_nLatest = 100;
    CLogLimiter m_rubbishLog{"rubbish"};
};
} // namespace

TEST_F(RequestPipe, IsAFifoForEverybodyWhateverTheUmask)
{
    const mode_t nFormer = ::umask(0077);
    const auto pPipe = MustOpen();
    ::umask(nFormer);
    struct stat status = {};
    ASSERT_EQ(::stat(PATH, &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0666U);
}

TEST_F(RequestPipe, IsRemovedAtTheEndWithItsLock)
{
    {
        const auto pPipe = MustOpen();
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
    const auto pPipe = MustOpen();
    EXPECT_EQ(::write(fdOldClient.Get(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(RequestPipe, HasOnlyOneDriver)
{
    const auto pPipe = MustOpen();
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
        const auto pPipe = MustOpen();
        ASSERT_EQ(::unlink(PATH), 0);
        ASSERT_EQ(::mkfifo(PATH, 0600), 0);
    }
    EXPECT_TRUE(Exists(PATH));
}

TEST_F(RequestPipe, GivesOutRecordsInOrderAndThenNone)
{
    const auto pPipe = MustOpen();
    structMICMD cmd;
    EXPECT_FALSE(pPipe->Read(cmd));
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    for (std::uint32_t n = 101; n <= 103; ++n)
    {
        const structMICMD sent = Command(MICMD_PING, 1, n);
        ASSERT_EQ(::write(fdClient.Get(), &sent, sizeof(sent)), 280);
    }
    for (std::uint32_t n = 101; n <= 103; ++n)
    {
        ASSERT_TRUE(pPipe->Read(cmd));
        EXPECT_EQ(cmd.nSequenceNo, n);
    }
    EXPECT_FALSE(pPipe->Read(cmd));
}

TEST_F(RequestPipe, DropsAndReportsBytesThatAreNoRequest)
{
    const auto pPipe = MustOpen();
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    Write(fdClient.Get(), {1, 2, 3, 4, 5});
    structMICMD cmd;
    EXPECT_FALSE(pPipe->Read(cmd));
    EXPECT_THAT(m_log.Text(), HasSubstr("dropped 5 bytes"));
    Write(fdClient.Get(), Noise(700) + Ping(101));
    ASSERT_TRUE(pPipe->Read(cmd));
    EXPECT_EQ(cmd.nSequenceNo, 101U);
    EXPECT_THAT(m_log.Text(), HasSubstr("dropped 700 bytes"));
}

TEST_F(RequestPipe, ReportsEndlessRubbishInABoundedNumberOfLines)
{
    const auto pPipe = MustOpen();
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    structMICMD cmd;
    for (int n = 0; n < 5000; ++n)
    {
        Write(fdClient.Get(), Noise(10));
        EXPECT_FALSE(pPipe->Read(cmd));
    }
    const std::string strText = m_log.Text();
    EXPECT_LT(std::count(strText.begin(), strText.end(), '\n'), 2000);
}

TEST_F(RequestPipe, SaysThatRequestsWaitWhichThePipeDoesNotTellOf)
{
    const auto pPipe = MustOpen();
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    EXPECT_FALSE(pPipe->HasBuffered());
    Write(fdClient.Get(), Ping(101) + Ping(102));
    EXPECT_FALSE(pPipe->HasBuffered());
    structMICMD cmd;
    ASSERT_TRUE(pPipe->Read(cmd));
    pollfd wait = {pPipe->Fd(), POLLIN, 0};
    EXPECT_EQ(::poll(&wait, 1, 0), 0);
    EXPECT_TRUE(pPipe->HasBuffered());
    ASSERT_TRUE(pPipe->Read(cmd));
    EXPECT_FALSE(pPipe->HasBuffered());
}

TEST_F(RequestPipe, GivesTheLoopItsTurnUnderAFloodOfRubbish)
{
    const auto pPipe = MustOpen();
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    constexpr std::size_t FLOOD = 900000;
    const CSamples flood = Noise(FLOOD);
    const CSamples ping = Ping(101);
    Write(fdClient.Get(), flood);
    Write(fdClient.Get(), ping);
    structMICMD cmd;
    std::size_t nBefore = FLOOD + ping.size();
    int nTurns = 0;
    while (!pPipe->Read(cmd))
    {
        int nLeft = 0;
        ASSERT_EQ(::ioctl(pPipe->Fd(), FIONREAD, &nLeft), 0);
        ASSERT_LE(nBefore - static_cast<std::size_t>(nLeft), CRequestFramer::BUFFER_BYTES);
        ASSERT_TRUE(nLeft > 0 || pPipe->HasBuffered());
        nBefore = static_cast<std::size_t>(nLeft);
        ++nTurns;
    }
    EXPECT_GE(nTurns, 13);
    EXPECT_EQ(cmd.nSequenceNo, 101U);
}

TEST_F(RequestPipe, LeavesNothingBehindThatFillsItsBufferExactly)
{
    const auto pPipe = MustOpen();
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    // The last bytes are a request of an unknown client: it is given out once nothing can come behind it.
    const CSamples stranger = Ping(7, 77);
    const CSamples bytes = Noise(16) + Ping(101) + CSamples(232 * 280) + stranger;
    ASSERT_EQ(bytes.size(), CRequestFramer::BUFFER_BYTES);
    Write(fdClient.Get(), bytes);
    structMICMD cmd;
    ASSERT_TRUE(pPipe->Read(cmd));
    bool bTaken = false;
    for (int nTurn = 0; nTurn < 3 && !bTaken; ++nTurn)
    {
        bTaken = pPipe->Read(cmd);
        ASSERT_TRUE(bTaken || pPipe->HasBuffered());
    }
    EXPECT_TRUE(bTaken);
    EXPECT_EQ(cmd.nSequenceNo, 7U);
    EXPECT_FALSE(pPipe->HasBuffered());
}

TEST_F(RequestPipe, FindsRequestsBetweenWritesInPacketMode)
{
    const auto pPipe = MustOpen();
    const CFd fdHostile(::open(PATH, O_WRONLY | O_NONBLOCK));
    ASSERT_EQ(::fcntl(fdHostile.Get(), F_SETFL, O_NONBLOCK | O_DIRECT), 0);
    const CFd fdClient(::open(PATH, O_WRONLY | O_NONBLOCK));
    for (std::uint32_t n = 1; n <= 50; ++n)
    {
        Write(fdHostile.Get(), Noise(n * 80, n));
        Write(fdClient.Get(), Ping(100 + n));
    }
    std::uint32_t nNext = 101;
    structMICMD cmd;
    for (int nTurn = 0; nTurn < 200 && nNext <= 150; ++nTurn)
    {
        if (pPipe->Read(cmd))
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
    {
        GTEST_SKIP() << "only root can make a pipe of another user";
    }
    ASSERT_EQ(::mkfifo(PATH, 0600), 0);
    ASSERT_EQ(::chown(PATH, 12345, 12345), 0);
    ASSERT_EQ(::seteuid(23456), 0);
    const std::string strError = ErrorOfOpen();
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_THAT(strError, HasSubstr("belongs to user 12345"));
    EXPECT_TRUE(Exists(PATH));
    MustOpen();
}

TEST_F(RequestPipe, OfADriverOfAnotherUserIsRecognisedByItsLock)
{
    if (::geteuid() != 0)
    {
        GTEST_SKIP() << "only root can become another user";
    }
    const mode_t nFormer = ::umask(0077);
    const auto pPipe = MustOpen();
    ::umask(nFormer);
    ASSERT_EQ(::seteuid(23456), 0);
    const std::string strError = ErrorOfOpen();
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_THAT(strError, HasSubstr("another driver is running"));
}
