// Flat JSON objects: made of key=value words, and read field by field with clear errors.
#include "Fields.h"

#include "Text.h"

#include <fmt/format.h>

#include <charconv>
#include <vector>

namespace
{
const char* const CALL_KEY = "call"; // a call id may be all digits

nlohmann::json ValueOf(const std::string& strKey, const std::string& strValue)
{
    if (strKey == CALL_KEY)
    {
        return strValue;
    }
    if (strValue == "true" || strValue == "false")
    {
        return strValue == "true";
    }
    std::int64_t llValue = 0;
    const char* pEnd = strValue.data() + strValue.size();
    const auto result = std::from_chars(strValue.data(), pEnd, llValue);
    if (result.ec == std::errc() && result.ptr == pEnd)
    {
        return llValue;
    }
    return strValue;
}
} // namespace

bool AddWords(std::span<const std::string> words, nlohmann::json& object, std::string& strError)
{
    for (const std::string& strWord : words)
    {
        const std::size_t nEquals = strWord.find('=');
        if (nEquals == std::string::npos || nEquals == 0)
        {
            strError = fmt::format("\"{}\" is not of the form key=value", Printable(strWord));
            return false;
        }
        const std::string strKey = strWord.substr(0, nEquals);
        if (object.contains(strKey))
        {
            strError = fmt::format("\"{}\" is given twice", Printable(strKey));
            return false;
        }
        object[strKey] = ValueOf(strKey, strWord.substr(nEquals + 1));
    }
    return true;
}

bool ParseWordList(const std::string& strList, nlohmann::json& object, std::string& strError)
{
    std::vector<std::string> vWords;
    std::size_t nBegin = 0;
    for (std::size_t nComma = strList.find(','); nComma != std::string::npos; nComma = strList.find(',', nBegin))
    {
        vWords.push_back(strList.substr(nBegin, nComma - nBegin));
        nBegin = nComma + 1;
    }
    vWords.push_back(strList.substr(nBegin));
    object = nlohmann::json::object();
    return AddWords(vWords, object, strError);
}

CFieldReader::CFieldReader(const nlohmann::json& object) : m_object(object) {}

std::optional<std::string> CFieldReader::Text(const char* pKey)
{
    const nlohmann::json* pValue = Find(pKey);
    if (pValue == nullptr)
    {
        return std::nullopt;
    }
    if (!pValue->is_string())
    {
        Fail(fmt::format("\"{}\" must be text", pKey));
        return std::nullopt;
    }
    return pValue->get<std::string>();
}

std::optional<std::int64_t> CFieldReader::Number(const char* pKey, std::int64_t llMin, std::int64_t llMax)
{
    const nlohmann::json* pValue = Find(pKey);
    if (pValue == nullptr)
    {
        return std::nullopt;
    }
    // Numbers past the end of int64 are unsigned and would wrap.
    const bool bFits =
        pValue->is_number_integer() &&
        (!pValue->is_number_unsigned() || pValue->get<std::uint64_t>() <= static_cast<std::uint64_t>(INT64_MAX));
    if (!bFits || pValue->get<std::int64_t>() < llMin || pValue->get<std::int64_t>() > llMax)
    {
        Fail(fmt::format("\"{}\" must be a whole number from {} to {}", pKey, llMin, llMax));
        return std::nullopt;
    }
    return pValue->get<std::int64_t>();
}

void CFieldReader::Fail(const std::string& strError)
{
    if (m_strError.empty())
    {
        m_strError = strError;
    }
}

bool CFieldReader::Finish(std::string& strError)
{
    for (const auto& item : m_object.items())
    {
        if (!m_setAsked.contains(item.key()))
        {
            Fail(fmt::format("\"{}\" has no meaning here", Printable(item.key())));
        }
    }
    strError = m_strError;
    return m_strError.empty();
}

const nlohmann::json* CFieldReader::Find(const char* pKey)
{
    m_setAsked.insert(pKey);
    const auto it = m_object.find(pKey);
    return it == m_object.end() ? nullptr : &*it;
}
