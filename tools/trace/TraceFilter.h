// CTraceFilter: which commands, notes and lines of a log are wanted.
#ifndef TRACE_FILTER_H
#define TRACE_FILTER_H

#include "log/CommandLife.h"

#include <map>
#include <string>
#include <vector>

class CTraceFilter
{
public:
    // As they are given on the command line; what is empty does not choose.
    std::vector<int> m_vStreams;
    std::vector<std::string> m_vCommands; // "PLAY" for PLAYFILE, PLAYCLIP and PLAYGETSTATS
    std::vector<std::string> m_vKinds;    // names in kinds()
    std::string m_strSince;
    std::string m_strUntil;

    static const std::map<std::string, ELogKind>& kinds();

    // Throws CToolError for what cannot be understood.
    void prepare();

    // To be told of each line before the others are asked: a time without a date is one of the log's first day.
    void see(const CLogLine& line);

    bool wants(const CLogLine& line) const;
    bool wants(const CCommandLife& life) const;
    bool wants(const CLogNote& note) const;

private:
    bool wantsStream(int nStream) const;
    bool wantsCommand(int nCommand) const;
    bool wantsKinds(unsigned int uKinds) const { return m_uKinds == 0 || (m_uKinds & uKinds) != 0; }
    bool wantsTimes(int64_t llBegin, int64_t llEnd) const;

    unsigned int m_uCommands = 0; // a bit for each
    unsigned int m_uKinds = 0;
    int64_t m_llSince = NO_TIME;
    int64_t m_llUntil = NO_TIME;
    bool m_bNeedsDay = false;
};

#endif
