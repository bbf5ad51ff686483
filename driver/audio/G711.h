// G.711: the form in which all audio is held in memory is µ-law.
#ifndef DRIVER_G711_H
#define DRIVER_G711_H

#include <array>
#include <cstdint>

constexpr uint8_t ULAW_SILENCE = 0xFF;

// The µ-law byte of a linear 16-bit sample. Every value that a µ-law byte decodes to is encoded to
// that byte again, except that negative zero becomes positive zero.
uint8_t encodeULaw(int16_t nSample);
int16_t decodeULaw(uint8_t nSample);

// Indexed by the code of one law, holds the code of the other: the conversions that G.711 itself
// gives, which lose less there and back than the way over linear samples.
using CG711Table = std::array<uint8_t, 256>;
const CG711Table& uLawToALaw();
const CG711Table& aLawToULaw();

#endif
