// Keeps account of what many threads play and record: which completion may come, and what has ended.
#ifndef RACES_LEDGER_H
#define RACES_LEDGER_H

#include "OrvLogLib.h"
#include "ZelMediaServices.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// A stream of the application. Its lock is the application's: calls on one stream come from one thread
// at a time, the event thread in a completion included.
struct CRaceStream
{
    std::mutex mutex;
    CZelMediaServices* pServices = nullptr;
    CZelMediaStream* pStream = nullptr; // null once it is closed
    bool bHandlers = false;             // left to the handler: it plays on or closes
    bool bRecords = false;              // a recording may end long after the stream was lost
    bool bHalf = false;                 // only some of its operations were accepted
    int nToPlay = 0;                    // by the handler, before it closes
    int nAccepted = 0;                  // commands that may complete
    int nCompleted = 0;
};
typedef std::shared_ptr<CRaceStream> CRaceStreamRef;

// The handler of one services object.
class CRaceHandler : public CZelMediaStreamCompletionHandler
{
public:
    void OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason) override;

    // Entered as soon as it is open, and taken out before it is closed.
    CRaceStreamRef open(CZelMediaServices& services, unsigned long ulLegID);
    void close(CRaceStream& stream); // its lock is held
    std::vector<CRaceStreamRef> streams() const;

    uint64_t completions() const;
    std::string faults() const; // what must not be, empty if nothing

private:
    void fault(const std::string& strText);
    void goOn(CRaceStream& stream, MCSTATUS mcstatus);

    mutable std::mutex m_mutex;
    std::map<CZelMediaStream*, CRaceStreamRef> m_mapStreams;
    std::string m_strFaults;
    uint64_t m_ullCompletions = 0;
};

// Counts the library's commands by their trace lines, whichever log file takes them. One in eight writes
// the lines, too: the lock of a log file orders the threads, and would hide what the library leaves
// open. A line takes its time now and then, so that threads meet where they hardly ever do.
class CRaceLog : public OrvLogLib::CLogFile
{
public:
    explicit CRaceLog(unsigned int nNumber);
    int LogStringArgListX(OrvLogLib::LogLib_Priority priority, const char* pszFormat, const char* pszSource,
                          va_list arguments) override;
    long ReportEventToWIN32Log(long, unsigned short, unsigned long, const char**, void*) override { return 1; }

    static long commandsAlive() { return s_nAlive; }

private:
    const bool m_bWrites;
    static std::atomic<long> s_nAlive;
};

#endif
