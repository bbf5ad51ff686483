// The model's containers, and the operations of an application on them.
#include "SimModel.h"

#include <algorithm>
#include <cstring>

namespace
{
const uint32_t DEFAULT_TIMEOUT = 0xFFFFFFFFu;

template <class T> void removeValue(std::vector<T>& vValues, T value)
{
    vValues.erase(std::remove(vValues.begin(), vValues.end(), value), vValues.end());
}

template <size_t SIZE> void fill(char (&szField)[SIZE], const std::string& strText)
{
    strncpy(szField, strText.c_str(), SIZE - 1);
    szField[SIZE - 1] = '\0';
}
} // namespace

CSimModel::CSimModel(std::string strResponsePipe, std::string strEventPipe, uint64_t ullTick)
    : m_vObjects(OBJECTS), m_ullTick(ullTick), m_ullLastResponse(ullTick),
      m_strResponsePipe(std::move(strResponsePipe)), m_strEventPipe(std::move(strEventPipe))
{
}

void CSimModel::setMood(unsigned int nFaults, unsigned int nCallBacks, unsigned int nHighestStream)
{
    m_nFaults = nFaults;
    m_nCallBacks = nCallBacks;
    m_nHighestStream = nHighestStream;
}

CSimResult CSimModel::apply(const CSimOperation& operation, CSimRandom& random, CSimScript& script)
{
    m_pRandom = &random;
    m_pScript = &script;
    structMIRSP rsp;
    switch (operation.kind)
    {
    case CSimOperation::Send: return applySend(operation);
    case CSimOperation::SetDone: setDone(operation); break;
    case CSimOperation::Cancel: return {cancel(operation.nStreamID, static_cast<uint32_t>(operation.nArgument)), 0};
    case CSimOperation::OpenStream: return openStream(operation);
    case CSimOperation::CloseStream: return {closeStream(operation.nStreamID), 0};
    case CSimOperation::OpenFile: return openFile(operation.strName);
    case CSimOperation::CloseFile: return {closeFile(operation.nArgument), 0};
    case CSimOperation::MapFile: return {0, driverFile(operation.nArgument)};
    case CSimOperation::Reopen: reopen(); break;
    case CSimOperation::Ping: return {sendRequest({MICMD_PING, m_nConnectID, 0, {}}, rsp), 0};
    case CSimOperation::ClearActive: clearActive(operation.nArgument); break;
    case CSimOperation::ClearQueues: clearQueues(); break;
    case CSimOperation::ClearPlay: dropQueue(Place::QueuedPlay, operation.nStreamID); break;
    case CSimOperation::ClearRecord: dropQueue(Place::QueuedRecord, operation.nStreamID); break;
    case CSimOperation::DriverEvent: m_vEvents.push_back(operation.evt); break;
    case CSimOperation::DeliverEvent:
        m_vEvents.erase(m_vEvents.begin());
        if (operation.evt.s_mievt == MIEVT_DONE)
            done(operation.evt);
        break;
    case CSimOperation::Idle: idle(operation); break;
    case CSimOperation::LoseDriver:
        m_bRequestPipe = false;
        m_nConnectID = -1;
        break;
    }
    return {};
}

void CSimModel::finalize(CSimRandom& random, CSimScript& script)
{
    m_pRandom = &random;
    m_pScript = &script;
    sendEvent({MIEVT_NULL, 0, 0, 0});
    m_bEventPipe = false;
    clearActive(0);
    clearQueues();
    structMIRSP rsp;
    if (m_nConnectID != -1)
        sendRequest({MICMD_DISCONNECT, m_nConnectID, 0, {}}, rsp);
}

// A play starts the clock of its stream, as the stream's own operations do.
CSimResult CSimModel::applySend(const CSimOperation& operation)
{
    CCommand command;
    command.request = operation.request;
    command.nStreamID = operation.nStreamID;
    command.bDone = operation.nNoDone == 0;
    command.nTimeout = operation.nTimeout;
    command.bHandler = operation.bHandler;
    structMIRSP rsp;
    const int nStatus = send(command, operation.bUsePlayQueue != 0, rsp);
    const MICMD micmd = operation.request.s_micmd;
    CStream* const pStream = stream(operation.nStreamID);
    if (nStatus == 0 && (micmd == MICMD_PLAYCLIP || micmd == MICMD_PLAYFILE) && pStream)
        m_vObjects[static_cast<size_t>(pStream->nObject)].ullPlayStart = m_ullTick;
    return {nStatus, nStatus == 0 ? rsp.s_nResult : 0};
}

void CSimModel::enter(CCommand command, Place place)
{
    command.place = place;
    command.ullEntered = m_ullNextEntry++;
    if (place == Place::ActivePlay || place == Place::ActiveRecord)
    {
        command.request.nSequenceNo = m_nNextSequenceNo++;
        const uint32_t nMilliseconds = command.nTimeout == DEFAULT_TIMEOUT ? 300000u : command.nTimeout * 1000u;
        command.ullDeadline = m_ullTick + nMilliseconds;
    }
    else
    {
        std::vector<int>& vLists = place == Place::QueuedPlay ? m_vPlayLists : m_vRecordLists;
        if (std::find(vLists.begin(), vLists.end(), command.nStreamID) == vLists.end())
            vLists.push_back(command.nStreamID);
    }
    m_vCommands.push_back(command);
}

CSimModel::CCommand* CSimModel::entered(uint64_t ullEntered)
{
    for (CCommand& command : m_vCommands)
        if (command.ullEntered == ullEntered)
            return &command;
    return nullptr;
}

void CSimModel::removeEntered(uint64_t ullEntered)
{
    if (const CCommand* const pCommand = entered(ullEntered))
        m_vCommands.erase(m_vCommands.begin() + (pCommand - m_vCommands.data()));
}

CSimModel::CCommand* CSimModel::active(Place place, int nStreamID)
{
    for (CCommand& command : m_vCommands)
        if (command.place == place && command.nStreamID == nStreamID)
            return &command;
    return nullptr;
}

CSimModel::CCommand* CSimModel::lastQueued(Place place, int nStreamID)
{
    CCommand* pLast = nullptr;
    for (CCommand& command : m_vCommands)
        if (command.place == place && command.nStreamID == nStreamID)
            pLast = &command;
    return pLast;
}

std::optional<CSimModel::CCommand> CSimModel::takeFirst(Place place, int nStreamID)
{
    const CCommand* const pFirst = active(place, nStreamID);
    if (!pFirst)
        return std::nullopt;
    const CCommand command = *pFirst;
    removeEntered(command.ullEntered);
    return command;
}

void CSimModel::dropQueue(Place place, int nStreamID)
{
    dropActive(place, nStreamID);
    removeValue(place == Place::QueuedPlay ? m_vPlayLists : m_vRecordLists, nStreamID);
}

void CSimModel::dropActive(Place place, int nStreamID)
{
    while (const CCommand* const pCommand = active(place, nStreamID))
        removeEntered(pCommand->ullEntered);
}

std::vector<const CSimModel::CCommand*> CSimModel::at(Place place, int nStreamID) const
{
    std::vector<const CCommand*> vFound;
    for (const CCommand& command : m_vCommands)
        if (command.place == place && command.nStreamID == nStreamID)
            vFound.push_back(&command);
    return vFound;
}

std::vector<const CSimModel::CCommand*> CSimModel::byDeadline() const
{
    std::vector<const CCommand*> vActive;
    for (const CCommand& command : m_vCommands)
        if (command.place == Place::ActivePlay || command.place == Place::ActiveRecord)
            vActive.push_back(&command);
    std::stable_sort(vActive.begin(), vActive.end(),
                     [](const CCommand* p1, const CCommand* p2) { return p1->ullDeadline < p2->ullDeadline; });
    return vActive;
}

std::vector<CSimModel::CCommand> CSimModel::activeByStream(Place place) const
{
    std::vector<CCommand> vActive;
    for (const CCommand& command : m_vCommands)
        if (command.place == place)
            vActive.push_back(command);
    std::sort(vActive.begin(), vActive.end(), [](const CCommand& command1, const CCommand& command2) {
        return command1.nStreamID < command2.nStreamID;
    });
    return vActive;
}

void CSimModel::setDone(const CSimOperation& operation)
{
    const int nStreamID = operation.nStreamID;
    CCommand* const pPlay = active(Place::ActivePlay, nStreamID);
    bool bCreate = true;
    for (CCommand* const pCommand :
         {lastQueued(Place::QueuedRecord, nStreamID), active(Place::ActiveRecord, nStreamID),
          lastQueued(Place::QueuedPlay, nStreamID), pPlay, active(Place::NextPlay, nStreamID),
          active(Place::NextRecord, nStreamID), active(Place::Overdue, nStreamID)})
    {
        if (!pCommand)
            continue;
        pCommand->bDone = 1;
        bCreate = false;
    }
    if (!bCreate)
        return;
    CCommand command;
    command.nStreamID = nStreamID;
    command.bDone = 1;
    command.nTimeout = DEFAULT_TIMEOUT;
    command.bHandler = operation.bHandler;
    const uint32_t nSequenceNo = m_nNextSequenceNo;
    enter(command, Place::ActivePlay);
    m_vCommands.back().bUntold = !sendEvent({MIEVT_DONE, nStreamID, nSequenceNo, 0});
}

int CSimModel::cancel(int nStreamID, uint32_t nType)
{
    dropQueue(Place::QueuedPlay, nStreamID);
    CCommand* const pCommand = active(Place::ActivePlay, nStreamID);
    if (!pCommand)
        return 0;
    pCommand->bDone = 1;
    structMICMD request = {MICMD_CANCEL, m_nConnectID, 0, {}};
    request.cancel = {nStreamID, nType};
    structMIRSP rsp;
    return sendRequest(request, rsp);
}

bool CSimModel::sendEvent(const structMIEVT& evt)
{
    if (!m_bEventPipe)
        return false;
    CSimAct& act = expect(CSimAct::WriteEvent);
    act.evt = evt;
    const bool bFails = m_pRandom->perMille(m_nFaults / 2);
    act.nOutcome = bFails ? -1 : static_cast<ssize_t>(sizeof(evt));
    act.nError = bFails ? EAGAIN : 0;
    if (!bFails)
        m_vEvents.push_back(evt);
    return !bFails;
}

// Who cannot be told goes at once, and with it the other side of its stream.
void CSimModel::clearActive(int nResult)
{
    std::vector<CCommand> vUntold;
    for (const Place place : {Place::ActivePlay, Place::ActiveRecord})
    {
        for (const CCommand& command : activeByStream(place))
            if (!sendEvent({MIEVT_DONE, command.nStreamID, command.request.nSequenceNo, nResult}))
                vUntold.push_back(command);
    }
    for (const CCommand& command : vUntold)
    {
        dropActive(Place::ActivePlay, command.nStreamID);
        dropActive(Place::ActiveRecord, command.nStreamID);
    }
}

void CSimModel::clearQueues()
{
    for (size_t n = m_vCommands.size(); n-- > 0;)
        if (m_vCommands[n].place == Place::QueuedPlay || m_vCommands[n].place == Place::QueuedRecord)
            removeEntered(m_vCommands[n].ullEntered);
    m_vPlayLists.clear();
    m_vRecordLists.clear();
}

CSimResult CSimModel::openStream(const CSimOperation& operation)
{
    structMICMD request = {MICMD_OPENSTREAM, m_nConnectID, 0, {}};
    fill(request.openStream.szCallID, operation.strName);
    request.openStream.nLegID = static_cast<uint32_t>(operation.nArgument);
    structMIRSP rsp;
    const int nStatus = sendRequest(request, rsp);
    if (nStatus != 0)
        return {nStatus, -1};
    const int nStreamID = rsp.s_nStreamID;
    if (CStream* const pStream = stream(nStreamID))
        pStream->nObject = operation.nObject;
    else
        m_vStreams.push_back({nStreamID, operation.nObject});
    m_vObjects[static_cast<size_t>(operation.nObject)].bInitialized = 1;
    return {0, nStreamID};
}

int CSimModel::closeStream(int nStreamID)
{
    dropQueue(Place::QueuedPlay, nStreamID);
    dropQueue(Place::QueuedRecord, nStreamID);
    if (const CStream* const pStream = stream(nStreamID))
        m_vStreams.erase(m_vStreams.begin() + (pStream - m_vStreams.data()));
    for (const Place place :
         {Place::ActivePlay, Place::ActiveRecord, Place::NextPlay, Place::NextRecord, Place::Overdue})
        dropActive(place, nStreamID);
    structMICMD request = {MICMD_CLOSESTREAM, m_nConnectID, 0, {}};
    request.stream.nStreamID = nStreamID;
    structMIRSP rsp;
    return sendRequest(request, rsp);
}

CSimModel::CStream* CSimModel::stream(int nStreamID)
{
    for (CStream& stream : m_vStreams)
        if (stream.nStreamID == nStreamID)
            return &stream;
    return nullptr;
}

CSimResult CSimModel::openFile(const std::string& strName)
{
    for (CFile& file : m_vFiles)
    {
        if (file.strName == strName)
        {
            ++file.nUseCount;
            return {0, file.nID};
        }
    }
    structMICMD request = {MICMD_OPENFILE, m_nConnectID, 0, {}};
    fill(request.openFile.szFileName, strName);
    structMIRSP rsp;
    const int nStatus = sendRequest(request, rsp);
    m_vFiles.push_back({m_nNextFileID, strName, 1, nStatus == 0 ? rsp.s_nFileID : -1});
    return {nStatus, m_nNextFileID++};
}

int CSimModel::closeFile(int nFileID)
{
    for (size_t n = 0; n < m_vFiles.size(); ++n)
    {
        if (m_vFiles[n].nID != nFileID)
            continue;
        if (--m_vFiles[n].nUseCount > 0)
            return 0;
        const int nDriverID = m_vFiles[n].nDriverID;
        m_vFiles.erase(m_vFiles.begin() + static_cast<std::ptrdiff_t>(n));
        if (nDriverID == -1)
            return 0;
        structMICMD request = {MICMD_CLOSEFILE, m_nConnectID, 0, {}};
        request.closeFile.nFileID = nDriverID;
        structMIRSP rsp;
        return sendRequest(request, rsp);
    }
    return 0;
}

int CSimModel::driverFile(int nFileID) const
{
    for (const CFile& file : m_vFiles)
        if (file.nID == nFileID)
            return file.nDriverID;
    return -1;
}

void CSimModel::reopen()
{
    for (CFile& file : m_vFiles)
    {
        structMICMD request = {MICMD_OPENFILE, m_nConnectID, 0, {}};
        fill(request.openFile.szFileName, file.strName);
        structMIRSP rsp;
        if (sendRequest(request, rsp) != 0)
        {
            for (CFile& fileLost : m_vFiles)
                fileLost.nDriverID = -1;
            return;
        }
        file.nDriverID = rsp.s_nFileID;
    }
}
