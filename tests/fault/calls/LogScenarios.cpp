// The scenarios of a log file of the application's own: opened, rotated, collected into, recovered.
#include "FailingAllocations.h"
#include "OrvLogLib.h"
#include "Scenario.h"

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace OrvLogLib;
using namespace faults;

namespace
{
constexpr char FOLDER[] = "/tmp/calls";
constexpr char NAME[] = "/tmp/calls/own.log";
constexpr int DIRECT_LINES = 10000; // that are written one by one before lines are collected

class CLogScenario : public CScenario
{
public:
    CLogScenario()
    {
        setSpeed(0); // or the log would forgive lines that came fast
        advanceClock(1000000);
        std::filesystem::create_directory(FOLDER);
    }

    // A line gets into the file again, and none of those that were said to be safe is missing.
    void check() override
    {
        advanceClock(2000);
        if (!m_log)
            makeAgain();
        if (!line("again") && m_plan.nAllocation == 0) // a log file that was made without memory stays without lines
            complain("no line is written afterwards");
        close();
        makeAgain(); // as the next process, which removes what could not be removed
        if (!line("and again"))
            complain("no line is written by the next one");
        close();
        const std::multiset<std::string> setLines = linesInFiles();
        for (const std::string& strLine : m_vSafe)
        {
            const size_t nCount = setLines.count(strLine);
            if (nCount != 1 && !(isFaulty() && nCount > 1 && mayRepeat()))
                complain(std::to_string(nCount) + " times in the log: " + strLine);
        }
    }

    void end() override { close(); }

    bool mayRemain(const std::string& strName) const override { return strName == "calls"; }

protected:
    void make(int nStartFresh = 0, int nRotated = 3, int nStandardErrorMask = 0, int nSync = 0,
              const char* pszName = NAME)
    {
        const CInsideLibrary inside;
        m_log.emplace("Calls", pszName, false, true, true);
        const CLogFileRegistry registry(&*m_log, "Calls", FOLDER, nullptr, nullptr, nStartFresh, 1, 100, 1000, nRotated,
                                        1023, 0, 1023, nStandardErrorMask, 10000, nSync, 1, 40000, 1, 0);
    }

    bool line(const std::string& strText)
    {
        const std::string strLine = strText + " " + std::to_string(++m_nLines);
        const bool bSafe = inside([&] { return m_log->TraceString(1, LogLib_Normal, "%s", strLine.c_str()) > 0; });
        if (bSafe)
            m_vSafe.push_back(strLine);
        return bSafe;
    }

    void lines(const char* pszText, int nLines)
    {
        for (int n = 0; n < nLines; ++n)
            line(pszText);
    }

    void makeOldFile(const std::string& strName, const std::string& strText)
    {
        std::ofstream(strName) << "2026-01-01 00:00:00.000000 p1 t1 2 " << strText << "\n";
    }

    virtual void makeAgain() { make(); }

    // Where a file could not be looked at or cut, lines may be moved into the log a second time.
    virtual bool mayRepeat() const { return false; }

    template <class OPERATION> static auto inside(OPERATION operation) -> decltype(operation())
    {
        const CInsideLibrary inside;
        return operation();
    }
    void flush()
    {
        const CInsideLibrary inside;
        m_log->flush();
    }
    void close()
    {
        const CInsideLibrary inside;
        m_log.reset();
    }

    std::optional<CLogFile> m_log;
    std::vector<std::string> m_vSafe;
    int m_nLines = 0;

private:
    static std::multiset<std::string> linesInFiles()
    {
        std::multiset<std::string> setLines;
        for (const auto& entry : std::filesystem::directory_iterator(FOLDER))
        {
            if (entry.path().extension() == ".pending")
                complain("left: " + entry.path().string());
            std::ifstream file(entry.path());
            for (std::string strLine; std::getline(file, strLine);)
            {
                size_t nText = 0; // after date, time, process, thread, priority
                for (int nWord = 0; nWord < 5 && nText != std::string::npos; ++nWord)
                    nText = strLine.find(' ', nText + (nWord > 0));
                setLines.insert(nText == std::string::npos ? strLine : strLine.substr(nText + 1));
            }
        }
        return setLines;
    }
};

class CWriteLines : public CLogScenario
{
public:
    void run() override
    {
        make(0, 3, 64, 1);
        line("first");
        inside([&] { return m_log->TraceString(1, LogLib_High, "to standard error, too"); });
        const char* pszAlarm = "alarm";
        inside([&] { return m_log->ReportEventToWIN32Log(1, 1, 0, &pszAlarm, nullptr); });
        advanceClock(41000); // looks whether the file is still there
        line("second");
        advanceClock(2000);
        line("third");
    }
};

class CDefaultFolder : public CLogScenario
{
public:
    void run() override
    {
        const CInsideLibrary inside;
        m_log.emplace("Calls", "own", false, true, true);
        m_log->TraceString(1, LogLib_Normal, "line");
        close();
    }
    bool mayRemain(const std::string& strName) const override
    {
        return strName == "calls" || (strName.starts_with("own-p") && strName.ends_with(".log"));
    }
};

class CRotate : public CLogScenario
{
public:
    void prepare() override
    {
        for (const char* const pszSuffix : {"", ".1", ".2"})
        {
            makeOldFile(std::string(NAME) + pszSuffix, std::string("old") + pszSuffix);
            m_vSafe.push_back(std::string("old") + pszSuffix);
        }
    }
    void run() override
    {
        make(1);
        line("first");
        advanceClock(2000);
        line("second");
    }
};

class CEmpty : public CLogScenario
{
public:
    void prepare() override { makeOldFile(NAME, "old"); }
    void run() override
    {
        make(1, 0);
        line("first");
        advanceClock(2000);
        line("second");
        inside([&] { return &m_log.emplace("Calls", NAME, true, false, true); });
        m_vSafe.clear();
        line("third");
    }
};

class CCollect : public CLogScenario
{
public:
    void prepare() override
    {
        make();
        lines("direct", DIRECT_LINES);
    }
    void run() override
    {
        lines("collected", 4);
        advanceClock(33);
        lines("after a while", 2);
        flush();
        advanceClock(11000); // nothing came for long
        flush();
        lines("direct again", 2);
    }
};

class CCollectUntilTheEnd : public CLogScenario
{
public:
    void prepare() override
    {
        make();
        lines("direct", DIRECT_LINES + 3);
    }
    void run() override
    {
        line("collected");
        close();
    }
};

// What a killed process collected; bMoving: while it moved lines into the log file.
class CRecover : public CLogScenario
{
public:
    explicit CRecover(bool bMoving) : m_bMoving(bMoving) {}

    void prepare() override
    {
        const pid_t nChild = fork();
        if (nChild == 0)
        {
            make(0, 3, 0, 0, "own");
            lines("direct", DIRECT_LINES);
            lines("collected", 3);
            _exit(0); // the log file does not notice
        }
        waitpid(nChild, nullptr, 0);
        const std::string strLog = std::string(FOLDER) + "/own-p" + std::to_string(nChild) + ".log";
        if (m_bMoving)
            pretendMove(strLog);
        m_nLines = DIRECT_LINES;
        for (int n = 1; n <= 3; ++n)
            m_vSafe.push_back("collected " + std::to_string(++m_nLines));
    }

    void run() override
    {
        make(0, 3, 0, 0, "own");
        line("first");
        advanceClock(2000);
        line("second");
    }

private:
    void makeAgain() override { make(0, 3, 0, 0, "own"); }
    bool mayRepeat() const override { return m_bMoving; }

    // As it is after the kill: the file says that all is being moved, and nothing has arrived.
    static void pretendMove(const std::string& strLog)
    {
        struct stat status = {};
        stat(strLog.c_str(), &status);
        const int nFile = open((strLog + ".pending").c_str(), O_RDWR | O_CLOEXEC);
        struct
        {
            uint32_t bMoving = 1;
            uint32_t uMovedFrom = 0;
            uint64_t ullLogSize;
            uint64_t ullLogInode;
        } move;
        move.ullLogSize = static_cast<uint64_t>(status.st_size);
        move.ullLogInode = status.st_ino;
        if (pwrite(nFile, &move, sizeof(move), 24) != sizeof(move))
            complain("no pending file was left");
        ::close(nFile);
    }

    const bool m_bMoving;
};

template <class SCENARIO, auto... ARGUMENTS> CScenarioEntry entry(const char* pszName)
{
    return {pszName, [] { return std::unique_ptr<CScenario>(std::make_unique<SCENARIO>(ARGUMENTS...)); }};
}
} // namespace

std::vector<CScenarioEntry> logScenarios()
{
    return {entry<CWriteLines>("LogWriteLines"),  entry<CDefaultFolder>("LogDefaultFolder"),
            entry<CRotate>("LogRotate"),          entry<CEmpty>("LogEmpty"),
            entry<CCollect>("LogCollect"),        entry<CCollectUntilTheEnd>("LogCollectUntilTheEnd"),
            entry<CRecover, false>("LogRecover"), entry<CRecover, true>("LogRecoverMove")};
}
