// CLogHead: what stands before the text of a line: time, process, thread, priority, prefix.
#include "LogHead.h"

#include "LogFormat.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace OrvLogLib
{

namespace
{
// Asking the system for either id costs more than a whole line.
struct CThreadIDs
{
    char szText[32];
    size_t nLength;
};
constinit thread_local CThreadIDs t_ids __attribute__((tls_model("initial-exec"))) = {};

const CThreadIDs& threadIDs()
{
    if (t_ids.nLength == 0)
    {
        const int nLength = snprintf(t_ids.szText, sizeof(t_ids.szText), " p%d t%d ", static_cast<int>(getpid()),
                                     static_cast<int>(gettid()));
        t_ids.nLength = static_cast<size_t>(nLength);
    }
    return t_ids;
}

// Copies a text as the whole array it is in: one of known size needs no call.
template <size_t SIZE> char* copy(char* p, const char (&szText)[SIZE], size_t nLength)
{
    memcpy(p, szText, SIZE);
    return p + nLength;
}
} // namespace

void forgetThreadIDs()
{
    t_ids.nLength = 0;
}

void CLogHead::applySettings(const CLogSettings& settings)
{
    m_bUtc = settings.nUtc != 0;
    m_bMicroseconds = settings.nMicroseconds != 0;
    snprintf(m_szPrefix, sizeof(m_szPrefix), "%s", settings.pszLinePrefix ? settings.pszLinePrefix : "");
    m_nPrefix = strlen(m_szPrefix);
    blankControls(m_szPrefix, m_nPrefix);
    m_tSecond = -1;
}

size_t CLogHead::write(char* p, LogLib_Priority priority)
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != m_tSecond)
        formatSecond(now.tv_sec);

    const char* const pBegin = p;
    p = copy(p, m_szSecond, m_nSecond);
    writeDigits(p, static_cast<unsigned int>(now.tv_nsec) / 1000, 3);
    p += m_bMicroseconds ? 6 : 3;
    const CThreadIDs& ids = threadIDs();
    p = copy(p, ids.szText, ids.nLength);
    p = std::to_chars(p, p + 12, static_cast<int>(priority)).ptr;
    *p++ = ' ';
    memcpy(p, m_szPrefix, m_nPrefix);
    p += m_nPrefix;
    return static_cast<size_t>(p - pBegin);
}

void CLogHead::formatSecond(time_t tSecond)
{
    tm parts;
    m_nSecond = 0;
    if (m_bUtc ? gmtime_r(&tSecond, &parts) : localtime_r(&tSecond, &parts))
        m_nSecond = strftime(m_szSecond, sizeof(m_szSecond), "%Y-%m-%d %H:%M:%S.", &parts);
    m_tSecond = tSecond;
}

} // namespace OrvLogLib
