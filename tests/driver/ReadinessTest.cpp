// What the service manager and scripts are told, on a socket as the service manager has it.
#include "Readiness.h"

#include "Fd.h"
#include "ProgramSupport.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <ctime>

using testing::MatchesRegex;
using testing::StartsWith;

namespace
{
class Readiness : public testing::Test
{
protected:
    Readiness()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string strPath = "/tmp/notify-test-" + std::to_string(::getpid());
        strPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
        ::unlink(strPath.c_str());
        m_bBound = ::bind(m_fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
        ::setenv("NOTIFY_SOCKET", strPath.c_str(), 1);
    }

    ~Readiness() override
    {
        ::unlink(::getenv("NOTIFY_SOCKET"));
        ::unsetenv("NOTIFY_SOCKET");
    }

    // The next notification, which is waited for so long.
    std::string notified(int nWaitMs = 0)
    {
        pollfd wait = {m_fd.get(), POLLIN, 0};
        ::poll(&wait, 1, nWaitMs);
        std::array<char, 256> buffer;
        const ssize_t nSize = ::recv(m_fd.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        return nSize < 0 ? "(nothing)" : std::string(buffer.data(), static_cast<size_t>(nSize));
    }

    bool m_bBound = false;

private:
    const CFd m_fd{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};
} // namespace

TEST_F(Readiness, ReadyIsPrintedForScriptsAndSentToTheServiceManager)
{
    ASSERT_TRUE(m_bBound);
    testing::internal::CaptureStdout();
    reportReady();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "zelmedia-driver: ready\n");
    EXPECT_EQ(notified(), "READY=1");
    EXPECT_EQ(notified(), "(nothing)");
}

TEST_F(Readiness, AReloadIsAnnouncedWithItsTimeAndEndsReady)
{
    ASSERT_TRUE(m_bBound);
    reportReloading();
    const std::string strReloading = notified();
    ASSERT_THAT(strReloading, MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+"));
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_LE(std::stoll(strReloading.substr(strReloading.rfind('=') + 1)),
              now.tv_sec * 1000000LL + now.tv_nsec / 1000);
    testing::internal::CaptureStdout();
    reportReloaded();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(notified(), "READY=1");
}

TEST_F(Readiness, StoppingIsSentToTheServiceManager)
{
    ASSERT_TRUE(m_bBound);
    reportStopping();
    EXPECT_EQ(notified(), "STOPPING=1");
}

TEST_F(Readiness, TheProgramTellsOfItsStartItsReloadsAndItsEnd)
{
    constexpr int PROGRAM_MS = 20000;
    ASSERT_TRUE(m_bBound);
    CDriverProgram driver({"--control", "none", "--log", "/dev/null"});
    EXPECT_TRUE(driver.waitReady());
    EXPECT_EQ(notified(PROGRAM_MS), "READY=1");
    driver.signal(SIGHUP);
    EXPECT_THAT(notified(PROGRAM_MS), StartsWith("RELOADING=1\n"));
    EXPECT_EQ(notified(PROGRAM_MS), "READY=1");
    driver.signal(SIGTERM);
    EXPECT_EQ(notified(PROGRAM_MS), "STOPPING=1");
    EXPECT_EQ(driver.waitExit(), 0);
}

TEST(ReadinessWithoutServiceManager, OnlyPrints)
{
    ::unsetenv("NOTIFY_SOCKET");
    testing::internal::CaptureStdout();
    reportReady();
    reportReloading();
    reportReloaded();
    reportStopping();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "zelmedia-driver: ready\n");
}
