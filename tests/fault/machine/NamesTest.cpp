// Names in /tmp that are taken, by anything: those of the library's pipes and of its log.
#include "InChild.h"
#include "Machine.h"

#include <cerrno>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace
{
const char PROTECTED_FIFOS[] = "/proc/sys/fs/protected_fifos";

bool makeSocket(const std::string& strPath)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, strPath.c_str(), sizeof(address.sun_path) - 1);
    const int nSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int nBound = bind(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    close(nSocket);
    return nBound == 0;
}

// What a name may be taken by. make: false where that cannot be made here.
struct CObstacle
{
    const char* pszName;
    bool (*make)(const std::string& strPath);
};

const CObstacle OTHERS_FIFO = {"FifoOfAnotherUser",
                               [](const std::string& strPath) {
                                   return mkfifo(strPath.c_str(), 0600) == 0 && chmod(strPath.c_str(), 0666) == 0 &&
                                          giveToOtherUser(strPath);
                               }};
const CObstacle OBSTACLES[] = {
    {"Fifo", [](const std::string& strPath) { return mkfifo(strPath.c_str(), 0600) == 0; }},
    {"Folder", [](const std::string& strPath) { return mkdir(strPath.c_str(), 0700) == 0; }},
    {"Link",
     [](const std::string& strPath) {
         std::ofstream("/tmp/target") << "untouched";
         return symlink("/tmp/target", strPath.c_str()) == 0;
     }},
    {"DanglingLink", [](const std::string& strPath) { return symlink("/tmp/nowhere", strPath.c_str()) == 0; }},
    {"Socket", makeSocket},
    {"FileOfAnotherUser",
     [](const std::string& strPath) {
         std::ofstream(strPath) << "";
         return chmod(strPath.c_str(), 0666) == 0 && giveToOtherUser(strPath);
     }},
    OTHERS_FIFO,
};

void PrintTo(const CObstacle& obstacle, std::ostream* pStream)
{
    *pStream << obstacle.pszName;
}

const CObstacle OWN_FILE = {"File", [](const std::string& strPath) {
                                std::ofstream(strPath) << "";
                                return access(strPath.c_str(), F_OK) == 0;
                            }};

class TakenLogName : public testing::TestWithParam<CObstacle>
{
};

class TakenPipeName : public testing::TestWithParam<CObstacle>
{
};

// The machine's setting, as it was before once this has gone, however this process ends.
class CProtectedFifos
{
public:
    CProtectedFifos() : m_nLock(open(PROTECTED_FIFOS, O_RDONLY | O_CLOEXEC))
    {
        flock(m_nLock, LOCK_EX); // against this test in another /tmp
        const std::string strBefore = contentOf(PROTECTED_FIFOS);
        if (pipe2(m_anLife, O_CLOEXEC) != 0)
            return;
        m_nGuard = fork();
        if (m_nGuard != 0)
            return;
        close(m_anLife[1]);
        char c;
        while (read(m_anLife[0], &c, 1) < 0)
        {
        }
        set(strBefore);
        _exit(0);
    }
    ~CProtectedFifos()
    {
        close(m_anLife[1]);
        waitpid(m_nGuard, nullptr, 0);
        close(m_anLife[0]);
        close(m_nLock);
    }
    CProtectedFifos(const CProtectedFifos&) = delete;
    CProtectedFifos& operator=(const CProtectedFifos&) = delete;

    static bool set(const std::string& strValue)
    {
        std::ofstream file(PROTECTED_FIFOS);
        file << strValue;
        return file.flush().good();
    }

private:
    const int m_nLock;
    int m_anLife[2] = {-1, -1};
    pid_t m_nGuard = -1;
};

// The name of a pipe of the library is taken from the beginning. Without an event thread, nobody would ever connect.
void expectNeverConnected(const CObstacle& obstacle, const std::string& strPath)
{
    if (!obstacle.make(strPath))
        GTEST_SKIP() << "this user cannot make such a file";
    const ino_t nInode = inodeOf(strPath);
    CScriptedDriver driver;
    CCompletions completions;
    CZelMediaServices services(&completions);
    CZelMediaStream* pStream = nullptr;
    unsigned long ulFileID = 0;
    EXPECT_EQ(0, eventThread());
    EXPECT_EQ(MCS_NOTCONNECTED, services.openMediaStream(&pStream, "call", 1));
    EXPECT_EQ(nullptr, pStream);
    EXPECT_EQ(MCS_NOTCONNECTED, services.openPhraseFile(text("/p/a.ul"), &ulFileID));
    EXPECT_EQ(MCS_NOTCONNECTED, services.dump());
    EXPECT_EQ(0u, driver.requests().size());
    EXPECT_EQ(nInode, inodeOf(strPath));
    const std::string strWhich = strPath == eventPipe() ? "event" : "response";
    EXPECT_NE(std::string::npos, contentOf(defaultLog())
                                     .find("(Error) CMIntf::initialize, can't create " + strWhich + " pipe \"" +
                                           responsePipe() + "\" (" + std::to_string(EEXIST) + ")"));
}

void expectTriedUntilADriverTakesItsPlace(const CObstacle& obstacle)
{
    if (!obstacle.make(MI_REQUEST_PIPE))
        GTEST_SKIP() << "this user cannot make such a file";
    const auto pLog = std::make_shared<CLogRecord>();
    CCompletions completions;
    CZelMediaServices services(&completions);
    services.setLogger(new CLogCapture(pLog), nullptr);
    ASSERT_TRUE(pLog->waitFor("(Error) CMIntf::eventThreadFunc, can't open request pipe", 2));
    rmdir(MI_REQUEST_PIPE); // a driver could not
    CScriptedDriver driver;
    EXPECT_TRUE(driver.waitCount(MICMD_CONNECT, 1));
}

void expectLogWaits(const CObstacle& obstacle)
{
    if (!obstacle.make(defaultLog()))
        GTEST_SKIP() << "this user cannot make such a file";
    const ino_t nInode = inodeOf(defaultLog());
    CScriptedDriver driver;
    CCompletions completions;
    CZelMediaServices services(&completions);
    CZelMediaStream* pStream = nullptr;
    ASSERT_TRUE(waitUntil([&] { return services.openMediaStream(&pStream, "call", 1) == MCS_OK; }));
    EXPECT_EQ(nInode, inodeOf(defaultLog()));
    EXPECT_NE(0, access("/tmp/nowhere", F_OK));
    ASSERT_EQ(0, remove(defaultLog().c_str()));
    EXPECT_TRUE(waitUntil([&] {
        EXPECT_EQ(MCS_OK, pStream->recordSetSilenceParameters(0, 0, 0));
        return contentOf(defaultLog()).find(" lines lost: ") != std::string::npos;
    }));
    services.closeMediaStream(pStream);
}

void expectOthersFifosDoNoHarm()
{
    if (!OTHERS_FIFO.make("/tmp/possible"))
        GTEST_SKIP() << "this user cannot make files of another user";
    EXPECT_EQ(0, unlink("/tmp/possible"));
    // There is one interface in each process.
    EXPECT_EQ(0, inChild([] { expectNeverConnected(OTHERS_FIFO, responsePipe()); }));
    EXPECT_EQ(0, inChild([] { expectNeverConnected(OTHERS_FIFO, eventPipe()); }));
    EXPECT_EQ(0, inChild([] { expectLogWaits(OTHERS_FIFO); }));
    EXPECT_EQ(0, inChild([] { expectTriedUntilADriverTakesItsPlace(OTHERS_FIFO); }));
}
} // namespace

TEST_P(TakenLogName, LosesLinesOnlyAndTheirNumberIsToldWhenItIsFree)
{
    expectLogWaits(GetParam());
    if (std::string(GetParam().pszName) == "Link")
        EXPECT_EQ("untouched", contentOf("/tmp/target"));
}

INSTANTIATE_TEST_SUITE_P(By, TakenLogName, testing::ValuesIn(OBSTACLES),
                         [](const auto& by) { return by.param.pszName; });

TEST_P(TakenPipeName, OfTheResponsesIs47ForEver)
{
    expectNeverConnected(GetParam(), responsePipe());
    EXPECT_NE(0, access(eventPipe().c_str(), F_OK));
}

TEST_P(TakenPipeName, OfTheEventsIs47ForEverAndTheResponsePipeStays)
{
    expectNeverConnected(GetParam(), eventPipe());
    EXPECT_TRUE(IsSkipped() || S_ISFIFO(statusOf(responsePipe()).st_mode));
}

TEST_P(TakenPipeName, OfTheRequestsIsTriedUntilADriverTakesItsPlace)
{
    expectTriedUntilADriverTakesItsPlace(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    By, TakenPipeName, testing::ValuesIn(OBSTACLES), [](const auto& by) { return by.param.pszName; });
INSTANTIATE_TEST_SUITE_P(ByA, TakenPipeName, testing::Values(OWN_FILE),
                         [](const auto& by) { return by.param.pszName; });

TEST(FifoOfAnotherUser, KeepsTheLibraryOutOfItsNamesAndHarmsNoneElse)
{
    expectOthersFifosDoNoHarm();
}

TEST(FifoOfAnotherUser, DoesNoMoreWhateverProtectsFifos)
{
    if (!getenv("ZELMEDIA_CHANGE_HOST"))
        GTEST_SKIP() << "ZELMEDIA_CHANGE_HOST=1 lets this test change " << PROTECTED_FIFOS << " for a while";
    const CProtectedFifos before;
    for (const char* const pszProtection : {"0", "1", "2"})
    {
        SCOPED_TRACE(pszProtection);
        if (!CProtectedFifos::set(pszProtection))
            GTEST_SKIP() << "this machine does not let " << PROTECTED_FIFOS << " be set to " << pszProtection;
        expectOthersFifosDoNoHarm();
    }
}
