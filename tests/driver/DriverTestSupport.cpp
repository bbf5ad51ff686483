// What the driver's tests share: audio files, records, clients in memory, and the captured log.
#include "DriverTestSupport.h"

#include "ClientPipes.h"
#include "SndFile.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

CTempFolder::CTempFolder()
{
    char szTemplate[] = "/tmp/driver-test-XXXXXX";
    m_strFolder = ::mkdtemp(szTemplate);
}

CTempFolder::~CTempFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_strFolder, ignored);
}

std::string CTempFolder::Path(const std::string& strName) const
{
    return m_strFolder + "/" + strName;
}

const std::string& CTempFolder::Folder() const
{
    return m_strFolder;
}

CLogCapture::CLogCapture()
{
    auto pLogger =
        std::make_shared<spdlog::logger>("capture", std::make_shared<spdlog::sinks::ostream_sink_st>(m_stream));
    pLogger->set_pattern("%l: %v");
    spdlog::set_default_logger(std::move(pLogger));
}

CLogCapture::~CLogCapture()
{
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("none"));
}

std::string CLogCapture::Text() const
{
    return m_stream.str();
}

CFileSizeLimit::CFileSizeLimit(rlim_t nBytes)
{
    ::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &m_former);
    const rlimit limit = {nBytes, m_former.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

CFileSizeLimit::~CFileSizeLimit()
{
    ::setrlimit(RLIMIT_FSIZE, &m_former);
}

CSamples Noise(std::size_t nCount, unsigned nSeed)
{
    std::mt19937 random(nSeed);
    CSamples samples(nCount);
    for (auto& sample : samples)
    {
        sample = static_cast<std::uint8_t>(random() >> 24);
    }
    return samples;
}

CSamples Slice(const CSamples& samples, std::size_t nBegin, std::size_t nEnd)
{
    return {samples.begin() + static_cast<std::ptrdiff_t>(nBegin), samples.begin() + static_cast<std::ptrdiff_t>(nEnd)};
}

CSamples operator+(const CSamples& left, const CSamples& right)
{
    CSamples sum = left;
    sum.insert(sum.end(), right.begin(), right.end());
    return sum;
}

void WriteULaw(const std::string& strPath, int nContainer, const CSamples& samples)
{
    SF_INFO info = {};
    info.format = nContainer | SF_FORMAT_ULAW;
    info.samplerate = 8000;
    info.channels = 1;
    const CSndFile pFile(sf_open(strPath.c_str(), SFM_WRITE, &info));
    ASSERT_TRUE(pFile) << strPath;
    const auto nCount = static_cast<sf_count_t>(samples.size());
    ASSERT_EQ(sf_write_raw(pFile.get(), samples.data(), nCount), nCount);
}

void WriteShorts(const std::string& strPath, int nFormat, int nRate, int nChannels, const std::vector<short>& vShorts)
{
    SF_INFO info = {};
    info.format = nFormat;
    info.samplerate = nRate;
    info.channels = nChannels;
    const CSndFile pFile(sf_open(strPath.c_str(), SFM_WRITE, &info));
    ASSERT_TRUE(pFile) << strPath;
    const auto nCount = static_cast<sf_count_t>(vShorts.size());
    ASSERT_EQ(sf_write_short(pFile.get(), vShorts.data(), nCount), nCount);
}

void WriteBytes(const std::string& strPath, const CSamples& bytes)
{
    std::ofstream file(strPath, std::ios::binary);
    for (const std::uint8_t byte : bytes)
    {
        file.put(static_cast<char>(byte));
    }
}

void WriteDamagedFlac(const std::string& strPath)
{
    std::vector<short> vShorts;
    for (const std::uint8_t nByte : Noise(200000))
    {
        vShorts.push_back(static_cast<short>(nByte * 100));
    }
    WriteShorts(strPath, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 8000, 1, vShorts);
    CSamples bytes = ReadBytes(strPath);
    const auto itMiddle = bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 2);
    std::fill(itMiddle, bytes.end(), std::uint8_t{0x55});
    WriteBytes(strPath, bytes);
}

CSamples ReadBytes(const std::string& strPath)
{
    std::ifstream file(strPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

CSamples ReadULawFile(const std::string& strPath, int nContainer)
{
    SF_INFO info = {};
    const CSndFile pFile(sf_open(strPath.c_str(), SFM_READ, &info));
    if (!pFile)
    {
        ADD_FAILURE() << strPath << ": " << sf_strerror(nullptr);
        return {};
    }
    EXPECT_EQ(info.format & SF_FORMAT_SUBMASK, SF_FORMAT_ULAW);
    EXPECT_EQ(info.format & SF_FORMAT_TYPEMASK, nContainer);
    EXPECT_EQ(info.samplerate, 8000);
    EXPECT_EQ(info.channels, 1);
    CSamples samples(static_cast<std::size_t>(info.frames));
    EXPECT_EQ(sf_read_raw(pFile.get(), samples.data(), info.frames), info.frames);
    return samples;
}

CSamples ReadULawWav(const std::string& strPath)
{
    return ReadULawFile(strPath, SF_FORMAT_WAV);
}

structMICMD Command(MICMD micmd, int nConnectID, std::uint32_t nSequenceNo)
{
    structMICMD cmd;
    std::memset(&cmd, 0xA5, sizeof(cmd));
    cmd.s_micmd = micmd;
    cmd.nConnectID = nConnectID;
    cmd.nSequenceNo = nSequenceNo;
    return cmd;
}

namespace
{
class CMemoryPort : public CClientPort
{
public:
    CMemoryPort(pid_t nProcessID, CMemoryClient& client) : m_nProcessID(nProcessID), m_client(client)
    {
        m_client.m_bPortOpen = true;
    }
    ~CMemoryPort() override { m_client.m_bPortOpen = false; }
    ESend SendResponse(const structMIRSP& rsp) override
    {
        if (m_client.m_bGone || m_client.m_bResponsesFull)
        {
            return m_client.m_bGone ? ESend::Gone : ESend::Full;
        }
        m_client.m_vResponses.push_back(rsp);
        m_client.m_vOrder.push_back("response " + std::to_string(rsp.nRespSequenceNo));
        return ESend::Sent;
    }
    ESend SendEvent(const structMIEVT& evt) override
    {
        if (m_client.m_bGone || m_client.m_nRoom == 0)
        {
            return m_client.m_bGone ? ESend::Gone : ESend::Full;
        }
        --m_client.m_nRoom;
        m_client.m_vEvents.push_back(evt);
        m_client.m_vOrder.push_back("event " + std::to_string(evt.nSequenceID));
        return ESend::Sent;
    }
    bool Watch(std::function<void()> broken, std::function<void()> writable) override
    {
        m_client.m_broken = std::move(broken);
        m_client.m_writable = std::move(writable);
        return true;
    }
    void WatchForRoom(bool bOn) override { m_client.m_bWatchesRoom = bOn; }
    pid_t ProcessID() const override { return m_nProcessID; }
    bool IsGone() const override { return m_client.m_bProcessGone; }

private:
    const pid_t m_nProcessID;
    CMemoryClient& m_client;
};
} // namespace

std::unique_ptr<CClientPort> CMemoryOpener::Open(const structMICMD::ConnectBody& connect, std::string& strError)
{
    CClientPipeNames names;
    if (!ParseClientPipeNames(connect, names, strError))
    {
        return nullptr;
    }
    return std::make_unique<CMemoryPort>(names.m_nProcessID, m_mapClientByProcess[names.m_nProcessID]);
}

void CManualExecutor::Post(Function work, Function done)
{
    m_queue.emplace_back(std::move(work), std::move(done));
}

bool CManualExecutor::RunOne()
{
    if (m_queue.empty())
    {
        return false;
    }
    const auto [work, done] = std::move(m_queue.front());
    m_queue.pop_front();
    work();
    done();
    return true;
}

void CManualExecutor::RunAll()
{
    while (RunOne())
    {
    }
}

CDriverInMemory::CDriverInMemory() : CDriverInMemory(m_inline, m_inline, {.m_bRealTime = false}) {}

CDriverInMemory::CDriverInMemory(CExecutor& loader, CExecutor& disk, CFileChannelOptions options)
    : m_disk(disk), m_clipStore(loader),
      m_channels(m_clipStore, disk, {m_folder.Folder(), options.m_bRealTime, options.m_bSilenceAfterCaller}),
      m_handler({m_registry, m_outbox, m_clipStore, m_channels, m_opener, m_mediaClock, disk, m_faults, m_statistics},
                {[this](auto time) {
                     m_vHooks.push_back(time ? "freeze " + std::to_string(time->count()) : "freeze");
                     m_handler.Freeze(true);
                 },
                 [this] { m_vHooks.push_back("die"); }})
{
    if (&disk == &m_inline)
    {
        m_nConnectID = Connect(100);
    }
}

CDriverInMemory::~CDriverInMemory()
{
    m_registry.DropAll("the driver ends");
    m_registry.Sweep();
}

int CDriverInMemory::Connect(pid_t nProcessID)
{
    structMICMD cmd = Next(MICMD_CONNECT);
    SetText(cmd.connect.szRspPipe, MI_RESPONSE_PIPE_PREFIX + std::to_string(nProcessID));
    SetText(cmd.connect.szEvtPipe, MI_EVENT_PIPE_PREFIX + std::to_string(nProcessID));
    const structMIRSP rsp = Request(cmd, nProcessID);
    return rsp.s_mirsp == MIRSP_CONNECT ? rsp.s_nConnectID : 0;
}

CMemoryClient& CDriverInMemory::Client(pid_t nProcessID)
{
    return m_opener.m_mapClientByProcess[nProcessID];
}

structMIRSP CDriverInMemory::Request(const structMICMD& cmd, pid_t nProcessID)
{
    CMemoryClient& client = Client(nProcessID);
    const std::size_t nFormer = client.m_vResponses.size();
    Send(cmd);
    if (client.m_vResponses.size() == nFormer)
    {
        return {};
    }
    EXPECT_EQ(client.m_vResponses.size(), nFormer + 1);
    EXPECT_EQ(client.m_vResponses.back().nRespSequenceNo, cmd.nSequenceNo);
    return client.m_vResponses.back();
}

structMICMD CDriverInMemory::Next(MICMD micmd)
{
    return Command(micmd, m_nConnectID, ++m_nSequenceNo);
}

int CDriverInMemory::OpenStream(const std::string& strCallID, std::uint32_t nLegID)
{
    structMICMD cmd = Next(MICMD_OPENSTREAM);
    SetText(cmd.openStream.szCallID, strCallID);
    cmd.openStream.nLegID = nLegID;
    const structMIRSP rsp = Request(cmd);
    return rsp.s_mirsp == MIRSP_OPENSTREAM ? rsp.s_nStreamID : 0;
}

int CDriverInMemory::OpenFile(const std::string& strPath)
{
    structMICMD cmd = Next(MICMD_OPENFILE);
    SetText(cmd.openFile.szFileName, strPath);
    const structMIRSP rsp = Request(cmd);
    return rsp.s_mirsp == MIRSP_OPENFILE ? rsp.s_nFileID : 0;
}

namespace
{
bool IsDone(const structMIRSP& rsp)
{
    EXPECT_EQ(rsp.s_mirsp, MIRSP_STATUS);
    return rsp.s_nResult != MISTATUS_FAILED;
}
} // namespace

bool CDriverInMemory::PlayClip(int nStreamID, int nFileID, std::uint32_t nOffset, std::uint32_t nLength)
{
    structMICMD cmd = Next(MICMD_PLAYCLIP);
    cmd.playClip.nStreamID = nStreamID;
    cmd.playClip.nFileID = nFileID;
    cmd.playClip.nOffset = nOffset;
    cmd.playClip.nLength = nLength;
    return IsDone(Request(cmd));
}

bool CDriverInMemory::PlayFile(int nStreamID, const std::string& strPath, std::uint32_t nStartPos)
{
    structMICMD cmd = Next(MICMD_PLAYFILE);
    cmd.playFile.nStreamID = nStreamID;
    SetText(cmd.playFile.szFileName, strPath);
    cmd.playFile.nStartPos = nStartPos;
    return IsDone(Request(cmd));
}

bool CDriverInMemory::RecordFile(int nStreamID, const std::string& strPath, std::uint32_t nMaxSamples)
{
    structMICMD cmd = Next(MICMD_RECORDFILE);
    cmd.recordFile.nStreamID = nStreamID;
    SetText(cmd.recordFile.szFileName, strPath);
    cmd.recordFile.nMaxSamples = nMaxSamples;
    return IsDone(Request(cmd));
}

bool CDriverInMemory::Cancel(int nStreamID, std::uint32_t nCancelType)
{
    structMICMD cmd = Next(MICMD_CANCEL);
    cmd.cancel.nStreamID = nStreamID;
    cmd.cancel.nCancelType = nCancelType;
    return IsDone(Request(cmd));
}

structMIRSP CDriverInMemory::StreamRequest(MICMD micmd, int nStreamID)
{
    structMICMD cmd = Next(micmd);
    cmd.stream.nStreamID = nStreamID;
    return Request(cmd);
}

void CDriverInMemory::Ticks(int nTicks)
{
    for (int nTick = 0; nTick < nTicks; ++nTick)
    {
        m_mediaClock.TickRealTime();
        m_mediaClock.TickFast();
        m_registry.FlushEvents();
        m_registry.Sweep();
    }
}

void CDriverInMemory::Send(const structMICMD& cmd)
{
    m_handler.Handle(cmd);
    m_registry.FlushEvents();
    m_registry.Sweep();
}

std::uint32_t CDriverInMemory::SendPlayFile(int nStreamID, const std::string& strPath)
{
    structMICMD cmd = Next(MICMD_PLAYFILE);
    cmd.playFile.nStreamID = nStreamID;
    SetText(cmd.playFile.szFileName, strPath);
    cmd.playFile.nStartPos = 0;
    Send(cmd);
    return cmd.nSequenceNo;
}

void CDriverInMemory::Pass(std::chrono::milliseconds time)
{
    m_clock.m_now += time;
    m_timers.RunDue();
    m_registry.FlushEvents();
    m_registry.Sweep();
}

std::shared_ptr<CStream> CDriverInMemory::Stream(int nStreamID)
{
    return m_registry.Find(m_nConnectID)->FindStream(nStreamID);
}

std::uint32_t CDriverInMemory::Sequence() const
{
    return m_nSequenceNo;
}

std::string CDriverInMemory::Path(const std::string& strName) const
{
    return m_folder.Path(strName);
}

bool operator==(const structMIEVT& left, const structMIEVT& right)
{
    return std::memcmp(&left, &right, sizeof(left)) == 0;
}

void PrintTo(const structMIEVT& evt, std::ostream* pStream)
{
    *pStream << "event " << evt.s_mievt << ", stream " << evt.nStreamID << ", sequence " << evt.nSequenceID
             << ", status " << evt.s_mcstatus;
}
