// Lines of JSON: taken apart within limits, and made; and texts that are fit for a log line.
#ifndef JSON_TEXT_H
#define JSON_TEXT_H

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>

// Objects and arrays within each other: what prints or compares JSON does it by recursion.
constexpr int JSON_MAX_DEPTH = 16;

// False, with the reason in strError, for anything but one object in UTF-8 that is no deeper than that.
bool parseJsonObject(std::string_view line, nlohmann::json& object, std::string& strError);

// One line with its LF. Bytes that are no UTF-8 are replaced.
template <class JSON> std::string jsonLine(const JSON& value)
{
    return value.dump(-1, ' ', false, JSON::error_handler_t::replace) + '\n';
}

// The text in quotation marks, with every byte that could disturb a log line written as \xNN.
std::string quotedText(std::string_view text);

// The text of an errno value.
std::string errnoText(int nErrno);

#endif
