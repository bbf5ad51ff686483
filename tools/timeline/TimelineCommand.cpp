// The subcommand timeline of zelmedia.
#include "timeline/TimelineCommand.h"

#include "base/Tool.h"
#include "log/LogFiles.h"
#include "timeline/Timeline.h"

#include <memory>

namespace
{
const char* const PERFETTO = "perfetto";

struct CTimelineOptions
{
    std::vector<std::string> m_vFiles;
    std::string m_strOutput;
    std::string m_strFormat = "html";
};

int drawTimeline(const CTimelineOptions& options, bool bJson)
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
    timeline.write(options.m_strOutput, options.m_strFormat == PERFETTO, options.m_vFiles.back());
    if (bJson)
    {
        nlohmann::json summary = timeline.summary();
        summary["lines"] = counts.m_ullLines;
        summary["other_lines"] = counts.m_ullForeign;
        summary["output"] = options.m_strOutput;
        printJson(summary);
        return EXIT_CODE_OK;
    }
    tell(counts);
    printLine(options.m_strOutput + ": " + timeline.summaryText());
    return EXIT_CODE_OK;
}
} // namespace

void addTimelineCommand(CTool& tool)
{
    const auto pOptions = std::make_shared<CTimelineOptions>();
    CLI::App* const pCommand = tool.addCommand(
        tool.app(), "timeline", "Draw what an application asked for, from the library's log",
        "  zelmedia timeline /var/log/zelmedia/Media-p4711.log -o calls.html\n"
        "  zelmedia timeline Media-p4711.log.1 Media-p4711.log -o calls.html\n"
        "  zelmedia timeline Media-p4711.log --format perfetto -o calls.json\n"
        "The page needs no network. https://ui.perfetto.dev and chrome://tracing open the other format.",
        [pOptions, &tool] { return drawTimeline(*pOptions, tool.isJson()); });
    pCommand->add_option("FILE", pOptions->m_vFiles, "Log files, the oldest first; - is standard input")->required();
    pCommand->add_option("-o,--output", pOptions->m_strOutput, "File to write")->required();
    pCommand->add_option("--format", pOptions->m_strFormat, "html or perfetto")
        ->check(CLI::IsMember({"html", PERFETTO}))
        ->capture_default_str();
}
