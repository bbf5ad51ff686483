// The commands on files, streams, plays and recordings.
#include "RequestHandler.h"
#include "Text.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <climits>

namespace
{
// The stream, or null after a refusal.
std::shared_ptr<CStream> streamOf(const CClient& client, int nStreamID, const CReply& reply)
{
    auto pStream = client.findStream(nStreamID);
    if (!pStream)
        reply.refuse(fmt::format("the client has no stream {}", nStreamID));
    return pStream;
}

// The same for a stream on which something is to begin.
std::shared_ptr<CStream> freeStreamOf(const CClient& client, int nStreamID, bool bRecord, const CReply& reply)
{
    auto pStream = streamOf(client, nStreamID, reply);
    if (!pStream)
        return nullptr;
    if (pStream->isHungUp())
    {
        reply.refuse("the caller has hung up");
        return nullptr;
    }
    if (bRecord ? pStream->isRecording() : pStream->isPlaying())
    {
        reply.refuse(fmt::format("stream {} is {}", nStreamID, bRecord ? "recording" : "playing"));
        return nullptr;
    }
    if (client.waitingEvents() >= CClient::MAX_WAITING_EVENTS)
    {
        reply.refuse("the client does not take its events");
        return nullptr;
    }
    return pStream;
}

bool fileNameOf(const char (&szField)[MI_FILE_NAME_SIZE], std::string& strName, const CReply& reply)
{
    if (!fieldText(szField, strName))
    {
        reply.refuse("the file name has no end");
        return false;
    }
    if (strName.empty())
    {
        reply.refuse("the file name is empty");
        return false;
    }
    return true;
}

// What is left to do for a play when its clip has been loaded.
CClipStore::LoadFunction playWhenLoaded(const std::shared_ptr<CStream>& pStream, size_t nOffset, size_t nLength,
                                        const CReply& reply)
{
    return
        [pWeak = std::weak_ptr(pStream), nOffset, nLength, reply](const CClipPtr& pClip, const std::string& strError) {
            const auto pStreamNow = pWeak.lock();
            if (!pStreamNow || !pClip)
            {
                reply.refuse(pClip ? "the stream is closed" : strError);
            }
            else if (pStreamNow->isHungUp())
            {
                reply.refuse("the caller has hung up");
            }
            else if (nOffset > pClip->ready())
            {
                reply.refuse(fmt::format("position {} is past the end of \"{}\" at {}", nOffset,
                                         printable(pClip->path()), pClip->ready()));
            }
            else
            {
                pStreamNow->startPlay(pClip, nOffset, nLength, reply.sequenceNo());
                reply.ok();
            }
        };
}
} // namespace

void CRequestHandler::disconnect(CClient& client, const structMICMD&, const CReply& reply)
{
    // The files of the streams are complete before the answer, which lets the client go.
    m_parts.m_disk.afterwards([&client] { client.m_mapStreamByID.clear(); }, [reply] { reply.ok(); });
}

void CRequestHandler::openFile(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    std::string strName;
    if (client.m_mapFileByID.size() >= m_limits.m_nFiles)
        reply.refuse(fmt::format("the client has {} files open, which is the most", m_limits.m_nFiles));
    else if (fileNameOf(cmd.openFile.szFileName, strName, reply))
    {
        m_parts.m_clipStore.load(
            strName, 0,
            [this, reply](CClipPtr pClip, const std::string& strError) {
                pClip ? addFile(reply, std::move(pClip)) : reply.refuse(strError);
            });
    }
}

void CRequestHandler::addFile(const CReply& reply, CClipPtr pClip)
{
    CClient* pClient = m_parts.m_registry.find(reply.connectId());
    if (pClient == nullptr)
        return;
    if (m_nNextFileID == INT_MAX)
    {
        reply.refuse("all file ids are used up");
        return;
    }
    const int nFileID = m_nNextFileID++;
    pClient->m_mapFileByID.emplace(nFileID, std::move(pClip));
    reply.value(MIRSP_OPENFILE, nFileID);
}

void CRequestHandler::closeFile(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    if (client.m_mapFileByID.erase(cmd.closeFile.nFileID) == 0)
    {
        reply.refuse(fmt::format("the client has no file {}", cmd.closeFile.nFileID));
        return;
    }
    reply.ok();
}

void CRequestHandler::openStream(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    if (client.m_mapStreamByID.size() >= m_limits.m_nStreams)
    {
        reply.refuse(fmt::format("the client has {} streams open, which is the most", m_limits.m_nStreams));
        return;
    }
    std::string strCallID;
    if (!fieldText(cmd.openStream.szCallID, strCallID))
    {
        reply.refuse("the call id has no end");
        return;
    }
    const uint32_t nLegID = cmd.openStream.nLegID;
    m_parts.m_channels.open(
        strCallID, nLegID,
        [this, strCallID, nLegID, reply](std::unique_ptr<CChannel> pChannel, const std::string& strError) {
            pChannel ? addStream(reply, strCallID, nLegID, std::move(pChannel)) : reply.refuse(strError);
        });
}

void CRequestHandler::addStream(const CReply& reply, const std::string& strCallID, uint32_t nLegID,
                                std::unique_ptr<CChannel> pChannel)
{
    const int nConnectID = reply.connectId();
    CClient* pClient = m_parts.m_registry.find(nConnectID);
    if (pClient == nullptr)
        return;
    if (m_nNextStreamID == INT_MAX)
    {
        reply.refuse("all stream ids are used up");
        return;
    }
    const int nStreamID = m_nNextStreamID++;
    spdlog::info("client {} opens stream {} on call id \"{}\", leg {}, {} channel", nConnectID, nStreamID,
                 printable(strCallID), nLegID, pChannel->kind());
    auto onEvent = [this, nConnectID, strCallID](bool bRecord, const structMIEVT& evt) {
        m_parts.m_outbox.event(nConnectID, bRecord, strCallID, evt);
    };
    pClient->m_mapStreamByID.emplace(nStreamID,
                                     std::make_shared<CStream>(nStreamID, strCallID, nLegID, std::move(pChannel),
                                                               m_parts.m_clock, m_parts.m_disk, std::move(onEvent)));
    reply.value(MIRSP_OPENSTREAM, nStreamID);
}

void CRequestHandler::closeStream(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    if (streamOf(client, cmd.stream.nStreamID, reply))
    {
        spdlog::info("client {} closes stream {}", client.connectId(), cmd.stream.nStreamID);
        // The files of the stream are complete before the answer.
        m_parts.m_disk.afterwards([&client, nID = cmd.stream.nStreamID] { client.m_mapStreamByID.erase(nID); },
                                  [reply] { reply.ok(); });
    }
}

void CRequestHandler::playClip(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    const structMICMD::PlayClipBody& body = cmd.playClip;
    const auto pStream = freeStreamOf(client, body.nStreamID, false, reply);
    if (!pStream)
        return;
    const CClipPtr pClip = client.findFile(body.nFileID);
    if (!pClip)
    {
        reply.refuse(fmt::format("the client has no file {}", body.nFileID));
        return;
    }
    m_parts.m_clipStore.waitFor(pClip, body.nOffset, playWhenLoaded(pStream, body.nOffset, body.nLength, reply));
}

void CRequestHandler::playFile(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    const structMICMD::PlayFileBody& body = cmd.playFile;
    std::string strName;
    const auto pStream = freeStreamOf(client, body.nStreamID, false, reply);
    if (pStream && fileNameOf(body.szFileName, strName, reply))
    {
        m_parts.m_clipStore.load(strName, body.nStartPos,
                                 playWhenLoaded(pStream, body.nStartPos, MAX_CLIP_SAMPLES, reply));
    }
}

void CRequestHandler::recordFile(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    std::string strName;
    const auto pStream = freeStreamOf(client, cmd.recordFile.nStreamID, true, reply);
    if (pStream && fileNameOf(cmd.recordFile.szFileName, strName, reply))
    {
        pStream->startRecord(
            strName, cmd.recordFile.nMaxSamples, reply.sequenceNo(),
            [reply](bool bOk, const std::string& strError) { bOk ? reply.ok() : reply.refuse(strError); });
    }
}

void CRequestHandler::cancel(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    const auto pStream = streamOf(client, cmd.cancel.nStreamID, reply);
    if (!pStream)
        return;
    // A client may leave the type unset; then it means whatever is active.
    const bool bPlay = cmd.cancel.nCancelType != MICANCEL_RECORD;
    const bool bRecord = cmd.cancel.nCancelType != MICANCEL_PLAY;
    const auto cancelRecord = [pWeak = std::weak_ptr(pStream), bRecord, reply] {
        const auto pStreamNow = pWeak.lock();
        if (pStreamNow && bRecord)
        {
            pStreamNow->cancelRecord([reply] { reply.ok(); });
            return;
        }
        reply.ok();
    };
    bPlay ? pStream->cancelPlay(cancelRecord) : cancelRecord();
}

void CRequestHandler::getStats(CClient&, const structMICMD&, const CReply& reply)
{
    reply.refuse("there are no statistics of this kind");
}

void CRequestHandler::ping(CClient&, const structMICMD&, const CReply& reply)
{
    reply.ok();
}

void CRequestHandler::dump(CClient& client, const structMICMD&, const CReply& reply)
{
    spdlog::info("dump for client {}: {} clients, {} clips in memory, next file id {}, next stream id {}",
                 client.connectId(), m_parts.m_registry.clients().size(), m_parts.m_clipStore.count(), m_nNextFileID,
                 m_nNextStreamID);
    dump();
    reply.ok();
}

void CRequestHandler::recordGetTime(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    if (const auto pStream = streamOf(client, cmd.stream.nStreamID, reply))
        reply.value(MIRSP_RECORDGETTIME, pStream->recordedMs());
}

void CRequestHandler::recordGetStatus(CClient& client, const structMICMD& cmd, const CReply& reply)
{
    if (const auto pStream = streamOf(client, cmd.stream.nStreamID, reply))
        reply.value(MIRSP_RECORDGETSTATUS, static_cast<int32_t>(pStream->recordStatus()));
}

void CRequestHandler::unknown(CClient&, const structMICMD&, const CReply& reply)
{
    reply.refuse("there is no such command");
}
