// The ledger's part in the library's log: the lines that tell of command records and of the connection.
#include "Ledger.h"
#include "LedgerTypes.h"

#include <cstring>

class CLedger::CLog : public OrvLogLib::CLogFile
{
public:
    explicit CLog(CLedger& ledger) : CLogFile("Ledger", nullptr, false, false, false), m_ledger(ledger)
    {
        setTraceMask(1 | 8);
    }

    int LogStringArgListX(OrvLogLib::LogLib_Priority, const char* pszFormat, const char*, va_list arguments) override
    {
        struct CLine
        {
            const char* pszBegin;
            void (CLog::*pTake)(va_list arguments);
        };
        static const CLine LINES[] = {
            {"(Info) CCommand::CCommand this", &CLog::constructed},
            {"(Info) CCommand::~CCommand this", &CLog::destroyed},
            {"(Info) CMIntf::sendCommand nStreamID = %d, pcommand", &CLog::made},
            {"801(Info) CMIntf::processPlayActiveCommand", &CLog::active},
            {"(Info) CMIntf::sendCommand, cmd", &CLog::sending},
            {"(Info) CMIntf::sendCommand, tried to get", &CLog::answered},
            {"(Info) CMIntf::setDone calling", &CLog::makesOne},
            {"CMIntf::eventThreadFunc, read event", &CLog::event},
            {"(Error) CMIntf::sendCommand, error writing request pipe", &CLog::notWritten},
            {"(Error) CMIntf::sendCommand, timeout reading", &CLog::notAnswered},
            {"(Info) CMIntf::reopenClipFiles, m_nConnectID", &CLog::connected},
            {"(Error) CMIntf::eventThreadFunc had an exception", &CLog::exception},
        };
        for (const CLine& line : LINES)
        {
            if (strncmp(pszFormat, line.pszBegin, strlen(line.pszBegin)) == 0)
            {
                va_list copy;
                va_copy(copy, arguments);
                (this->*line.pTake)(copy);
                va_end(copy);
                break;
            }
        }
        return 0;
    }

    long ReportEventToWIN32Log(long, unsigned short, unsigned long, const char**, void*) override { return 1; }

private:
    void constructed(va_list) { ++m_ledger.m_nRecordsAlive; }
    void destroyed(va_list arguments)
    {
        --m_ledger.m_nRecordsAlive;
        m_ledger.recordDestroyed(va_arg(arguments, unsigned int));
    }
    void made(va_list arguments)
    {
        const int nStreamID = va_arg(arguments, int);
        m_ledger.recordMade(va_arg(arguments, unsigned int), nStreamID);
    }
    void active(va_list arguments) { m_ledger.recordActive(va_arg(arguments, unsigned int)); }
    void sending(va_list arguments)
    {
        va_arg(arguments, const char*);
        const unsigned long nSequenceNo = va_arg(arguments, unsigned long);
        m_ledger.requestGoesOut(nSequenceNo, va_arg(arguments, int));
    }
    void answered(va_list arguments)
    {
        va_arg(arguments, int);
        m_ledger.answerTaken(va_arg(arguments, unsigned long));
    }
    void makesOne(va_list) { thisThread().bInSetDone = true; }
    void event(va_list arguments)
    {
        const unsigned long nSequenceNo = va_arg(arguments, unsigned int);
        const int nStreamID = va_arg(arguments, int);
        va_arg(arguments, const char*);
        m_ledger.eventRead(nStreamID, nSequenceNo, va_arg(arguments, int));
    }
    void notWritten(va_list) { m_ledger.pipeLost(true); }
    void notAnswered(va_list) { m_ledger.pipeLost(false); }
    void connected(va_list) { m_ledger.connected(); }
    void exception(va_list) { m_ledger.violation("the event thread had an exception"); }

    CLedger& m_ledger;
};

OrvLogLib::CLogFile* CLedger::makeLogFile()
{
    return new CLog(*this);
}
