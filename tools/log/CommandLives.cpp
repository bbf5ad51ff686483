// CCommandLives: folds the lines of a log into the lives of commands and streams.
#include "log/CommandLives.h"

#include "log/ProcessLives.h"

namespace
{
// More than a process can have. A log that goes beyond is none, or lacks lines.
const size_t MAX_REMEMBERED = 1000000;
const uint64_t LINES_BETWEEN_COUNTS = 65536;
} // namespace

CCommandLives::CCommandLives(CLogListener& listener) : m_listener(listener) {}

CCommandLives::~CCommandLives() = default;

void CCommandLives::add(CLogLine& line)
{
    auto& pProcess = m_mapProcesses[line.m_nProcess];
    // In a container each start may get the same process id.
    if (pProcess && line.m_event == LOG_EVENT_PROCESS_STARTED)
    {
        pProcess->finish(line.m_llTime, OUTCOME_DROPPED, "the process ended");
        pProcess.reset();
    }
    if (!pProcess)
        pProcess = std::make_unique<CProcessLives>(m_listener, line.m_nProcess, m_ullLastStreamKey);
    m_llLast = line.m_llTime;
    pProcess->add(line);
    if (++m_ullLines % LINES_BETWEEN_COUNTS == 0)
        limitMemory();
}

void CCommandLives::finish()
{
    for (const auto& entry : m_mapProcesses)
        entry.second->finish(m_llLast, OUTCOME_OPEN, "");
    m_mapProcesses.clear();
}

void CCommandLives::limitMemory()
{
    size_t nRemembered = 0;
    for (const auto& entry : m_mapProcesses)
        nRemembered += entry.second->size();
    if (nRemembered > MAX_REMEMBERED)
        finish();
}
