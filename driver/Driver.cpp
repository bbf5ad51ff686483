// The whole driver, put together.
#include "Driver.h"

#include "Fields.h"
#include "Log.h"
#include "Readiness.h"
#include "Text.h"

#include <spdlog/spdlog.h>

#include <csignal>

namespace
{
constexpr int MAX_REQUESTS_PER_TURN = 64;
} // namespace

CDriver::CDriver(const COptions& options)
    : m_options(options),
      m_fileChannels(m_clipStore, m_disk,
                     {options.m_strAudioFolder, options.m_eSpeed == ESpeed::RealTime, options.m_bSilenceAfterCaller}),
      m_requestPipe([this](int nConnectID) { return m_registry.LatestSequenceNo(nConnectID); }, m_rubbishLog)
{
    m_mediaClock.AddListener(m_rtpPorts);
}

CDriver::~CDriver()
{
    m_registry.DropAll("the driver ends");
    m_registry.Sweep();
    m_loader.Finish();
    m_disk.Finish();
}

bool CDriver::Open(std::string& strError)
{
    CChannelTable table;
    if (!m_options.m_strChannelsFile.empty())
    {
        auto loaded = CChannelTable::Load(m_options.m_strChannelsFile, strError);
        if (!loaded)
        {
            return false;
        }
        table = std::move(*loaded);
    }
    m_pChannels = std::make_unique<CTableChannelFactory>(std::move(table), m_rtpPorts, m_fileChannels);
    m_pHandler = std::make_unique<CRequestHandler>(
        CRequestHandler::CParts{m_registry, m_outbox, m_clipStore, *m_pChannels, m_opener, m_mediaClock, m_disk,
                                m_faults, m_statistics},
        CRequestHandler::CHooks{[this](auto time) { Freeze(time); }, [] { ::raise(SIGKILL); }});

    return AddFaults(strError) && m_poller.Create(strError) && m_loop.Create(strError) &&
           m_requestPipe.Open(strError) && OpenControl(strError) && m_loader.Start("loader", strError) &&
           m_disk.Start("disk", strError) &&
           m_loop.AddInput(
               m_requestPipe.Fd(), [this] { TakeRequests(); }, strError) &&
           m_loop.AddInput(
               m_loader.Fd(), [this] { m_loader.RunDone(); }, strError) &&
           m_loop.AddInput(
               m_disk.Fd(), [this] { m_disk.RunDone(); }, strError);
}

bool CDriver::AddFaults(std::string& strError)
{
    for (const std::string& strFault : m_options.m_vstrFaults)
    {
        nlohmann::json rule;
        std::string strReason;
        if (!ParseWordList(strFault, rule, strReason) || !m_faults.Add(rule, strReason))
        {
            strError.assign("--fault ").append(strFault).append(": ").append(strReason);
            return false;
        }
    }
    return true;
}

bool CDriver::OpenControl(std::string& strError)
{
    if (m_options.m_strControlPath.empty())
    {
        return true;
    }
    m_pControlSocket = std::make_unique<CControlSocket>(
        m_poller, [this](const std::string& strLine) { return m_controlRequests.Handle(strLine); });
    return m_pControlSocket->Open(m_options.m_strControlPath, strError);
}

bool CDriver::Run(std::string& strError)
{
    spdlog::info("zelmedia-driver " ZELMEDIA_VERSION " serves {}, audio in \"{}\"{}", MI_REQUEST_PIPE,
                 m_options.m_strAudioFolder, m_options.m_eSpeed == ESpeed::Max ? ", at maximum speed" : "");
    ReportReady();
    CEventLoop::CDuties duties;
    duties.m_hasWork = [this] { return m_requestPipe.HasBuffered(); };
    duties.m_endTurn = [this] { EndTurn(); };
    duties.m_everySecond = [this] { EverySecond(); };
    duties.m_reload = [] {
        std::string strReason;
        ReportReloading();
        ReopenLog(strReason);
        ReportReloaded();
    };
    const bool bOk = m_loop.Run(duties, strError);
    ReportStopping();
    spdlog::info("zelmedia-driver ends");
    return bOk;
}

void CDriver::TakeRequests()
{
    structMICMD cmd;
    for (int nRequest = 0; nRequest < MAX_REQUESTS_PER_TURN && !m_loop.IsFrozen() && m_requestPipe.Read(cmd);
         ++nRequest)
    {
        m_pHandler->Handle(cmd);
        m_registry.FlushEvents();
        m_registry.Sweep();
    }
}

void CDriver::EndTurn()
{
    if (m_requestPipe.HasBuffered())
    {
        TakeRequests();
    }
    if (!m_loop.IsFrozen())
    {
        m_registry.FlushEvents();
    }
    m_registry.Sweep();
    if (m_bDie)
    {
        ::raise(SIGKILL);
    }
}

void CDriver::EverySecond()
{
    m_registry.DropDead();
    m_rubbishLog.ReportLeftOut();
    m_pHandler->ReportLeftOut();
}

std::vector<CClientState> CDriver::Clients() const
{
    std::vector<CClientState> vStates;
    for (const auto& [nConnectID, pClient] : m_registry.Clients())
    {
        vStates.push_back(pClient->State());
    }
    return vStates;
}

std::vector<CStreamState> CDriver::Streams() const
{
    std::vector<CStreamState> vStates;
    for (const auto& [nConnectID, pClient] : m_registry.Clients())
    {
        for (const auto& [nStreamID, pStream] : pClient->m_mapStreamByID)
        {
            vStates.push_back(pStream->State());
            vStates.back().m_nConnectID = nConnectID;
        }
    }
    return vStates;
}

CStatistics CDriver::Statistics() const
{
    CStatistics statistics = m_statistics;
    CStatistics::CNow& now = statistics.m_now;
    for (const auto& [nConnectID, pClient] : m_registry.Clients())
    {
        ++now.m_nClients;
        now.m_nStreams += pClient->m_mapStreamByID.size();
        now.m_nWaitingEvents += pClient->WaitingEvents();
        for (const auto& [nStreamID, pStream] : pClient->m_mapStreamByID)
        {
            now.m_nPlaying += pStream->IsPlaying() ? 1U : 0U;
            now.m_nRecording += pStream->IsRecording() ? 1U : 0U;
        }
    }
    now.m_nClips = m_clipStore.Count();
    now.m_nClipBytes = m_clipStore.Samples();
    now.m_nRtpPorts = m_rtpPorts.Count();
    statistics.m_rtp = m_rtpPorts.Counters();
    statistics.m_ullRubbishBytes = m_requestPipe.RubbishBytes();
    return statistics;
}

CFaultRules& CDriver::Faults()
{
    return m_faults;
}

std::size_t CDriver::HangUp(const std::string& strCallID, std::optional<std::uint32_t> nLegID)
{
    std::vector<std::shared_ptr<CStream>> vStreams;
    for (const auto& [nConnectID, pClient] : m_registry.Clients())
    {
        for (const auto& [nStreamID, pStream] : pClient->m_mapStreamByID)
        {
            if (pStream->CallID() == strCallID && pStream->LegID() == nLegID.value_or(pStream->LegID()))
            {
                vStreams.push_back(pStream);
            }
        }
    }
    for (const auto& pStream : vStreams)
    {
        spdlog::info("stream {} on call id \"{}\", leg {}, is hung up", pStream->ID(), Printable(strCallID),
                     pStream->LegID());
        pStream->HangUp();
    }
    return vStreams.size();
}

bool CDriver::DropClient(int nConnectID)
{
    return m_registry.Drop(nConnectID, "it is asked for on the control socket");
}

void CDriver::Freeze(std::optional<std::chrono::milliseconds> time)
{
    m_pHandler->Freeze(true);
    m_loop.Freeze(time, [this] { m_pHandler->Freeze(false); });
}

void CDriver::Thaw()
{
    m_loop.Thaw();
}

void CDriver::Die()
{
    m_bDie = true;
}
