// Reads the log files that a command was given, one after the other.
#include "log/LogFiles.h"

#include "base/Tool.h"
#include "log/LogReader.h"

#include <fmt/format.h>

void tell(const CLineCounts& counts)
{
    if (counts.m_ullForeign > 0)
        printError(fmt::format("passed over {} of {} lines: they are not the library's", counts.m_ullForeign,
                               counts.m_ullLines));
}

bool readLogs(const std::vector<std::string>& vFiles, bool bFollowLast, CLineCounts& counts,
              const std::function<void(CLogLine&, std::string_view)>& see)
{
    bool bInterrupted = false;
    for (const std::string& strFile : vFiles)
    {
        const bool bFollow = bFollowLast && &strFile == &vFiles.back();
        CLogReader reader(strFile, bFollow ? CLogReader::FOLLOWING : CLogReader::NOT_FOLLOWING);
        std::string_view strvLine;
        CLogLine line;
        while (reader.next(strvLine))
        {
            const bool bOwn = parseLogLine(strvLine, line);
            ++counts.m_ullLines;
            counts.m_ullForeign += !bOwn;
            if (bOwn)
                see(line, strvLine);
        }
        bInterrupted = reader.wasInterrupted();
    }
    return bInterrupted;
}
