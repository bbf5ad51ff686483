// G.711 µ-law: the form in which all audio is held in memory.
#ifndef DRIVER_G711_H
#define DRIVER_G711_H

#include <algorithm>
#include <bit>
#include <cstdint>

constexpr std::uint8_t ULAW_SILENCE = 0xFF;

// The µ-law byte of a linear 16-bit sample. Every value that a µ-law byte decodes to is encoded to
// that byte again, except that negative zero becomes positive zero.
constexpr std::uint8_t EncodeULaw(std::int16_t nSample)
{
    constexpr int BIAS = 0x84;
    constexpr int CLIP = 32635;
    const int nSign = nSample < 0 ? 0x80 : 0;
    const int nMagnitude = std::min(nSample < 0 ? -static_cast<int>(nSample) : nSample, CLIP) + BIAS;
    const int nExponent = static_cast<int>(std::bit_width(static_cast<unsigned>(nMagnitude))) - 8;
    const int nMantissa = (nMagnitude >> (nExponent + 3)) & 0x0F;
    return static_cast<std::uint8_t>(~(nSign | (nExponent << 4) | nMantissa));
}

#endif
