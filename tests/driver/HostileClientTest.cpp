// The driver program among clients that break the rules: a good one beside them must not notice.
#include "DriverTestSupport.h"
#include "ProgramSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <chrono>
#include <climits>
#include <csignal>
#include <filesystem>
#include <random>

namespace
{
constexpr std::uint32_t PIECE = 160; // what the good client plays at a time

// How much more memory the driver may have in use after a test. Sanitizers keep what was freed.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t MEMORY_SLACK = std::size_t{512} << 20;
#else
constexpr std::size_t MEMORY_SLACK = std::size_t{6} << 20;
#endif

// Process ids that no process has: more than the system allows.
constexpr int NO_PROCESS = 5000000;

std::string RspPath(int nProcessID)
{
    return MI_RESPONSE_PIPE_PREFIX + std::to_string(nProcessID);
}

std::string EvtPath(int nProcessID)
{
    return MI_EVENT_PIPE_PREFIX + std::to_string(nProcessID);
}

structMICMD ConnectCommand(const std::string& strRspPipe, const std::string& strEvtPipe)
{
    structMICMD cmd = Command(MICMD_CONNECT, 0, 1);
    SetText(cmd.connect.szRspPipe, strRspPipe);
    SetText(cmd.connect.szEvtPipe, strEvtPipe);
    return cmd;
}

// A client in a process of its own that pings and plays all the time, and ends badly as soon as a ping is
// not answered, or an event is missing, twice there, out of order or not one of success.
class CGoodClient
{
public:
    explicit CGoodClient(const CTempFolder& folder)
        : m_child([&folder](const CChildProcess::CParent& parent) { return Live(folder, parent); })
    {
    }

    bool WaitConnected() { return m_child.WaitReport(); }

    // Whether it has been served twice more from beginning to end.
    bool IsServed()
    {
        m_child.Ask();
        return m_child.WaitReport();
    }

    // Ends it. Whether it was served well, and its caller has heard it all.
    bool WaitEnd() { return m_child.WaitEnd(); }

private:
    static bool Live(const CTempFolder& folder, const CChildProcess::CParent& parent)
    {
        CRawClient client;
        const bool bConnected = client.Connect();
        const int nFileID = client.OpenFile(folder.Path("clip.wav"));
        const int nStreamID = client.OpenStream("good", 1);
        if (!bConnected || nFileID == 0 || nStreamID == 0)
        {
            return false;
        }
        parent.Report();
        std::size_t nRounds = 0;
        for (bool bOpen = true; bOpen;)
        {
            const bool bAsked = parent.HasAsked();
            for (int n = 0; n < 2; ++n, ++nRounds)
            {
                if (!Round(client, nStreamID, nFileID))
                {
                    return false;
                }
            }
            if (bAsked && (bOpen = parent.WaitAsked()))
            {
                parent.Report();
            }
        }
        return HasHeard(folder, nRounds);
    }

    static bool Round(CRawClient& client, int nStreamID, int nFileID)
    {
        if (!client.PlayClip(nStreamID, nFileID, 0, PIECE))
        {
            return false;
        }
        const structMIEVT expected = {MIEVT_DONE, nStreamID, client.Sequence(), 0};
        if (!client.Request(Command(MICMD_PING, 0, 0)))
        {
            return false;
        }
        const auto evt = client.WaitEvent();
        return evt && *evt == expected;
    }

    static bool HasHeard(const CTempFolder& folder, std::size_t nRounds)
    {
        const CSamples piece = Slice(ReadULawWav(folder.Path("clip.wav")), 0, PIECE);
        const CSamples heard = ReadULawWav(folder.Path("good-1.heard.wav"));
        bool bAll = heard.size() == nRounds * PIECE;
        for (std::size_t n = 0; n < heard.size() && bAll; n += PIECE)
        {
            bAll = std::equal(piece.begin(), piece.end(), heard.begin() + static_cast<std::ptrdiff_t>(n));
        }
        return bAll;
    }

    CChildProcess m_child;
};

// A driver with a good client. At the end the client has not noticed anything, and the driver holds no
// more descriptors and memory than at the beginning.
class HostileClient : public testing::Test
{
protected:
    HostileClient()
    {
        ::signal(SIGPIPE, SIG_IGN);
        WriteULaw(m_folder.Path("clip.wav"), SF_FORMAT_WAV, Noise(3200, 1));
        WriteULaw(m_folder.Path("call.in.wav"), SF_FORMAT_WAV, Noise(30000, 2));
    }

    void SetUp() override
    {
        m_pDriver = std::make_unique<CDriverProgram>(std::vector<std::string>{
            "--audio", m_folder.Folder(), "--speed", "max", "--log", m_folder.Path("log"), "--log-level", "warning"});
        ASSERT_TRUE(m_pDriver->WaitReady());
        m_pGood = std::make_unique<CGoodClient>(m_folder);
        ASSERT_TRUE(m_pGood->WaitConnected());
        m_fdReq = CFd(::open(MI_REQUEST_PIPE, O_WRONLY | O_CLOEXEC));
        ASSERT_TRUE(m_pGood->IsServed());
        m_nDescriptors = m_pDriver->OpenDescriptors();
        m_nMemory = m_pDriver->ResidentBytes();
    }

    void TearDown() override
    {
        ASSERT_TRUE(m_pGood);
        EXPECT_TRUE(m_pGood->IsServed());
        EXPECT_TRUE(WaitUntilAllLeft());
        EXPECT_LE(m_pDriver->ResidentBytes(), m_nMemory + MEMORY_SLACK);
        EXPECT_TRUE(m_pGood->WaitEnd());
        m_pDriver->Signal(SIGTERM);
        EXPECT_EQ(m_pDriver->WaitExit(), 0);
        EXPECT_LE(std::filesystem::file_size(m_folder.Path("log")), std::size_t{1} << 20);
    }

    // Whether all clients but the good one have left the driver before long.
    bool WaitUntilAllLeft()
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (m_pDriver->OpenDescriptors() != m_nDescriptors)
        {
            if (std::chrono::steady_clock::now() > deadline || !m_pGood->IsServed())
            {
                return false;
            }
        }
        return true;
    }

    // Returns when the driver has room for it.
    void Write(const void* pBytes, std::size_t nSize)
    {
        ASSERT_EQ(::write(m_fdReq.Get(), pBytes, nSize), static_cast<ssize_t>(nSize));
    }
    void Write(const structMICMD& cmd) { Write(&cmd, sizeof(cmd)); }

    // Whether the driver has taken everything that was written, and still serves.
    bool IsTaken() { return m_pGood->IsServed(); }

    CTempFolder m_folder;
    std::unique_ptr<CDriverProgram> m_pDriver;
    std::unique_ptr<CGoodClient> m_pGood;
    CFd m_fdReq;
    std::size_t m_nDescriptors = 0;
    std::size_t m_nMemory = 0;
};

// Two FIFOs with readers under the names of a process, and nothing that came through them yet.
class CFifoPair
{
public:
    explicit CFifoPair(int nProcessID) : m_strRsp(RspPath(nProcessID)), m_strEvt(EvtPath(nProcessID))
    {
        ::mkfifo(m_strRsp.c_str(), 0600);
        ::mkfifo(m_strEvt.c_str(), 0600);
        m_fdRsp = CFd(::open(m_strRsp.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        m_fdEvt = CFd(::open(m_strEvt.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }

    bool IsEmpty() const
    {
        char c = 0;
        return ::read(m_fdRsp.Get(), &c, 1) < 0 && ::read(m_fdEvt.Get(), &c, 1) < 0;
    }

    const std::string m_strRsp;
    const std::string m_strEvt;

private:
    CFd m_fdRsp;
    CFd m_fdEvt;
};
} // namespace

TEST_F(HostileClient, WritesRandomBytesOfRandomLengths)
{
    std::mt19937 random(1);
    for (unsigned nWrite = 0; nWrite < 2000; ++nWrite)
    {
        const std::size_t nSize = nWrite % 100 == 0 ? 30000 : 1 + random() % 1000;
        Write(Noise(nSize, nWrite).data(), nSize);
        ASSERT_TRUE(nWrite % 200 != 0 || m_pGood->IsServed());
    }
}

TEST_F(HostileClient, WritesCommandsInTheNameOfOthersByAccident)
{
    // Codes and ids as they occur, the good client's among them; but its numbers are larger by now.
    std::mt19937 random(2);
    for (unsigned nWrite = 0; nWrite < 5000; ++nWrite)
    {
        std::int32_t anWords[70];
        for (std::int32_t& nWord : anWords)
        {
            nWord = static_cast<std::int32_t>(random() % 4);
        }
        anWords[0] = static_cast<std::int32_t>(random() % 20);
        Write(anWords, sizeof(anWords) - random() % 8);
        ASSERT_TRUE(nWrite % 500 != 0 || m_pGood->IsServed());
    }
}

TEST_F(HostileClient, FloodsTheRequestPipe)
{
    std::vector<std::unique_ptr<CChildProcess>> vChildren;
    for (const std::size_t nSize : {7U, 280U, 4096U, 20000U})
    {
        vChildren.push_back(std::make_unique<CChildProcess>([nSize](const CChildProcess::CParent& parent) {
            const CFd fdReq(::open(MI_REQUEST_PIPE, O_WRONLY));
            CSamples bytes = Noise(nSize, static_cast<unsigned>(nSize));
            if (nSize == 280)
            {
                const structMICMD cmd = Command(MICMD_PING, 4711, 5);
                std::memcpy(bytes.data(), &cmd, sizeof(cmd));
            }
            parent.Report();
            while (::write(fdReq.Get(), bytes.data(), nSize) > 0)
            {
            }
            return true;
        }));
        ASSERT_TRUE(vChildren.back()->WaitReport());
    }
    for (int n = 0; n < 100; ++n)
    {
        ASSERT_TRUE(m_pGood->IsServed());
    }
}

TEST_F(HostileClient, NamesIdsThatAreNotItsOwn)
{
    CRawClient client;
    ASSERT_TRUE(client.Connect());
    for (const int nID : {1, 2, 0, -1, 12345, INT_MAX, INT_MIN}) // 1 is the good one's stream and file
    {
        EXPECT_FALSE(client.PlayClip(nID, nID, 0, 100));
        EXPECT_FALSE(client.PlayFile(nID, m_folder.Path("clip.wav")));
        EXPECT_FALSE(client.RecordFile(nID, m_folder.Path("msg.wav"), 100));
        for (const MICMD micmd : {MICMD_CLOSEFILE, MICMD_CLOSESTREAM, MICMD_CANCEL, MICMD_RECORDGETTIME,
                                  MICMD_RECORDGETSTATUS, static_cast<MICMD>(17), MICMD_NULL, static_cast<MICMD>(-1)})
        {
            structMICMD cmd = Command(micmd, 0, 0);
            cmd.stream.nStreamID = nID;
            const auto rsp = client.Request(cmd);
            ASSERT_TRUE(rsp) << micmd;
            EXPECT_EQ(rsp->s_mirsp, MIRSP_STATUS);
            EXPECT_EQ(rsp->s_nResult, MISTATUS_FAILED);
        }
    }
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("msg.wav")));
    EXPECT_TRUE(client.Request(Command(MICMD_DISCONNECT, 0, 0)));
}

TEST_F(HostileClient, SendsTextsWithoutAnEndAndNumbersOutOfRange)
{
    CRawClient client;
    ASSERT_TRUE(client.Connect());
    for (int nCode = MICMD_DISCONNECT + 1; nCode <= MICMD_RECORDGETSTATUS; ++nCode)
    {
        for (const int nByte : {0x00, 0x01, 0x2F, 0x41, 0x80, 0xFF})
        {
            structMICMD cmd = Command(static_cast<MICMD>(nCode), 0, 0);
            std::memset(cmd.abBody, nByte, sizeof(cmd.abBody));
            ASSERT_TRUE(client.Request(cmd)) << nCode << " " << nByte;
        }
    }
    const int nFileID = client.OpenFile(m_folder.Path("clip.wav"));
    const int nStreamID = client.OpenStream("call", 0xFFFFFFFF);
    EXPECT_FALSE(client.PlayClip(nStreamID, nFileID, 0xFFFFFFFF, 0xFFFFFFFF));
    EXPECT_TRUE(client.PlayClip(nStreamID, nFileID, 3199, 0xFFFFFFFF));
    EXPECT_TRUE(client.WaitEvent());
    EXPECT_TRUE(client.Request(Command(MICMD_DISCONNECT, 0, 0)));
}

TEST_F(HostileClient, ConnectsWithFilesThatAreNoFifos)
{
    const std::string strVictim = m_folder.Path("victim");
    const CSamples content = Noise(5000, 3);
    WriteBytes(strVictim, content);
    const CFifoPair pipes(NO_PROCESS);
    const std::string strRsp = RspPath(NO_PROCESS + 1);
    const auto connect = [&] {
        Write(ConnectCommand(strRsp, EvtPath(NO_PROCESS + 1)));
        EXPECT_TRUE(IsTaken());
        EXPECT_EQ(m_pDriver->OpenDescriptors(), m_nDescriptors);
        ::remove(strRsp.c_str());
    };
    const CFifoPair others(NO_PROCESS + 1);
    ::unlink(strRsp.c_str());

    connect(); // nothing there
    WriteBytes(strRsp, content);
    Write(ConnectCommand(strRsp, EvtPath(NO_PROCESS + 1)));
    EXPECT_TRUE(IsTaken());
    EXPECT_EQ(ReadBytes(strRsp), content);
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
    {
        connect();
    }
    ASSERT_EQ(::mkfifo(strRsp.c_str(), 0600), 0); // without a reader
    connect();
    const CFd fdSocket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    SetText(address.sun_path, strRsp);
    ASSERT_EQ(::bind(fdSocket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    connect();

    EXPECT_EQ(ReadBytes(strVictim), content);
    EXPECT_TRUE(pipes.IsEmpty());
    EXPECT_TRUE(others.IsEmpty());
}

TEST_F(HostileClient, ConnectsWithNamesThatAreNotTheOnesOfAProcess)
{
    const CFifoPair first(NO_PROCESS);
    const CFifoPair second(NO_PROCESS + 1);
    const std::string strOther = m_folder.Path("fifo");
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
        Write(ConnectCommand(strRsp, strEvt));
        ASSERT_TRUE(IsTaken()) << strRsp;
        EXPECT_EQ(m_pDriver->OpenDescriptors(), m_nDescriptors) << strRsp;
    }
    EXPECT_TRUE(first.IsEmpty());
    EXPECT_TRUE(second.IsEmpty());
    char c = 0;
    EXPECT_LT(::read(fdOther.Get(), &c, 1), 0);
}

TEST_F(HostileClient, NeverReadsItsResponses)
{
    CChildProcess hostile([](const CChildProcess::CParent& parent) {
        CRawClient client;
        bool bOk = client.Connect();
        for (int n = 0; n < 5000 && bOk; ++n)
        {
            bOk = client.Send(Command(n % 2 == 0 ? MICMD_PING : MICMD_NULL, 0, 0));
        }
        parent.Report();
        return parent.WaitAsked() && bOk;
    });
    ASSERT_TRUE(hostile.WaitReport());
    EXPECT_TRUE(m_pGood->IsServed());
    hostile.Ask();
    EXPECT_TRUE(hostile.WaitEnd());
}

TEST_F(HostileClient, NeverReadsItsEvents)
{
    CChildProcess hostile([this](const CChildProcess::CParent& parent) {
        CRawClient client;
        bool bOk = client.Connect();
        const int nStreamID = client.OpenStream("call", 1);
        const int nFileID = client.OpenFile(m_folder.Path("clip.wav"));
        int nAccepted = 0;
        for (int n = 0; n < 10000 && bOk; ++n)
        {
            // Refused while the one before it plays.
            structMICMD cmd = Command(MICMD_PLAYCLIP, 0, 0);
            cmd.playClip = {nStreamID, nFileID, 0, 0, 0};
            const auto rsp = client.Request(cmd);
            bOk = rsp.has_value();
            nAccepted += bOk && rsp->s_nResult == MISTATUS_OK ? 1 : 0;
        }
        parent.Report();
        return parent.WaitAsked() && bOk && nAccepted > 100;
    });
    ASSERT_TRUE(hostile.WaitReport());
    EXPECT_TRUE(m_pGood->IsServed());
    hostile.Ask();
    EXPECT_TRUE(hostile.WaitEnd());
}

TEST_F(HostileClient, DiesInAnyState)
{
    struct CState
    {
        const char* m_pName;
        bool m_bFile, m_bStream, m_bPlay, m_bRecord;
    };
    constexpr CState STATES[] = {{"connected", false, false, false, false},  {"file open", true, false, false, false},
                                 {"stream open", false, true, false, false}, {"playing", true, true, true, false},
                                 {"recording", false, true, false, true},    {"both", true, true, true, true}};
    for (const CState& state : STATES)
    {
        CChildProcess hostile([&](const CChildProcess::CParent& parent) {
            CRawClient client;
            bool bOk = client.Connect();
            const int nFileID = state.m_bFile ? client.OpenFile(m_folder.Path("clip.wav")) : 1;
            const int nStreamID = state.m_bStream ? client.OpenStream("silent", 1) : 1;
            bOk = bOk && nFileID > 0 && nStreamID > 0;
            bOk = bOk && (!state.m_bRecord || client.RecordFile(nStreamID, m_folder.Path("msg.wav"), 4000000000U));
            bOk = bOk && (!state.m_bPlay || client.PlayClip(nStreamID, nFileID, 0, 0xFFFFFFFF));
            if (bOk)
            {
                parent.Report();
            }
            return bOk && parent.WaitAsked();
        });
        ASSERT_TRUE(hostile.WaitReport()) << state.m_pName;
        hostile.Kill();
        ASSERT_TRUE(WaitUntilAllLeft()) << state.m_pName;
    }
    CRawClient next;
    ASSERT_TRUE(next.Connect());
    EXPECT_GT(next.OpenStream("silent", 1), 0);
    EXPECT_TRUE(next.Request(Command(MICMD_DISCONNECT, 0, 0)));
}

TEST_F(HostileClient, LosesTheFilesOfItsPipes)
{
    for (const bool bReplaced : {false, true})
    {
        CChildProcess hostile([bReplaced](const CChildProcess::CParent& parent) {
            CRawClient client;
            if (!client.Connect() || client.OpenStream("call", 1) == 0)
            {
                return false;
            }
            const std::string strEvt = EvtPath(::getpid());
            ::unlink(strEvt.c_str());
            if (bReplaced)
            {
                ::mkfifo(strEvt.c_str(), 0600);
            }
            parent.Report();
            return parent.WaitAsked(); // with all its pipes still open
        });
        ASSERT_TRUE(hostile.WaitReport());
        EXPECT_TRUE(WaitUntilAllLeft());
        hostile.Ask();
        EXPECT_TRUE(hostile.WaitEnd());
    }
}

TEST_F(HostileClient, ConnectsAThousandTimesAndVanishes)
{
    constexpr int CLIENTS = 1000;
    constexpr int AT_ONCE = 20;
    for (int nClient = 0; nClient < CLIENTS; nClient += AT_ONCE)
    {
        std::vector<pid_t> vChildren;
        for (int n = 0; n < AT_ONCE; ++n)
        {
            vChildren.push_back(::fork());
            if (vChildren.back() == 0)
            {
                // Every other one waits for the answer, and leaves its files behind.
                CFifoPair pipes(::getpid());
                const structMICMD cmd = ConnectCommand(pipes.m_strRsp, pipes.m_strEvt);
                bool bOk = ::write(m_fdReq.Get(), &cmd, sizeof(cmd)) == static_cast<ssize_t>(sizeof(cmd));
                while (bOk && n % 2 == 0 && pipes.IsEmpty())
                {
                    ::sched_yield();
                }
                ::_exit(bOk ? 0 : 1);
            }
        }
        for (const pid_t nChild : vChildren)
        {
            int nStatus = 0;
            ASSERT_EQ(::waitpid(nChild, &nStatus, 0), nChild);
            ASSERT_EQ(nStatus, 0);
            if (nChild % 2 == 0)
            {
                ::unlink(RspPath(nChild).c_str());
                ::unlink(EvtPath(nChild).c_str());
            }
        }
    }
    EXPECT_TRUE(WaitUntilAllLeft());
}
