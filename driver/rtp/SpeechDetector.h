// Tells when a far end begins to speak and when it has ended.
#ifndef DRIVER_SPEECH_DETECTOR_H
#define DRIVER_SPEECH_DETECTOR_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

class CSpeechDetector
{
public:
    static constexpr unsigned FRAME_MS = 10;
    static constexpr unsigned BEGIN_MS = 60; // of voice, for which speech has begun
    static constexpr unsigned END_MS = 600;  // without voice, after which it has ended

    CSpeechDetector();
    ~CSpeechDetector();
    CSpeechDetector(const CSpeechDetector&) = delete;
    CSpeechDetector& operator=(const CSpeechDetector&) = delete;

    // The next µ-law samples of the far end. Returns whether this has changed.
    bool onSamples(std::span<const uint8_t> samples);
    bool isSpeaking() const { return m_bSpeaking; }

private:
    struct CVoice;
    static constexpr size_t FRAME = FRAME_MS * 8;

    void onFrame(bool bVoice);

    const std::unique_ptr<CVoice> m_pVoice;
    std::array<uint8_t, FRAME> m_frame;
    size_t m_nFilled = 0;
    unsigned m_nMs = 0; // for which voice has been there while it does not speak, or not while it does
    bool m_bSpeaking = false;
};

#endif
