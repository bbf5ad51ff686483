// The command line of the driver.
#include "Options.h"

#include "NetAddress.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <map>
#include <memory>

namespace
{
const char* const DESCRIPTION =
    "Media driver: plays prompts and records callers for the processes that use libZelMediaLib.\n"
    "\n"
    "Without a channel table each call channel is a pair of audio files in the folder DIR:\n"
    "  DIR/CALLID.in.wav         what the caller says. Recordings consume it: the first recording of\n"
    "                            a stream begins at its start, the next one where that one stopped.\n"
    "                            Without the file, or after its end, the caller is silent.\n"
    "  DIR/CALLID-LEG.heard.wav  what the caller hears: all samples played, back to back. 8 kHz mono\n"
    "                            u-law. Opening a stream empties it.\n"
    "A line \"zelmedia-driver: ready\" on the standard output says that clients can connect.\n"
    "SIGTERM and SIGINT end the driver; all files are complete then. SIGHUP opens the log file anew.";

const char* const EXAMPLES = "Examples:\n"
                             "  zelmedia-driver --audio calls --speed max --log driver.log\n"
                             "      serves calls whose audio is in the folder calls, faster than real time\n"
                             "  zelmedia-driver --channels channels.json --log-format json\n"
                             "      serves the channels of a table, and logs for machines\n"
                             "  zelmedia-driver --audio calls --fault do=refuse,on=playfile,nth=3\n"
                             "      refuses the third file that a client wants to play\n"
                             "  zelmedia-driver ctl stats\n"
                             "      asks the running driver for its statistics";

const char* const CTL_DESCRIPTION =
    "Asks the driver that is running, and prints its answer. Options come before the first WORD.";

const char* const CTL_EXAMPLES = "Examples:\n"
                                 "  zelmedia-driver ctl stats\n"
                                 "  zelmedia-driver ctl hangup call=1001\n"
                                 "  zelmedia-driver ctl fault do=refuse on=playfile nth=3\n"
                                 "  zelmedia-driver ctl --control /run/zelmedia/driver.sock clients";

// Functions, as they take memory, which may fail before main is there to say so.
const std::map<std::string, ESpeed>& speeds()
{
    static const std::map<std::string, ESpeed> speeds = {{"realtime", ESpeed::RealTime}, {"max", ESpeed::Max}};
    return speeds;
}

const std::map<std::string, bool>& callerEnds()
{
    static const std::map<std::string, bool> ends = {{"stop", false}, {"silence", true}};
    return ends;
}

const std::map<std::string, ELogFormat>& logFormats()
{
    static const std::map<std::string, ELogFormat> formats = {{"text", ELogFormat::Text}, {"json", ELogFormat::Json}};
    return formats;
}

const std::map<std::string, spdlog::level::level_enum>& logLevels()
{
    static const std::map<std::string, spdlog::level::level_enum> levels = {
        {"debug", spdlog::level::debug}, {"info", spdlog::level::info}, {"warning", spdlog::level::warn},
        {"error", spdlog::level::err},   {"off", spdlog::level::off},
    };
    return levels;
}

const std::map<std::string, ELinks>& linkRules()
{
    static const std::map<std::string, ELinks> rules = {{"trusted", ELinks::Trusted}, {"all", ELinks::All}};
    return rules;
}

class CCtlFormatter : public CLI::Formatter
{
public:
    std::string make_usage(const CLI::App*, std::string) const override
    {
        return "Usage: zelmedia-driver ctl [OPTIONS] WORD...\n";
    }
};

// The texts of the options whose values are not texts.
struct CChoices
{
    std::string m_strSpeed = "realtime";
    std::string m_strCallerEnd = "stop";
    std::string m_strLogFormat = "text";
    std::string m_strLogLevel = "info";
    std::string m_strLinks = "trusted";
    std::string m_strRtpPorts = "20000-29999";
};

void addServeOptions(CLI::App& app, COptions& options, CChoices& choices)
{
    const CLI::Validator existingFolder = CLI::Validator(CLI::ExistingDirectory).description("");
    const CLI::Validator existingFile = CLI::Validator(CLI::ExistingFile).description("");
    app.add_option("--audio", options.m_strAudioFolder, "folder of the channel files; default: the working directory")
        ->type_name("DIR")
        ->check(existingFolder);
    app.add_option("--channels", options.m_strChannelsFile, "table of the channels, in JSON; default: all are files")
        ->type_name("FILE")
        ->check(existingFile);
    app.add_option("--speed", choices.m_strSpeed, "max is as fast as possible; default: realtime")
        ->type_name("SPEED")
        ->check(CLI::IsMember(speeds()));
    app.add_option("--caller-end", choices.m_strCallerEnd,
                   "whether a recording ends with the caller's file or goes on with silence; default: stop")
        ->type_name("WHAT")
        ->check(CLI::IsMember(callerEnds()));
    app.add_option("--links", choices.m_strLinks,
                   "links that may lead to what is written: those of root and of the driver's user, or all; "
                   "default: trusted")
        ->type_name("WHICH")
        ->check(CLI::IsMember(linkRules()));
    app.add_option("--max-streams", options.m_nMaxStreams, "streams that a client may have open; default: 10000")
        ->type_name("N")
        ->check(CLI::Range(size_t{1}, size_t{1000000}).description(""));
    app.add_option("--max-files", options.m_nMaxFiles, "files that a client may have open; default: 10000")
        ->type_name("N")
        ->check(CLI::Range(size_t{1}, size_t{1000000}).description(""));
    app.add_option("--clip-memory", options.m_nClipMegabytes,
                   "memory for all files that are open or play; default: 1024")
        ->type_name("MIB")
        ->check(CLI::Range(size_t{1}, size_t{1000000}).description(""));
    app.add_option("--calls", options.m_strCallsPath,
                   "socket on which programs make the media of calls, or none; default: /tmp/zelmedia-calls.sock")
        ->type_name("PATH");
    app.add_option("--rtp-address", options.m_strRtpAddress, "where calls receive media; default: 127.0.0.1")
        ->type_name("ADDRESS")
        ->check(CLI::Validator(
            [](const std::string& strText) {
                return CNetAddress::parseHost(strText) ? std::string() : "not an address in numbers: " + strText;
            },
            ""));
    app.add_option("--rtp-ports", choices.m_strRtpPorts, "the ports of calls; default: 20000-29999")
        ->type_name("FROM-TO");
    app.add_option("--fault", options.m_vstrFaults, "misbehave like this, for tests of clients; may be repeated")
        ->type_name("RULE")
        ->allow_extra_args(false);
    app.add_option("--log", options.m_strLogFile, "append the log to this file; default: the standard error")
        ->type_name("FILE");
    app.add_option("--log-level", choices.m_strLogLevel, "the least important lines that are logged; default: info")
        ->type_name("LEVEL")
        ->check(CLI::IsMember(logLevels()));
    app.add_option("--log-format", choices.m_strLogFormat, "json is one object per line; default: text")
        ->type_name("FORMAT")
        ->check(CLI::IsMember(logFormats()));
}

void addControlOption(CLI::App& app, COptions& options, const char* pDescription)
{
    app.add_option("--control", options.m_strControlPath, pDescription)->type_name("PATH");
}

// All that follows the first word belongs to the words, so that they may look like options' values.
void takeCtlWords(const CLI::App& ctl, COptions& options)
{
    options.m_bCtl = ctl.parsed();
    if (!options.m_bCtl)
        return;
    options.m_vstrCtlWords = ctl.remaining();
    if (options.m_vstrCtlWords.empty())
        throw CLI::RequiredError("ctl WORD");
    for (const std::string& strWord : options.m_vstrCtlWords)
    {
        if (strWord.empty() || strWord.front() == '-')
        {
            throw CLI::ParseError("ctl: not a WORD, and options come before them: \"" + strWord + "\"",
                                  CLI::ExitCodes::ExtrasError);
        }
    }
}

void takeCallsPath(COptions& options)
{
    if (options.m_strCallsPath == "none")
        options.m_strCallsPath.clear();
    else if (options.m_strCallsPath.empty())
        throw CLI::ValidationError("--calls", "the path is empty");
}

// A call takes an even port and the one above it.
void takeRtpPorts(const std::string& strText, COptions& options)
{
    const char* pEnd = strText.data() + strText.size();
    const auto first = std::from_chars(strText.data(), pEnd, options.m_nFirstRtpPort);
    const bool bDash = first.ec == std::errc() && first.ptr != pEnd && *first.ptr == '-';
    const auto last = std::from_chars(bDash ? first.ptr + 1 : pEnd, pEnd, options.m_nLastRtpPort);
    const int nFirstEven = options.m_nFirstRtpPort + options.m_nFirstRtpPort % 2;
    if (!bDash || last.ec != std::errc() || last.ptr != pEnd || options.m_nFirstRtpPort == 0 ||
        options.m_nLastRtpPort <= nFirstEven)
        throw CLI::ValidationError("--rtp-ports",
                                   "not two port numbers such as 20000-29999, the first even: " + strText);
}

void takeControlPath(COptions& options)
{
    if (options.m_strControlPath == "none")
        options.m_strControlPath.clear();
    else if (options.m_strControlPath.empty())
        throw CLI::ValidationError("--control", "the path is empty");
    if (options.m_bCtl && options.m_strControlPath.empty())
        throw CLI::ValidationError("--control", "ctl needs a socket, not none");
}
} // namespace

std::optional<int> parseOptions(int nArguments, const char* const* ppArguments, COptions& options)
{
    CChoices choices;
    CLI::App app(DESCRIPTION, "zelmedia-driver");
    app.footer(EXAMPLES);
    app.set_version_flag("--version", "zelmedia-driver " ZELMEDIA_VERSION);
    addServeOptions(app, options, choices);

    CLI::App* pCtl = app.add_subcommand("ctl", CTL_DESCRIPTION);
    pCtl->footer(CTL_EXAMPLES);
    pCtl->formatter(std::make_shared<CCtlFormatter>());
    pCtl->prefix_command();
    for (CLI::Option* pOption : app.get_options())
        if (pOption->get_type_size() > 0)
            pCtl->excludes(pOption);
    addControlOption(app, options, "control socket, or none; default: /tmp/zelmedia-driver.sock");
    addControlOption(*pCtl, options, "the driver's control socket; default: /tmp/zelmedia-driver.sock");
    try
    {
        app.parse(nArguments, ppArguments);
        takeCtlWords(*pCtl, options);
        takeControlPath(options);
        takeCallsPath(options);
        takeRtpPorts(choices.m_strRtpPorts, options);
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == 0 ? 0 : 2;
    }
    options.m_eSpeed = speeds().at(choices.m_strSpeed);
    options.m_bSilenceAfterCaller = callerEnds().at(choices.m_strCallerEnd);
    options.m_eLinks = linkRules().at(choices.m_strLinks);
    options.m_eLogFormat = logFormats().at(choices.m_strLogFormat);
    options.m_eLogLevel = logLevels().at(choices.m_strLogLevel);
    return std::nullopt;
}
