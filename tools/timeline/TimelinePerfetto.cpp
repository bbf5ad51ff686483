// A timeline as Chrome trace JSON.
#include "timeline/Timeline.h"

#include <utility>

namespace
{
// Each row has a thread for plays, one for records and one for marks; slices on one thread must not overlap but
// nest, which waits in a queue do not: those are asynchronous.
const size_t THREADS_A_ROW = 4;

const char* itemName(CTimeline::EItem item)
{
    switch (item)
    {
    case CTimeline::ITEM_OPEN: return "open";
    case CTimeline::ITEM_CONNECTED: return "connected";
    case CTimeline::ITEM_LOST: return "no driver";
    case CTimeline::ITEM_PLAY: return "play";
    case CTimeline::ITEM_RECORD: return "record";
    case CTimeline::ITEM_WAIT: return "waiting";
    case CTimeline::ITEM_COMPLETION: return "completion";
    case CTimeline::ITEM_CANCEL: return "cancel";
    case CTimeline::ITEM_TIMEOUT: return "time-out";
    case CTimeline::ITEM_FAILURE: return "failure";
    case CTimeline::ITEMS: break;
    }
    return "";
}

size_t laneOf(CTimeline::EItem item)
{
    switch (item)
    {
    case CTimeline::ITEM_PLAY: return 1;
    case CTimeline::ITEM_RECORD: return 2;
    case CTimeline::ITEM_WAIT: return 3;
    default: return 0;
    }
}

std::string text(const nlohmann::json& json)
{
    return json.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

nlohmann::json metadata(const char* pszName, int nProcess, size_t nThread, const std::string& strName)
{
    return {{"ph", "M"}, {"name", pszName}, {"pid", nProcess}, {"tid", nThread}, {"args", {{"name", strName}}}};
}

nlohmann::json arguments(const CTimeline& timeline, const CTimeline::CItem& item)
{
    if (item.m_nLife == CTimeline::NO_LIFE)
        return nlohmann::json::object();
    const CTimeline::CCommandShown& command = timeline.commands()[item.m_nLife];
    nlohmann::json args = {{"command", shortCommandName(command.m_nCommand)},
                           {"end", timeline.texts()[command.m_nEnd]}};
    if (command.m_uSequence != 0)
        args["sequence"] = command.m_uSequence;
    if (!timeline.texts()[command.m_nDetail].empty())
        args["detail"] = timeline.texts()[command.m_nDetail];
    return args;
}

void appendItem(std::string& strTrace, const CTimeline& timeline, const CTimeline::CItem& item, size_t nItem)
{
    const size_t nThread = item.m_nRow * THREADS_A_ROW + laneOf(item.m_item) + 1;
    nlohmann::json event = {{"name", itemName(item.m_item)},
                            {"cat", "media"},
                            {"pid", timeline.rows()[item.m_nRow].m_nProcess},
                            {"tid", nThread},
                            {"ts", item.m_llBegin},
                            {"args", arguments(timeline, item)}};
    switch (item.m_item)
    {
    case CTimeline::ITEM_COMPLETION:
    case CTimeline::ITEM_CANCEL:
    case CTimeline::ITEM_TIMEOUT:
    case CTimeline::ITEM_FAILURE:
        event["ph"] = "i";
        event["s"] = "t";
        break;
    case CTimeline::ITEM_WAIT:
    {
        event["ph"] = "b";
        event["id"] = nItem;
        nlohmann::json end = event;
        end["ph"] = "e";
        end["ts"] = item.m_llEnd;
        strTrace += text(event) + ",\n" + text(end);
        return;
    }
    default:
        event["ph"] = "X";
        event["dur"] = item.m_llEnd - item.m_llBegin;
        break;
    }
    strTrace += text(event);
}
} // namespace

std::string perfettoTrace(const CTimeline& timeline)
{
    std::string strTrace = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[";
    const char* pszBefore = "\n";
    const auto append = [&](const nlohmann::json& event) { strTrace += std::exchange(pszBefore, ",\n") + text(event); };
    for (size_t nRow = 0; nRow < timeline.rows().size(); ++nRow)
    {
        const CTimeline::CRow& row = timeline.rows()[nRow];
        const size_t nThread = nRow * THREADS_A_ROW + 1;
        if (row.m_nStream == NO_STREAM)
        {
            append(metadata("process_name", row.m_nProcess, nThread, "process " + std::to_string(row.m_nProcess)));
            append(metadata("thread_name", row.m_nProcess, nThread, "media driver"));
            continue;
        }
        const std::string strName = "stream " + std::to_string(row.m_nStream) + " " + row.m_strName;
        append(metadata("thread_name", row.m_nProcess, nThread, strName));
        append(metadata("thread_name", row.m_nProcess, nThread + 1, strName + ", plays"));
        append(metadata("thread_name", row.m_nProcess, nThread + 2, strName + ", records"));
        append(metadata("thread_name", row.m_nProcess, nThread + 3, strName + ", queue"));
    }
    for (size_t nItem = 0; nItem < timeline.items().size(); ++nItem)
    {
        strTrace += std::exchange(pszBefore, ",\n");
        appendItem(strTrace, timeline, timeline.items()[nItem], nItem);
    }
    return strTrace + "\n]}\n";
}
