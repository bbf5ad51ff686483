// One line of the library's log: its head, and what its text says.
#ifndef LOG_LINE_H
#define LOG_LINE_H

#include "log/LogNames.h"
#include "log/LogTexts.h"
#include "log/LogTime.h"

#include <cstdint>
#include <string_view>

const int NO_STREAM = -1;

// The views are into the line that was parsed.
struct CLogLine
{
    int64_t m_llTime = NO_TIME;
    int m_nProcess = 0;
    int m_nThread = 0;
    int m_nPriority = 0;
    std::string_view m_strvLine; // the text behind the head
    ELogEvent m_event = LOG_EVENT_OTHER;
    unsigned int m_uKinds = LOG_KIND_OTHER;
    bool m_bRecordSide = false;
    int m_nStream = NO_STREAM;
    int m_nCommand = NO_COMMAND; // MICMD
    int m_nStatus = 0;
    int m_nReason = 0;
    uint32_t m_uSequence = 0;
    uint32_t m_uLeg = 0;
    uint32_t m_uAddress = 0;
    std::string_view m_strvName;
    std::string_view m_strvText;
};

// False for a line that the library has not written.
bool parseLogLine(std::string_view strvLine, CLogLine& line);

#endif
