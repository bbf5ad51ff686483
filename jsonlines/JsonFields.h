// The fields of a request, read one by one with clear errors.
#ifndef JSON_FIELDS_H
#define JSON_FIELDS_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <set>
#include <string>

// Takes the fields of an object, which must be one and outlive the reader. A field of the wrong type
// reads as absent; finish tells. null counts as absent, too, for all but has and value.
//
//   CJsonFields fields(request.m_fields);
//   const std::string strCall = fields.neededText("call", 1, 31);
//   const auto nMs = fields.number("ms", 1, 60000);
//   if (!fields.finish(strError)) ... refuse(..., JSON_BAD_REQUEST, strError)
class CJsonFields
{
public:
    explicit CJsonFields(const nlohmann::json& object);

    std::optional<std::string> text(const char* pKey, size_t nMinBytes = 0, size_t nMaxBytes = SIZE_MAX);
    std::optional<int64_t> number(const char* pKey, int64_t llMin, int64_t llMax);
    std::optional<bool> flag(const char* pKey);
    // Lives as long as the object; null when absent or of another type.
    const nlohmann::json* object(const char* pKey);
    const nlohmann::json* array(const char* pKey);
    // Whatever it is, null included; nullptr when it is not there.
    const nlohmann::json* value(const char* pKey);
    bool has(const char* pKey) { return value(pKey) != nullptr; }

    // The same; one that is absent is a mistake, and reads as "" or the smallest number.
    std::string neededText(const char* pKey, size_t nMinBytes = 0, size_t nMaxBytes = SIZE_MAX);
    int64_t neededNumber(const char* pKey, int64_t llMin, int64_t llMax);

    // Reports a mistake. The first is what counts.
    void fail(const std::string& strError);

    // False, with the first mistake in strError: a field of the wrong type or out of range, what was
    // reported by fail, or a field that nobody has asked for.
    bool finish(std::string& strError);

private:
    const nlohmann::json* find(const char* pKey);

    const nlohmann::json& m_object;
    std::set<std::string> m_setAsked;
    std::string m_strError;
};

#endif
