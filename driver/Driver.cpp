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

void endLikeACrash()
{
    flushLog();
    ::raise(SIGKILL);
}
} // namespace

CDriver::CDriver(const COptions& options)
    : m_options(options),
      m_fileChannels(m_clipStore, m_disk,
                     {options.m_strAudioFolder, options.m_eSpeed == ESpeed::RealTime, options.m_bSilenceAfterCaller}),
      m_requestPipe([this](int nConnectID) { return m_registry.latestSequenceNo(nConnectID); }, m_rubbishLog)
{
    m_mediaClock.addListener(m_rtpPorts);
}

CDriver::~CDriver()
{
    if (m_pChannels)
        m_pChannels->setCalls(nullptr);
    m_pCalls.reset(); // ends its recordings
    m_registry.dropAll("the driver ends");
    m_registry.sweep();
    m_loader.finish();
    m_disk.finish();
}

bool CDriver::open(std::string& strError)
{
    CChannelTable table;
    if (!m_options.m_strChannelsFile.empty())
    {
        auto loaded = CChannelTable::load(m_options.m_strChannelsFile, strError);
        if (!loaded)
            return false;
        table = std::move(*loaded);
    }
    m_pTableChannels = std::make_unique<CTableChannelFactory>(std::move(table), m_rtpPorts, m_fileChannels);
    m_pChannels = std::make_unique<CCallChannelFactory>(*m_pTableChannels);
    m_pHandler = std::make_unique<CRequestHandler>(
        CRequestHandler::CParts{m_registry, m_outbox, m_clipStore, *m_pChannels, m_opener, m_mediaClock, m_disk,
                                m_faults, m_statistics},
        CRequestHandler::CHooks{[this](auto time) { freeze(time); }, [] { endLikeACrash(); }},
        CRequestHandler::CLimits{m_options.m_nMaxStreams, m_options.m_nMaxFiles});

    return addFaults(strError) && m_poller.create(strError) && m_loop.create(strError) &&
           m_requestPipe.open(strError) && openControl(strError) && openCalls(strError) &&
           m_loader.start("loader", strError) && m_disk.start("disk", strError) &&
           m_loop.addInput(
               m_requestPipe.fd(), [this] { takeRequests(); }, strError) &&
           m_loop.addInput(
               m_loader.fd(), [this] { m_loader.runDone(); }, strError) &&
           m_loop.addInput(
               m_disk.fd(), [this] { m_disk.runDone(); }, strError);
}

bool CDriver::addFaults(std::string& strError)
{
    for (const std::string& strFault : m_options.m_vstrFaults)
    {
        nlohmann::json rule;
        std::string strReason;
        if (!parseWordList(strFault, rule, strReason) || !m_faults.add(rule, strReason))
        {
            strError.assign("--fault ").append(strFault).append(": ").append(strReason);
            return false;
        }
    }
    return true;
}

bool CDriver::openCalls(std::string& strError)
{
    if (m_options.m_strCallsPath.empty())
        return true;
    m_pCalls = std::make_unique<CCallServer>(
        CCallServer::CParts{
            m_rtpPorts, &m_poller, m_clock, m_disk,
            [this](const std::string& strCallID, std::optional<uint32_t> nLegID) { return hangUp(strCallID, nLegID); }},
        CCallServer::CSettings{m_options.m_strCallsPath,
                               CNetAddress::parseHost(m_options.m_strRtpAddress).value_or(CNetAddress()),
                               m_options.m_nFirstRtpPort, m_options.m_nLastRtpPort});
    m_pChannels->setCalls(m_pCalls.get());
    return m_pCalls->open(strError) && m_loop.addInput(
                                           m_pCalls->descriptor(), [this] { m_pCalls->onReadable(); }, strError);
}

bool CDriver::openControl(std::string& strError)
{
    if (m_options.m_strControlPath.empty())
        return true;
    m_pControlSocket = std::make_unique<CControlSocket>(
        m_poller, [this](const std::string& strLine) { return m_controlRequests.handle(strLine); });
    return m_pControlSocket->open(m_options.m_strControlPath, strError);
}

bool CDriver::run(std::string& strError)
{
    spdlog::info("zelmedia-driver " ZELMEDIA_VERSION " serves {}, audio in \"{}\"{}", MI_REQUEST_PIPE,
                 m_options.m_strAudioFolder, m_options.m_eSpeed == ESpeed::Max ? ", at maximum speed" : "");
    reportReady();
    CEventLoop::CDuties duties;
    duties.m_hasWork = [this] { return m_requestPipe.hasBuffered(); };
    duties.m_endTurn = [this] { endTurn(); };
    duties.m_everySecond = [this] { everySecond(); };
    duties.m_reload = [] {
        reportReloading();
        reopenLog();
        reportReloaded();
    };
    const bool bOk = m_loop.run(duties, strError);
    reportStopping();
    spdlog::info("zelmedia-driver ends");
    return bOk;
}

void CDriver::takeRequests()
{
    structMICMD cmd;
    for (int nRequest = 0; nRequest < MAX_REQUESTS_PER_TURN && !m_loop.isFrozen() && m_requestPipe.read(cmd);
         ++nRequest)
    {
        m_pHandler->handle(cmd);
        m_registry.flushEvents();
        m_registry.sweep();
    }
}

void CDriver::endTurn()
{
    if (m_requestPipe.hasBuffered())
        takeRequests();
    if (!m_loop.isFrozen())
        m_registry.flushEvents();
    m_registry.sweep();
    if (m_bDie)
        endLikeACrash();
}

void CDriver::everySecond()
{
    m_registry.dropDead();
    if (m_pCalls && !m_loop.isFrozen())
        m_pCalls->dropLost();
    m_rubbishLog.reportLeftOut();
    m_pHandler->reportLeftOut();
}

std::vector<CClientState> CDriver::clients() const
{
    std::vector<CClientState> vStates;
    for (const auto& [nConnectID, pClient] : m_registry.clients())
        vStates.push_back(pClient->state());
    return vStates;
}

std::vector<CStreamState> CDriver::streams() const
{
    std::vector<CStreamState> vStates;
    for (const auto& [nConnectID, pClient] : m_registry.clients())
    {
        for (const auto& [nStreamID, pStream] : pClient->m_mapStreamByID)
        {
            vStates.push_back(pStream->state());
            vStates.back().m_nConnectID = nConnectID;
        }
    }
    return vStates;
}

CStatistics CDriver::statistics() const
{
    CStatistics statistics = m_statistics;
    CStatistics::CNow& now = statistics.m_now;
    for (const auto& [nConnectID, pClient] : m_registry.clients())
    {
        ++now.m_nClients;
        now.m_nStreams += pClient->m_mapStreamByID.size();
        now.m_nWaitingEvents += pClient->waitingEvents();
        for (const auto& [nStreamID, pStream] : pClient->m_mapStreamByID)
        {
            now.m_nPlaying += pStream->isPlaying() ? 1U : 0U;
            now.m_nRecording += pStream->isRecording() ? 1U : 0U;
        }
    }
    now.m_nClips = m_clipStore.count();
    now.m_nClipBytes = m_clipStore.bytes();
    now.m_nRtpPorts = m_rtpPorts.count();
    statistics.m_rtp = m_rtpPorts.counters();
    statistics.m_ullRubbishBytes = m_requestPipe.rubbishBytes();
    return statistics;
}

CFaultRules& CDriver::faults()
{
    return m_faults;
}

size_t CDriver::hangUp(const std::string& strCallID, std::optional<uint32_t> nLegID)
{
    std::vector<std::shared_ptr<CStream>> vStreams;
    for (const auto& [nConnectID, pClient] : m_registry.clients())
    {
        for (const auto& [nStreamID, pStream] : pClient->m_mapStreamByID)
            if (pStream->callId() == strCallID && pStream->legId() == nLegID.value_or(pStream->legId()))
                vStreams.push_back(pStream);
    }
    for (const auto& pStream : vStreams)
    {
        spdlog::info("stream {} on call id \"{}\", leg {}, is hung up", pStream->id(), printable(strCallID),
                     pStream->legId());
        pStream->hangUp();
    }
    return vStreams.size();
}

bool CDriver::dropClient(int nConnectID)
{
    return m_registry.drop(nConnectID, "it is asked for on the control socket");
}

void CDriver::freeze(std::optional<std::chrono::milliseconds> time)
{
    m_pHandler->freeze(true);
    m_loop.freeze(time, [this] { m_pHandler->freeze(false); });
}

void CDriver::thaw()
{
    m_loop.thaw();
}

void CDriver::die()
{
    m_bDie = true;
}
