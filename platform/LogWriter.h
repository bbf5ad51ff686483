// CLogFile::CWriter: what a log file hides: the open file, its rotation, and lines that were lost.
#ifndef LOG_WRITER_H
#define LOG_WRITER_H

#include "OrvLogLib.h"
#include "ThreadSafety.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <sys/types.h>

namespace OrvLogLib
{

// Leaves errno as it was found.
class CErrnoKeeper
{
public:
    CErrnoKeeper() : m_nErrno(errno) {}
    ~CErrnoKeeper() { errno = m_nErrno; }
    CErrnoKeeper(const CErrnoKeeper&) = delete;
    CErrnoKeeper& operator=(const CErrnoKeeper&) = delete;

private:
    const int m_nErrno;
};

// The text of one line, with room before it for the head of the line. Usual lines need no memory
// from the heap.
class CLogText
{
public:
    static constexpr size_t HEAD_ROOM = 320;

    CLogText() = default;
    CLogText(const CLogText&) = delete;
    CLogText& operator=(const CLogText&) = delete;

    // Appends formatted text. The whole text is cut at nMaxLength bytes unless that is 0, and at
    // what the stack holds when the heap is empty.
    void append(size_t nMaxLength, const char* pszFormat, ...) __attribute__((format(printf, 3, 4)));
    void appendArgList(size_t nMaxLength, const char* pszFormat, va_list arguments)
        __attribute__((format(printf, 3, 0)));

    // Puts blanks for control characters.
    void makeOneLine();
    static void blankControls(char* pText, size_t nLength);

    // Puts the head before the text, at most HEAD_ROOM bytes, and a line end after it. Returns
    // where the line begins; its length is nHead + length() + 1.
    const char* asLine(const char* pHead, size_t nHead);

    const char* text() const { return m_pBuffer + HEAD_ROOM; }
    size_t length() const { return m_nLength; }

private:
    bool reserve(size_t nLength);

    static constexpr size_t STACK_ROOM = 1024;

    char m_szStack[HEAD_ROOM + STACK_ROOM]; // the last byte is for the terminating 0 or the line end
    std::unique_ptr<char[]> m_pHeap;
    char* m_pBuffer = m_szStack;
    size_t m_nRoom = STACK_ROOM;
    size_t m_nLength = 0;
};

// std::mutex under the names that the thread-safety analysis knows.
class CAPABILITY("mutex") CLogMutex
{
public:
    void lock() ACQUIRE() NO_THREAD_SAFETY_ANALYSIS { m_mutex.lock(); }
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

class CLogFile::CWriter
{
public:
    CWriter(const char* pszName, const char* pszFileName, bool bTruncate, bool bProcessID, bool bSyslog);
    ~CWriter();
    CWriter(const CWriter&) = delete;
    CWriter& operator=(const CWriter&) = delete;

    void applySettings(const CLogSettings& settings) EXCLUDES(m_mutex);

    // False when a line of this priority goes nowhere and need not be formatted.
    bool wants(LogLib_Priority priority) const { return (m_uWanted.load(std::memory_order_relaxed) & priority) != 0; }
    size_t maxLineLength() const { return m_uMaxLineLength.load(std::memory_order_relaxed); }

    // Writes a line wherever the settings send it. Returns as LogStringArgListX does.
    int writeLine(LogLib_Priority priority, CLogText& text) EXCLUDES(m_mutex);

    // Raises an alarm. Returns whether it was given to the syslog or is in the file.
    bool writeAlarm(CLogText& text) EXCLUDES(m_mutex);

private:
    void copySettings(const CLogSettings& settings) REQUIRES(m_mutex);
    bool buildPath() REQUIRES(m_mutex);
    bool openFile() REQUIRES(m_mutex);
    void closeFile() REQUIRES(m_mutex);
    bool isStillThere() REQUIRES(m_mutex);
    void lookForFile(uint64_t ullNow) REQUIRES(m_mutex);
    bool rotate() REQUIRES(m_mutex);
    bool makeRoom(size_t nBytes, uint64_t ullNow) REQUIRES(m_mutex);

    int writeToFile(LogLib_Priority priority, CLogText& text) REQUIRES(m_mutex);
    int tellLost(uint64_t ullNow) REQUIRES(m_mutex);
    int append(LogLib_Priority priority, CLogText& text, uint64_t ullNow) REQUIRES(m_mutex);
    bool endBrokenLine() REQUIRES(m_mutex);
    bool writeBytes(const char* pBytes, size_t nBytes) REQUIRES(m_mutex);
    bool takeBack(size_t nBytes) REQUIRES(m_mutex);
    size_t formatHead(char (&szHead)[CLogText::HEAD_ROOM], LogLib_Priority priority) REQUIRES(m_mutex);

    // Constant after construction.
    char m_szName[64];
    char m_szFileName[PATH_MAX];
    const bool m_bTruncate;
    const bool m_bProcessID;
    const bool m_bSyslog;

    // What is asked for each line before the lock is taken.
    std::atomic<unsigned int> m_uWanted{0};
    std::atomic<unsigned int> m_uMaxLineLength{0};
    std::atomic<unsigned int> m_uSyslogMask{0};
    std::atomic<bool> m_bSyslogAlarms{false};

    CLogMutex m_mutex;
    CLogSettings m_settings GUARDED_BY(m_mutex); // its texts are in the three members below
    char m_szFolder[PATH_MAX] GUARDED_BY(m_mutex);
    char m_szExtension[64] GUARDED_BY(m_mutex);
    char m_szLinePrefix[201] GUARDED_BY(m_mutex);

    char m_szPath[PATH_MAX] GUARDED_BY(m_mutex); // of the open file
    int m_nFile GUARDED_BY(m_mutex) = -1;
    dev_t m_device GUARDED_BY(m_mutex) = 0;
    ino_t m_inode GUARDED_BY(m_mutex) = 0;
    uint64_t m_ullSize GUARDED_BY(m_mutex) = 0;
    bool m_bStarted GUARDED_BY(m_mutex) = false;    // the file was once opened and emptied or rotated as asked
    bool m_bBrokenLine GUARDED_BY(m_mutex) = false; // the file ends within a line
    uint64_t m_ullLookAt GUARDED_BY(m_mutex) = 0;   // when to look whether the file was moved away
    uint64_t m_ullRotateAt GUARDED_BY(m_mutex) = 0; // when a refused rotation may be tried again
    uint64_t m_ullTryAt GUARDED_BY(m_mutex) = 0;    // when a failed write may be tried again
    uint64_t m_ullLost GUARDED_BY(m_mutex) = 0;     // lines lost since the last that was written
    int m_nLostReason GUARDED_BY(m_mutex) = 0;      // errno of the last failure
    time_t m_tSecond GUARDED_BY(m_mutex) = -1;      // second that m_szSecond shows
    char m_szSecond[32] GUARDED_BY(m_mutex);
};

} // namespace OrvLogLib

#endif
