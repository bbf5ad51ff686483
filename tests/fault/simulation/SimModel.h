// CSimModel: the rules of the driver interface's bookkeeping once more, in the plainest form there is.
#ifndef SIM_MODEL_H
#define SIM_MODEL_H

#include "SimRandom.h"
#include "SimScript.h"

#include <optional>
#include <string>
#include <vector>

// Knows nothing of the library's code. Everything is in vectors that are searched from the front. It
// decides by chance how the driver, the pipes and the application's handler behave, and foretells
// what the library must do then: the script of a step, and the state after it.
class CSimModel
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
    struct CCommand
    {
        structMICMD request = {};
        int nStreamID = 0;
        int bDone = 0;
        uint32_t nTimeout = 0;
        uint64_t ullDeadline = 0;
        bool bHandler = false;
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
        int bInitialized = 0;
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
    static const int OBJECTS = 5;

    CSimModel(std::string strResponsePipe, std::string strEventPipe, uint64_t ullTick);

    // How many of a thousand exchanges go wrong, how many completions call back, and the highest
    // stream id that the driver gives.
    void setMood(unsigned int nFaults, unsigned int nCallBacks, unsigned int nHighestStream);
    unsigned int highestStream() const { return m_nHighestStream; }

    CSimResult apply(const CSimOperation& operation, CSimRandom& random, CSimScript& script);
    void finalize(CSimRandom& random, CSimScript& script);

    std::vector<const CCommand*> at(Place place, int nStreamID) const; // in order of entry
    std::vector<const CCommand*> byDeadline() const;

    // What can be seen from outside.
    std::vector<CCommand> m_vCommands;
    std::vector<int> m_vPlayLists; // streams that have a list, which may be empty
    std::vector<int> m_vRecordLists;
    std::vector<CStream> m_vStreams;
    std::vector<CObject> m_vObjects;
    std::vector<CFile> m_vFiles; // ascending
    std::vector<structMIEVT> m_vEvents;
    int m_nNextFileID = 1;
    uint32_t m_nNextSequenceNo = 1;
    int m_nConnectID = -1;
    bool m_bRequestPipe = false;
    bool m_bEventPipe = true;
    uint64_t m_ullTick;
    uint64_t m_ullLastResponse;
    int m_nIdleCount = 0;

private:
    // Transport
    int sendRequest(const structMICMD& request, structMIRSP& rsp);
    int send(CCommand command, bool bUsePlayQueue, structMIRSP& rsp);
    int exchange(const structMICMD& request, structMIRSP& rsp, bool& bLost);
    int readResponses(const structMICMD& request, structMIRSP& rsp, bool& bLost);
    structMIRSP answerTo(const structMICMD& request);
    structMIRSP lateAnswer(uint32_t nSequenceNo);
    CSimAct& expect(CSimAct::Kind kind);
    void clearAfter(int nStatus);

    // Bookkeeping
    void enter(CCommand command, Place place);
    CCommand* entered(uint64_t ullEntered);
    void removeEntered(uint64_t ullEntered);
    CCommand* active(Place place, int nStreamID);
    CCommand* lastQueued(Place place, int nStreamID);
    std::optional<CCommand> takeFirst(Place place, int nStreamID);
    void dropQueue(Place place, int nStreamID);
    void dropActive(Place place, int nStreamID);
    std::vector<CCommand> activeByStream(Place place) const;
    void setDone(const CSimOperation& operation);
    int cancel(int nStreamID, uint32_t nType);
    bool sendEvent(const structMIEVT& evt);
    void clearActive(int nResult);
    void clearQueues();

    // Event thread
    void idle(const CSimOperation& operation);
    bool connect();
    void sweep();
    void done(const structMIEVT& evt);
    bool takeNext(Place queue, Place next, int nStreamID);
    void startNext(Place queue, Place next, int nStreamID);
    void reportUntold();
    void report(const CCommand& command, int nStatus);
    void markInvalid(int nStreamID);
    void freezeTime(int nStreamID);
    CStream* stream(int nStreamID);

    // Files and streams
    CSimResult applySend(const CSimOperation& operation);
    CSimResult openStream(const CSimOperation& operation);
    int closeStream(int nStreamID);
    CSimResult openFile(const std::string& strName);
    int closeFile(int nFileID);
    int driverFile(int nFileID) const;
    void reopen();

    const std::string m_strResponsePipe;
    const std::string m_strEventPipe;
    unsigned int m_nFaults = 0;
    unsigned int m_nCallBacks = 0;
    unsigned int m_nHighestStream = 1;
    uint64_t m_ullNextEntry = 0;
    CSimRandom* m_pRandom = nullptr;
    CSimScript* m_pScript = nullptr;
};

// What happens next, chosen for the state that the model is in. In a completion handler only what an
// application may do there.
CSimOperation chooseOperation(const CSimModel& model, CSimRandom& random, bool bInHandler);

#endif
