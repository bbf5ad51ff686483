// What a log tells of one command, one stream, or the process as a whole.
#ifndef COMMAND_LIFE_H
#define COMMAND_LIFE_H

#include "log/LogLine.h"

#include <cstdint>
#include <string>

enum EOutcome
{
    OUTCOME_OPEN,      // the log ends before the command does
    OUTCOME_ANSWERED,  // by the driver, and that was all
    OUTCOME_FAILED,    // it got no answer, or a refusal
    OUTCOME_COMPLETED, // the application was told of its end
    OUTCOME_ENDED,     // without the application being told
    OUTCOME_DROPPED,   // by the library, see m_pszWhy
    OUTCOME_NOT_SENT   // the call ended without a request, see m_pszWhy
};

struct CCommandLife
{
    int m_nProcess = 0;
    uint64_t m_ullStreamKey = 0; // of its CStreamLife; 0 for none
    int m_nStream = NO_STREAM;
    int m_nCommand = NO_COMMAND;
    uint32_t m_uSequence = 0; // 0: it has got no number
    std::string m_strCall;    // the operation that the application called; empty: the library's own
    std::string m_strDetail;  // with which arguments

    // NO_TIME for what has not happened.
    int64_t m_llRequested = NO_TIME;
    int64_t m_llQueued = NO_TIME;
    int64_t m_llSent = NO_TIME;
    int64_t m_llAnswered = NO_TIME;
    int64_t m_llEvent = NO_TIME;     // the driver said that it has ended
    int64_t m_llCompleted = NO_TIME; // the application was told
    int64_t m_llEnded = NO_TIME;     // nothing comes after that

    bool m_bHasStatus = false;
    int m_nStatus = 0; // of its end
    EOutcome m_outcome = OUTCOME_OPEN;
    const char* m_pszWhy = "";

    bool isPlayOrRecord() const { return isPlayOrRecordCommand(m_nCommand); }
};

// From its opening, or from its first line in the log, to its closing.
struct CStreamLife
{
    uint64_t m_ullKey = 0;
    int m_nProcess = 0;
    int m_nStream = NO_STREAM;
    std::string m_strName;       // "call-17, leg 1"
    int64_t m_llBegan = NO_TIME; // NO_TIME: it was open before the log begins
    int64_t m_llClosed = NO_TIME;
};

enum ELogNote
{
    LOG_NOTE_PROCESS_STARTED,
    LOG_NOTE_PROCESS_ENDING,
    LOG_NOTE_CONNECTED,
    LOG_NOTE_DRIVER_LOST,
    LOG_NOTE_DRIVER_SILENT,
    LOG_NOTE_STREAM_LOST,
    LOG_NOTE_ALARM,
    LOG_NOTE_LINES_LOST
};

struct CLogNote
{
    ELogNote m_note;
    int64_t m_llTime;
    int m_nProcess;
    int m_nStream; // NO_STREAM for the process as a whole
    std::string m_strText;
};

#endif
