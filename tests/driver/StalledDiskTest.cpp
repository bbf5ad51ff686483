// File systems that do not answer hold up what is on them, and nothing else.
#include "AudioSink.h"
#include "ClipStore.h"
#include "DriverTestSupport.h"
#include "OpenFile.h"
#include "ProgramSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/mount.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <latch>

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{
// Folders that count as file systems of their own, and work that hangs until it is let go.
class StalledDisk : public testing::Test
{
protected:
    StalledDisk()
    {
        std::ofstream mounts(m_folder.path("mounts"));
        mounts << "1 1 0:1 / / rw - x x rw\n";
        for (const char* pName : {"healthy", "stalled"})
        {
            std::filesystem::create_directory(m_folder.path(pName));
            mounts << "2 1 0:" << pName << " / " << m_folder.path(pName) << " rw - x x rw\n";
        }
        mounts.close();
        m_pDisk = makeDisk(CWorker::PATIENCE);
    }

    ~StalledDisk() override { letGo(); }

    std::unique_ptr<CThreadExecutor> makeDisk(std::chrono::milliseconds patience) const
    {
        auto pDisk = std::make_unique<CThreadExecutor>(
            CThreadExecutor::CSetting{ELinks::Trusted, m_folder.path("mounts"), patience});
        std::string strError;
        EXPECT_TRUE(pDisk->start("disk", strError)) << strError;
        return pDisk;
    }

    void stall(CThreadExecutor& disk)
    {
        disk.laneOf(m_folder.path("stalled/x")).m_pExecutor->post([pGoOn = m_pGoOn] { pGoOn->wait(); }, [] {});
    }

    void letGo()
    {
        if (!m_pGoOn->try_wait())
            m_pGoOn->count_down();
    }

    std::shared_ptr<CAudioSink> open(const std::string& strName)
    {
        std::shared_ptr<CAudioSink> pOpened;
        bool bDone = false;
        CAudioSink::open(
            *m_pDisk, m_folder.path(strName),
            [&](std::shared_ptr<CAudioSink> pSink, const std::string& strError) {
                EXPECT_EQ(strError, "");
                pOpened = std::move(pSink);
                bDone = true;
            });
        runDoneUntil([&] { return bDone; });
        return pOpened;
    }

    void runDoneUntil(const std::function<bool()>& condition)
    {
        while (!condition())
        {
            pollfd done = {m_pDisk->fd(), POLLIN, 0};
            ASSERT_EQ(::poll(&done, 1, 30000), 1) << "nothing is done any more";
            m_pDisk->runDone();
        }
    }

    CTempFolder m_folder;
    const std::shared_ptr<std::latch> m_pGoOn = std::make_shared<std::latch>(1);
    std::unique_ptr<CThreadExecutor> m_pDisk;
    std::vector<std::string> m_vDone;
};
} // namespace

TEST_F(StalledDisk, HoldsUpNoFileOfAnother)
{
    stall(*m_pDisk);
    const auto pSink = open("healthy/a.ul");
    ASSERT_TRUE(pSink);
    pSink->put(noise(500));
    bool bClosed = false;
    pSink->close([&](bool bOk) { bClosed = bOk; });
    runDoneUntil([&] { return bClosed; });
    EXPECT_EQ(readBytes(m_folder.path("healthy/a.ul")), noise(500));
}

TEST_F(StalledDisk, KeepsTheOrderOfItsOwnFilesForLater)
{
    stall(*m_pDisk);
    const auto opened = [this](const char* pName) {
        CAudioSink::open(*m_pDisk, m_folder.path("stalled/a.ul"),
                         [this, pName](const std::shared_ptr<CAudioSink>& pSink, const std::string& strError) {
                             m_vDone.push_back(pSink ? pName : strError);
                             if (pSink)
                                 pSink->close([](bool) {});
                         });
    };
    opened("first");
    EXPECT_TRUE(open("healthy/b.ul"));
    EXPECT_THAT(m_vDone, testing::IsEmpty());
    letGo();
    runDoneUntil([&] { return m_vDone.size() == 1; });
    opened("second");
    runDoneUntil([&] { return m_vDone.size() == 2; });
    EXPECT_THAT(m_vDone, ElementsAre("first", "second"));
}

TEST_F(StalledDisk, IsOnlyReachedInItsOwnLaneWhenALinkLeadsToIt)
{
    std::filesystem::create_symlink(m_folder.path("stalled"), m_folder.path("healthy/link"));
    stall(*m_pDisk);
    CAudioSink::open(*m_pDisk, m_folder.path("healthy/link/a.ul"),
                     [this](const std::shared_ptr<CAudioSink>& pSink, const std::string& strError) {
                         m_vDone.push_back(pSink ? "by the link" : strError);
                     });
    EXPECT_TRUE(open("healthy/b.ul"));
    EXPECT_TRUE(open("healthy/c.ul")) << "the link was followed where it holds up others";
    EXPECT_THAT(m_vDone, testing::IsEmpty());
    letGo();
    runDoneUntil([&] { return !m_vDone.empty(); });
    EXPECT_THAT(m_vDone, ElementsAre("by the link"));
    EXPECT_TRUE(std::filesystem::exists(m_folder.path("stalled/a.ul")));
}

TEST_F(StalledDisk, HoldsUpNoLoadingOfOtherFiles)
{
    writeULaw(m_folder.path("healthy/a.wav"), SF_FORMAT_WAV, noise(100));
    writeULaw(m_folder.path("stalled/b.wav"), SF_FORMAT_WAV, noise(100));
    const CLogCapture log;
    CClipStore store(*m_pDisk);
    stall(*m_pDisk);
    for (const char* pName : {"stalled/b.wav", "healthy/a.wav"})
        store.load(
            m_folder.path(pName), 0,
            [this, pName](const CClipPtr& pClip, const std::string&) { m_vDone.push_back(pClip ? pName : ""); });
    runDoneUntil([&] { return !m_vDone.empty(); });
    EXPECT_THAT(m_vDone, ElementsAre("healthy/a.wav"));
    letGo();
    runDoneUntil([&] { return m_vDone.size() == 2; });
    EXPECT_THAT(m_vDone, ElementsAre("healthy/a.wav", "stalled/b.wav"));
}

TEST_F(StalledDisk, IsWaitedForOnlyByWhatHasPostedWorkThere)
{
    stall(*m_pDisk);
    const auto post = [this](const char* pFolder) {
        m_pDisk->laneOf(m_folder.path(pFolder)).m_pExecutor->post([] {}, [] {});
    };
    m_pDisk->afterwards([&] { post("stalled"); }, [this] { m_vDone.push_back("stalled"); });
    m_pDisk->afterwards(
        [&] {
            post("healthy");
            post("elsewhere");
        },
        [this] { m_vDone.push_back("healthy"); });
    m_pDisk->afterwards([] {}, [this] { m_vDone.push_back("nothing"); });
    EXPECT_THAT(m_vDone, ElementsAre("nothing"));
    runDoneUntil([&] { return m_vDone.size() == 2; });
    EXPECT_THAT(m_vDone, ElementsAre("nothing", "healthy"));
    letGo();
    runDoneUntil([&] { return m_vDone.size() == 3; });
    EXPECT_THAT(m_vDone, ElementsAre("nothing", "healthy", "stalled"));
}

TEST_F(StalledDisk, IsGivenUpAtTheEnd)
{
    const CLogCapture log;
    const auto pDisk = makeDisk(std::chrono::milliseconds(20));
    stall(*pDisk);
    bool bHealthy = false;
    pDisk->laneOf(m_folder.path("healthy")).m_pExecutor->post([] {}, [&] { bHealthy = true; });
    EXPECT_FALSE(pDisk->finish());
    EXPECT_TRUE(bHealthy);
    EXPECT_THAT(log.text(), HasSubstr("error: 1 pieces of work on the file system 0:stalled do not end"));
}

TEST_F(StalledDisk, TakesNoEndlessNumberOfFilesIn)
{
    stall(*m_pDisk);
    CExecutor* pLane = m_pDisk->laneOf(m_folder.path("stalled")).m_pExecutor;
    EXPECT_FALSE(m_pDisk->laneOf(m_folder.path("stalled")).m_bFull);
    for (size_t n = 1; n < CThreadExecutor::MAX_WAITING; ++n)
        pLane->post([] {}, [] {});
    std::string strError;
    openFile(*m_pDisk, m_folder.path("stalled/a.ul"), O_RDONLY, nullptr,
             [&](const COpenResult& result) { strError = result.m_strError; });
    EXPECT_THAT(strError, HasSubstr("does not answer"));
    letGo();
    EXPECT_TRUE(m_pDisk->finish());
}

TEST_F(StalledDisk, SharesThreadsWhenThereAreMoreFileSystemsThanThreads)
{
    std::ofstream mounts(m_folder.path("mounts"), std::ios::app);
    for (int n = 0; n < 40; ++n)
        mounts << "9 1 0:" << n << " / /m/" << n << " rw - x x rw\n";
    mounts.close();
    const auto pDisk = makeDisk(CWorker::PATIENCE);
    stall(*pDisk);
    int nDone = 0;
    for (int n = 0; n < 40; ++n)
    {
        pDisk->laneOf("/m/" + std::to_string(n)).m_pExecutor->post([] {}, [&] { ++nDone; });
        while (nDone <= n)
        {
            pollfd done = {pDisk->fd(), POLLIN, 0};
            ASSERT_EQ(::poll(&done, 1, 30000), 1) << "file system " << n;
            pDisk->runDone();
        }
    }
    letGo();
}

// A file system on which opening takes as long as the test wants: a mount that is watched for permission.
class StalledMount : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(::mkdir(m_folder.path("stalled").c_str(), 0700), 0);
        if (::mount("tmpfs", m_folder.path("stalled").c_str(), "tmpfs", 0, "size=1m") != 0)
            GTEST_SKIP() << "only root can mount file systems";
        m_bMounted = true;
        if (!stall())
            GTEST_SKIP() << "this system does not ask for permission to open";
        m_fd.close();
    }

    // After the forks: whoever has the descriptor keeps what waits from going on.
    bool stall()
    {
        m_fd = CFd(::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY));
        return m_fd.isOpen() && ::fanotify_mark(m_fd.get(), FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_PERM, AT_FDCWD,
                                                m_folder.path("stalled").c_str()) == 0;
    }

    ~StalledMount() override
    {
        m_fd.close(); // what waits goes on
        if (m_bMounted)
            ::umount2(m_folder.path("stalled").c_str(), MNT_DETACH);
    }

    // Until somebody waits for an opening.
    bool waitForOpening() const
    {
        pollfd asked = {m_fd.get(), POLLIN, 0};
        return ::poll(&asked, 1, 30000) == 1;
    }

    CTempFolder m_folder;
    CFd m_fd;
    bool m_bMounted = false;
};

TEST_F(StalledMount, HoldsUpOnlyTheClientThatRecordsThere)
{
    CDriverProgram driver({"--audio", m_folder.folder(), "--control", "none"});
    ASSERT_TRUE(driver.waitReady());
    const std::string strStalled = m_folder.path("stalled/msg.wav");
    CChildProcess stalled([&](const CChildProcess::CParent& parent) {
        CRawClient client;
        if (!client.connect())
            return false;
        const int nStreamID = client.openStream("stalled", 1);
        parent.report();
        return parent.waitAsked() && nStreamID != 0 && client.recordFile(nStreamID, strStalled, 8000);
    });
    ASSERT_TRUE(stalled.waitReport());
    ASSERT_TRUE(stall());
    stalled.ask();
    ASSERT_TRUE(waitForOpening());

    CRawClient client;
    ASSERT_TRUE(client.connect());
    const int nStreamID = client.openStream("healthy", 1);
    ASSERT_NE(nStreamID, 0);
    EXPECT_TRUE(client.recordFile(nStreamID, m_folder.path("msg.wav"), 800));
    const auto evt = client.waitEvent();
    ASSERT_TRUE(evt);
    EXPECT_EQ(evt->s_mcstatus, 0);
    EXPECT_EQ(readULawWav(m_folder.path("msg.wav")).size(), 800U);
    EXPECT_FALSE(std::filesystem::exists(strStalled) && std::filesystem::file_size(strStalled) > 0);

    m_fd.close();
    EXPECT_TRUE(stalled.waitEnd()) << "the recording did not begin when its disk answered again";
    driver.signal(SIGTERM);
    EXPECT_EQ(driver.waitExit(), 0);
}

TEST_F(StalledMount, DoesNotKeepTheDriverFromEnding)
{
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // what is given up is lost
    CDriverProgram driver({"--audio", m_folder.folder(), "--control", "none"});
    ASSERT_TRUE(driver.waitReady());
    CChildProcess stalled([&](const CChildProcess::CParent& parent) {
        CRawClient client;
        const bool bConnected = client.connect();
        const int nStreamID = bConnected ? client.openStream("stalled", 1) : 0;
        parent.report();
        return parent.waitAsked() && nStreamID != 0 &&
               !client.recordFile(nStreamID, m_folder.path("stalled/msg.wav"), 8000);
    });
    ASSERT_TRUE(stalled.waitReport());
    ASSERT_TRUE(stall());
    stalled.ask();
    ASSERT_TRUE(waitForOpening());
    driver.signal(SIGTERM);
    EXPECT_EQ(driver.waitExit(), 0);
    m_fd.close();
    stalled.kill();
    EXPECT_THAT(driver.errors(), HasSubstr("do not end, and are given up"));
}
