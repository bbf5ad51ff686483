// Text that comes from clients: taking it out of records, and making it fit to be logged.
#ifndef DRIVER_TEXT_H
#define DRIVER_TEXT_H

#include "JsonText.h" // errnoText

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

// The text of a fixed-size field. False if the field has no terminating NUL; strText is then left alone.
inline bool fieldText(const char* pField, size_t nSize, std::string& strText)
{
    const void* pEnd = std::memchr(pField, 0, nSize);
    if (pEnd == nullptr)
        return false;
    strText.assign(pField, static_cast<const char*>(pEnd));
    return true;
}

template <size_t nSize> bool fieldText(const char (&szField)[nSize], std::string& strText)
{
    return fieldText(szField, nSize, strText);
}

// The same text with every byte that could disturb a log line written as \xNN.
std::string printable(std::string_view text);

#endif
