// Channels that are pairs of audio files in a folder.
#ifndef DRIVER_FILE_CHANNEL_H
#define DRIVER_FILE_CHANNEL_H

#include "AudioWriter.h"
#include "Channel.h"
#include "ClipStore.h"

// What the caller hears goes to FOLDER/CALLID-LEG.heard.wav: exactly the samples that were played, in
// order and back to back, so that it can be compared with the prompts; time without a play leaves no
// trace in it. Opening the channel empties the file.
//
// What the caller says comes from FOLDER/CALLID.in.wav and is consumed by recordings only: the first
// one of the channel begins at the start of the file, each further one where the former stopped. So
// the same application records the same samples at any speed. A recording stops when the file ends.
// Where there is no file, or where it had ended before, the caller is silent without end.
class CFileChannel : public CChannel
{
public:
    CFileChannel(CClipStore& clipStore, std::string strInPath, std::unique_ptr<CAudioWriter> pHeard);

    bool Hear(std::span<const std::uint8_t> samples) override;
    bool FinishHearing() override;
    bool BeginListening(std::string& strError) override;
    std::size_t Listen(std::span<std::uint8_t> samples) override;

private:
    CClipStore& m_clipStore;
    const std::string m_strInPath;
    std::unique_ptr<CAudioWriter> m_pHeard;
    CClipPtr m_pSaid;        // null before the first recording and where there is no file
    bool m_bStarted = false; // a recording has begun
    bool m_bSilent = false;  // of the recording that began last
    std::size_t m_nPosition = 0;
};

class CFileChannelFactory : public CChannelFactory
{
public:
    CFileChannelFactory(CClipStore& clipStore, std::string strFolder);

    // Call ids become parts of file names: those that are empty, hold a slash, ".." or a control
    // character are refused. So is a call id and leg that has an open channel.
    std::unique_ptr<CChannel> Open(const std::string& strCallID, std::uint32_t nLegID, std::string& strError) override;

private:
    CClipStore& m_clipStore;
    const std::string m_strFolder;
};

#endif
