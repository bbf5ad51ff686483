// A log file for tests: keeps every line with its trace class and priority, and every alarm.
//
// Link LogCapture.cpp into the test program: it stands in front of the log library's function that
// tests the mask, because the mask does not reach the operation that a log file overrides.
#ifndef LOG_CAPTURE_H
#define LOG_CAPTURE_H

#include "OrvLogLib.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

struct CLogLine
{
    unsigned long ulMask;
    int nPriority;
    std::string strText;

    bool operator==(const CLogLine& other) const
    {
        return ulMask == other.ulMask && nPriority == other.nPriority && strText == other.strText;
    }
};
std::ostream& operator<<(std::ostream& os, const CLogLine& line);

struct CAlarm
{
    unsigned int nEventID; // low 32 bits
    std::vector<std::string> vStrings;
    unsigned long ulDataSize;
    bool bDataNull;
};

// What a CLogCapture took in. Outlives it: the library owns and deletes its log file.
class CLogRecord
{
public:
    std::vector<CLogLine> lines() const;    // in the order of the calls
    std::vector<std::string> texts() const; // the same, texts alone
    std::vector<std::string> linesWith(const std::string& strPart) const;
    size_t count(const std::string& strPart) const { return linesWith(strPart).size(); }
    bool has(const CLogLine& line) const; // exactly this line
    // True once nCount lines contain strPart; false when that takes too long.
    bool waitFor(const std::string& strPart, size_t nCount = 1,
                 std::chrono::milliseconds limit = std::chrono::seconds(30)) const;
    std::vector<CAlarm> alarms() const;
    void clear();

    void add(CLogLine line);
    void add(CAlarm alarm);

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<CLogLine> m_vLines;
    std::vector<CAlarm> m_vAlarms;
};

class CLogCapture : public OrvLogLib::CLogFile
{
public:
    explicit CLogCapture(std::shared_ptr<CLogRecord> pRecord);
    int LogStringArgListX(OrvLogLib::LogLib_Priority priority, const char* pszFormat, const char* pszSource,
                          va_list arguments) override;
    long ReportEventToWIN32Log(long nEventID, unsigned short nStrings, unsigned long ulDataSize,
                               const char** ppszStrings, void* pData) override;

private:
    const std::shared_ptr<CLogRecord> m_pRecord;
};

#endif
