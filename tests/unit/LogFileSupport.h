// What the tests of the log file share: a folder of their own, registries made from settings, and
// stand-ins for the system calls that a test cannot see otherwise.
#ifndef LOG_FILE_SUPPORT_H
#define LOG_FILE_SUPPORT_H

#include "Files.h"
#include "InChild.h"
#include "OrvLogLib.h"

#include <string>
#include <sys/types.h>
#include <vector>

#include <gtest/gtest.h>

namespace logtest
{
constexpr unsigned long TRACE = 1;

struct CSyslogCall
{
    int nPriority;
    std::string strText;
};

// The log library's calls of these go to stand-ins in this program.
std::vector<CSyslogCall> syslogCalls();
int syncCalls();
void failTruncation(bool bFail); // ftruncate fails with EPERM

// Stops the clock that pauses and rates are measured with; from there on only this moves it.
void stopClock();
void advanceClock(unsigned int uMilliseconds);

// Every write of this process goes here; null: into the file.
using CWriteHook = ssize_t (*)(int nFile, const void* pBytes, size_t nBytes);
void interceptWrites(CWriteHook hook);
ssize_t reallyWrite(int nFile, const void* pBytes, size_t nBytes);

// Registers the settings through the constructor that an application calls.
OrvLogLib::CLogFileRegistry registryOf(OrvLogLib::CLogFile* pLogFile, const OrvLogLib::CLogSettings& settings);

std::vector<std::string> linesOf(const std::string& strPath); // fails the test when the last line has no end
std::string textOf(const std::string& strLine);               // without date, ids and priority
bool exists(const std::string& strPath);
int descriptorOf(const std::string& strPath); // of this process, -1: none has the file open

// Whether a full disk never takes back what was allocated ahead there.
bool keepsAllocatedSpace(const std::string& strFolder);

// One line by the operation that lines of every kind go through.
int logFrom(OrvLogLib::CLogFile& log, const char* pszSource, const char* pszFormat, ...);

// Sends standard error into a file while it lives.
class CStderrInto
{
public:
    explicit CStderrInto(int nFile) : m_nBefore(dup(STDERR_FILENO)) { dup2(nFile, STDERR_FILENO); }
    ~CStderrInto()
    {
        dup2(m_nBefore, STDERR_FILENO);
        close(m_nBefore);
    }
    CStderrInto(const CStderrInto&) = delete;
    CStderrInto& operator=(const CStderrInto&) = delete;

private:
    const int m_nBefore;
};

// Gives this process mounts of its own. False where that is forbidden.
bool ownMounts();
} // namespace logtest

class LogFileTest : public testing::Test
{
protected:
    LogFileTest();
    ~LogFileTest() override;

    std::string path(const char* pszName) const { return m_strFolder + "/" + pszName; }

    // Settings that put files into the folder of this test and never wait before another try.
    OrvLogLib::CLogSettings m_settings;
    std::string m_strFolder;
};

#endif
