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
double Quantile(std::vector<double> vFigures, double dShare)
{
    std::sort(vFigures.begin(), vFigures.end());
    const double dPlace = dShare * static_cast<double>(vFigures.size() - 1);
    const auto nBelow = static_cast<std::size_t>(dPlace);
    const std::size_t nAbove = std::min(nBelow + 1, vFigures.size() - 1);
    return std::lerp(vFigures[nBelow], vFigures[nAbove], dPlace - std::floor(dPlace));
}

std::optional<double> Median(const CFigures& figures, const std::string& strProbe)
{
    const auto it = figures.find(strProbe);
    if (it == figures.end() || it->second.empty())
        return std::nullopt;
    return Quantile(it->second, 0.5);
}

// How far the middle half of a probe's repetitions spreads, as a share of their median: the median over all probes.
double TypicalSpread(const std::vector<CWidth>& vWidths)
{
    std::vector<double> vSpreads = {};
    for (const CWidth& width : vWidths)
    {
        for (const CFigures& figures : width.m_vFigures)
        {
            for (const auto& [strProbe, vFigures] : figures)
            {
                const double dMedian = Quantile(vFigures, 0.5);
                if (vFigures.size() > 1 && dMedian > 0.0)
                    vSpreads.push_back((Quantile(vFigures, 0.75) - Quantile(vFigures, 0.25)) / dMedian);
            }
        }
    }
    return vSpreads.empty() ? 0.0 : Quantile(vSpreads, 0.5);
}

// A row's figures in one width.
struct CResult
{
    std::optional<double> m_figure;
    std::optional<double> m_limit;

    std::optional<double> Ratio(const CRow& row) const
    {
        if (!m_figure || !m_limit || *m_figure == 0.0 || *m_limit == 0.0)
            return std::nullopt;
        return row.m_goal == EGoal::RateAtLeast ? *m_limit / *m_figure : *m_figure / *m_limit;
    }

    // Without a goal, or without a figure for it: nothing.
    std::optional<bool> Met(const CRow& row) const
    {
        const std::optional<double> value = row.m_goal == EGoal::Absolute ? m_figure : Ratio(row);
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

std::vector<CLine> Lines(const std::vector<CSection>& vSections, std::size_t nSection,
                         const std::vector<CWidth>& vWidths)
{
    std::vector<CLine> vLines;
    for (const CRow& row : vSections[nSection].m_vRows)
    {
        vLines.push_back({row, {}});
        for (const CWidth& width : vWidths)
        {
            const CFigures& figures = width.m_vFigures[nSection];
            vLines.back().m_vResults.push_back({Median(figures, row.m_strProbe), Median(figures, row.m_strLimit)});
        }
    }
    return vLines;
}

template <class... ARGUMENTS> std::string Format(const char* pFormat, ARGUMENTS... arguments)
{
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), pFormat, arguments...);
    return text.data();
}

// Three significant digits and a unit.
std::string FigureText(const std::optional<double>& figure, EUnit unit)
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
    return Format("%.*f %s", nDecimals, dValue, pScale->m_pName);
}

std::string GoalText(const CRow& row)
{
    if (row.m_dGoal == 0.0)
        return "";
    switch (row.m_goal)
    {
    case EGoal::AtMost: return Format("<= %.2f", row.m_dGoal);
    case EGoal::RateAtLeast: return Format(">= %.2f", row.m_dGoal);
    case EGoal::Absolute: return "<= " + Format(row.m_unit == EUnit::Time ? "%g ns" : "%g B", row.m_dGoal);
    default: return "";
    }
}

std::string Verdict(const CLine& line, const std::vector<CWidth>& vWidths)
{
    std::vector<std::string> vstrFailed;
    std::size_t nJudged = 0;
    for (std::size_t nWidth = 0; nWidth < vWidths.size(); ++nWidth)
    {
        const std::optional<bool> met = line.m_vResults[nWidth].Met(line.m_row);
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
void PrintLine(std::string strLine)
{
    strLine.erase(strLine.find_last_not_of(' ') + 1);
    std::puts(strLine.c_str());
}

void PrintHead(const std::vector<CWidth>& vWidths)
{
    std::string strNames = Format("%-42s", "");
    std::string strColumns = strNames;
    for (const CWidth& width : vWidths)
    {
        strNames += Format(" | %-26s", width.m_strName.c_str());
        strColumns += Format(" |%9s %9s %7s", "figure", "limit", "ratio");
    }
    PrintLine(strNames + " |");
    PrintLine(strColumns + Format(" |%8s", "goal"));
}

void PrintRow(const CLine& line, const std::vector<CWidth>& vWidths)
{
    const CRow& row = line.m_row;
    std::string strLine = Format("%-42s", row.m_strText.c_str());
    for (const CResult& result : line.m_vResults)
    {
        const std::optional<double> ratio = result.Ratio(row);
        strLine += Format(" |%9s %9s %7s", FigureText(result.m_figure, row.m_unit).c_str(),
                          result.m_limit ? FigureText(result.m_limit, row.m_unit).c_str() : "",
                          ratio ? Format("%.2f", *ratio).c_str() : "");
    }
    PrintLine(strLine + Format(" |%8s %s", GoalText(row).c_str(), Verdict(line, vWidths).c_str()));
}

Json ToJson(const CRow& row, const CResult& result)
{
    const std::string strUnit = row.m_unit == EUnit::Time ? "ns" : "bytes";
    Json json;
    if (result.m_figure)
        json[strUnit] = *result.m_figure;
    if (result.m_limit)
        json["limit_" + strUnit] = *result.m_limit;
    if (const std::optional<double> ratio = result.Ratio(row))
        json["ratio"] = *ratio;
    if (const std::optional<bool> met = result.Met(row))
        json["met"] = *met;
    return json;
}

Json ToJson(const CLine& line, const std::string& strSection, const std::vector<CWidth>& vWidths)
{
    const CRow& row = line.m_row;
    Json json = {{"section", strSection}, {"text", row.m_strText}, {"probe", row.m_strProbe}};
    if (!row.m_strLimit.empty())
        json["limit"] = row.m_strLimit;
    if (!GoalText(row).empty())
        json["goal"] = GoalText(row);
    for (std::size_t nWidth = 0; nWidth < vWidths.size(); ++nWidth)
    {
        if (line.m_vResults[nWidth].m_figure)
            json[vWidths[nWidth].m_strName] = ToJson(row, line.m_vResults[nWidth]);
    }
    return json;
}

std::string ProcessorName()
{
    std::ifstream file("/proc/cpuinfo");
    for (std::string strLine; std::getline(file, strLine);)
    {
        if (strLine.starts_with("model name"))
            return strLine.substr(std::min(strLine.size(), strLine.find(':') + 2));
    }
    return "unknown";
}
} // namespace

void PrintTable(const std::vector<CSection>& vSections, const std::vector<CWidth>& vWidths)
{
    PrintHead(vWidths);
    for (std::size_t nSection = 0; nSection < vSections.size(); ++nSection)
    {
        const std::string& strTitle = vSections[nSection].m_strTitle;
        if (nSection == 0 || strTitle != vSections[nSection - 1].m_strTitle)
            PrintLine("\n" + strTitle);
        for (const CLine& line : Lines(vSections, nSection, vWidths))
            PrintRow(line, vWidths);
    }
    PrintLine(
        "\nFigures are medians, for one operation. The ratio is figure / limit; where the goal is a rate (>=) it is "
        "limit / figure.");
    std::printf(
        "The middle half of a probe's repetitions typically spreads over %.0f %% of the median; above 10 %% something "
        "else was running.\n",
        TypicalSpread(vWidths) * 100.0);
    std::fflush(stdout);
}

void WriteJson(const std::string& strPath, const std::vector<CSection>& vSections, const std::vector<CWidth>& vWidths)
{
    Json json = {{"time", static_cast<std::int64_t>(std::time(nullptr))},
                 {"processor", ProcessorName()},
                 {"spread", TypicalSpread(vWidths)}};
    for (std::size_t nSection = 0; nSection < vSections.size(); ++nSection)
    {
        for (const CLine& line : Lines(vSections, nSection, vWidths))
            json["rows"].push_back(ToJson(line, vSections[nSection].m_strTitle, vWidths));
    }
    for (const CWidth& width : vWidths)
        json["repetitions"][width.m_strName] = width.m_vFigures;
    std::ofstream(strPath) << json.dump(2) << '\n';
}
