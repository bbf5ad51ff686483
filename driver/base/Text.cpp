// Text that comes from clients: taking it out of records, and making it fit to be logged.
#include "Text.h"

#include <fmt/format.h>

std::string printable(std::string_view text)
{
    std::string strResult;
    for (const char c : text)
        if (c >= 0x20 && c < 0x7F)
            strResult += c;
        else
            strResult += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    return strResult;
}
