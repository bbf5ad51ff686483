// CLogPending: lines on their way into a log file, kept where a killed process does not lose them.
#ifndef LOG_PENDING_H
#define LOG_PENDING_H

#include <climits>
#include <cstddef>
#include <cstdint>

namespace OrvLogLib
{

// A mapped file beside the log file, "<log file>.pending". What was put into it is there at once for
// whoever opens it, whatever becomes of this process. It has its disk space from the beginning, and is
// used only on file systems that keep such a promise, so that a full disk raises no signal.
//
// The file is locked while its process lives. One without a lock is what a killed process left: its
// lines are put into the log file by recover(), each once, also when the process was killed while it
// moved them itself. (Once or twice, when another process rotated the log file or wrote into it at
// that very moment.)
//
// Not for two threads at a time.
class CLogPending
{
public:
    static constexpr size_t CAPACITY = size_t{64} * 1024; // bytes of lines

    CLogPending() = default;
    ~CLogPending() { close(); }
    CLogPending(const CLogPending&) = delete;
    CLogPending& operator=(const CLogPending&) = delete;

    // Makes the file beside this log file; false when it cannot be had. Nothing is pending then.
    bool open(const char* pszLogPath);
    bool isOpen() const { return m_pFile != nullptr; }
    // Removes the file, unless something is pending: that is left for recover().
    void close();
    // For a new process, which shares file and lock with its parent: leaves them to that.
    void abandon();

    size_t length() const;
    // Where the next bytes go, and how many fit. They are pending from add(their number) on. Only
    // while the file is open.
    char* end();
    size_t room() const;
    void add(size_t nBytes);

    // Writes what is pending to the end of the log file; what was written is no longer pending. False,
    // with errno, when lines are left.
    bool moveInto(int nLogFile);

    // Puts what killed processes left into their log files and removes their pending files: of this log
    // file, or of the log files in a folder whose names begin and end so, with a number between. Files
    // in use and files of other users are left alone; so are lines for which there is no room on the disk.
    static void recover(const char* pszLogPath);
    static void recoverAll(const char* pszFolder, const char* pszNameBegin, const char* pszNameEnd);

private:
    struct CFile;

    bool attach(const char* pszLogPath, int nCreate);
    bool allocate() const;
    void map();
    bool isOurs() const;
    bool hasContent() const;
    bool isBlank() const;
    uint32_t takeBackPart(int nLogFile, uint32_t uDone) const;
    uint32_t arrivedBytes(const char* pszLogPath) const;

    char m_szPath[PATH_MAX + 16] = "";
    int m_nFile = -1;
    CFile* m_pFile = nullptr; // mapped
};

} // namespace OrvLogLib

#endif
