// The control socket: what may be in its place, who may come, and peers that misbehave.
#include "ControlSocket.h"

#include "Child.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <vector>

using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
const std::string SOCKET_PATH = "/tmp/control-test.sock";

sockaddr_un unixAddress(const std::string& strPath)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

bool connectTo(int nFd, const std::string& strPath)
{
    const sockaddr_un address = unixAddress(strPath);
    return ::connect(nFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

// A socket file with a listener, or without one when the descriptor is closed.
CFd bindAt(const std::string& strPath, int nType = SOCK_STREAM)
{
    CFd fd(::socket(AF_UNIX, nType | SOCK_CLOEXEC, 0));
    const sockaddr_un address = unixAddress(strPath);
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    if (nType == SOCK_STREAM)
        EXPECT_EQ(::listen(fd.get(), 1), 0);
    return fd;
}

// Somebody who is connected to the socket.
class CPeer
{
public:
    CPeer() : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        EXPECT_TRUE(connectTo(m_fd.get(), SOCKET_PATH));
    }

    // Returns how much of it found room.
    size_t send(const std::string& strText)
    {
        const ssize_t nSent = ::send(m_fd.get(), strText.data(), strText.size(), MSG_NOSIGNAL);
        return nSent < 0 ? 0 : static_cast<size_t>(nSent);
    }
    // All that came so far.
    const std::string& text()
    {
        std::array<char, 65536> bytes;
        ssize_t nRead = 0;
        while ((nRead = ::recv(m_fd.get(), bytes.data(), bytes.size(), 0)) > 0)
            m_strText.append(bytes.data(), static_cast<size_t>(nRead));
        m_bEnded = m_bEnded || nRead == 0 || errno == ECONNRESET;
        return m_strText;
    }
    bool hasEnded()
    {
        text();
        return m_bEnded;
    }
    void endSending() { ::shutdown(m_fd.get(), SHUT_WR); }

private:
    CFd m_fd;
    std::string m_strText;
    bool m_bEnded = false;
};

class ControlSocket : public testing::Test
{
protected:
    ControlSocket()
    {
        std::filesystem::remove_all(SOCKET_PATH);
        std::string strError;
        EXPECT_TRUE(m_poller.create(strError)) << strError;
        m_pSocket = newSocket();
    }
    ~ControlSocket() override
    {
        m_pSocket.reset();
        std::filesystem::remove_all(SOCKET_PATH);
    }

    std::unique_ptr<CControlSocket> newSocket()
    {
        return std::make_unique<CControlSocket>(
            m_poller,
            [this](const std::string& strLine) {
                m_vLines.push_back(strLine);
                return m_strAnswer.empty() ? "got " + strLine : m_strAnswer;
            });
    }
    void mustOpen()
    {
        std::string strError;
        ASSERT_TRUE(m_pSocket->open(SOCKET_PATH, strError)) << strError;
    }
    std::string errorOfOpen(const std::string& strPath = SOCKET_PATH)
    {
        std::string strError;
        EXPECT_FALSE(newSocket()->open(strPath, strError));
        return strError;
    }
    void turns(int nTurns = 10)
    {
        std::string strError;
        for (int nTurn = 0; nTurn < nTurns; ++nTurn)
            ASSERT_TRUE(m_poller.wait(0, strError)) << strError;
    }
    // Whether the loop has nothing to do.
    bool isQuiet()
    {
        const auto before = std::chrono::steady_clock::now();
        std::string strError;
        return m_poller.wait(50, strError) &&
               std::chrono::steady_clock::now() - before >= std::chrono::milliseconds(50);
    }
    static size_t openFiles()
    {
        const std::filesystem::directory_iterator files("/proc/self/fd");
        return static_cast<size_t>(std::distance(begin(files), end(files)));
    }

    CPoller m_poller;
    std::vector<std::string> m_vLines;
    std::string m_strAnswer; // empty: the line comes back
    std::unique_ptr<CControlSocket> m_pSocket;
};
} // namespace

TEST_F(ControlSocket, IsForItsUserAloneWhateverTheUmask)
{
    for (const mode_t nUmask : {0U, 0077U, 0777U})
    {
        const mode_t nFormer = ::umask(nUmask);
        mustOpen();
        EXPECT_EQ(::umask(nFormer), nUmask);
        struct stat status = {};
        ASSERT_EQ(::lstat(SOCKET_PATH.c_str(), &status), 0);
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        EXPECT_EQ(status.st_mode & 07777, 0600U);
        m_pSocket = newSocket();
    }
}

TEST_F(ControlSocket, IsRemovedAtItsEnd)
{
    mustOpen();
    m_pSocket.reset();
    EXPECT_FALSE(std::filesystem::exists(SOCKET_PATH));
}

TEST_F(ControlSocket, LeavesAnotherFileInItsPlaceAlone)
{
    mustOpen();
    std::filesystem::remove(SOCKET_PATH);
    std::ofstream(SOCKET_PATH) << "mine";
    m_pSocket.reset();
    EXPECT_TRUE(std::filesystem::is_regular_file(SOCKET_PATH));
}

TEST_F(ControlSocket, ReplacesASocketThatNobodyListensTo)
{
    bindAt(SOCKET_PATH).close();
    ASSERT_TRUE(std::filesystem::is_socket(SOCKET_PATH));
    mustOpen();
    CPeer peer;
    peer.send("hello\n");
    turns();
    EXPECT_EQ(peer.text(), "got hello\n");
}

TEST_F(ControlSocket, LeavesASocketAloneThatSomebodyListensTo)
{
    const CFd fdOther = bindAt(SOCKET_PATH);
    EXPECT_THAT(errorOfOpen(), HasSubstr("another program listens at \"/tmp/control-test.sock\""));
    const CFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    EXPECT_TRUE(connectTo(fd.get(), SOCKET_PATH));
}

TEST_F(ControlSocket, LeavesASocketAloneWhoseListenerHasNoRoom)
{
    const CFd fdOther = bindAt(SOCKET_PATH);
    std::vector<CFd> vWaiting;
    do
    {
        vWaiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    } while (connectTo(vWaiting.back().get(), SOCKET_PATH));
    EXPECT_THAT(errorOfOpen(), HasSubstr("another program listens"));
    EXPECT_TRUE(std::filesystem::is_socket(SOCKET_PATH));
}

TEST_F(ControlSocket, LeavesASocketOfAnotherTypeAlone)
{
    const CFd fdOther = bindAt(SOCKET_PATH, SOCK_DGRAM);
    EXPECT_THAT(errorOfOpen(), HasSubstr("cannot replace"));
    EXPECT_TRUE(std::filesystem::is_socket(SOCKET_PATH));
}

TEST_F(ControlSocket, LeavesFilesFoldersAndLinksAlone)
{
    std::ofstream(SOCKET_PATH) << "mine";
    EXPECT_THAT(errorOfOpen(), HasSubstr("exists and is not a socket"));
    EXPECT_EQ(std::filesystem::file_size(SOCKET_PATH), 4U);
    std::filesystem::remove(SOCKET_PATH);

    std::filesystem::create_directory(SOCKET_PATH);
    EXPECT_THAT(errorOfOpen(), HasSubstr("exists and is not a socket"));
    EXPECT_TRUE(std::filesystem::is_directory(SOCKET_PATH));
    std::filesystem::remove(SOCKET_PATH);

    std::filesystem::create_symlink("/tmp/elsewhere", SOCKET_PATH);
    EXPECT_THAT(errorOfOpen(), HasSubstr("exists and is not a socket"));
    EXPECT_TRUE(std::filesystem::is_symlink(SOCKET_PATH));
    EXPECT_FALSE(std::filesystem::exists("/tmp/elsewhere"));
}

TEST_F(ControlSocket, SaysWhatIsWrongWithItsPath)
{
    EXPECT_THAT(errorOfOpen(""), HasSubstr("must have 1 to 107 bytes"));
    EXPECT_THAT(errorOfOpen("/tmp/" + std::string(103, 'x')), HasSubstr("must have 1 to 107 bytes"));
    EXPECT_THAT(errorOfOpen("/tmp/no/such/folder"), HasSubstr("No such file or directory"));
    EXPECT_THAT(errorOfOpen("/proc/x"), HasSubstr("cannot create the socket \"/proc/x\""));
}

TEST_F(ControlSocket, SaysWhenItCannotListen)
{
    CPoller dead;
    CControlSocket socket(dead, nullptr);
    std::string strError;
    EXPECT_FALSE(socket.open(SOCKET_PATH, strError));
    EXPECT_THAT(strError, HasSubstr("cannot listen at"));
}

TEST_F(ControlSocket, TurnsOtherUsersAway)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can be somebody else";
    mustOpen();
    ASSERT_EQ(::chmod(SOCKET_PATH.c_str(), 0666), 0);
    CChild other;
    other.start([] {
        const CFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        char c = 0;
        if (::setuid(65534) != 0 || !connectTo(fd.get(), SOCKET_PATH))
            return 2;
        ::send(fd.get(), "hello\n", 6, MSG_NOSIGNAL);
        return ::recv(fd.get(), &c, 1, 0) > 0 ? 1 : 0;
    });
    std::string strError;
    while (other.isRunning())
        ASSERT_TRUE(m_poller.wait(10, strError));
    EXPECT_EQ(other.waitExit(), 0);
    EXPECT_THAT(m_vLines, IsEmpty());
}

TEST_F(ControlSocket, AnswersEachLineInOrder)
{
    mustOpen();
    CPeer peer;
    peer.send("one\ntwo\n\nfour\n");
    turns();
    EXPECT_EQ(peer.text(), "got one\ngot two\ngot \ngot four\n");
    peer.send("five\n");
    turns();
    EXPECT_THAT(peer.text(), HasSubstr("got five\n"));
    EXPECT_FALSE(peer.hasEnded());
    EXPECT_TRUE(isQuiet());
}

TEST_F(ControlSocket, TakesOneLineAtEachTurn)
{
    mustOpen();
    CPeer peer;
    turns(1);
    peer.send("one\ntwo\nthree\n");
    for (size_t nLines = 1; nLines <= 3; ++nLines)
    {
        turns(1);
        EXPECT_EQ(m_vLines.size(), nLines);
    }
}

TEST_F(ControlSocket, ListensNoMoreToAPeerThatDoesNotTakeItsAnswers)
{
    mustOpen();
    m_strAnswer = std::string(1000000, 'a');
    CPeer deaf;
    size_t nSent = 0;
    for (int n = 0; n < 1000; ++n)
    {
        nSent += deaf.send("0123456789abcdef0123456789abcde\n");
        turns(1);
    }
    EXPECT_EQ(m_vLines.size(), 1U);
    EXPECT_TRUE(isQuiet());

    m_strAnswer.clear();
    CPeer other;
    other.send("hello\n");
    turns();
    EXPECT_EQ(other.text(), "got hello\n");

    const size_t nLines = nSent / 32;
    while (m_vLines.size() < 1 + nLines)
    {
        ASSERT_FALSE(deaf.hasEnded());
        turns(1);
    }
    turns();
    EXPECT_EQ(deaf.text().size(), 1000001 + (nLines - 1) * 36);
}

TEST_F(ControlSocket, ForgetsAPeerThatLeavesAtAnyPoint)
{
    mustOpen();
    turns();
    const size_t nFiles = openFiles();
    m_strAnswer = std::string(1000000, 'a');
    const std::vector<std::function<void(CPeer&)>> vDeeds = {
        [](CPeer&) {},
        [](CPeer& peer) { peer.send("hal"); },
        [](CPeer& peer) { peer.send("one\ntwo\n"); },
        [](CPeer& peer) { peer.endSending(); },
        [](CPeer& peer) {
            peer.send("one\n");
            peer.endSending();
        },
    };
    for (const auto& deed : vDeeds)
    {
        for (const int nTurns : {0, 1, 2, 10})
        {
            {
                CPeer peer;
                deed(peer);
                turns(nTurns);
            }
            turns();
            EXPECT_EQ(openFiles(), nFiles);
        }
    }
    EXPECT_TRUE(isQuiet());
}

TEST_F(ControlSocket, LetsNobodyBeKeptOutByPeersThatAreQuiet)
{
    mustOpen();
    const size_t nFiles = openFiles();
    std::vector<std::unique_ptr<CPeer>> vPeers;
    for (size_t n = 0; n < CControlSocket::MAX_CONNECTIONS; ++n)
    {
        vPeers.push_back(std::make_unique<CPeer>());
        turns(1);
    }
    vPeers[0]->send("busy\n");
    turns();
    CPeer last;
    last.send("hello\n");
    turns();
    EXPECT_EQ(last.text(), "got hello\n");
    EXPECT_FALSE(vPeers[0]->hasEnded());
    EXPECT_TRUE(vPeers[1]->hasEnded());
    EXPECT_FALSE(vPeers[2]->hasEnded());
    const size_t nHere = CControlSocket::MAX_CONNECTIONS;
    EXPECT_EQ(openFiles(), nFiles + nHere + vPeers.size() + 1);
}

TEST_F(ControlSocket, TurnsPeersAwayWhenItHasNoDescriptorForThem)
{
#if defined(ZELMEDIA_ASAN)
    GTEST_SKIP() << "the sanitizers of this build need descriptors themselves";
#endif
    mustOpen();
    CPeer first;
    turns();
    CPeer second;
    rlimit former = {};
    ::getrlimit(RLIMIT_NOFILE, &former);
    std::vector<CFd> vAll;
    const rlimit small = {64, former.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &small);
    do
    {
        vAll.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    } while (vAll.back().isOpen());
    turns();
    EXPECT_TRUE(second.hasEnded());
    EXPECT_TRUE(isQuiet());
    vAll.clear();
    ::setrlimit(RLIMIT_NOFILE, &former);

    CPeer third;
    for (CPeer* pPeer : {&first, &third})
    {
        pPeer->send("hello\n");
        turns();
        EXPECT_EQ(pPeer->text(), "got hello\n");
    }
}

TEST_F(ControlSocket, HangsUpOnItsPeersAtItsEnd)
{
    mustOpen();
    CPeer served;
    turns();
    CPeer waiting;
    m_pSocket.reset();
    EXPECT_TRUE(served.hasEnded());
    EXPECT_TRUE(waiting.hasEnded());
}
