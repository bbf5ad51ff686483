// The subcommand explain of zelmedia: what a status means, when it arises, what to do.
#include "explain/ExplainCommand.h"

#include "base/Terminal.h"
#include "base/Tool.h"
#include "explain/StatusTable.h"

#include <charconv>
#include <memory>
#include <optional>

namespace
{
const char* const EXPLAIN_EXAMPLES = "  zelmedia explain MCS_NORESPONSE\n"
                                     "  zelmedia explain noresponse 46\n"
                                     "  zelmedia explain 0x00000010        (as in the library's log)\n"
                                     "  zelmedia explain --json\n"
                                     "\n"
                                     "Without a status all are listed.";

// Decimal, or hexadecimal as in log lines.
std::optional<MCSTATUS> numberOf(const std::string& strText)
{
    const bool bHex = strText.starts_with("0x") || strText.starts_with("0X");
    const char* const pStart = strText.data() + (bHex ? 2 : 0);
    const char* const pEnd = strText.data() + strText.size();
    long long nNumber = 0;
    const auto [pStop, error] = std::from_chars(pStart, pEnd, nNumber, bHex ? 16 : 10);
    const bool bFits = bHex ? nNumber >= 0 && nNumber <= 0xFFFFFFFFLL : nNumber == static_cast<MCSTATUS>(nNumber);
    if (error != std::errc() || pStop != pEnd || !bFits)
        return std::nullopt;
    return static_cast<MCSTATUS>(nNumber);
}

// "did you mean MCS_TIMEDOUT?"
std::string suggestion(const std::string& strText)
{
    std::string strNames;
    for (const std::string& strName : closestStatusNames(strText))
        strNames += (strNames.empty() ? "" : " or ") + strName;
    return strNames.empty() ? "'zelmedia explain' lists all" : "did you mean " + strNames + "?";
}

CStatusEntry entryOf(const std::string& strText)
{
    if (const std::optional<MCSTATUS> mcstatus = numberOf(strText))
    {
        const CStatusEntry* const pEntry = findStatus(*mcstatus);
        return pEntry ? *pEntry
                      : CStatusEntry{*mcstatus, nullptr, "A value of the media driver's own.",
                                     "The library passes it on untouched. As a completion it drops what is queued on "
                                     "the stream.",
                                     "Look into the media driver's manual and log."};
    }
    if (const CStatusEntry* const pEntry = findStatus(strText))
        return *pEntry;
    throw CToolError(EXIT_CODE_USAGE, "there is no status \"" + strText + "\": " + suggestion(strText));
}

std::string nameOf(const CStatusEntry& entry)
{
    if (entry.pszName)
        return entry.pszName;
    return findStatus(entry.mcstatus) ? "zelmedia-driver's own" : "the media driver's own";
}

nlohmann::json toJson(const CStatusEntry& entry)
{
    return {{"status", entry.mcstatus},
            {"name", entry.pszName ? nlohmann::json(entry.pszName) : nlohmann::json()},
            {"meaning", entry.pszMeaning},
            {"when", entry.pszWhen},
            {"what_to_do", entry.pszWhatToDo}};
}

// A paragraph behind a label of nine columns.
void printParagraph(const char* pszLabel, const std::string& strText)
{
    const size_t INDENT = 9;
    const size_t nWidth = static_cast<size_t>(std::max(terminalColumns(), 40)) - INDENT;
    std::string strLine = pszLabel;
    strLine.resize(INDENT, ' ');
    size_t nStart = 0;
    while (strText.size() - nStart > nWidth)
    {
        size_t nBreak = strText.rfind(' ', nStart + nWidth);
        if (nBreak == std::string::npos || nBreak <= nStart)
            nBreak = nStart + nWidth;
        printLine(strLine + strText.substr(nStart, nBreak - nStart));
        strLine = std::string(INDENT, ' ');
        nStart = nBreak + 1;
    }
    printLine(strLine + strText.substr(nStart));
}

void printEntry(const CStatusEntry& entry)
{
    printLine(coloured(COLOUR_BOLD, std::to_string(entry.mcstatus) + ' ' + nameOf(entry)));
    printParagraph("", entry.pszMeaning);
    printParagraph("when", entry.pszWhen);
    printParagraph("do", entry.pszWhatToDo);
}

void printList()
{
    for (const CStatusEntry& entry : statusTable())
    {
        std::string strName = nameOf(entry);
        strName.resize(23, ' ');
        const std::string strNumber = std::to_string(entry.mcstatus);
        std::string strLine(4 - std::min<size_t>(strNumber.size(), 4), ' ');
        printLine(strLine.append(strNumber).append("  ").append(strName).append(entry.pszMeaning));
    }
}

int runExplain(const CTool& tool, const std::vector<std::string>& vStatuses)
{
    std::vector<CStatusEntry> vEntries;
    vEntries.reserve(vStatuses.size());
    for (const std::string& strStatus : vStatuses)
        vEntries.push_back(entryOf(strStatus));
    if (tool.isJson())
    {
        nlohmann::json statuses = nlohmann::json::array();
        for (const CStatusEntry& entry : vEntries.empty() ? statusTable() : vEntries)
            statuses.push_back(toJson(entry));
        printJson({{"statuses", statuses}});
        return EXIT_CODE_OK;
    }
    if (vEntries.empty())
        printList();
    for (size_t nEntry = 0; nEntry < vEntries.size(); ++nEntry)
    {
        if (nEntry > 0)
            printLine("");
        printEntry(vEntries[nEntry]);
    }
    return EXIT_CODE_OK;
}
} // namespace

void addExplainCommand(CTool& tool)
{
    const auto pStatuses = std::make_shared<std::vector<std::string>>();
    CLI::App* const pCommand =
        tool.addCommand(tool.app(), "explain", "Tell what a status means, when it arises, and what to do",
                        EXPLAIN_EXAMPLES, [&tool, pStatuses] { return runExplain(tool, *pStatuses); });
    pCommand->add_option("status", *pStatuses, "Numbers or names")->type_name("STATUS");
}
