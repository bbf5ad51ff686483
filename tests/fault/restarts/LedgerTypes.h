// What the ledger knows of a stream, a command and a thread.
#ifndef LEDGER_TYPES_H
#define LEDGER_TYPES_H

#include "Ledger.h"

struct CLedger::CStream
{
    CZelMediaStream* pStream = nullptr;
    bool bOpen = true;
    bool bCloseAtCompletion = false;
    bool bStepsReported = false; // a cancel or a recording has made the last step one to be reported
    int nReportable = 0;         // commands alive, plain recordings left out
};

struct CLedger::CCommand
{
    std::shared_ptr<CStream> pStream;
    int nStreamID = 0;
    unsigned long nSequenceNo = 0; // of its request, 0 if none went out
    CHandler::MCCOMPLETION_REASON reason = CHandler::MCCR_PLAY;
    bool bPlain = false; // a recording on the record side
    bool bStep = false;
    int nTag = 0;
    bool bAccepted = false;
    bool bActive = false;
    bool bToBeTold = false;           // a request was given up while it was active
    const CThread* pLostBy = nullptr; // the thread that lost the pipes while it was queued
    bool bEnded = false;
    bool bRefused = false;
    bool bCompleted = false;
};

struct CLedger::CCall::CMade
{
    std::vector<CCommandPtr> vCommands;
};

// What a thread is about in the library.
struct CLedger::CThread
{
    CCall* pCall = nullptr;
    CCommandPtr pGoingOut;        // has become active, its request is not written yet
    unsigned long nRequestNo = 0; // of the request that is going on
    bool bInSetDone = false;      // the library makes a command of its own
    bool bPipeFailed = false;     // a request could not be written or was not answered
    bool bEvent = false;          // an event has been read: its stream, number and status
    int nEventStream = 0;
    unsigned long nEventSequenceNo = 0;
    int nEventStatus = 0;
    bool bMustFail = false; // a queue was dropped: its next command has to be reported as failed
    bool bInHandler = false;
    bool bTold = false;             // a completion was delivered, its command is not destroyed yet
    std::shared_ptr<CStream> pTold; // to this stream, null if there is no such one
    MCSTATUS mcstatusTold = 0;
    CHandler::MCCOMPLETION_REASON reasonTold = CHandler::MCCR_OTHER;
};

#endif
