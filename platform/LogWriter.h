// CLogFile::CWriter: what a log file hides: where its lines go, how fast, and lines that were lost.
#ifndef LOG_WRITER_H
#define LOG_WRITER_H

#include "LogHead.h"
#include "LogPending.h"
#include "LogTarget.h"
#include "LogText.h"
#include "OrvLogLib.h"
#include "ThreadSafety.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace OrvLogLib
{

// Leaves errno as it was found.
class CErrnoKeeper
{
public:
    CErrnoKeeper() : m_nErrno(errno) {}
    ~CErrnoKeeper() { restore(); }
    CErrnoKeeper(const CErrnoKeeper&) = delete;
    CErrnoKeeper& operator=(const CErrnoKeeper&) = delete;

    void restore() const { errno = m_nErrno; }

private:
    const int m_nErrno;
};

// std::mutex under the names that the thread-safety analysis knows.
class CAPABILITY("mutex") CLogMutex
{
public:
    void lock() ACQUIRE() NO_THREAD_SAFETY_ANALYSIS { m_mutex.lock(); }
    bool tryLock() NO_THREAD_SAFETY_ANALYSIS { return m_mutex.try_lock(); }
    void unlock() RELEASE() NO_THREAD_SAFETY_ANALYSIS { m_mutex.unlock(); }

private:
    std::mutex m_mutex;
};

class SCOPED_CAPABILITY CLogHold
{
public:
    explicit CLogHold(CLogMutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~CLogHold() RELEASE() { m_mutex.unlock(); }
    CLogHold(const CLogHold&) = delete;
    CLogHold& operator=(const CLogHold&) = delete;

private:
    CLogMutex& m_mutex;
};

// Lines are written into the file one by one as long as they are not too many; beyond that they are
// collected in a CLogPending and moved into the file together.
class CLogFile::CWriter
{
public:
    CWriter(const char* pszName, const char* pszFileName, bool bTruncate, bool bProcessID, bool bSyslog);
    ~CWriter();
    CWriter(const CWriter&) = delete;
    CWriter& operator=(const CWriter&) = delete;

    void applySettings(const CLogSettings& settings) EXCLUDES(m_mutex);

    // False when a line of this priority goes nowhere and need not be formatted.
    bool wants(LogLib_Priority priority) const { return contains(m_uWanted.load(std::memory_order_relaxed), priority); }
    size_t maxLineLength() const { return m_uMaxLineLength.load(std::memory_order_relaxed); }

    // Collects a line, if lines are being collected now and this one can be: it is formatted where it
    // is kept. Returns its length, or 0 when it is writeLine's. Leaves errno as it was.
    int collectLine(LogLib_Priority priority, const char* pszFormat, va_list arguments)
        __attribute__((format(printf, 3, 0))) EXCLUDES(m_mutex);
    // Writes a line wherever the settings send it. Returns as LogStringArgListX does.
    int writeLine(LogLib_Priority priority, CLogText& text) EXCLUDES(m_mutex);

    // Raises an alarm. Returns whether it was given to the syslog or is in the file.
    bool writeAlarm(CLogText& text) EXCLUDES(m_mutex);

    // Moves collected lines into the file.
    void flush() EXCLUDES(m_mutex);

private:
    struct CAllWriters;
    static CAllWriters s_all;

    static bool contains(unsigned int uMask, LogLib_Priority priority)
    {
        return (uMask & static_cast<unsigned int>(priority)) != 0;
    }
    void copySettings(const CLogSettings& settings) REQUIRES(m_mutex);
    bool takeDirectTurn(uint64_t ullNow) REQUIRES(m_mutex);
    void startCollecting(uint64_t ullNow) REQUIRES(m_mutex);
    void stopCollecting() REQUIRES(m_mutex);
    bool movePending(uint64_t ullNow) REQUIRES(m_mutex);
    int writeToFile(LogLib_Priority priority, CLogText& text) REQUIRES(m_mutex);
    int tellLost(uint64_t ullNow) REQUIRES(m_mutex);
    int append(LogLib_Priority priority, CLogText& text, uint64_t ullNow) REQUIRES(m_mutex);
    void failed(uint64_t ullNow) REQUIRES(m_mutex);

    // Constant after construction.
    char m_szName[64];
    const bool m_bSyslog;

    // What is asked for each line before the lock is taken.
    std::atomic<unsigned int> m_uWanted{0};
    std::atomic<unsigned int> m_uMaxLineLength{0};
    std::atomic<unsigned int> m_uSyslogMask{0};
    std::atomic<bool> m_bSyslogAlarms{false};
    std::atomic<bool> m_bCollecting{false};

    CLogMutex m_mutex;
    CLogSettings m_settings GUARDED_BY(m_mutex);       // without its texts
    unsigned int m_uCollected GUARDED_BY(m_mutex) = 0; // priorities of lines that may be collected
    CLogHead m_head GUARDED_BY(m_mutex);
    CLogTarget m_target GUARDED_BY(m_mutex);
    CLogPending m_pending GUARDED_BY(m_mutex);

    uint64_t m_ullDirectLeft GUARDED_BY(m_mutex);    // lines that may be written one by one
    uint64_t m_ullDirectAt GUARDED_BY(m_mutex) = 0;  // when that was counted
    uint64_t m_ullPendingAt GUARDED_BY(m_mutex) = 0; // when the first of the pending lines came
    uint64_t m_ullCollectAt GUARDED_BY(m_mutex) = 0; // when collecting may be tried again
    uint64_t m_ullTryAt GUARDED_BY(m_mutex) = 0;     // when a failed write may be tried again
    uint64_t m_ullLost GUARDED_BY(m_mutex) = 0;      // lines lost since the last that was written
    int m_nLostReason GUARDED_BY(m_mutex) = 0;       // errno of the last failure

    // Guarded by the lock of all writers.
    CWriter* m_pNext = nullptr;
};

} // namespace OrvLogLib

#endif
