// A client's stream on a channel: at most one play and one recording at a time, moved by the media tick.
#include "Stream.h"

#include "G711.h"
#include "MediaClock.h"
#include "Text.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <exception>
#include <new>

namespace
{
// A WAV file counts its bytes in 32 bits, and the recorded time in milliseconds must fit into an int.
constexpr uint64_t MAX_RECORD_SAMPLES = 0x7FFF0000;

constexpr const char* HANGUP_TEXT = "the caller has hung up";

const char* doneText(int32_t nStatus)
{
    switch (nStatus)
    {
    case DONE_FINISHED: return "finished";
    case DONE_CANCELLED: return "was cancelled";
    case DONE_HUNG_UP: return "ended with the call";
    default: return "failed";
    }
}

spdlog::level::level_enum doneLevel(int32_t nStatus)
{
    return nStatus == DONE_FAILED ? spdlog::level::err : spdlog::level::info;
}

void callAll(const std::vector<CStream::DoneFunction>& vFunctions)
{
    for (const CStream::DoneFunction& function : vFunctions)
        function();
}

// Where there is no memory to hand that on, the file is closed with its last holder.
void closeUnheard(const std::shared_ptr<CAudioSink>& pSink)
{
    try
    {
        if (pSink)
            pSink->close([](bool) {});
    }
    catch (const std::bad_alloc&)
    {
    }
}
} // namespace

CStream::CStream(int nID, std::string strCallID, uint32_t nLegID, std::unique_ptr<CChannel> pChannel,
                 CMediaClock& clock, CExecutor& disk, EventFunction onEvent)
    : m_pChannel(std::move(pChannel)), m_nID(nID), m_nLegID(nLegID), m_strCallID(std::move(strCallID)), m_clock(clock),
      m_disk(disk), m_onEvent(std::move(onEvent))
{
}

CStream::~CStream()
{
    if (m_play || m_record)
        spdlog::info("stream {} closes while active: {}", m_nID, describe());
    m_clock.stop(*this);
    if (m_record && !m_record->m_bFinishing)
        closeUnheard(m_record->m_pSink);
}

void CStream::startPlay(CClipPtr pClip, size_t nOffset, size_t nLength, uint32_t nSequenceNo)
{
    spdlog::info("stream {} plays \"{}\" from {}, at most {} samples, sequence {}", m_nID, printable(pClip->path()),
                 nOffset, nLength, nSequenceNo);
    m_play = CPlay{std::move(pClip), nOffset, nOffset + nLength, nSequenceNo, {}, false, {}};
    updateClock();
}

void CStream::startRecord(const std::string& strPath, uint32_t nMaxSamples, uint32_t nSequenceNo, StartFunction done)
{
    m_record =
        CRecord{nullptr, strPath,        std::min<uint64_t>(nMaxSamples, MAX_RECORD_SAMPLES), nSequenceNo, {}, false,
                {},      std::move(done)};
    try
    {
        m_pChannel->beginListening([pWeak = weak_from_this()](bool bOk, const std::string& strError) {
            const auto pThis = pWeak.lock();
            if (pThis && bOk && !pThis->m_bHungUp)
                pThis->openRecordFile();
            else if (pThis)
                pThis->abandonRecord(bOk ? HANGUP_TEXT : strError);
        });
    }
    catch (const std::exception& exception)
    {
        abandonRecord(exception.what());
    }
}

void CStream::openRecordFile()
{
    try
    {
        CAudioSink::open(
            m_disk, m_record->m_strPath,
            [pWeak = weak_from_this()](const std::shared_ptr<CAudioSink>& pSink, const std::string& strError) {
                if (const auto pThis = pWeak.lock())
                    pThis->onRecordFile(pSink, strError);
                else if (pSink)
                    pSink->close([](bool) {});
            });
    }
    catch (const std::exception& exception)
    {
        abandonRecord(exception.what());
    }
}

void CStream::onRecordFile(const std::shared_ptr<CAudioSink>& pSink, const std::string& strError)
{
    try
    {
        if (!pSink)
        {
            abandonRecord(fmt::format("\"{}\" cannot be written: {}", printable(m_record->m_strPath), strError));
            return;
        }
        m_record->m_pSink = pSink;
        if (m_bHungUp)
        {
            abandonRecord(HANGUP_TEXT);
            return;
        }
        beginRecord();
    }
    catch (const std::exception& exception)
    {
        abandonRecord(exception.what());
        return;
    }
    m_record->m_started(true, {});
    endRecordIfDue();
}

// It may have been abandoned already, by what was done at once.
void CStream::abandonRecord(const std::string& strError)
{
    if (!m_record)
        return;
    m_pChannel->endListening();
    const CRecord record = std::move(*m_record);
    m_record.reset();
    updateClock();
    closeUnheard(record.m_pSink);
    record.m_started(false, strError);
    callAll(record.m_vWaiters);
}

void CStream::beginRecord()
{
    updateClock();
    spdlog::info("stream {} records to \"{}\", at most {} samples, sequence {}", m_nID, printable(m_record->m_strPath),
                 m_record->m_ullMaxSamples, m_record->m_nSequenceNo);
    m_ullRecorded = 0;
    m_eRecordStatus = ERecordStatus::Recording;
}

void CStream::endRecordIfDue()
{
    if (m_record && m_record->m_nEndStatus)
        endRecord(*m_record->m_nEndStatus);
}

void CStream::cancelPlay(DoneFunction done)
{
    if (!m_play)
    {
        done();
        return;
    }
    m_play->m_vWaiters.push_back(std::move(done));
    endPlay(DONE_CANCELLED);
}

void CStream::cancelRecord(DoneFunction done)
{
    if (!m_record)
    {
        done();
        return;
    }
    m_record->m_vWaiters.push_back(std::move(done));
    endRecord(DONE_CANCELLED);
}

void CStream::hangUp()
{
    m_bHungUp = true;
    if (m_play)
        endPlay(DONE_HUNG_UP);
    // A recording whose file is still being opened sees the flag.
    if (m_record && m_record->m_pSink)
        endRecord(DONE_HUNG_UP);
}

bool CStream::isMoving() const
{
    return (m_play && !m_play->m_bFinishing) || (m_record && m_record->m_pSink && !m_record->m_bFinishing);
}

void CStream::updateClock()
{
    isMoving() ? m_clock.start(*this) : m_clock.stop(*this);
}

CStream::CAdvance CStream::advance(size_t nSamples, bool bSkipped)
{
    size_t nMoved = 0;
    bool bSettle = m_pChannel->wantsService();
    if (m_play && !m_play->m_bFinishing && !bSkipped)
    {
        if (m_pChannel->isInterrupted())
            m_play->m_nEndStatus = DONE_CANCELLED;
        else
            nMoved += advancePlay(nSamples);
        bSettle |= m_play->m_nEndStatus.has_value();
    }
    if (m_record && m_record->m_pSink && !m_record->m_bFinishing)
    {
        nMoved += advanceRecord(nSamples);
        bSettle |= m_record->m_nEndStatus.has_value() || m_record->m_pSink->wantsService();
    }
    return {bSettle, nMoved > 0 || bSettle};
}

size_t CStream::advancePlay(size_t nSamples)
{
    const CClip& clip = *m_play->m_pClip;
    const bool bDecoded = clip.isDecoded(); // asked for first: then what is ready is all there is
    const size_t nReady = clip.ready();
    const size_t nEnd = std::min(m_play->m_nEnd, nReady);
    const size_t nCount = std::min(nSamples, nEnd - m_play->m_nPosition);
    const size_t nTaken = m_pChannel->hear({clip.samples() + m_play->m_nPosition, nCount});
    m_play->m_nPosition += nTaken;
    if (m_pChannel->hasFailed())
        m_play->m_nEndStatus = DONE_FAILED;
    else if (m_play->m_nPosition == m_play->m_nEnd)
        m_play->m_nEndStatus = DONE_FINISHED;
    else if (bDecoded && m_play->m_nPosition == nReady)
        m_play->m_nEndStatus = clip.isBroken() ? DONE_FAILED : DONE_FINISHED;
    return nTaken;
}

size_t CStream::advanceRecord(size_t nSamples)
{
    const uint64_t ullLeft = m_record->m_ullMaxSamples - m_ullRecorded;
    const size_t nWanted = std::min({nSamples, TICK_SAMPLES, static_cast<size_t>(ullLeft)});
    const size_t nCount = m_pChannel->isLive() ? recordLive(nWanted) : recordWaiting(nWanted);
    m_ullRecorded += nCount;
    if (m_record->m_pSink->hasFailed())
        m_record->m_nEndStatus = DONE_FAILED;
    else if (m_ullRecorded == m_record->m_ullMaxSamples)
        m_record->m_nEndStatus = DONE_FINISHED;
    else if (m_pChannel->hasCallerEnded())
        m_record->m_nEndStatus = m_pChannel->hasCallerFailed() ? DONE_FAILED : DONE_FINISHED;
    return nCount;
}

// Where the disk does not keep up, the caller is not listened to before it has.
size_t CStream::recordWaiting(size_t nSamples)
{
    std::array<uint8_t, TICK_SAMPLES> abTick;
    CAudioSink& sink = *m_record->m_pSink;
    const size_t nCount = m_pChannel->listen({abTick.data(), std::min(nSamples, sink.room())});
    sink.put({abTick.data(), nCount});
    return nCount;
}

// A live caller does not wait for the disk: what there is no room for becomes silence, so that what follows
// keeps its time.
size_t CStream::recordLive(size_t nSamples)
{
    std::array<uint8_t, TICK_SAMPLES> abTick;
    const size_t nCount = m_pChannel->listen({abTick.data(), nSamples});
    payOwed();
    const size_t nPut = m_record->m_ullOwed > 0 ? 0 : m_record->m_pSink->put({abTick.data(), nCount});
    m_record->m_ullOwed += nCount - nPut;
    return nCount;
}

void CStream::payOwed()
{
    std::array<uint8_t, TICK_SAMPLES> abSilence;
    abSilence.fill(ULAW_SILENCE);
    uint64_t& ullOwed = m_record->m_ullOwed;
    while (ullOwed > 0)
    {
        const size_t nPut = m_record->m_pSink->put(
            {abSilence.data(), std::min<size_t>(abSilence.size(), static_cast<size_t>(ullOwed))});
        if (nPut == 0)
            return;
        ullOwed -= nPut;
    }
}

void CStream::jump(uint64_t ullSamples)
{
    if (!m_record || !m_record->m_pSink || m_record->m_bFinishing || !m_pChannel->isLive())
        return;
    const uint64_t ullCount = std::min(ullSamples, m_record->m_ullMaxSamples - m_ullRecorded);
    m_record->m_ullOwed += ullCount;
    m_ullRecorded += ullCount;
}

void CStream::settle()
{
    if (m_pChannel->wantsService())
        m_pChannel->service();
    if (m_record && m_record->m_pSink && m_record->m_pSink->wantsService())
        m_record->m_pSink->service();
    if (m_play && m_play->m_nEndStatus)
        endPlay(*m_play->m_nEndStatus);
    endRecordIfDue();
}

void CStream::endPlay(int32_t nStatus)
{
    if (m_play->m_bFinishing)
        return;
    m_play->m_nEndStatus = nStatus;
    m_play->m_bFinishing = true;
    updateClock();
    m_pChannel->finishHearing([pWeak = weak_from_this()](bool bOk) {
        if (const auto pThis = pWeak.lock())
            pThis->onPlayFinished(bOk);
    });
}

void CStream::onPlayFinished(bool bOk)
{
    const CPlay play = std::move(*m_play);
    m_play.reset();
    const int32_t nStatus = bOk || *play.m_nEndStatus != DONE_FINISHED ? *play.m_nEndStatus : DONE_FAILED;
    spdlog::log(doneLevel(nStatus), "stream {} play {} at {} of \"{}\", sequence {}", m_nID, doneText(nStatus),
                play.m_nPosition, printable(play.m_pClip->path()), play.m_nSequenceNo);
    m_onEvent(false, {MIEVT_DONE, m_nID, play.m_nSequenceNo, nStatus});
    callAll(play.m_vWaiters);
}

void CStream::endRecord(int32_t nStatus)
{
    if (m_record->m_bFinishing)
        return;
    m_record->m_nEndStatus = nStatus;
    if (!m_record->m_pSink)
        return; // it ends as soon as its file is open
    m_record->m_bFinishing = true;
    updateClock();
    m_pChannel->endListening();
    payOwed();
    m_record->m_pSink->close([pWeak = weak_from_this()](bool bOk) {
        if (const auto pThis = pWeak.lock())
            pThis->onRecordFinished(bOk);
    });
}

void CStream::onRecordFinished(bool bOk)
{
    const CRecord record = std::move(*m_record);
    m_record.reset();
    const int32_t nStatus = bOk ? *record.m_nEndStatus : DONE_FAILED;
    spdlog::log(doneLevel(nStatus), "stream {} recording {} with {} samples in \"{}\", sequence {}", m_nID,
                doneText(nStatus), m_ullRecorded, printable(record.m_strPath), record.m_nSequenceNo);
    m_eRecordStatus = nStatus == DONE_FAILED ? ERecordStatus::Failed : ERecordStatus::Finished;
    m_onEvent(true, {MIEVT_DONE, m_nID, record.m_nSequenceNo, nStatus});
    callAll(record.m_vWaiters);
}

int32_t CStream::recordedMs() const
{
    return static_cast<int32_t>(m_ullRecorded / MI_SAMPLES_PER_MILLISECOND);
}

CStreamState CStream::state() const
{
    CStreamState state;
    state.m_nID = m_nID;
    state.m_strCallID = m_strCallID;
    state.m_nLegID = m_nLegID;
    state.m_pChannelKind = m_pChannel->kind();
    state.m_bHungUp = m_bHungUp;
    if (m_play)
    {
        state.m_bPlaying = true;
        state.m_strPlayPath = m_play->m_pClip->path();
        state.m_nPlayPosition = m_play->m_nPosition;
        state.m_nPlayEnd =
            m_play->m_pClip->isDecoded() ? std::min(m_play->m_nEnd, m_play->m_pClip->ready()) : m_play->m_nEnd;
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

std::string CStream::describe() const
{
    const CStreamState state = this->state();
    std::string strText = fmt::format("stream {}, {} channel, call id \"{}\", leg {}{}", m_nID, state.m_pChannelKind,
                                      printable(m_strCallID), m_nLegID, m_bHungUp ? ", hung up" : "");
    if (state.m_bPlaying)
    {
        strText += fmt::format(", plays \"{}\" at {} until {}, sequence {}", printable(state.m_strPlayPath),
                               state.m_nPlayPosition, state.m_nPlayEnd, state.m_nPlaySequence);
    }
    if (state.m_bRecording)
    {
        strText += fmt::format(", records \"{}\" up to {}, sequence {}", printable(state.m_strRecordPath),
                               state.m_ullMaxSamples, state.m_nRecordSequence);
    }
    return strText + fmt::format(", record status {}, {} ms recorded", state.m_nRecordStatus, recordedMs());
}
