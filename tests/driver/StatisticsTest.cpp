// The driver's counters, and how they look as JSON.
#include "Statistics.h"

#include <gmock/gmock.h>

using nlohmann::ordered_json;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(TimeHistogram, CountsATimeWhereItJustFits)
{
    CTimeHistogram histogram;
    for (const microseconds time :
         {microseconds(-5), microseconds(0), microseconds(1000), microseconds(1001), microseconds(2000),
          microseconds(5000), microseconds(10000), microseconds(20000), microseconds(50000), microseconds(100000),
          microseconds(100001), microseconds(2500000)})
        histogram.add(time);
    EXPECT_EQ(histogram.toJson(), ordered_json::parse(R"({"up_to_1_ms":3,"up_to_2_ms":2,"up_to_5_ms":1,"up_to_10_ms":1,
        "up_to_20_ms":1,"up_to_50_ms":1,"up_to_100_ms":1,"more":2,"max_ms":2500.0})"));
    EXPECT_EQ(histogram.count(), 12U);
}

TEST(TimeHistogram, CountsWhatIsAboveALimit)
{
    CTimeHistogram histogram;
    histogram.add(milliseconds(1));
    histogram.add(milliseconds(5));
    EXPECT_EQ(histogram.countAbove(5), 0U);
    EXPECT_EQ(histogram.countAbove(1), 1U);
    histogram.add(microseconds(5001));
    histogram.add(seconds(1));
    EXPECT_EQ(histogram.countAbove(5), 2U);
    EXPECT_EQ(histogram.countAbove(100), 1U);
}

TEST(Statistics, CountsRequestsByCommandWhateverTheirCode)
{
    CStatistics statistics;
    for (const int nCode : {0, -1, 17, INT32_MAX, INT32_MIN, 1, 16, 13, 13})
        statistics.onRequest(static_cast<MICMD>(nCode));
    const ordered_json requests = statistics.toJson({})["requests"];
    EXPECT_EQ(requests.size(), 17U);
    EXPECT_EQ(requests["unknown"], 5);
    EXPECT_EQ(requests["connect"], 1);
    EXPECT_EQ(requests["recordgetstatus"], 1);
    EXPECT_EQ(requests["ping"], 2);
    EXPECT_EQ(requests["dump"], 0);
}

TEST(Statistics, CallsATickLateAboveFiveMilliseconds)
{
    CStatistics statistics;
    statistics.onTick(milliseconds(5), milliseconds(30));
    statistics.onTick(milliseconds(6), milliseconds(1));
    const ordered_json ticks = statistics.toJson({})["ticks"];
    EXPECT_EQ(ticks["count"], 2);
    EXPECT_EQ(ticks["late"], 1);
    EXPECT_EQ(ticks["lateness"]["max_ms"], 6.0);
    EXPECT_EQ(ticks["duration"]["max_ms"], 30.0);
}

TEST(Statistics, ShowsEveryCounterUnderItsName)
{
    CStatistics statistics;
    statistics.m_startTime = std::chrono::system_clock::time_point(seconds(1700000000));
    statistics.m_ullRefused = 1;
    statistics.m_ullDropped = 2;
    statistics.m_ullRubbishBytes = 3;
    statistics.m_ullResponsesSent = 4;
    statistics.m_ullResponsesLost = 5;
    statistics.m_ullEventsSent = 6;
    statistics.m_ullEventsDropped = 7;
    statistics.m_ullClientsConnected = 8;
    statistics.m_ullClientsDropped = 9;
    statistics.m_now = {10, 11, 12, 13, 14, 15, 16, 17};
    statistics.m_rtp = {21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31};
    ordered_json json = statistics.toJson(statistics.m_start + milliseconds(90999));
    json.erase("requests");
    json.erase("ticks");
    EXPECT_EQ(json.dump(), ordered_json::parse(R"({"started":"2023-11-14T22:13:20Z","up_s":90,
        "now":{"clients":10,"streams":11,"playing":12,"recording":13,"waiting_events":14,"clips":15,"clip_bytes":16,
        "rtp_ports":17},
        "clients":{"connected":8,"dropped":9},"refused":1,"dropped":2,"rubbish_bytes":3,
        "responses":{"sent":4,"lost":5},"events":{"sent":6,"dropped":7},
        "rtp":{"sent":21,"send_errors":22,"received":23,"receive_errors":24,"strangers":25,"malformed":26,
        "other_payloads":27,"strays":28,"duplicates":29,"late":30,"lost":31}})")
                               .dump());
}
