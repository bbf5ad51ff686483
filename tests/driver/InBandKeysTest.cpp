// Keys as tones: each of them once, with noise and at all levels that lines have, and none in speech.
#include "InBandKeys.h"
#include "DriverTestSupport.h"
#include "G711.h"
#include "Places.h"
#include "TelephoneEvents.h"

#include <gmock/gmock.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <numbers>
#include <string>
#include <string_view>

using testing::Each;
using testing::Ge;
using testing::IsEmpty;
using testing::Le;

namespace
{
constexpr std::string_view KEYS = "123A456B789C*0#D";
constexpr double ROWS[] = {697, 770, 852, 941};
constexpr double COLUMNS[] = {1209, 1336, 1477, 1633};

class InBandKeys : public testing::Test, protected CKeyListener
{
protected:
    void onKeyDown(char cKey) override { m_strDown += cKey; }
    void onKeyUp(char cKey, unsigned nMs) override
    {
        m_strUp += cKey;
        m_vMs.push_back(nMs);
    }

    static void addKey(CSamples& samples, char cKey, size_t nMs, double dLevel, double dNoise = 0)
    {
        const size_t nKey = KEYS.find(cKey);
        const CSamples hiss = noise(nMs * 8);
        for (size_t n = 0; n < nMs * 8; ++n)
        {
            const double t = 2 * std::numbers::pi * static_cast<double>(n) / 8000;
            const double dValue = dLevel * (std::sin(ROWS[nKey / 4] * t) + std::sin(COLUMNS[nKey % 4] * t)) +
                                  dNoise * (hiss[n] - 127.5) / 128;
            samples.push_back(encodeULaw(static_cast<int16_t>(dValue)));
        }
    }
    static void addSilence(CSamples& samples, size_t nMs) { samples.insert(samples.end(), nMs * 8, ULAW_SILENCE); }

    // As ticks bring them.
    void hear(const CSamples& samples, size_t nTick = 160)
    {
        for (size_t n = 0; n < samples.size(); n += nTick)
            m_keys.onSamples(std::span(samples).subspan(n, std::min(nTick, samples.size() - n)));
    }

    std::string m_strDown;
    std::string m_strUp;
    std::vector<unsigned> m_vMs;
    CInBandKeys m_keys{*this};
};
} // namespace

TEST_F(InBandKeys, AreFoundOnceEach)
{
    CSamples samples;
    for (const char cKey : KEYS)
    {
        addKey(samples, cKey, 80, 4000);
        addSilence(samples, 80);
    }
    hear(samples);
    EXPECT_EQ(m_strDown, KEYS);
    EXPECT_EQ(m_strUp, KEYS);
}

TEST_F(InBandKeys, ThatAreTheSameAreTwoWithAPauseBetween)
{
    CSamples samples;
    for (int n = 0; n < 3; ++n)
    {
        addKey(samples, '5', 60, 4000);
        addSilence(samples, 60);
    }
    hear(samples);
    EXPECT_EQ(m_strDown, "555");
}

TEST_F(InBandKeys, AreFoundAtEachLevelOfALineAndInNoise)
{
    CSamples samples;
    for (const double dLevel : {300.0, 1000.0, 3000.0, 9000.0})
    {
        addKey(samples, '7', 80, dLevel, dLevel / 10);
        addSilence(samples, 80);
    }
    hear(samples);
    EXPECT_EQ(m_strDown, "7777");
}

TEST_F(InBandKeys, AreDownAsLongAsTheirTones)
{
    CSamples samples;
    for (const size_t nMs : {100U, 400U})
    {
        addKey(samples, '1', nMs, 4000);
        addSilence(samples, 100);
    }
    hear(samples);
    ASSERT_EQ(m_vMs.size(), 2U);
    EXPECT_NEAR(m_vMs[0], 100, 40);
    EXPECT_NEAR(m_vMs[1], 400, 40);
}

TEST_F(InBandKeys, AreTheSameHoweverTheSamplesAreCut)
{
    CSamples samples;
    addKey(samples, '9', 80, 4000);
    addSilence(samples, 80);
    for (const size_t nTick : {1U, 7U, 102U, 480U})
        hear(samples, nTick);
    EXPECT_EQ(m_strDown, "9999");
}

TEST_F(InBandKeys, AreNotInSpeechOrNoise)
{
    std::ifstream phrases(std::string(ASSETS) + "/phrases.ul", std::ios::binary);
    CSamples samples((std::istreambuf_iterator<char>(phrases)), {});
    ASSERT_GT(samples.size(), 8000U);
    hear(samples);
    hear(noise(80000));
    EXPECT_THAT(m_strDown, IsEmpty());
}
