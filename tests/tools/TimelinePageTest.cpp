// The subcommand timeline: what it writes, and the page in a browser.
#include "SampleFiles.h"
#include "SampleLog.h"
#include "ToolRun.h"

#include <gmock/gmock.h>
#include <png.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <unistd.h>

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

namespace
{
const char PAGE[] = "/tmp/page.html";

json timeline(const char* pszFormat = "html")
{
    CToolRun run({"timeline", SAMPLE_LOG, "--json", "--format", pszFormat, "-o", PAGE});
    EXPECT_EQ(run.waitExit(), 0) << run.output() << run.errors();
    return run.json();
}

// Starts the browser on the page; virtual time lets it finish however slow the machine is.
bool browse(const std::string& strOptions)
{
    const std::string strCommand = "timeout -k 1 200 chromium --headless --no-sandbox --disable-gpu "
                                   "--user-data-dir=/tmp/browser --window-size=1300,760 "
                                   "--virtual-time-budget=120000 --timeout=150000 " +
                                   strOptions + " file://" + PAGE + " </dev/null 2>/tmp/browser.err";
    return std::system(strCommand.c_str()) == 0;
}

std::string browsedPage()
{
    EXPECT_TRUE(browse("--dump-dom >/tmp/dom.html")) << readFile("/tmp/browser.err");
    return readFile("/tmp/dom.html");
}

// How many pixels of the picture of the page have each colour.
std::map<uint32_t, size_t> coloursOfScreenshot()
{
    EXPECT_TRUE(browse("--screenshot=/tmp/page.png >/tmp/browser.out")) << readFile("/tmp/browser.err");
    std::map<uint32_t, size_t> mapColours;
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, "/tmp/page.png"))
        return mapColours;
    image.format = PNG_FORMAT_RGB;
    std::vector<uint8_t> vBytes(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, vBytes.data(), 0, nullptr))
        return mapColours;
    for (size_t n = 0; n + 2 < vBytes.size(); n += 3)
        ++mapColours[static_cast<uint32_t>(vBytes[n] << 16 | vBytes[n + 1] << 8 | vBytes[n + 2])];
    return mapColours;
}

class TimelinePage : public testing::Test
{
protected:
    void SetUp() override
    {
#ifdef ZELMEDIA_ASAN
        GTEST_SKIP() << "the browser draws the same page for the other builds";
#endif
        if (access("/usr/bin/chromium", X_OK) != 0)
            GTEST_SKIP() << "there is no chromium here";
    }
};

void writePlays(int nStreams, int nPlaysOfEach)
{
    CSampleLog log(SAMPLE_LOG);
    log.connect();
    for (int nStream = 1; nStream <= nStreams; ++nStream)
        log.openStream(nStream, ("call-" + std::to_string(nStream)).c_str());
    std::vector<unsigned int> vNumbers(static_cast<size_t>(nStreams) + 1);
    for (int nPlay = 0; nPlay < nPlaysOfEach; ++nPlay)
    {
        for (int nStream = 1; nStream <= nStreams; ++nStream)
            vNumbers[static_cast<size_t>(nStream)] = log.play(nStream, "/prompts/hello.wav");
        log.pass(2000000);
        for (int nStream = 1; nStream <= nStreams; ++nStream)
            log.complete(nStream, vNumbers[static_cast<size_t>(nStream)], nStream % 7 == 0 ? 46 : 0);
        log.pass(500000);
    }
}
} // namespace

TEST_F(TimelinePage, AnEmptyLogSaysSo)
{
    std::ofstream(SAMPLE_LOG).close();
    EXPECT_EQ(timeline()["plays"], 0);
    const std::string strPage = browsedPage();
    EXPECT_THAT(strPage, HasSubstr("data-ready=\"true\""));
    EXPECT_THAT(strPage, HasSubstr("<p id=\"empty\">"));
}

TEST_F(TimelinePage, ShowsWhatHappened)
{
    writePlays(7, 3);
    EXPECT_EQ(timeline()["plays"], 21);
    const std::string strPage = browsedPage();
    EXPECT_THAT(strPage, HasSubstr("data-ready=\"true\""));
    EXPECT_THAT(strPage, HasSubstr("<td>7</td><td>21</td><td>0</td><td>0</td><td>18</td><td>0</td><td>3</td>"));
    EXPECT_THAT(strPage, HasSubstr("<td>7: call-7, leg 1</td><td>3</td>"));
    EXPECT_THAT(strPage, HasSubstr("<canvas"));
    EXPECT_THAT(strPage, HasSubstr("<p id=\"empty\" hidden=\"\">"));
}

// The legend has a little of each colour.
TEST_F(TimelinePage, WhatHappenedIsDrawnInItsColour)
{
    const uint32_t STREAM = 0xE6EEF5, CONNECTED = 0x7FCDB3, PLAY = 0x0072B2, RECORD = 0xE69F00, COMPLETION = 0x00614A;
    writePlays(7, 3);
    timeline();
    std::map<uint32_t, size_t> mapColours = coloursOfScreenshot();
    const size_t nInLegend = mapColours[RECORD];
    EXPECT_GT(nInLegend, 0U);
    EXPECT_LT(nInLegend, 1000U) << "nothing was recorded";
    EXPECT_GT(mapColours[STREAM], 100 * nInLegend);
    EXPECT_GT(mapColours[CONNECTED], 10 * nInLegend);
    EXPECT_GT(mapColours[PLAY], 50 * nInLegend);
    EXPECT_GT(mapColours[COMPLETION], nInLegend);
}

TEST_F(TimelinePage, TextsOfTheLogStayTexts)
{
    {
        CSampleLog log(SAMPLE_LOG);
        log.connect();
        const char* const pszEvil = "</script><script>document.title='broken'</script><!--<b>\"'&{{data}}\xFF\xC3\x1B";
        log.openStream(1, pszEvil);
        log.complete(1, log.play(1, pszEvil), 0);
    }
    timeline();
    const std::string strPage = browsedPage();
    EXPECT_THAT(strPage, HasSubstr("data-ready=\"true\""));
    EXPECT_THAT(strPage, Not(HasSubstr("<title>broken")));
    EXPECT_THAT(strPage, HasSubstr("1: &lt;/script&gt;&lt;script&gt;"));
}

TEST_F(TimelinePage, TwoHundredStreamsAreAllThere)
{
    writePlays(200, 5);
    EXPECT_EQ(timeline()["streams"], 200);
    const std::string strPage = browsedPage();
    // A stream is open, and plays and is told five times; the driver is away, then connected.
    EXPECT_THAT(strPage, HasSubstr("data-items=\"2202\""));
    EXPECT_THAT(strPage, HasSubstr("<td>200: call-200, leg 1</td>"));
}

TEST_F(TimelinePage, AHundredThousandCommandsOpen)
{
    writePlays(100, 1000);
    const json summary = timeline();
    EXPECT_EQ(summary["plays"], 100000);
    EXPECT_EQ(summary["other_lines"], 0);
    const std::string strPage = browsedPage();
    EXPECT_THAT(strPage, HasSubstr("data-ready=\"true\""));
    EXPECT_THAT(strPage, HasSubstr("data-items=\"200102\""));
}

TEST(TimelineFile, NeedsNoNetwork)
{
    writePlays(1, 1);
    timeline();
    const std::string strPage = readFile(PAGE);
    EXPECT_THAT(strPage, HasSubstr("default-src 'none'"));
    EXPECT_THAT(strPage, Not(HasSubstr("<script src")));
    EXPECT_THAT(strPage, Not(HasSubstr("<link")));
    EXPECT_THAT(strPage, HasSubstr("Apache License 2.0"));
}

TEST(TimelineFile, PerfettoGetsNamesSlicesAndMarks)
{
    writePlays(2, 3);
    timeline("perfetto");
    const json trace = json::parse(readFile(PAGE));
    size_t nPlays = 0, nCompletions = 0;
    std::set<std::string> names;
    for (const json& event : trace["traceEvents"])
    {
        ASSERT_TRUE(event["pid"].is_number_integer() && event["tid"].is_number_integer());
        if (event["ph"] == "M")
        {
            names.insert(event["args"]["name"]);
            continue;
        }
        ASSERT_TRUE(event["ts"].is_number_integer());
        nPlays += event["ph"] == "X" && event["name"] == "play";
        nCompletions += event["ph"] == "i" && event["name"] == "completion";
        if (event["name"] == "play")
            EXPECT_NEAR(event["dur"].get<double>(), 2e6, 1e4);
    }
    EXPECT_EQ(nPlays, 6U);
    EXPECT_EQ(nCompletions, 6U);
    EXPECT_THAT(names, testing::IsSupersetOf({"process 4711", "media driver", "stream 2 call-2, leg 1, plays"}));
}

TEST(TimelineFile, PerfettoGetsWhateverTheLogTellsOf)
{
    {
        CSampleLog log(SAMPLE_LOG);
        log.connect();
        log.openStream(1, "one");
        log.line("CZelMediaStreamImpl::playCancel (0x%08X)", CSampleLog::handle(1)); // nothing plays
        log.complete(1, log.play(1, "late.wav"), 46);
        log.request(0, "MICMD_OPENFILE", 34);
        log.text(LOG_EVENT_DRIVER_LOST);
        log.text(LOG_EVENT_DRIVER_SILENT);
        log.text(LOG_EVENT_PROCESS_ENDING);
    }
    EXPECT_EQ(timeline("perfetto")["driver_losses"], 1);
    std::set<std::string> names;
    const json trace = json::parse(readFile(PAGE));
    for (const json& event : trace["traceEvents"])
        names.insert(event["name"]);
    EXPECT_THAT(names,
                testing::IsSupersetOf({"open", "connected", "no driver", "play", "time-out", "cancel", "failure"}));
}

TEST(TimelineFile, TheSummaryIsALineForPeople)
{
    writePlays(1, 2);
    CToolRun run({"timeline", SAMPLE_LOG, "-o", PAGE});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_EQ(run.output(),
              "/tmp/page.html: 1 stream, 2 plays, 0 records, 0 waits, 0 cancels, 0 time-outs, 0 failures, "
              "0 driver losses\n");
}

TEST(TimelineFile, APlaceThatCannotBeWrittenIsSaid)
{
    writePlays(1, 1);
    CToolRun run({"timeline", SAMPLE_LOG, "-o", "/nowhere/page.html"});
    EXPECT_NE(run.waitExit(), 0);
    EXPECT_THAT(run.errors(), HasSubstr("/nowhere/page.html"));
}

TEST(TimelineFile, AnUnknownFormatIsWrongUsage)
{
    CToolRun run({"timeline", SAMPLE_LOG, "--format", "svg", "-o", PAGE});
    EXPECT_EQ(run.waitExit(), 2);
}
