// Tests of the re-entrant lock and of the guard that holds it.
#include "ZelCritSec.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

// These tests take and give the lock in ways that the static analysis is there to forbid.
#define UNCHECKED NO_THREAD_SAFETY_ANALYSIS

namespace
{
void enterTwiceAndLeave(ZelCritSec& lock) UNCHECKED
{
    EXPECT_EQ(lock.owner(), 0);
    lock.enter(10);
    EXPECT_EQ(lock.owner(), static_cast<pid_t>(syscall(SYS_gettid)));
    EXPECT_EQ(lock.depth(), 1);
    EXPECT_EQ(lock.enterTag(), 10);
    lock.enter(20);
    EXPECT_EQ(lock.depth(), 2);
    EXPECT_EQ(lock.enterTag(), 20);
    lock.leave(21);
    EXPECT_EQ(lock.depth(), 1);
    EXPECT_EQ(lock.leaveTag(), 21);
    EXPECT_EQ(lock.owner(), static_cast<pid_t>(syscall(SYS_gettid))) << "still inside";
    lock.leave(11);
    EXPECT_EQ(lock.depth(), 0);
    EXPECT_EQ(lock.leaveTag(), 11);
    EXPECT_EQ(lock.owner(), 0);
}

void holdTwiceWithoutOwner(ZelCritSec& lock) UNCHECKED
{
    const CCritSecHold hold(&lock, 5, 6);
    const CCritSecHold again(&lock, 7, 8);
    EXPECT_EQ(lock.owner(), 0);
    EXPECT_EQ(lock.depth(), 0);
    EXPECT_EQ(lock.enterTag(), 0);
}

void addOne(ZelCritSec& lock, int& nCount, bool bGiveWay) UNCHECKED
{
    const CCritSecHold hold(&lock);
    const CCritSecHold again(&lock);
    const int nBefore = nCount;
    if (bGiveWay)
        std::this_thread::yield(); // a chance for the others to break in
    nCount = nBefore + 1;
}

void holdNothingTwice(ZelCritSec* pNone) UNCHECKED
{
    const CCritSecHold hold(pNone);
    const CCritSecHold again(pNone, 1, 2);
}
} // namespace

TEST(ZelCritSecTest, OwnerEntersAgainAndOwnerDepthAndTagsAreKept)
{
    ZelCritSec lock("CMIntf", 1);
    EXPECT_STREQ(lock.name(), "CMIntf");
    enterTwiceAndLeave(lock);
}

TEST(ZelCritSecTest, KeepsNoOwnerUnlessAsked)
{
    ZelCritSec lock("quiet", 0);
    holdTwiceWithoutOwner(lock);
}

TEST(ZelCritSecTest, ExcludesOtherThreads)
{
    ZelCritSec lock("counter", 1);
    int nCount = 0;
    std::vector<std::thread> vThreads;
    for (int n = 0; n < 8; ++n)
        vThreads.emplace_back([&] {
            for (int nTurn = 0; nTurn < 5000; ++nTurn)
                addOne(lock, nCount, nTurn % 1000 == 0);
        });
    for (std::thread& thread : vThreads)
        thread.join();
    EXPECT_EQ(nCount, 40000);
    EXPECT_EQ(lock.owner(), 0);
    EXPECT_EQ(lock.depth(), 0);
}

TEST(ZelCritSecTest, HoldTagsItsSourceLineAndLeavesAtTheEnd)
{
    ZelCritSec lock("hold", 1);
    {
        const CCritSecHold hold(&lock);
        EXPECT_EQ(lock.enterTag(), __LINE__ - 1);
        EXPECT_EQ(lock.depth(), 1);
    }
    EXPECT_EQ(lock.depth(), 0);
    {
        const CCritSecHold hold(&lock, 100, 200);
        EXPECT_EQ(lock.enterTag(), 100);
    }
    EXPECT_EQ(lock.leaveTag(), 200);
}

TEST(ZelCritSecTest, HoldOfNoLockDoesNothing)
{
    holdNothingTwice(nullptr);
    SUCCEED() << "no crash is what is asked";
}
