// CCommandLives::CProcessLives: events, completions, and all other ways in which commands end.
#include "log/ProcessLives.h"

#include "MediaProtocol.h"
#include "ZelMediaServices.h"

#include <utility>

namespace
{
bool isFatal(int nStatus)
{
    return nStatus >= MCS_PIPECREATE && nStatus <= MCS_PIPEWRITE;
}

const char* const WHY_EVENT = "what the stream played before it did not end well";
} // namespace

void CCommandLives::CProcessLives::constructed(CThread& thread, CLogLine& line)
{
    thread.m_uNewAddress = line.m_uAddress;
}

void CCommandLives::CProcessLives::ownCompletion(CThread& thread, CLogLine& line)
{
    thread.m_current = newLife(line);
    thread.m_current->m_nCommand = MICMD_NULL;
    attachStream(*thread.m_current, line.m_nStream);
    m_mapByAddress[thread.m_uNewAddress] = thread.m_current;
}

void CCommandLives::CProcessLives::withdrawn(CThread& thread, CLogLine&)
{
    thread.m_bWithdrawing = true;
}

void CCommandLives::CProcessLives::timedOut(CThread& thread, CLogLine& line)
{
    if (thread.m_held)
        attachStream(*thread.m_held, line.m_nStream);
    releaseHeld(thread);
}

void CCommandLives::CProcessLives::reporting(CThread& thread, CLogLine& line)
{
    const CLife life = lifeOfNumber(line.m_uSequence, line.m_nStream);
    if (!life)
        return;
    thread.m_reporting = life;
    line.m_nCommand = life->m_nCommand;
}

void CCommandLives::CProcessLives::driverLost(CThread& thread, CLogLine&)
{
    thread.m_bLost = true;
}

void CCommandLives::CProcessLives::driverSilent(CThread& thread, CLogLine& line)
{
    if (std::exchange(thread.m_bLost, false)) // the line follows a loss, too
        return;
    thread.m_pszWhy = "the media driver did not answer";
    note(LOG_NOTE_DRIVER_SILENT, line, NO_STREAM, "the media driver does not answer");
}

void CCommandLives::CProcessLives::streamLost(CThread& thread, CLogLine& line)
{
    note(LOG_NOTE_STREAM_LOST, line, thread.m_nEventStream, "the stream is lost");
}

void CCommandLives::CProcessLives::alarm(CThread&, CLogLine& line)
{
    note(LOG_NOTE_ALARM, line, NO_STREAM, "alarm: " + std::string(line.m_strvText));
}

void CCommandLives::CProcessLives::readEvent(CThread& thread, CLogLine& line)
{
    releaseHeld(thread);
    endCall(thread);
    thread.m_reporting.reset();
    thread.m_nEventStream = line.m_nStream;
    thread.m_pszWhy = isFatal(line.m_nStatus) ? "the media driver was lost" : WHY_EVENT;
    const CLife life = lifeOfNumber(line.m_uSequence, line.m_nStream);
    if (!life || life->m_llEvent != NO_TIME)
        return;
    life->m_llEvent = line.m_llTime;
    life->m_nStatus = line.m_nStatus;
    life->m_bHasStatus = true;
    CLife& active = streamOf(line.m_nStream).m_aSides[0].m_active;
    if (active == life)
    {
        active.reset();
        life->m_bRetired = true;
    }
}

// An active command is taken out for no event and no failure: its time is over.
void CCommandLives::CProcessLives::unlinked(CThread& thread, CLogLine& line)
{
    if (std::exchange(thread.m_bWithdrawing, false))
        return;
    const CLife life = lifeOfNumber(line.m_uSequence, line.m_nStream);
    if (life && !life->m_bRetired)
        thread.m_pszWhy = "the time-out of the stream's command";
}

void CCommandLives::CProcessLives::complete(CThread& thread, CLogLine& line)
{
    CLife life = completedLife(thread, line);
    if (!life)
    {
        life = newLife(line); // it began before the log
        life->m_llRequested = NO_TIME;
        life->m_strCall = line.m_nReason == 1 ? "play" : line.m_nReason == 2 ? "record" : "";
        attachStream(*life, line.m_nStream);
    }
    life->m_llCompleted = line.m_llTime;
    life->m_nStatus = line.m_nStatus;
    life->m_bHasStatus = true;
    const bool bDelivered = line.m_uAddress != 0;
    finishLife(life, bDelivered ? OUTCOME_COMPLETED : OUTCOME_ENDED, bDelivered ? "" : "the stream was closed",
               line.m_llTime);
}

CCommandLives::CProcessLives::CLife CCommandLives::CProcessLives::completedLife(CThread& thread, const CLogLine& line)
{
    CLife life = std::exchange(thread.m_reporting, nullptr);
    if (life && !life->m_bFinished && life->m_nStream == line.m_nStream)
        return life;
    if (m_bSeesObjects)
        return nullptr;
    for (CSide& side : streamOf(line.m_nStream).m_aSides)
    {
        const bool bRecord = side.m_active && side.m_active->m_nCommand == MICMD_RECORDFILE;
        if (side.m_active && bRecord == (line.m_nReason == 2))
            return std::exchange(side.m_active, nullptr);
    }
    return nullptr;
}

void CCommandLives::CProcessLives::destroyed(CThread& thread, CLogLine& line)
{
    m_bSeesObjects = true;
    const auto it = m_mapByAddress.find(line.m_uAddress);
    if (it == m_mapByAddress.end())
        return;
    const CLife life = it->second;
    m_mapByAddress.erase(it);
    if (life == thread.m_held)
        return; // its stream is still to come
    if (life->m_llEvent == NO_TIME)
        finishLife(life, OUTCOME_DROPPED, thread.m_pszWhy, line.m_llTime);
    else if (isFatal(life->m_nStatus))
        finishLife(life, OUTCOME_DROPPED, "the media driver was lost", line.m_llTime);
    else
        finishLife(life, OUTCOME_ENDED, "", line.m_llTime);
}

void CCommandLives::CProcessLives::dropStream(int nStream, const char* pszWhy, int64_t llTime, bool bQueueOnly)
{
    const auto it = m_mapStreams.find(nStream);
    if (it == m_mapStreams.end())
        return;
    for (CSide& side : it->second.m_aSides)
    {
        for (const CLife& life : side.m_queue)
            finishLife(life, OUTCOME_DROPPED, pszWhy, llTime);
        side.m_queue.clear();
        if (!bQueueOnly && side.m_active)
            finishLife(side.m_active, OUTCOME_DROPPED, pszWhy, llTime);
    }
}

CCommandLives::CProcessLives::CLife CCommandLives::CProcessLives::newLife(const CLogLine& line)
{
    CLife life = std::make_shared<COpenLife>();
    life->m_nProcess = m_nProcess;
    life->m_llRequested = line.m_llTime;
    life->m_ullNumber = ++m_ullLives;
    m_mapOpen.emplace_hint(m_mapOpen.end(), life->m_ullNumber, life);
    return life;
}

// Numbers wrap, and begin anew with each process: the stream has to fit, too.
CCommandLives::CProcessLives::CLife CCommandLives::CProcessLives::lifeOfNumber(uint32_t uSequence, int nStream) const
{
    const auto it = m_mapBySequence.find(uSequence);
    return it == m_mapBySequence.end() || it->second->m_nStream != nStream ? nullptr : it->second;
}

CCommandLives::CProcessLives::CStream& CCommandLives::CProcessLives::streamOf(int nStream)
{
    CStream& stream = m_mapStreams[nStream];
    if (stream.m_ullKey == 0)
    {
        stream.m_ullKey = ++m_ullLastStreamKey;
        stream.m_nProcess = m_nProcess;
        stream.m_nStream = nStream;
    }
    return stream;
}

void CCommandLives::CProcessLives::attachStream(CCommandLife& life, int nStream)
{
    life.m_nStream = nStream;
    life.m_ullStreamKey = nStream == NO_STREAM ? 0 : streamOf(nStream).m_ullKey;
}

void CCommandLives::CProcessLives::closeStream(int nStream, int64_t llTime)
{
    const auto it = m_mapStreams.find(nStream);
    if (it == m_mapStreams.end())
        return;
    it->second.m_llClosed = llTime;
    m_listener.onStream(it->second);
    m_mapStreams.erase(it);
}

void CCommandLives::CProcessLives::finishLife(CLife life, EOutcome outcome, const char* pszWhy, int64_t llTime)
{
    if (std::exchange(life->m_bFinished, true))
        return;
    life->m_outcome = outcome;
    life->m_pszWhy = pszWhy;
    if (outcome != OUTCOME_OPEN)
        life->m_llEnded = llTime;
    m_mapOpen.erase(life->m_ullNumber);
    const auto it = m_mapBySequence.find(life->m_uSequence);
    if (it != m_mapBySequence.end() && it->second == life)
        m_mapBySequence.erase(it);
    if (const auto itStream = m_mapStreams.find(life->m_nStream); itStream != m_mapStreams.end())
    {
        for (CSide& side : itStream->second.m_aSides)
            if (side.m_active == life)
                side.m_active.reset();
    }
    m_listener.onCommand(*life);
}

void CCommandLives::CProcessLives::note(ELogNote logNote, const CLogLine& line, int nStream, std::string strText)
{
    m_listener.onNote({logNote, line.m_llTime, m_nProcess, nStream, std::move(strText)});
}

void CCommandLives::CProcessLives::finish(int64_t llTime, EOutcome outcome, const char* pszWhy)
{
    for (auto& entry : m_mapThreads)
    {
        releaseHeld(entry.second);
        endCall(entry.second);
    }
    while (!m_mapOpen.empty())
    {
        const CLife life = m_mapOpen.begin()->second;
        finishLife(life, outcome, pszWhy, llTime);
    }
    for (auto& entry : m_mapStreams)
    {
        if (outcome != OUTCOME_OPEN)
            entry.second.m_llClosed = llTime;
        m_listener.onStream(entry.second);
    }
    m_mapStreams.clear();
}

size_t CCommandLives::CProcessLives::size() const
{
    return 1 + m_mapOpen.size() + m_mapThreads.size() + m_mapByAddress.size() + m_mapStreams.size() +
           m_mapStreamByHandle.size() + m_mapBySequence.size();
}
