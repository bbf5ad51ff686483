// CTimeline: what a log tells, by stream and time, as a page to look at or as a trace for Perfetto.
#include "timeline/Timeline.h"

#include "MediaProtocol.h"
#include "ZelMediaServices.h"
#include "base/NewFile.h"
#include "trace/TraceText.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace
{
int64_t firstOf(std::initializer_list<int64_t> times)
{
    for (const int64_t llTime : times)
        if (llTime != NO_TIME)
            return llTime;
    return NO_TIME;
}

std::string plural(uint64_t ull, const char* pszName)
{
    return fmt::format("{} {}{}", ull, pszName, ull == 1 ? "" : "s");
}
} // namespace

void CTimeline::see(const CLogLine& line)
{
    m_llBegin = m_llBegin == NO_TIME ? line.m_llTime : std::min(m_llBegin, line.m_llTime);
    m_llEnd = std::max(m_llEnd, line.m_llTime); // NO_TIME is less than any
    if (line.m_event != LOG_EVENT_OTHER)
        m_mapConnections[line.m_nProcess];
}

size_t CTimeline::textNumber(const std::string& strText)
{
    const auto [it, bNew] = m_mapTexts.emplace(strText, m_vTexts.size());
    if (bNew)
        m_vTexts.push_back(strText);
    return it->second;
}

void CTimeline::onCommand(const CCommandLife& life)
{
    const size_t nLife = m_vCommands.size();
    m_vCommands.push_back({life.m_nCommand,
                           life.m_uSequence,
                           textNumber(life.m_strDetail),
                           textNumber(outcomeText(life)),
                           {life.m_llRequested, life.m_llQueued, life.m_llSent, life.m_llAnswered, life.m_llEvent,
                            firstOf({life.m_llCompleted, life.m_llEnded})}});
    const bool bFailed = life.m_outcome == OUTCOME_FAILED || life.m_outcome == OUTCOME_NOT_SENT;
    if (life.m_nCommand == MICMD_CANCEL && !life.m_strCall.empty())
        add(ITEM_CANCEL, life, life.m_llRequested, life.m_llRequested, nLife);
    else if (bFailed)
        add(ITEM_FAILURE, life, life.m_llEnded, life.m_llEnded, nLife);
    addPlayOrRecord(life, nLife);
}

void CTimeline::addPlayOrRecord(const CCommandLife& life, size_t nLife)
{
    if (life.m_llQueued != NO_TIME)
        add(ITEM_WAIT, life, life.m_llQueued, firstOf({life.m_llSent, life.m_llEnded}), nLife);
    const bool bAccepted = life.m_llAnswered != NO_TIME && life.m_outcome != OUTCOME_FAILED;
    if (life.isPlayOrRecord() && (bAccepted || (life.m_outcome == OUTCOME_OPEN && life.m_llSent != NO_TIME)))
        add(isPlayCommand(life.m_nCommand) ? ITEM_PLAY : ITEM_RECORD, life, life.m_llSent,
            firstOf({life.m_llEvent, life.m_llEnded}), nLife);
    if (life.m_llCompleted != NO_TIME)
        add(life.m_nStatus == MCS_TIMEDOUT ? ITEM_TIMEOUT : ITEM_COMPLETION, life, life.m_llCompleted,
            life.m_llCompleted, nLife);
    if (life.isPlayOrRecord())
        ++m_mapStatuses[outcomeText(life)];
}

void CTimeline::add(EItem item, const CCommandLife& life, int64_t llBegin, int64_t llEnd, size_t nLife)
{
    ++m_aullCounts[item];
    m_vPending.push_back({item, life.m_nProcess, life.m_ullStreamKey, llBegin, llEnd, nLife});
}

void CTimeline::onStream(const CStreamLife& stream)
{
    m_mapStreams[stream.m_ullKey] = stream;
    m_vPending.push_back({ITEM_OPEN, stream.m_nProcess, stream.m_ullKey, firstOf({stream.m_llBegan, m_llBegin}),
                          stream.m_llClosed, NO_LIFE});
}

void CTimeline::onNote(const CLogNote& note)
{
    switch (note.m_note)
    {
    case LOG_NOTE_PROCESS_STARTED: changeConnection(note.m_nProcess, ITEM_LOST, note.m_llTime); break;
    case LOG_NOTE_CONNECTED: changeConnection(note.m_nProcess, ITEM_CONNECTED, note.m_llTime); break;
    case LOG_NOTE_DRIVER_LOST:
    case LOG_NOTE_DRIVER_SILENT:
        ++m_ullDriverLosses;
        changeConnection(note.m_nProcess, note.m_note == LOG_NOTE_DRIVER_LOST ? ITEM_LOST : ITEM_CONNECTED,
                         note.m_llTime);
        m_vPending.push_back({ITEM_FAILURE, note.m_nProcess, 0, note.m_llTime, note.m_llTime, NO_LIFE});
        break;
    case LOG_NOTE_PROCESS_ENDING: changeConnection(note.m_nProcess, ITEMS, note.m_llTime); break;
    default: break;
    }
}

// What was before the first line of its kind follows from that line.
void CTimeline::changeConnection(int nProcess, EItem item, int64_t llTime)
{
    CConnection& connection = m_mapConnections[nProcess];
    if (connection.m_llSince == NO_TIME && item == ITEM_LOST && llTime > m_llBegin)
        connection = {ITEM_CONNECTED, m_llBegin};
    if (connection.m_item != ITEMS && connection.m_item != item)
        m_vPending.push_back({connection.m_item, nProcess, 0, connection.m_llSince, llTime, NO_LIFE});
    if (connection.m_item != item)
        connection = {item, llTime};
}

void CTimeline::finish()
{
    for (const auto& [nProcess, connection] : m_mapConnections)
        if (connection.m_item != ITEMS)
            m_vPending.push_back({connection.m_item, nProcess, 0, connection.m_llSince, NO_TIME, NO_LIFE});
    std::map<int, size_t> mapProcessRows;
    std::unordered_map<uint64_t, size_t> mapStreamRows;
    for (const auto& process : m_mapConnections)
    {
        mapProcessRows[process.first] = m_vRows.size();
        m_vRows.push_back({process.first, NO_STREAM, "driver, p" + std::to_string(process.first)});
        for (const auto& [ullKey, stream] : m_mapStreams)
        {
            if (stream.m_nProcess != process.first)
                continue;
            mapStreamRows[ullKey] = m_vRows.size();
            m_vRows.push_back({stream.m_nProcess, stream.m_nStream, stream.m_strName});
        }
    }
    for (const CPendingItem& pending : m_vPending)
    {
        const size_t nRow =
            pending.m_ullStreamKey == 0 ? mapProcessRows[pending.m_nProcess] : mapStreamRows[pending.m_ullStreamKey];
        const int64_t llBegin = pending.m_llBegin == NO_TIME ? m_llBegin : pending.m_llBegin;
        const int64_t llEnd = pending.m_llEnd == NO_TIME ? m_llEnd : pending.m_llEnd;
        m_vItems.push_back({pending.m_item, nRow, llBegin, std::max(llBegin, llEnd), pending.m_nLife});
    }
    m_vPending.clear();
    std::stable_sort(m_vItems.begin(), m_vItems.end(),
                     [](const CItem& left, const CItem& right) { return left.m_llBegin < right.m_llBegin; });
}

uint64_t CTimeline::count(EItem item) const
{
    return m_aullCounts[item];
}

nlohmann::json CTimeline::summary() const
{
    nlohmann::json ends = nlohmann::json::object();
    for (const auto& [strEnd, ullCount] : m_mapStatuses)
        ends[strEnd] = ullCount;
    return {{"streams", streams()},
            {"commands", m_vCommands.size()},
            {"plays", count(ITEM_PLAY)},
            {"records", count(ITEM_RECORD)},
            {"waits", count(ITEM_WAIT)},
            {"cancels", count(ITEM_CANCEL)},
            {"timeouts", count(ITEM_TIMEOUT)},
            {"completions", count(ITEM_COMPLETION)},
            {"failures", count(ITEM_FAILURE)},
            {"driver_losses", m_ullDriverLosses},
            {"ends", ends}};
}

std::string CTimeline::summaryText() const
{
    return fmt::format("{}, {}, {}, {}, {}, {}, {}, {} driver loss{}", plural(streams(), "stream"),
                       plural(count(ITEM_PLAY), "play"), plural(count(ITEM_RECORD), "record"),
                       plural(count(ITEM_WAIT), "wait"), plural(count(ITEM_CANCEL), "cancel"),
                       plural(count(ITEM_TIMEOUT), "time-out"), plural(count(ITEM_FAILURE), "failure"),
                       m_ullDriverLosses, m_ullDriverLosses == 1 ? "" : "es");
}

void CTimeline::write(const std::string& strPath, bool bPerfetto, const std::string& strLogName) const
{
    CNewFile file(strPath, bPerfetto ? perfettoTrace(*this) : timelinePage(*this, strLogName));
    file.putInPlace();
}
