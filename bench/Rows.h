// The rows of the table: what is measured, against which limit, with which goal.
#ifndef ROWS_H
#define ROWS_H

#include <cstdint>
#include <string>
#include <vector>

// How a figure is judged; a goal of 0 is none. The limit is a probe of the same worker, measured interleaved with it.
enum class EGoal
{
    None,        // information
    AtMost,      // figure / limit <= m_dGoal
    RateAtLeast, // limit / figure >= m_dGoal: so much of the limit's rate is reached
    Absolute     // figure <= m_dGoal in the row's unit, which for times is nanoseconds
};

enum class EUnit
{
    Time,
    Bytes // the probe's run() returns bytes per operation times operations, as if they were nanoseconds
};

struct CRow
{
    std::string m_strText;  // at most 42 characters
    std::string m_strProbe; // name of the probe; "@2" behind it moves the peer to the other core
    std::string m_strLimit; // name of the probe that is the limit, may be empty
    EGoal m_goal = EGoal::None;
    double m_dGoal = 0.0;
    EUnit m_unit = EUnit::Time;
    int64_t m_nOperations = 0; // of one measurement, also of the limit; 0: as many as fill the measuring time
    bool m_bNativeOnly = false;
};

// Rows that are measured together, in random order, by a worker process of their own for each width.
struct CSection
{
    std::string m_strTitle; // sections of one title, one behind the other, appear as one
    std::vector<CRow> m_vRows;
    int m_nRepetitions = 0; // 0: as usual; otherwise at most so many of each probe
    bool m_bInTurn = false; // probe after probe instead of in random order: for probes that take long to set up
};

void addExchangeRows(std::vector<CSection>& vSections);
void addEventRows(std::vector<CSection>& vSections);
void addLogRows(std::vector<CSection>& vSections);
void addGrowthRows(std::vector<CSection>& vSections);
void addPeerRows(std::vector<CSection>& vSections);

#endif
