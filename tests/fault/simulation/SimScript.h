// The vocabulary of a simulation: operations, and what the library does to the world while it runs one.
#ifndef SIM_SCRIPT_H
#define SIM_SCRIPT_H

#include "MediaProtocol.h"

#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

// One call of an operation of CMIntf, or something that happens outside of it.
struct CSimOperation
{
    enum Kind
    {
        Send,         // a request of an application: play, record, query
        SetDone,      //
        Cancel,       //
        OpenStream,   //
        CloseStream,  //
        OpenFile,     //
        CloseFile,    //
        MapFile,      //
        Reopen,       //
        Ping,         //
        ClearActive,  //
        ClearQueues,  //
        ClearPlay,    //
        ClearRecord,  //
        DriverEvent,  // the driver writes an event
        DeliverEvent, // the event thread reads one
        Idle,         // time goes by, and the event thread has a quiet second
        LoseDriver    // the connection is dropped from outside
    };

    Kind kind = Idle;
    int nStreamID = 0;
    structMICMD request = {};
    uint32_t nTimeout = 0;
    int nNoDone = 0;
    bool bHandler = true;
    int bUsePlayQueue = 0;
    int nArgument = 0; // cancel type, file id, leg id, result
    int nObject = 0;   // the stream object that openStream registers
    std::string strName;
    structMIEVT evt = {};
    uint64_t ullAdvance = 0;   // Idle: milliseconds that go by before
    bool bDriverThere = false; // Idle: whether the request pipe can be opened
};

std::string toString(const CSimOperation& operation);

// What an operation gives back: its status and, where there is one, an id or a response word.
struct CSimResult
{
    int nStatus = 0;
    int nValue = 0;
    bool operator==(const CSimResult&) const = default;
};

// One thing that the library does while an operation runs, with what it gets back for it.
struct CSimAct
{
    enum Kind
    {
        WriteRequest, // the record has to be this one
        WaitResponse,
        ReadResponse,
        WriteEvent, // the record has to be this one
        Alarm,
        Report // a completion: stream, status, reason; the handler may call an operation
    };
    struct CCallBack
    {
        CSimOperation operation;
        CSimResult result;
    };

    Kind kind = Alarm;
    structMICMD request = {};
    structMIRSP rsp = {};
    structMIEVT evt = {};
    ssize_t nOutcome = 0;    // what the system call returns
    int nError = 0;          // errno for it
    uint64_t ullAdvance = 0; // milliseconds that the wait takes
    int nStreamID = 0;
    int nStatus = 0;
    int nReason = 0;
    std::shared_ptr<CCallBack> pCallBack;
};

typedef std::vector<CSimAct> CSimScript;

std::string toString(const CSimAct& act);

#endif
