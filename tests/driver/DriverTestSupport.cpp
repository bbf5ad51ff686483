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

std::string CTempFolder::path(const std::string& strName) const
{
    return m_strFolder + "/" + strName;
}

const std::string& CTempFolder::folder() const
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

std::string CLogCapture::text() const
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

CSamples noise(size_t nCount, unsigned nSeed)
{
    std::mt19937 random(nSeed);
    CSamples samples(nCount);
    for (auto& sample : samples)
        sample = static_cast<uint8_t>(random() >> 24);
    return samples;
}

CSamples slice(const CSamples& samples, size_t nBegin, size_t nEnd)
{
    return {samples.begin() + static_cast<std::ptrdiff_t>(nBegin), samples.begin() + static_cast<std::ptrdiff_t>(nEnd)};
}

CSamples operator+(const CSamples& left, const CSamples& right)
{
    CSamples sum = left;
    sum.insert(sum.end(), right.begin(), right.end());
    return sum;
}

void writeULaw(const std::string& strPath, int nContainer, const CSamples& samples)
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

void writeShorts(const std::string& strPath, int nFormat, int nRate, int nChannels, const std::vector<short>& vShorts)
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

void writeBytes(const std::string& strPath, const CSamples& bytes)
{
    std::ofstream file(strPath, std::ios::binary);
    for (const uint8_t byte : bytes)
        file.put(static_cast<char>(byte));
}

void writeDamagedFlac(const std::string& strPath)
{
    std::vector<short> vShorts;
    for (const uint8_t nByte : noise(200000))
        vShorts.push_back(static_cast<short>(nByte * 100));
    writeShorts(strPath, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 8000, 1, vShorts);
    CSamples bytes = readBytes(strPath);
    const auto itMiddle = bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 2);
    std::fill(itMiddle, bytes.end(), uint8_t{0x55});
    writeBytes(strPath, bytes);
}

CSamples readBytes(const std::string& strPath)
{
    std::ifstream file(strPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

CSamples readULawFile(const std::string& strPath, int nContainer)
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
    CSamples samples(static_cast<size_t>(info.frames));
    EXPECT_EQ(sf_read_raw(pFile.get(), samples.data(), info.frames), info.frames);
    return samples;
}

CSamples readULawWav(const std::string& strPath)
{
    return readULawFile(strPath, SF_FORMAT_WAV);
}

structMICMD command(MICMD micmd, int nConnectID, uint32_t nSequenceNo)
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
    ESend sendResponse(const structMIRSP& rsp) override
    {
        if (m_client.m_bGone || m_client.m_bResponsesFull)
            return m_client.m_bGone ? ESend::Gone : ESend::Full;
        m_client.m_vResponses.push_back(rsp);
        m_client.m_vOrder.push_back("response " + std::to_string(rsp.nRespSequenceNo));
        return ESend::Sent;
    }
    ESend sendEvent(const structMIEVT& evt) override
    {
        if (m_client.m_bGone || m_client.m_nRoom == 0)
            return m_client.m_bGone ? ESend::Gone : ESend::Full;
        --m_client.m_nRoom;
        m_client.m_vEvents.push_back(evt);
        m_client.m_vOrder.push_back("event " + std::to_string(evt.nSequenceID));
        return ESend::Sent;
    }
    bool watch(std::function<void()> broken, std::function<void()> writable) override
    {
        m_client.m_broken = std::move(broken);
        m_client.m_writable = std::move(writable);
        return true;
    }
    void watchForRoom(bool bOn) override { m_client.m_bWatchesRoom = bOn; }
    pid_t processId() const override { return m_nProcessID; }
    bool isGone() const override { return m_client.m_bProcessGone; }

private:
    const pid_t m_nProcessID;
    CMemoryClient& m_client;
};
} // namespace

std::unique_ptr<CClientPort> CMemoryOpener::open(const structMICMD::ConnectBody& connect, std::string& strError)
{
    CClientPipeNames names;
    if (!parseClientPipeNames(connect, names, strError))
        return nullptr;
    return std::make_unique<CMemoryPort>(names.m_nProcessID, m_mapClientByProcess[names.m_nProcessID]);
}

void CManualExecutor::post(Function work, Function done)
{
    m_queue.emplace_back(std::move(work), std::move(done));
}

bool CManualExecutor::runOne()
{
    if (m_queue.empty())
        return false;
    const auto [work, done] = std::move(m_queue.front());
    m_queue.pop_front();
    work();
    done();
    return true;
}

void CManualExecutor::runAll()
{
    while (runOne())
    {
    }
}

CDriverInMemory::CDriverInMemory() : CDriverInMemory(m_inline, m_inline, {.m_bRealTime = false}) {}

CDriverInMemory::CDriverInMemory(CExecutor& loader, CExecutor& disk, CFileChannelOptions options,
                                 const CRequestHandler::CLimits& limits)
    : m_disk(disk), m_clipStore(loader),
      m_channels(m_clipStore, disk, {m_folder.folder(), options.m_bRealTime, options.m_bSilenceAfterCaller}),
      m_handler({m_registry, m_outbox, m_clipStore, m_channels, m_opener, m_mediaClock, disk, m_faults, m_statistics},
                {[this](auto time) {
                     m_vHooks.push_back(time ? "freeze " + std::to_string(time->count()) : "freeze");
                     m_handler.freeze(true);
                 },
                 [this] { m_vHooks.push_back("die"); }},
                limits)
{
    if (&disk == &m_inline)
        m_nConnectID = connect(100);
}

CDriverInMemory::~CDriverInMemory()
{
    m_registry.dropAll("the driver ends");
    m_registry.sweep();
}

int CDriverInMemory::connect(pid_t nProcessID)
{
    structMICMD cmd = next(MICMD_CONNECT);
    setText(cmd.connect.szRspPipe, MI_RESPONSE_PIPE_PREFIX + std::to_string(nProcessID));
    setText(cmd.connect.szEvtPipe, MI_EVENT_PIPE_PREFIX + std::to_string(nProcessID));
    const structMIRSP rsp = request(cmd, nProcessID);
    return rsp.s_mirsp == MIRSP_CONNECT ? rsp.s_nConnectID : 0;
}

CMemoryClient& CDriverInMemory::client(pid_t nProcessID)
{
    return m_opener.m_mapClientByProcess[nProcessID];
}

structMIRSP CDriverInMemory::request(const structMICMD& cmd, pid_t nProcessID)
{
    CMemoryClient& client = this->client(nProcessID);
    const size_t nFormer = client.m_vResponses.size();
    send(cmd);
    if (client.m_vResponses.size() == nFormer)
        return {};
    EXPECT_EQ(client.m_vResponses.size(), nFormer + 1);
    EXPECT_EQ(client.m_vResponses.back().nRespSequenceNo, cmd.nSequenceNo);
    return client.m_vResponses.back();
}

structMICMD CDriverInMemory::next(MICMD micmd)
{
    return command(micmd, m_nConnectID, ++m_nSequenceNo);
}

int CDriverInMemory::openStream(const std::string& strCallID, uint32_t nLegID)
{
    structMICMD cmd = next(MICMD_OPENSTREAM);
    setText(cmd.openStream.szCallID, strCallID);
    cmd.openStream.nLegID = nLegID;
    const structMIRSP rsp = request(cmd);
    return rsp.s_mirsp == MIRSP_OPENSTREAM ? rsp.s_nStreamID : 0;
}

int CDriverInMemory::openFile(const std::string& strPath)
{
    structMICMD cmd = next(MICMD_OPENFILE);
    setText(cmd.openFile.szFileName, strPath);
    const structMIRSP rsp = request(cmd);
    return rsp.s_mirsp == MIRSP_OPENFILE ? rsp.s_nFileID : 0;
}

namespace
{
bool isDone(const structMIRSP& rsp)
{
    EXPECT_EQ(rsp.s_mirsp, MIRSP_STATUS);
    return rsp.s_nResult != MISTATUS_FAILED;
}
} // namespace

bool CDriverInMemory::playClip(int nStreamID, int nFileID, uint32_t nOffset, uint32_t nLength)
{
    structMICMD cmd = next(MICMD_PLAYCLIP);
    cmd.playClip.nStreamID = nStreamID;
    cmd.playClip.nFileID = nFileID;
    cmd.playClip.nOffset = nOffset;
    cmd.playClip.nLength = nLength;
    return isDone(request(cmd));
}

bool CDriverInMemory::playFile(int nStreamID, const std::string& strPath, uint32_t nStartPos)
{
    structMICMD cmd = next(MICMD_PLAYFILE);
    cmd.playFile.nStreamID = nStreamID;
    setText(cmd.playFile.szFileName, strPath);
    cmd.playFile.nStartPos = nStartPos;
    return isDone(request(cmd));
}

bool CDriverInMemory::recordFile(int nStreamID, const std::string& strPath, uint32_t nMaxSamples)
{
    structMICMD cmd = next(MICMD_RECORDFILE);
    cmd.recordFile.nStreamID = nStreamID;
    setText(cmd.recordFile.szFileName, strPath);
    cmd.recordFile.nMaxSamples = nMaxSamples;
    return isDone(request(cmd));
}

bool CDriverInMemory::cancel(int nStreamID, uint32_t nCancelType)
{
    structMICMD cmd = next(MICMD_CANCEL);
    cmd.cancel.nStreamID = nStreamID;
    cmd.cancel.nCancelType = nCancelType;
    return isDone(request(cmd));
}

structMIRSP CDriverInMemory::streamRequest(MICMD micmd, int nStreamID)
{
    structMICMD cmd = next(micmd);
    cmd.stream.nStreamID = nStreamID;
    return request(cmd);
}

void CDriverInMemory::ticks(int nTicks)
{
    for (int nTick = 0; nTick < nTicks; ++nTick)
    {
        m_mediaClock.tickRealTime();
        m_mediaClock.tickFast();
        m_registry.flushEvents();
        m_registry.sweep();
    }
}

void CDriverInMemory::send(const structMICMD& cmd)
{
    m_handler.handle(cmd);
    m_registry.flushEvents();
    m_registry.sweep();
}

uint32_t CDriverInMemory::sendPlayFile(int nStreamID, const std::string& strPath)
{
    structMICMD cmd = next(MICMD_PLAYFILE);
    cmd.playFile.nStreamID = nStreamID;
    setText(cmd.playFile.szFileName, strPath);
    cmd.playFile.nStartPos = 0;
    send(cmd);
    return cmd.nSequenceNo;
}

void CDriverInMemory::pass(std::chrono::milliseconds time)
{
    m_clock.m_now += time;
    m_timers.runDue();
    m_registry.flushEvents();
    m_registry.sweep();
}

std::shared_ptr<CStream> CDriverInMemory::stream(int nStreamID)
{
    return m_registry.find(m_nConnectID)->findStream(nStreamID);
}

uint32_t CDriverInMemory::sequence() const
{
    return m_nSequenceNo;
}

std::string CDriverInMemory::path(const std::string& strName) const
{
    return m_folder.path(strName);
}

bool operator==(const structMIEVT& left, const structMIEVT& right)
{
    return std::memcmp(&left, &right, sizeof(left)) == 0;
}

void printTo(const structMIEVT& evt, std::ostream* pStream)
{
    *pStream << "event " << evt.s_mievt << ", stream " << evt.nStreamID << ", sequence " << evt.nSequenceID
             << ", status " << evt.s_mcstatus;
}
