// A client's stream on a channel: at most one play and one recording at a time, moved by the media tick.
#ifndef DRIVER_STREAM_H
#define DRIVER_STREAM_H

#include "AudioWriter.h"
#include "Channel.h"
#include "ClipStore.h"
#include "MediaProtocol.h"

#include <optional>
#include <vector>

// The answer to MICMD_RECORDGETSTATUS.
enum class ERecordStatus : int32_t
{
    None = 0,
    Recording = 1,
    Finished = 2, // at its limit, at the caller's end or by a cancel
    Failed = 3    // the file could not be written
};

// s_mcstatus of the MIEVT_DONE events that the driver sends.
enum : int32_t
{
    DONE_FINISHED = 0,
    DONE_FAILED = 1,
    DONE_CANCELLED = 3
};

// Destroying a stream ends what is active on it without an event; the files are complete then, too.
class CStream
{
public:
    CStream(int nID, std::string strCallID, std::uint32_t nLegID, std::unique_ptr<CChannel> pChannel);
    ~CStream();

    bool IsPlaying() const;
    bool IsRecording() const;
    bool IsActive() const;

    // Starts a play of nLength samples from nOffset; both must lie within the clip. nSequenceNo is
    // that of the request, for the event. The stream must not be playing.
    void StartPlay(CClipPtr pClip, std::size_t nOffset, std::size_t nLength, std::uint32_t nSequenceNo);

    // Starts a recording of at most nMaxSamples. The stream must not be recording. False, with the
    // reason in strError, when it cannot start; the state is then as before.
    bool StartRecord(const std::string& strPath, std::uint32_t nMaxSamples, std::uint32_t nSequenceNo,
                     std::string& strError);

    // Ends the play or the recording; what was recorded is kept. Appends its event, if one was active.
    void CancelPlay(std::vector<structMIEVT>& vEvents);
    void CancelRecord(std::vector<structMIEVT>& vEvents);

    // Moves play and recording by nSamples. Appends the events of what ended.
    void Advance(std::size_t nSamples, std::vector<structMIEVT>& vEvents);

    // Of the recording that runs or ran last.
    int32_t RecordedMs() const;
    ERecordStatus RecordStatus() const;

    // The state in one line, for the log.
    std::string Describe() const;

private:
    struct CPlay
    {
        CClipPtr m_pClip;
        std::size_t m_nPosition;
        std::size_t m_nEnd;
        std::uint32_t m_nSequenceNo;
    };
    struct CRecord
    {
        std::unique_ptr<CAudioWriter> m_pFile;
        std::string m_strPath;
        std::uint64_t m_ullMaxSamples;
        std::uint32_t m_nSequenceNo;
    };

    void AdvancePlay(std::size_t nSamples, std::vector<structMIEVT>& vEvents);
    void AdvanceRecord(std::size_t nSamples, std::vector<structMIEVT>& vEvents);
    void EndPlay(int32_t nStatus, std::vector<structMIEVT>& vEvents);
    void EndRecord(int32_t nStatus, std::vector<structMIEVT>& vEvents);

    const int m_nID;
    const std::string m_strCallID;
    const std::uint32_t m_nLegID;
    std::unique_ptr<CChannel> m_pChannel;
    std::optional<CPlay> m_play;
    std::optional<CRecord> m_record;
    std::uint64_t m_ullRecorded = 0; // samples
    ERecordStatus m_eRecordStatus = ERecordStatus::None;
};

#endif
