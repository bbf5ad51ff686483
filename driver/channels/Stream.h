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
    CStream(int nID, std::string strCallID, std::uint32_t nLegID, std::unique_ptr<CChannel> pChannel,
            CMediaClock& clock, CExecutor& disk, EventFunction onEvent);
    ~CStream();
    CStream(const CStream&) = delete;
    CStream& operator=(const CStream&) = delete;

    int ID() const { return m_nID; }
    const std::string& CallID() const { return m_strCallID; }
    std::uint32_t LegID() const { return m_nLegID; }
    bool IsRealTime() const { return m_pChannel->IsRealTime(); }

    // From the start until the event was given.
    bool IsPlaying() const { return m_play.has_value(); }
    bool IsRecording() const { return m_record.has_value(); }
    bool IsHungUp() const { return m_bHungUp; }

    // Starts a play of at most nLength samples from nOffset; it ends with the clip. nSequenceNo is that
    // of the request, for the event. The stream must not be playing.
    void StartPlay(CClipPtr pClip, std::size_t nOffset, std::size_t nLength, std::uint32_t nSequenceNo);

    // Starts a recording of at most nMaxSamples. The stream must not be recording, and counts as recording
    // from here on. done is called at once or later; bOk is false when it cannot start.
    void StartRecord(const std::string& strPath, std::uint32_t nMaxSamples, std::uint32_t nSequenceNo,
                     StartFunction done);

    // Ends the play or the recording; what was recorded is kept. done is called right after its event was
    // given, at once if nothing is active.
    void CancelPlay(DoneFunction done);
    void CancelRecord(DoneFunction done);

    // Ends play and recording. The stream takes no further ones.
    void HangUp();

    struct CAdvance
    {
        bool m_bSettle; // call Settle after the tick
        bool m_bMoved;  // false when it had to wait
    };

    // Moves play and recording on the media tick, and neither blocks, locks nor allocates.
    CAdvance Advance(std::size_t nSamples);
    void Settle();

    // Of the recording that runs or ran last.
    int32_t RecordedMs() const;
    ERecordStatus RecordStatus() const { return m_eRecordStatus; }

    CStreamState State() const;

    // The state in one line, for the log.
    std::string Describe() const;

private:
    friend class CMediaClock;

    struct CPlay
    {
        CClipPtr m_pClip;
        std::size_t m_nPosition;
        std::size_t m_nEnd; // may lie behind the clip
        std::uint32_t m_nSequenceNo;
        std::optional<int32_t> m_nEndStatus;
        bool m_bFinishing = false;
        std::vector<DoneFunction> m_vWaiters;
    };
    struct CRecord
    {
        std::shared_ptr<CAudioSink> m_pSink; // null until the file is open
        std::string m_strPath;
        std::uint64_t m_ullMaxSamples;
        std::uint32_t m_nSequenceNo;
        std::optional<int32_t> m_nEndStatus;
        bool m_bFinishing = false;
        std::vector<DoneFunction> m_vWaiters;
    };

    void OpenRecordFile(StartFunction done);
    void AbandonRecord(const std::string& strError, const StartFunction& done);
    void BeginRecord(std::shared_ptr<CAudioSink> pSink);
    std::size_t AdvancePlay(std::size_t nSamples);
    std::size_t AdvanceRecord(std::size_t nSamples);
    void EndPlay(int32_t nStatus);
    void EndRecord(int32_t nStatus);
    void EndRecordIfDue();
    void OnPlayFinished(bool bOk);
    void OnRecordFinished(bool bOk);
    bool IsMoving() const;
    void UpdateClock();

    // What the tick touches comes first.
    std::optional<CPlay> m_play;
    std::optional<CRecord> m_record;
    const std::unique_ptr<CChannel> m_pChannel;
    std::uint64_t m_ullRecorded = 0; // samples
    std::size_t m_nClockIndex = SIZE_MAX;
    std::size_t m_nSettleIndex = SIZE_MAX;
    ERecordStatus m_eRecordStatus = ERecordStatus::None;
    bool m_bHungUp = false;

    const int m_nID;
    const std::uint32_t m_nLegID;
    const std::string m_strCallID;
    CMediaClock& m_clock;
    CExecutor& m_disk;
    const EventFunction m_onEvent;
};

#endif
