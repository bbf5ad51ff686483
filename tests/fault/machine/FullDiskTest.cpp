// A disk without room for the log, for recordings and for what callers hear.
#include "WithDriver.h"

#include <cerrno>
#include <sched.h>
#include <sys/mount.h>

namespace
{
const char DISK[] = "/tmp/disk";
const char FILLER[] = "/tmp/disk/filler";
const size_t DISK_SIZE = 128 << 10;

// A small disk, with a file that takes up what a test does not want to be free.
class CSmallDisk
{
public:
    CSmallDisk()
    {
        mkdir(DISK, 0755);
        const std::string strOptions = "mode=777,size=" + std::to_string(DISK_SIZE);
        m_bThere = mount("tmpfs", DISK, "tmpfs", 0, strOptions.c_str()) == 0;
    }
    ~CSmallDisk()
    {
        if (m_bThere)
            umount2(DISK, MNT_DETACH);
    }
    CSmallDisk(const CSmallDisk&) = delete;
    CSmallDisk& operator=(const CSmallDisk&) = delete;

    bool isThere() const { return m_bThere; }

    // Leaves that many bytes.
    static void fill(size_t nFree)
    {
        const int nFile = open(FILLER, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const std::string strPage(4096, 'x');
        for (size_t nBytes = 0; nBytes + nFree < DISK_SIZE; nBytes += strPage.size())
            if (write(nFile, strPage.data(), strPage.size()) < 0)
                break;
        close(nFile);
    }
    static void makeRoom() { EXPECT_EQ(0, unlink(FILLER)); }

private:
    bool m_bThere;
};

class FullDisk : protected CSmallDisk, public CWithDriverTest
{
protected:
    void SetUp() override
    {
        if (!isThere())
            GTEST_SKIP() << "this environment forbids mounts";
        startLibrary();
    }

    // The status of a recording behind a short phrase, whose end is reported too. The driver may have ended
    // both before the call returns.
    MCSTATUS record(CZelMediaStream* pStream, const char* pszFile)
    {
        unsigned long ulFileID = 0;
        EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text(SHORT_FILE), &ulFileID));
        const size_t nBefore = m_completions.count();
        MCSTATUS mcstatus = pStream->recordToFileWithPromptPhrase(ulFileID, 0, 160, text(pszFile), 0, 60, 100, 0);
        const auto hasEnded = [&] {
            const std::vector<CCompletion> vAll = m_completions.all();
            for (size_t n = nBefore; n < vAll.size(); ++n)
                if (vAll[n].reason == CHandler::MCCR_RECORD)
                    mcstatus = vAll[n].mcstatus;
            return mcstatus != MCS_OK;
        };
        EXPECT_TRUE(waitUntil(hasEnded)) << contentOf("/tmp/driver.log");
        return mcstatus;
    }
};

const std::vector<std::string> SILENT_CALLERS = {"--speed", "max", "--caller-end", "silence"};
} // namespace

TEST_F(FullDisk, CostsTheLibraryNothingButTheLinesOfItsLog)
{
    m_pServices->setLogger(new OrvLogLib::CLogFile("Media", "/tmp/disk/media.log", false, false, false), nullptr);
    fill(0);
    ASSERT_TRUE(startDriver());
    CZelMediaStream* pStream = nullptr;
    ASSERT_TRUE(waitUntil([&] { return m_pServices->openMediaStream(&pStream, "call", 1) == MCS_OK; }));
    m_vStreams.push_back(pStream);
    for (size_t n = 1; n <= 100; ++n)
    {
        EXPECT_EQ(MCS_OK, play(pStream, SHORT_FILE));
        ASSERT_TRUE(m_completions.waitCount(n));
    }
    makeRoom();
    EXPECT_TRUE(waitUntil([&] {
        EXPECT_EQ(MCS_OK, play(pStream, SHORT_FILE));
        return contentOf("/tmp/disk/media.log").find(std::string(" lines lost: ") + strerror(ENOSPC)) !=
               std::string::npos;
    }));
}

TEST_F(FullDisk, EndsARecordingWithAFailureAndKeepsItsBeginning)
{
    ASSERT_TRUE(startDriver(SILENT_CALLERS));
    ASSERT_TRUE(waitConnected());
    CZelMediaStream* const pStream = open("call");
    fill(64 << 10);
    EXPECT_EQ(MISTATUS_FAILED, record(pStream, "/tmp/disk/message.ul"));
    const size_t nKept = contentOf("/tmp/disk/message.ul").size();
    EXPECT_LT(32u << 10, nKept);
    EXPECT_GE(64u << 10, nKept);

    EXPECT_EQ(MCS_REFUSED, record(pStream, "/tmp/disk/next.wav")) << "not even its header has room";
    makeRoom();
    EXPECT_EQ(MISTATUS_FAILED, record(pStream, "/tmp/disk/long.ul")) << "60 s are more than the disk";
    EXPECT_EQ(0, unlink("/tmp/disk/message.ul") | unlink("/tmp/disk/long.ul"));
    EXPECT_EQ(MCS_OK, play(pStream, SHORT_FILE));
    unsigned long ulMilliSeconds = 0;
    EXPECT_EQ(MCS_OK, pStream->recordToFile(text("/tmp/disk/short.ul"), 0, 5, 60, 0));
    EXPECT_TRUE(waitUntil([&] {
        EXPECT_EQ(MCS_OK, pStream->recordGetTimeMilliseconds(&ulMilliSeconds));
        return ulMilliSeconds == 5000;
    }));
    EXPECT_TRUE(waitUntil([] { return contentOf("/tmp/disk/short.ul").size() == 5 * 8000; }));
}

TEST_F(FullDisk, EndsAPlayThatCannotBeKeptWithAFailure)
{
    ASSERT_EQ(0, rmdir("/tmp/calls"));
    ASSERT_EQ(0, symlink(DISK, "/tmp/calls"));
    ASSERT_TRUE(startDriver());
    ASSERT_TRUE(waitConnected());
    CZelMediaStream* const pStream = open("call");
    fill(0);
    EXPECT_EQ(MCS_OK, play(pStream, LONG_FILE));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ(MISTATUS_FAILED, m_completions.all()[0].mcstatus);
    makeRoom();
    CZelMediaStream* const pNext = open("next");
    EXPECT_EQ(MCS_OK, play(pNext, SHORT_FILE));
    ASSERT_TRUE(m_completions.waitCount(2));
    EXPECT_EQ(MCS_OK, m_completions.all()[1].mcstatus);
}

// A folder that takes no more names.
TEST(FullFolder, Is47ForEver)
{
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777,nr_inodes=1") != 0)
        GTEST_SKIP() << "this environment forbids mounts";
    CCompletions completions;
    CZelMediaServices services(&completions);
    CZelMediaStream* pStream = nullptr;
    EXPECT_EQ(MCS_NOTCONNECTED, services.openMediaStream(&pStream, "call", 1));
    EXPECT_EQ(MCS_NOTCONNECTED, services.dump());
    EXPECT_TRUE(namesIn("/tmp").empty());
    EXPECT_EQ(0, umount2("/tmp", MNT_DETACH));
}
