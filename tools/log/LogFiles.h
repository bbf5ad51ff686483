// Reads the log files that a command was given, one after the other.
#ifndef LOG_FILES_H
#define LOG_FILES_H

#include "log/LogLine.h"

#include <functional>
#include <string>
#include <vector>

// How many lines there were, and of them those that the library has not written.
struct CLineCounts
{
    uint64_t m_ullLines = 0;
    uint64_t m_ullForeign = 0;
};

// Tells people of lines that were passed over, if there were any.
void tell(const CLineCounts& counts);

// Calls see(line, the whole line), which may fill in or take parts of the line, for each that is the library's. Goes
// on with what is appended to the last file, if that is wanted, and tells whether it was interrupted then.
bool readLogs(const std::vector<std::string>& vFiles, bool bFollowLast, CLineCounts& counts,
              const std::function<void(CLogLine&, std::string_view)>& see);

#endif
