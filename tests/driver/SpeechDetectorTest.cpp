// When speech begins and ends, in the speech of the assets, in silence and in the noise of a line.
#include "SpeechDetector.h"
#include "DriverTestSupport.h"
#include "G711.h"
#include "Places.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace
{
class SpeechDetector : public testing::Test
{
protected:
    static CSamples speech()
    {
        std::ifstream phrases(std::string(ASSETS) + "/phrases.ul", std::ios::binary);
        CSamples samples((std::istreambuf_iterator<char>(phrases)), {});
        EXPECT_GT(samples.size(), 12000U);
        samples.resize(12000);
        return samples;
    }

    // Returns at which milliseconds, from the first sample on, something changed.
    std::vector<size_t> hear(const CSamples& samples)
    {
        std::vector<size_t> vChanges;
        for (size_t n = 0; n + 160 <= samples.size(); n += 160)
            if (m_detector.onSamples(std::span(samples).subspan(n, 160)))
                vChanges.push_back(n / 8 + 20);
        return vChanges;
    }

    CSpeechDetector m_detector;
};
} // namespace

TEST_F(SpeechDetector, TellsTheBeginningOfSpeechSoonAndItsEndAfterAPause)
{
    CSamples samples(8000, ULAW_SILENCE);
    const CSamples words = speech();
    samples.insert(samples.end(), words.begin(), words.end());
    samples.insert(samples.end(), 16000, ULAW_SILENCE);
    const auto vChanges = hear(samples);
    ASSERT_GE(vChanges.size(), 2U);
    EXPECT_GT(vChanges.front(), 1000U);
    EXPECT_LE(vChanges.front(), 1400U);
    EXPECT_GE(vChanges.back(), 1000U + words.size() / 8);
    EXPECT_EQ(vChanges.size() % 2, 0U);
    EXPECT_FALSE(m_detector.isSpeaking());
}

TEST_F(SpeechDetector, HearsNothingInSilence)
{
    EXPECT_TRUE(hear(CSamples(80000, ULAW_SILENCE)).empty());
    EXPECT_FALSE(m_detector.isSpeaking());
}

TEST_F(SpeechDetector, HearsNothingInTheNoiseOfALine)
{
    CSamples hiss = noise(80000);
    for (uint8_t& n : hiss)
        n = encodeULaw(static_cast<int16_t>((n - 128) / 4));
    EXPECT_TRUE(hear(hiss).empty());
}

TEST_F(SpeechDetector, SaysThatThereIsSpeechWhileThereIs)
{
    hear(speech());
    EXPECT_TRUE(m_detector.isSpeaking());
}
