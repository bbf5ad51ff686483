// CHostileModel: foretells what the library has to make of the bytes in its pipes.
#ifndef HOSTILE_MODEL_H
#define HOSTILE_MODEL_H

#include "BytePipe.h"
#include "HostileDriver.h"

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

// The driver's part of one exchange: the request that it must find in the request pipe, and what it
// writes at each wait of the library.
struct CPlannedExchange
{
    MICMD micmd;
    int32_t nConnectID;
    uint32_t nSequenceNo;
    std::vector<std::vector<uint8_t>> vWaits;
    bool bTimeOut; // the last wait is in vain
};

struct CPlannedReport
{
    int nToken; // whose handler is told
    int nStreamID;
    int nStatus;
    int nReason;
    bool operator==(const CPlannedReport&) const = default;
};

class CHostileModel
{
public:
    enum Side
    {
        Play,
        Record
    };
    struct CCommand
    {
        structMICMD request = {};
        int nStreamID = 0;
        int nToken = -1; // of its handler; -1 for none
        bool bDone = true;
        uint32_t nTimeout = 0xFFFFFFFFu;
        uint64_t ullDeadline = 0;
        uint64_t ullEntered = 0;
    };
    struct CSideState
    {
        std::map<int, CCommand> mapActive;
        std::map<int, std::deque<CCommand>> mapQueue;
    };
    struct CObject // a stream as the application has it
    {
        bool bExists = false;
        bool bOpened = false;
        bool bInitialized = false;
        int nStreamID = -1;
    };
    static const int OBJECTS = 6;
    struct CFile
    {
        std::string strName;
        int nUseCount;
        int nDriverID;
    };

    CHostileModel(CHostileDriver& driver, uint64_t ullTick)
        : m_ullTick(ullTick), m_ullLastResponse(ullTick), m_driver(driver)
    {
    }

    // The operations of CMIntf, with what they return.
    int send(CCommand command, bool bUsePlayQueue, structMIRSP& rsp);
    int request(MICMD micmd, structMIRSP& rsp, int nStreamID = 0);
    int setDone(int nStreamID, int nToken);
    int cancel(int nStreamID);
    int openStream(int nObject);
    void destroyObject(int nObject);
    int closeStream(int nStreamID);
    int openFile(const std::string& strName, int& nFileID);
    int closeFile(int nFileID);
    // The event thread reads all that is in the event pipe, or has a quiet second.
    void readEvents();
    void idle();

    std::vector<CRunning> running() const;
    bool isTokenUsed(int nToken) const;

    CBytePipe m_pipeResponse;
    CBytePipe m_pipeEvent;
    bool m_bRequestPipe = false; // the library has it open
    bool m_bDriver = true;       // the driver has it open
    int m_nConnectID = -1;
    uint32_t m_nNextSequenceNo = 1;
    uint64_t m_ullTick;
    uint64_t m_ullLastResponse;
    CSideState m_aSides[2];
    std::map<int, int> m_mapObjectByStream;
    CObject m_aObjects[OBJECTS];
    std::map<int, CFile> m_mapFiles;

    // What the library is to do, in order; emptied by whoever compares it.
    std::vector<CPlannedExchange> m_vExchanges;
    std::vector<CPlannedReport> m_vReports;

private:
    struct COutcome
    {
        int nStatus;
        bool bLost;
    };

    COutcome exchange(const structMICMD& request, structMIRSP& rsp);
    COutcome readAnswers(const structMICMD& request, structMIRSP& rsp);
    void forgetStream(int nStreamID);
    void clearAfter(int nStatus);
    void clearActive(int nStatus);
    void dropQueues(int nStreamID);
    void done(const structMIEVT& evt);
    std::optional<CCommand> takeNext(Side side, int nStreamID);
    void startNext(Side side, std::optional<CCommand> command);
    void report(const CCommand& command, int nStatus);
    void sweep();
    void reopenFiles();

    CHostileDriver& m_driver;
    uint64_t m_ullEntered = 0;
    int m_nNextFileID = 1;
};

#endif
