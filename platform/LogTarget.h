// CLogTarget: the file that lines are written into: where it is, its rotation, whole writes.
#ifndef LOG_TARGET_H
#define LOG_TARGET_H

#include "OrvLogLib.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace OrvLogLib
{

// Opens a log file to append to it: a regular file of this user or root without other links, made if
// need be. Returns the descriptor, -1 with errno when there is none.
int openLogFile(const char* pszPath);

// Beyond which a write of this process would raise SIGXFSZ.
uint64_t fileSizeLimit();

// Not for two threads at a time.
class CLogTarget
{
public:
    CLogTarget(const char* pszFileName, bool bTruncate, bool bProcessID);
    ~CLogTarget() { close(); }
    CLogTarget(const CLogTarget&) = delete;
    CLogTarget& operator=(const CLogTarget&) = delete;

    bool hasName() const { return m_szFileName[0] != '\0'; }
    // Whether the settings name another place than those before.
    bool isElsewhere(const CLogSettings& settings) const;
    void applySettings(const CLogSettings& settings);
    // Closes the file; the next one that is opened is a first one again.
    void forget();

    // Makes sure of an open file that may take so many bytes more: opens, rotates. False, with errno,
    // when there is none.
    bool makeRoom(size_t nBytes, uint64_t ullNow);
    const char* path() const { return m_szPath; } // of the file that was last opened
    int descriptor() const { return m_nFile; }    // -1 while none is open

    // Writes all bytes or none, after makeRoom for one more. Where a part could not be taken back, it is
    // ended as a line before the next bytes. False, with errno, when they were not written.
    bool write(const char* pBytes, size_t nBytes);
    // Cuts off the last nBytes that were written; false, with the file as it was, when that is
    // refused or another process has appended since.
    bool takeBack(size_t nBytes);
    void sync();
    // To be told of bytes that were written through the descriptor.
    void grown(size_t nBytes) { m_ullSize += nBytes; }

private:
    bool buildPath(const char* pszFolder);
    bool open();
    void close();
    void recoverLines(const char* pszFolder);
    bool isStillThere();
    void lookForFile(uint64_t ullNow);
    bool rotate();
    bool endBrokenLine();

    char m_szFileName[PATH_MAX];
    const bool m_bTruncate;
    const bool m_bProcessID;

    char m_szFolder[PATH_MAX];
    char m_szExtension[64];
    CLogSettings m_settings; // without its texts

    char m_szPath[PATH_MAX] = "";
    int m_nFile = -1;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    uint64_t m_ullSize = 0;
    bool m_bStarted = false;    // the file was once opened and emptied or rotated as asked
    bool m_bBrokenLine = false; // the file ends within a line
    uint64_t m_ullLookAt = 0;   // when to look whether the file was moved away
    uint64_t m_ullRotateAt = 0; // when a refused rotation may be tried again
};

} // namespace OrvLogLib

#endif
