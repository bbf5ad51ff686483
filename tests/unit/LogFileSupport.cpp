#include "LogFileSupport.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <unistd.h>

namespace
{
std::mutex s_mutex;
std::vector<logtest::CSyslogCall> s_vSyslogCalls;
std::atomic<int> s_nSyncCalls{0};
std::atomic<bool> s_bFailTruncation{false};

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

std::string contentOf(const std::string& strPath)
{
    const std::ifstream file(strPath, std::ios::binary);
    std::ostringstream content;
    if (file.is_open())
        content << file.rdbuf();
    return content.str();
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
    std::error_code error;
    std::filesystem::remove_all(m_strFolder, error);
}
