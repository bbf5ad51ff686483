// The driver program among clients that connect with pipes that are not theirs or no pipes, and that vanish.
#include "HostileFixture.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

namespace
{
// Process ids that no process has: more than the system allows.
constexpr int NO_PROCESS = 5000000;
} // namespace

using HostileConnect = CHostileFixture;

TEST_F(HostileConnect, ConnectsWithFilesThatAreNoFifos)
{
    const std::string strVictim = m_folder.path("victim");
    const CSamples content = noise(5000, 3);
    writeBytes(strVictim, content);
    const CFifoPair pipes(NO_PROCESS);
    const std::string strRsp = rspPath(NO_PROCESS + 1);
    const auto connect = [&] {
        write(connectCommand(strRsp, evtPath(NO_PROCESS + 1)));
        EXPECT_TRUE(isTaken());
        EXPECT_TRUE(waitUntilAllLeft());
        ::remove(strRsp.c_str());
    };
    const CFifoPair others(NO_PROCESS + 1);
    ::unlink(strRsp.c_str());

    connect(); // nothing there
    writeBytes(strRsp, content);
    write(connectCommand(strRsp, evtPath(NO_PROCESS + 1)));
    EXPECT_TRUE(isTaken());
    EXPECT_EQ(readBytes(strRsp), content);
    connect();
    ASSERT_EQ(::symlink(strVictim.c_str(), strRsp.c_str()), 0);
    connect();
    ASSERT_EQ(::symlink(pipes.m_strRsp.c_str(), strRsp.c_str()), 0);
    connect();
    ASSERT_EQ(::link(pipes.m_strRsp.c_str(), strRsp.c_str()), 0);
    connect();
    ASSERT_EQ(::link(strVictim.c_str(), strRsp.c_str()), 0);
    connect();
    ASSERT_EQ(::mkdir(strRsp.c_str(), 0700), 0);
    connect();
    if (::mknod(strRsp.c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0)
        connect();
    ASSERT_EQ(::mkfifo(strRsp.c_str(), 0600), 0); // without a reader
    connect();
    const CFd fdSocket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    setText(address.sun_path, strRsp);
    ASSERT_EQ(::bind(fdSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    connect();

    EXPECT_EQ(readBytes(strVictim), content);
    EXPECT_TRUE(pipes.isEmpty());
    EXPECT_TRUE(others.isEmpty());
}

TEST_F(HostileConnect, ConnectsWithNamesThatAreNotTheOnesOfAProcess)
{
    const CFifoPair first(NO_PROCESS);
    const CFifoPair second(NO_PROCESS + 1);
    const std::string strOther = m_folder.path("fifo");
    ASSERT_EQ(::mkfifo(strOther.c_str(), 0600), 0);
    const CFd fdOther(::open(strOther.c_str(), O_RDWR | O_NONBLOCK));
    const std::pair<std::string, std::string> vNames[] = {
        {first.m_strRsp, second.m_strEvt},
        {first.m_strEvt, first.m_strRsp},
        {first.m_strRsp, first.m_strRsp},
        {MI_REQUEST_PIPE, MI_REQUEST_PIPE},
        {"/tmp/fifo", "/tmp/fifo"},
        {"", ""},
        {MI_RESPONSE_PIPE_PREFIX, MI_EVENT_PIPE_PREFIX},
        {MI_RESPONSE_PIPE_PREFIX "0", MI_EVENT_PIPE_PREFIX "0"},
        {MI_RESPONSE_PIPE_PREFIX "-1", MI_EVENT_PIPE_PREFIX "-1"},
        {MI_RESPONSE_PIPE_PREFIX "/../x", MI_EVENT_PIPE_PREFIX "/../x"},
        {std::string(32, 'x'), std::string(32, 'x')},
        {MI_RESPONSE_PIPE_PREFIX + std::string(32, '5'), MI_EVENT_PIPE_PREFIX + std::string(32, '5')},
    };
    for (const auto& [strRsp, strEvt] : vNames)
    {
        write(connectCommand(strRsp, strEvt));
        ASSERT_TRUE(isTaken()) << strRsp;
        EXPECT_TRUE(waitUntilAllLeft()) << strRsp;
    }
    EXPECT_TRUE(first.isEmpty());
    EXPECT_TRUE(second.isEmpty());
    char c = 0;
    EXPECT_LT(::read(fdOther.get(), &c, 1), 0);
}

TEST_F(HostileConnect, LosesTheFilesOfItsPipes)
{
    for (const bool bReplaced : {false, true})
    {
        CChildProcess hostile([bReplaced](const CChildProcess::CParent& parent) {
            CRawClient client;
            if (!client.connect() || client.openStream("call", 1) == 0)
                return false;
            const std::string strEvt = evtPath(::getpid());
            ::unlink(strEvt.c_str());
            if (bReplaced)
                ::mkfifo(strEvt.c_str(), 0600);
            parent.report();
            return parent.waitAsked(); // with all its pipes still open
        });
        ASSERT_TRUE(hostile.waitReport());
        EXPECT_TRUE(waitUntilAllLeft());
        hostile.ask();
        EXPECT_TRUE(hostile.waitEnd());
    }
}

TEST_F(HostileConnect, ConnectsAThousandTimesAndVanishes)
{
    constexpr int CLIENTS = 1000;
    constexpr int AT_ONCE = 20;
    for (int nClient = 0; nClient < CLIENTS; nClient += AT_ONCE)
    {
        CChild aChildren[AT_ONCE];
        for (int n = 0; n < AT_ONCE; ++n)
            aChildren[n].start([this, n]() -> int {
                // Every other one waits for the answer, and leaves its files behind.
                CFifoPair pipes(::getpid());
                const structMICMD cmd = connectCommand(pipes.m_strRsp, pipes.m_strEvt);
                bool bOk = ::write(m_fdReq.get(), &cmd, sizeof(cmd)) == static_cast<ssize_t>(sizeof(cmd));
                while (bOk && n % 2 == 0 && pipes.isEmpty())
                    ::sched_yield();
                endChild(bOk ? 0 : 1);
            });
        for (CChild& child : aChildren)
        {
            const pid_t nChild = child.processID();
            ASSERT_EQ(child.waitExit(), 0);
            if (nChild % 2 == 0)
            {
                ::unlink(rspPath(nChild).c_str());
                ::unlink(evtPath(nChild).c_str());
            }
        }
    }
    EXPECT_TRUE(waitUntilAllLeft());
}
