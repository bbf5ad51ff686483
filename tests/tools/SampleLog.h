// CSampleLog: a log as the library writes it, of as many commands as a test wants, without a driver.
#ifndef SAMPLE_LOG_H
#define SAMPLE_LOG_H

#include "log/LogTexts.h"
#include "log/LogTime.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

const char* const SAMPLE_LOG = "/tmp/sample.log";

// Times go on by ten microseconds a line.
class CSampleLog
{
public:
    explicit CSampleLog(const std::string& strPath) : m_pFile(std::fopen(strPath.c_str(), "w")) {}
    ~CSampleLog() { close(); }
    CSampleLog(const CSampleLog&) = delete;
    CSampleLog& operator=(const CSampleLog&) = delete;

    void close()
    {
        if (m_pFile)
            std::fclose(m_pFile);
        m_pFile = nullptr;
    }
    void flush() { std::fflush(m_pFile); }
    void pass(int64_t llMicroseconds) { m_llTime += llMicroseconds; }

    void line(const char* pszFormat, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list arguments;
        va_start(arguments, pszFormat);
        write(pszFormat, arguments);
        va_end(arguments);
    }
    // The line that tells of this, as the library writes it; of several the n-th.
    void text(int nEvent, ...)
    {
        va_list arguments;
        va_start(arguments, nEvent);
        write(formatOf(static_cast<ELogEvent>(nEvent), 0), arguments);
        va_end(arguments);
    }
    void textOf(ELogEvent event, int nText, ...)
    {
        va_list arguments;
        va_start(arguments, nText);
        write(formatOf(event, nText), arguments);
        va_end(arguments);
    }
    void raw(const std::string& strText) { std::fwrite(strText.data(), 1, strText.size(), m_pFile); }

    void connect()
    {
        text(LOG_EVENT_PROCESS_STARTED);
        request(0, "MICMD_CONNECT", 0);
        text(LOG_EVENT_CONNECTED, 1, 1);
    }
    void openStream(int nStream, const char* pszCallID)
    {
        line("CZelMediaStreamImpl::initialize (0x%08X), callid %s, legid 1", handle(nStream), pszCallID);
        request(0, "MICMD_OPENSTREAM", 0);
        text(LOG_EVENT_STREAM_OPENED, pszCallID, 1U, nStream);
        text(LOG_EVENT_STREAM_ADDED, handle(nStream), nStream);
    }
    // A play that is sent at once. Returns its number.
    unsigned int play(int nStream, const char* pszFile)
    {
        newPlay(nStream, pszFile);
        text(LOG_EVENT_ACTIVE);
        text(LOG_EVENT_NUMBERED, static_cast<unsigned long>(m_uSequence), nStream, "MICMD_PLAYFILE");
        return exchange(nStream, "MICMD_PLAYFILE", 0);
    }
    // Ends that play, and tells the application.
    void complete(int nStream, unsigned int uSequence, int nStatus)
    {
        text(LOG_EVENT_EVENT, static_cast<int>(uSequence), nStream, "MIEVT_DONE", nStatus);
        textOf(LOG_EVENT_REPORTING, 1, nStream, static_cast<int>(uSequence));
        text(LOG_EVENT_COMPLETION, handle(nStream), nStream, static_cast<unsigned int>(nStatus), 1U);
        text(LOG_EVENT_DESTROYED, address(uSequence));
    }
    void request(int nStream, const char* pszCommand, int nStatus)
    {
        text(LOG_EVENT_NEW_COMMAND, nStream, address(m_uSequence));
        text(LOG_EVENT_REQUEST, nStream, pszCommand);
        const unsigned int uSequence = exchange(nStream, pszCommand, nStatus);
        text(LOG_EVENT_DESTROYED, address(uSequence));
    }
    static unsigned int handle(int nStream) { return 0x08000000U + static_cast<unsigned int>(nStream) * 64; }

    // Of the command of this number.
    static unsigned int address(unsigned int uSequence) { return 0x09000000U + uSequence * 336; }

private:
    static const char* formatOf(ELogEvent event, int nText)
    {
        for (const CLogText& text : logTexts())
            if (text.m_event == event && nText-- == 0)
                return text.m_pszFormat;
        throw std::logic_error("no such text of the log");
    }
    // Without line ends of its own, as the log file has it.
    void write(const char* pszFormat, va_list arguments)
    {
        char szText[4096];
        std::vsnprintf(szText, sizeof(szText), pszFormat, arguments);
        for (char* p = szText; *p; ++p)
            *p = *p == '\n' ? ' ' : *p;
        std::fprintf(m_pFile, "%s p4711 t4712 2 %s\n", logTimeToString(m_llTime).c_str(), szText);
        m_llTime += 10;
    }

    void newPlay(int nStream, const char* pszFile)
    {
        line("CZelMediaStreamImpl::playAddFile (0x%08X), file %s, startpos 0, timeout 60", handle(nStream), pszFile);
        text(LOG_EVENT_CONSTRUCTED, address(m_uSequence));
        text(LOG_EVENT_NEW_COMMAND, nStream, address(m_uSequence));
        text(LOG_EVENT_REQUEST, nStream, "MICMD_PLAYFILE");
        text(LOG_EVENT_ENTERING, nStream);
    }
    unsigned int exchange(int nStream, const char* pszCommand, int nStatus)
    {
        text(LOG_EVENT_SENDING);
        text(LOG_EVENT_SENT_NUMBER, pszCommand, static_cast<unsigned long>(m_uSequence), nStream);
        text(LOG_EVENT_RESPONSE, 1, static_cast<unsigned long>(m_uSequence), "MIRSP_STATUS");
        text(LOG_EVENT_RESULT, nStream, "MIRSP_STATUS", static_cast<unsigned int>(nStatus));
        return m_uSequence++;
    }

    FILE* m_pFile;
    int64_t m_llTime = logTimeFromString("2026-11-21 14:05:06");
    unsigned int m_uSequence = 1;
};

#endif
