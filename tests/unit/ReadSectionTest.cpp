// Tests of the sections in which threads use an object that another thread replaces.
#include "ReadSection.h"
#include "InChild.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
// Runs waitForReaders on a thread of its own, and says how far it got.
class CWaiter
{
public:
    CWaiter() : m_returned(std::async(std::launch::async, CReadSection::waitForReaders)) {}

    // A wait that is broken returns well within this time; one that works is seen to last.
    bool waits() { return m_returned.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout; }
    bool returns() { return m_returned.wait_for(std::chrono::seconds(30)) == std::future_status::ready; }

private:
    std::future<void> m_returned;
};

// A thread that opens a section with the given operation inside it, and keeps it open until told.
class CReader
{
public:
    explicit CReader(std::function<void()> inside = [] {})
        : m_thread([this, inside] {
              const CReadSection section;
              inside();
              m_entered.set_value();
              m_leave.get_future().wait();
          })
    {
        m_entered.get_future().wait();
    }
    ~CReader()
    {
        if (m_thread.joinable())
            leave();
    }
    void leave()
    {
        m_leave.set_value();
        m_thread.join();
    }

private:
    std::promise<void> m_entered;
    std::promise<void> m_leave;
    std::thread m_thread;
};

struct CObject
{
    explicit CObject(int nNumber) : m_nNumber(nNumber), m_nTwice(2 * nNumber) {}
    ~CObject()
    {
        m_nNumber = -1;
        m_nTwice = -1;
    }
    volatile int m_nNumber;
    volatile int m_nTwice;
};

// Opens a section when its thread ends.
struct CLateReader
{
    ~CLateReader()
    {
        if (!m_pEntered)
            return;
        const CReadSection section;
        CReadSection::waitForReaders(); // not for its own
        m_pEntered->set_value();
        m_pLeave->get_future().wait();
    }
    std::promise<void>* m_pEntered = nullptr;
    std::promise<void>* m_pLeave = nullptr;
};
thread_local CLateReader t_lateReader;
} // namespace

TEST(ReadSectionTest, WaitReturnsWhenNobodyReads)
{
    CReadSection::waitForReaders();
    {
        const CReadSection section;
    }
    EXPECT_TRUE(CWaiter().returns());
}

TEST(ReadSectionTest, WaitLastsUntilTheSectionOfAnotherThreadIsLeft)
{
    CReader reader;
    CWaiter waiter;
    EXPECT_TRUE(waiter.waits());
    reader.leave();
    EXPECT_TRUE(waiter.returns());
}

TEST(ReadSectionTest, WaitLastsForEachOfSeveralReaders)
{
    CReader first;
    CReader second;
    CWaiter waiter;
    second.leave();
    EXPECT_TRUE(waiter.waits());
    first.leave();
    EXPECT_TRUE(waiter.returns());
}

TEST(ReadSectionTest, LeavingANestedSectionLeavesNothing)
{
    CReader reader([] { const CReadSection nested; });
    CWaiter waiter;
    EXPECT_TRUE(waiter.waits());
    reader.leave();
    EXPECT_TRUE(waiter.returns());
}

TEST(ReadSectionTest, OwnSectionsAreNotWaitedFor)
{
    std::unique_ptr<CWaiter> pWaiter;
    {
        const CReadSection section;
        const CReadSection nested;
        CReadSection::waitForReaders();
        pWaiter = std::make_unique<CWaiter>();
        EXPECT_TRUE(pWaiter->waits()) << "another thread does wait for them";
    }
    EXPECT_TRUE(pWaiter->returns());
}

TEST(ReadSectionTest, ReadersThatComeAgainAndAgainHoldNobodyUp)
{
    std::atomic<bool> bStop{false};
    std::thread reader([&bStop] {
        while (!bStop)
            const CReadSection section;
    });
    for (int n = 0; n < 100; ++n)
        CReadSection::waitForReaders();
    bStop = true;
    reader.join();
    SUCCEED() << "the waits came to an end";
}

TEST(ReadSectionTest, ThreadThatEndedIsNotWaitedFor)
{
    for (int n = 0; n < 50; ++n)
        std::thread([] { const CReadSection section; }).join();
    EXPECT_TRUE(CWaiter().returns());
    CReader reader; // in the record of one that ended
    CWaiter waiter;
    EXPECT_TRUE(waiter.waits());
    reader.leave();
    EXPECT_TRUE(waiter.returns());
}

TEST(ReadSectionTest, RecordOfAThreadThatEndedIsTakenOverByTheNext)
{
    const auto recordOfAThread = [] {
        return std::async(std::launch::async,
                          [] {
                              const CReadSection section;
                              return CReadSection::CThread::t_pThread;
                          })
            .get();
    };
    const CReadSection::CThread* const pRecord = recordOfAThread();
    ASSERT_NE(nullptr, pRecord);
    EXPECT_EQ(pRecord, recordOfAThread());
    EXPECT_EQ(pRecord, recordOfAThread());
}

TEST(ReadSectionTest, SectionsOfAnEndingThreadAreWaitedFor)
{
    std::promise<void> entered;
    std::promise<void> leave;
    std::thread ending([&] {
        t_lateReader.m_pEntered = &entered;
        t_lateReader.m_pLeave = &leave;
        const CReadSection section;
    });
    entered.get_future().wait();
    CWaiter waiter;
    EXPECT_TRUE(waiter.waits());
    leave.set_value();
    EXPECT_TRUE(waiter.returns());
    ending.join();
}

// Past the end of its own record: what threads have by a key ends in the order in which the keys were made.
TEST(ReadSectionTest, SectionsOfAThreadWhoseRecordIsGoneAreWaitedFor)
{
    {
        const CReadSection section;
    }
    pthread_key_t nKey = 0;
    ASSERT_EQ(0, pthread_key_create(&nKey, [](void* p) {
                  static_cast<CLateReader*>(p)->~CLateReader();
                  EXPECT_EQ(nullptr, CReadSection::CThread::t_pThread);
              }));
    std::promise<void> entered;
    std::promise<void> leave;
    alignas(CLateReader) unsigned char abReader[sizeof(CLateReader)];
    auto* const pReader = new (abReader) CLateReader{&entered, &leave};
    std::thread ending([&] {
        const CReadSection section;
        pthread_setspecific(nKey, pReader);
    });
    entered.get_future().wait();
    CWaiter waiter;
    EXPECT_TRUE(waiter.waits());
    leave.set_value();
    EXPECT_TRUE(waiter.returns());
    ending.join();
    pthread_key_delete(nKey);
}

TEST(ReadSectionTest, ErrnoIsKept)
{
    std::thread([] {
        errno = ENOENT;
        {
            const CReadSection section; // the first of its thread
            EXPECT_EQ(errno, ENOENT);
        }
        CReadSection::waitForReaders();
        EXPECT_EQ(errno, ENOENT);
    }).join();
}

TEST(ReadSectionTest, ChildProcessDoesNotWaitForThreadsOfItsParent)
{
    CReader reader;
    EXPECT_EQ(inChild([] {
                  alarm(30);
                  CReadSection::waitForReaders();
                  const CReadSection section;
                  CReadSection::waitForReaders();
              }),
              0);
}

TEST(ReadSectionTest, ReplacedObjectIsNeverDeletedUnderAReader)
{
    std::atomic<CObject*> pShared{new CObject(0)};
    std::atomic<bool> bStop{false};
    std::atomic<int> nTorn{0};
    std::atomic<long> nReads{0};
    std::vector<std::thread> vReaders;
    for (int n = 0; n < 4; ++n)
        vReaders.emplace_back([&] {
            while (!bStop)
            {
                {
                    const CReadSection section;
                    const CObject* const pObject = pShared.load(std::memory_order_acquire);
                    const int nNumber = pObject->m_nNumber;
                    const CReadSection nested;
                    if (nNumber < 0 || pObject->m_nTwice != 2 * nNumber)
                        ++nTorn;
                    ++nReads;
                }
                std::this_thread::yield(); // else every wait lasts a time slice of a busy machine
            }
        });
    // Half of the replacing is done by threads that come and go.
    const auto replace = [&pShared](int nFirst, int nCount) {
        for (int n = nFirst; n < nFirst + nCount; ++n)
        {
            const std::unique_ptr<CObject> pOld(pShared.exchange(new CObject(n)));
            CReadSection::waitForReaders();
        }
    };
    for (int n = 0; n < 20; ++n)
    {
        std::thread other([&replace, n] { replace(20 * n, 10); });
        replace(20 * n + 10, 10);
        other.join();
    }
    bStop = true;
    for (std::thread& reader : vReaders)
        reader.join();
    delete pShared.load();
    EXPECT_EQ(nTorn, 0);
    EXPECT_GT(nReads, 0);
}
