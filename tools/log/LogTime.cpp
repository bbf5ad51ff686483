// Times as the library's log shows them.
#include "log/LogTime.h"

#include <fmt/format.h>

#include <chrono>

namespace
{
// Digits at a place of their own: "2026" or "04".
bool takeDigits(std::string_view& strv, size_t nDigits, int& n)
{
    if (strv.size() < nDigits)
        return false;
    n = 0;
    for (size_t i = 0; i < nDigits; ++i)
    {
        if (strv[i] < '0' || strv[i] > '9')
            return false;
        n = n * 10 + (strv[i] - '0');
    }
    strv.remove_prefix(nDigits);
    return true;
}

// Microseconds out of one to six digits.
bool takeFraction(std::string_view& strv, int& nMicroseconds)
{
    size_t nDigits = 0;
    nMicroseconds = 0;
    for (; nDigits < 6 && nDigits < strv.size() && strv[nDigits] >= '0' && strv[nDigits] <= '9'; ++nDigits)
        nMicroseconds = nMicroseconds * 10 + (strv[nDigits] - '0');
    strv.remove_prefix(nDigits);
    const bool bTaken = nDigits > 0;
    for (; nDigits < 6; ++nDigits)
        nMicroseconds *= 10;
    return bTaken;
}

// A line has a whole time. A time that somebody typed may end early, behind any of its numbers.
int64_t takeTime(std::string_view& strv, bool bWhole)
{
    int nYear = 0, nMonth = 0, nDay = 0, nHour = 0, nMinute = 0, nSecond = 0, nMicroseconds = 0;
    if (!takeDigits(strv, 4, nYear) || !takeCharacter(strv, '-') || !takeDigits(strv, 2, nMonth) ||
        !takeCharacter(strv, '-') || !takeDigits(strv, 2, nDay))
        return NO_TIME;
    const bool bHasClock = bWhole || !strv.empty();
    if (bHasClock && ((!takeCharacter(strv, ' ') && !takeCharacter(strv, 'T')) || !takeDigits(strv, 2, nHour) ||
                      !takeCharacter(strv, ':') || !takeDigits(strv, 2, nMinute)))
        return NO_TIME;
    const bool bHasSecond = bWhole || !strv.empty();
    if (bHasSecond && (!takeCharacter(strv, ':') || !takeDigits(strv, 2, nSecond)))
        return NO_TIME;
    const bool bHasFraction = bWhole || !strv.empty();
    if (bHasFraction && (!takeCharacter(strv, '.') || !takeFraction(strv, nMicroseconds)))
        return NO_TIME;

    const std::chrono::year_month_day date{std::chrono::year(nYear),
                                           std::chrono::month(static_cast<unsigned int>(nMonth)),
                                           std::chrono::day(static_cast<unsigned int>(nDay))};
    if (!date.ok() || nHour > 23 || nMinute > 59 || nSecond > 60)
        return NO_TIME;
    const int64_t llDays = std::chrono::sys_days(date).time_since_epoch().count();
    return (((llDays * 24 + nHour) * 60 + nMinute) * 60 + nSecond) * 1000000 + nMicroseconds;
}
} // namespace

bool takeCharacter(std::string_view& strv, char c)
{
    if (strv.empty() || strv.front() != c)
        return false;
    strv.remove_prefix(1);
    return true;
}

int64_t takeLogTime(std::string_view& strv)
{
    return takeTime(strv, true);
}

std::string logTimeToString(int64_t llTime)
{
    const std::chrono::sys_time<std::chrono::microseconds> time{std::chrono::microseconds(llTime)};
    const auto days = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(days);
    const std::chrono::hh_mm_ss clock(time - days);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:06}", static_cast<int>(date.year()),
                       static_cast<unsigned int>(date.month()), static_cast<unsigned int>(date.day()),
                       clock.hours().count(), clock.minutes().count(), clock.seconds().count(),
                       clock.subseconds().count());
}

int64_t logTimeFromString(std::string_view strvTime)
{
    const int64_t llTime = takeTime(strvTime, false);
    return strvTime.empty() ? llTime : NO_TIME;
}
