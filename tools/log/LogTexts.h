// The lines of the library's log that tell of something, as the library's sources have them.
#ifndef LOG_TEXTS_H
#define LOG_TEXTS_H

#include <span>
#include <string_view>

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
    LOG_EVENT_STREAM_OPENED,  // m_strvText is the call id, m_uLeg, m_nStream
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
    LOG_EVENT_ALARM,      // m_strvText
    LOG_EVENT_LINES_LOST, // m_strvText
    LOG_EVENTS
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

struct CLogText
{
    ELogEvent m_event;
    unsigned int m_uKinds;
    const char* m_pszFormat;
    // What the conversions of the format are, the first ones or all:
    //   S stream, N sequence number, L leg, C status in decimal, X status in hexadecimal, A address, K name of a
    //   command, R reason in hexadecimal, T any text, - any number or name; and E: the line ends here.
    const char* m_pszPlaces;
    bool m_bRecordSide = false;
};
std::span<const CLogText> logTexts();

// Operations of the application begin a line with their class and name. The commands that one may lead to, a bit for
// each; 0 for all that lead to none.
struct CLogCall
{
    std::string_view m_strvName;
    unsigned int m_uCommands;
};
std::span<const CLogCall> logCalls();
constexpr std::string_view STREAM_CLASS = "CZelMediaStreamImpl::";
constexpr std::string_view SERVICES_CLASS = "CZelMediaServicesImpl::";

// Where the name of a class begins, in a line or a format. Before it stands what is the same in many lines, and in a
// line perhaps a text that the log's owner put there. npos when there is none.
constexpr std::size_t findClassName(std::string_view strv)
{
    for (std::size_t n = strv.find('C'); n != std::string_view::npos; n = strv.find('C', n + 1))
    {
        const std::string_view strvRest = strv.substr(n);
        if (strvRest.starts_with("CMIntf::") || strvRest.starts_with("CZelMedia") || strvRest.starts_with("CCommand::"))
            return n;
    }
    return std::string_view::npos;
}

#endif
