// Executors: the order of the work, the threads it is done on, and the end.
#include "Executor.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <fstream>
#include <latch>
#include <memory>
#include <numeric>
#include <thread>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
bool isReadable(int nFd, int nTimeoutMs)
{
    pollfd poll = {nFd, POLLIN, 0};
    return ::poll(&poll, 1, nTimeoutMs) == 1;
}

// Whether a thread waits for something.
bool isAsleep(pid_t nThread)
{
    std::ifstream file("/proc/self/task/" + std::to_string(nThread) + "/stat");
    std::string strState;
    file >> strState >> strState >> strState;
    return strState == "S";
}

class ThreadExecutor : public testing::Test
{
protected:
    ThreadExecutor()
    {
        std::string strError;
        EXPECT_TRUE(m_executor.start("some-worker", strError)) << strError;
    }

    // As the loop does it.
    void runDoneUntil(const std::function<bool()>& condition)
    {
        while (!condition())
        {
            ASSERT_TRUE(isReadable(m_executor.fd(), 30000)) << "nothing is done any more";
            m_executor.runDone();
        }
    }

    CThreadExecutor m_executor;
};
} // namespace

TEST(InlineExecutor, HasRunWorkAndDoneWhenPostReturns)
{
    CInlineExecutor executor;
    std::vector<std::string> vOrder;
    executor.post([&] { vOrder.push_back("work"); }, [&] { vOrder.push_back("done"); });
    EXPECT_THAT(vOrder, ElementsAre("work", "done"));
}

TEST(InlineExecutor, RunsWhatIsPostedByARunningFunctionAfterIt)
{
    CInlineExecutor executor;
    std::vector<std::string> vOrder;
    const auto add = [&](const char* pText) { return [&vOrder, pText] { vOrder.push_back(pText); }; };
    executor.post(
        [&] {
            vOrder.push_back("work 1 begins");
            executor.post(add("work 2"), add("done 2"));
            vOrder.push_back("work 1 ends");
        },
        [&] {
            vOrder.push_back("done 1 begins");
            executor.post(add("work 3"), add("done 3"));
            vOrder.push_back("done 1 ends");
        });
    EXPECT_THAT(vOrder, ElementsAre("work 1 begins", "work 1 ends", "done 1 begins", "done 1 ends", "work 2", "done 2",
                                    "work 3", "done 3"));
}

TEST_F(ThreadExecutor, WorksInTheOrderOfThePosts)
{
    std::vector<int> vWork;
    std::vector<int> vDone;
    for (int n = 0; n < 1000; ++n)
        m_executor.post([&vWork, n] { vWork.push_back(n); }, [&vDone, n] { vDone.push_back(n); });
    runDoneUntil([&] { return vDone.size() == 1000; });
    std::vector<int> vExpected(1000);
    std::iota(vExpected.begin(), vExpected.end(), 0);
    EXPECT_EQ(vWork, vExpected);
    EXPECT_EQ(vDone, vExpected);
}

TEST_F(ThreadExecutor, WorksOnAThreadOfItsOwnAndIsDoneOnTheLoops)
{
    std::thread::id work;
    std::thread::id done;
    m_executor.post([&] { work = std::this_thread::get_id(); }, [&] { done = std::this_thread::get_id(); });
    ASSERT_TRUE(isReadable(m_executor.fd(), 30000));
    EXPECT_EQ(done, std::thread::id()) << "done before the loop has asked for it";
    m_executor.runDone();
    EXPECT_EQ(done, std::this_thread::get_id());
    EXPECT_NE(work, std::thread::id());
    EXPECT_NE(work, done);
}

TEST_F(ThreadExecutor, IsNotReadableWhenNothingIsToBeDone)
{
    EXPECT_FALSE(isReadable(m_executor.fd(), 0));
    bool bDone = false;
    m_executor.post([] {}, [&] { bDone = true; });
    runDoneUntil([&] { return bDone; });
    EXPECT_FALSE(isReadable(m_executor.fd(), 0));
}

TEST_F(ThreadExecutor, LetsGoOfWorkWhereItMayBlock)
{
    std::thread::id released;
    bool bDone = false;
    {
        const std::shared_ptr<int> pHeld(
            new int(0),
            [&](int* pInt) {
                released = std::this_thread::get_id();
                delete pInt;
            });
        m_executor.post([pHeld] {}, [&] { bDone = true; });
    }
    runDoneUntil([&] { return bDone; });
    EXPECT_NE(released, std::thread::id());
    EXPECT_NE(released, std::this_thread::get_id());
}

TEST_F(ThreadExecutor, FinishRunsWhatDoneFunctionsPostToo)
{
    int nLinks = 0;
    std::function<void()> link = [&] {
        if (++nLinks < 20)
            m_executor.post([] {}, link);
    };
    m_executor.post([] {}, link);
    m_executor.finish();
    EXPECT_EQ(nLinks, 20);
    EXPECT_FALSE(isReadable(m_executor.fd(), 0));
}

TEST_F(ThreadExecutor, FinishWaitsForWorkThatHasBegun)
{
    std::latch begun(1);
    std::latch goOn(1);
    bool bDone = false;
    m_executor.post(
        [&] {
            begun.count_down();
            goOn.wait();
        },
        [&] { bDone = true; });
    begun.wait();
    const std::jthread whenItWaits([&goOn, nThread = ::gettid()] {
        while (!isAsleep(nThread))
            std::this_thread::yield();
        goOn.count_down();
    });
    m_executor.finish();
    EXPECT_TRUE(bDone);
}

TEST_F(ThreadExecutor, TakesNoSignalsAndLeavesTheLoopsMaskAlone)
{
    sigset_t loop;
    sigset_t worker;
    sigemptyset(&worker);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, nullptr, &loop), 0);
    EXPECT_EQ(sigismember(&loop, SIGUSR1), 0);
    std::string strName;
    m_executor.post(
        [&] {
            ::pthread_sigmask(SIG_BLOCK, nullptr, &worker);
            std::array<char, 16> name{};
            ::pthread_getname_np(::pthread_self(), name.data(), name.size());
            strName = name.data();
        },
        [] {});
    m_executor.finish();
    for (const int nSignal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1})
        EXPECT_EQ(sigismember(&worker, nSignal), 1) << nSignal;
    EXPECT_EQ(strName, "some-worker");
}

TEST(ThreadExecutorEnd, DoesTheWorkThatWaitsAndGivesNothingToTheLoop)
{
    int nWork = 0;
    int nDone = 0;
    {
        std::latch goOn(1);
        CThreadExecutor executor;
        std::string strError;
        ASSERT_TRUE(executor.start("worker", strError)) << strError;
        executor.post([&] { goOn.wait(); }, [&] { ++nDone; });
        for (int n = 0; n < 100; ++n)
            executor.post([&] { ++nWork; }, [&] { ++nDone; });
        goOn.count_down();
    }
    EXPECT_EQ(nWork, 100);
    EXPECT_EQ(nDone, 0);
}

TEST(ThreadExecutorEnd, NeedsNoStart)
{
    const CThreadExecutor executor;
    EXPECT_EQ(executor.fd(), -1);
}

TEST(ThreadExecutorStart, SaysWhyItFails)
{
    CThreadExecutor executor;
    std::string strError;
    rlimit former = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit none = {0, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const bool bStarted = executor.start("worker", strError);
    ::setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_FALSE(bStarted);
    EXPECT_THAT(strError, HasSubstr("cannot set up a worker: Too many open files"));
}
