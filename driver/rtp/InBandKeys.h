// Keys of a telephone as tones in the audio, where no events were agreed.
#ifndef DRIVER_IN_BAND_KEYS_H
#define DRIVER_IN_BAND_KEYS_H

#include <cstdint>
#include <memory>
#include <span>

class CKeyListener;

// Neither blocks, locks nor allocates once it was made.
class CInBandKeys
{
public:
    // The listener outlives it.
    explicit CInBandKeys(CKeyListener& listener);
    ~CInBandKeys();
    CInBandKeys(const CInBandKeys&) = delete;
    CInBandKeys& operator=(const CInBandKeys&) = delete;

    // The next µ-law samples of the far end. A key is down about 25 ms after its tone has begun.
    void onSamples(std::span<const uint8_t> samples);

private:
    struct CDetector;

    void onTone(char cKey); // 0: it has ended

    CKeyListener& m_listener;
    const std::unique_ptr<CDetector> m_pDetector;
    char m_cDown = 0;
    uint64_t m_ullSamples = 0; // that were looked at
    uint64_t m_ullDown = 0;    // of them, when the key was found
};

#endif
