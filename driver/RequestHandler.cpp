// What each command does: one request record in, one response record out.
#include "RequestHandler.h"

#include "Text.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <climits>
#include <exception>
#include <iterator>

namespace
{
CStream* StreamOf(CClient& client, int nStreamID, std::string& strError)
{
    CStream* pStream = client.FindStream(nStreamID);
    if (pStream == nullptr)
    {
        strError = fmt::format("the client has no stream {}", nStreamID);
    }
    return pStream;
}

bool FileNameOf(const char (&szField)[MI_FILE_NAME_SIZE], std::string& strName, std::string& strError)
{
    if (!FieldText(szField, strName))
    {
        strError = "the file name has no end";
        return false;
    }
    if (strName.empty())
    {
        strError = "the file name is empty";
        return false;
    }
    return true;
}

bool CanFinishMore(const CClient& client, std::string& strError)
{
    if (client.WaitingEvents() >= CClient::MAX_WAITING_EVENTS)
    {
        strError = "the client does not take its events";
        return false;
    }
    return true;
}

bool StartPlay(CClient& client, int nStreamID, const CClipPtr& pClip, std::size_t nOffset, std::size_t nLength,
               std::uint32_t nSequenceNo, std::string& strError)
{
    CStream* pStream = StreamOf(client, nStreamID, strError);
    if (pStream == nullptr || !CanFinishMore(client, strError))
    {
        return false;
    }
    if (pStream->IsPlaying())
    {
        strError = fmt::format("stream {} is playing", nStreamID);
        return false;
    }
    const std::size_t nSize = pClip->m_samples.size();
    if (nOffset > nSize)
    {
        strError =
            fmt::format("position {} is past the end of \"{}\" at {}", nOffset, Printable(pClip->m_strPath), nSize);
        return false;
    }
    pStream->StartPlay(pClip, nOffset, std::min(nLength, nSize - nOffset), nSequenceNo);
    return true;
}
} // namespace

const CRequestHandler::CCommandEntry CRequestHandler::COMMANDS[] = {
    {MICMD_CONNECT, "MICMD_CONNECT", nullptr}, // not of a client yet: see Handle
    {MICMD_DISCONNECT, "MICMD_DISCONNECT", &CRequestHandler::Disconnect},
    {MICMD_OPENFILE, "MICMD_OPENFILE", &CRequestHandler::OpenFile},
    {MICMD_CLOSEFILE, "MICMD_CLOSEFILE", &CRequestHandler::CloseFile},
    {MICMD_OPENSTREAM, "MICMD_OPENSTREAM", &CRequestHandler::OpenStream},
    {MICMD_CLOSESTREAM, "MICMD_CLOSESTREAM", &CRequestHandler::CloseStream},
    {MICMD_PLAYCLIP, "MICMD_PLAYCLIP", &CRequestHandler::PlayClip},
    {MICMD_PLAYFILE, "MICMD_PLAYFILE", &CRequestHandler::PlayFile},
    {MICMD_RECORDFILE, "MICMD_RECORDFILE", &CRequestHandler::RecordFile},
    {MICMD_CANCEL, "MICMD_CANCEL", &CRequestHandler::Cancel},
    {MICMD_PLAYGETSTATS, "MICMD_PLAYGETSTATS", &CRequestHandler::GetStats},
    {MICMD_RECORDGETSTATS, "MICMD_RECORDGETSTATS", &CRequestHandler::GetStats},
    {MICMD_PING, "MICMD_PING", &CRequestHandler::Ping},
    {MICMD_DUMP, "MICMD_DUMP", &CRequestHandler::Dump},
    {MICMD_RECORDGETTIME, "MICMD_RECORDGETTIME", &CRequestHandler::RecordGetTime},
    {MICMD_RECORDGETSTATUS, "MICMD_RECORDGETSTATUS", &CRequestHandler::RecordGetStatus},
};

const CRequestHandler::CCommandEntry* CRequestHandler::FindCommand(MICMD micmd)
{
    const auto* pEntry = std::find_if(std::begin(COMMANDS), std::end(COMMANDS),
                                      [micmd](const CCommandEntry& entry) { return entry.m_micmd == micmd; });
    return pEntry == std::end(COMMANDS) ? nullptr : pEntry;
}

CRequestHandler::CRequestHandler(CClientRegistry& registry, CClipStore& clipStore, CChannelFactory& channels,
                                 CClientPortOpener& opener)
    : m_registry(registry), m_clipStore(clipStore), m_channels(channels), m_opener(opener)
{
}

void CRequestHandler::Handle(const structMICMD& cmd)
{
    if (cmd.s_micmd == MICMD_CONNECT)
    {
        Connect(cmd);
        return;
    }
    const CCommandEntry* pEntry = FindCommand(cmd.s_micmd);
    const char* pName = pEntry != nullptr ? pEntry->m_pName : "unknown command";
    CClient* pClient = m_registry.Find(cmd.nConnectID);
    if (pClient == nullptr)
    {
        spdlog::warn("dropped {} ({}), sequence {}: there is no client {} to answer", pName,
                     static_cast<int>(cmd.s_micmd), cmd.nSequenceNo, cmd.nConnectID);
        return;
    }

    structMIRSP rsp = {};
    rsp.s_mirsp = MIRSP_STATUS;
    rsp.nRespSequenceNo = cmd.nSequenceNo;
    rsp.s_nResult = MISTATUS_OK;
    std::string strError = "there is no such command";
    if (pEntry != nullptr && Execute(*pEntry, *pClient, cmd, rsp, strError))
    {
        spdlog::debug("{} of client {}, sequence {}", pName, cmd.nConnectID, cmd.nSequenceNo);
    }
    else
    {
        rsp.s_mirsp = MIRSP_STATUS;
        rsp.s_nResult = MISTATUS_FAILED;
        spdlog::warn("refused {} ({}) of client {}, sequence {}: {}", pName, static_cast<int>(cmd.s_micmd),
                     cmd.nConnectID, cmd.nSequenceNo, strError);
    }
    Answer(*pClient, rsp);
    if (cmd.s_micmd == MICMD_DISCONNECT)
    {
        m_registry.Drop(cmd.nConnectID, "it disconnects");
    }
}

bool CRequestHandler::Execute(const CCommandEntry& entry, CClient& client, const structMICMD& cmd, structMIRSP& rsp,
                              std::string& strError)
{
    try
    {
        return (this->*entry.m_pFunction)(client, cmd, rsp, strError);
    }
    catch (const std::exception& exception)
    {
        // Out of memory, in the first place: it is this client's request that asks for too much.
        strError = exception.what();
        return false;
    }
}

void CRequestHandler::Connect(const structMICMD& cmd)
{
    std::string strError;
    std::unique_ptr<CClientPort> pPort = m_opener.Open(cmd.connect, strError);
    CClient* pClient = pPort ? m_registry.Add(std::move(pPort)) : nullptr;
    if (pClient == nullptr)
    {
        spdlog::warn("dropped MICMD_CONNECT, sequence {}: {}", cmd.nSequenceNo,
                     strError.empty() ? "no further client can be watched" : strError);
        return;
    }
    structMIRSP rsp = {};
    rsp.s_mirsp = MIRSP_CONNECT;
    rsp.nRespSequenceNo = cmd.nSequenceNo;
    rsp.s_nConnectID = pClient->ConnectID();
    Answer(*pClient, rsp);
}

void CRequestHandler::Answer(CClient& client, const structMIRSP& rsp)
{
    const int nConnectID = client.ConnectID();
    switch (client.Port().SendResponse(rsp))
    {
    case ESend::Gone: m_registry.Drop(nConnectID, "its response pipe is broken"); return;
    case ESend::Full:
        spdlog::error("client {} does not take its responses; the one to sequence {} is lost", nConnectID,
                      rsp.nRespSequenceNo);
        break;
    case ESend::Sent: break;
    }
    // Events wait until here, so that none overtakes the response to its own command.
    m_registry.Flush(nConnectID);
}

bool CRequestHandler::Disconnect(CClient&, const structMICMD&, structMIRSP&, std::string&)
{
    return true; // once it is answered, Handle drops the client
}

bool CRequestHandler::OpenFile(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError)
{
    std::string strName;
    if (!FileNameOf(cmd.openFile.szFileName, strName, strError))
    {
        return false;
    }
    CClipPtr pClip = m_clipStore.Load(strName, strError);
    if (!pClip)
    {
        return false;
    }
    if (m_nNextFileID == INT_MAX)
    {
        strError = "all file ids are used up";
        return false;
    }
    rsp.s_mirsp = MIRSP_OPENFILE;
    rsp.s_nFileID = m_nNextFileID++;
    client.m_mapFileByID.emplace(rsp.s_nFileID, std::move(pClip));
    return true;
}

bool CRequestHandler::CloseFile(CClient& client, const structMICMD& cmd, structMIRSP&, std::string& strError)
{
    if (client.m_mapFileByID.erase(cmd.closeFile.nFileID) == 0)
    {
        strError = fmt::format("the client has no file {}", cmd.closeFile.nFileID);
        return false;
    }
    return true;
}

bool CRequestHandler::OpenStream(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError)
{
    std::string strCallID;
    if (!FieldText(cmd.openStream.szCallID, strCallID))
    {
        strError = "the call id has no end";
        return false;
    }
    const std::uint32_t nLegID = cmd.openStream.nLegID;
    std::unique_ptr<CChannel> pChannel = m_channels.Open(strCallID, nLegID, strError);
    if (!pChannel)
    {
        return false;
    }
    if (m_nNextStreamID == INT_MAX)
    {
        strError = "all stream ids are used up";
        return false;
    }
    rsp.s_mirsp = MIRSP_OPENSTREAM;
    rsp.s_nStreamID = m_nNextStreamID++;
    spdlog::info("client {} opens stream {} on call id \"{}\", leg {}", client.ConnectID(), rsp.s_nStreamID,
                 Printable(strCallID), nLegID);
    client.m_mapStreamByID.emplace(rsp.s_nStreamID,
                                   std::make_unique<CStream>(rsp.s_nStreamID, strCallID, nLegID, std::move(pChannel)));
    return true;
}

bool CRequestHandler::CloseStream(CClient& client, const structMICMD& cmd, structMIRSP&, std::string& strError)
{
    if (StreamOf(client, cmd.stream.nStreamID, strError) == nullptr)
    {
        return false;
    }
    client.m_mapStreamByID.erase(cmd.stream.nStreamID);
    spdlog::info("client {} closes stream {}", client.ConnectID(), cmd.stream.nStreamID);
    return true;
}

bool CRequestHandler::PlayClip(CClient& client, const structMICMD& cmd, structMIRSP&, std::string& strError)
{
    const structMICMD::PlayClipBody& body = cmd.playClip;
    const CClipPtr pClip = client.FindFile(body.nFileID);
    if (!pClip)
    {
        strError = fmt::format("the client has no file {}", body.nFileID);
        return false;
    }
    return StartPlay(client, body.nStreamID, pClip, body.nOffset, body.nLength, cmd.nSequenceNo, strError);
}

bool CRequestHandler::PlayFile(CClient& client, const structMICMD& cmd, structMIRSP&, std::string& strError)
{
    std::string strName;
    // The stream is looked for first: no file is loaded in vain.
    if (StreamOf(client, cmd.playFile.nStreamID, strError) == nullptr ||
        !FileNameOf(cmd.playFile.szFileName, strName, strError))
    {
        return false;
    }
    const CClipPtr pClip = m_clipStore.Load(strName, strError);
    return pClip && StartPlay(client, cmd.playFile.nStreamID, pClip, cmd.playFile.nStartPos, pClip->m_samples.size(),
                              cmd.nSequenceNo, strError);
}

bool CRequestHandler::RecordFile(CClient& client, const structMICMD& cmd, structMIRSP&, std::string& strError)
{
    std::string strName;
    CStream* pStream = StreamOf(client, cmd.recordFile.nStreamID, strError);
    if (pStream == nullptr || !CanFinishMore(client, strError) ||
        !FileNameOf(cmd.recordFile.szFileName, strName, strError))
    {
        return false;
    }
    if (pStream->IsRecording())
    {
        strError = fmt::format("stream {} is recording", cmd.recordFile.nStreamID);
        return false;
    }
    return pStream->StartRecord(strName, cmd.recordFile.nMaxSamples, cmd.nSequenceNo, strError);
}

bool CRequestHandler::Cancel(CClient& client, const structMICMD& cmd, structMIRSP&, std::string& strError)
{
    CStream* pStream = StreamOf(client, cmd.cancel.nStreamID, strError);
    if (pStream == nullptr)
    {
        return false;
    }
    // A client may leave the type unset; then it means whatever is active.
    std::vector<structMIEVT> vEvents;
    if (cmd.cancel.nCancelType != MICANCEL_RECORD)
    {
        pStream->CancelPlay(vEvents);
    }
    if (cmd.cancel.nCancelType != MICANCEL_PLAY)
    {
        pStream->CancelRecord(vEvents);
    }
    client.QueueEvents(vEvents);
    return true;
}

bool CRequestHandler::GetStats(CClient&, const structMICMD&, structMIRSP&, std::string& strError)
{
    strError = "there are no statistics";
    return false;
}

bool CRequestHandler::Ping(CClient&, const structMICMD&, structMIRSP&, std::string&)
{
    return true;
}

bool CRequestHandler::Dump(CClient& client, const structMICMD&, structMIRSP&, std::string&)
{
    spdlog::info("dump for client {}: {} clients, {} clips in memory, next file id {}, next stream id {}",
                 client.ConnectID(), m_registry.Clients().size(), m_clipStore.Size(), m_nNextFileID, m_nNextStreamID);
    for (const auto& [nConnectID, pClient] : m_registry.Clients())
    {
        spdlog::info("dump: client {}, process {}, {} events wait", nConnectID, pClient->Port().ProcessID(),
                     pClient->WaitingEvents());
        for (const auto& [nFileID, pClip] : pClient->m_mapFileByID)
        {
            spdlog::info("dump:   file {}, \"{}\", {} samples", nFileID, Printable(pClip->m_strPath),
                         pClip->m_samples.size());
        }
        for (const auto& [nStreamID, pStream] : pClient->m_mapStreamByID)
        {
            spdlog::info("dump:   {}", pStream->Describe());
        }
    }
    return true;
}

bool CRequestHandler::RecordGetTime(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError)
{
    const CStream* pStream = StreamOf(client, cmd.stream.nStreamID, strError);
    if (pStream == nullptr)
    {
        return false;
    }
    rsp.s_mirsp = MIRSP_RECORDGETTIME;
    rsp.s_nTimeMs = pStream->RecordedMs();
    return true;
}

bool CRequestHandler::RecordGetStatus(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError)
{
    const CStream* pStream = StreamOf(client, cmd.stream.nStreamID, strError);
    if (pStream == nullptr)
    {
        return false;
    }
    rsp.s_mirsp = MIRSP_RECORDGETSTATUS;
    rsp.s_nRecordStatus = static_cast<int32_t>(pStream->RecordStatus());
    return true;
}
