// Fuzzes the texts of log lines: formats and values of any kind into buffers of any size, beside vsnprintf.
#include "LogFormat.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <memory>
#include <string>
#include <variant>

namespace
{
using CArgument = std::variant<int, long, long long, const char*>;

void require(bool bHolds)
{
    if (!bHolds)
        abort();
}

// What is written beyond the buffer is found by the address sanitizer.
void compare(size_t nSize, const char* pszFormat, ...)
{
    va_list arguments;
    va_start(arguments, pszFormat);
    va_list again;
    va_copy(again, arguments);
    char szExpected[16384];
    const int nExpected = vsnprintf(szExpected, sizeof(szExpected), pszFormat, again);
    va_end(again);
    const std::unique_ptr<char[]> pBuffer(new char[nSize]);
    const int nFormatted = OrvLogLib::formatText(pBuffer.get(), nSize, pszFormat, arguments);
    va_end(arguments);
    require(nExpected >= 0 && nExpected < static_cast<int>(sizeof(szExpected)));
    if (nFormatted < 0)
        require(static_cast<size_t>(nExpected) >= nSize);
    else
        require(nFormatted == nExpected && memcmp(pBuffer.get(), szExpected, static_cast<size_t>(nExpected)) == 0);
}

// Appends a conversion and returns what it takes.
CArgument appendConversion(FuzzedDataProvider& input, std::string& strFormat, std::string& strText)
{
    static constexpr const char* FLAGS[] = {"", "", "", "", "08", "01", "05", "5", "-7", ".3", "+", "#"};
    const std::string strFlags = "%" + std::string(input.PickValueInArray(FLAGS));
    const char cNumber = input.PickValueInArray({'d', 'i', 'u', 'x', 'X'});
    switch (input.ConsumeIntegralInRange(0, 3))
    {
    case 0: strFormat += strFlags + cNumber; return input.ConsumeIntegral<int>();
    case 1: strFormat += strFlags + 'l' + cNumber; return input.ConsumeIntegral<long>();
    case 2: strFormat += strFlags + "ll" + cNumber; return input.ConsumeIntegral<long long>();
    default:
        strText = input.ConsumeRandomLengthString(300);
        strFormat += input.PickValueInArray({"%s", "%s", "%7s", "%-7s", "%.3s"});
        return input.ConsumeIntegralInRange(0, 15) ? strText.c_str() : nullptr;
    }
}

void appendLiteral(FuzzedDataProvider& input, std::string& strFormat)
{
    for (const char c : input.ConsumeRandomLengthString(40))
        strFormat += c == '%' ? std::string("%%") : std::string(c != '\0', c);
}

void fuzzFormat(FuzzedDataProvider& input)
{
    std::string strFormat;
    std::string astrTexts[4];
    CArgument aArguments[4];
    const int nConversions = input.ConsumeIntegralInRange(0, 4);
    for (int n = 0; n < nConversions; ++n)
    {
        appendLiteral(input, strFormat);
        aArguments[n] = appendConversion(input, strFormat, astrTexts[n]);
    }
    appendLiteral(input, strFormat);
    const size_t nSize = input.ConsumeIntegralInRange<size_t>(0, 400);
    std::visit([&](auto... arguments) { compare(nSize, strFormat.c_str(), arguments...); }, aArguments[0],
               aArguments[1], aArguments[2], aArguments[3]);
}

void fuzzBlanks(FuzzedDataProvider& input)
{
    const std::string strText = input.ConsumeRandomLengthString(300);
    const std::unique_ptr<char[]> pText(new char[strText.size()]);
    memcpy(pText.get(), strText.data(), strText.size());
    OrvLogLib::blankControls(pText.get(), strText.size());
    for (size_t n = 0; n < strText.size(); ++n)
    {
        const unsigned char c = static_cast<unsigned char>(strText[n]);
        require(pText[n] == (c < 32 || c == 127 ? ' ' : strText[n]));
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* pData, size_t nSize)
{
    FuzzedDataProvider input(pData, nSize);
    fuzzBlanks(input);
    fuzzFormat(input);
    return 0;
}
