// Durations on the command line: 1.5s, 250ms, 2m, 1h; a plain number is seconds.
#ifndef DURATION_H
#define DURATION_H

#include <chrono>
#include <optional>
#include <string>

namespace CLI
{
class App;
class Option;
} // namespace CLI

using CMilliseconds = std::chrono::milliseconds;

// The longest that zelmedia takes: a day. Time-outs and lengths in samples hold it without a wrap.
constexpr CMilliseconds MAX_DURATION = std::chrono::hours(24);

// Nothing for what is no duration, is negative, or is longer than MAX_DURATION.
std::optional<CMilliseconds> parseDuration(const std::string& strText);

// Declares an option that takes a duration.
CLI::Option* addDuration(CLI::App& app, const std::string& strName, CMilliseconds& duration,
                         const std::string& strDescription);

// The same for one of at least a second that is counted in whole seconds.
CLI::Option* addSeconds(CLI::App& app, const std::string& strName, std::optional<std::chrono::seconds>& duration,
                        const std::string& strDescription);

// "3.375"
std::string secondsText(CMilliseconds duration);

#endif
