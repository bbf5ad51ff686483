#include "LogCapture.h"

#include <algorithm>
#include <cstdio>

namespace
{
thread_local unsigned long t_ulMask = 0;
}

// Found by the dynamic linker before the log library's own.
int OrvLogLib::CLogFile::TraceStringArgList(unsigned long ulMask, LogLib_Priority priority, const char* pszFormat,
                                            va_list arguments)
{
    if ((ulMask & traceMask()) == 0)
        return 0;
    t_ulMask = ulMask;
    return LogStringArgListX(priority, pszFormat, nullptr, arguments);
}

std::ostream& operator<<(std::ostream& os, const CLogLine& line)
{
    return os << "{mask " << line.ulMask << ", priority " << line.nPriority << ", \"" << line.strText << "\"}";
}

std::vector<CLogLine> CLogRecord::lines() const
{
    std::lock_guard hold(m_mutex);
    return m_vLines;
}

std::vector<std::string> CLogRecord::texts() const
{
    return linesWith("");
}

std::vector<std::string> CLogRecord::linesWith(const std::string& strPart) const
{
    std::vector<std::string> vTexts;
    for (const CLogLine& line : lines())
        if (line.strText.find(strPart) != std::string::npos)
            vTexts.push_back(line.strText);
    return vTexts;
}

bool CLogRecord::has(const CLogLine& line) const
{
    const std::vector<CLogLine> vLines = lines();
    return std::find(vLines.begin(), vLines.end(), line) != vLines.end();
}

bool CLogRecord::waitFor(const std::string& strPart, size_t nCount, std::chrono::milliseconds limit) const
{
    std::unique_lock hold(m_mutex);
    return m_changed.wait_for(hold, limit, [&] {
        return static_cast<size_t>(std::count_if(m_vLines.begin(), m_vLines.end(), [&](const CLogLine& line) {
                   return line.strText.find(strPart) != std::string::npos;
               })) >= nCount;
    });
}

std::vector<CAlarm> CLogRecord::alarms() const
{
    std::lock_guard hold(m_mutex);
    return m_vAlarms;
}

void CLogRecord::clear()
{
    std::lock_guard hold(m_mutex);
    m_vLines.clear();
    m_vAlarms.clear();
}

void CLogRecord::add(CLogLine line)
{
    std::lock_guard hold(m_mutex);
    m_vLines.push_back(std::move(line));
    m_changed.notify_all();
}

void CLogRecord::add(CAlarm alarm)
{
    std::lock_guard hold(m_mutex);
    m_vAlarms.push_back(std::move(alarm));
    m_changed.notify_all();
}

CLogCapture::CLogCapture(std::shared_ptr<CLogRecord> pRecord)
    : CLogFile("Capture", nullptr, false, false, false), m_pRecord(std::move(pRecord))
{
}

int CLogCapture::LogStringArgListX(OrvLogLib::LogLib_Priority priority, const char* pszFormat, const char*,
                                   va_list arguments)
{
    char szText[2048];
    const int nLength = vsnprintf(szText, sizeof(szText), pszFormat, arguments);
    m_pRecord->add(CLogLine{t_ulMask, priority, szText});
    return nLength;
}

long CLogCapture::ReportEventToWIN32Log(long nEventID, unsigned short nStrings, unsigned long ulDataSize,
                                        const char** ppszStrings, void* pData)
{
    m_pRecord->add(CAlarm{static_cast<unsigned int>(nEventID),
                          std::vector<std::string>(ppszStrings, ppszStrings + nStrings), ulDataSize, pData == nullptr});
    return 1;
}
