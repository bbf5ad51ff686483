// Channels that are pairs of audio files in a folder.
#ifndef DRIVER_FILE_CHANNEL_H
#define DRIVER_FILE_CHANNEL_H

#include "AudioSink.h"
#include "Channel.h"
#include "ClipStore.h"

// How the channels of a folder behave.
struct CFileChannelOptions
{
    std::string m_strFolder = ".";
    bool m_bRealTime = true;
    bool m_bSilenceAfterCaller = false; // recordings go on with silence when the caller's file has ended
};

// What the caller hears goes to FOLDER/CALLID-LEG.heard.wav: exactly the samples that were played, in
// order and back to back, so that it can be compared with the prompts; time without a play leaves no
// trace in it. Opening the channel empties the file.
//
// What the caller says comes from FOLDER/CALLID.in.wav and is consumed by recordings only: the first
// one of the channel begins at the start of the file, each further one where the former stopped. So
// the same application records the same samples at any speed. A recording stops when the file ends,
// unless it is to go on with silence. Where there is no file, or where it had ended before, the caller
// is silent without end.
class CFileChannel : public CChannel
{
public:
    CFileChannel(CClipStore& clipStore, std::string strInPath, std::shared_ptr<CAudioSink> pHeard, bool bRealTime,
                 bool bSilenceAfterCaller);
    ~CFileChannel() override;

    const char* kind() const override;
    bool isRealTime() const override;
    size_t hear(std::span<const uint8_t> samples) override;
    bool hasFailed() const override;
    void finishHearing(FinishFunction done) override;
    void beginListening(BeginFunction done) override;
    size_t listen(std::span<uint8_t> samples) override;
    bool hasCallerEnded() const override;
    bool hasCallerFailed() const override;
    bool wantsService() const override;
    void service() override;

private:
    struct CCaller
    {
        CClipPtr m_pSaid;        // null before the first recording and where there is no file
        bool m_bStarted = false; // a recording has begun
    };

    CClipStore& m_clipStore;
    const std::string m_strInPath;
    const std::shared_ptr<CAudioSink> m_pHeard;
    const bool m_bRealTime;
    const bool m_bSilenceAfterCaller;
    const std::shared_ptr<CCaller> m_pCaller; // shared with loads that outlive the channel
    bool m_bSilent = false;                   // of the recording that runs
    bool m_bCallerEnded = false;              // of the recording that runs
    size_t m_nPosition = 0;
};

class CFileChannelFactory : public CChannelFactory
{
public:
    CFileChannelFactory(CClipStore& clipStore, CExecutor& disk, CFileChannelOptions options);

    // Call ids become parts of file names: those that are empty, hold a slash, ".." or a control
    // character are refused. So is a call id and leg that has an open channel.
    void open(const std::string& strCallID, uint32_t nLegID, OpenFunction done) override;

private:
    CClipStore& m_clipStore;
    CExecutor& m_disk;
    const CFileChannelOptions m_options;
};

#endif
