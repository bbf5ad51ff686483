// A driver program with a good client, for tests in which others behave badly.
#include "HostileFixture.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <vector>

namespace
{
constexpr std::uint32_t PIECE = 160; // what the good client plays at a time

// How much more memory the driver may have in use after a test. Sanitizers keep what was freed.
#if defined(ZELMEDIA_ASAN) || defined(ZELMEDIA_TSAN)
constexpr std::size_t MEMORY_SLACK = std::size_t{512} << 20;
#else
constexpr std::size_t MEMORY_SLACK = std::size_t{6} << 20;
#endif
constexpr std::size_t LOG_LIMIT = std::size_t{1} << 20;

bool Round(CRawClient& client, int nStreamID, int nFileID)
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

bool HasHeard(const CTempFolder& folder, std::size_t nRounds)
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

bool Live(const CTempFolder& folder, const CChildProcess::CParent& parent)
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
        if (bAsked)
        {
            bOpen = parent.WaitAsked();
            if (bOpen)
            {
                parent.Report();
            }
        }
    }
    return HasHeard(folder, nRounds);
}
} // namespace

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

CGoodClient::CGoodClient(const CTempFolder& folder)
    : m_child([&folder](const CChildProcess::CParent& parent) { return Live(folder, parent); })
{
}

bool CGoodClient::WaitConnected()
{
    return m_child.WaitReport();
}

bool CGoodClient::IsServed()
{
    m_child.Ask();
    return m_child.WaitReport();
}

bool CGoodClient::WaitEnd()
{
    return m_child.WaitEnd();
}

CHostileFixture::CHostileFixture()
{
    ::signal(SIGPIPE, SIG_IGN);
    WriteULaw(m_folder.Path("clip.wav"), SF_FORMAT_WAV, Noise(3200, 1));
    WriteULaw(m_folder.Path("call.in.wav"), SF_FORMAT_WAV, Noise(30000, 2));
}

void CHostileFixture::SetUp()
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

void CHostileFixture::TearDown()
{
    ASSERT_TRUE(m_pGood);
    EXPECT_TRUE(m_pGood->IsServed());
    EXPECT_TRUE(WaitUntilAllLeft());
    EXPECT_LE(m_pDriver->ResidentBytes(), m_nMemory + MEMORY_SLACK);
    EXPECT_TRUE(m_pGood->WaitEnd());
    m_pDriver->Signal(SIGTERM);
    EXPECT_EQ(m_pDriver->WaitExit(), 0);
    EXPECT_LE(std::filesystem::file_size(m_folder.Path("log")), LOG_LIMIT);
}

bool CHostileFixture::WaitUntilAllLeft()
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (m_pDriver->OpenDescriptors() > m_nDescriptors)
    {
        if (std::chrono::steady_clock::now() > deadline || !m_pGood->IsServed())
        {
            return false;
        }
    }
    return true;
}

void CHostileFixture::Write(const void* pBytes, std::size_t nSize)
{
    ASSERT_EQ(::write(m_fdReq.Get(), pBytes, nSize), static_cast<ssize_t>(nSize));
}

CFifoPair::CFifoPair(int nProcessID) : m_strRsp(RspPath(nProcessID)), m_strEvt(EvtPath(nProcessID))
{
    ::mkfifo(m_strRsp.c_str(), 0600);
    ::mkfifo(m_strEvt.c_str(), 0600);
    m_fdRsp = CFd(::open(m_strRsp.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    m_fdEvt = CFd(::open(m_strEvt.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
}

bool CFifoPair::IsEmpty() const
{
    char c = 0;
    return ::read(m_fdRsp.Get(), &c, 1) < 0 && ::read(m_fdEvt.Get(), &c, 1) < 0;
}
