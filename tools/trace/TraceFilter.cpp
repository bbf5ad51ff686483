// CTraceFilter: which commands, notes and lines of a log are wanted.
#include "trace/TraceFilter.h"

#include "base/ToolError.h"

#include <algorithm>
#include <cctype>

namespace
{
unsigned int commandsFromName(std::string strName)
{
    std::transform(strName.begin(), strName.end(), strName.begin(),
                   [](char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); });
    if (strName.starts_with("MICMD_"))
        strName.erase(0, 6);
    unsigned int uCommands = 0;
    for (int n = 0; n < commandCount(); ++n)
        if (!strName.empty() && std::string_view(shortCommandName(n)).starts_with(strName))
            uCommands |= commandBit(n);
    if (uCommands == 0)
        throw CToolError(EXIT_CODE_USAGE, "there is no command '" + strName + "'");
    return uCommands;
}

// A time of day, without a date.
bool isClock(const std::string& strTime)
{
    return strTime.size() > 2 && strTime[2] == ':';
}

const char* const ANY_DAY = "1970-01-01 ";

int64_t timeFromText(const std::string& strTime)
{
    if (strTime.empty())
        return NO_TIME;
    const int64_t llTime = logTimeFromString(isClock(strTime) ? ANY_DAY + strTime : strTime);
    if (llTime == NO_TIME)
        throw CToolError(EXIT_CODE_USAGE, "'" + strTime + "' is no time: 2026-11-21 14:05:06.123, 2026-11-21 or 14:05");
    return llTime;
}

// What the life of a command has in it.
unsigned int kindsOf(const CCommandLife& life)
{
    unsigned int uKinds = life.m_strCall.empty() ? 0U : static_cast<unsigned int>(LOG_KIND_CALLS);
    if (life.m_llSent != NO_TIME || life.m_llQueued != NO_TIME)
        uKinds |= LOG_KIND_REQUESTS;
    if (life.m_llAnswered != NO_TIME)
        uKinds |= LOG_KIND_RESPONSES;
    if (life.m_llEvent != NO_TIME)
        uKinds |= LOG_KIND_EVENTS;
    if (life.m_llCompleted != NO_TIME)
        uKinds |= LOG_KIND_COMPLETIONS;
    if ((life.m_bHasStatus && life.m_nStatus != 0) || life.m_outcome == OUTCOME_DROPPED ||
        life.m_outcome == OUTCOME_FAILED || life.m_outcome == OUTCOME_NOT_SENT)
        uKinds |= LOG_KIND_ERRORS;
    const std::string_view strvName = shortCommandName(life.m_nCommand);
    if (strvName == "CONNECT" || strvName == "DISCONNECT" || strvName == "PING")
        uKinds |= LOG_KIND_CONNECTION;
    return uKinds == 0 ? static_cast<unsigned int>(LOG_KIND_OTHER) : uKinds;
}

unsigned int kindsOf(const CLogNote& note)
{
    switch (note.m_note)
    {
    case LOG_NOTE_PROCESS_STARTED:
    case LOG_NOTE_PROCESS_ENDING:
    case LOG_NOTE_CONNECTED: return LOG_KIND_CONNECTION;
    case LOG_NOTE_DRIVER_LOST:
    case LOG_NOTE_DRIVER_SILENT: return LOG_KIND_CONNECTION | LOG_KIND_ERRORS;
    default: return LOG_KIND_ERRORS;
    }
}
} // namespace

const std::map<std::string, ELogKind>& CTraceFilter::kinds()
{
    static const std::map<std::string, ELogKind> s_mapKinds = {{"calls", LOG_KIND_CALLS},
                                                               {"requests", LOG_KIND_REQUESTS},
                                                               {"responses", LOG_KIND_RESPONSES},
                                                               {"events", LOG_KIND_EVENTS},
                                                               {"completions", LOG_KIND_COMPLETIONS},
                                                               {"errors", LOG_KIND_ERRORS},
                                                               {"connection", LOG_KIND_CONNECTION},
                                                               {"other", LOG_KIND_OTHER}};
    return s_mapKinds;
}

void CTraceFilter::prepare()
{
    for (const std::string& strName : m_vCommands)
        m_uCommands |= commandsFromName(strName);
    for (const std::string& strName : m_vKinds)
        m_uKinds |= kinds().at(strName);
    m_llSince = timeFromText(m_strSince);
    m_llUntil = timeFromText(m_strUntil);
    m_bNeedsDay = isClock(m_strSince) || isClock(m_strUntil);
}

void CTraceFilter::see(const CLogLine& line)
{
    if (!m_bNeedsDay)
        return;
    m_bNeedsDay = false;
    const int64_t DAY = int64_t(24) * 3600 * 1000000;
    const int64_t llDay = line.m_llTime - ((line.m_llTime % DAY) + DAY) % DAY;
    if (isClock(m_strSince))
        m_llSince += llDay;
    if (isClock(m_strUntil))
        m_llUntil += llDay;
}

bool CTraceFilter::wants(const CLogLine& line) const
{
    return wantsTimes(line.m_llTime, line.m_llTime) && wantsStream(line.m_nStream) && wantsCommand(line.m_nCommand) &&
           wantsKinds(line.m_uKinds);
}

bool CTraceFilter::wants(const CCommandLife& life) const
{
    const int64_t llBegin = life.m_llRequested == NO_TIME ? life.m_llEnded : life.m_llRequested;
    const int64_t llEnd = life.m_llEnded == NO_TIME ? INT64_MAX : life.m_llEnded;
    return wantsTimes(llBegin, llEnd) && wantsStream(life.m_nStream) && wantsCommand(life.m_nCommand) &&
           wantsKinds(kindsOf(life));
}

bool CTraceFilter::wants(const CLogNote& note) const
{
    // What befalls the whole process befalls each stream.
    const bool bStream = note.m_nStream == NO_STREAM ? m_vStreams.empty() : wantsStream(note.m_nStream);
    return wantsTimes(note.m_llTime, note.m_llTime) && bStream && m_uCommands == 0 && wantsKinds(kindsOf(note));
}

bool CTraceFilter::wantsStream(int nStream) const
{
    return m_vStreams.empty() || std::find(m_vStreams.begin(), m_vStreams.end(), nStream) != m_vStreams.end();
}

bool CTraceFilter::wantsCommand(int nCommand) const
{
    return m_uCommands == 0 ||
           (nCommand >= 0 && nCommand < commandCount() && (m_uCommands & commandBit(nCommand)) != 0);
}

bool CTraceFilter::wantsTimes(int64_t llBegin, int64_t llEnd) const
{
    return (m_llSince == NO_TIME || llEnd >= m_llSince) && (m_llUntil == NO_TIME || llBegin <= m_llUntil);
}
