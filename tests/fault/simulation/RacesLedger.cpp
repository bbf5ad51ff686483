#include "RacesLedger.h"

#include <chrono>
#include <cstring>
#include <thread>

namespace
{
char s_szNextFile[] = "/p/next.wav";
const unsigned int LINES_BETWEEN_PAUSES = 37;
} // namespace

std::atomic<long> CRaceLog::s_nAlive{0};

CRaceStreamRef CRaceHandler::open(CZelMediaServices& services, unsigned long ulLegID)
{
    CZelMediaStream* pStream = nullptr;
    const int nStatus = ulLegID % 4 == 0 ? services.openMediaStream("in", "out", &pStream)
                                         : services.openMediaStream(&pStream, "call", ulLegID);
    if (nStatus != MCS_OK)
        return nullptr;
    auto pRaceStream = std::make_shared<CRaceStream>();
    pRaceStream->pServices = &services;
    pRaceStream->pStream = pStream;
    std::lock_guard hold(m_mutex);
    m_mapStreams[pStream] = pRaceStream;
    return pRaceStream;
}

void CRaceHandler::close(CRaceStream& stream)
{
    {
        std::lock_guard hold(m_mutex);
        m_mapStreams.erase(stream.pStream);
    }
    stream.pServices->closeMediaStream(stream.pStream);
    stream.pStream = nullptr;
}

std::vector<CRaceStreamRef> CRaceHandler::streams() const
{
    std::lock_guard hold(m_mutex);
    std::vector<CRaceStreamRef> vStreams;
    for (const auto& entry : m_mapStreams)
        vStreams.push_back(entry.second);
    return vStreams;
}

void CRaceHandler::fault(const std::string& strText)
{
    std::lock_guard hold(m_mutex);
    m_strFaults += strText + "\n";
}

uint64_t CRaceHandler::completions() const
{
    std::lock_guard hold(m_mutex);
    return m_ullCompletions;
}

std::string CRaceHandler::faults() const
{
    std::lock_guard hold(m_mutex);
    return m_strFaults;
}

void CRaceHandler::OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason)
{
    CRaceStreamRef pRaceStream;
    {
        std::lock_guard hold(m_mutex);
        ++m_ullCompletions;
        const auto it = m_mapStreams.find(pStream);
        if (it != m_mapStreams.end())
            pRaceStream = it->second;
    }
    if (!pRaceStream)
        return fault("a completion for a stream that is closed, or of other services");
    std::lock_guard hold(pRaceStream->mutex);
    if (++pRaceStream->nCompleted > pRaceStream->nAccepted)
        fault("a completion too many, reason " + std::to_string(reason));
    if (pRaceStream->bHandlers)
        goOn(*pRaceStream, mcstatus);
}

void CRaceHandler::goOn(CRaceStream& stream, MCSTATUS mcstatus)
{
    if (mcstatus == MCS_OK && stream.nToPlay-- > 0)
    {
        ++stream.nAccepted; // before it is: its completion must find it counted
        if (stream.pStream->playAddFile(s_szNextFile, 0, 60, 0, 0, 0) == MCS_OK)
            return;
        --stream.nAccepted;
    }
    close(stream);
}

CRaceLog::CRaceLog(unsigned int nNumber)
    : CLogFile("Races", "/tmp/races.log", false, false, false), m_bWrites(nNumber % 8 == 0)
{
    OrvLogLib::CLogSettings settings;
    settings.nMaxFileMegabytes = 4;
    settings.nRotatedFiles = 1;
    applySettings(settings);
}

int CRaceLog::LogStringArgListX(OrvLogLib::LogLib_Priority priority, const char* pszFormat, const char* pszSource,
                                va_list arguments)
{
    static const char MADE[] = "(Info) CCommand::CCommand";
    static const char DESTROYED[] = "(Info) CCommand::~CCommand";
    if (strncmp(pszFormat, MADE, sizeof(MADE) - 1) == 0)
        s_nAlive.fetch_add(1, std::memory_order_relaxed);
    else if (strncmp(pszFormat, DESTROYED, sizeof(DESTROYED) - 1) == 0)
        s_nAlive.fetch_sub(1, std::memory_order_relaxed);
    thread_local unsigned int t_nLines = 0;
    if (++t_nLines % LINES_BETWEEN_PAUSES == 0)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    return m_bWrites ? CLogFile::LogStringArgListX(priority, pszFormat, pszSource, arguments) : 0;
}
