// The subcommand trace of zelmedia.
#include "trace/TraceCommand.h"

#include "base/Terminal.h"
#include "base/Tool.h"
#include "log/CommandLives.h"
#include "log/LogFiles.h"
#include "trace/TraceFilter.h"
#include "trace/TraceText.h"

#include <memory>

namespace
{
struct CTraceOptions
{
    std::vector<std::string> m_vFiles;
    bool m_bFollow = false;
    bool m_bRaw = false;
    CTraceFilter m_filter;
};

// Prints what the filter lets through.
class CTracePrinter : public CLogListener
{
public:
    CTracePrinter(const CTraceFilter& filter, bool bJson) : m_filter(filter), m_bJson(bJson) {}
    void onCommand(const CCommandLife& life) override { print(life); }
    void onNote(const CLogNote& note) override { print(note); }

private:
    template <class THING> void print(const THING& thing)
    {
        if (!m_filter.wants(thing))
            return;
        if (m_bJson)
            printJson(traceJson(thing));
        else
            printLine(traceText(thing));
    }

    const CTraceFilter& m_filter;
    const bool m_bJson;
};

// The lines themselves are wanted, not what they tell of; that only tells which stream a line belongs to.
class CNoListener : public CLogListener
{
public:
    void onCommand(const CCommandLife&) override {}
    void onNote(const CLogNote&) override {}
};

void printRaw(const CLogLine& line, std::string_view strvWhole, bool bJson)
{
    if (bJson)
        printJson(traceJson(line));
    else
        printLine(traceText(line, strvWhole));
}

nlohmann::json linesJson(const CLineCounts& counts)
{
    return {{"type", "summary"}, {"lines", counts.m_ullLines}, {"other_lines", counts.m_ullForeign}};
}

int trace(CTraceOptions& options, bool bJson)
{
    options.m_filter.prepare();
    CTracePrinter printer(options.m_filter, bJson);
    CNoListener nobody;
    CCommandLives lives(options.m_bRaw ? static_cast<CLogListener&>(nobody) : printer);
    CLineCounts counts;
    const auto see = [&](CLogLine& line, std::string_view strvLine) {
        options.m_filter.see(line);
        lives.add(line);
        if (options.m_bRaw && options.m_filter.wants(line))
            printRaw(line, strvLine, bJson);
    };
    const bool bInterrupted = readLogs(options.m_vFiles, options.m_bFollow, counts, see);
    lives.finish();
    if (bJson)
        printJson(linesJson(counts));
    else
        tell(counts);
    return bInterrupted ? EXIT_CODE_INTERRUPTED : EXIT_CODE_OK;
}
} // namespace

void addTraceCommand(CTool& tool)
{
    const auto pOptions = std::make_shared<CTraceOptions>();
    CLI::App* const pCommand =
        tool.addCommand(tool.app(), "trace", "Show what an application asked for, from the library's log",
                        "  zelmedia trace /var/log/zelmedia/Media-p4711.log\n"
                        "  zelmedia trace -f /tmp/Media-p4711.log --stream 3\n"
                        "  zelmedia trace Media-p4711.log.1 Media-p4711.log --command PLAY --kind errors\n"
                        "  zelmedia trace Media-p4711.log --since 14:05 --until 14:06:30 --raw\n"
                        "Each command is one line, told when it has ended: when it was asked for, and how long after\n"
                        "that it was sent, answered and completed. A log with the trace classes 1 and 8 is needed.",
                        [pOptions, &tool] { return trace(*pOptions, tool.isJson()); });
    pCommand->add_option("FILE", pOptions->m_vFiles, "Log files, the oldest first; - is standard input")->required();
    pCommand->add_flag("-f,--follow", pOptions->m_bFollow,
                       "Go on with what is appended to the last file, and with the file that replaces it");
    pCommand->add_flag("--raw", pOptions->m_bRaw, "Show the lines themselves");
    CTraceFilter& filter = pOptions->m_filter;
    pCommand->add_option("--stream", filter.m_vStreams, "Only this stream (may be repeated)")->allow_extra_args(false);
    pCommand->add_option("--command", filter.m_vCommands, "Only commands whose names begin so: PLAY, RECORDFILE")
        ->allow_extra_args(false);
    pCommand->add_option("--kind", filter.m_vKinds, "Only with such a step")
        ->check(CLI::IsMember(CTraceFilter::kinds()))
        ->allow_extra_args(false)
        ->delimiter(',');
    pCommand->add_option("--since", filter.m_strSince, "Not what ended before: 2026-11-21 14:05:06.5, or 14:05");
    pCommand->add_option("--until", filter.m_strUntil, "Not what began after");
}
