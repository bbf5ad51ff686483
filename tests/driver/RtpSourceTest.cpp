// One source of RTP packets: which of them are valid, and what became of them on the way.
#include "RtpSource.h"

#include <gtest/gtest.h>

namespace
{
class RtpSource : public testing::Test
{
protected:
    std::optional<CRtpSource::CPlace> place(uint16_t nSequence, uint32_t nLate = 0)
    {
        return m_source.place({false, 0, nSequence, nSequence * 160U, 7}, nSequence * 160U + nLate);
    }
    void placeAll(uint16_t nFrom, uint16_t nTo)
    {
        for (uint32_t n = nFrom; n <= nTo; ++n)
            ASSERT_TRUE(place(static_cast<uint16_t>(n)));
    }

    CRtpSource m_source{{false, 0, 100, 16000, 7}};
};
} // namespace

TEST_F(RtpSource, CountsWhatCameAndWhatDidNot)
{
    placeAll(100, 149);
    placeAll(160, 199);
    EXPECT_EQ(m_source.received(), 90U);
    EXPECT_EQ(m_source.lost(), 10);
    EXPECT_EQ(m_source.takeFractionLost(), 10 * 256 / 100);
    placeAll(200, 299);
    EXPECT_EQ(m_source.takeFractionLost(), 0);
    EXPECT_EQ(m_source.lost(), 10);
}

TEST_F(RtpSource, DuplicatesMakeUpForLosses)
{
    placeAll(100, 109);
    place(109);
    place(109);
    EXPECT_EQ(m_source.lost(), -2);
    EXPECT_EQ(m_source.takeFractionLost(), 0);
}

TEST_F(RtpSource, PlacesThoseThatWereOvertaken)
{
    placeAll(100, 109);
    const auto last = place(112);
    const auto overtaken = place(110);
    ASSERT_TRUE(last && overtaken);
    EXPECT_EQ(last->m_llSequence - overtaken->m_llSequence, 2);
    EXPECT_EQ(last->m_llTimestamp - overtaken->m_llTimestamp, 320);
    EXPECT_EQ(m_source.lost(), 1);
}

TEST_F(RtpSource, NumbersGoOnWhenTheyWrap)
{
    placeAll(100, 2900);
    ASSERT_TRUE(place(5000));
    for (uint32_t n = 5001; n <= 65536 + 50; ++n)
        ASSERT_TRUE(place(static_cast<uint16_t>(n)));
    EXPECT_EQ(m_source.highestSequence(), 65536U + 50);
    EXPECT_EQ(m_source.lost(), 2099);
}

TEST_F(RtpSource, DoesNotPlaceWhatIsFarFromTheOthers)
{
    placeAll(100, 109);
    EXPECT_FALSE(place(109 + 3000));
    EXPECT_FALSE(place(109 - 101));
    EXPECT_TRUE(place(109 + 2999));
    EXPECT_EQ(m_source.received(), 11U);
}

TEST_F(RtpSource, KeepsItsCountsWhenTheSenderBeginsAnew)
{
    placeAll(100, 109);
    place(119);
    m_source.restart({false, 0, 50000, 0, 7});
    placeAll(50000, 50009);
    EXPECT_EQ(m_source.lost(), 9);
    EXPECT_EQ(m_source.received(), 21U);
    EXPECT_EQ(m_source.highestSequence(), 50009U);
}

TEST_F(RtpSource, JitterIsThatOfTheArrivals)
{
    for (uint32_t n = 100; n < 1000; ++n)
        place(static_cast<uint16_t>(n), n % 2 == 0 ? 80 : 0);
    EXPECT_NEAR(m_source.jitter(), 80, 2);
}
