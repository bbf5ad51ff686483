// A client's stream on a channel: at most one play and one recording at a time, moved by the media tick.
#ifndef DRIVER_STREAM_H
#define DRIVER_STREAM_H

#include "AudioSink.h"
#include "Channel.h"
#include "Clip.h"
#include "DriverState.h"
#include "MediaProtocol.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class CMediaClock;

// The answer to MICMD_RECORDGETSTATUS.
enum class ERecordStatus : int32_t
{
    None = 0,
    Recording = 1,
    Finished = 2, // at its limit, at the caller's end, by a cancel or a hang-up
    Failed = 3    // the file could not be written
};

// s_mcstatus of the MIEVT_DONE events that the driver sends.
enum : int32_t
{
    DONE_FINISHED = 0,
    DONE_FAILED = 1, // of the file or the disk
    DONE_CANCELLED = 3,
    DONE_HUNG_UP = 5
};

// Used on the loop's thread, and held by shared pointers. A stream that is destroyed ends what is
// active on it without an event; its files are complete once the disk has done its work.
class CStream : public std::enable_shared_from_this<CStream>
{
public:
    // Gets the event of each play and recording that has ended, once its files are complete.
    using EventFunction = std::function<void(bool bRecord, const structMIEVT& evt)>;
    using DoneFunction = std::function<void()>;
    using StartFunction = std::function<void(bool bOk, const std::string& strError)>;

    // The clock and the disk must outlive the stream.
    CStream(int nID, std::string strCallID, uint32_t nLegID, std::unique_ptr<CChannel> pChannel, CMediaClock& clock,
            CExecutor& disk, EventFunction onEvent);
    ~CStream();
    CStream(const CStream&) = delete;
    CStream& operator=(const CStream&) = delete;

    int id() const { return m_nID; }
    const std::string& callId() const { return m_strCallID; }
    uint32_t legId() const { return m_nLegID; }
    bool isRealTime() const { return m_pChannel->isRealTime(); }

    // From the start until the event was given.
    bool isPlaying() const { return m_play.has_value(); }
    bool isRecording() const { return m_record.has_value(); }
    bool isHungUp() const { return m_bHungUp; }

    // Starts a play of at most nLength samples from nOffset; it ends with the clip. nSequenceNo is that
    // of the request, for the event. The stream must not be playing.
    void startPlay(CClipPtr pClip, size_t nOffset, size_t nLength, uint32_t nSequenceNo);

    // Starts a recording of at most nMaxSamples. The stream must not be recording, and counts as recording
    // from here on. done is called at once or later; bOk is false when it cannot start.
    void startRecord(const std::string& strPath, uint32_t nMaxSamples, uint32_t nSequenceNo, StartFunction done);

    // Ends the play or the recording; what was recorded is kept. done is called right after its event was
    // given, at once if nothing is active.
    void cancelPlay(DoneFunction done);
    void cancelRecord(DoneFunction done);

    // Ends play and recording. The stream takes no further ones.
    void hangUp();

    struct CAdvance
    {
        bool m_bSettle; // call settle after the tick
        bool m_bMoved;  // false when it had to wait
    };

    // Moves play and recording on the media tick, and neither blocks, locks nor allocates.
    // In a tick that is skipped only recordings move.
    CAdvance advance(size_t nSamples, bool bSkipped);
    void settle();

    // Time that nobody remembers: of a caller who is live a recording has silence for it.
    void jump(uint64_t ullSamples);

    // Of the recording that runs or ran last.
    int32_t recordedMs() const;
    ERecordStatus recordStatus() const { return m_eRecordStatus; }

    CStreamState state() const;

    // The state in one line, for the log.
    std::string describe() const;

private:
    friend class CMediaClock;

    struct CPlay
    {
        CClipPtr m_pClip;
        size_t m_nPosition;
        size_t m_nEnd; // may lie behind the clip
        uint32_t m_nSequenceNo;
        std::optional<int32_t> m_nEndStatus;
        bool m_bFinishing = false;
        std::vector<DoneFunction> m_vWaiters;
    };
    struct CRecord
    {
        std::shared_ptr<CAudioSink> m_pSink; // null until the file is open
        std::string m_strPath;
        uint64_t m_ullMaxSamples;
        uint32_t m_nSequenceNo;
        std::optional<int32_t> m_nEndStatus;
        bool m_bFinishing = false;
        std::vector<DoneFunction> m_vWaiters;
        StartFunction m_started; // called once
        uint64_t m_ullOwed = 0; // samples of silence that are to be written before anything else
    };

    void openRecordFile();
    void onRecordFile(const std::shared_ptr<CAudioSink>& pSink, const std::string& strError);
    void abandonRecord(const std::string& strError);
    void beginRecord();
    size_t advancePlay(size_t nSamples);
    size_t advanceRecord(size_t nSamples);
    size_t recordWaiting(size_t nSamples);
    size_t recordLive(size_t nSamples);
    void payOwed();
    void endPlay(int32_t nStatus);
    void endRecord(int32_t nStatus);
    void endRecordIfDue();
    void onPlayFinished(bool bOk);
    void onRecordFinished(bool bOk);
    bool isMoving() const;
    void updateClock();

    // What the tick touches comes first.
    std::optional<CPlay> m_play;
    std::optional<CRecord> m_record;
    const std::unique_ptr<CChannel> m_pChannel;
    uint64_t m_ullRecorded = 0; // samples
    size_t m_nClockIndex = SIZE_MAX;
    size_t m_nSettleIndex = SIZE_MAX;
    ERecordStatus m_eRecordStatus = ERecordStatus::None;
    bool m_bHungUp = false;

    const int m_nID;
    const uint32_t m_nLegID;
    const std::string m_strCallID;
    CMediaClock& m_clock;
    CExecutor& m_disk;
    const EventFunction m_onEvent;
};

#endif
