// CCommandLives::CProcessLives: the commands of one process, and what each of its threads is doing.
#ifndef PROCESS_LIVES_H
#define PROCESS_LIVES_H

#include "log/CommandLives.h"

#include <deque>
#include <map>
#include <memory>
#include <unordered_map>

class CCommandLives::CProcessLives
{
public:
    CProcessLives(CLogListener& listener, int nProcess, uint64_t& ullLastStreamKey);

    void add(CLogLine& line);
    void finish(int64_t llTime, EOutcome outcome, const char* pszWhy);
    size_t size() const; // how many things are remembered

private:
    struct COpenLife : CCommandLife
    {
        uint64_t m_ullNumber = 0;
        bool m_bFinished = false;
        bool m_bInQueue = false;
        bool m_bRetired = false;   // its event has taken it out of the active plays
        bool m_bFromQueue = false; // it was started by the end of another
    };
    typedef std::shared_ptr<COpenLife> CLife;

    // A call of the application that this thread is in. m_uExpected: the commands that it may lead to.
    struct CCall
    {
        std::string m_strName;
        std::string m_strDetail;
        int m_nStream = NO_STREAM;
        int64_t m_llTime = NO_TIME;
        unsigned int m_uExpected = 0;
        bool m_bUsed = true;
    };

    struct CThread
    {
        CCall m_call;
        CLife m_current;   // between its request and its result
        CLife m_held;      // answered, but its stream is told by a later line
        CLife m_reporting; // its completion comes next
        bool m_bNew = false;
        uint32_t m_uNewAddress = 0;
        int m_nStarting = NO_COMMAND; // a queued command is about to start
        int m_nStartingStream = NO_STREAM;
        int m_nCancelStream = NO_STREAM;
        int m_nCloseStream = NO_STREAM;
        int m_nEventStream = NO_STREAM;
        bool m_bWithdrawing = false;
        bool m_bLost = false;      // the driver, in the line before
        const char* m_pszWhy = ""; // why commands are dropped here
    };

    struct CSide
    {
        CLife m_active;
        std::deque<CLife> m_queue;
    };

    struct CStream : CStreamLife
    {
        CSide m_aSides[2]; // plays, records
    };

    void addCallLine(CThread& thread, CLogLine& line);
    void addRequestLine(CThread& thread, CLogLine& line);
    void addEventLine(CThread& thread, CLogLine& line);
    void addProcessLine(CThread& thread, const CLogLine& line);

    void beginCall(CThread& thread, const CLogLine& line);
    void endCall(CThread& thread);
    void beginRequest(CThread& thread, const CLogLine& line);
    bool isNewCommand(const CThread& thread, int nCommand) const;
    void useCall(CThread& thread, CCommandLife& life);
    void resolveStarting(CThread& thread, bool bRecordSide);
    static void enqueue(std::deque<CLife>& queue, const CLife& life);
    void activate(const CLife& life, bool bRecordSide, int64_t llTime);
    void number(const CLife& life, uint32_t uSequence);
    void endRequest(CThread& thread, const CLogLine& line);
    void releaseHeld(CThread& thread);
    void openStream(CThread& thread, const CLogLine& line);

    void readEvent(CThread& thread, const CLogLine& line);
    void unlinked(CThread& thread, const CLogLine& line) const;
    void complete(CThread& thread, const CLogLine& line);
    CLife completedLife(CThread& thread, const CLogLine& line);
    void destroyed(CThread& thread, const CLogLine& line);
    void dropStream(int nStream, const char* pszWhy, int64_t llTime, bool bQueueOnly);

    CLife newLife(const CLogLine& line);
    CLife lifeOfNumber(uint32_t uSequence, int nStream) const;
    CStream& streamOf(int nStream);
    void attachStream(CCommandLife& life, int nStream);
    void closeStream(int nStream, int64_t llTime);
    void finishLife(CLife life, EOutcome outcome, const char* pszWhy, int64_t llTime);
    void note(ELogNote logNote, const CLogLine& line, int nStream, std::string strText);

    CLogListener& m_listener;
    const int m_nProcess;
    uint64_t& m_ullLastStreamKey;
    bool m_bSeesObjects = false; // the log has the lines of trace class 1
    std::unordered_map<int, CThread> m_mapThreads;
    std::unordered_map<uint32_t, CLife> m_mapByAddress;
    std::unordered_map<uint32_t, CLife> m_mapBySequence;
    std::map<int, CStream> m_mapStreams;
    std::unordered_map<uint32_t, int> m_mapStreamByHandle;
    std::map<uint64_t, CLife> m_mapOpen; // those that are not finished, in the order of their beginning
    uint64_t m_ullLives = 0;
};

#endif
