// Tests of the waits on a pipe: signals, lost descriptors, and a time of day that jumps.
#include "PipeWait.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace
{
std::atomic<long> s_nTimeOfDayAhead{0}; // s
#ifdef SYS_clock_gettime64
const long CLOCK_CALL = SYS_clock_gettime64; // in 32 bits the other one ends in 2038
#else
const long CLOCK_CALL = SYS_clock_gettime;
#endif
} // namespace

// In place of the C library's: the time of day can be moved.
extern "C" int clock_gettime(clockid_t clock, timespec* pNow) noexcept
{
    const int nResult = static_cast<int>(syscall(CLOCK_CALL, clock, pNow));
    if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)
        pNow->tv_sec += s_nTimeOfDayAhead;
    return nResult;
}

class PipeWait : public testing::Test
{
protected:
    PipeWait()
    {
        EXPECT_EQ(0, pipe2(m_anPipe, O_NONBLOCK | O_CLOEXEC));
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);
    }
    ~PipeWait() override
    {
        s_nTimeOfDayAhead = 0;
        close(m_anPipe[0]);
        close(m_anPipe[1]);
    }

    // The wait's result and its time, while signals interrupt it; the first of them moves the time of day.
    // One that is still waiting after 20 s gets something to read.
    int waitInASignalStorm(unsigned int nBudgetMs, long nSecondsAhead, std::chrono::milliseconds& took)
    {
        std::atomic<bool> bStop{false};
        const pthread_t waiting = pthread_self();
        std::thread storm([&] {
            for (int nSignals = 0; !bStop && nSignals < 4000; ++nSignals)
            {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                s_nTimeOfDayAhead = nSecondsAhead;
                pthread_kill(waiting, SIGUSR1);
            }
            EXPECT_EQ(1, write(m_anPipe[1], "x", 1));
        });
        const auto start = std::chrono::steady_clock::now();
        const int nReady = CPipeWait(m_anPipe[0], nBudgetMs).waitReadable();
        took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        bStop = true;
        storm.join();
        return nReady;
    }

    int m_anPipe[2];
};

TEST_F(PipeWait, DataIsReadyAndNothingIsATimeOut)
{
    CPipeWait wait(m_anPipe[0], 20);
    ASSERT_EQ(1, write(m_anPipe[1], "x", 1));
    EXPECT_EQ(1, wait.waitReadable());
    char c;
    ASSERT_EQ(1, read(m_anPipe[0], &c, 1));
    EXPECT_EQ(0, wait.waitReadable());
}

TEST_F(PipeWait, LostDescriptorIsAFailureAndNoTimeOut)
{
    errno = 0;
    EXPECT_EQ(-1, CPipeWait(-1, 20).waitReadable());
    EXPECT_EQ(EBADF, errno);

    const int nClosed = dup(m_anPipe[0]);
    close(nClosed);
    errno = 0;
    EXPECT_EQ(-1, CPipeWait(nClosed, 20).waitReadable());
    EXPECT_EQ(EBADF, errno);
}

TEST_F(PipeWait, SignalsNeitherEndItNorStretchIt)
{
    std::chrono::milliseconds took{};
    EXPECT_EQ(0, waitInASignalStorm(200, 0, took));
    EXPECT_LE(200, took.count());
}

TEST_F(PipeWait, TimeOfDayThatJumpsAheadDoesNotEndIt)
{
    std::chrono::milliseconds took{};
    EXPECT_EQ(0, waitInASignalStorm(200, 3600, took));
    EXPECT_LE(200, took.count());
}

TEST_F(PipeWait, TimeOfDayThatJumpsBackDoesNotStretchIt)
{
    std::chrono::milliseconds took{};
    EXPECT_EQ(0, waitInASignalStorm(200, -3600, took));
    EXPECT_LE(200, took.count());
}
