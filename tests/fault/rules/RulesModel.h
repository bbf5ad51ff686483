// CRulesModel: the rules of the driver interface's bookkeeping once more, in the plainest form there is.
#ifndef RULES_MODEL_H
#define RULES_MODEL_H

#include "MediaProtocol.h"

#include <optional>
#include <string>
#include <vector>

// Knows nothing of the library's code. Everything is in vectors that are searched from the front. How
// the driver, the pipes and the application's handler behave is the affair of who derives from it.
class CRulesModel
{
public:
    enum class Place
    {
        QueuedPlay,
        QueuedRecord,
        ActivePlay,
        ActiveRecord,
        NextPlay, // these three in the hands of the event thread
        NextRecord,
        Overdue
    };
    static constexpr int NORESPONSE = 16;
    static constexpr int REFUSED = 34;
    static constexpr int PIPEREAD = 44;
    static constexpr int PIPEWRITE = 45;
    static constexpr int NOTCONNECTED = 47;
    static constexpr int ANSWERS_READ = 5;

    static constexpr int NO_HANDLER = -1;
    static constexpr uint32_t DEFAULT_TIMEOUT = 0xFFFFFFFFu;
    struct CCommand
    {
        structMICMD request = {};
        int nStreamID = 0;
        int nHandler = NO_HANDLER; // a number for whom it is reported to
        bool bDone = true;
        uint32_t nTimeout = DEFAULT_TIMEOUT;
        uint64_t ullDeadline = 0;
        bool bUntold = false; // its event did not fit into the event pipe
        Place place = Place::QueuedPlay;
        uint64_t ullEntered = 0; // a number that grows: which came to its place first
    };
    struct CStream
    {
        int nStreamID;
        int nObject;
    };
    struct CObject // what the event thread may change in a stream
    {
        bool bInitialized = false;
        uint64_t ullPlayStart = 0;
        uint64_t ullPlayElapsed = 0;
    };
    struct CFile
    {
        int nID;
        std::string strName;
        int nUseCount;
        int nDriverID;
    };

    CRulesModel(int nObjects, uint64_t ullTick);
    virtual ~CRulesModel() = default;
    CRulesModel(const CRulesModel&) = delete;
    CRulesModel& operator=(const CRulesModel&) = delete;

    // The operations of CMIntf, with what they return.
    int send(CCommand command, bool bUsePlayQueue, structMIRSP& rsp);
    void setDone(int nStreamID, int nHandler);
    int cancel(int nStreamID, uint32_t nType);
    int openStream(int nObject, const std::string& strCallID, uint32_t nLegID, int& nStreamID);
    int closeStream(int nStreamID);
    void forgetStream(int nStreamID);
    int openFile(const std::string& strName, int& nFileID);
    int closeFile(int nFileID);
    int driverFile(int nFileID) const;
    void reopen();
    int ping();
    void clearActive(int nStatus);
    void clearQueues();
    void dropQueue(Place place, int nStreamID);
    void loseConnection();
    void finalize();
    // The event thread has read a completion, or has a quiet second.
    void done(const structMIEVT& evt);
    void idle(bool bDriverThere);

    std::vector<const CCommand*> at(Place place, int nStreamID) const; // in order of entry
    std::vector<const CCommand*> byDeadline() const;
    CStream* stream(int nStreamID);

    // What can be seen from outside.
    std::vector<CCommand> m_vCommands;
    std::vector<int> m_vPlayLists; // streams that have a list, which may be empty
    std::vector<int> m_vRecordLists;
    std::vector<CStream> m_vStreams;
    std::vector<CObject> m_vObjects;
    std::vector<CFile> m_vFiles; // ascending
    std::string m_strResponsePipe;
    std::string m_strEventPipe;
    int m_nNextFileID = 1;
    uint32_t m_nNextSequenceNo = 1;
    int m_nConnectID = -1;
    bool m_bRequestPipe = false;
    bool m_bEventPipe = true;
    uint64_t m_ullTick;
    uint64_t m_ullLastResponse;
    int m_nIdleCount = 0;

protected:
    struct COutcome
    {
        int nStatus;
        bool bLost; // everything is cleared then
    };

    // The exchange of a request, with the response that the caller is given.
    virtual COutcome exchange(const structMICMD& request, structMIRSP& rsp) = 0;
    // The library writes into its event pipe: whether there is room.
    virtual bool sendEvent(const structMIEVT& evt) = 0;
    virtual void tell(const CCommand& command, int nStatus, int nReason) = 0;
    virtual void alarm() = 0;

private:
    int request(const structMICMD& request, structMIRSP& rsp);
    void clearAfter(int nStatus);

    void enter(CCommand command, Place place);
    CCommand* entered(uint64_t ullEntered);
    void removeEntered(uint64_t ullEntered);
    CCommand* active(Place place, int nStreamID);
    CCommand* lastQueued(Place place, int nStreamID);
    std::optional<CCommand> takeFirst(Place place, int nStreamID);
    void dropActive(Place place, int nStreamID);
    std::vector<CCommand> activeByStream(Place place) const;

    bool connect();
    void sweep();
    bool takeNext(Place queue, Place next, int nStreamID);
    void startNext(Place queue, Place next, int nStreamID);
    void reportUntold();
    void report(const CCommand& command, int nStatus);
    void markInvalid(int nStreamID);
    void freezeTime(int nStreamID);

    uint64_t m_ullNextEntry = 0;
};

#endif
