// The public face of the log file: masks, formatting, alarms, settings.
#include "OrvLogLib.h"

#include "LogWriter.h"

#include <cstdio>
#include <new>

namespace OrvLogLib
{

namespace
{
unsigned int notNegative(int nNumber)
{
    return nNumber < 0 ? 0 : static_cast<unsigned int>(nNumber);
}
} // namespace

CLogFile::CLogFile(const char* pszName, const char* pszFileName, bool bTruncate, bool bProcessID, bool bSyslog)
    : m_ulTraceMask(CLogSettings().nTraceMask),
      m_pWriter(new (std::nothrow) CWriter(pszName, pszFileName, bTruncate, bProcessID, bSyslog))
{
}

CLogFile::~CLogFile()
{
    const CErrnoKeeper keeper;
    m_pWriter.reset();
}

int CLogFile::TraceString(unsigned long ulMask, LogLib_Priority priority, const char* pszFormat, ...)
{
    if ((ulMask & traceMask()) == 0)
        return 0;
    va_list arguments;
    va_start(arguments, pszFormat);
    const int nResult = TraceStringArgList(ulMask, priority, pszFormat, arguments);
    va_end(arguments);
    return nResult;
}

int CLogFile::TraceStringArgList(unsigned long ulMask, LogLib_Priority priority, const char* pszFormat,
                                 va_list arguments)
{
    if ((ulMask & traceMask()) == 0)
        return 0;
    const CErrnoKeeper keeper; // an override may not be as careful as ours
    return LogStringArgListX(priority, pszFormat, nullptr, arguments);
}

int CLogFile::LogStringArgListX(LogLib_Priority priority, const char* pszFormat, const char* pszSource,
                                va_list arguments)
{
    if (!m_pWriter)
        return -1;
    if (!m_pWriter->wants(priority))
        return 0;
    const int nCollected = pszSource ? 0 : m_pWriter->collectLine(priority, pszFormat, arguments);
    if (nCollected > 0)
        return nCollected;

    const CErrnoKeeper keeper;
    CLogText text;
    const size_t nMaxLength = m_pWriter->maxLineLength();
    if (pszSource)
        text.append(nMaxLength, "%s: ", pszSource);
    text.appendArgList(nMaxLength, pszFormat, arguments);
    return m_pWriter->writeLine(priority, text);
}

long CLogFile::ReportEventToWIN32Log(long nEventID, unsigned short nStrings, unsigned long ulDataSize,
                                     const char** ppszStrings, void*)
{
    const CErrnoKeeper keeper;
    if (!m_pWriter)
        return 0;
    CLogText text;
    const size_t nMaxLength = m_pWriter->maxLineLength();
    text.append(nMaxLength, "event 0x%08X:", static_cast<unsigned int>(nEventID));
    for (unsigned short n = 0; ppszStrings && n < nStrings; ++n)
        text.append(nMaxLength, " %s", ppszStrings[n] ? ppszStrings[n] : "");
    if (ulDataSize > 0)
        text.append(nMaxLength, " (%lu bytes of data)", ulDataSize);
    return m_pWriter->writeAlarm(text) ? 1 : 0;
}

void CLogFile::flush()
{
    const CErrnoKeeper keeper;
    if (m_pWriter)
        m_pWriter->flush();
}

void CLogFile::applySettings(const CLogSettings& settings)
{
    const CErrnoKeeper keeper;
    setTraceMask(settings.nTraceMask);
    if (m_pWriter)
        m_pWriter->applySettings(settings);
}

CLogFileRegistry::CLogFileRegistry(CLogFile* pLogFile, const char* pszName, const char* pszFolder,
                                   const char* pszExtension, const char* pszLinePrefix, int nStartFresh,
                                   int nFileEnabled, int nMaxFileMegabytes, int nRetryMilliseconds, int nRotatedFiles,
                                   int nTraceMask, int nSyslogMask, int nFileMask, int nStderrMask, int nMaxLineLength,
                                   int nSyncEachLine, int nSyslogAlarms, int nReopenMilliseconds, int nMicroseconds,
                                   int nUtc)
{
    snprintf(m_szName, sizeof(m_szName), "%s", pszName ? pszName : "");
    if (!pLogFile)
        return;
    CLogSettings settings;
    settings.pszFolder = pszFolder;
    settings.pszExtension = pszExtension;
    settings.pszLinePrefix = pszLinePrefix;
    settings.nStartFresh = notNegative(nStartFresh);
    settings.nFileEnabled = notNegative(nFileEnabled);
    settings.nMaxFileMegabytes = notNegative(nMaxFileMegabytes);
    settings.nRetryMilliseconds = notNegative(nRetryMilliseconds);
    settings.nRotatedFiles = notNegative(nRotatedFiles);
    settings.nTraceMask = static_cast<unsigned int>(nTraceMask);
    settings.nSyslogMask = static_cast<unsigned int>(nSyslogMask);
    settings.nFileMask = static_cast<unsigned int>(nFileMask);
    settings.nStderrMask = static_cast<unsigned int>(nStderrMask);
    settings.nMaxLineLength = notNegative(nMaxLineLength);
    settings.nSyncEachLine = notNegative(nSyncEachLine);
    settings.nSyslogAlarms = notNegative(nSyslogAlarms);
    settings.nReopenMilliseconds = notNegative(nReopenMilliseconds);
    settings.nMicroseconds = notNegative(nMicroseconds);
    settings.nUtc = notNegative(nUtc);
    pLogFile->applySettings(settings);
}

CLogFileRegistry::~CLogFileRegistry() = default;

const char* CLogFileRegistry::name() const
{
    return m_szName;
}

} // namespace OrvLogLib
