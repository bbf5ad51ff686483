// Texts of log lines: the printf conversions that lines use most, without what all others cost.
#ifndef LOG_FORMAT_H
#define LOG_FORMAT_H

#include <cstdarg>
#include <cstddef>

namespace OrvLogLib
{

// Formats as vsnprintf does, but needs no terminating 0 and writes nothing beyond nSize bytes. Returns the
// length of the text, or -1 when it does not fit, or only just; the buffer then holds anything. A null
// format is an empty text. errno must be what %m is to show.
int formatText(char* pBuffer, size_t nSize, const char* pszFormat, va_list arguments)
    __attribute__((format(printf, 3, 0)));

// Puts blanks for control characters.
void blankControls(char* pText, size_t nLength);

// Writes the last nPairs pairs of decimal digits of a number.
void writeDigits(char* p, unsigned int uNumber, int nPairs);

} // namespace OrvLogLib

#endif
