// Numbered events that can be asked for again.
#include "JsonEventLog.h"

#include <gmock/gmock.h>

namespace
{
TEST(JsonEventLog, NumbersEventsFromOne)
{
    CJsonEventLog log;
    EXPECT_EQ(log.last(), 0U);
    EXPECT_EQ(log.add({{"event", "digit"}, {"digit", "5"}}), "{\"event\":\"digit\",\"digit\":\"5\",\"number\":1}\n");
    EXPECT_EQ(log.add({{"event", "ended"}}), "{\"event\":\"ended\",\"number\":2}\n");
    EXPECT_EQ(log.last(), 2U);
}

TEST(JsonEventLog, GivesWhatCameAfterANumber)
{
    CJsonEventLog log;
    for (int n = 1; n <= 3; ++n)
        log.add({{"event", "digit"}});
    EXPECT_EQ(log.after(0).size(), 3U);
    EXPECT_EQ(log.after(2).dump(), R"([{"event":"digit","number":3}])");
    EXPECT_EQ(log.after(3).dump(), "[]");
    EXPECT_EQ(log.after(UINT64_MAX).dump(), "[]");
}

TEST(JsonEventLog, KeepsTheLastOnes)
{
    CJsonEventLog log(2);
    for (int n = 1; n <= 5; ++n)
        log.add({{"event", "digit"}});
    EXPECT_EQ(log.after(0).dump(), R"([{"event":"digit","number":4},{"event":"digit","number":5}])");
    EXPECT_EQ(log.after(4).dump(), R"([{"event":"digit","number":5}])");
}
} // namespace
