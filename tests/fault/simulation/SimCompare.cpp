// Holds the library's containers against the model's, after every step.
#include "SimLibrary.h"

#include <algorithm>
#include <cstring>

void CSimLibrary::compare(const CSimModel& model)
{
    if (!m_strFault.empty())
        return;
    m_vSeen.clear();
    compareActive(model, CSimModel::Place::ActivePlay, m_pmintf->m_mapActiveCommandByStreamIDPlay);
    compareActive(model, CSimModel::Place::ActiveRecord, m_pmintf->m_mapActiveCommandByStreamIDRecord);
    compareDeadlines(model);
    compareQueues(model, CSimModel::Place::QueuedPlay, m_pmintf->m_mapCommandQueue, model.m_vPlayLists);
    compareQueues(model, CSimModel::Place::QueuedRecord, m_pmintf->m_mapCommandQueueRecord, model.m_vRecordLists);

    std::sort(m_vSeen.begin(), m_vSeen.end());
    if (std::adjacent_find(m_vSeen.begin(), m_vSeen.end()) != m_vSeen.end())
        fault("a command in two places");
    expectEqual(static_cast<int64_t>(model.m_vCommands.size()), static_cast<int64_t>(m_vSeen.size()), "commands");
    if (m_bTraced)
        expectEqual(static_cast<int64_t>(model.m_vCommands.size()), m_nAlive, "commands alive");

    compareStreams(model);
    compareFiles(model);
    expectEqual(model.m_nNextSequenceNo, m_pmintf->m_nNextSequenceNo, "next sequence number");
    expectEqual(model.m_nConnectID, m_pmintf->m_nConnectID, "connection id");
    expectEqual(model.m_bRequestPipe, m_pmintf->m_npipeReq != -1, "request pipe open");
    expectEqual(static_cast<int64_t>(model.m_ullLastResponse), static_cast<int64_t>(m_pmintf->m_ullLastResponseTick),
                "tick of the last response");
    expectEqual(model.m_nIdleCount, m_pmintf->m_nIdleCount, "idle passes");
    expectEqual(static_cast<int64_t>(model.m_ullTick), static_cast<int64_t>(CPortable::GetTickCountULL()), "clock");
}

void CSimLibrary::compareCommand(const CSimModel::CCommand& expected, const CMIntf::CCommand* pcommand,
                                 const char* pszPlace)
{
    m_vSeen.push_back(pcommand);
    const bool bSame = pcommand->m_nStreamID == expected.nStreamID &&
                       (pcommand->m_bDone != 0) == (expected.bDone != 0) && pcommand->m_nTimeout == expected.nTimeout &&
                       (pcommand->m_pcomplHandler != nullptr) == expected.bHandler &&
                       memcmp(&pcommand->m_cmd, &expected.request, sizeof(expected.request)) == 0;
    if (!bSame)
    {
        fault(std::string(pszPlace) + " command of stream " + std::to_string(expected.nStreamID) + " number " +
              std::to_string(expected.request.nSequenceNo) + " is another one, number " +
              std::to_string(pcommand->m_cmd.nSequenceNo));
    }
}

void CSimLibrary::compareActive(const CSimModel& model, CSimModel::Place place,
                                const std::map<int, CMIntf::CCommand*>& mapActive)
{
    int64_t llExpected = 0;
    for (const CSimModel::CCommand& command : model.m_vCommands)
        llExpected += command.place == place;
    expectEqual(llExpected, static_cast<int64_t>(mapActive.size()), "active commands of one side");
    for (const auto& entry : mapActive)
    {
        const std::vector<const CSimModel::CCommand*> vExpected = model.at(place, entry.first);
        if (vExpected.size() == 1)
            compareCommand(*vExpected.front(), entry.second, "active");
        else
            fault("stream " + std::to_string(entry.first) + " should have nothing active on this side");
    }
}

// Every active command under its own deadline, equal ones in the order in which they became active.
void CSimLibrary::compareDeadlines(const CSimModel& model)
{
    const std::vector<const CSimModel::CCommand*> vExpected = model.byDeadline();
    expectEqual(static_cast<int64_t>(vExpected.size()),
                static_cast<int64_t>(m_pmintf->m_mmapActiveCommandByTimeout.size()), "deadlines");
    if (!m_strFault.empty())
        return;
    size_t n = 0;
    for (const auto& entry : m_pmintf->m_mmapActiveCommandByTimeout)
    {
        const CSimModel::CCommand& expected = *vExpected[n++];
        expectEqual(static_cast<int64_t>(expected.ullDeadline), static_cast<int64_t>(entry.first), "deadline");
        if (std::find(m_vSeen.begin(), m_vSeen.end(), entry.second) == m_vSeen.end())
            return fault("a deadline of a command that is not active");
        expectEqual(static_cast<int64_t>(entry.first), static_cast<int64_t>(entry.second->m_ullTimeoutTick),
                    "deadline in the command");
        expectEqual(expected.request.nSequenceNo, entry.second->m_cmd.nSequenceNo, "order of the deadlines");
    }
}

void CSimLibrary::compareQueues(const CSimModel& model, CSimModel::Place place,
                                const std::map<int, CMIntf::CCommandList*>& mapQueue, const std::vector<int>& vLists)
{
    expectEqual(static_cast<int64_t>(vLists.size()), static_cast<int64_t>(mapQueue.size()), "queue lists");
    for (const auto& entry : mapQueue)
    {
        if (!entry.second || std::find(vLists.begin(), vLists.end(), entry.first) == vLists.end())
            return fault("queue list of stream " + std::to_string(entry.first));
        const std::vector<const CSimModel::CCommand*> vExpected = model.at(place, entry.first);
        expectEqual(static_cast<int64_t>(vExpected.size()), static_cast<int64_t>(entry.second->size()), "queued");
        if (!m_strFault.empty())
            return;
        size_t n = 0;
        for (const CMIntf::CCommand* const pcommand : *entry.second)
            compareCommand(*vExpected[n++], pcommand, "queued");
    }
}

void CSimLibrary::compareStreams(const CSimModel& model)
{
    const auto& mapStreams = m_pmintf->m_mapStreamByStreamID;
    expectEqual(static_cast<int64_t>(model.m_vStreams.size()), static_cast<int64_t>(mapStreams.size()), "streams");
    for (const CSimModel::CStream& stream : model.m_vStreams)
    {
        const auto it = mapStreams.find(stream.nStreamID);
        if (it == mapStreams.end() || it->second != m_vObjects[static_cast<size_t>(stream.nObject)].get())
            fault("object of stream " + std::to_string(stream.nStreamID));
    }
    for (size_t n = 0; n < m_vObjects.size(); ++n)
    {
        const CSimModel::CObject& expected = model.m_vObjects[n];
        expectEqual(expected.bInitialized, m_vObjects[n]->m_bInitialized, "stream valid");
        expectEqual(static_cast<int64_t>(expected.ullPlayStart),
                    static_cast<int64_t>(m_vObjects[n]->m_ullPlayStartTick), "start of a play");
        expectEqual(static_cast<int64_t>(expected.ullPlayElapsed),
                    static_cast<int64_t>(m_vObjects[n]->m_ullPlayElapsed), "time of a play");
    }
}

void CSimLibrary::compareFiles(const CSimModel& model)
{
    expectEqual(static_cast<int64_t>(model.m_vFiles.size()), static_cast<int64_t>(m_pmintf->m_mapClipFileByID.size()),
                "phrase files");
    expectEqual(model.m_nNextFileID, m_pmintf->m_nNextFileID, "next file id");
    for (const CSimModel::CFile& file : model.m_vFiles)
    {
        const auto it = m_pmintf->m_mapClipFileByID.find(file.nID);
        if (it == m_pmintf->m_mapClipFileByID.end() || it->second->m_strName != file.strName ||
            it->second->m_nUseCount != file.nUseCount || it->second->m_nCMIntfFileID != file.nDriverID)
            fault("phrase file " + std::to_string(file.nID));
    }
}
