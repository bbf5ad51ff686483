// How trace shows commands, notes and lines: for people, and as JSON.
#ifndef TRACE_TEXT_H
#define TRACE_TEXT_H

#include "log/CommandLife.h"

#include <nlohmann/json.hpp>

#include <string>

// With colours where standard output wants them.
std::string traceText(const CCommandLife& life);
std::string traceText(const CLogNote& note);
std::string traceText(const CLogLine& line, std::string_view strvWhole);

nlohmann::json traceJson(const CCommandLife& life);
nlohmann::json traceJson(const CLogNote& note);
nlohmann::json traceJson(const CLogLine& line);

// "completed"
const char* outcomeName(EOutcome outcome);
// How a command has ended, in words: "completed MCS_OK", "dropped: cancelled".
std::string outcomeText(const CCommandLife& life);

#endif
