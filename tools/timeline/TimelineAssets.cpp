// What the build puts into the program for the page of a timeline.
#include "timeline/TimelineAssets.h"

// Assembled, not compiled: half a megabyte as an array would take the compiler longer than all of this folder.
#define ZELMEDIA_ASSET(NAME, FILE)                                                                                     \
    __asm__(".pushsection .rodata\n" #NAME "_begin:\n.incbin \"" FILE "\"\n" #NAME "_end:\n.byte 0\n.popsection\n");   \
    extern "C" __attribute__((visibility("hidden"))) const char NAME##_begin[];                                        \
    extern "C" __attribute__((visibility("hidden"))) const char NAME##_end[]

// NOLINTBEGIN(hicpp-no-assembler)
ZELMEDIA_ASSET(zelmedia_timeline_template, TIMELINE_FOLDER "/page.html");
ZELMEDIA_ASSET(zelmedia_timeline_style, TIMELINE_FOLDER "/timeline.css");
ZELMEDIA_ASSET(zelmedia_timeline_script, TIMELINE_FOLDER "/timeline.js");
ZELMEDIA_ASSET(zelmedia_timeline_charts, ECHARTS_FOLDER "/echarts.min.js");
// NOLINTEND(hicpp-no-assembler)

std::string_view timelineTemplate()
{
    return {zelmedia_timeline_template_begin, zelmedia_timeline_template_end};
}

std::string_view timelineStyle()
{
    return {zelmedia_timeline_style_begin, zelmedia_timeline_style_end};
}

std::string_view timelineScript()
{
    return {zelmedia_timeline_script_begin, zelmedia_timeline_script_end};
}

std::string_view timelineCharts()
{
    return {zelmedia_timeline_charts_begin, zelmedia_timeline_charts_end};
}
