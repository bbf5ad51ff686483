// The fields of a request, read one by one with clear errors.
#include "JsonFields.h"

#include "JsonText.h"

namespace
{
std::string sizes(size_t nMin, size_t nMax)
{
    return nMax == SIZE_MAX ? "at least " + std::to_string(nMin) : std::to_string(nMin) + " to " + std::to_string(nMax);
}
} // namespace

CJsonFields::CJsonFields(const nlohmann::json& object) : m_object(object) {}

std::optional<std::string> CJsonFields::text(const char* pKey, size_t nMinBytes, size_t nMaxBytes)
{
    const nlohmann::json* pValue = find(pKey);
    if (pValue == nullptr)
        return std::nullopt;
    if (!pValue->is_string())
    {
        fail(quotedText(pKey) + " must be text");
        return std::nullopt;
    }
    const auto& strText = pValue->get_ref<const std::string&>();
    if (strText.size() < nMinBytes || strText.size() > nMaxBytes)
    {
        fail(quotedText(pKey) + " must have " + sizes(nMinBytes, nMaxBytes) + " bytes");
        return std::nullopt;
    }
    return strText;
}

std::optional<int64_t> CJsonFields::number(const char* pKey, int64_t llMin, int64_t llMax)
{
    const nlohmann::json* pValue = find(pKey);
    if (pValue == nullptr)
        return std::nullopt;
    // Numbers past the end of int64 are unsigned and would wrap.
    const bool bFits = pValue->is_number_integer() &&
                       (!pValue->is_number_unsigned() || pValue->get<uint64_t>() <= static_cast<uint64_t>(INT64_MAX));
    if (!bFits || pValue->get<int64_t>() < llMin || pValue->get<int64_t>() > llMax)
    {
        fail(quotedText(pKey) + " must be a whole number from " + std::to_string(llMin) + " to " +
             std::to_string(llMax));
        return std::nullopt;
    }
    return pValue->get<int64_t>();
}

std::optional<bool> CJsonFields::flag(const char* pKey)
{
    const nlohmann::json* pValue = find(pKey);
    if (pValue == nullptr)
        return std::nullopt;
    if (!pValue->is_boolean())
    {
        fail(quotedText(pKey) + " must be true or false");
        return std::nullopt;
    }
    return pValue->get<bool>();
}

const nlohmann::json* CJsonFields::object(const char* pKey)
{
    const nlohmann::json* pValue = find(pKey);
    if (pValue != nullptr && !pValue->is_object())
    {
        fail(quotedText(pKey) + " must be an object");
        return nullptr;
    }
    return pValue;
}

const nlohmann::json* CJsonFields::array(const char* pKey)
{
    const nlohmann::json* pValue = find(pKey);
    if (pValue != nullptr && !pValue->is_array())
    {
        fail(quotedText(pKey) + " must be an array");
        return nullptr;
    }
    return pValue;
}

const nlohmann::json* CJsonFields::value(const char* pKey)
{
    m_setAsked.insert(pKey);
    const auto it = m_object.find(pKey);
    return it == m_object.end() ? nullptr : &*it;
}

std::string CJsonFields::neededText(const char* pKey, size_t nMinBytes, size_t nMaxBytes)
{
    const auto strText = text(pKey, nMinBytes, nMaxBytes);
    if (!strText)
        fail(quotedText(pKey) + " is missing");
    return strText.value_or("");
}

int64_t CJsonFields::neededNumber(const char* pKey, int64_t llMin, int64_t llMax)
{
    const auto nNumber = number(pKey, llMin, llMax);
    if (!nNumber)
        fail(quotedText(pKey) + " is missing");
    return nNumber.value_or(llMin);
}

void CJsonFields::fail(const std::string& strError)
{
    if (m_strError.empty())
        m_strError = strError;
}

bool CJsonFields::finish(std::string& strError)
{
    for (const auto& item : m_object.items())
        if (!m_setAsked.contains(item.key()))
            fail(quotedText(item.key()) + " has no meaning here");
    strError = m_strError;
    return m_strError.empty();
}

const nlohmann::json* CJsonFields::find(const char* pKey)
{
    const nlohmann::json* pValue = value(pKey);
    return pValue == nullptr || pValue->is_null() ? nullptr : pValue;
}
