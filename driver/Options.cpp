// The command line of the driver.
#include "Options.h"

#include <CLI/CLI.hpp>

#include <map>

namespace
{
const char* const DESCRIPTION =
    "Media driver: plays prompts and records callers for the processes that use libZelMediaLib.\n"
    "\n"
    "A call channel is a pair of audio files in the folder DIR:\n"
    "  DIR/CALLID.in.wav         what the caller says. Recordings consume it: the first recording of\n"
    "                            a stream begins at its start, the next one where that one stopped.\n"
    "                            Without the file, or after its end, the caller is silent.\n"
    "  DIR/CALLID-LEG.heard.wav  what the caller hears: all samples played, back to back. 8 kHz mono\n"
    "                            u-law. Opening a stream empties it.\n"
    "A line \"zelmedia-driver: ready\" on the standard output says that clients can connect.\n"
    "SIGTERM and SIGINT end the driver; all files are complete then.";

const char* const EXAMPLE = "Example:\n"
                            "  zelmedia-driver --audio calls --speed max --log driver.log\n"
                            "serves calls whose audio is in the folder calls, faster than real time.";
} // namespace

std::optional<int> ParseOptions(int nArguments, const char* const* ppArguments, COptions& options)
{
    const std::map<std::string, ESpeed> mapSpeed = {{"realtime", ESpeed::RealTime}, {"max", ESpeed::Max}};
    const std::map<std::string, spdlog::level::level_enum> mapLevel = {
        {"debug", spdlog::level::debug}, {"info", spdlog::level::info}, {"warning", spdlog::level::warn},
        {"error", spdlog::level::err},   {"off", spdlog::level::off},
    };

    std::string strSpeed = "realtime";
    std::string strLevel = "info";

    CLI::App app(DESCRIPTION, "zelmedia-driver");
    app.footer(EXAMPLE);
    app.set_version_flag("--version", "zelmedia-driver " ZELMEDIA_VERSION);
    app.add_option("--audio", options.m_strAudioFolder, "folder of the channel files; default: the working directory")
        ->type_name("DIR")
        ->check(CLI::ExistingDirectory);
    app.add_option("--speed", strSpeed, "max is as fast as possible; default: realtime")
        ->type_name("SPEED")
        ->check(CLI::IsMember(mapSpeed));
    app.add_option("--log", options.m_strLogFile, "append the log to this file; default: the standard error")
        ->type_name("FILE");
    app.add_option("--log-level", strLevel, "the least important lines that are logged; default: info")
        ->type_name("LEVEL")
        ->check(CLI::IsMember(mapLevel));
    try
    {
        app.parse(nArguments, ppArguments);
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == 0 ? 0 : 2;
    }
    options.m_eSpeed = mapSpeed.at(strSpeed);
    options.m_eLogLevel = mapLevel.at(strLevel);
    return std::nullopt;
}
