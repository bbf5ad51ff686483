// G.711: the form in which all audio is held in memory is µ-law.
#include "G711.h"

#include <cmath> // the headers of spandsp do not include what they need, nor each other

#include <spandsp/telephony.h>

#include <spandsp/bit_operations.h>

#include <spandsp/g711.h>

namespace
{
CG711Table makeTable(uint8_t (*pConvert)(uint8_t))
{
    CG711Table table{};
    for (size_t n = 0; n < table.size(); ++n)
        table[n] = pConvert(static_cast<uint8_t>(n));
    return table;
}
} // namespace

uint8_t encodeULaw(int16_t nSample)
{
    return linear_to_ulaw(nSample);
}

int16_t decodeULaw(uint8_t nSample)
{
    return ulaw_to_linear(nSample);
}

const CG711Table& uLawToALaw()
{
    static const CG711Table table = makeTable(ulaw_to_alaw);
    return table;
}

const CG711Table& aLawToULaw()
{
    static const CG711Table table = makeTable(alaw_to_ulaw);
    return table;
}
