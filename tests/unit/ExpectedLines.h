// What the tests of CMIntf expect in the captured log, and a log that lets a test act on a line.
#ifndef EXPECTED_LINES_H
#define EXPECTED_LINES_H

#include "TraceLines.h"

#include <functional>

// A command with its number and code, as most lines show it.
inline std::string commandText(const CMIntf::CCommand* pcommand)
{
    return text("SequenceNo = %lu, sid = %d, cmd = %s", static_cast<unsigned long>(pcommand->m_cmd.nSequenceNo),
                pcommand->m_nStreamID, MICMDToString(pcommand->m_cmd.s_micmd));
}

// remActiveCommand: pPlay and pRecord are the commands that match, null for none.
inline CLogLines removalLines(int nStreamID, uint32_t nSequenceNo, const CMIntf::CCommand* pPlay,
                              const CMIntf::CCommand* pRecord, bool bDelete = false)
{
    const int nParam = static_cast<int>(nSequenceNo);
    CLogLines v = {infoLine(
        text(" (Info) CMIntf::CMIntf::remActiveCommand called, sid = %d, nSequenceIDParam = %d", nStreamID, nParam))};
    if (pPlay)
    {
        v.push_back(infoLine(text("801(Info) CMIntf::remActiveCommand m_mapActiveCommandByStreamIDPlay,pcommand =0x%x",
                                  addressForLog(pPlay))));
        v.push_back(infoLine("(Info) CMIntf::remActiveCommand:calling m_mmapActiveCommandByTimeout.erase, " +
                             commandText(pPlay)));
    }
    if (pPlay && bDelete)
    {
        v.push_back(infoLine(text(" (Info) CMIntf::CMIntf::remActiveCommand sid = %d, 1- deleting pcommand 0x%x",
                                  nStreamID, addressForLog(pPlay))));
        v.push_back(destroyedLine(pPlay));
    }
    v.push_back(infoLine(text(" (Info) CMIntf::CMIntf::remActiveCommand  before active record,sid = %d, "
                              "nSequenceIDParam = %d",
                              nStreamID, nParam)));
    if (pRecord)
    {
        v.push_back(infoLine(
            text("(Info) CMIntf::remActiveCommand:=> going to erase CCommand ptr = 0x%x", addressForLog(pRecord))));
        v.push_back(infoLine("(Info) CMIntf::remActiveCommand called for RECORD, " + commandText(pRecord)));
    }
    if (pRecord && bDelete)
    {
        v.push_back(infoLine(text(" (Info) CMIntf::CMIntf::remActiveCommand sid = %d, 2- deleting pcommand 0x%x",
                                  nStreamID, addressForLog(pRecord))));
        v.push_back(destroyedLine(pRecord));
    }
    v.push_back(infoLine(
        text(" (Info) CMIntf::CMIntf::remActiveCommand EXIT: sid = %d, nSequenceIDParam = %d", nStreamID, nParam)));
    return v;
}

// A request on its way and its one answer, up to the result.
inline CLogLines exchangeLines(int nStreamID, const char* pszCommand, uint32_t nSequenceNo,
                               const char* pszResponse = "MIRSP_STATUS", MCSTATUS mcstatus = MCS_OK)
{
    return {sendingLine(), numberLine(nStreamID, pszCommand, nSequenceNo), responseLine(1, nSequenceNo, pszResponse),
            resultLine(nStreamID, pszResponse, mcstatus)};
}

// What is around the lines of a command that ends with its response. strAddress: see createdAddresses.
inline CLogLines immediateBeginLines(const std::string& strAddress, const char* pszCommand)
{
    return {createdLine(strAddress), commandLine(0, strAddress), requestLine(0, pszCommand)};
}

inline CLogLines immediateFailedLines(const std::string& strAddress, MCSTATUS mcstatus)
{
    return {failedLine(0, mcstatus, strAddress), destroyedLine(strAddress)};
}

inline CLogLines immediateEndedLines(const std::string& strAddress, const char* pszCommand)
{
    return {endedLine(strAddress, pszCommand), destroyedLine(strAddress)};
}

// A command that ends with its response, accepted.
inline CLogLines immediateLines(const std::string& strAddress, const char* pszCommand, uint32_t nSequenceNo,
                                const char* pszResponse = "MIRSP_STATUS")
{
    return immediateBeginLines(strAddress, pszCommand) + exchangeLines(0, pszCommand, nSequenceNo, pszResponse) +
           immediateEndedLines(strAddress, pszCommand);
}

// The same, refused by the driver.
inline CLogLines immediateRefusedLines(const std::string& strAddress, const char* pszCommand, uint32_t nSequenceNo)
{
    return immediateBeginLines(strAddress, pszCommand) +
           exchangeLines(0, pszCommand, nSequenceNo, "MIRSP_STATUS", MCS_REFUSED) + CLogLines{removingLine()} +
           removalLines(0, nSequenceNo, nullptr, nullptr) + immediateFailedLines(strAddress, MCS_REFUSED);
}

// The same without a connection.
inline CLogLines immediateNotConnectedLines(const std::string& strAddress, const char* pszCommand)
{
    return immediateBeginLines(strAddress, pszCommand) +
           CLogLines{notConnectedLine(), resultLine(0, "MIRSP_NULL", MCS_NOTCONNECTED)} +
           immediateFailedLines(strAddress, MCS_NOTCONNECTED);
}

// The addresses of the commands created, in order: those of commands that a call both creates and
// destroys are known from its lines only.
inline std::vector<std::string> createdAddresses(const CLogLines& vLines)
{
    const std::string strBegin = createdLine(std::string()).strText;
    std::vector<std::string> vAddresses;
    for (const CLogLine& line : vLines)
        if (line.strText.rfind(strBegin, 0) == 0)
            vAddresses.push_back(line.strText.substr(strBegin.size()));
    return vAddresses;
}

// The lines of a log from a point on.
class CNewLines
{
public:
    explicit CNewLines(std::shared_ptr<CLogRecord> pRecord) : m_pRecord(std::move(pRecord)) {}
    void beginHere() { m_nBegin = m_pRecord->lines().size(); }
    CLogLines get() const
    {
        const CLogLines vLines = m_pRecord->lines();
        return CLogLines(vLines.begin() + static_cast<std::ptrdiff_t>(m_nBegin), vLines.end());
    }

private:
    const std::shared_ptr<CLogRecord> m_pRecord;
    size_t m_nBegin = 0;
};

// A capture that hands each text on at once, on the thread that writes it: see CLineHook.
class CHookedCapture : public CLogCapture
{
public:
    CHookedCapture(std::shared_ptr<CLogRecord> pRecord, std::function<void(const std::string&)> onLine)
        : CLogCapture(std::move(pRecord)), m_onLine(std::move(onLine))
    {
    }

    int LogStringArgListX(OrvLogLib::LogLib_Priority priority, const char* pszFormat, const char* pszSource,
                          va_list arguments) override
    {
        char szText[2048];
        va_list copy;
        va_copy(copy, arguments);
        vsnprintf(szText, sizeof(szText), pszFormat, copy);
        va_end(copy);
        const int nLength = CLogCapture::LogStringArgListX(priority, pszFormat, pszSource, arguments);
        m_onLine(szText);
        return nLength;
    }

private:
    const std::function<void(const std::string&)> m_onLine;
};

// Calls onLine for each line while it lives. onLine may not log.
class CLineHook
{
public:
    CLineHook(std::shared_ptr<CLogRecord> pRecord, std::function<void(const std::string&)> onLine) : m_pRecord(pRecord)
    {
        g_pmintf->replaceLogFile(new CHookedCapture(pRecord, std::move(onLine)));
    }
    ~CLineHook() { g_pmintf->replaceLogFile(new CLogCapture(m_pRecord)); }
    CLineHook(const CLineHook&) = delete;
    CLineHook& operator=(const CLineHook&) = delete;

private:
    const std::shared_ptr<CLogRecord> m_pRecord;
};

inline bool contains(const std::string& strText, const char* pszPart)
{
    return strText.find(pszPart) != std::string::npos;
}

#endif
