// G.711: the form in which all audio is held in memory is µ-law.
#include "G711.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace
{
template <class FUNCTION> void forEachByte(FUNCTION function)
{
    for (int n = 0; n < 256; ++n)
        function(static_cast<uint8_t>(n));
}
} // namespace

TEST(G711, DecodesKnownBytes)
{
    EXPECT_EQ(decodeULaw(0xFF), 0);
    EXPECT_EQ(decodeULaw(0x7F), 0);
    EXPECT_EQ(decodeULaw(0xFE), 8);
    EXPECT_EQ(decodeULaw(0x80), 32124);
    EXPECT_EQ(decodeULaw(0x00), -32124);
}

TEST(G711, EncodesEveryDecodedByteToItselfButForNegativeZero)
{
    forEachByte([](uint8_t n) { EXPECT_EQ(encodeULaw(decodeULaw(n)), n == 0x7F ? 0xFF : n); });
}

TEST(G711, EncodesEverySampleToAnAdjacentStep)
{
    for (int nSample = INT16_MIN; nSample <= INT16_MAX; ++nSample)
    {
        const int nDecoded = decodeULaw(encodeULaw(static_cast<int16_t>(nSample)));
        const int nLevel = std::abs(nSample) + 132; // steps double with each power of two of this
        const int nHalfStep = nLevel >= 32768 ? 1024 : (1 << (31 - __builtin_clz(static_cast<unsigned>(nLevel)))) / 32;
        ASSERT_LE(std::abs(nDecoded - nSample), nHalfStep) << nSample;
    }
}

TEST(G711, ConvertsBetweenTheLawsAsItsTablesSay)
{
    EXPECT_EQ(uLawToALaw()[0xFF], 0xD5);
    EXPECT_EQ(uLawToALaw()[0x7F], 0x55);
    EXPECT_EQ(uLawToALaw()[0x80], 0xAA);
    EXPECT_EQ(uLawToALaw()[0x00], 0x2A);
    EXPECT_EQ(aLawToULaw()[0xD5], 0xFE);
    EXPECT_EQ(aLawToULaw()[0x55], 0x7E);
    EXPECT_EQ(aLawToULaw()[0xAA], 0x80);
    EXPECT_EQ(aLawToULaw()[0x2A], 0x00);
}

TEST(G711, KeepsTheSignOverTheOtherLaw)
{
    forEachByte([](uint8_t n) {
        EXPECT_EQ(uLawToALaw()[n] & 0x80, n & 0x80);
        EXPECT_EQ(aLawToULaw()[n] & 0x80, n & 0x80);
    });
}

TEST(G711, ComesBackFromTheOtherLawWithinAStep)
{
    forEachByte([](uint8_t n) {
        EXPECT_LE(std::abs(aLawToULaw()[uLawToALaw()[n]] - n), 1) << +n;
        // The bits of A-law bytes are inverted by turns; without that neighbours differ by one.
        EXPECT_LE(std::abs((uLawToALaw()[aLawToULaw()[n]] ^ 0x55) - (n ^ 0x55)), 1) << +n;
    });
}
