// Descriptors that run out in the application and in the driver, and thousands of them in use.
#include "InChild.h"
#include "WithDriver.h"

#include <cerrno>
#include <csignal>

namespace
{
const int MANY_FILES = 5200;
#ifdef ZELMEDIA_ASAN
const int NEEDED_BY_CHECKS = 2; // the sanitizer looks at objects through a pipe
#else
const int NEEDED_BY_CHECKS = 0;
#endif

std::vector<int> openFiles(int nCount, int nFlags)
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<int> vFiles;
    for (int n = 0; n < nCount; ++n)
        vFiles.push_back(open("/dev/null", O_RDONLY | nFlags));
    return vFiles;
}

void closeAll(const std::vector<int>& vFiles)
{
    for (const int nFile : vFiles)
        close(nFile);
}

int lowestDescriptorOf(const std::string& strProcess, const std::string& strPart)
{
    int nLowest = -1;
    for (const std::string& strName : namesIn("/proc/" + strProcess + "/fd"))
    {
        char szTarget[256] = {};
        const std::string strLink = "/proc/" + strProcess + "/fd/" + strName;
        if (readlink(strLink.c_str(), szTarget, sizeof(szTarget) - 1) > 0 && strstr(szTarget, strPart.c_str()) &&
            (nLowest == -1 || std::stoi(strName) < nLowest))
            nLowest = std::stoi(strName);
    }
    return nLowest;
}

struct CManyFiles
{
    CManyFiles() : m_vFiles(openFiles(MANY_FILES, O_CLOEXEC)) {}
    ~CManyFiles() { closeAll(m_vFiles); }
    const std::vector<int> m_vFiles;
};

// Has all its files before the services are made.
class ManyDescriptors : protected CManyFiles, public CSystemTest
{
};

class NoDescriptor : public CSystemTest
{
};

class DriverWithoutDescriptors : public CWithDriverTest
{
protected:
    void SetUp() override
    {
        if (NEEDED_BY_CHECKS > 0)
            GTEST_SKIP() << "the sanitizer needs descriptors itself";
    }

    // The driver gets no descriptor above those that it has, or as many as it likes.
    void limitDriver(bool bLimited) const
    {
        rlimit limit = {};
        ASSERT_EQ(0, prlimit(m_driver.processID(), RLIMIT_NOFILE, nullptr, &limit));
        limit.rlim_cur = bLimited ? freeDescriptorOfDriver() : limit.rlim_max;
        ASSERT_EQ(0, prlimit(m_driver.processID(), RLIMIT_NOFILE, &limit, nullptr));
    }

private:
    rlim_t freeDescriptorOfDriver() const
    {
        const std::string strFolder = "/proc/" + std::to_string(m_driver.processID()) + "/fd/";
        rlim_t nFree = 0;
        char szTarget[256];
        while (readlink((strFolder + std::to_string(nFree)).c_str(), szTarget, sizeof(szTarget)) > 0)
            ++nFree;
        return nFree;
    }
};
} // namespace

TEST(NoDescriptorAtTheStart, Is47ForEverAndTheLogTellsWhatItLost)
{
    if (NEEDED_BY_CHECKS > 0)
        GTEST_SKIP() << "the sanitizer needs descriptors itself";
    CCompletions completions;
    std::unique_ptr<CZelMediaServices> pServices;
    {
        const CDescriptorLimit none(0);
        pServices = std::make_unique<CZelMediaServices>(&completions);
        EXPECT_NE(0, access(responsePipe().c_str(), F_OK));
        EXPECT_NE(0, access(eventPipe().c_str(), F_OK));
        EXPECT_NE(0, access(defaultLog().c_str(), F_OK));
    }
    CScriptedDriver driver;
    EXPECT_TRUE(waitUntil([&] {
        CZelMediaStream* pStream = nullptr;
        EXPECT_EQ(MCS_NOTCONNECTED, pServices->openMediaStream(&pStream, "call", 1));
        const std::string strLog = contentOf(defaultLog());
        return strLog.find(std::string(" lost: ") + strerror(EMFILE)) != std::string::npos &&
               strLog.find("media driver not running or not connected") != std::string::npos;
    }));
    EXPECT_EQ(0u, driver.count(MICMD_CONNECT));
}

TEST_F(NoDescriptor, RequestPipeIsTriedEachSecondUntilOneIsFree)
{
    const unsigned long ulFileID = openPhraseFile("/p/a.ul");
    loseDriver();
    int nKept = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    {
        const CDescriptorLimit none(0);
        close(nKept); // for the driver, which is in this process
        m_driver.start();
        const std::string strLine = "(Error) CMIntf::eventThreadFunc, can't open request pipe \"" +
                                    std::string(MI_REQUEST_PIPE) + "\" (" + std::to_string(EMFILE) + ")";
        ASSERT_TRUE(m_pLog->waitFor(strLine, 2));
        EXPECT_EQ(MCS_NOTCONNECTED, tryOpen());
        EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
    }
    ASSERT_TRUE(waitConnected(2));
    EXPECT_TRUE(m_driver.waitCount(MICMD_OPENFILE, 2));
    CZelMediaStream* const pStream = open();
    EXPECT_EQ(MCS_OK, pStream->playAddPhrase(ulFileID, 0, 8000, 60, 0, 0));
}

TEST_F(NoDescriptor, MoreIsNeededByAConnectedLibrary)
{
    CZelMediaStream* const pFirst = open("first");
    const CDescriptorLimit none(NEEDED_BY_CHECKS);
    CZelMediaStream* const pStream = open();
    const unsigned long ulFileID = openPhraseFile("/p/a.ul");
    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, pStream->playAddPhrase(ulFileID, 0, 8000, 60, 0, 0));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYCLIP));
    ASSERT_TRUE(m_completions.waitCount(2));
    EXPECT_EQ(MCS_OK, recordWithPrompt(pFirst, ulFileID, "/p/r.wav"));
    unsigned long ulMilliSeconds = 0;
    EXPECT_EQ(MCS_OK, pFirst->recordGetTimeMilliseconds(&ulMilliSeconds));
    EXPECT_EQ(1, pFirst->recordGetStatus());
    EXPECT_EQ(MCS_OK, pFirst->playCancel());
    EXPECT_EQ(MCS_OK, play(pStream, "/p/2.wav", 0)); // overdue at once
    ASSERT_TRUE(m_completions.waitCount(3));
    EXPECT_EQ(MCS_TIMEDOUT, m_completions.all()[2].mcstatus);
    EXPECT_EQ(MCS_OK, m_pServices->dump());
    EXPECT_EQ(MCS_OK, m_pServices->closePhraseFile(ulFileID));
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
}

TEST_F(ManyDescriptors, PipesWithNumbersAbove5000Work)
{
    if (m_vFiles.back() < MANY_FILES)
        GTEST_SKIP() << "this system allows too few descriptors";
    EXPECT_LT(5000, lowestDescriptorOf("self", "OrvMediaIntf-"));

    CZelMediaStream* const pStream = open();
    const unsigned long ulFileID = openPhraseFile("/p/a.ul");
    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
    EXPECT_EQ(MCS_OK, recordWithPrompt(pStream, ulFileID, "/p/r.wav"));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYCLIP));
    m_driver.done(m_driver.waitRequest(MICMD_RECORDFILE));
    ASSERT_TRUE(m_completions.waitCount(3));
    EXPECT_EQ(MCS_OK, play(pStream, "/p/2.wav", 0)); // overdue at once
    ASSERT_TRUE(m_completions.waitCount(4));
    EXPECT_EQ(MCS_TIMEDOUT, m_completions.all()[3].mcstatus);

    loseDriver();
    m_driver.start();
    ASSERT_TRUE(waitConnected(2));
    EXPECT_TRUE(m_driver.waitCount(MICMD_OPENFILE, 2));
    EXPECT_EQ(MCS_OK, tryOpen());
}

TEST_F(DriverWithoutDescriptors, RefusesWhatNeedsOneAndServesTheRest)
{
    startLibrary();
    ASSERT_TRUE(startDriver());
    ASSERT_TRUE(waitConnected());
    CZelMediaStream* const pStream = open("call");
    unsigned long ulOpen = 0;
    unsigned long ulRefused = 0;
    CZelMediaStream* pRefused = nullptr;
    EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text(SHORT_FILE), &ulOpen));

    limitDriver(true);
    EXPECT_EQ(MCS_REFUSED, play(pStream, SHORT_FILE));
    EXPECT_EQ(MCS_REFUSED, pStream->recordToFile(text("/tmp/message.ul"), 0, 5, 60, 0));
    EXPECT_EQ(MCS_REFUSED, m_pServices->openPhraseFile(text(LONG_FILE), &ulRefused));
    EXPECT_EQ(MCS_REFUSED, m_pServices->openMediaStream(&pRefused, "other", 1));
    EXPECT_EQ(nullptr, pRefused);
    EXPECT_EQ(MCS_OK, pStream->playAddPhrase(ulOpen, 0, 160, 60, 0, 0));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ(MCS_OK, m_completions.all()[0].mcstatus);
    EXPECT_NE(std::string::npos, contentOf("/tmp/driver.log").find("Too many open files"));

    limitDriver(false);
    EXPECT_EQ(MCS_OK, play(pStream, SHORT_FILE));
    ASSERT_TRUE(m_completions.waitCount(2));
    EXPECT_EQ(MCS_OK, m_completions.all()[1].mcstatus);
    EXPECT_EQ(MCS_OK, pStream->recordToFile(text("/tmp/message.ul"), 0, 5, 60, 0));
    open("other");
}

TEST_F(DriverWithoutDescriptors, TurnsAClientAwayAndServesTheNextOne)
{
    ASSERT_TRUE(startDriver());
    limitDriver(true);
    CChild child;
    startChild(
        child,
        [this] {
            startLibrary();
            pause();
        });
    EXPECT_TRUE(
        waitUntil([] { return contentOf("/tmp/driver.log").find("Too many open files") != std::string::npos; }));
    child.signal(SIGKILL);
    EXPECT_EQ(SIGKILL, signalOf(child));
    limitDriver(false);
    startLibrary();
    EXPECT_TRUE(waitConnected());
    open("call");
}

class DriverWithManyDescriptors : public CWithDriverTest
{
};

TEST_F(DriverWithManyDescriptors, ServesWithNumbersAbove5000)
{
    const std::vector<int> vInherited = openFiles(MANY_FILES, 0);
    const bool bEnough = vInherited.back() >= MANY_FILES;
    const bool bStarted = startDriver();
    closeAll(vInherited);
    if (!bEnough)
        GTEST_SKIP() << "this system allows too few descriptors";
    ASSERT_TRUE(bStarted);
    startLibrary();
    ASSERT_TRUE(waitConnected());
    EXPECT_LT(5000, lowestDescriptorOf(std::to_string(m_driver.processID()), "OrvMediaIntf-"));
    CZelMediaStream* const pStream = open("call");
    unsigned long ulFileID = 0;
    EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text(SHORT_FILE), &ulFileID));
    EXPECT_EQ(MCS_OK, play(pStream, SHORT_FILE));
    EXPECT_EQ(MCS_OK, pStream->recordToFileWithPromptPhrase(ulFileID, 0, 160, text("/tmp/message.ul"), 0, 1, 60, 0));
    ASSERT_TRUE(m_completions.waitCount(3));
    for (const CCompletion& completion : m_completions.all())
        EXPECT_EQ(MCS_OK, completion.mcstatus);
}
