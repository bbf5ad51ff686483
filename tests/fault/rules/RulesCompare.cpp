#include "RulesCompare.h"

#include <algorithm>
#include <cstring>

// One thread, which looks into guarded members without their locks.
#ifdef __clang__
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#pragma clang diagnostic ignored "-Wthread-safety-reference"
#endif

std::string CRulesCompare::compare(const CRulesModel& model)
{
    m_strDifference.clear();
    m_vSeen.clear();
    compareActive(model, CRulesModel::Place::ActivePlay, m_mintf.m_mapActiveCommandByStreamIDPlay);
    compareActive(model, CRulesModel::Place::ActiveRecord, m_mintf.m_mapActiveCommandByStreamIDRecord);
    compareDeadlines(model);
    compareQueues(model, CRulesModel::Place::QueuedPlay, m_mintf.m_mapCommandQueue, model.m_vPlayLists);
    compareQueues(model, CRulesModel::Place::QueuedRecord, m_mintf.m_mapCommandQueueRecord, model.m_vRecordLists);

    std::sort(m_vSeen.begin(), m_vSeen.end());
    if (std::adjacent_find(m_vSeen.begin(), m_vSeen.end()) != m_vSeen.end())
        differs("a command in two places");
    expectEqual(model.m_vCommands.size(), m_vSeen.size(), "commands");

    compareStreams(model);
    compareFiles(model);
    expectEqual(model.m_nNextSequenceNo, m_mintf.m_nNextSequenceNo, "next sequence number");
    expectEqual(model.m_nConnectID, m_mintf.m_nConnectID, "connection id");
    expectEqual(model.m_bRequestPipe, m_mintf.m_npipeReq != -1, "request pipe open");
    expectEqual(model.m_ullLastResponse, m_mintf.m_ullLastResponseTick, "tick of the last response");
    expectEqual(model.m_nIdleCount, m_mintf.m_nIdleCount, "idle passes");
    return m_strDifference;
}

void CRulesCompare::compareCommand(const CRulesModel::CCommand& expected, const CMIntf::CCommand* pcommand,
                                   const char* pszPlace)
{
    m_vSeen.push_back(pcommand);
    const bool bSame = pcommand->m_nStreamID == expected.nStreamID && (pcommand->m_bDone != 0) == expected.bDone &&
                       pcommand->m_nTimeout == expected.nTimeout &&
                       pcommand->m_pcomplHandler == m_handlers(expected.nHandler) &&
                       memcmp(&pcommand->m_cmd, &expected.request, sizeof(expected.request)) == 0;
    if (!bSame)
    {
        differs(std::string(pszPlace) + " command of stream " + std::to_string(expected.nStreamID) + " number " +
                std::to_string(expected.request.nSequenceNo) + " is another one, number " +
                std::to_string(pcommand->m_cmd.nSequenceNo));
    }
}

void CRulesCompare::compareActive(const CRulesModel& model, CRulesModel::Place place,
                                  const std::map<int, CMIntf::CCommand*>& mapActive)
{
    int64_t llExpected = 0;
    for (const CRulesModel::CCommand& command : model.m_vCommands)
        llExpected += command.place == place;
    expectEqual(llExpected, mapActive.size(), "active commands of one side");
    for (const auto& entry : mapActive)
    {
        const std::vector<const CRulesModel::CCommand*> vExpected = model.at(place, entry.first);
        if (vExpected.size() == 1)
            compareCommand(*vExpected.front(), entry.second, "active");
        else
            differs("stream " + std::to_string(entry.first) + " should have nothing active on this side");
    }
}

// Every active command under its own deadline, equal ones in the order in which they became active.
void CRulesCompare::compareDeadlines(const CRulesModel& model)
{
    const std::vector<const CRulesModel::CCommand*> vExpected = model.byDeadline();
    expectEqual(vExpected.size(), m_mintf.m_mmapActiveCommandByTimeout.size(), "deadlines");
    if (!m_strDifference.empty())
        return;
    size_t n = 0;
    for (const auto& entry : m_mintf.m_mmapActiveCommandByTimeout)
    {
        const CRulesModel::CCommand& expected = *vExpected[n++];
        expectEqual(expected.ullDeadline, entry.first, "deadline");
        if (std::find(m_vSeen.begin(), m_vSeen.end(), entry.second) == m_vSeen.end())
            return differs("a deadline of a command that is not active");
        expectEqual(entry.first, entry.second->m_ullTimeoutTick, "deadline in the command");
        expectEqual(expected.request.nSequenceNo, entry.second->m_cmd.nSequenceNo, "order of the deadlines");
    }
}

void CRulesCompare::compareQueues(const CRulesModel& model, CRulesModel::Place place,
                                  const std::map<int, CMIntf::CCommandList*>& mapQueue, const std::vector<int>& vLists)
{
    expectEqual(vLists.size(), mapQueue.size(), "queue lists");
    for (const auto& entry : mapQueue)
    {
        if (!entry.second || std::find(vLists.begin(), vLists.end(), entry.first) == vLists.end())
            return differs("queue list of stream " + std::to_string(entry.first));
        const std::vector<const CRulesModel::CCommand*> vExpected = model.at(place, entry.first);
        expectEqual(vExpected.size(), entry.second->size(), "queued");
        if (!m_strDifference.empty())
            return;
        size_t n = 0;
        for (const CMIntf::CCommand* const pcommand : *entry.second)
            compareCommand(*vExpected[n++], pcommand, "queued");
    }
}

void CRulesCompare::compareStreams(const CRulesModel& model)
{
    const auto& mapStreams = m_mintf.m_mapStreamByStreamID;
    expectEqual(model.m_vStreams.size(), mapStreams.size(), "streams");
    for (const CRulesModel::CStream& stream : model.m_vStreams)
    {
        const auto it = mapStreams.find(stream.nStreamID);
        if (it == mapStreams.end() || it->second != m_objects(stream.nObject))
            differs("object of stream " + std::to_string(stream.nStreamID));
    }
    for (size_t n = 0; n < model.m_vObjects.size(); ++n)
    {
        const CZelMediaStreamImpl* const pObject = m_objects(static_cast<int>(n));
        if (!pObject)
            continue;
        const CRulesModel::CObject& expected = model.m_vObjects[n];
        expectEqual(expected.bInitialized, pObject->m_bInitialized, "stream valid");
        expectEqual(expected.ullPlayStart, pObject->m_ullPlayStartTick, "start of a play");
        expectEqual(expected.ullPlayElapsed, pObject->m_ullPlayElapsed, "time of a play");
    }
}

void CRulesCompare::compareFiles(const CRulesModel& model)
{
    expectEqual(model.m_vFiles.size(), m_mintf.m_mapClipFileByID.size(), "phrase files");
    expectEqual(model.m_nNextFileID, m_mintf.m_nNextFileID, "next file id");
    for (const CRulesModel::CFile& file : model.m_vFiles)
    {
        const auto it = m_mintf.m_mapClipFileByID.find(file.nID);
        if (it == m_mintf.m_mapClipFileByID.end() || it->second->m_strName != file.strName ||
            it->second->m_nUseCount != file.nUseCount || it->second->m_nCMIntfFileID != file.nDriverID)
            differs("phrase file " + std::to_string(file.nID));
    }
}

void CRulesCompare::expectEqual(int64_t llExpected, int64_t llFound, const char* pszWhat)
{
    if (llExpected != llFound)
        differs(std::string(pszWhat) + ": expected " + std::to_string(llExpected) + ", found " +
                std::to_string(llFound));
}

void CRulesCompare::differs(const std::string& strWhat)
{
    if (m_strDifference.empty())
        m_strDifference = strWhat;
}
