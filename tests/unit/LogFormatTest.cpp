// Tests of the texts of lines: each is what vsnprintf makes of it, in buffers of every size.
#include "LogFormat.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

using OrvLogLib::blankControls;
using OrvLogLib::formatText;
using OrvLogLib::writeDigits;

namespace
{
constexpr char UNTOUCHED = '\xA5';
constexpr size_t BEHIND = 64;

// Compares both formatters. Not declared as a printf: conversions that nobody should use are compared, too.
void compare(const char* pszFormat, ...)
{
    va_list arguments;
    va_start(arguments, pszFormat);
    va_list again;
    va_copy(again, arguments);
    errno = ENOENT;
    char szExpected[2000];
    const int nExpected = vsnprintf(szExpected, sizeof(szExpected), pszFormat, again);
    va_end(again);
    const size_t nLength = nExpected < 0 ? 0 : static_cast<size_t>(nExpected);
    for (size_t nSize = 0; nSize <= nLength + 2; ++nSize)
    {
        std::string strBuffer(nSize + BEHIND, UNTOUCHED);
        va_copy(again, arguments);
        errno = ENOENT;
        const int nFormatted = formatText(strBuffer.data(), nSize, pszFormat, again);
        va_end(again);
        ASSERT_EQ(strBuffer.substr(nSize), std::string(BEHIND, UNTOUCHED)) << pszFormat << " in " << nSize;
        if (nExpected < 0 || nSize < nLength)
        {
            ASSERT_EQ(nFormatted, -1) << pszFormat << " in " << nSize;
        }
        else if (nSize > nLength || nFormatted >= 0) // the C library wants a byte more
        {
            ASSERT_EQ(nFormatted, nExpected) << pszFormat << " in " << nSize;
            ASSERT_EQ(strBuffer.substr(0, nLength), szExpected) << pszFormat;
        }
    }
    va_end(arguments);
}

int format(char* pBuffer, size_t nSize, const char* pszFormat, ...)
{
    va_list arguments;
    va_start(arguments, pszFormat);
    const int nFormatted = formatText(pBuffer, nSize, pszFormat, arguments);
    va_end(arguments);
    return nFormatted;
}

std::string blanked(std::string strText)
{
    for (char& c : strText)
        if (static_cast<unsigned char>(c) < 32 || c == 127)
            c = ' ';
    return strText;
}
} // namespace

TEST(LogFormat, TextsWithoutConversionsAreCopied)
{
    for (const char* const pszText : {"", "a", "CMIntf::initialize", "\x80\xff umlauts \xc3\xa4", "\n\t"})
        compare(pszText);
    compare("%%");
    compare("100%% of %%d");
}

TEST(LogFormat, IntegersOfTheWidthOfInt)
{
    for (const int nNumber : {0, 1, -1, 9, 10, -10, 99, 100, 0x7fff, 65536, -1234567, INT_MAX, INT_MIN})
        for (const char* const pszFormat :
             {"%d", "%i", "%u", "%x", "%X", "%08x", "%08X", "%01x", "%09u", "n=%d.", "0x%08X:"})
            compare(pszFormat, nNumber);
}

TEST(LogFormat, IntegersOfTheWidthOfLong)
{
    for (const long nNumber : {0L, 1L, -1L, 4294967L, -2147483647L, LONG_MAX, LONG_MIN, LONG_MAX / 3})
        for (const char* const pszFormat : {"%ld", "%li", "%lu", "%lx", "%lX", "%08lx", "%08lX", "%09lu", "<%ld>"})
            compare(pszFormat, nNumber);
}

TEST(LogFormat, Strings)
{
    const std::string strLong(777, 'l');
    for (const char* const pszText : {"", "x", "100%d", "\x01\x7f", strLong.c_str(), static_cast<const char*>(nullptr)})
        for (const char* const pszFormat : {"%s", "'%s'", "%s%%"})
            compare(pszFormat, pszText);
}

TEST(LogFormat, SeveralConversionsTakeTheirArgumentsInOrder)
{
    compare("%s(%d, %u, 0x%08X) -> %ld of %lu: %s", "CMIntf::play", -7, 4000000000U, 0xC1030190U, -1L, 7UL, "MCS_OK");
    compare("%d%d%d%d%d%d%d%d%d%d", 1, -2, 3, -4, 5, -6, 7, -8, 9, -10);
    compare("%lx%s%x%s%lX", 255UL, "", 255U, "mid", 255UL);
}

TEST(LogFormat, ConversionsThatAreLeftToTheCLibrary)
{
    int nAny = 0;
    compare("%p", static_cast<void*>(&nAny));
    compare("%p", static_cast<void*>(nullptr));
    for (const char* const pszFormat : {"%5d", "%-5d|", "%05d", "%+d", "% d", "%.3d", "%hhd", "%hd", "%c", "%o", "%#x",
                                        "%016x", "%08d", "%08i", "%'d"})
        compare(pszFormat, 65);
    for (const char* const pszFormat : {"%5s", "%-9s|", "%.2s", "%08s"})
        compare(pszFormat, "text");
    compare("%.*s|%*d", 3, "abcdef", 6, 42);
    compare("%ls|%d", L"wide", 42);
    compare("%0s|%d", "text", 42);
    compare("%l%|%d", 42);
    compare("%0%|%d", 42);
    compare("%lld %llu %zu %jd", LLONG_MIN, ULLONG_MAX, size_t{7}, intmax_t{-1});
    compare("%f %.1f %g %e", 1.5, -0.25, 1e100, 12345.678);
    compare("%2$s %1$d", 5, "positions");
}

TEST(LogFormat, UnknownConversionsAfterKnownOnesStartAgainWithAllArguments)
{
    compare("%d %s %ld %5d %s", 1, "two", 3L, 4, "five");
    compare("%s %08X %p", "pointer", 0xABCU, static_cast<void*>(nullptr));
    compare("%ld %d %f", LONG_MIN, INT_MIN, 0.5);
}

TEST(LogFormat, BrokenConversionsAreWhateverTheCLibraryMakesOfThem)
{
#if defined(ZELMEDIA_ASAN) || defined(ZELMEDIA_TSAN)
    GTEST_SKIP() << "the sanitizers end a program that uses them";
#endif
    for (const char* const pszFormat :
         {"%", "a%", "%l", "%0", "%08", "%08l", "%d %", "%y", "%ly", "%00d", "%010d", "%0ld"})
        compare(pszFormat, 1L, 2L);
}

TEST(LogFormat, ErrnoIsShownAsTheCallerHasIt)
{
    compare("%m");
    compare("%d: %m!", 7);
    char szText[100] = "";
    errno = ENOSPC;
    const int nLength = format(szText, sizeof(szText), "open: %m");
    EXPECT_EQ(std::string(szText, static_cast<size_t>(nLength)), std::string("open: ") + strerror(ENOSPC));
}

TEST(LogFormat, NullFormatIsAnEmptyText)
{
    char szText[] = "untouched";
    EXPECT_EQ(format(szText, sizeof(szText), nullptr), 0);
    EXPECT_STREQ(szText, "untouched");
}

TEST(LogFormat, BlanksStandInForEveryControlCharacterAndForNothingElse)
{
    for (int n = 0; n < 256; ++n)
    {
        char c = static_cast<char>(n);
        blankControls(&c, 1);
        EXPECT_EQ(c, n < 32 || n == 127 ? ' ' : static_cast<char>(n)) << n;
    }
}

TEST(LogFormat, ControlCharactersAreFoundAtEveryPositionOfEveryLength)
{
    for (const char cControl : {'\0', '\n', '\x1f', '\x7f'})
        for (const char cOther : {' ', '!', '~', '\x80', '\xa0', '\xff'})
            for (size_t nLength = 1; nLength <= 80; ++nLength)
                for (size_t nPosition = 0; nPosition < nLength; ++nPosition)
                {
                    std::string strText(nLength + 1, cOther);
                    strText[nPosition] = strText[nLength] = cControl;
                    std::string strExpected(nLength + 1, cOther);
                    strExpected[nPosition] = ' ';
                    strExpected[nLength] = cControl;
                    blankControls(strText.data(), nLength);
                    ASSERT_EQ(strText, strExpected) << nPosition << " of " << nLength;
                }
}

TEST(LogFormat, NeighboursOfControlCharactersKeepTheirBytes)
{
    // Two bytes side by side, at every place in a word.
    for (int nFirst = 0; nFirst < 256; ++nFirst)
        for (const int nSecond : {0, 1, 31, 32, 33, 126, 127, 128, 129, 254, 255})
        {
            std::string strText;
            for (int n = 0; n < 12; ++n)
            {
                strText += static_cast<char>(nFirst);
                strText.append(static_cast<size_t>(n % 3), static_cast<char>(nSecond));
            }
            std::string strBlanked = strText;
            blankControls(strBlanked.data(), strBlanked.size());
            ASSERT_EQ(strBlanked, blanked(strText)) << nFirst << " " << nSecond;
        }
}

TEST(LogFormat, DigitsAreWrittenInPairsWithZerosBeforeThem)
{
    char szText[] = "........";
    writeDigits(szText + 1, 42, 3);
    EXPECT_STREQ(szText, ".000042.");
    writeDigits(szText + 1, 1234567, 2);
    EXPECT_STREQ(szText, ".456742.");
    writeDigits(szText + 1, 9, 0);
    EXPECT_STREQ(szText, ".456742.");
    for (unsigned int u = 0; u < 10000; ++u)
    {
        writeDigits(szText, u, 2);
        ASSERT_EQ(std::string(szText, 4), std::to_string(10000 + u).substr(1));
    }
}
