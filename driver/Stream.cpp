// A client's stream on a channel: at most one play and one recording at a time, moved by the media tick.
#include "Stream.h"

#include "Text.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>

namespace
{
// A WAV file counts its bytes in 32 bits, and the recorded time in milliseconds must fit into an int.
constexpr std::uint64_t MAX_RECORD_SAMPLES = 0x7FFF0000;

const char* DoneText(int32_t nStatus)
{
    switch (nStatus)
    {
    case DONE_FINISHED: return "finished";
    case DONE_CANCELLED: return "was cancelled";
    default: return "failed";
    }
}
} // namespace

CStream::CStream(int nID, std::string strCallID, std::uint32_t nLegID, std::unique_ptr<CChannel> pChannel)
    : m_nID(nID), m_strCallID(std::move(strCallID)), m_nLegID(nLegID), m_pChannel(std::move(pChannel))
{
}

CStream::~CStream()
{
    if (IsActive())
    {
        spdlog::info("stream {} closes while active: {}", m_nID, Describe());
    }
}

bool CStream::IsPlaying() const
{
    return m_play.has_value();
}

bool CStream::IsRecording() const
{
    return m_record.has_value();
}

bool CStream::IsActive() const
{
    return IsPlaying() || IsRecording();
}

void CStream::StartPlay(CClipPtr pClip, std::size_t nOffset, std::size_t nLength, std::uint32_t nSequenceNo)
{
    spdlog::info("stream {} plays \"{}\" from {}, {} samples, sequence {}", m_nID, Printable(pClip->m_strPath), nOffset,
                 nLength, nSequenceNo);
    m_play = CPlay{std::move(pClip), nOffset, nOffset + nLength, nSequenceNo};
}

bool CStream::StartRecord(const std::string& strPath, std::uint32_t nMaxSamples, std::uint32_t nSequenceNo,
                          std::string& strError)
{
    if (!m_pChannel->BeginListening(strError))
    {
        return false;
    }
    std::string strReason;
    auto pFile = CAudioWriter::Create(strPath, strReason);
    if (!pFile)
    {
        strError = fmt::format("\"{}\" cannot be written: {}", Printable(strPath), strReason);
        return false;
    }
    spdlog::info("stream {} records to \"{}\", at most {} samples, sequence {}", m_nID, Printable(strPath), nMaxSamples,
                 nSequenceNo);
    m_record =
        CRecord{std::move(pFile), strPath, std::min<std::uint64_t>(nMaxSamples, MAX_RECORD_SAMPLES), nSequenceNo};
    m_ullRecorded = 0;
    m_eRecordStatus = ERecordStatus::Recording;
    return true;
}

void CStream::CancelPlay(std::vector<structMIEVT>& vEvents)
{
    if (m_play)
    {
        EndPlay(DONE_CANCELLED, vEvents);
    }
}

void CStream::CancelRecord(std::vector<structMIEVT>& vEvents)
{
    if (m_record)
    {
        EndRecord(DONE_CANCELLED, vEvents);
    }
}

void CStream::Advance(std::size_t nSamples, std::vector<structMIEVT>& vEvents)
{
    if (m_play)
    {
        AdvancePlay(nSamples, vEvents);
    }
    if (m_record)
    {
        AdvanceRecord(nSamples, vEvents);
    }
}

void CStream::AdvancePlay(std::size_t nSamples, std::vector<structMIEVT>& vEvents)
{
    const std::size_t nCount = std::min(nSamples, m_play->m_nEnd - m_play->m_nPosition);
    if (!m_pChannel->Hear({m_play->m_pClip->m_samples.data() + m_play->m_nPosition, nCount}))
    {
        EndPlay(DONE_FAILED, vEvents);
        return;
    }
    m_play->m_nPosition += nCount;
    if (m_play->m_nPosition == m_play->m_nEnd)
    {
        EndPlay(DONE_FINISHED, vEvents);
    }
}

void CStream::AdvanceRecord(std::size_t nSamples, std::vector<structMIEVT>& vEvents)
{
    std::array<std::uint8_t, 160> abChunk;
    std::uint64_t ullLeft = std::min<std::uint64_t>(nSamples, m_record->m_ullMaxSamples - m_ullRecorded);
    bool bCallerEnded = false;
    while (ullLeft > 0 && !bCallerEnded)
    {
        const std::size_t nAsked = std::min<std::size_t>(abChunk.size(), ullLeft);
        const std::size_t nCount = m_pChannel->Listen({abChunk.data(), nAsked});
        if (!m_record->m_pFile->Write({abChunk.data(), nCount}))
        {
            EndRecord(DONE_FAILED, vEvents);
            return;
        }
        m_ullRecorded += nCount;
        ullLeft -= nCount;
        bCallerEnded = nCount < nAsked;
    }
    if (bCallerEnded || m_ullRecorded == m_record->m_ullMaxSamples)
    {
        EndRecord(DONE_FINISHED, vEvents);
    }
}

void CStream::EndPlay(int32_t nStatus, std::vector<structMIEVT>& vEvents)
{
    if (!m_pChannel->FinishHearing() && nStatus == DONE_FINISHED)
    {
        nStatus = DONE_FAILED;
    }
    spdlog::log(nStatus == DONE_FAILED ? spdlog::level::err : spdlog::level::info,
                "stream {} play {} at {} of \"{}\", sequence {}", m_nID, DoneText(nStatus), m_play->m_nPosition,
                Printable(m_play->m_pClip->m_strPath), m_play->m_nSequenceNo);
    vEvents.push_back({MIEVT_DONE, m_nID, m_play->m_nSequenceNo, nStatus});
    m_play.reset();
}

void CStream::EndRecord(int32_t nStatus, std::vector<structMIEVT>& vEvents)
{
    if (!m_record->m_pFile->Close())
    {
        nStatus = DONE_FAILED;
    }
    spdlog::log(nStatus == DONE_FAILED ? spdlog::level::err : spdlog::level::info,
                "stream {} recording {} with {} samples in \"{}\", sequence {}", m_nID, DoneText(nStatus),
                m_ullRecorded, Printable(m_record->m_strPath), m_record->m_nSequenceNo);
    vEvents.push_back({MIEVT_DONE, m_nID, m_record->m_nSequenceNo, nStatus});
    m_eRecordStatus = nStatus == DONE_FAILED ? ERecordStatus::Failed : ERecordStatus::Finished;
    m_record.reset();
}

int32_t CStream::RecordedMs() const
{
    return static_cast<int32_t>(m_ullRecorded / MI_SAMPLES_PER_MILLISECOND);
}

ERecordStatus CStream::RecordStatus() const
{
    return m_eRecordStatus;
}

std::string CStream::Describe() const
{
    std::string strText = fmt::format("stream {}, call id \"{}\", leg {}", m_nID, Printable(m_strCallID), m_nLegID);
    if (m_play)
    {
        strText += fmt::format(", plays \"{}\" at {} until {}, sequence {}", Printable(m_play->m_pClip->m_strPath),
                               m_play->m_nPosition, m_play->m_nEnd, m_play->m_nSequenceNo);
    }
    if (m_record)
    {
        strText += fmt::format(", records \"{}\" up to {}, sequence {}", Printable(m_record->m_strPath),
                               m_record->m_ullMaxSamples, m_record->m_nSequenceNo);
    }
    return strText + fmt::format(", record status {}, {} ms recorded", static_cast<int>(m_eRecordStatus), RecordedMs());
}
