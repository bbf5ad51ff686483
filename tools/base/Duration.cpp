// Durations on the command line: 1.5s, 250ms, 2m, 1h; a plain number is seconds.
#include "base/Duration.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <charconv>
#include <cmath>

namespace
{
// 0 for a unit that there is not.
double millisecondsIn(std::string_view unit)
{
    return unit == "ms" ? 1.0 : unit == "s" || unit.empty() ? 1e3 : unit == "m" ? 60e3 : unit == "h" ? 3600e3 : 0.0;
}

CMilliseconds durationOf(const std::string& strOption, const std::string& strText)
{
    const std::optional<CMilliseconds> duration = parseDuration(strText);
    if (!duration)
        throw CLI::ValidationError(strOption,
                                   "'" + strText + "' is no duration of a day at most, such as 1.5s, 250ms or 2m");
    return *duration;
}
} // namespace

std::optional<CMilliseconds> parseDuration(const std::string& strText)
{
    double dValue = 0.0;
    const char* const pEnd = strText.data() + strText.size();
    const auto [pUnit, error] = std::from_chars(strText.data(), pEnd, dValue, std::chars_format::fixed);
    if (error != std::errc())
        return std::nullopt;
    const double dUnit = millisecondsIn(std::string_view(pUnit, static_cast<size_t>(pEnd - pUnit)));
    const double dMilliseconds = dValue * dUnit;
    // Also false for what from_chars takes for a number that is not one.
    if (dUnit == 0.0 || std::signbit(dValue) || !(dMilliseconds <= static_cast<double>(MAX_DURATION.count())))
        return std::nullopt;
    return CMilliseconds(std::llround(dMilliseconds));
}

CLI::Option* addDuration(CLI::App& app, const std::string& strName, CMilliseconds& duration,
                         const std::string& strDescription)
{
    return app
        .add_option_function<std::string>(
            strName, [&duration, strName](const std::string& strText) { duration = durationOf(strName, strText); },
            strDescription)
        ->type_name("DURATION");
}

CLI::Option* addSeconds(CLI::App& app, const std::string& strName, std::optional<std::chrono::seconds>& duration,
                        const std::string& strDescription)
{
    const auto take = [&duration, strName](const std::string& strText) {
        const CMilliseconds taken = durationOf(strName, strText);
        duration = std::chrono::duration_cast<std::chrono::seconds>(taken);
        if (taken != *duration || taken.count() == 0)
            throw CLI::ValidationError(strName, "'" + strText + "' is not a number of whole seconds, 1s at least");
    };
    return app.add_option_function<std::string>(strName, take, strDescription)->type_name("DURATION");
}

std::string secondsText(CMilliseconds duration)
{
    return fmt::format("{:.3f}", std::chrono::duration<double>(duration).count());
}
