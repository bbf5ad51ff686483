// The library's trace lines that several tests expect, each text once. They are not taken from the library: one that
// changes there by a character fails here.
#ifndef TRACE_LINES_H
#define TRACE_LINES_H

#include "LogCapture.h"
#include "MIntf.h"

#include <cstdarg>
#include <string>
#include <vector>

typedef std::vector<CLogLine> CLogLines;

inline std::string text(const char* pszFormat, ...) __attribute__((format(printf, 1, 2)));
inline std::string text(const char* pszFormat, ...)
{
    char szText[2048];
    va_list arguments;
    va_start(arguments, pszFormat);
    vsnprintf(szText, sizeof(szText), pszFormat, arguments);
    va_end(arguments);
    return szText;
}

inline CLogLine infoLine(const std::string& strText)
{
    return {1, 2, strText};
}

inline CLogLine errorLine(const std::string& strText)
{
    return {1, 64, strText};
}

inline CLogLine operationLine(const std::string& strText)
{
    return {8, 2, strText};
}

inline CLogLines operator+(CLogLines vLeft, const CLogLines& vRight)
{
    vLeft.insert(vLeft.end(), vRight.begin(), vRight.end());
    return vLeft;
}

// A command's address as lines show it, and as createdAddresses has it. To be made before what may destroy the command.
inline std::string addressOf(const CMIntf::CCommand* pcommand)
{
    return text("%x", addressForLog(pcommand));
}

// A command's life.

inline CLogLine createdLine(const std::string& strAddress)
{
    return infoLine("(Info) CCommand::CCommand this = 0x" + strAddress);
}

inline CLogLine createdLine(const CMIntf::CCommand* pcommand)
{
    return createdLine(addressOf(pcommand));
}

inline CLogLine destroyedLine(const std::string& strAddress)
{
    return infoLine("(Info) CCommand::~CCommand this = 0x" + strAddress);
}

inline CLogLine destroyedLine(const CMIntf::CCommand* pcommand)
{
    return destroyedLine(addressOf(pcommand));
}

// A command's request, in the order of its lines.

inline CLogLine commandLine(int nStreamID, const std::string& strAddress)
{
    return infoLine(text("(Info) CMIntf::sendCommand nStreamID = %d, pcommand = 0x%s", nStreamID, strAddress.c_str()));
}

inline CLogLine requestLine(int nStreamID, const char* pszCommand)
{
    return operationLine(text("CMIntf::sendCommand (%d), cmd %s", nStreamID, pszCommand));
}

inline CLogLine notConnectedLine()
{
    return infoLine(" (Error) CMIntf::sendCommand - media driver not running or not connected");
}

inline CLogLine sendingLine()
{
    return operationLine("CMIntf::sendCommand - sending");
}

inline CLogLine numberLine(int nStreamID, const char* pszCommand, uint32_t nSequenceNo)
{
    return infoLine(text("(Info) CMIntf::sendCommand, cmd %s, sequence number %u, m_nStreamID = %d", pszCommand,
                         nSequenceNo, nStreamID));
}

inline CLogLine responseLine(int nTry, uint32_t nSequenceNo, const char* pszResponse)
{
    return {8, 64,
            text("(Info) CMIntf::sendCommand, tried to get correct response, trycount = %d, psrsp->nRespSequenceNo = "
                 "%u, psrsp->s_mirsp = %s",
                 nTry, nSequenceNo, pszResponse)};
}

inline CLogLine resultLine(int nStreamID, const char* pszResponse, MCSTATUS mcstatus)
{
    return operationLine(text("<<<CMIntf::sendCommand (%d), rsp %s, mcstatus 0x%08X", nStreamID, pszResponse,
                              static_cast<unsigned int>(mcstatus)));
}

inline CLogLine endedLine(const std::string& strAddress, const char* pszCommand)
{
    return operationLine(
        text("CMIntf::sendCommand deleting pcommand  pcommand=0X%s : cmd %s", strAddress.c_str(), pszCommand));
}

inline CLogLine removingLine()
{
    return operationLine("CMIntf::sendCommand - removing from active command, calling remActiveCommand");
}

inline CLogLine failedLine(int nStreamID, MCSTATUS mcstatus, const std::string& strAddress)
{
    return infoLine(text("(Info) CMIntf::sendCommand nStreamID = %d, mcstatus=%d : DELETING pcommand = 0x%s", nStreamID,
                         mcstatus, strAddress.c_str()));
}

// How plays and records become active, or wait.

inline CLogLine playEnteringLine(int nStreamID)
{
    return operationLine(text("CMIntf::processPlayActiveCommand - Entering, pcommand->m_nStreamID = %d", nStreamID));
}

inline CLogLine playNumberLine(int nStreamID, const char* pszCommand, uint32_t nSequenceNo)
{
    return infoLine(text(" (Info) CMIntf::processPlayActiveCommand called, SequenceNo = %u, sid = %d, cmd = %s",
                         nSequenceNo, nStreamID, pszCommand));
}

inline CLogLines playActiveLines(int nStreamID, const char* pszCommand, uint32_t nSequenceNo,
                                 const std::string& strAddress, int nDeadline)
{
    return {playEnteringLine(nStreamID), operationLine("CMIntf::processPlayActiveCommand - Current active command"),
            playNumberLine(nStreamID, pszCommand, nSequenceNo),
            infoLine("801(Info) CMIntf::processPlayActiveCommand m_mapActiveCommandByStreamIDPlay,pcommand =0x" +
                     strAddress),
            infoLine(text("CMIntf::processPlayActiveCommand TimeOut %d", nDeadline))};
}

// The command, number and stream of the play that it waits for.
inline CLogLines playWaitsLines(int nStreamID, const char* pszActive, uint32_t nActiveSequenceNo)
{
    return {playEnteringLine(nStreamID), operationLine("CMIntf::processPlayActiveCommand - queueing"),
            infoLine(text("Brudel (Info) CMIntf::processPlayActiveCommand, queueing because, SequenceNo = %u, sid = "
                          "%d, cmd = %s, pcommand->m_nStreamID = %d",
                          nActiveSequenceNo, nStreamID, pszActive, nStreamID))};
}

inline CLogLines recordActiveLines(int nStreamID, uint32_t nSequenceNo)
{
    return {operationLine("CMIntf::processRecordActiveCommand - Entering"),
            operationLine("CMIntf::processRecordActiveCommand - Current active command"),
            infoLine(text(" (Info) CMIntf::processRecordActiveCommand called, SequenceNo = %u, sid = %d, cmd = "
                          "MICMD_RECORDFILE",
                          nSequenceNo, nStreamID))};
}

inline CLogLines recordWaitsLines()
{
    return {operationLine("CMIntf::processRecordActiveCommand - Entering"),
            operationLine("CMIntf::processRecordActiveCommand - queueing")};
}

// How all commands end at once.

inline CLogLine clearActiveLine()
{
    return infoLine("(Info) CMIntf::CMIntf::clearActiveCommand ENTRY");
}

inline CLogLine wakeUpLine(int nEvent)
{
    return infoLine(text("CMIntf::sendEvent, evt %d", nEvent));
}

inline CLogLine wakeUpFailedLine(int nErrno)
{
    return errorLine(text("(Error) CMIntf::sendEvent, error writing event pipe %d", nErrno));
}

// One command removed directly, before it is destroyed.
inline CLogLines directRemovalLines(const std::string& strAddress)
{
    return {
        infoLine("test123 (Info) CMIntf::CMIntf::clearActiveCommand calling erase on mapActiveCommands"),
        infoLine("801(Info) CMIntf::clearActiveCommands m_mapActiveCommandByStreamIDPlay,pcommand =0x" + strAddress),
        infoLine("(Info) CMIntf::CMIntf::clearActiveCommand calling delete pcommand")};
}

// The operations on ids.

inline CLogLine cancelLine(int nStreamID)
{
    return operationLine(text("CMIntf::cancel, id %d", nStreamID));
}

inline CLogLine setDoneLine(int nStreamID)
{
    return operationLine(text("CMIntf::setDone, id %d", nStreamID));
}

inline CLogLine closeFileLine(int nFileID)
{
    return operationLine(text("CMIntf::closeFile, id %d", nFileID));
}

inline CLogLine closeStreamLine(int nStreamID)
{
    return operationLine(text("CMIntf::closeStream, id %d", nStreamID));
}

#endif
