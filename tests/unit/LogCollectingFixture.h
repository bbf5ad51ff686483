// What tests of collected lines share: their files, a log that collects, and what it wrote of interest.
#ifndef LOG_COLLECTING_FIXTURE_H
#define LOG_COLLECTING_FIXTURE_H

#include "LogFileSupport.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sys/mman.h>

// In a folder where lines can be pending.
class LogPendingFixture : public LogFileTest
{
protected:
    LogPendingFixture() : m_strLog(path("Media.log")), m_strPending(path("Media.log.pending")) {}

    void SetUp() override
    {
        if (!logtest::keepsAllocatedSpace(m_strFolder))
            GTEST_SKIP() << "this file system may take back space that was allocated";
    }

    const std::string m_strLog;
    const std::string m_strPending;
};

class LogCollectingFixture : public LogPendingFixture
{
protected:
    static constexpr int DIRECT_LINES = 10000; // that are written one by one

    LogCollectingFixture() { logtest::stopClock(); }

    std::unique_ptr<OrvLogLib::CLogFile> makeLog(bool bProcessID = false) const
    {
        auto pLog = std::make_unique<OrvLogLib::CLogFile>("Media", "Media", false, bProcessID, false);
        pLog->applySettings(m_settings);
        return pLog;
    }

    // Logs until lines are collected, and are so while the clock stands still.
    static void startCollecting(OrvLogLib::CLogFile& log)
    {
        for (int n = 0; n <= DIRECT_LINES; ++n)
            EXPECT_GT(log.TraceString(logtest::TRACE, OrvLogLib::LogLib_Normal, "filler"), 0);
    }

    std::unique_ptr<OrvLogLib::CLogFile> makeCollectingLog() const
    {
        auto pLog = makeLog();
        startCollecting(*pLog);
        return pLog;
    }

    static int logNumber(OrvLogLib::CLogFile& log, int nNumber)
    {
        return log.TraceString(logtest::TRACE, OrvLogLib::LogLib_Normal, "%d", nNumber);
    }

    static void logNumbers(OrvLogLib::CLogFile& log, int nFirst, int nCount)
    {
        for (int n = nFirst; n < nFirst + nCount; ++n)
            EXPECT_GT(logNumber(log, n), 0);
    }

    // The texts of a log file.
    static std::vector<std::string> textsIn(const std::string& strPath)
    {
        std::vector<std::string> vTexts;
        for (const std::string& strLine : logtest::linesOf(strPath))
            if (const std::string strText = logtest::textOf(strLine); strText != "filler")
                vTexts.push_back(strText);
        return vTexts;
    }
    std::vector<std::string> texts() const { return textsIn(m_strLog); }

    static std::vector<std::string> numbers(int nFirst, int nCount)
    {
        std::vector<std::string> vNumbers;
        for (int n = nFirst; n < nFirst + nCount; ++n)
            vNumbers.push_back(std::to_string(n));
        return vNumbers;
    }

    uintmax_t logSize() const
    {
        std::error_code error;
        return std::filesystem::file_size(m_strLog, error);
    }
};

// An object that child processes share with this one.
template <class OBJECT> class CShared
{
public:
    CShared()
        : m_pObject(new (mmap(nullptr, sizeof(OBJECT), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
                        OBJECT())
    {
    }
    ~CShared() { munmap(m_pObject, sizeof(OBJECT)); }
    CShared(const CShared&) = delete;
    CShared& operator=(const CShared&) = delete;

    OBJECT* operator->() const { return m_pObject; }
    OBJECT& operator*() const { return *m_pObject; }

private:
    OBJECT* const m_pObject;
};

#endif
