// Channels without a line: what is played vanishes at the pace of the clock, the caller is silent.
#include "NullChannel.h"

#include <gtest/gtest.h>

#include <vector>

TEST(NullChannel, TakesAllThatIsPlayed)
{
    CNullChannel channel;
    EXPECT_EQ(channel.hear(std::vector<uint8_t>(160, 1)), 160U);
    EXPECT_EQ(channel.hear(std::vector<uint8_t>(7, 1)), 7U);
    EXPECT_FALSE(channel.hasFailed());
}

TEST(NullChannel, SaysSilenceWithoutEnd)
{
    CNullChannel channel;
    for (int n = 0; n < 100; ++n)
    {
        std::vector<uint8_t> samples(160, 1);
        ASSERT_EQ(channel.listen(samples), 160U);
        ASSERT_EQ(samples, std::vector<uint8_t>(160, 0xFF));
    }
}

TEST(NullChannel, LetsPlaysAndRecordingsBeginAndEndAtOnce)
{
    CNullChannel channel;
    int nDone = 0;
    channel.beginListening([&nDone](bool bOk, const std::string&) { nDone += bOk ? 1 : 0; });
    channel.finishHearing([&nDone](bool bOk) { nDone += bOk ? 1 : 0; });
    channel.endListening();
    EXPECT_EQ(nDone, 2);
}

TEST(NullChannel, KeepsToTheClock)
{
    const CNullChannel channel;
    EXPECT_TRUE(channel.isRealTime());
    EXPECT_STREQ(channel.kind(), "null");
}
