// Tests of clock, threads, sleep and number texts.
#include "Portable.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <limits>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace
{
// A thread that tells its id, then runs until it is told to end.
struct CHeldThread
{
    static void* run(void* pArgument)
    {
        auto* const pThis = static_cast<CHeldThread*>(pArgument);
        pThis->m_started.set_value(static_cast<pid_t>(syscall(SYS_gettid)));
        pThis->m_end.get_future().wait();
        pThis->m_ended.set_value();
        return nullptr;
    }

    void end()
    {
        m_end.set_value();
        m_ended.get_future().wait();
    }

    std::promise<pid_t> m_started;
    std::promise<void> m_end;
    std::promise<void> m_ended;
};

std::string statusOf(pid_t nThread, const std::string& strField)
{
    std::ifstream file("/proc/self/task/" + std::to_string(nThread) + "/status");
    for (std::string strLine; std::getline(file, strLine);)
        if (strLine.compare(0, strField.size() + 2, strField + ":\t") == 0)
            return strLine.substr(strField.size() + 2);
    return "";
}

std::string nameOfStartedThread(const char* pszName)
{
    auto* const pThread = new CHeldThread;
    if (!CPortable::CreateThread(CHeldThread::run, pThread, nullptr, pszName))
        return "not started";
    const pid_t nThread = pThread->m_started.get_future().get();
    // CreateThread has set the name when it returns.
    const std::string strName = statusOf(nThread, "Name");
    pThread->end();
    while (syscall(SYS_tgkill, getpid(), nThread, 0) == 0)
        CPortable::Sleep(1); // its last use of the object is before its end
    delete pThread;
    return strName;
}

std::atomic<int> s_nAlarms{0};
} // namespace

TEST(PortableTest, ThreadHasTheGivenNameCutAt15Characters)
{
    EXPECT_EQ(nameOfStartedThread("Events"), "Events");
    EXPECT_EQ(nameOfStartedThread("0123456789abcdefgh"), "0123456789abcde");
    EXPECT_EQ(nameOfStartedThread(""), "ZelMedia");
    EXPECT_EQ(nameOfStartedThread(nullptr), "ZelMedia");
}

TEST(PortableTest, ThreadStartsWithEverySignalBlockedAndTheCallersMaskIsKept)
{
    if (getenv("ZELMEDIA_EMULATED"))
        GTEST_SKIP() << "what /proc shows is the mask of the emulator";
    CHeldThread thread;
    pthread_t id;
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    ASSERT_NE(CPortable::CreateThread(CHeldThread::run, &thread, &id, "Blocked"), 0);
    const unsigned long long ullBlocked =
        std::stoull(statusOf(thread.m_started.get_future().get(), "SigBlk"), nullptr, 16);
    thread.end();
    for (int nSignal = 1; nSignal <= 64; ++nSignal)
    {
        // Two cannot be blocked, and the C library keeps two for itself.
        if (nSignal == SIGKILL || nSignal == SIGSTOP || nSignal == 32 || nSignal == 33)
            continue;
        EXPECT_NE(ullBlocked & (1ull << (nSignal - 1)), 0u) << nSignal;
    }
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int nSignal = 1; nSignal < 32; ++nSignal)
        EXPECT_EQ(sigismember(&after, nSignal), sigismember(&before, nSignal)) << nSignal;
}

TEST(PortableTest, ThreadThatCannotStartGivesZero)
{
    // No address space has room for this stack.
    pthread_attr_t before;
    pthread_attr_t huge;
    ASSERT_EQ(pthread_getattr_default_np(&before), 0);
    pthread_attr_init(&huge);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, SIZE_MAX & ~static_cast<size_t>(0xFFFFFF)), 0);
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    pthread_t id = 0;
    const int nStarted = CPortable::CreateThread([](void*) -> void* { return nullptr; }, nullptr, &id, "None");
    ASSERT_EQ(pthread_setattr_default_np(&before), 0);
    EXPECT_EQ(nStarted, 0);
    EXPECT_EQ(id, static_cast<pthread_t>(0)) << "nothing is stored";
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0) << "the caller's mask is as before";
    pthread_attr_destroy(&before);
    pthread_attr_destroy(&huge);
}

TEST(PortableTest, TickIsTheMonotonicClockInMilliseconds)
{
    const auto clock = [] {
        return static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
                .count());
    };
    uint64_t ullBefore = clock();
    for (int n = 0; n < 1000; ++n)
    {
        const uint64_t ullTick = CPortable::GetTickCountULL();
        EXPECT_GE(ullTick, ullBefore);
        ullBefore = clock();
        EXPECT_LE(ullTick, ullBefore);
    }
}

TEST(PortableTest, SleepLastsItsWholeTimeUnderASignalStorm)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { ++s_nAlarms; }; // without SA_RESTART
    struct sigaction before;
    sigaction(SIGALRM, &action, &before);
    const itimerval storm = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &storm, nullptr);
    const auto start = std::chrono::steady_clock::now();
    CPortable::Sleep(100);
    const auto passed = std::chrono::steady_clock::now() - start;
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_GE(passed, std::chrono::milliseconds(100));
    EXPECT_GT(s_nAlarms, 0) << "there was no storm"; // thread sanitizer runs the handler once for many
}

TEST(PortableTest, ProcessIDIsTheSystems)
{
    EXPECT_EQ(CPortable::GetCurrentProcessId(), getpid());
}

TEST(PortableTest, NumbersBecomeDecimalText)
{
    EXPECT_EQ(CPortable::ulltos(0), "0");
    EXPECT_EQ(CPortable::ulltos(4294967296ull), "4294967296");
    EXPECT_EQ(CPortable::ulltos(std::numeric_limits<uint64_t>::max()), "18446744073709551615");
}
