// How operations and acts read in the report of a failure.
#include "SimScript.h"

#include <cstdio>

namespace
{
const char* const KIND_NAMES[] = {"send",          "setDone",     "cancel",     "openStream",  "closeStream",
                                  "openFile",      "closeFile",   "mapFile",    "reopen",      "ping",
                                  "clearActive",   "clearQueues", "clearPlay",  "clearRecord", "driver event",
                                  "deliver event", "idle",        "lose driver"};

template <class... ARGUMENTS> std::string text(const char* pszFormat, ARGUMENTS... arguments)
{
    char szText[512];
    snprintf(szText, sizeof(szText), pszFormat, arguments...);
    return szText;
}

std::string toString(const structMIEVT& evt)
{
    return text("{event %d, stream %d, number %u, status %d}", evt.s_mievt, evt.nStreamID, evt.nSequenceID,
                evt.s_mcstatus);
}

std::string toString(const structMICMD& request)
{
    return text("{%s, connection %d, number %u, stream or file %d, then %u}", MICMDToString(request.s_micmd),
                request.nConnectID, request.nSequenceNo, request.stream.nStreamID, request.cancel.nCancelType);
}
} // namespace

std::string toString(const CSimOperation& operation)
{
    const std::string strKind = KIND_NAMES[operation.kind];
    switch (operation.kind)
    {
    case CSimOperation::Send:
        return strKind + text(" %s, stream %d, timeout %u, no done %d, handler %d, play queue %d",
                              MICMDToString(operation.request.s_micmd), operation.nStreamID, operation.nTimeout,
                              operation.nNoDone, operation.bHandler, operation.bUsePlayQueue);
    case CSimOperation::SetDone: return strKind + text(" %d, handler %d", operation.nStreamID, operation.bHandler);
    case CSimOperation::Cancel: return strKind + text(" %d, type %d", operation.nStreamID, operation.nArgument);
    case CSimOperation::OpenStream:
        return strKind +
               text(" '%.40s', leg %d, object %d", operation.strName.c_str(), operation.nArgument, operation.nObject);
    case CSimOperation::CloseStream:
    case CSimOperation::ClearPlay:
    case CSimOperation::ClearRecord: return strKind + text(" %d", operation.nStreamID);
    case CSimOperation::OpenFile: return strKind + text(" '%.40s'", operation.strName.c_str());
    case CSimOperation::CloseFile:
    case CSimOperation::MapFile:
    case CSimOperation::ClearActive: return strKind + text(" %d", operation.nArgument);
    case CSimOperation::DriverEvent:
    case CSimOperation::DeliverEvent: return strKind + " " + toString(operation.evt);
    case CSimOperation::Idle:
        return strKind + text(" after %llu ms, driver %s", static_cast<unsigned long long>(operation.ullAdvance),
                              operation.bDriverThere ? "there" : "missing");
    default: return strKind;
    }
}

std::string toString(const CSimAct& act)
{
    switch (act.kind)
    {
    case CSimAct::WriteRequest:
        return text("request, gives %d: ", static_cast<int>(act.nOutcome)) + toString(act.request);
    case CSimAct::WaitResponse:
        return text("wait of %llu ms, gives %d", static_cast<unsigned long long>(act.ullAdvance),
                    static_cast<int>(act.nOutcome));
    case CSimAct::ReadResponse:
        return text("response, gives %d: {%s, number %u, result %d}", static_cast<int>(act.nOutcome),
                    MIRSPToString(act.rsp.s_mirsp), act.rsp.nRespSequenceNo, act.rsp.s_nResult);
    case CSimAct::WriteEvent: return text("event, gives %d: ", static_cast<int>(act.nOutcome)) + toString(act.evt);
    case CSimAct::Alarm: return "alarm";
    case CSimAct::Report:
        return text("completion of stream %d, status %d, reason %d", act.nStreamID, act.nStatus, act.nReason) +
               (act.pCallBack ? "; calls " + toString(act.pCallBack->operation) : "");
    }
    return "";
}
