// The table's rows of the log.
#include "Rows.h"

void addLogRows(std::vector<CSection>& vSections)
{
    constexpr int64_t LINES = 50'000;
    constexpr double OF_PLAIN_WRITE = 0.3;
    constexpr double OF_SPDLOG = 1.0;
    constexpr double MASKED_NANOSECONDS = 5.0;

    CSection section;
    section.m_strTitle = "Log: a line into the default file while lines come fast, and lines that are off";
    const auto addLine = [&section](const std::string& strText, const std::string& strLoad, bool bGoal) {
        const auto addRow = [&](const char* pWhat, const char* pLimit, double dGoal) {
            section.m_vRows.push_back({strText + " / " + pWhat, "log/own/" + strLoad, pLimit + strLoad,
                                       bGoal ? EGoal::AtMost : EGoal::None, dGoal, EUnit::Time, LINES});
        };
        addRow("snprintf + write", "log/plain/", OF_PLAIN_WRITE);
        addRow("spdlog's file sink", "log/spdlog/", OF_SPDLOG);
    };
    addLine("1 thread", "1", true);
    addLine("4 threads", "4", true);
    addLine("16 threads", "16", true);
    addLine("4 threads, all cores", "4-spread", true);
    addLine("16 threads, all cores", "16-spread", true);
    addLine("first 5,000 of a log", "first", false);
    section.m_vRows.push_back({"off: TraceString", "log/masked", "", EGoal::Absolute, MASKED_NANOSECONDS});
    section.m_vRows.push_back(
        {"off: a line of the library", "log/masked-trace", "", EGoal::Absolute, MASKED_NANOSECONDS});
    vSections.push_back(section);
}
