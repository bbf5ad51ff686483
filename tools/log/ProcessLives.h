// CCommandLives::CProcessLives: the commands of one process, and what each of its threads is doing.
#ifndef PROCESS_LIVES_H
#define PROCESS_LIVES_H

#include "log/CommandLives.h"

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <optional>
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

    // What is done with a line, by what it tells of.
    struct CRule
    {
        void (CProcessLives::*m_pHandle)(CThread&, CLogLine&) = nullptr;
        // Then, where the line belongs to the request that its thread is in, which names its command and stream.
        void (CProcessLives::*m_pStep)(const CLife&, CThread&, const CLogLine&) = nullptr;
        // And why the commands are dropped that are dropped from here on.
        const char* m_pszWhy = nullptr;
        // And what is told of the process.
        std::optional<ELogNote> m_note = std::nullopt;
        const char* m_pszNote = nullptr; // null: the line's text
    };
    typedef std::array<CRule, LOG_EVENTS> CRules;
    static constexpr CRules rules();

    void callBegins(CThread& thread, CLogLine& line);
    void callResult(CThread& thread, CLogLine& line);
    void streamAdded(CThread& thread, CLogLine& line);
    void streamOpened(CThread& thread, CLogLine& line);
    void streamClosing(CThread& thread, CLogLine& line);
    void streamCleared(CThread& thread, CLogLine& line);
    void cancelled(CThread& thread, CLogLine& line);

    void newCommand(CThread& thread, CLogLine& line);
    void beginRequest(CThread& thread, CLogLine& line);
    void entering(CThread& thread, CLogLine& line);
    void ofRequest(const CLife& life, CThread& thread, const CLogLine& line);
    void queued(const CLife& life, CThread& thread, const CLogLine& line);
    void becameActive(const CLife& life, CThread& thread, const CLogLine& line);
    void numbered(const CLife& life, CThread& thread, const CLogLine& line);
    void sending(const CLife& life, CThread& thread, const CLogLine& line);
    void answered(const CLife& life, CThread& thread, const CLogLine& line);
    void endRequest(const CLife& life, CThread& thread, const CLogLine& line);

    void constructed(CThread& thread, CLogLine& line);
    void destroyed(CThread& thread, CLogLine& line);
    void ownCompletion(CThread& thread, CLogLine& line);
    void readEvent(CThread& thread, CLogLine& line);
    void withdrawn(CThread& thread, CLogLine& line);
    void unlinked(CThread& thread, CLogLine& line);
    void timedOut(CThread& thread, CLogLine& line);
    void reporting(CThread& thread, CLogLine& line);
    void complete(CThread& thread, CLogLine& line);
    void driverLost(CThread& thread, CLogLine& line);
    void driverSilent(CThread& thread, CLogLine& line);
    void streamLost(CThread& thread, CLogLine& line);
    void alarm(CThread& thread, CLogLine& line);

    void beginCall(CThread& thread, const CLogLine& line);
    void endCall(CThread& thread);
    bool isNewCommand(const CThread& thread, int nCommand) const;
    void useCall(CThread& thread, CCommandLife& life);
    void resolveStarting(CThread& thread, bool bRecordSide);
    static void enqueue(std::deque<CLife>& queue, const CLife& life);
    void releaseHeld(CThread& thread);
    CLife completedLife(CThread& thread, const CLogLine& line);
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
