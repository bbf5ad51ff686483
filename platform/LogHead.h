// CLogHead: what stands before the text of a line: time, process, thread, priority, prefix.
#ifndef LOG_HEAD_H
#define LOG_HEAD_H

#include "OrvLogLib.h"

#include <cstddef>
#include <ctime>

namespace OrvLogLib
{

// Not for two threads at a time.
class CLogHead
{
public:
    static constexpr size_t MAX_LENGTH = 320; // of a head

    CLogHead() = default;
    CLogHead(const CLogHead&) = delete;
    CLogHead& operator=(const CLogHead&) = delete;

    void applySettings(const CLogSettings& settings);

    // Writes the head of a line of this moment and thread, at most MAX_LENGTH bytes; returns its length.
    size_t write(char* p, LogLib_Priority priority);

private:
    void formatSecond(time_t tSecond);

    bool m_bUtc = false;
    bool m_bMicroseconds = true;
    char m_szPrefix[201] = "";
    size_t m_nPrefix = 0;
    time_t m_tSecond = -1; // the second that m_szSecond shows
    char m_szSecond[32] = "";
    size_t m_nSecond = 0;
};

// To be called in a new process, on its only thread: lines show the new ids from there on.
void forgetThreadIDs();

} // namespace OrvLogLib

#endif
