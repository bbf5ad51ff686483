#include "BenchTable.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <optional>

namespace
{
using Json = nlohmann::ordered_json;

// The figure below which this share of them lies; there is at least one.
double quantile(std::vector<double> vFigures, double dShare)
{
    std::sort(vFigures.begin(), vFigures.end());
    const double dPlace = dShare * static_cast<double>(vFigures.size() - 1);
    const auto nBelow = static_cast<size_t>(dPlace);
    const size_t nAbove = std::min(nBelow + 1, vFigures.size() - 1);
    return std::lerp(vFigures[nBelow], vFigures[nAbove], dPlace - std::floor(dPlace));
}

std::optional<double> median(const CFigures& figures, const std::string& strProbe)
{
    const auto it = figures.find(strProbe);
    if (it == figures.end() || it->second.empty())
        return std::nullopt;
    return quantile(it->second, 0.5);
}

// How far the middle half of a probe's repetitions spreads, as a share of their median: the median over all probes.
double typicalSpread(const std::vector<CWidth>& vWidths)
{
    std::vector<double> vSpreads = {};
    for (const CWidth& width : vWidths)
    {
        for (const CFigures& figures : width.m_vFigures)
        {
            for (const auto& [strProbe, vFigures] : figures)
            {
                const double dMedian = quantile(vFigures, 0.5);
                if (vFigures.size() > 1 && dMedian > 0.0)
                    vSpreads.push_back((quantile(vFigures, 0.75) - quantile(vFigures, 0.25)) / dMedian);
            }
        }
    }
    return vSpreads.empty() ? 0.0 : quantile(vSpreads, 0.5);
}

// A row's figures in one width.
struct CResult
{
    std::optional<double> m_figure;
    std::optional<double> m_limit;

    std::optional<double> ratio(const CRow& row) const
    {
        if (!m_figure || !m_limit || *m_figure == 0.0 || *m_limit == 0.0)
            return std::nullopt;
        return row.m_goal == EGoal::RateAtLeast ? *m_limit / *m_figure : *m_figure / *m_limit;
    }

    // Without a goal, or without a figure for it: nothing.
    std::optional<bool> met(const CRow& row) const
    {
        const std::optional<double> value = row.m_goal == EGoal::Absolute ? m_figure : ratio(row);
        if (row.m_goal == EGoal::None || row.m_dGoal == 0.0 || !value)
            return std::nullopt;
        return row.m_goal == EGoal::RateAtLeast ? *value >= row.m_dGoal : *value <= row.m_dGoal;
    }
};

// A row with its results, in the order of the widths.
struct CLine
{
    const CRow& m_row;
    std::vector<CResult> m_vResults;
};

std::vector<CLine> lines(const std::vector<CSection>& vSections, size_t nSection, const std::vector<CWidth>& vWidths)
{
    std::vector<CLine> vLines;
    for (const CRow& row : vSections[nSection].m_vRows)
    {
        vLines.push_back({row, {}});
        for (const CWidth& width : vWidths)
        {
            const CFigures& figures = width.m_vFigures[nSection];
            vLines.back().m_vResults.push_back({median(figures, row.m_strProbe), median(figures, row.m_strLimit)});
        }
    }
    return vLines;
}

template <class... ARGUMENTS> std::string format(const char* pFormat, ARGUMENTS... arguments)
{
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), pFormat, arguments...);
    return text.data();
}

// Three significant digits and a unit.
std::string figureText(const std::optional<double>& figure, EUnit unit)
{
    struct CScale
    {
        double m_dSize;
        const char* m_pName;
    };
    static constexpr std::array<CScale, 4> TIMES = {{{1e9, "s"}, {1e6, "ms"}, {1e3, "us"}, {1.0, "ns"}}};
    static constexpr std::array<CScale, 3> BYTES = {{{1048576.0, "MiB"}, {1024.0, "KiB"}, {1.0, "B"}}};
    if (!figure)
        return "-";
    const CScale* const pFirst = unit == EUnit::Time ? TIMES.data() : BYTES.data();
    const CScale* const pLast = pFirst + (unit == EUnit::Time ? TIMES.size() : BYTES.size()) - 1;
    const CScale* const pScale = std::find_if(
        pFirst, pLast, [&figure](const CScale& candidate) { return std::abs(*figure) >= candidate.m_dSize; });
    const double dValue = *figure / pScale->m_dSize;
    const int nDecimals = std::abs(dValue) < 9.995 ? 2 : std::abs(dValue) < 99.95 ? 1 : 0;
    return format("%.*f %s", nDecimals, dValue, pScale->m_pName);
}

std::string goalText(const CRow& row)
{
    if (row.m_dGoal == 0.0)
        return "";
    switch (row.m_goal)
    {
    case EGoal::AtMost: return format("<= %.2f", row.m_dGoal);
    case EGoal::RateAtLeast: return format(">= %.2f", row.m_dGoal);
    case EGoal::Absolute: return "<= " + format(row.m_unit == EUnit::Time ? "%g ns" : "%g B", row.m_dGoal);
    default: return "";
    }
}

std::string verdict(const CLine& line, const std::vector<CWidth>& vWidths)
{
    std::vector<std::string> vstrFailed;
    size_t nJudged = 0;
    for (size_t nWidth = 0; nWidth < vWidths.size(); ++nWidth)
    {
        const std::optional<bool> met = line.m_vResults[nWidth].met(line.m_row);
        nJudged += met.has_value();
        if (met && !*met)
            vstrFailed.push_back(vWidths[nWidth].m_strName);
    }
    if (nJudged == 0)
        return "";
    if (vstrFailed.empty())
        return "met";
    return vstrFailed.size() == nJudged ? "NOT met" : "NOT " + vstrFailed.front();
}

// Without blanks at the end.
void printLine(std::string strLine)
{
    strLine.erase(strLine.find_last_not_of(' ') + 1);
    std::puts(strLine.c_str());
}

void printHead(const std::vector<CWidth>& vWidths)
{
    std::string strNames = format("%-42s", "");
    std::string strColumns = strNames;
    for (const CWidth& width : vWidths)
    {
        strNames += format(" | %-26s", width.m_strName.c_str());
        strColumns += format(" |%9s %9s %7s", "figure", "limit", "ratio");
    }
    printLine(strNames + " |");
    printLine(strColumns + format(" |%8s", "goal"));
}

void printRow(const CLine& line, const std::vector<CWidth>& vWidths)
{
    const CRow& row = line.m_row;
    std::string strLine = format("%-42s", row.m_strText.c_str());
    for (const CResult& result : line.m_vResults)
    {
        const std::optional<double> ratio = result.ratio(row);
        strLine += format(" |%9s %9s %7s", figureText(result.m_figure, row.m_unit).c_str(),
                          result.m_limit ? figureText(result.m_limit, row.m_unit).c_str() : "",
                          ratio ? format("%.2f", *ratio).c_str() : "");
    }
    printLine(strLine + format(" |%8s %s", goalText(row).c_str(), verdict(line, vWidths).c_str()));
}

Json toJson(const CRow& row, const CResult& result)
{
    const std::string strUnit = row.m_unit == EUnit::Time ? "ns" : "bytes";
    Json json;
    if (result.m_figure)
        json[strUnit] = *result.m_figure;
    if (result.m_limit)
        json["limit_" + strUnit] = *result.m_limit;
    if (const std::optional<double> ratio = result.ratio(row))
        json["ratio"] = *ratio;
    if (const std::optional<bool> met = result.met(row))
        json["met"] = *met;
    return json;
}

Json toJson(const CLine& line, const std::string& strSection, const std::vector<CWidth>& vWidths)
{
    const CRow& row = line.m_row;
    Json json = {{"section", strSection}, {"text", row.m_strText}, {"probe", row.m_strProbe}};
    if (!row.m_strLimit.empty())
        json["limit"] = row.m_strLimit;
    if (!goalText(row).empty())
        json["goal"] = goalText(row);
    for (size_t nWidth = 0; nWidth < vWidths.size(); ++nWidth)
        if (line.m_vResults[nWidth].m_figure)
            json[vWidths[nWidth].m_strName] = toJson(row, line.m_vResults[nWidth]);
    return json;
}

std::string processorName()
{
    std::ifstream file("/proc/cpuinfo");
    for (std::string strLine; std::getline(file, strLine);)
        if (strLine.starts_with("model name"))
            return strLine.substr(std::min(strLine.size(), strLine.find(':') + 2));
    return "unknown";
}
} // namespace

void printTable(const std::vector<CSection>& vSections, const std::vector<CWidth>& vWidths)
{
    printHead(vWidths);
    for (size_t nSection = 0; nSection < vSections.size(); ++nSection)
    {
        const std::string& strTitle = vSections[nSection].m_strTitle;
        if (nSection == 0 || strTitle != vSections[nSection - 1].m_strTitle)
            printLine("\n" + strTitle);
        for (const CLine& line : lines(vSections, nSection, vWidths))
            printRow(line, vWidths);
    }
    printLine(
        "\nFigures are medians, for one operation. The ratio is figure / limit; where the goal is a rate (>=) it is "
        "limit / figure.");
    std::printf(
        "The middle half of a probe's repetitions typically spreads over %.0f %% of the median; above 10 %% something "
        "else was running.\n",
        typicalSpread(vWidths) * 100.0);
    std::fflush(stdout);
}

void writeJson(const std::string& strPath, const std::vector<CSection>& vSections, const std::vector<CWidth>& vWidths)
{
    Json json = {{"time", static_cast<int64_t>(std::time(nullptr))},
                 {"processor", processorName()},
                 {"spread", typicalSpread(vWidths)}};
    for (size_t nSection = 0; nSection < vSections.size(); ++nSection)
        for (const CLine& line : lines(vSections, nSection, vWidths))
            json["rows"].push_back(toJson(line, vSections[nSection].m_strTitle, vWidths));
    for (const CWidth& width : vWidths)
        json["repetitions"][width.m_strName] = width.m_vFigures;
    std::ofstream(strPath) << json.dump(2) << '\n';
}
