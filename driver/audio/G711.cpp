// G.711: the form in which all audio is held in memory is µ-law.
#include "G711.h"

#include <cmath> // the headers of spandsp do not include what they need, nor each other

#include <spandsp/telephony.h>

#include <spandsp/bit_operations.h>

#include <spandsp/g711.h>

namespace
{
CG711Table MakeTable(std::uint8_t (*pConvert)(std::uint8_t))
{
    CG711Table table{};
    for (std::size_t n = 0; n < table.size(); ++n)
    {
        table[n] = pConvert(static_cast<std::uint8_t>(n));
    }
    return table;
}
} // namespace

std::uint8_t EncodeULaw(std::int16_t nSample)
{
    return linear_to_ulaw(nSample);
}

std::int16_t DecodeULaw(std::uint8_t nSample)
{
    return ulaw_to_linear(nSample);
}

const CG711Table& ULawToALaw()
{
    static const CG711Table table = MakeTable(ulaw_to_alaw);
    return table;
}

const CG711Table& ALawToULaw()
{
    static const CG711Table table = MakeTable(alaw_to_ulaw);
    return table;
}
