// The page of a timeline: a template, filled with what was counted and what is to be drawn.
#include "log/LogTime.h"
#include "timeline/Timeline.h"
#include "timeline/TimelineAssets.h"

#include <algorithm>
#include <array>
#include <utility>

namespace
{
const size_t MAX_TABLE_ROWS = 1000; // a reader of the table is not served by more

std::string escapeHtml(const std::string& strText)
{
    // Through JSON: what is no UTF-8 is replaced there.
    const std::string strClean = nlohmann::json(strText).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::string strHtml;
    for (const char c : nlohmann::json::parse(strClean).get<std::string>())
    {
        switch (c)
        {
        case '&': strHtml += "&amp;"; break;
        case '<': strHtml += "&lt;"; break;
        case '>': strHtml += "&gt;"; break;
        case '"': strHtml += "&quot;"; break;
        default: strHtml += static_cast<unsigned char>(c) < 0x20 ? ' ' : c; break;
        }
    }
    return strHtml;
}

// Within a script element only "<" could end it, or begin a comment.
std::string escapeScript(const nlohmann::json& json)
{
    const std::string strJson = json.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
    std::string strScript;
    strScript.reserve(strJson.size());
    for (const char c : strJson)
        if (c == '<')
            strScript += "\\u003c";
        else
            strScript += c;
    return strScript;
}

std::string cell(const std::string& strText)
{
    return "<td>" + escapeHtml(strText) + "</td>";
}

std::string rowTitle(const CTimeline::CRow& row)
{
    if (row.m_nStream == NO_STREAM)
        return row.m_strName;
    return std::to_string(row.m_nStream) + (row.m_strName.empty() ? "" : ": " + row.m_strName);
}

std::string summaryTable(const CTimeline& timeline)
{
    const std::pair<const char*, uint64_t> aCounts[] = {{"Streams", timeline.streams()},
                                                        {"Plays", timeline.count(CTimeline::ITEM_PLAY)},
                                                        {"Records", timeline.count(CTimeline::ITEM_RECORD)},
                                                        {"Waits in a queue", timeline.count(CTimeline::ITEM_WAIT)},
                                                        {"Completions", timeline.count(CTimeline::ITEM_COMPLETION)},
                                                        {"Cancels", timeline.count(CTimeline::ITEM_CANCEL)},
                                                        {"Time-outs", timeline.count(CTimeline::ITEM_TIMEOUT)},
                                                        {"Failures", timeline.count(CTimeline::ITEM_FAILURE)},
                                                        {"Driver losses", timeline.driverLosses()}};
    std::string strHead, strBody;
    for (const auto& [pszName, ullCount] : aCounts)
    {
        strHead += std::string("<th scope=\"col\">") + pszName + "</th>";
        strBody += "<td>" + std::to_string(ullCount) + "</td>";
    }
    return "<table id=\"summary\"><caption>What happened</caption><thead><tr>" + strHead + "</tr></thead><tbody><tr>" +
           strBody + "</tr></tbody></table>";
}

// What the drawing shows, for who cannot see it.
std::string rowsTable(const CTimeline& timeline)
{
    std::vector<std::array<uint64_t, CTimeline::ITEMS>> vCounts(timeline.rows().size());
    for (const CTimeline::CItem& item : timeline.items())
        ++vCounts[item.m_nRow][item.m_item];
    std::string strBody;
    size_t nShown = 0;
    for (size_t nRow = 0; nRow < vCounts.size() && nShown < MAX_TABLE_ROWS; ++nRow)
    {
        const CTimeline::CRow& row = timeline.rows()[nRow];
        if (row.m_nStream == NO_STREAM)
            continue;
        ++nShown;
        strBody += "<tr>" + cell(rowTitle(row));
        for (const auto item :
             {CTimeline::ITEM_PLAY, CTimeline::ITEM_RECORD, CTimeline::ITEM_WAIT, CTimeline::ITEM_COMPLETION,
              CTimeline::ITEM_CANCEL, CTimeline::ITEM_TIMEOUT, CTimeline::ITEM_FAILURE})
            strBody += "<td>" + std::to_string(vCounts[nRow][item]) + "</td>";
        strBody += "</tr>\n";
    }
    std::string strEnds;
    for (const auto& [strEnd, ullCount] : timeline.statuses())
        strEnds += "<tr>" + cell(strEnd) + "<td>" + std::to_string(ullCount) + "</td></tr>\n";
    std::string strText = "<table id=\"ends\"><caption>How plays and records ended</caption><tbody>" + strEnds +
                          "</tbody></table>\n<table id=\"streams\"><caption>Streams";
    if (nShown < timeline.streams())
        strText += ", the first " + std::to_string(nShown);
    return strText +
           "</caption><thead><tr><th>Stream</th><th>Plays</th><th>Records</th><th>Waits</th><th>Completions</th>"
           "<th>Cancels</th><th>Time-outs</th><th>Failures</th></tr></thead><tbody>\n" +
           strBody + "</tbody></table>";
}

// Times are microseconds from the beginning; -1 for what has not happened.
int64_t relative(const CTimeline& timeline, int64_t llTime)
{
    return llTime == NO_TIME ? -1 : llTime - timeline.begin();
}

nlohmann::json pageData(const CTimeline& timeline)
{
    nlohmann::json rows = nlohmann::json::array();
    for (const CTimeline::CRow& row : timeline.rows())
        rows.push_back(rowTitle(row));
    // Flat lists of numbers: a list for each of 100,000 commands would cost a browser more than drawing them.
    nlohmann::json::array_t items, commands;
    for (const CTimeline::CItem& item : timeline.items())
    {
        items.insert(items.end(), {static_cast<int>(item.m_item), item.m_nRow, relative(timeline, item.m_llBegin),
                                   relative(timeline, item.m_llEnd),
                                   item.m_nLife == CTimeline::NO_LIFE ? -1 : static_cast<int64_t>(item.m_nLife)});
    }
    for (const CTimeline::CCommandShown& command : timeline.commands())
    {
        commands.insert(commands.end(), {command.m_nCommand, command.m_uSequence, command.m_nDetail, command.m_nEnd});
        for (const int64_t llTime : command.m_allTimes)
            commands.push_back(relative(timeline, llTime));
    }
    nlohmann::json names = nlohmann::json::array();
    for (int n = 0; commandFromName(shortCommandName(n)) == n; ++n)
        names.push_back(shortCommandName(n));
    const bool bEmpty = timeline.begin() == NO_TIME;
    return {{"origin", bEmpty ? 0.0 : static_cast<double>(timeline.begin()) / 1000.0},
            {"length", bEmpty ? 0 : timeline.end() - timeline.begin()},
            {"rows", std::move(rows)},
            {"items", std::move(items)},
            {"commands", std::move(commands)},
            {"names", std::move(names)},
            {"texts", timeline.texts()}};
}

std::string period(const CTimeline& timeline)
{
    if (timeline.begin() == NO_TIME)
        return "No line of the library in this log.";
    return logTimeToString(timeline.begin()) + " to " + logTimeToString(timeline.end()) + ", " +
           std::to_string(timeline.commands().size()) + " commands";
}
} // namespace

std::string timelinePage(const CTimeline& timeline, const std::string& strLogName)
{
    const std::pair<std::string_view, std::string> aParts[] = {
        {"{{title}}", escapeHtml(strLogName)},          {"{{period}}", period(timeline)},
        {"{{summary}}", summaryTable(timeline)},        {"{{tables}}", rowsTable(timeline)},
        {"{{data}}", escapeScript(pageData(timeline))}, {"{{style}}", std::string(timelineStyle())},
        {"{{charts}}", std::string(timelineCharts())},  {"{{script}}", std::string(timelineScript())}};
    std::string strPage;
    std::string_view strvRest = timelineTemplate();
    while (!strvRest.empty())
    {
        const size_t nPlace = std::min(strvRest.find("{{"), strvRest.size());
        strPage += strvRest.substr(0, nPlace);
        strvRest.remove_prefix(nPlace);
        for (const auto& [strvName, strPart] : aParts)
        {
            if (strvRest.starts_with(strvName))
            {
                strPage += strPart;
                strvRest.remove_prefix(strvName.size());
                break;
            }
        }
    }
    return strPage;
}
