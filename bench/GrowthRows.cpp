// The table's rows of growth, memory, start-up and shut-down.
#include "Rows.h"

#include <array>

namespace
{
constexpr int64_t OPERATIONS = 1000;

struct CSize
{
    const char* m_pText;
    const char* m_pName;
    double m_dGrowth; // by how much its logarithm exceeds that of the smallest, 10
};

constexpr std::array SIZES = {CSize{"1,000", "1000", 3.0}, CSize{"10,000", "10000", 4.0},
                              CSize{"100,000", "100000", 5.0}};

CRow growthRow(const std::string& strText, const std::string& strProbe, const std::string& strSize)
{
    CRow row;
    row.m_strText = strText;
    row.m_strProbe = strProbe + "-" + strSize;
    row.m_strLimit = strProbe + "-10";
    row.m_nOperations = OPERATIONS;
    return row;
}

CSection growthSection()
{
    CSection section;
    section.m_strTitle = "Growth: among so many streams that play, against 10 of them";
    for (const std::string strOperation : {"play", "event", "cancel", "open", "close"})
    {
        for (const CSize& size : SIZES)
        {
            CRow row = growthRow(strOperation + " among " + size.m_pText, "growth/" + strOperation, size.m_pName);
            row.m_goal = EGoal::AtMost;
            row.m_dGoal = size.m_dGrowth;
            section.m_vRows.push_back(row);
        }
    }
    return section;
}

CSection fileSection()
{
    CSection section;
    section.m_strTitle = "Opening a phrase file among so many that are open, against 10 of them";
    section.m_vRows = {growthRow("open among 100", "growth/openfile", "100"),
                       growthRow("open among 1,000", "growth/openfile", "1000"),
                       growthRow("open among 10,000", "growth/openfile", "10000")};
    return section;
}

CSection memorySection()
{
    constexpr int64_t STREAMS = 10'000;
    CSection section;
    section.m_strTitle = "Memory of the process";
    section.m_nRepetitions = 1;
    const auto addRow = [&section](const char* pText, const char* pProbe, int64_t nOperations) {
        section.m_vRows.push_back({pText, pProbe, "", EGoal::None, 0.0, EUnit::Bytes, nOperations});
    };
    addRow("the library, connected", "memory/process", 1);
    addRow("an open stream", "memory/stream", STREAMS);
    addRow("its active play, in addition", "memory/playing", STREAMS);
    addRow("a play queued behind that, in addition", "memory/queued", STREAMS);
    return section;
}

CSection lifeSection()
{
    CSection section;
    section.m_strTitle = "Start-up and shut-down of a process";
    section.m_nRepetitions = 5;
    const auto addRow = [&section](const char* pText, const char* pProbe) {
        section.m_vRows.push_back({pText, pProbe, "", EGoal::None, 0.0, EUnit::Time, 1});
    };
    addRow("the first services object", "life/construct");
    addRow("until it is connected", "life/connect");
    addRow("shut-down", "life/shutdown");
    return section;
}
} // namespace

void addGrowthRows(std::vector<CSection>& vSections)
{
    vSections.push_back(growthSection());
    vSections.push_back(fileSection());
    vSections.push_back(memorySection());
    vSections.push_back(lifeSection());
}
