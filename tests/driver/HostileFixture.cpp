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
constexpr uint32_t PIECE = 160; // what the good client plays at a time

// How much more memory the driver may have in use after a test. Sanitizers keep what was freed.
#if defined(ZELMEDIA_ASAN) || defined(ZELMEDIA_TSAN)
constexpr size_t MEMORY_SLACK = size_t{512} << 20;
#else
constexpr size_t MEMORY_SLACK = size_t{6} << 20;
#endif
constexpr size_t LOG_LIMIT = size_t{1} << 20;

bool round(CRawClient& client, int nStreamID, int nFileID)
{
    if (!client.playClip(nStreamID, nFileID, 0, PIECE))
        return false;
    const structMIEVT expected = {MIEVT_DONE, nStreamID, client.sequence(), 0};
    if (!client.request(command(MICMD_PING, 0, 0)))
        return false;
    const auto evt = client.waitEvent();
    return evt && *evt == expected;
}

bool hasHeard(const CTempFolder& folder, size_t nRounds)
{
    const CSamples piece = slice(readULawWav(folder.path("clip.wav")), 0, PIECE);
    const CSamples heard = readULawWav(folder.path("good-1.heard.wav"));
    bool bAll = heard.size() == nRounds * PIECE;
    for (size_t n = 0; n < heard.size() && bAll; n += PIECE)
        bAll = std::equal(piece.begin(), piece.end(), heard.begin() + static_cast<std::ptrdiff_t>(n));
    return bAll;
}

bool live(const CTempFolder& folder, const CChildProcess::CParent& parent)
{
    CRawClient client;
    const bool bConnected = client.connect();
    const int nFileID = client.openFile(folder.path("clip.wav"));
    const int nStreamID = client.openStream("good", 1);
    if (!bConnected || nFileID == 0 || nStreamID == 0)
        return false;
    parent.report();
    size_t nRounds = 0;
    for (bool bOpen = true; bOpen;)
    {
        const bool bAsked = parent.hasAsked();
        for (int n = 0; n < 2; ++n, ++nRounds)
            if (!round(client, nStreamID, nFileID))
                return false;
        if (bAsked)
        {
            bOpen = parent.waitAsked();
            if (bOpen)
                parent.report();
        }
    }
    return hasHeard(folder, nRounds);
}
} // namespace

std::string rspPath(int nProcessID)
{
    return MI_RESPONSE_PIPE_PREFIX + std::to_string(nProcessID);
}

std::string evtPath(int nProcessID)
{
    return MI_EVENT_PIPE_PREFIX + std::to_string(nProcessID);
}

structMICMD connectCommand(const std::string& strRspPipe, const std::string& strEvtPipe)
{
    structMICMD cmd = command(MICMD_CONNECT, 0, 1);
    setText(cmd.connect.szRspPipe, strRspPipe);
    setText(cmd.connect.szEvtPipe, strEvtPipe);
    return cmd;
}

CGoodClient::CGoodClient(const CTempFolder& folder)
    : m_child([&folder](const CChildProcess::CParent& parent) { return live(folder, parent); })
{
}

bool CGoodClient::waitConnected()
{
    return m_child.waitReport();
}

bool CGoodClient::isServed()
{
    m_child.ask();
    return m_child.waitReport();
}

bool CGoodClient::waitEnd()
{
    return m_child.waitEnd();
}

CHostileFixture::CHostileFixture()
{
    ::signal(SIGPIPE, SIG_IGN);
    writeULaw(m_folder.path("clip.wav"), SF_FORMAT_WAV, noise(3200, 1));
    writeULaw(m_folder.path("call.in.wav"), SF_FORMAT_WAV, noise(30000, 2));
}

void CHostileFixture::SetUp()
{
    m_pDriver = std::make_unique<CDriverProgram>(std::vector<std::string>{
        "--audio", m_folder.folder(), "--speed", "max", "--log", m_folder.path("log"), "--log-level", "warning"});
    ASSERT_TRUE(m_pDriver->waitReady());
    m_pGood = std::make_unique<CGoodClient>(m_folder);
    ASSERT_TRUE(m_pGood->waitConnected());
    m_fdReq = CFd(::open(MI_REQUEST_PIPE, O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(m_pGood->isServed());
    m_nDescriptors = m_pDriver->openDescriptors();
    m_nMemory = m_pDriver->residentBytes();
}

void CHostileFixture::TearDown()
{
    ASSERT_TRUE(m_pGood);
    EXPECT_TRUE(m_pGood->isServed());
    EXPECT_TRUE(waitUntilAllLeft());
    EXPECT_LE(m_pDriver->residentBytes(), m_nMemory + MEMORY_SLACK);
    EXPECT_TRUE(m_pGood->waitEnd());
    m_pDriver->signal(SIGTERM);
    EXPECT_EQ(m_pDriver->waitExit(), 0);
    EXPECT_LE(std::filesystem::file_size(m_folder.path("log")), LOG_LIMIT);
}

bool CHostileFixture::waitUntilAllLeft()
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (m_pDriver->openDescriptors() > m_nDescriptors)
        if (std::chrono::steady_clock::now() > deadline || !m_pGood->isServed())
            return false;
    return true;
}

void CHostileFixture::write(const void* pBytes, size_t nSize)
{
    ASSERT_EQ(::write(m_fdReq.get(), pBytes, nSize), static_cast<ssize_t>(nSize));
}

CFifoPair::CFifoPair(int nProcessID) : m_strRsp(rspPath(nProcessID)), m_strEvt(evtPath(nProcessID))
{
    ::mkfifo(m_strRsp.c_str(), 0600);
    ::mkfifo(m_strEvt.c_str(), 0600);
    m_fdRsp = CFd(::open(m_strRsp.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    m_fdEvt = CFd(::open(m_strEvt.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
}

bool CFifoPair::isEmpty() const
{
    char c = 0;
    return ::read(m_fdRsp.get(), &c, 1) < 0 && ::read(m_fdEvt.get(), &c, 1) < 0;
}
