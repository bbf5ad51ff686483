// The command line of the driver.
#ifndef DRIVER_OPTIONS_H
#define DRIVER_OPTIONS_H

#include <spdlog/common.h>

#include <optional>
#include <string>

enum class ESpeed
{
    RealTime,
    Max // as fast as the machine can
};

struct COptions
{
    std::string m_strAudioFolder = ".";
    ESpeed m_eSpeed = ESpeed::RealTime;
    std::string m_strLogFile; // empty: stderr
    spdlog::level::level_enum m_eLogLevel = spdlog::level::info;
};

// Reads the command line. A value is the exit code with which the program is to end at once: after
// --help and --version, which have been printed, and after a mistake, which has been explained.
std::optional<int> ParseOptions(int nArguments, const char* const* ppArguments, COptions& options);

#endif
