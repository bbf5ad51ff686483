// Times as the library's log shows them.
#ifndef LOG_TIME_H
#define LOG_TIME_H

#include <cstdint>
#include <string>
#include <string_view>

// Times are microseconds since 1970 on the log's own clock, whatever its zone.
const int64_t NO_TIME = INT64_MIN;

// Takes a character from the front; false if another one, or nothing, stands there.
bool takeCharacter(std::string_view& strv, char c);

// Takes a whole time from the front; NO_TIME if there is none.
int64_t takeLogTime(std::string_view& strv);

// "2026-11-21 04:05:06.123456", and back from that, or from its beginning up to any number from the day on.
// NO_TIME for anything else.
std::string logTimeToString(int64_t llTime);
int64_t logTimeFromString(std::string_view strvTime);

#endif
