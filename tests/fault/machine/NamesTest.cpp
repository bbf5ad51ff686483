// Names in /tmp that are taken: the library's log by anything, and every name by a FIFO of another user.
#include "EndChild.h"
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

class TakenLogName : public testing::TestWithParam<CObstacle>
{
};

// Runs a part of a test in a process of its own: there is one interface in each.
bool worksInAChild(const std::function<void()>& part)
{
    const pid_t nChild = fork();
    if (nChild == 0)
    {
        part();
        endChild(testing::Test::HasFailure() ? 1 : 0);
    }
    int nStatus = -1;
    return waitpid(nChild, &nStatus, 0) == nChild && nStatus == 0;
}

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

// As if the name was taken from the beginning.
void expectNeverConnected(const std::string& strPath)
{
    ASSERT_TRUE(OTHERS_FIFO.make(strPath));
    const ino_t nInode = inodeOf(strPath);
    CScriptedDriver driver;
    CCompletions completions;
    CZelMediaServices services(&completions);
    CZelMediaStream* pStream = nullptr;
    EXPECT_EQ(MCS_NOTCONNECTED, services.openMediaStream(&pStream, "call", 1));
    EXPECT_EQ(nInode, inodeOf(strPath));
    EXPECT_NE(std::string::npos, contentOf(defaultLog()).find("(" + std::to_string(EEXIST) + ")"));
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
    EXPECT_TRUE(worksInAChild([] { expectNeverConnected(responsePipe()); }));
    EXPECT_TRUE(worksInAChild([] { expectNeverConnected(eventPipe()); }));
    EXPECT_TRUE(worksInAChild([] { expectLogWaits(OTHERS_FIFO); }));
    EXPECT_TRUE(worksInAChild([] {
        ASSERT_TRUE(OTHERS_FIFO.make(MI_REQUEST_PIPE));
        const auto pLog = std::make_shared<CLogRecord>();
        CCompletions completions;
        CZelMediaServices services(&completions);
        services.setLogger(new CLogCapture(pLog), nullptr);
        EXPECT_TRUE(pLog->waitFor("can't open request pipe \"" + std::string(MI_REQUEST_PIPE) + "\" (" +
                                  std::to_string(ENXIO) + ")"));
        CScriptedDriver driver;
        EXPECT_TRUE(driver.waitCount(MICMD_CONNECT, 1));
    }));
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
