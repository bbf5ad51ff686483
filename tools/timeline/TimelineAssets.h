// The files that make the page of a timeline, from the program itself.
#ifndef TIMELINE_ASSETS_H
#define TIMELINE_ASSETS_H

#include <string_view>

// What the build has put into the program: page.html, timeline.css, timeline.js, echarts.min.js.
std::string_view timelineTemplate();
std::string_view timelineStyle();
std::string_view timelineScript();
std::string_view timelineCharts();

#endif
