// What the workers measured, and how it is shown.
#ifndef BENCH_TABLE_H
#define BENCH_TABLE_H

#include "Rows.h"

#include <map>
#include <string>
#include <vector>

// What came out of one section. By probe: nanoseconds, or bytes, of one operation in each repetition.
using CFigures = std::map<std::string, std::vector<double>>;

struct CWidth
{
    std::string m_strName; // "amd64", "i386"
    std::string m_strWorker;
    std::vector<CFigures> m_vFigures;               // by section
    std::map<std::string, std::string> m_mapErrors; // by probe
};

// Prints all rows, and whether the goals are met.
void printTable(const std::vector<CSection>& vSections, const std::vector<CWidth>& vWidths);

void writeJson(const std::string& strPath, const std::vector<CSection>& vSections, const std::vector<CWidth>& vWidths);

#endif
