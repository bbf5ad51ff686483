// Tells when a far end begins to speak and when it has ended.
#include "SpeechDetector.h"

#include "G711.h"

#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

#include <algorithm>
#include <new>

struct CSpeechDetector::CVoice
{
    CVoice() : m_pProcessing(webrtc::AudioProcessing::Create())
    {
        if (!m_pProcessing || m_pProcessing->voice_detection()->Enable(true) != 0 ||
            m_pProcessing->voice_detection()->set_likelihood(webrtc::VoiceDetection::kVeryLowLikelihood) != 0)
            throw std::bad_alloc();
        m_frame.num_channels_ = 1;
        m_frame.samples_per_channel_ = FRAME;
        m_frame.sample_rate_hz_ = 8000;
        hears({}); // what it needs is allocated at the first frame
    }

    // Whether there is voice in the frame; an empty one is silence.
    bool hears(std::span<const uint8_t> samples)
    {
        std::fill_n(m_frame.data_, FRAME, int16_t{0});
        std::transform(samples.begin(), samples.end(), m_frame.data_, decodeULaw);
        return m_pProcessing->ProcessStream(&m_frame) == 0 && m_pProcessing->voice_detection()->stream_has_voice();
    }

    const std::unique_ptr<webrtc::AudioProcessing> m_pProcessing;
    webrtc::AudioFrame m_frame;
};

CSpeechDetector::CSpeechDetector() : m_pVoice(std::make_unique<CVoice>()) {}

CSpeechDetector::~CSpeechDetector() = default;

bool CSpeechDetector::onSamples(std::span<const uint8_t> samples)
{
    const bool bBefore = m_bSpeaking;
    while (!samples.empty())
    {
        const size_t n = std::min(samples.size(), FRAME - m_nFilled);
        std::copy_n(samples.begin(), n, m_frame.begin() + static_cast<std::ptrdiff_t>(m_nFilled));
        samples = samples.subspan(n);
        m_nFilled += n;
        if (m_nFilled < FRAME)
            break;
        m_nFilled = 0;
        onFrame(m_pVoice->hears(m_frame));
    }
    return m_bSpeaking != bBefore;
}

void CSpeechDetector::onFrame(bool bVoice)
{
    m_nMs = bVoice != m_bSpeaking ? m_nMs + FRAME_MS : 0;
    if (m_nMs < (m_bSpeaking ? END_MS : BEGIN_MS))
        return;
    m_bSpeaking = bVoice;
    m_nMs = 0;
}
