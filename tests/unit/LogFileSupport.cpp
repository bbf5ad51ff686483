#include "LogFileSupport.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/magic.h>
#include <mutex>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/vfs.h>
#include <sys/wait.h>

namespace
{
std::mutex s_mutex;
std::vector<logtest::CSyslogCall> s_vSyslogCalls;
std::atomic<int> s_nSyncCalls{0};
std::atomic<bool> s_bFailTruncation{false};
std::atomic<uint64_t> s_ullStoppedClock{0}; // in milliseconds, 0: it runs
std::atomic<logtest::CWriteHook> s_writeHook{nullptr};

#if __SIZEOF_LONG__ == 4
constexpr char CLOCK_CALL[] = "__clock_gettime64"; // with times after 2038
#else
constexpr char CLOCK_CALL[] = "clock_gettime";
#endif

int readClock(clockid_t nClock, timespec* pTime)
{
    static const auto pReal = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, CLOCK_CALL));
    return pReal(nClock, pTime);
}

void keepSyslogCall(int nPriority, const char* pszFormat, va_list arguments)
{
    char szText[8192];
    vsnprintf(szText, sizeof(szText), pszFormat, arguments);
    const std::lock_guard<std::mutex> hold(s_mutex);
    s_vSyslogCalls.push_back({nPriority, szText});
}
} // namespace

// A definition in the program comes before the one of the C library for shared libraries too.
#define STAND_IN extern "C" __attribute__((visibility("default")))

STAND_IN void syslog(int nPriority, const char* pszFormat, ...)
{
    va_list arguments;
    va_start(arguments, pszFormat);
    keepSyslogCall(nPriority, pszFormat, arguments);
    va_end(arguments);
}

STAND_IN void __syslog_chk(int nPriority, int, const char* pszFormat, ...)
{
    va_list arguments;
    va_start(arguments, pszFormat);
    keepSyslogCall(nPriority, pszFormat, arguments);
    va_end(arguments);
}

STAND_IN int fdatasync(int)
{
    ++s_nSyncCalls;
    return 0;
}

STAND_IN int ftruncate64(int nFile, off64_t nLength) noexcept
{
    if (s_bFailTruncation)
    {
        errno = EPERM;
        return -1;
    }
    static const auto pReal = reinterpret_cast<int (*)(int, off64_t)>(dlsym(RTLD_NEXT, "ftruncate64"));
    return pReal(nFile, nLength);
}

STAND_IN int clock_gettime(clockid_t nClock, timespec* pTime) noexcept
{
    const uint64_t ullStopped = s_ullStoppedClock;
    if (nClock != CLOCK_MONOTONIC_COARSE || ullStopped == 0)
        return readClock(nClock, pTime);
    pTime->tv_sec = static_cast<time_t>(ullStopped / 1000);
    pTime->tv_nsec = static_cast<long>(ullStopped % 1000 * 1000000);
    return 0;
}

STAND_IN ssize_t write(int nFile, const void* pBytes, size_t nBytes)
{
    const logtest::CWriteHook hook = s_writeHook;
    return hook ? hook(nFile, pBytes, nBytes) : logtest::reallyWrite(nFile, pBytes, nBytes);
}

namespace logtest
{
std::vector<CSyslogCall> syslogCalls()
{
    const std::lock_guard<std::mutex> hold(s_mutex);
    return s_vSyslogCalls;
}

int syncCalls()
{
    return s_nSyncCalls;
}

void failTruncation(bool bFail)
{
    s_bFailTruncation = bFail;
}

void stopClock()
{
    timespec now;
    readClock(CLOCK_MONOTONIC_COARSE, &now);
    s_ullStoppedClock = static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

void advanceClock(unsigned int uMilliseconds)
{
    s_ullStoppedClock += uMilliseconds;
}

void interceptWrites(CWriteHook hook)
{
    s_writeHook = hook;
}

ssize_t reallyWrite(int nFile, const void* pBytes, size_t nBytes)
{
    static const auto pReal = reinterpret_cast<ssize_t (*)(int, const void*, size_t)>(dlsym(RTLD_NEXT, "write"));
    return pReal(nFile, pBytes, nBytes);
}

OrvLogLib::CLogFileRegistry registryOf(OrvLogLib::CLogFile* pLogFile, const OrvLogLib::CLogSettings& settings)
{
    const auto number = [](unsigned int uNumber) { return static_cast<int>(uNumber); };
    return OrvLogLib::CLogFileRegistry(
        pLogFile, "Media", settings.pszFolder, settings.pszExtension, settings.pszLinePrefix,
        number(settings.nStartFresh), number(settings.nFileEnabled), number(settings.nMaxFileMegabytes),
        number(settings.nRetryMilliseconds), number(settings.nRotatedFiles), number(settings.nTraceMask),
        number(settings.nSyslogMask), number(settings.nFileMask), number(settings.nStderrMask),
        number(settings.nMaxLineLength), number(settings.nSyncEachLine), number(settings.nSyslogAlarms),
        number(settings.nReopenMilliseconds), number(settings.nMicroseconds), number(settings.nUtc));
}

std::vector<std::string> linesOf(const std::string& strPath)
{
    const std::string strContent = contentOf(strPath);
    EXPECT_TRUE(strContent.empty() || strContent.back() == '\n') << "the last line has no end: " << strPath;
    std::istringstream content(strContent);
    std::vector<std::string> vLines;
    for (std::string strLine; std::getline(content, strLine);)
        vLines.push_back(strLine);
    return vLines;
}

std::string textOf(const std::string& strLine)
{
    size_t nBegin = 0;
    for (int nField = 0; nField < 5 && nBegin != std::string::npos; ++nField)
        nBegin = strLine.find(' ', nBegin + (nField > 0));
    return nBegin == std::string::npos ? "" : strLine.substr(nBegin + 1);
}

bool exists(const std::string& strPath)
{
    return std::filesystem::exists(std::filesystem::symlink_status(strPath));
}

int descriptorOf(const std::string& strPath)
{
    for (int nFile = 0; nFile < 1024; ++nFile)
    {
        std::error_code error;
        const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(nFile), error);
        if (!error && target == strPath)
            return nFile;
    }
    return -1;
}

bool keepsAllocatedSpace(const std::string& strFolder)
{
    constexpr long XFS_MAGIC = 0x58465342;
    struct statfs system;
    const int nResult = statfs(strFolder.c_str(), &system);
    return nResult == 0 &&
           (system.f_type == EXT4_SUPER_MAGIC || system.f_type == XFS_MAGIC || system.f_type == TMPFS_MAGIC);
}

int logFrom(OrvLogLib::CLogFile& log, const char* pszSource, const char* pszFormat, ...)
{
    va_list arguments;
    va_start(arguments, pszFormat);
    const int nResult = log.LogStringArgListX(OrvLogLib::LogLib_Normal, pszFormat, pszSource, arguments);
    va_end(arguments);
    return nResult;
}

bool ownMounts()
{
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}
} // namespace logtest

LogFileTest::LogFileTest()
{
    {
        const std::lock_guard<std::mutex> hold(s_mutex);
        s_vSyslogCalls.clear();
    }
    s_nSyncCalls = 0;
    char szFolder[] = "/tmp/log-test-XXXXXX";
    m_strFolder = mkdtemp(szFolder) ? szFolder : "";
    m_settings.pszFolder = m_strFolder.c_str();
    m_settings.nRetryMilliseconds = 0;
}

LogFileTest::~LogFileTest()
{
    logtest::failTruncation(false);
    logtest::interceptWrites(nullptr);
    s_ullStoppedClock = 0;
    std::error_code error;
    std::filesystem::remove_all(m_strFolder, error);
}
