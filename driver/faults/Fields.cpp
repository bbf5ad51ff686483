// Flat JSON objects: made of key=value words, and read field by field with clear errors.
#include "Fields.h"

#include "Text.h"

#include <fmt/format.h>

#include <charconv>
#include <vector>

namespace
{
const char* const CALL_KEY = "call"; // a call id may be all digits

nlohmann::json valueOf(const std::string& strKey, const std::string& strValue)
{
    if (strKey == CALL_KEY)
        return strValue;
    if (strValue == "true" || strValue == "false")
        return strValue == "true";
    int64_t llValue = 0;
    const char* pEnd = strValue.data() + strValue.size();
    const auto result = std::from_chars(strValue.data(), pEnd, llValue);
    if (result.ec == std::errc() && result.ptr == pEnd)
        return llValue;
    return strValue;
}
} // namespace

bool addWords(std::span<const std::string> words, nlohmann::json& object, std::string& strError)
{
    for (const std::string& strWord : words)
    {
        const size_t nEquals = strWord.find('=');
        if (nEquals == std::string::npos || nEquals == 0)
        {
            strError = fmt::format("\"{}\" is not of the form key=value", printable(strWord));
            return false;
        }
        const std::string strKey = strWord.substr(0, nEquals);
        if (object.contains(strKey))
        {
            strError = fmt::format("\"{}\" is given twice", printable(strKey));
            return false;
        }
        object[strKey] = valueOf(strKey, strWord.substr(nEquals + 1));
    }
    return true;
}

bool parseWordList(const std::string& strList, nlohmann::json& object, std::string& strError)
{
    std::vector<std::string> vWords;
    size_t nBegin = 0;
    for (size_t nComma = strList.find(','); nComma != std::string::npos; nComma = strList.find(',', nBegin))
    {
        vWords.push_back(strList.substr(nBegin, nComma - nBegin));
        nBegin = nComma + 1;
    }
    vWords.push_back(strList.substr(nBegin));
    object = nlohmann::json::object();
    return addWords(vWords, object, strError);
}

CFieldReader::CFieldReader(const nlohmann::json& object) : m_object(object) {}

std::optional<std::string> CFieldReader::text(const char* pKey)
{
    const nlohmann::json* pValue = find(pKey);
    if (pValue == nullptr)
        return std::nullopt;
    if (!pValue->is_string())
    {
        fail(fmt::format("\"{}\" must be text", pKey));
        return std::nullopt;
    }
    return pValue->get<std::string>();
}

std::optional<int64_t> CFieldReader::number(const char* pKey, int64_t llMin, int64_t llMax)
{
    const nlohmann::json* pValue = find(pKey);
    if (pValue == nullptr)
        return std::nullopt;
    // Numbers past the end of int64 are unsigned and would wrap.
    const bool bFits = pValue->is_number_integer() &&
                       (!pValue->is_number_unsigned() || pValue->get<uint64_t>() <= static_cast<uint64_t>(INT64_MAX));
    if (!bFits || pValue->get<int64_t>() < llMin || pValue->get<int64_t>() > llMax)
    {
        fail(fmt::format("\"{}\" must be a whole number from {} to {}", pKey, llMin, llMax));
        return std::nullopt;
    }
    return pValue->get<int64_t>();
}

void CFieldReader::fail(const std::string& strError)
{
    if (m_strError.empty())
        m_strError = strError;
}

bool CFieldReader::finish(std::string& strError)
{
    for (const auto& item : m_object.items())
        if (!m_setAsked.contains(item.key()))
            fail(fmt::format("\"{}\" has no meaning here", printable(item.key())));
    strError = m_strError;
    return m_strError.empty();
}

const nlohmann::json* CFieldReader::find(const char* pKey)
{
    m_setAsked.insert(pKey);
    const auto it = m_object.find(pKey);
    return it == m_object.end() ? nullptr : &*it;
}
