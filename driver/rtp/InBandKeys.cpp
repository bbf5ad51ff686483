// Keys of a telephone as tones in the audio, where no events were agreed.
#include "InBandKeys.h"

#include "G711.h"
#include "TelephoneEvents.h"

#include <algorithm>
#include <array>
#include <cmath> // the headers of spandsp do not include what they need, nor each other
#include <cstddef>
#include <new>

#include <spandsp/telephony.h>

#include <spandsp/logging.h>
#include <spandsp/queue.h>

#include <spandsp/complex.h>
#include <spandsp/tone_detect.h>

#include <spandsp/dds.h>
#include <spandsp/tone_generate.h>

#include <spandsp/super_tone_rx.h>

#include <spandsp/dtmf.h>

namespace
{
// The detector looks at blocks of this many samples, and reports behind the end of one.
constexpr size_t BLOCK = 102;
constexpr unsigned SAMPLES_PER_MS = 8;
} // namespace

struct CInBandKeys::CDetector
{
    CDetector()
    {
        if (m_pState == nullptr)
            throw std::bad_alloc();
    }
    ~CDetector() { dtmf_rx_free(m_pState); }
    CDetector(const CDetector&) = delete;
    CDetector& operator=(const CDetector&) = delete;

    dtmf_rx_state_t* const m_pState = dtmf_rx_init(nullptr, nullptr, nullptr);
};

CInBandKeys::CInBandKeys(CKeyListener& listener) : m_listener(listener), m_pDetector(std::make_unique<CDetector>())
{
    dtmf_rx_set_realtime_callback(
        m_pDetector->m_pState,
        [](void* pKeys, int nCode, int, int) { static_cast<CInBandKeys*>(pKeys)->onTone(static_cast<char>(nCode)); },
        this);
}

CInBandKeys::~CInBandKeys() = default;

void CInBandKeys::onSamples(std::span<const uint8_t> samples)
{
    std::array<int16_t, BLOCK> linear;
    while (!samples.empty())
    {
        const size_t n = std::min(samples.size(), linear.size());
        std::transform(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(n), linear.begin(), decodeULaw);
        samples = samples.subspan(n);
        m_ullSamples += n;
        dtmf_rx(m_pDetector->m_pState, linear.data(), static_cast<int>(n));
        char szDigits[8];
        dtmf_rx_get(m_pDetector->m_pState, szDigits, sizeof(szDigits) - 1); // would be full one day
    }
}

void CInBandKeys::onTone(char cKey)
{
    if (m_cDown != 0)
    {
        const auto nMs = static_cast<unsigned>((m_ullSamples - m_ullDown) / SAMPLES_PER_MS);
        m_listener.onKeyUp(m_cDown, nMs);
    }
    m_cDown = cKey;
    m_ullDown = m_ullSamples;
    if (cKey != 0)
        m_listener.onKeyDown(cKey);
}
