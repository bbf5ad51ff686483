// CSampleLog: a log as the library writes it, of as many commands as a test wants, without a driver.
#ifndef SAMPLE_LOG_H
#define SAMPLE_LOG_H

#include "log/LogTime.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

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
        std::fprintf(m_pFile, "%s p4711 t4712 2 ", logTimeToString(m_llTime).c_str());
        va_list arguments;
        va_start(arguments, pszFormat);
        std::vfprintf(m_pFile, pszFormat, arguments);
        va_end(arguments);
        std::fputc('\n', m_pFile);
        m_llTime += 10;
    }
    void raw(const std::string& strText) { std::fwrite(strText.data(), 1, strText.size(), m_pFile); }

    void connect()
    {
        line("CMIntf::initialize");
        request(0, "MICMD_CONNECT", 0);
        line("(Info) CMIntf::eventThreadFunc, MICMD_CONNECT returned s_nConnectID = \"1\", : fileid = (1)");
    }
    void openStream(int nStream, const char* pszCallID)
    {
        line("CZelMediaStreamImpl::initialize (0x%08X), callid %s, legid 1", handle(nStream), pszCallID);
        request(0, "MICMD_OPENSTREAM", 0);
        line("<<<CMIntf::openConferenceStream (callid %s, legid 1), streamid %d", pszCallID, nStream);
        line("CZelMediaServicesImpl::addStream 0x%08X, id %d", handle(nStream), nStream);
    }
    // A play that is sent at once. Returns its number.
    unsigned int play(int nStream, const char* pszFile)
    {
        newCommand(nStream, "MICMD_PLAYFILE", pszFile);
        line("CMIntf::processPlayActiveCommand - Current active command");
        line(" (Info) CMIntf::processPlayActiveCommand called, SequenceNo = %u, sid = %d, cmd = MICMD_PLAYFILE",
             m_uSequence, nStream);
        return exchange(nStream, "MICMD_PLAYFILE", 0);
    }
    // Ends that play, and tells the application.
    void complete(int nStream, unsigned int uSequence, int nStatus)
    {
        line("CMIntf::eventThreadFunc, read event, nSequenceID = (%u), nStreamID = (%d), evt MIEVT_DONE, stat %d ",
             uSequence, nStream, nStatus);
        line(" (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion ,sid = %d, nSequenceID = %u", nStream,
             uSequence);
        line("CZelMediaServicesImpl::OnCMIntfCompletion (0x%08X), sid %d, status 0x%08X, reason 0x00000001",
             handle(nStream), nStream, static_cast<unsigned int>(nStatus));
        line("(Info) CCommand::~CCommand this = 0x%x", address(uSequence));
    }

private:
    static unsigned int handle(int nStream) { return 0x08000000U + static_cast<unsigned int>(nStream) * 64; }
    static unsigned int address(unsigned int uSequence) { return 0x09000000U + uSequence * 336; }

    void newCommand(int nStream, const char* pszCommand, const char* pszFile)
    {
        line("CZelMediaStreamImpl::playAddFile (0x%08X), file %s, startpos 0, timeout 60", handle(nStream), pszFile);
        line("(Info) CCommand::CCommand this = 0x%x", address(m_uSequence));
        line("(Info) CMIntf::sendCommand nStreamID = %d, pcommand = 0x%x", nStream, address(m_uSequence));
        line("CMIntf::sendCommand (%d), cmd %s", nStream, pszCommand);
        line("CMIntf::processPlayActiveCommand - Entering, pcommand->m_nStreamID = %d", nStream);
    }
    void request(int nStream, const char* pszCommand, int nStatus)
    {
        line("(Info) CMIntf::sendCommand nStreamID = %d, pcommand = 0x%x", nStream, address(m_uSequence));
        line("CMIntf::sendCommand (%d), cmd %s", nStream, pszCommand);
        const unsigned int uSequence = exchange(nStream, pszCommand, nStatus);
        line("(Info) CCommand::~CCommand this = 0x%x", address(uSequence));
    }
    unsigned int exchange(int nStream, const char* pszCommand, int nStatus)
    {
        line("CMIntf::sendCommand - sending");
        line("(Info) CMIntf::sendCommand, cmd %s, sequence number %u, m_nStreamID = %d", pszCommand, m_uSequence,
             nStream);
        line("(Info) CMIntf::sendCommand, tried to get correct response, trycount = 1, psrsp->nRespSequenceNo = %u, "
             "psrsp->s_mirsp = MIRSP_STATUS",
             m_uSequence);
        line("<<<CMIntf::sendCommand (%d), rsp MIRSP_STATUS, mcstatus 0x%08X", nStream,
             static_cast<unsigned int>(nStatus));
        return m_uSequence++;
    }

    FILE* m_pFile;
    int64_t m_llTime = logTimeFromString("2026-11-21 14:05:06");
    unsigned int m_uSequence = 1;
};

#endif
