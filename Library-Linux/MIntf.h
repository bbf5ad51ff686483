// CMIntf: the one driver interface of the process, the library's side of the pipes to the driver.
#ifndef MINTF_H
#define MINTF_H

#include "MediaProtocol.h"
#include "NodePool.h"
#include "OrvLogLib.h"
#include "Portable.h"
#include "ReadSection.h"
#include "Unlocked.h"
#include "ZelCritSec.h"
#include "ZelMediaServices.h"

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

class CZelMediaStreamImpl;

// A status code with which commands are cleared: they complete as if the driver had sent it.
typedef MCSTATUS MIRESULT;

// Trace classes of the library's lines.
enum : unsigned long
{
    TRACE_INFO = 1,     // "(Info)" and "(Error)" lines
    TRACE_OPERATION = 8 // operations, on entry and exit
};

// What log lines show of an address: its low 32 bits.
inline unsigned int addressForLog(const void* p)
{
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(p));
}

// Copies a text into a fixed field: cut if need be, always terminated.
template <size_t SIZE> void copyText(char (&szField)[SIZE], const char* pszText)
{
    const size_t nLength = strnlen(pszText, SIZE - 1);
    memcpy(szField, pszText, nLength);
    szField[nLength] = '\0';
}

// Whom CMIntf tells when a play or record command has ended. Called on the event thread, with no
// library lock held.
class CMIntfCompletionHandler
{
public:
    virtual ~CMIntfCompletionHandler() = default;
    virtual void OnCMIntfCompletion(int nStreamID, MCSTATUS mcstatus,
                                    CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON reason) = 0;
};

// CMIntf::trace for the lines of every command: where they are masked, not even their arguments are
// looked at.
#define ZEL_TRACE(mask, priority, ...) (isTraced(mask) ? trace(mask, priority, __VA_ARGS__) : 0)

class CMIntf
{
public:
    // One command: in the hands of the transport, queued, or active. Whoever creates it fills
    // every field. From sendCommand on CMIntf owns it; the completion handler is never owned.
    class CCommand
    {
    public:
        CCommand();
        ~CCommand();
        CCommand(const CCommand&) = delete;
        CCommand& operator=(const CCommand&) = delete;

        int32_t m_nStreamID;
        int32_t m_bDone;                          // 0: an ordinary step, not reported when it ends well
        uint32_t m_nTimeout;                      // seconds, 0xFFFFFFFF for the default
        uint64_t m_ullTimeoutTick;                // deadline; 0 while the command is not in the deadline index
        CMIntfCompletionHandler* m_pcomplHandler; // may be null
        structMICMD m_cmd;

    private:
        friend class CMIntf;
        bool m_bUntold = false;  // ended, by an event that the event pipe did not take
        bool m_bEntered = false; // into the deadline index, as this entry of it
        std::multimap<uint64_t, CCommand*>::iterator m_itDeadline;
    };
    typedef std::list<CCommand*> CCommandList;

    // A phrase file that the application has open.
    struct CClipFile
    {
        std::string m_strName;
        int m_nUseCount = 1;
        int m_nCMIntfFileID = -1; // the driver's id; -1 while the driver has not got it open
    };

    static const unsigned int DEFAULT_TIMEOUT = 0xFFFFFFFF; // stands for 300 s
    static const uint32_t ANY_SEQUENCE_NO = 0xFFFFFFFF;     // in remActiveCommand

    // Initialises; a failure leaves an object whose commands all return MCS_NOTCONNECTED.
    CMIntf();
    // Finalises. Streams and clip files are not destroyed.
    ~CMIntf();
    CMIntf(const CMIntf&) = delete;
    CMIntf& operator=(const CMIntf&) = delete;

    // Creates log file, locks, pipes and event thread. MCS_OK, MCS_LOCKFAILED, MCS_PIPECREATE,
    // MCS_PIPEOPEN or MCS_THREADFAILED.
    MCSTATUS initialize();
    // Stops the event thread, clears all commands, disconnects, removes the pipes, deletes locks
    // and log. The object is of no use afterwards. Must not race with any other call. MCS_OK.
    MCSTATUS finalize();

    // Wraps a request into a command and sends it; psrsp receives the response. nNoDone non-zero
    // makes it an ordinary step (m_bDone 0).
    MCSTATUS sendCommand(int nStreamID, structMICMD* psmicmd, structMIRSP* psrsp, unsigned long ulTimeout,
                         CMIntfCompletionHandler* pcomplHandler, int nNoDone, int bUsePlayQueue);
    // Sends a command and waits for its response, or queues it. On MCS_OK the command has been
    // freed (immediate commands) or belongs to the containers; on any other status it belongs to
    // the caller again and is in no container.
    MCSTATUS sendCommand(CCommand* pcommand, structMIRSP* psrsp, int bUsePlayQueue);

    // Sends a request that ends with its response and belongs to no stream's bookkeeping.
    MCSTATUS sendImmediate(structMICMD* psmicmd, structMIRSP* psrsp, int nStreamID = 0);

    // Writes a record into this process's own event pipe. MCS_OK or MCS_PIPEWRITE. Never blocks.
    MCSTATUS sendEvent(structMIEVT* evt);
    MCSTATUS ping();
    // Makes the stream unusable and raises an operator alarm; returns what the alarm call returns.
    long markStreamInvalid(int nStreamID) REQUIRES(m_pCritSecCMIntf);

    static void* eventThread(void* pCMIntf);
    int eventThreadFunc();
    // The passes of the event thread's loop, one for a quiet second, one for an MIEVT_DONE record.
    void idlePass();
    void doneEventPass(const structMIEVT& evt);

    // Make the command its stream's active one (*bSend becomes 1) or queue it behind that.
    // 0, or MCS_OUTOFMEMORY: the command is in no container and bSend is 0.
    int processPlayActiveCommand(CCommand* pcommand, int& bSend) REQUIRES(m_pCritSecCMIntf);
    int processRecordActiveCommand(CCommand* pcommand, int& bSend) REQUIRES(m_pCritSecCMIntf);
    // Enters a command that has its number already, without any test.
    void addActiveCommand(CCommand* pcommand) REQUIRES(m_pCritSecCMIntf);
    // Unlinks the stream's active commands of that number, ANY_SEQUENCE_NO for both whatever their
    // numbers, and destroys them if bDelete; otherwise the caller owns them.
    void remActiveCommand(int nStreamID, int nSequenceIDParam, int bDelete) REQUIRES(m_pCritSecCMIntf);
    // Makes sure that the stream's current operation ends with one reported completion. 0 or
    // MCS_OUTOFMEMORY.
    int setDone(int nStreamID, CMIntfCompletionHandler* pcomplHandler);

    // Completes every active command with this result, by events to the own event thread; what
    // cannot be told that way is destroyed without a completion.
    void clearActiveCommands(MIRESULT result) REQUIRES(m_pCritSecCMIntf);
    // Destroy queued commands without completions: of all streams, or of one.
    void clearCommandQueues() REQUIRES(m_pCritSecCMIntf);
    void clearCommandQueuePlay(int nStreamID, int bRecordOnly) REQUIRES(m_pCritSecCMIntf);
    void clearCommandQueueRecord(int nStreamID) REQUIRES(m_pCritSecCMIntf);
    // Drops the stream's queued plays and asks the driver to end the active one. The status of
    // that request, MCS_OK when nothing was active on the play side.
    MCSTATUS cancel(int nStreamID, unsigned long nCancelType);

    // *pFileID is the library's id of the file, also when the driver could not open it.
    int openFile(char* name, int* pFileID);
    int closeFile(int fileID);
    int mapFileIDToCMIntfFileID(int fileID); // the driver's id, -1 for none
    void reopenClipFiles();
    int openStream(CZelMediaStreamImpl* pImpl, int* pStreamID, char* callID, unsigned long legID);
    int closeStream(int streamID);
    // Leaves nothing of a stream and its commands, without a word to the driver.
    void forgetStream(int streamID);

    int dump();

    static MCSTATUS getResponseMCCSTATUS(structMIRSP* psrsp);
    static MCSTATUS getEventMCCSTATUS(structMIEVT* psevt);
    static bool driverFatalError(MCSTATUS mcstatus);

    // Whether lines of these trace classes go anywhere at the moment.
    bool isTraced(unsigned long ulMask) const noexcept
    {
        const CReadSection section;
        const OrvLogLib::CLogFile* const pLogFile = loadUnlocked(m_pLogFile);
        return pLogFile && (pLogFile->traceMask() & ulMask) != 0;
    }
    // Writes one line into the log, if there is one. Never throws, whatever the log file does.
    int trace(unsigned long ulMask, OrvLogLib::LogLib_Priority priority, const char* pszFormat, ...) noexcept
        __attribute__((format(printf, 4, 5)));
    static int traceInto(OrvLogLib::CLogFile& logFile, unsigned long ulMask, OrvLogLib::LogLib_Priority priority,
                         const char* pszFormat, va_list arguments) noexcept __attribute__((format(printf, 4, 0)));
    // Has lines that the log file collected written into the file.
    void flushLog() noexcept;
    // Raises the operator alarm with this text.
    long raiseAlarm(const char* pszText) noexcept;
    // Puts another log file, which may be null, in place of the current one and deletes that, once
    // no thread uses it any more. Likewise the registry, which nobody but this class uses.
    void replaceLogFile(OrvLogLib::CLogFile* pLogFile);
    void replaceLogFileRegistry(OrvLogLib::CLogFileRegistry* pLogFileRegistry);

    // The connection id for a request that is about to be composed; -1 while not connected, which
    // the transport replaces if the connection is there when it writes the record.
    int connectID() const { return loadUnlocked(m_nConnectID); }

    // ACQUIRED_AFTER: the clip-file lock is always taken first.
    ZelCritSec* m_pCritSecCMIntf ACQUIRED_AFTER(m_pCritSecClipFiles);
    // The stop handshake: plain flags, shared without a lock.
    int m_bEventThreadRunning;
    int m_bEventThreadStop;
    // Constant after initialize.
    char m_szRspPipe[MI_PIPE_NAME_SIZE];
    char m_szEvtPipe[MI_PIPE_NAME_SIZE];
    int m_npipeReq GUARDED_BY(m_pCritSecCMIntf);
    // Constant between initialize and finalize.
    int m_npipeRsp;
    int m_npipeEvt;
    std::map<int, CZelMediaStreamImpl*> m_mapStreamByStreamID GUARDED_BY(m_pCritSecCMIntf);
    // A command is in one place: in a queue, or in one of the active maps and, by its deadline, in
    // the index. Queue lists may be empty, never null.
    std::map<int, CCommand*> m_mapActiveCommandByStreamIDPlay GUARDED_BY(m_pCritSecCMIntf);
    std::map<int, CCommand*> m_mapActiveCommandByStreamIDRecord GUARDED_BY(m_pCritSecCMIntf);
    std::multimap<uint64_t, CCommand*> m_mmapActiveCommandByTimeout GUARDED_BY(m_pCritSecCMIntf);
    std::map<int, CCommandList*> m_mapCommandQueue GUARDED_BY(m_pCritSecCMIntf);
    std::map<int, CCommandList*> m_mapCommandQueueRecord GUARDED_BY(m_pCritSecCMIntf);
    int m_nConnectID; // written under the main lock, read without by who composes a request
    uint64_t m_ullLastResponseTick GUARDED_BY(m_pCritSecCMIntf); // 0 while a request is outstanding
    std::map<int, CClipFile*> m_mapClipFileByID GUARDED_BY(m_pCritSecClipFiles);
    int m_nNextFileID GUARDED_BY(m_pCritSecClipFiles);
    ZelCritSec* m_pCritSecClipFiles;
    // Replaced by any thread at any time: see CReadSection.
    OrvLogLib::CLogFile* m_pLogFile;
    OrvLogLib::CLogFileRegistry* m_pLogFileRegistry;
    uint32_t m_nNextSequenceNo GUARDED_BY(m_pCritSecCMIntf); // wraps at 2^32
    int m_nIdleCount;                                        // event thread only

private:
    struct CSide;
    struct CExchangeResult;
    typedef std::map<int, CCommand*> CActiveMap;
    typedef std::multimap<uint64_t, CCommand*> CDeadlineMap;
    typedef std::map<int, CCommandList*> CQueueMap;
    typedef std::unique_ptr<CCommand> CCommandOwner;

    static const CSide s_sidePlay;
    static const CSide s_sideRecord;

    // Entries of earlier commands, for later ones: a command costs one allocation, its own.
    CNodePool<CActiveMap> m_poolActive GUARDED_BY(m_pCritSecCMIntf);
    CNodePool<CDeadlineMap> m_poolDeadline GUARDED_BY(m_pCritSecCMIntf);
    size_t m_nDeadlines GUARDED_BY(m_pCritSecCMIntf) = 0; // entered and not erased again
    CCommandList m_listSpareEntries GUARDED_BY(m_pCritSecCMIntf);

    // In the hands of the event thread: taken out of the containers to be sent next, or to be reported as
    // overdue. Handlers run meanwhile, and whoever closes the stream has to find its commands: a command is
    // here until the lock is held for its sending, or left for its report.
    CCommandOwner m_pcommandNextPlay GUARDED_BY(m_pCritSecCMIntf);
    CCommandOwner m_pcommandNextRecord GUARDED_BY(m_pCritSecCMIntf);
    std::vector<CCommandOwner> m_vOverdue GUARDED_BY(m_pCritSecCMIntf); // last first; null where closed since
    int m_bAnyUntold = 0; // whether some command may be untold; written under the main lock

    // Lifecycle
    bool createPipe(const char* pszPath, const char* pszErrorFormat);
    bool openPipe(const char* pszPath, const char* pszErrorFormat, int& nDescriptor);
    static void closeDescriptor(int& nDescriptor);

    // Transport
    MCSTATUS admitCommand(CCommand* pcommand, int bUsePlayQueue, int& bSend) REQUIRES(m_pCritSecCMIntf);
    CExchangeResult exchange(const structMICMD& cmd, structMIRSP* psrsp, int nStreamID) REQUIRES(m_pCritSecCMIntf);
    CExchangeResult awaitResponse(uint32_t nSequenceNo, structMIRSP* psrsp) REQUIRES(m_pCritSecCMIntf);
    void withdrawCommand(CCommand* pcommand) REQUIRES(m_pCritSecCMIntf);
    void clearAfterTransportFailure(MCSTATUS mcstatus) REQUIRES(m_pCritSecCMIntf);
    void traceResult(int nStreamID, const structMIRSP* psrsp, MCSTATUS mcstatus);

    // Bookkeeping
    int processActiveCommand(const CSide& side, CCommand* pcommand, int& bSend) REQUIRES(m_pCritSecCMIntf);
    void queueCommand(const CSide& side, CCommand* pcommand, const CCommand* pcommandActive) REQUIRES(m_pCritSecCMIntf);
    void activateCommand(const CSide& side, CCommand* pcommand, CActiveMap::iterator itNext) REQUIRES(m_pCritSecCMIntf);
    void enterDeadline(CCommand* pcommand) REQUIRES(m_pCritSecCMIntf);
    bool eraseDeadline(CCommand* pcommand, const char* pszFormatBefore) REQUIRES(m_pCritSecCMIntf);
    CDeadlineMap::iterator findDeadline(const CCommand* pcommand) REQUIRES(m_pCritSecCMIntf);
    CActiveMap::iterator findActive(const CSide& side, int nStreamID, uint32_t nSequenceNo,
                                    const CCommand* pcommandOnly) REQUIRES(m_pCritSecCMIntf);
    void removeFound(int nStreamID, uint32_t nSequenceNo, int bDelete, CActiveMap::iterator itPlay,
                     CActiveMap::iterator itRecord) REQUIRES(m_pCritSecCMIntf);
    void removeFoundOfSide(const CSide& side, int nStreamID, int bDelete, CActiveMap::iterator it)
        REQUIRES(m_pCritSecCMIntf);
    // Does what remActiveCommand does with the command's number and bDelete 0, for this command
    // alone: no other one is unlinked with it, and its deadline entry is gone afterwards.
    void unlinkActiveCommand(CCommand* pcommand) REQUIRES(m_pCritSecCMIntf);
    CCommand* activeCommand(const CSide& side, int nStreamID) REQUIRES(m_pCritSecCMIntf);
    int injectCompletion(int nStreamID, CMIntfCompletionHandler* pcomplHandler) REQUIRES(m_pCritSecCMIntf);
    void dropInHand(int nStreamID) REQUIRES(m_pCritSecCMIntf);
    bool markInHand(const CSide& side, int nStreamID) REQUIRES(m_pCritSecCMIntf);

    // Clearing
    std::vector<CCommand*> injectCompletions(const CSide& side, MIRESULT result) REQUIRES(m_pCritSecCMIntf);
    void destroyUntold(CCommand* pcommand, const std::vector<CCommand*>& vRecordsToCome) REQUIRES(m_pCritSecCMIntf);
    CCommand* eraseActive(const CSide& side, int nStreamID) REQUIRES(m_pCritSecCMIntf);
    MCSTATUS sendCancel(int nStreamID, uint32_t nCancelType);
    static void destroyList(CCommandList* plist, int bRecordOnly);
    static void clearQueues(CQueueMap& mapQueue);
    static void clearQueue(CQueueMap& mapQueue, int nStreamID, int bRecordOnly);

    // Event thread
    void eventLoop();
    void eventRead(const structMIEVT& evt);
    bool openRequestPipe();
    bool pingDue(uint64_t ullNow);
    bool connectDriver(int& nConnectID);
    void countIdlePass(bool bConnected, int nConnectID);
    void forgetSpareEntries() REQUIRES(m_pCritSecCMIntf);
    void sweepOverdueCommands();
    void takeOverdueCommands(uint64_t ullNow) REQUIRES(m_pCritSecCMIntf);
    CCommandOwner cancelNextOverdue();
    void reportUntold();
    bool takeUntold(structMIEVT& evt);
    void dropAllInHand();
    CCommandOwner retireCompleted(const structMIEVT& evt, MCSTATUS mcstatus, bool& bNotify) REQUIRES(m_pCritSecCMIntf);
    void dropAfterFatalStatus(int nStreamID, CCommandOwner& pcommandCompleted) REQUIRES(m_pCritSecCMIntf);
    void updateStreamTiming(int nStreamID) REQUIRES(m_pCritSecCMIntf);
    bool takeNextCommand(const CSide& side, int nStreamID) REQUIRES(m_pCritSecCMIntf);
    void startNextCommand(const CSide& side);
    bool reportCompletion(const CCommand& command, MCSTATUS mcstatus, const char* pszFormat);

    // Clip files and streams
    MCSTATUS addClipFile(const std::string& strName, int& nFileID) REQUIRES(m_pCritSecClipFiles);
    MCSTATUS requestOpenFile(CClipFile& clipFile) REQUIRES(m_pCritSecClipFiles);
    void dropWaiting(int streamID) REQUIRES(m_pCritSecCMIntf);

    // Dump
    void dumpClipFiles();
    void dumpStreams() REQUIRES(m_pCritSecCMIntf);
    void dumpCommands() REQUIRES(m_pCritSecCMIntf);
    void dumpCommand(int nStreamIDShown, const CCommand& command);
};

// The driver interface of the process: null until the first services object is made, then the same
// one until the process ends. Read it with driverInterface(): the event thread runs before the
// pointer is stored.
extern CMIntf* g_pmintf;

inline CMIntf* driverInterface()
{
    return loadUnlocked(g_pmintf);
}

// Writes an operation's line of the services or a stream into the process's log, if there is one.
void traceOperation(const char* pszFormat, ...) noexcept __attribute__((format(printf, 1, 2)));

#endif
