// The ledger of a test: every play and record that the library accepted, and how each of them ended.
//
// What the application sees (statuses, completions) is entered by CLedger::CCall and by the completion
// handler; what becomes of the library's command records by its log, which CLedger::makeLogFile takes
// part in. A command that ends in a way in which it must not is a violation.
#ifndef LEDGER_H
#define LEDGER_H

#include "OrvLogLib.h"
#include "ZelMediaServices.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class CLedger
{
public:
    using CHandler = CZelMediaStreamCompletionHandler;
    using CClock = std::chrono::steady_clock;

    enum class EOperation
    {
        None,
        Play,
        Record, // plain
        RecordWithPrompt,
        Cancel,
        Close
    };

    // An operation on a stream, from before the call of the library until after it. On its thread only.
    class CCall
    {
    public:
        // bStep: reported only if it fails. nTag: the status with which a driver may end it; 0 for none.
        CCall(CLedger& ledger, EOperation eOperation, CZelMediaStream* pStream, bool bStep = false, int nTag = 0);
        ~CCall();
        CCall(const CCall&) = delete;
        CCall& operator=(const CCall&) = delete;

        MCSTATUS returned(MCSTATUS mcstatus);

    private:
        friend class CLedger;
        struct CMade; // the commands that the call made, in order
        CLedger& m_ledger;
        const EOperation m_eOperation;
        CZelMediaStream* const m_pStream;
        const bool m_bStep;
        const int m_nTag;
        CCall* const m_pOuter;
        std::unique_ptr<CMade> m_pMade;
    };

    // How the accepted commands ended, and what was not accepted.
    struct CTotals
    {
        static constexpr int STATUSES = 64; // 0 stands for those that plays had of their own, too

        size_t nAccepted = 0;
        size_t nRefused = 0;
        size_t nCompleted = 0;
        size_t nStepsDone = 0; // ended well, not to be reported
        size_t nLost = 0;      // active when the pipes were lost
        size_t nDropped = 0;   // queued when the pipes were lost or a request timed out
        size_t nBehind = 0;    // queued behind one that failed
        size_t nCancelled = 0; // queued when the stream was cancelled
        size_t nClosed = 0;    // when its stream was closed
        size_t nOfLibrary = 0; // made by the library itself, to report a recording that had ended already
        std::array<size_t, STATUSES> anCompletedWith{};

        void add(const CTotals& other);
        bool isEven() const; // everything that was accepted has ended
    };

    CLedger();
    ~CLedger();

    void opened(CZelMediaStream* pStream);
    // Has the next completion of the stream close it. Otherwise the stream's thread does.
    void closeAtNextCompletion(CZelMediaStream* pStream);
    bool isOpen(CZelMediaStream* pStream) const;
    // True when nothing that can be reported is left of the stream; waits for that a little.
    bool waitIdle(CZelMediaStream* pStream, std::chrono::milliseconds limit) const;
    // Takes back what closeAtNextCompletion asked for: the stream, if open, is its thread's to close.
    bool takeBack(CZelMediaStream* pStream);

    // To be called around all that the handler does; true when it is to close the stream.
    bool completionBegins(CZelMediaStream* pStream, MCSTATUS mcstatus, CHandler::MCCOMPLETION_REASON reason);
    void completionEnds();

    // A log file for setLogger. The ledger must outlive the library's use of it.
    OrvLogLib::CLogFile* makeLogFile();
    // Connections so far; waits until there are that many. When the last of them was there, and when
    // the library last found that it cannot write requests.
    bool waitConnected(size_t nTimes, std::chrono::milliseconds limit) const;
    size_t connections() const;
    CClock::time_point connectedAt() const;
    CClock::time_point lostAt() const;

    CTotals totals() const;
    long recordsAlive() const { return m_nRecordsAlive; } // command records of the library
    void violation(const std::string& strText);
    std::vector<std::string> violations() const;
    // What the stream, or all of them, have not ended.
    std::string describe(CZelMediaStream* pStream = nullptr) const;

private:
    struct CCommand;
    struct CStream;
    struct CThread;
    class CLog;
    using CCommandPtr = std::shared_ptr<CCommand>;

    static CThread& thisThread();
    CCommandPtr make(CStream& stream, uint32_t nAddress, int nStreamID);
    void recordMade(uint32_t nAddress, int nStreamID);
    void recordActive(uint32_t nAddress);
    void requestGoesOut(unsigned long nSequenceNo, int nStreamID);
    void answerTaken(unsigned long nSequenceNo);
    void recordDestroyed(uint32_t nAddress);
    void completed(CCommand& command, CThread& thread);
    void endedUntold(CCommand& command, CThread& thread);
    void eventRead(int nStreamID, unsigned long nSequenceNo, int nStatus);
    void mustBeOfEvent(const CCommand& command, const CThread& thread);
    void pipeLost(bool bWrite);
    void connected();
    void complain(const std::string& strText);
    void complain(const CCommand& command, const std::string& strText);

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::map<CZelMediaStream*, std::shared_ptr<CStream>> m_mapStreams;
    std::map<uint32_t, CCommandPtr> m_mapCommands; // by what the log shows of the address
    std::vector<std::string> m_vViolations;
    CTotals m_totals;
    int m_nStreamAdvancing = 0; // what is next in its queues may be on its way to be sent
    size_t m_nConnections = 0;
    CClock::time_point m_connectedAt;
    CClock::time_point m_lostAt;
    std::atomic<long> m_nRecordsAlive{0};
};

#endif
