// The commands on files, streams, plays and recordings.
#include "RequestHandler.h"
#include "Text.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <climits>

namespace
{
// The stream, or null after a refusal.
std::shared_ptr<CStream> StreamOf(const CClient& client, int nStreamID, const CReply& reply)
{
    auto pStream = client.FindStream(nStreamID);
    if (!pStream)
    {
        reply.Refuse(fmt::format("the client has no stream {}", nStreamID));
    }
    return pStream;
}

// The same for a stream on which something is to begin.
std::shared_ptr<CStream> FreeStreamOf(const CClient& client, int nStreamID, bool bRecord, const CReply& reply)
{
    auto pStream = StreamOf(client, nStreamID, reply);
    if (!pStream)
    {
        return nullptr;
    }
    if (pStream->IsHungUp())
    {
        reply.Refuse("the caller has hung up");
        return nullptr;
    }
    if (bRecord ? pStream->IsRecording() : pStream->IsPlaying())
    {
        reply.Refuse(fmt::format("stream {} is {}", nStreamID, bRecord ? "recording" : "playing"));
        return nullptr;
    }
    if (client.WaitingEvents() >= CClient::MAX_WAITING_EVENTS)
    {
        reply.Refuse("the client does not take its events");
        return nullptr;
    }
    return pStream;
}

bool FileNameOf(const char (&szField)[MI_FILE_NAME_SIZE], std::string& strName, const CReply& reply)
{
    if (!FieldText(szField, strName))
    {
        reply.Refuse("the file name has no end");
        return false;
    }
    if (strName.empty())
    {
        reply.Refuse("the file name is empty");
        return false;
    }
    return true;
}

// What is left to do for a play when its clip has been loaded.
CClipStore::LoadFunction PlayWhenLoaded(const std::shared_ptr<CStream>& pStream, std::size_t nOffset,
                                        std::size_t nLength, const CReply& reply)
{
    return
        [pWeak = std::weak_ptr(pStream), nOffset, nLength, reply](const CClipPtr& pClip, const std::string& strError) {
            const auto pStreamNow = pWeak.lock();
            if (!pStreamNow || !pClip)
            {
                reply.Refuse(pClip ? "the stream is closed" : strError);
            }
            else if (pStreamNow->IsHungUp())
            {
                reply.Refuse("the caller has hung up");
            }
            else if (nOffset > pClip->Ready())
            {
                reply.Refuse(fmt::format("position {} is past the end of \"{}\" at {}", nOffset,
                                         Printable(pClip->Path()), pClip->Ready()));
            }
            else
            {
                pStreamNow->StartPlay(pClip, nOffset, nLength, reply.SequenceNo());
                reply.Ok();
            }
        };
}
} // namespace

void CRequestHandler::Disconnect(CClient& client, const structMICMD&, const CReply& reply)
{
    client.m_mapStreamByID.clear();
    // By then the disk has completed the files of the streams. The answer lets the client go.
    m_parts.m_disk.Post([] {}, [reply] { reply.Ok(); });
}

void CRequestHandler::OpenFile(CClient&, const structMICMD& cmd, const CReply& reply)
{
    std::string strName;
    if (FileNameOf(cmd.openFile.szFileName, strName, reply))
    {
        m_parts.m_clipStore.Load(strName, 0, [this, reply](CClipPtr pClip, const std::string& strError) {
            pClip ? AddFile(reply, std::move(pClip)) : reply.Refuse(strError);
        });
    }
}

void CRequestHandler::AddFile(const CReply& reply, CClipPtr pClip)
{
    CClient* pClient = m_parts.m_registry.Find(reply.ConnectID());
    if (pClient == nullptr)
    {
        return;
    }
    if (m_nNextFileID == INT_MAX)
    {
        reply.Refuse("all file ids are used up");
        return;
    }
    const int nFileID = m_nNextFileID++;
    pClient->m_mapFileByID.emplace(nFileID, std::move(pClip));
    reply.Value(MIRSP_OPENFILE, nFileID);
}

void CRequestHandler::CloseFile(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    if (client.m_mapFileByID.erase(cmd.closeFile.nFileID) == 0)
    {
        reply.Refuse(fmt::format("the client has no file {}", cmd.closeFile.nFileID));
        return;
    }
    reply.Ok();
}

void CRequestHandler::OpenStream(CClient&, const structMICMD& cmd, const CReply& reply)
{
    std::string strCallID;
    if (!FieldText(cmd.openStream.szCallID, strCallID))
    {
        reply.Refuse("the call id has no end");
        return;
    }
    const std::uint32_t nLegID = cmd.openStream.nLegID;
    m_parts.m_channels.Open(
        strCallID, nLegID,
        [this, strCallID, nLegID, reply](std::unique_ptr<CChannel> pChannel, const std::string& strError) {
            pChannel ? AddStream(reply, strCallID, nLegID, std::move(pChannel)) : reply.Refuse(strError);
        });
}

void CRequestHandler::AddStream(const CReply& reply, const std::string& strCallID, std::uint32_t nLegID,
                                std::unique_ptr<CChannel> pChannel)
{
    const int nConnectID = reply.ConnectID();
    CClient* pClient = m_parts.m_registry.Find(nConnectID);
    if (pClient == nullptr)
    {
        return;
    }
    if (m_nNextStreamID == INT_MAX)
    {
        reply.Refuse("all stream ids are used up");
        return;
    }
    const int nStreamID = m_nNextStreamID++;
    spdlog::info("client {} opens stream {} on call id \"{}\", leg {}, {} channel", nConnectID, nStreamID,
                 Printable(strCallID), nLegID, pChannel->Kind());
    auto onEvent = [this, nConnectID, strCallID](bool bRecord, const structMIEVT& evt) {
        m_parts.m_outbox.Event(nConnectID, bRecord, strCallID, evt);
    };
    pClient->m_mapStreamByID.emplace(nStreamID,
                                     std::make_shared<CStream>(nStreamID, strCallID, nLegID, std::move(pChannel),
                                                               m_parts.m_clock, m_parts.m_disk, std::move(onEvent)));
    reply.Value(MIRSP_OPENSTREAM, nStreamID);
}

void CRequestHandler::CloseStream(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    if (StreamOf(client, cmd.stream.nStreamID, reply))
    {
        client.m_mapStreamByID.erase(cmd.stream.nStreamID);
        spdlog::info("client {} closes stream {}", client.ConnectID(), cmd.stream.nStreamID);
        // By then the disk has completed the files of the stream.
        m_parts.m_disk.Post([] {}, [reply] { reply.Ok(); });
    }
}

void CRequestHandler::PlayClip(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    const structMICMD::PlayClipBody& body = cmd.playClip;
    const auto pStream = FreeStreamOf(client, body.nStreamID, false, reply);
    if (!pStream)
    {
        return;
    }
    const CClipPtr pClip = client.FindFile(body.nFileID);
    if (!pClip)
    {
        reply.Refuse(fmt::format("the client has no file {}", body.nFileID));
        return;
    }
    m_parts.m_clipStore.WaitFor(pClip, body.nOffset, PlayWhenLoaded(pStream, body.nOffset, body.nLength, reply));
}

void CRequestHandler::PlayFile(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    const structMICMD::PlayFileBody& body = cmd.playFile;
    std::string strName;
    const auto pStream = FreeStreamOf(client, body.nStreamID, false, reply);
    if (pStream && FileNameOf(body.szFileName, strName, reply))
    {
        m_parts.m_clipStore.Load(strName, body.nStartPos,
                                 PlayWhenLoaded(pStream, body.nStartPos, MAX_CLIP_SAMPLES, reply));
    }
}

void CRequestHandler::RecordFile(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    std::string strName;
    const auto pStream = FreeStreamOf(client, cmd.recordFile.nStreamID, true, reply);
    if (pStream && FileNameOf(cmd.recordFile.szFileName, strName, reply))
    {
        pStream->StartRecord(
            strName, cmd.recordFile.nMaxSamples, reply.SequenceNo(),
            [reply](bool bOk, const std::string& strError) { bOk ? reply.Ok() : reply.Refuse(strError); });
    }
}

void CRequestHandler::Cancel(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    const auto pStream = StreamOf(client, cmd.cancel.nStreamID, reply);
    if (!pStream)
    {
        return;
    }
    // A client may leave the type unset; then it means whatever is active.
    const bool bPlay = cmd.cancel.nCancelType != MICANCEL_RECORD;
    const bool bRecord = cmd.cancel.nCancelType != MICANCEL_PLAY;
    const auto cancelRecord = [pWeak = std::weak_ptr(pStream), bRecord, reply] {
        const auto pStreamNow = pWeak.lock();
        if (pStreamNow && bRecord)
        {
            pStreamNow->CancelRecord([reply] { reply.Ok(); });
            return;
        }
        reply.Ok();
    };
    bPlay ? pStream->CancelPlay(cancelRecord) : cancelRecord();
}

void CRequestHandler::GetStats(CClient&, const structMICMD&, const CReply& reply)
{
    reply.Refuse("there are no statistics of this kind");
}

void CRequestHandler::Ping(CClient&, const structMICMD&, const CReply& reply)
{
    reply.Ok();
}

void CRequestHandler::Dump(CClient& client, const structMICMD&, const CReply& reply)
{
    spdlog::info("dump for client {}: {} clients, {} clips in memory, next file id {}, next stream id {}",
                 client.ConnectID(), m_parts.m_registry.Clients().size(), m_parts.m_clipStore.Count(), m_nNextFileID,
                 m_nNextStreamID);
    Dump();
    reply.Ok();
}

void CRequestHandler::RecordGetTime(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    if (const auto pStream = StreamOf(client, cmd.stream.nStreamID, reply))
    {
        reply.Value(MIRSP_RECORDGETTIME, pStream->RecordedMs());
    }
}

void CRequestHandler::RecordGetStatus(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    if (const auto pStream = StreamOf(client, cmd.stream.nStreamID, reply))
    {
        reply.Value(MIRSP_RECORDGETSTATUS, static_cast<int32_t>(pStream->RecordStatus()));
    }
}

void CRequestHandler::Unknown(CClient&, const structMICMD&, const CReply& reply)
{
    reply.Refuse("there is no such command");
}
