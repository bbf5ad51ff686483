// Texts of log lines: the printf conversions that lines use most, without what all others cost.
#include "LogFormat.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace OrvLogLib
{

namespace
{
// A va_list that functions can share: as a parameter, some widths turn it into a pointer.
class CArguments
{
public:
    explicit CArguments(va_list arguments) { va_copy(m_arguments, arguments); }
    ~CArguments() { va_end(m_arguments); }
    CArguments(const CArguments&) = delete;
    CArguments& operator=(const CArguments&) = delete;

    template <class T> T next() { return va_arg(m_arguments, T); }

private:
    va_list m_arguments;
};

enum class COutcome
{
    DONE,
    FULL,   // the text does not fit
    UNKNOWN // a conversion that is left to vsnprintf
};

class CFormatter
{
public:
    CFormatter(char* pBuffer, size_t nSize, va_list arguments)
        : m_pBegin(pBuffer), m_p(pBuffer), m_pEnd(pBuffer + nSize), m_arguments(arguments)
    {
    }

    size_t length() const { return static_cast<size_t>(m_p - m_pBegin); }

    COutcome format(const char* pszFormat)
    {
        for (;;)
        {
            const char* const pConversion = strchrnul(pszFormat, '%');
            if (!append(pszFormat, static_cast<size_t>(pConversion - pszFormat)))
                return COutcome::FULL;
            if (*pConversion == '\0')
                return COutcome::DONE;
            pszFormat = pConversion + 1;
            const COutcome outcome = convert(pszFormat);
            if (outcome != COutcome::DONE)
                return outcome;
        }
    }

private:
    // pszFormat stands behind the '%', and afterwards behind the conversion.
    COutcome convert(const char*& pszFormat)
    {
        unsigned int uZeros = 0;
        if (pszFormat[0] == '0' && pszFormat[1] >= '1' && pszFormat[1] <= '9')
        {
            uZeros = static_cast<unsigned int>(pszFormat[1] - '0');
            pszFormat += 2;
        }
        const bool bLong = *pszFormat == 'l';
        if (bLong)
            ++pszFormat;
        switch (*pszFormat++)
        {
        case 'd':
        case 'i':
            return uZeros ? COutcome::UNKNOWN : number(bLong ? m_arguments.next<long>() : m_arguments.next<int>());
        case 'u': return number(nextUnsigned(bLong), 10, uZeros);
        case 'x': return number(nextUnsigned(bLong), 16, uZeros);
        case 'X': return upperHex(nextUnsigned(bLong), uZeros);
        case 's': return bLong || uZeros ? COutcome::UNKNOWN : text(m_arguments.next<const char*>());
        case '%': return bLong || uZeros ? COutcome::UNKNOWN : outcome(append("%", 1));
        default: return COutcome::UNKNOWN;
        }
    }

    unsigned long nextUnsigned(bool bLong)
    {
        return bLong ? m_arguments.next<unsigned long>() : m_arguments.next<unsigned int>();
    }

    COutcome text(const char* pszText)
    {
        if (!pszText)
            pszText = "(null)";
        return outcome(append(pszText, strlen(pszText)));
    }

    COutcome number(long nNumber) { return accept(std::to_chars(m_p, m_pEnd, nNumber)); }

    COutcome number(unsigned long ulNumber, int nBase, unsigned int uZeros)
    {
        if (uZeros == 0)
            return accept(std::to_chars(m_p, m_pEnd, ulNumber, nBase));
        char szDigits[32];
        const char* const pDigitsEnd = std::to_chars(szDigits, szDigits + sizeof(szDigits), ulNumber, nBase).ptr;
        const size_t nDigits = static_cast<size_t>(pDigitsEnd - szDigits);
        return outcome((nDigits >= uZeros || append("000000000", uZeros - nDigits)) && append(szDigits, nDigits));
    }

    COutcome upperHex(unsigned long ulNumber, unsigned int uZeros)
    {
        char* const pFirst = m_p;
        const COutcome result = number(ulNumber, 16, uZeros);
        for (char* p = pFirst; p < m_p; ++p)
            if (*p >= 'a')
                *p = static_cast<char>(*p - 'a' + 'A');
        return result;
    }

    COutcome accept(std::to_chars_result result)
    {
        if (result.ec != std::errc())
            return COutcome::FULL;
        m_p = result.ptr;
        return COutcome::DONE;
    }

    static COutcome outcome(bool bFits) { return bFits ? COutcome::DONE : COutcome::FULL; }

    bool append(const char* pText, size_t nLength)
    {
        if (nLength > static_cast<size_t>(m_pEnd - m_p))
            return false;
        memcpy(m_p, pText, nLength);
        m_p += nLength;
        return true;
    }

    char* const m_pBegin;
    char* m_p;
    char* const m_pEnd;
    CArguments m_arguments;
};

// Has a bit of HIGH_BITS set if a byte of the word is a control character; for bytes of 0xFF and next to
// them it may have one without.
constexpr unsigned long ONES = ~0UL / 255;
constexpr unsigned long HIGH_BITS = ONES * 0x80;

unsigned long controls(const char* pText)
{
    unsigned long ulWord;
    memcpy(&ulWord, pText, sizeof(ulWord));
    return ((ulWord - ONES * 0x20) | (ulWord + ONES)) & ~ulWord;
}

void blankBytes(char* pText, size_t nLength)
{
    for (size_t n = 0; n < nLength; ++n)
        if (static_cast<unsigned char>(pText[n]) < ' ' || pText[n] == '\x7f')
            pText[n] = ' ';
}
} // namespace

int formatText(char* pBuffer, size_t nSize, const char* pszFormat, va_list arguments)
{
    if (!pszFormat)
        return 0;
    CFormatter formatter(pBuffer, nSize, arguments);
    switch (formatter.format(pszFormat))
    {
    case COutcome::DONE: return static_cast<int>(formatter.length());
    case COutcome::FULL: return -1;
    default: break;
    }
    const int nLength = vsnprintf(pBuffer, nSize, pszFormat, arguments);
    return nLength >= 0 && static_cast<size_t>(nLength) < nSize ? nLength : -1;
}

void blankControls(char* pText, size_t nLength)
{
    constexpr size_t WORD = sizeof(unsigned long);
    constexpr size_t STEP = 4 * WORD;
    size_t n = 0;
    for (; n + STEP <= nLength; n += STEP)
    {
        const char* const p = pText + n;
        if ((controls(p) | controls(p + WORD) | controls(p + 2 * WORD) | controls(p + 3 * WORD)) & HIGH_BITS)
            blankBytes(pText + n, STEP);
    }
    for (; n + WORD <= nLength; n += WORD)
        if (controls(pText + n) & HIGH_BITS)
            blankBytes(pText + n, WORD);
    blankBytes(pText + n, nLength - n);
}

void writeDigits(char* p, unsigned int uNumber, int nPairs)
{
    static constexpr auto PAIRS = [] {
        std::array<char, 200> pairs = {};
        for (size_t n = 0; n < 100; ++n)
        {
            pairs[2 * n] = static_cast<char>('0' + n / 10);
            pairs[2 * n + 1] = static_cast<char>('0' + n % 10);
        }
        return pairs;
    }();
    for (char* pPair = p + 2 * static_cast<size_t>(nPairs); pPair > p; uNumber /= 100)
    {
        pPair -= 2;
        memcpy(pPair, &PAIRS[2 * size_t{uNumber % 100}], 2);
    }
}

} // namespace OrvLogLib
