// OrvLogLib: the log file that the library writes and an application may replace or subclass.
#ifndef ORV_LOG_LIB_H
#define ORV_LOG_LIB_H

#include <atomic>
#include <cstdarg>
#include <memory>

// Marks what libOrvLogLib exports.
#define ORVLOG_API __attribute__((visibility("default")))

// The log of the library, and of applications that want one like it.
namespace OrvLogLib
{

// How important a line is: one bit each, so that masks can choose among them.
enum LogLib_Priority : int
{
    LogLib_Normal = 2, // what happened
    LogLib_Low = 4,    // details
    LogLib_High = 64   // failures, alarms, listings
};

// What a CLogFileRegistry says of a log file. The values here hold for a log file without registry.
struct CLogSettings
{
    const char* pszFolder = nullptr;     // null, empty: /var/log/zelmedia where that is a writable folder, else /tmp
    const char* pszExtension = nullptr;  // null: ".log"
    const char* pszLinePrefix = nullptr; // put before the text of each line, at most 200 bytes; null: nothing

    unsigned int nStartFresh = 0;           // non-zero: an existing file is rotated before the first line
    unsigned int nFileEnabled = 1;          // 0: nothing is written into the file
    unsigned int nMaxFileMegabytes = 100;   // a file that would grow beyond (times 1048576 bytes) is rotated, 0: never
    unsigned int nRetryMilliseconds = 1000; // pause after a failed write, opening or rotation before the next try
    unsigned int nRotatedFiles = 3;         // rotated files kept: name.1 (newest) to name.N, 0: the file is emptied
    unsigned int nTraceMask = 1023;         // trace classes that are formatted at all
    unsigned int nSyslogMask = 0;           // priorities whose lines also go to syslog, as LOG_INFO
    unsigned int nFileMask = 1023;          // priorities whose lines go into the file
    unsigned int nStderrMask = 0;           // priorities whose lines also go to standard error
    unsigned int nMaxLineLength = 10000;    // a longer text is cut, in bytes, 0: never
    unsigned int nSyncEachLine = 0;         // non-zero: fdatasync after each line
    unsigned int nSyslogAlarms = 1;         // 0: alarms are written into the file only
    unsigned int nReopenMilliseconds = 40000; // how often to look whether the file was moved away, 0: never
    unsigned int nMicroseconds = 1;           // 0: times show milliseconds
    unsigned int nUtc = 0;                    // 0: local time, else UTC
};

// A text file with one line per call:
//
//   2026-11-21 04:05:06.123456 p4711 t4715 2 CMIntf::initialize
//
// date and time, process id, thread id, priority, text. Every operation may be called from any
// thread, not from a signal handler, and leaves errno as it was. Lines stand in the order of the
// calls. A line is safe when the call returns: a killed process loses none. No operation throws, fails
// because the disk is full, or waits for anything but the disk (and standard error and syslog, where
// settings send lines there). Lines that cannot be written are lost; how many is told by a line of its
// own, "5 lines lost: No space left on device", once writing works again.
//
// A line is in the file when the call returns, too, unless more than 10000 came at once or 8 each
// millisecond: then lines are collected in "<file>.pending", 64 KiB at most, and moved into the file
// together, after 32 ms if other lines follow, at the next flush() otherwise, and when the process
// ends. What a killed process left there is put into its log file by the first line of the next
// process that logs to the same folder and name.
//
// An application subclasses this to take lines and alarms into a log of its own.
class ORVLOG_API CLogFile
{
public:
    // pszName      name of the log, for syslog; copied
    // pszFileName  a plain name makes a file in the log folder; one with a '/' is the whole path, to
    //              which nothing is added; copied. Null or empty: no file
    // bTruncate    start with an empty file instead of appending
    // bProcessID   put "-p<process id>" between plain name and extension
    // bSyslog      raise alarms in the syslog
    //
    // The file is opened by the first line: a regular file of this user or root without other links,
    // symbolic links are not followed, mode 0640 less the umask. Anything else at its path is left
    // alone, and lines are lost until it is gone. All trace classes are on (mask 1023).
    CLogFile(const char* pszName, const char* pszFileName, bool bTruncate, bool bProcessID, bool bSyslog);

    // Moves collected lines into the file and closes it. No other thread may be writing a line.
    virtual ~CLogFile();
    CLogFile(const CLogFile&) = delete;
    CLogFile& operator=(const CLogFile&) = delete;

    // Formats and writes one line if ulMask has a trace class that is on; otherwise returns 0 and
    // formats nothing. Returns what LogStringArgListX returned.
    int TraceString(unsigned long ulMask, LogLib_Priority priority, const char* pszFormat, ...)
        __attribute__((format(printf, 4, 5)));

    // The same for arguments that were taken from a list before.
    int TraceStringArgList(unsigned long ulMask, LogLib_Priority priority, const char* pszFormat, va_list arguments)
        __attribute__((format(printf, 4, 0)));

    // Writes one line. pszSource is put before the text, with ": " between, unless it is null.
    // Blanks stand in for line ends and other control characters of the text. Returns the number of
    // bytes written into the file, 0 when the line is not meant for it, -1 when the line was lost.
    // Override it to take the lines elsewhere.
    virtual int LogStringArgListX(LogLib_Priority priority, const char* pszFormat, const char* pszSource,
                                  va_list arguments);

    // Raises an operator alarm, whatever the masks: one syslog message of priority LOG_ALERT and one
    // line of priority 64 in the file, each "event 0xC1030190: " and the insertion strings. The
    // ulDataSize bytes of pData are not shown, only their number. Returns 1 when the alarm was given
    // to the syslog or is in the file, else 0. Override it to take alarms elsewhere.
    virtual long ReportEventToWIN32Log(long nEventID, unsigned short nStrings, unsigned long ulDataSize,
                                       const char** ppszStrings, void* pData);

    // The trace classes that are on, one bit each.
    unsigned long traceMask() const { return m_ulTraceMask.load(std::memory_order_relaxed); }

    // Switches trace classes on and off, for lines that are written from now on.
    void setTraceMask(unsigned long ulMask) { m_ulTraceMask.store(ulMask, std::memory_order_relaxed); }

    // Moves lines that were collected into the file. To be called about once a second where lines
    // may cease.
    void flush();

    // Puts settings into force; the texts are copied. A file that is open stays open unless folder
    // or extension changed.
    void applySettings(const CLogSettings& settings);

private:
    class CWriter;

    std::atomic<unsigned long> m_ulTraceMask;
    std::unique_ptr<CWriter> m_pWriter; // null when memory ran out: every line is lost
};

// Gives a log file its settings, once, in the constructor. It never touches the log file again, so
// the two may be deleted in any order.
class ORVLOG_API CLogFileRegistry
{
public:
    // pLogFile may be null. The texts and numbers are those of CLogSettings, in its order; a
    // negative number counts as 0, but masks are taken bit by bit. pszName is copied, at most 63
    // bytes.
    CLogFileRegistry(CLogFile* pLogFile, const char* pszName, const char* pszFolder, const char* pszExtension,
                     const char* pszLinePrefix, int nStartFresh, int nFileEnabled, int nMaxFileMegabytes,
                     int nRetryMilliseconds, int nRotatedFiles, int nTraceMask, int nSyslogMask, int nFileMask,
                     int nStderrMask, int nMaxLineLength, int nSyncEachLine, int nSyslogAlarms, int nReopenMilliseconds,
                     int nMicroseconds, int nUtc);

    // Leaves the log file as it is.
    virtual ~CLogFileRegistry();
    CLogFileRegistry(const CLogFileRegistry&) = delete;
    CLogFileRegistry& operator=(const CLogFileRegistry&) = delete;

    // The name that was given. Owned by the registry.
    const char* name() const;

private:
    char m_szName[64];
};

} // namespace OrvLogLib

#endif
