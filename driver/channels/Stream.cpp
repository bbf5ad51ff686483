// A client's stream on a channel: at most one play and one recording at a time, moved by the media tick.
#include "Stream.h"

#include "MediaClock.h"
#include "Text.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>

namespace
{
// A WAV file counts its bytes in 32 bits, and the recorded time in milliseconds must fit into an int.
constexpr std::uint64_t MAX_RECORD_SAMPLES = 0x7FFF0000;

constexpr const char* HANGUP_TEXT = "the caller has hung up";

const char* DoneText(int32_t nStatus)
{
    switch (nStatus)
    {
    case DONE_FINISHED: return "finished";
    case DONE_CANCELLED: return "was cancelled";
    case DONE_HUNG_UP: return "ended with the call";
    default: return "failed";
    }
}

spdlog::level::level_enum DoneLevel(int32_t nStatus)
{
    return nStatus == DONE_FAILED ? spdlog::level::err : spdlog::level::info;
}

void CallAll(const std::vector<CStream::DoneFunction>& vFunctions)
{
    for (const CStream::DoneFunction& function : vFunctions)
    {
        function();
    }
}
} // namespace

CStream::CStream(int nID, std::string strCallID, std::uint32_t nLegID, std::unique_ptr<CChannel> pChannel,
                 CMediaClock& clock, CExecutor& disk, EventFunction onEvent)
    : m_pChannel(std::move(pChannel)), m_nID(nID), m_nLegID(nLegID), m_strCallID(std::move(strCallID)), m_clock(clock),
      m_disk(disk), m_onEvent(std::move(onEvent))
{
}

CStream::~CStream()
{
    if (m_play || m_record)
    {
        spdlog::info("stream {} closes while active: {}", m_nID, Describe());
    }
    m_clock.Stop(*this);
    if (m_record && m_record->m_pSink && !m_record->m_bFinishing)
    {
        m_record->m_pSink->Close([](bool) {});
    }
}

void CStream::StartPlay(CClipPtr pClip, std::size_t nOffset, std::size_t nLength, std::uint32_t nSequenceNo)
{
    spdlog::info("stream {} plays \"{}\" from {}, at most {} samples, sequence {}", m_nID, Printable(pClip->Path()),
                 nOffset, nLength, nSequenceNo);
    m_play = CPlay{std::move(pClip), nOffset, nOffset + nLength, nSequenceNo, {}, false, {}};
    UpdateClock();
}

void CStream::StartRecord(const std::string& strPath, std::uint32_t nMaxSamples, std::uint32_t nSequenceNo,
                          StartFunction done)
{
    m_record =
        CRecord{nullptr, strPath, std::min<std::uint64_t>(nMaxSamples, MAX_RECORD_SAMPLES), nSequenceNo, {}, false, {}};
    m_pChannel->BeginListening(
        [pWeak = weak_from_this(), done = std::move(done)](bool bOk, const std::string& strError) mutable {
            const auto pThis = pWeak.lock();
            if (pThis && bOk && !pThis->m_bHungUp)
            {
                pThis->OpenRecordFile(std::move(done));
            }
            else if (pThis)
            {
                pThis->AbandonRecord(bOk ? HANGUP_TEXT : strError, done);
            }
        });
}

void CStream::OpenRecordFile(StartFunction done)
{
    CAudioSink::Open(m_disk, m_record->m_strPath,
                     [pWeak = weak_from_this(), done = std::move(done)](const std::shared_ptr<CAudioSink>& pSink,
                                                                        const std::string& strError) {
                         const auto pThis = pWeak.lock();
                         if (pThis && pSink && !pThis->m_bHungUp)
                         {
                             pThis->BeginRecord(pSink);
                             done(true, {});
                             pThis->EndRecordIfDue();
                             return;
                         }
                         if (pSink)
                         {
                             pSink->Close([](bool) {});
                         }
                         if (pThis)
                         {
                             pThis->AbandonRecord(pSink ? HANGUP_TEXT
                                                        : fmt::format("\"{}\" cannot be written: {}",
                                                                      Printable(pThis->m_record->m_strPath), strError),
                                                  done);
                         }
                     });
}

void CStream::AbandonRecord(const std::string& strError, const StartFunction& done)
{
    m_pChannel->EndListening();
    const CRecord record = std::move(*m_record);
    m_record.reset();
    done(false, strError);
    CallAll(record.m_vWaiters);
}

void CStream::BeginRecord(std::shared_ptr<CAudioSink> pSink)
{
    spdlog::info("stream {} records to \"{}\", at most {} samples, sequence {}", m_nID, Printable(m_record->m_strPath),
                 m_record->m_ullMaxSamples, m_record->m_nSequenceNo);
    m_record->m_pSink = std::move(pSink);
    m_ullRecorded = 0;
    m_eRecordStatus = ERecordStatus::Recording;
    UpdateClock();
}

void CStream::EndRecordIfDue()
{
    if (m_record && m_record->m_nEndStatus)
    {
        EndRecord(*m_record->m_nEndStatus);
    }
}

void CStream::CancelPlay(DoneFunction done)
{
    if (!m_play)
    {
        done();
        return;
    }
    m_play->m_vWaiters.push_back(std::move(done));
    EndPlay(DONE_CANCELLED);
}

void CStream::CancelRecord(DoneFunction done)
{
    if (!m_record)
    {
        done();
        return;
    }
    m_record->m_vWaiters.push_back(std::move(done));
    EndRecord(DONE_CANCELLED);
}

void CStream::HangUp()
{
    m_bHungUp = true;
    if (m_play)
    {
        EndPlay(DONE_HUNG_UP);
    }
    // A recording whose file is still being opened sees the flag.
    if (m_record && m_record->m_pSink)
    {
        EndRecord(DONE_HUNG_UP);
    }
}

bool CStream::IsMoving() const
{
    return (m_play && !m_play->m_bFinishing) || (m_record && m_record->m_pSink && !m_record->m_bFinishing);
}

void CStream::UpdateClock()
{
    IsMoving() ? m_clock.Start(*this) : m_clock.Stop(*this);
}

CStream::CAdvance CStream::Advance(std::size_t nSamples)
{
    std::size_t nMoved = 0;
    bool bSettle = m_pChannel->WantsService();
    if (m_play && !m_play->m_bFinishing)
    {
        nMoved += AdvancePlay(nSamples);
        bSettle |= m_play->m_nEndStatus.has_value();
    }
    if (m_record && m_record->m_pSink && !m_record->m_bFinishing)
    {
        nMoved += AdvanceRecord(nSamples);
        bSettle |= m_record->m_nEndStatus.has_value() || m_record->m_pSink->WantsService();
    }
    return {bSettle, nMoved > 0 || bSettle};
}

std::size_t CStream::AdvancePlay(std::size_t nSamples)
{
    const CClip& clip = *m_play->m_pClip;
    const bool bDecoded = clip.IsDecoded(); // asked for first: then what is ready is all there is
    const std::size_t nReady = clip.Ready();
    const std::size_t nEnd = std::min(m_play->m_nEnd, nReady);
    const std::size_t nCount = std::min(nSamples, nEnd - m_play->m_nPosition);
    const std::size_t nTaken = m_pChannel->Hear({clip.Samples() + m_play->m_nPosition, nCount});
    m_play->m_nPosition += nTaken;
    if (m_pChannel->HasFailed())
    {
        m_play->m_nEndStatus = DONE_FAILED;
    }
    else if (m_play->m_nPosition == m_play->m_nEnd)
    {
        m_play->m_nEndStatus = DONE_FINISHED;
    }
    else if (bDecoded && m_play->m_nPosition == nReady)
    {
        m_play->m_nEndStatus = clip.IsBroken() ? DONE_FAILED : DONE_FINISHED;
    }
    return nTaken;
}

std::size_t CStream::AdvanceRecord(std::size_t nSamples)
{
    CAudioSink& sink = *m_record->m_pSink;
    std::array<std::uint8_t, TICK_SAMPLES> abTick;
    const std::uint64_t ullLeft = m_record->m_ullMaxSamples - m_ullRecorded;
    // Where the disk does not keep up, the caller is not listened to before it has.
    const std::size_t nAsked = std::min({nSamples, abTick.size(), static_cast<std::size_t>(ullLeft), sink.Room()});
    const std::size_t nCount = m_pChannel->Listen({abTick.data(), nAsked});
    sink.Put({abTick.data(), nCount});
    m_ullRecorded += nCount;
    if (sink.HasFailed())
    {
        m_record->m_nEndStatus = DONE_FAILED;
    }
    else if (m_ullRecorded == m_record->m_ullMaxSamples)
    {
        m_record->m_nEndStatus = DONE_FINISHED;
    }
    else if (m_pChannel->HasCallerEnded())
    {
        m_record->m_nEndStatus = m_pChannel->HasCallerFailed() ? DONE_FAILED : DONE_FINISHED;
    }
    return nCount;
}

void CStream::Settle()
{
    if (m_pChannel->WantsService())
    {
        m_pChannel->Service();
    }
    if (m_record && m_record->m_pSink && m_record->m_pSink->WantsService())
    {
        m_record->m_pSink->Service();
    }
    if (m_play && m_play->m_nEndStatus)
    {
        EndPlay(*m_play->m_nEndStatus);
    }
    EndRecordIfDue();
}

void CStream::EndPlay(int32_t nStatus)
{
    if (m_play->m_bFinishing)
    {
        return;
    }
    m_play->m_nEndStatus = nStatus;
    m_play->m_bFinishing = true;
    UpdateClock();
    m_pChannel->FinishHearing([pWeak = weak_from_this()](bool bOk) {
        if (const auto pThis = pWeak.lock())
        {
            pThis->OnPlayFinished(bOk);
        }
    });
}

void CStream::OnPlayFinished(bool bOk)
{
    const CPlay play = std::move(*m_play);
    m_play.reset();
    const int32_t nStatus = bOk || *play.m_nEndStatus != DONE_FINISHED ? *play.m_nEndStatus : DONE_FAILED;
    spdlog::log(DoneLevel(nStatus), "stream {} play {} at {} of \"{}\", sequence {}", m_nID, DoneText(nStatus),
                play.m_nPosition, Printable(play.m_pClip->Path()), play.m_nSequenceNo);
    m_onEvent(false, {MIEVT_DONE, m_nID, play.m_nSequenceNo, nStatus});
    CallAll(play.m_vWaiters);
}

void CStream::EndRecord(int32_t nStatus)
{
    if (m_record->m_bFinishing)
    {
        return;
    }
    m_record->m_nEndStatus = nStatus;
    if (!m_record->m_pSink)
    {
        return; // it ends as soon as its file is open
    }
    m_record->m_bFinishing = true;
    UpdateClock();
    m_pChannel->EndListening();
    m_record->m_pSink->Close([pWeak = weak_from_this()](bool bOk) {
        if (const auto pThis = pWeak.lock())
        {
            pThis->OnRecordFinished(bOk);
        }
    });
}

void CStream::OnRecordFinished(bool bOk)
{
    const CRecord record = std::move(*m_record);
    m_record.reset();
    const int32_t nStatus = bOk ? *record.m_nEndStatus : DONE_FAILED;
    spdlog::log(DoneLevel(nStatus), "stream {} recording {} with {} samples in \"{}\", sequence {}", m_nID,
                DoneText(nStatus), m_ullRecorded, Printable(record.m_strPath), record.m_nSequenceNo);
    m_eRecordStatus = nStatus == DONE_FAILED ? ERecordStatus::Failed : ERecordStatus::Finished;
    m_onEvent(true, {MIEVT_DONE, m_nID, record.m_nSequenceNo, nStatus});
    CallAll(record.m_vWaiters);
}

int32_t CStream::RecordedMs() const
{
    return static_cast<int32_t>(m_ullRecorded / MI_SAMPLES_PER_MILLISECOND);
}

CStreamState CStream::State() const
{
    CStreamState state;
    state.m_nID = m_nID;
    state.m_strCallID = m_strCallID;
    state.m_nLegID = m_nLegID;
    state.m_pChannelKind = m_pChannel->Kind();
    state.m_bHungUp = m_bHungUp;
    if (m_play)
    {
        state.m_bPlaying = true;
        state.m_strPlayPath = m_play->m_pClip->Path();
        state.m_nPlayPosition = m_play->m_nPosition;
        state.m_nPlayEnd =
            m_play->m_pClip->IsDecoded() ? std::min(m_play->m_nEnd, m_play->m_pClip->Ready()) : m_play->m_nEnd;
        state.m_nPlaySequence = m_play->m_nSequenceNo;
    }
    if (m_record)
    {
        state.m_bRecording = true;
        state.m_strRecordPath = m_record->m_strPath;
        state.m_ullMaxSamples = m_record->m_ullMaxSamples;
        state.m_nRecordSequence = m_record->m_nSequenceNo;
    }
    state.m_ullRecorded = m_ullRecorded;
    state.m_nRecordStatus = static_cast<int>(m_eRecordStatus);
    return state;
}

std::string CStream::Describe() const
{
    const CStreamState state = State();
    std::string strText = fmt::format("stream {}, {} channel, call id \"{}\", leg {}{}", m_nID, state.m_pChannelKind,
                                      Printable(m_strCallID), m_nLegID, m_bHungUp ? ", hung up" : "");
    if (state.m_bPlaying)
    {
        strText += fmt::format(", plays \"{}\" at {} until {}, sequence {}", Printable(state.m_strPlayPath),
                               state.m_nPlayPosition, state.m_nPlayEnd, state.m_nPlaySequence);
    }
    if (state.m_bRecording)
    {
        strText += fmt::format(", records \"{}\" up to {}, sequence {}", Printable(state.m_strRecordPath),
                               state.m_ullMaxSamples, state.m_nRecordSequence);
    }
    return strText + fmt::format(", record status {}, {} ms recorded", state.m_nRecordStatus, RecordedMs());
}
