// The model's containers, and the operations of an application on them.
#include "RulesModel.h"

#include <algorithm>
#include <cstring>

namespace
{
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

CRulesModel::CRulesModel(int nObjects, uint64_t ullTick)
    : m_vObjects(static_cast<size_t>(nObjects)), m_ullTick(ullTick), m_ullLastResponse(ullTick)
{
}

int CRulesModel::request(const structMICMD& request, structMIRSP& rsp)
{
    CCommand command;
    command.request = request;
    return send(command, false, rsp);
}

int CRulesModel::send(CCommand command, bool bUsePlayQueue, structMIRSP& rsp)
{
    const MICMD micmd = command.request.s_micmd;
    const int nStreamID = command.nStreamID;
    rsp = {};
    if (m_nConnectID == -1 && micmd != MICMD_CONNECT)
        return NOTCONNECTED;

    uint64_t ullEntered = UINT64_MAX; // of an immediate command: that of none
    const bool bPlay = bUsePlayQueue || micmd == MICMD_PLAYCLIP || micmd == MICMD_PLAYFILE;
    if (m_nConnectID != -1 && (bPlay || micmd == MICMD_RECORDFILE))
    {
        if (active(bPlay ? Place::ActivePlay : Place::ActiveRecord, nStreamID))
        {
            enter(command, bPlay ? Place::QueuedPlay : Place::QueuedRecord);
            return 0;
        }
        ullEntered = m_ullNextEntry;
        enter(command, bPlay ? Place::ActivePlay : Place::ActiveRecord);
        command.request.nSequenceNo = m_vCommands.back().request.nSequenceNo;
    }
    else
        command.request.nSequenceNo = m_nNextSequenceNo++;

    m_ullLastResponse = 0;
    const COutcome outcome = exchange(command.request, rsp);
    if (outcome.nStatus != 0)
        removeEntered(ullEntered);
    if (outcome.bLost)
        clearAfter(outcome.nStatus);
    return outcome.nStatus;
}

void CRulesModel::clearAfter(int nStatus)
{
    if (nStatus != NORESPONSE)
    {
        loseConnection();
        clearQueues();
        clearActive(nStatus);
    }
    clearQueues();
    clearActive(nStatus);
}

void CRulesModel::loseConnection()
{
    m_bRequestPipe = false;
    m_nConnectID = -1;
}

void CRulesModel::finalize()
{
    sendEvent({MIEVT_NULL, 0, 0, 0});
    m_bEventPipe = false;
    clearActive(0);
    clearQueues();
    structMIRSP rsp;
    if (m_nConnectID != -1)
        request({MICMD_DISCONNECT, m_nConnectID, 0, {}}, rsp);
}

int CRulesModel::ping()
{
    structMIRSP rsp;
    return request({MICMD_PING, m_nConnectID, 0, {}}, rsp);
}

void CRulesModel::enter(CCommand command, Place place)
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

CRulesModel::CCommand* CRulesModel::entered(uint64_t ullEntered)
{
    for (CCommand& command : m_vCommands)
        if (command.ullEntered == ullEntered)
            return &command;
    return nullptr;
}

void CRulesModel::removeEntered(uint64_t ullEntered)
{
    if (const CCommand* const pCommand = entered(ullEntered))
        m_vCommands.erase(m_vCommands.begin() + (pCommand - m_vCommands.data()));
}

CRulesModel::CCommand* CRulesModel::active(Place place, int nStreamID)
{
    for (CCommand& command : m_vCommands)
        if (command.place == place && command.nStreamID == nStreamID)
            return &command;
    return nullptr;
}

CRulesModel::CCommand* CRulesModel::lastQueued(Place place, int nStreamID)
{
    CCommand* pLast = nullptr;
    for (CCommand& command : m_vCommands)
        if (command.place == place && command.nStreamID == nStreamID)
            pLast = &command;
    return pLast;
}

std::optional<CRulesModel::CCommand> CRulesModel::takeFirst(Place place, int nStreamID)
{
    const CCommand* const pFirst = active(place, nStreamID);
    if (!pFirst)
        return std::nullopt;
    const CCommand command = *pFirst;
    removeEntered(command.ullEntered);
    return command;
}

void CRulesModel::dropQueue(Place place, int nStreamID)
{
    dropActive(place, nStreamID);
    removeValue(place == Place::QueuedPlay ? m_vPlayLists : m_vRecordLists, nStreamID);
}

void CRulesModel::dropActive(Place place, int nStreamID)
{
    while (const CCommand* const pCommand = active(place, nStreamID))
        removeEntered(pCommand->ullEntered);
}

std::vector<const CRulesModel::CCommand*> CRulesModel::at(Place place, int nStreamID) const
{
    std::vector<const CCommand*> vFound;
    for (const CCommand& command : m_vCommands)
        if (command.place == place && command.nStreamID == nStreamID)
            vFound.push_back(&command);
    return vFound;
}

std::vector<const CRulesModel::CCommand*> CRulesModel::byDeadline() const
{
    std::vector<const CCommand*> vActive;
    for (const CCommand& command : m_vCommands)
        if (command.place == Place::ActivePlay || command.place == Place::ActiveRecord)
            vActive.push_back(&command);
    std::stable_sort(vActive.begin(), vActive.end(),
                     [](const CCommand* p1, const CCommand* p2) { return p1->ullDeadline < p2->ullDeadline; });
    return vActive;
}

std::vector<CRulesModel::CCommand> CRulesModel::activeByStream(Place place) const
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

void CRulesModel::setDone(int nStreamID, int nHandler)
{
    CCommand* const pPlay = active(Place::ActivePlay, nStreamID);
    bool bCreate = true;
    for (CCommand* const pCommand :
         {lastQueued(Place::QueuedRecord, nStreamID), active(Place::ActiveRecord, nStreamID),
          lastQueued(Place::QueuedPlay, nStreamID), pPlay, active(Place::NextPlay, nStreamID),
          active(Place::NextRecord, nStreamID), active(Place::Overdue, nStreamID)})
    {
        if (!pCommand)
            continue;
        pCommand->bDone = true;
        bCreate = false;
    }
    if (!bCreate)
        return;
    CCommand command;
    command.nStreamID = nStreamID;
    command.nHandler = nHandler;
    const uint32_t nSequenceNo = m_nNextSequenceNo;
    enter(command, Place::ActivePlay);
    m_vCommands.back().bUntold = !m_bEventPipe || !sendEvent({MIEVT_DONE, nStreamID, nSequenceNo, 0});
}

int CRulesModel::cancel(int nStreamID, uint32_t nType)
{
    dropQueue(Place::QueuedPlay, nStreamID);
    CCommand* const pCommand = active(Place::ActivePlay, nStreamID);
    if (!pCommand)
        return 0;
    pCommand->bDone = true;
    structMICMD cmd = {MICMD_CANCEL, m_nConnectID, 0, {}};
    cmd.cancel = {nStreamID, nType};
    structMIRSP rsp;
    return request(cmd, rsp);
}

// Who cannot be told goes at once, and with it the other side of its stream.
void CRulesModel::clearActive(int nStatus)
{
    std::vector<CCommand> vUntold;
    for (const Place place : {Place::ActivePlay, Place::ActiveRecord})
    {
        for (const CCommand& command : activeByStream(place))
            if (!m_bEventPipe || !sendEvent({MIEVT_DONE, command.nStreamID, command.request.nSequenceNo, nStatus}))
                vUntold.push_back(command);
    }
    for (const CCommand& command : vUntold)
    {
        dropActive(Place::ActivePlay, command.nStreamID);
        dropActive(Place::ActiveRecord, command.nStreamID);
    }
}

void CRulesModel::clearQueues()
{
    for (size_t n = m_vCommands.size(); n-- > 0;)
        if (m_vCommands[n].place == Place::QueuedPlay || m_vCommands[n].place == Place::QueuedRecord)
            removeEntered(m_vCommands[n].ullEntered);
    m_vPlayLists.clear();
    m_vRecordLists.clear();
}

int CRulesModel::openStream(int nObject, const std::string& strCallID, uint32_t nLegID, int& nStreamID)
{
    structMICMD cmd = {MICMD_OPENSTREAM, m_nConnectID, 0, {}};
    fill(cmd.openStream.szCallID, strCallID);
    cmd.openStream.nLegID = nLegID;
    structMIRSP rsp;
    const int nStatus = request(cmd, rsp);
    nStreamID = nStatus == 0 ? rsp.s_nStreamID : -1;
    if (nStatus != 0)
        return nStatus;
    if (CStream* const pStream = stream(nStreamID))
        pStream->nObject = nObject;
    else
        m_vStreams.push_back({nStreamID, nObject});
    m_vObjects[static_cast<size_t>(nObject)].bInitialized = true;
    return 0;
}

void CRulesModel::forgetStream(int nStreamID)
{
    dropQueue(Place::QueuedPlay, nStreamID);
    dropQueue(Place::QueuedRecord, nStreamID);
    if (const CStream* const pStream = stream(nStreamID))
        m_vStreams.erase(m_vStreams.begin() + (pStream - m_vStreams.data()));
    for (const Place place :
         {Place::ActivePlay, Place::ActiveRecord, Place::NextPlay, Place::NextRecord, Place::Overdue})
        dropActive(place, nStreamID);
}

int CRulesModel::closeStream(int nStreamID)
{
    forgetStream(nStreamID);
    structMICMD cmd = {MICMD_CLOSESTREAM, m_nConnectID, 0, {}};
    cmd.stream.nStreamID = nStreamID;
    structMIRSP rsp;
    return request(cmd, rsp);
}

CRulesModel::CStream* CRulesModel::stream(int nStreamID)
{
    for (CStream& stream : m_vStreams)
        if (stream.nStreamID == nStreamID)
            return &stream;
    return nullptr;
}

int CRulesModel::openFile(const std::string& strName, int& nFileID)
{
    for (CFile& file : m_vFiles)
        if (file.strName == strName)
        {
            ++file.nUseCount;
            nFileID = file.nID;
            return 0;
        }
    structMICMD cmd = {MICMD_OPENFILE, m_nConnectID, 0, {}};
    fill(cmd.openFile.szFileName, strName);
    structMIRSP rsp;
    const int nStatus = request(cmd, rsp);
    nFileID = m_nNextFileID++;
    m_vFiles.push_back({nFileID, strName, 1, nStatus == 0 ? rsp.s_nFileID : -1});
    return nStatus;
}

int CRulesModel::closeFile(int nFileID)
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
        structMICMD cmd = {MICMD_CLOSEFILE, m_nConnectID, 0, {}};
        cmd.closeFile.nFileID = nDriverID;
        structMIRSP rsp;
        return request(cmd, rsp);
    }
    return 0;
}

int CRulesModel::driverFile(int nFileID) const
{
    for (const CFile& file : m_vFiles)
        if (file.nID == nFileID)
            return file.nDriverID;
    return -1;
}

void CRulesModel::reopen()
{
    for (CFile& file : m_vFiles)
    {
        structMICMD cmd = {MICMD_OPENFILE, m_nConnectID, 0, {}};
        fill(cmd.openFile.szFileName, file.strName);
        structMIRSP rsp;
        if (request(cmd, rsp) != 0)
        {
            for (CFile& fileLost : m_vFiles)
                fileLost.nDriverID = -1;
            return;
        }
        file.nDriverID = rsp.s_nFileID;
    }
}
