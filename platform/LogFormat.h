// Texts of log lines: the printf conversions that lines use most, without what all others cost.
#ifndef LOG_FORMAT_H
#define LOG_FORMAT_H

#include <cstdarg>
#include <cstddef>

namespace OrvLogLib
{

// Formats as vsnprintf does, but writes no terminating 0 and nothing at all beyond nSize bytes. Returns
// the length of the text, or -1 when it does not fit: the buffer then holds anything. A null format is
// an empty text. errno must be what %m is to show.
int formatText(char* pBuffer, size_t nSize, const char* pszFormat, va_list arguments)
    __attribute__((format(printf, 3, 0)));

// Puts blanks for control characters.
void blankControls(char* pText, size_t nLength);

// Writes nDigits decimal digits of a number, with zeros before it; digits beyond are not shown.
void writeDigits(char* p, unsigned int uNumber, int nDigits);

} // namespace OrvLogLib

#endif
