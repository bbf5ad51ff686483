// Lines of JSON: taken apart within limits, and made; and texts that are fit for a log line.
#include "JsonText.h"

#include <system_error>

namespace
{
// Of a text that need not be JSON at all.
bool isShallow(std::string_view line)
{
    int nDepth = 0;
    bool bInText = false;
    for (size_t n = 0; n < line.size(); ++n)
    {
        const char c = line[n];
        if (c == '"')
        {
            bInText = !bInText;
        }
        else if (bInText)
        {
            n += c == '\\' ? 1 : 0;
        }
        else if (c == '{' || c == '[')
        {
            if (++nDepth > JSON_MAX_DEPTH)
                return false;
        }
        else if (c == '}' || c == ']')
        {
            --nDepth;
        }
    }
    return true;
}
} // namespace

bool parseJsonObject(std::string_view line, nlohmann::json& object, std::string& strError)
{
    if (!isShallow(line))
    {
        strError = "the line has more than " + std::to_string(JSON_MAX_DEPTH) + " levels";
        return false;
    }
    object = nlohmann::json::parse(line, nullptr, false);
    if (!object.is_object())
    {
        strError = "a line is one object of JSON in UTF-8";
        return false;
    }
    return true;
}

std::string quotedText(std::string_view text)
{
    static const char s_szHex[] = "0123456789abcdef";
    std::string strResult = "\"";
    for (const char c : text)
    {
        const auto uc = static_cast<unsigned char>(c);
        if (uc >= 0x20 && uc < 0x7F)
            strResult += c;
        else
            strResult.append("\\x").append(1, s_szHex[uc >> 4U]).append(1, s_szHex[uc & 15U]);
    }
    return strResult + '"';
}

std::string errnoText(int nErrno)
{
    return std::generic_category().message(nErrno);
}
