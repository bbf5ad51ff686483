// The command line of the driver.
#ifndef DRIVER_OPTIONS_H
#define DRIVER_OPTIONS_H

#include "PathWalk.h"

#include <spdlog/common.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class ESpeed
{
    RealTime,
    Max // as fast as the machine can
};

enum class ELogFormat
{
    Text,
    Json // one object per line
};

struct COptions
{
    std::string m_strAudioFolder = ".";
    std::string m_strChannelsFile; // the channel table; empty: every channel is a pair of files
    ESpeed m_eSpeed = ESpeed::RealTime;
    bool m_bSilenceAfterCaller = false; // recordings outlast the caller's audio
    ELinks m_eLinks = ELinks::Trusted;  // that may lead to what is recorded
    size_t m_nMaxStreams = 10000;       // of a client
    size_t m_nMaxFiles = 10000;         // of a client
    size_t m_nClipMegabytes = 1024;     // all files in memory
    std::vector<std::string> m_vstrFaults;
    std::string m_strControlPath = "/tmp/zelmedia-driver.sock"; // empty: no control socket
    std::string m_strCallsPath = "/tmp/zelmedia-calls.sock";    // empty: no call socket
    std::string m_strRtpAddress = "127.0.0.1";                  // where the media of calls is received,
    uint16_t m_nFirstRtpPort = 20000;                           // at these ports
    uint16_t m_nLastRtpPort = 29999;
    std::string m_strLogFile;                                   // empty: stderr
    spdlog::level::level_enum m_eLogLevel = spdlog::level::info;
    ELogFormat m_eLogFormat = ELogFormat::Text;

    // Not to serve, but to ask the driver that listens on m_strControlPath: these words, at least one.
    bool m_bCtl = false;
    std::vector<std::string> m_vstrCtlWords;
};

// Reads the command line. A value is the exit code with which the program is to end at once: after
// --help and --version, which have been printed, and after a mistake, which has been explained.
// Fault rules and ctl words are taken as they are.
std::optional<int> parseOptions(int nArguments, const char* const* ppArguments, COptions& options);

#endif
