// One line of the library's log: its head, and what its text says.
#ifndef LOG_LINE_H
#define LOG_LINE_H

#include "log/LogNames.h"
#include "log/LogTime.h"

#include <cstdint>
#include <string_view>

const int NO_STREAM = -1;

// What a line tells of. A line that tells of nothing in particular is LOG_EVENT_OTHER.
enum ELogEvent
{
    LOG_EVENT_OTHER,
    LOG_EVENT_PROCESS_STARTED,
    LOG_EVENT_PROCESS_ENDING,
    LOG_EVENT_CALL,           // the application calls an operation: m_strvName, m_strvText, m_uAddress or m_nStream
    LOG_EVENT_CALL_RESULT,    // what a query has answered to the application
    LOG_EVENT_STREAM_ADDED,   // m_uAddress, m_nStream
    LOG_EVENT_CONSTRUCTED,    // a command object: m_uAddress
    LOG_EVENT_DESTROYED,      // likewise
    LOG_EVENT_NEW_COMMAND,    // m_nStream, m_uAddress
    LOG_EVENT_REQUEST,        // m_nStream, m_nCommand
    LOG_EVENT_ENTERING,       // a play or record finds its place; m_bRecordSide
    LOG_EVENT_QUEUED,         // m_bRecordSide
    LOG_EVENT_ACTIVE,         // m_bRecordSide
    LOG_EVENT_NUMBERED,       // m_uSequence, m_nStream, m_nCommand
    LOG_EVENT_SENDING,        // the request is written
    LOG_EVENT_SENT_NUMBER,    // m_nCommand, m_uSequence, m_nStream
    LOG_EVENT_RESPONSE,       // m_uSequence
    LOG_EVENT_RESULT,         // m_nStream, m_nStatus
    LOG_EVENT_STREAM_OPENED,  // m_strvText is call id and leg, m_nStream
    LOG_EVENT_STREAM_CLOSING, // m_nStream
    LOG_EVENT_STREAM_CLEARED, // m_nStream
    LOG_EVENT_CANCEL,         // m_nStream
    LOG_EVENT_OWN_COMPLETION, // m_nStream
    LOG_EVENT_EVENT,          // m_uSequence, m_nStream, m_nStatus
    LOG_EVENT_WITHDRAWN,
    LOG_EVENT_UNLINKED,   // m_nStream, m_uSequence
    LOG_EVENT_TIMED_OUT,  // m_nStream: its cancel is out
    LOG_EVENT_REPORTING,  // m_nStream, m_uSequence
    LOG_EVENT_COMPLETION, // m_uAddress, m_nStream, m_nStatus, m_nReason
    LOG_EVENT_CONNECTED,
    LOG_EVENT_CONNECTION, // something else about the connection
    LOG_EVENT_DRIVER_LOST,
    LOG_EVENT_DRIVER_SILENT,
    LOG_EVENT_STREAM_LOST,
    LOG_EVENT_ALARM,     // m_strvText
    LOG_EVENT_LINES_LOST // m_strvText
};

// The kinds that a line can be of, to choose by.
enum ELogKind : unsigned int
{
    LOG_KIND_CALLS = 1,
    LOG_KIND_REQUESTS = 2,
    LOG_KIND_RESPONSES = 4,
    LOG_KIND_EVENTS = 8,
    LOG_KIND_COMPLETIONS = 16,
    LOG_KIND_ERRORS = 32,
    LOG_KIND_CONNECTION = 64,
    LOG_KIND_OTHER = 128
};

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
    uint32_t m_uAddress = 0;
    std::string_view m_strvName;
    std::string_view m_strvText;
};

// False for a line that the library has not written.
bool parseLogLine(std::string_view strvLine, CLogLine& line);

#endif
