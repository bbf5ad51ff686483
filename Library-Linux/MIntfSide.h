// CMIntf::CSide: what tells the play side of the bookkeeping from the record side. The algorithms
// are the same on both; the containers and the lines in the log are data.
#ifndef MINTF_SIDE_H
#define MINTF_SIDE_H

#include "MIntf.h"

struct CMIntf::CSide
{
    CActiveMap CMIntf::*pmapActive;
    CQueueMap CMIntf::*pmapQueue;
    CCommandOwner CMIntf::*ppcommandNext;
    bool bPlay;

    const char* pszEntering;
    const char* pszQueueing;
    const char* pszCurrentActive;
    const char* pszCalled;
    const char* pszEraseActive;
    const char* pszEraseDeadline;
    const char* pszDeleting;
    const char* pszNotSent; // completion of a queued command that could not be sent
};

#endif
