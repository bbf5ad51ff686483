// The subcommands trace, timeline of zelmedia.
#include "base/Terminal.h"
#include "base/Tool.h"
#include "log/CommandLives.h"
#include "log/LogReader.h"
#include "timeline/Timeline.h"
#include "trace/TraceFilter.h"
#include "trace/TraceText.h"

#include <cstdio>
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

struct CTimelineOptions
{
    std::vector<std::string> m_vFiles;
    std::string m_strOutput;
    std::string m_strFormat = "html";
};

// How many lines there were that the library has not written.
struct CLineCounts
{
    uint64_t m_ullLines = 0;
    uint64_t m_ullForeign = 0;

    void add(bool bForeign)
    {
        ++m_ullLines;
        m_ullForeign += bForeign;
    }
    nlohmann::json json() const { return {{"type", "summary"}, {"lines", m_ullLines}, {"otherLines", m_ullForeign}}; }
    void tell() const
    {
        if (m_ullForeign > 0)
            std::fprintf(stderr, "zelmedia: passed over %llu of %llu lines: they are not the library's\n",
                         static_cast<unsigned long long>(m_ullForeign), static_cast<unsigned long long>(m_ullLines));
    }
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

// Calls see(line, the whole line), which may take parts out of the line, for each that is the library's. Tells
// whether it was interrupted while it followed.
template <class SEE>
bool readLogs(const std::vector<std::string>& vFiles, bool bFollowLast, CLineCounts& counts, SEE see)
{
    bool bInterrupted = false;
    for (const std::string& strFile : vFiles)
    {
        const bool bFollow = bFollowLast && &strFile == &vFiles.back();
        CLogReader reader(strFile, bFollow ? CLogReader::FOLLOWING : CLogReader::NOT_FOLLOWING);
        std::string_view strvLine;
        CLogLine line;
        while (reader.next(strvLine))
        {
            const bool bOwn = parseLogLine(strvLine, line);
            counts.add(!bOwn);
            if (bOwn)
                see(line, strvLine);
        }
        bInterrupted = reader.wasInterrupted();
    }
    return bInterrupted;
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
        printJson(counts.json());
    else
        counts.tell();
    return bInterrupted ? EXIT_CODE_INTERRUPTED : EXIT_CODE_OK;
}

int timeline(const CTimelineOptions& options, bool bJson)
{
    CTimeline timeline;
    CCommandLives lives(timeline);
    CLineCounts counts;
    readLogs(options.m_vFiles, false, counts, [&](CLogLine& line, std::string_view) {
        timeline.see(line);
        lives.add(line);
    });
    lives.finish();
    timeline.finish();
    timeline.write(options.m_strOutput, options.m_strFormat == "perfetto", options.m_vFiles.back());
    nlohmann::json summary = timeline.summary();
    if (bJson)
    {
        summary["lines"] = counts.m_ullLines;
        summary["otherLines"] = counts.m_ullForeign;
        summary["output"] = options.m_strOutput;
        printJson(summary);
        return EXIT_CODE_OK;
    }
    counts.tell();
    printLine(options.m_strOutput + ": " + timeline.summaryText());
    return EXIT_CODE_OK;
}

void addTrace(CTool& tool)
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
    pCommand
        ->add_option(
            "--kind", filter.m_vKinds,
            "Only with such a step: calls, requests, responses, events, completions, errors, connection, other")
        ->allow_extra_args(false)
        ->delimiter(',');
    pCommand->add_option("--since", filter.m_strSince, "Not what ended before: 2026-11-21 14:05:06.5, or 14:05");
    pCommand->add_option("--until", filter.m_strUntil, "Not what began after");
}

void addTimeline(CTool& tool)
{
    const auto pOptions = std::make_shared<CTimelineOptions>();
    CLI::App* const pCommand = tool.addCommand(
        tool.app(), "timeline", "Draw what an application asked for, from the library's log",
        "  zelmedia timeline /var/log/zelmedia/Media-p4711.log -o calls.html\n"
        "  zelmedia timeline Media-p4711.log.1 Media-p4711.log -o calls.html\n"
        "  zelmedia timeline Media-p4711.log --format perfetto -o calls.json\n"
        "The page needs no network. https://ui.perfetto.dev and chrome://tracing open the other format.",
        [pOptions, &tool] { return timeline(*pOptions, tool.isJson()); });
    pCommand->add_option("FILE", pOptions->m_vFiles, "Log files, the oldest first; - is standard input")->required();
    pCommand->add_option("-o,--output", pOptions->m_strOutput, "File to write")->required();
    pCommand->add_option("--format", pOptions->m_strFormat, "html or perfetto")
        ->check(CLI::IsMember({"html", "perfetto"}))
        ->capture_default_str();
}
} // namespace

void addTraceCommands(CTool& tool)
{
    addTrace(tool);
    addTimeline(tool);
}
