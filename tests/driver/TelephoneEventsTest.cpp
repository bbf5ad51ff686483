// Keys of a telephone as events of RTP (RFC 4733).
#include "TelephoneEvents.h"
#include "RtpTestSupport.h"

#include <random>

namespace
{
class TelephoneEvents : public testing::Test, private CKeyListener
{
protected:
    bool packet(uint8_t nEvent, uint32_t nTimestamp, unsigned nDuration, bool bEnd = false, bool bMarker = false)
    {
        const CBytes payload = {nEvent, static_cast<uint8_t>(bEnd ? 0x8A : 0x0A), static_cast<uint8_t>(nDuration >> 8),
                                static_cast<uint8_t>(nDuration)};
        return m_keys.onPacket(nTimestamp, bMarker, payload);
    }
    void tick(int nTicks)
    {
        for (int n = 0; n < nTicks; ++n)
            m_keys.onTick();
    }
    std::string taken() { return std::exchange(m_strKeys, {}); }

    void onKeyDown(char cKey) override { m_strKeys += std::string("+") + cKey; }
    void onKeyUp(char cKey, unsigned nMs) override { m_strKeys += std::string("-") + cKey + std::to_string(nMs); }

    std::string m_strKeys;
    CKeyReceiver m_keys{*this};
};
} // namespace

TEST_F(TelephoneEvents, KeyIsToldOnceHoweverOftenItsPacketsCome)
{
    packet(5, 1000, 160, false, true);
    packet(5, 1000, 320);
    packet(5, 1000, 320);
    for (int n = 0; n < 3; ++n)
        packet(5, 1000, 480, true);
    packet(5, 1000, 320);
    tick(50);
    EXPECT_EQ(taken(), "+5-560");
}

TEST_F(TelephoneEvents, StartMayBeLost)
{
    packet(11, 1000, 800, true);
    EXPECT_EQ(taken(), "+#-#100");
}

TEST_F(TelephoneEvents, EndMayBeLostBeforeSilence)
{
    packet(10, 1000, 160);
    packet(10, 1000, 960);
    tick(10);
    EXPECT_EQ(taken(), "+*");
    tick(1);
    EXPECT_EQ(taken(), "-*120");
    packet(10, 1000, 1120, true);
    EXPECT_EQ(taken(), "");
}

TEST_F(TelephoneEvents, EndMayBeLostBeforeTheNextKey)
{
    packet(1, 1000, 480);
    packet(1, 3000, 160);
    packet(1, 3000, 320, true);
    EXPECT_EQ(taken(), "+1-160+1-140");
}

TEST_F(TelephoneEvents, SameKeyTwiceIsTwoKeysWithoutMarkers)
{
    packet(1, 1000, 320, true);
    packet(1, 2000, 320, true);
    EXPECT_EQ(taken(), "+1-140+1-140");
}

TEST_F(TelephoneEvents, OlderEventsAreOver)
{
    packet(1, 5000, 320, true);
    packet(2, 1000, 320, true);
    packet(3, 9000, 160);
    packet(2, 8000, 320, true);
    EXPECT_EQ(taken(), "+1-140+3");
}

TEST_F(TelephoneEvents, TimesMayWrap)
{
    packet(1, UINT32_MAX - 10, 320, true);
    packet(2, 1000, 320, true);
    EXPECT_EQ(taken(), "+1-140+2-240");
}

TEST_F(TelephoneEvents, LongKeyIsOneKey)
{
    packet(7, 1000, 0xFFFF);
    packet(7, 1000 + 0xFFFF, 160);
    packet(7, 1000 + 0xFFFF, 320, true);
    EXPECT_EQ(taken(), "+7-7" + std::to_string((0xFFFF + 320) / 8));
}

TEST_F(TelephoneEvents, AnotherSourceEndsTheKeyAndHasTimesOfItsOwn)
{
    packet(1, 0x70000000, 320);
    m_keys.restart();
    packet(2, 5, 320, true);
    EXPECT_EQ(taken(), "+1-140+2-240");
}

TEST_F(TelephoneEvents, OtherEventsAreNoKeys)
{
    EXPECT_TRUE(packet(16, 1000, 320, true));
    EXPECT_TRUE(packet(255, 2000, 320, true));
    EXPECT_FALSE(m_keys.onPacket(3000, false, CBytes{1, 0x8A, 0}));
    EXPECT_EQ(taken(), "");
}

TEST_F(TelephoneEvents, LossAndOrderNeverDoubleAKey)
{
    std::mt19937 random(7);
    for (int nRun = 0; nRun < 500; ++nRun)
    {
        m_keys.restart();
        m_strKeys.clear();
        auto nTimestamp = static_cast<uint32_t>(random());
        std::string strDown;
        for (int nKey = 0; nKey < 5; ++nKey, nTimestamp += 1600)
        {
            const auto nEvent = static_cast<uint8_t>(random() % 10);
            bool bSent = false;
            for (unsigned nPart = 1; nPart <= 8; ++nPart)
            {
                if (random() % 3 == 0)
                    continue;
                bSent = true;
                for (unsigned n = 0; n <= random() % 2; ++n)
                    packet(nEvent, nTimestamp, std::min(nPart, 6U) * 160, nPart >= 6);
            }
            strDown += bSent ? std::string(1, static_cast<char>('0' + nEvent)) : "";
        }
        tick(11);
        std::string strSeen;
        for (size_t n = m_strKeys.find('+'); n != std::string::npos; n = m_strKeys.find('+', n + 1))
            strSeen += m_strKeys[n + 1];
        ASSERT_EQ(strSeen, strDown) << m_strKeys;
    }
}

TEST_F(TelephoneEvents, WhatIsSentIsWhatIsReceived)
{
    CKeySender sender;
    ASSERT_TRUE(sender.press("12#", 100, 60));
    EXPECT_FALSE(sender.press("1x", 100, 60));
    EXPECT_FALSE(sender.press("", 100, 60));
    EXPECT_FALSE(sender.press(std::string(62, '1'), 100, 60));
    uint32_t nTimestamp = 0;
    int nDone = 0;
    for (uint32_t nTick = 1; nTick < 60; ++nTick)
    {
        bool bAllDone = false;
        if (const auto sent = sender.onTick(bAllDone))
        {
            nTimestamp = sent->m_bBegins ? nTick * 160 : nTimestamp;
            m_keys.onPacket(nTimestamp, sent->m_bBegins, sent->m_payload);
        }
        nDone += bAllDone ? 1 : 0;
    }
    EXPECT_EQ(taken(), "+1-1100+2-2100+#-#100");
    EXPECT_EQ(nDone, 1);
    EXPECT_FALSE(sender.isBusy());
}
