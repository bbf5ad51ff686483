// Flat JSON objects: made of key=value words, and read field by field with clear errors.
#ifndef DRIVER_FIELDS_H
#define DRIVER_FIELDS_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>

// Adds a field for each key=value word. Values that are true, false or whole numbers become such; the
// call id stays text. False, with the reason in strError, for anything else and for a key that is
// there already.
bool addWords(std::span<const std::string> words, nlohmann::json& object, std::string& strError);

// The same from one text of words with commas in between. A value cannot hold a comma.
bool parseWordList(const std::string& strList, nlohmann::json& object, std::string& strError);

// Takes the fields of an object, which must be one and outlive the reader. A field of the wrong type
// reads as absent; Finish tells.
class CFieldReader
{
public:
    explicit CFieldReader(const nlohmann::json& object);

    std::optional<std::string> text(const char* pKey);
    std::optional<int64_t> number(const char* pKey, int64_t llMin, int64_t llMax);

    // The first is what counts.
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
