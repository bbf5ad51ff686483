// The recording of a whole call: what the party said on the left, what it heard on the right.
#ifndef DRIVER_CALL_RECORDER_H
#define DRIVER_CALL_RECORDER_H

#include "AudioSink.h"
#include "RtpSession.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

// Time is that of the media tick, for both sides, from the beginning on: silence stands for what did not come,
// was not sent, or could not be written. What is older than a second is in the file, whatever becomes of the
// driver.
class CCallRecorder : public CRtpSession::CTap, public std::enable_shared_from_this<CCallRecorder>
{
public:
    using EndFunction = std::function<void(bool bOk, uint64_t ullSamples)>;

    // Begins at once; a file that cannot be opened ends it. onEnd is called once, unless the recorder is gone.
    static std::shared_ptr<CCallRecorder> begin(CExecutor& disk, const std::string& strPath, EndFunction onEnd);

    // What is given lives until the file is whole and onEnd was called.
    void end(std::shared_ptr<void> pKeep = nullptr);
    bool isDone() const { return !m_onEnd; }

    void onMedia(std::span<const uint8_t> said, std::span<const uint8_t> heard) override;
    void onJump(uint64_t ullTicks) override { m_ullOwed += ullTicks * CRtpSession::TICK; }
    bool wantsService() const override;
    void service() override;

private:
    explicit CCallRecorder(EndFunction onEnd) : m_onEnd(std::move(onEnd)) {}

    void onOpened(std::shared_ptr<CAudioSink> pSink, const std::string& strError);
    void finish(bool bOk);
    bool put(std::span<const uint8_t> said, std::span<const uint8_t> heard);

    EndFunction m_onEnd; // empty once it was called
    std::shared_ptr<CAudioSink> m_pSink;
    bool m_bEnded = false;
    std::shared_ptr<void> m_pKeep; // of an end that comes before the file is open
    uint64_t m_ullSamples = 0;     // of each side
    uint64_t m_ullOwed = 0;        // of silence that is to be written before anything else
    uint64_t m_ullUpdated = 0;     // m_ullSamples when the file was made whole for the last time
};

#endif
