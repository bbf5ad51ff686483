// Formats by ending: which there are, and that what is written in them is read back.
#include "AudioFormat.h"
#include "AudioReader.h"
#include "AudioWriter.h"
#include "DriverTestSupport.h"
#include "G711.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sndfile.h>

#include <algorithm>
#include <set>

using testing::UnorderedElementsAre;

namespace
{
std::vector<std::string> endings()
{
    std::istringstream stream(AUDIO_ENDINGS);
    return {std::istream_iterator<std::string>(stream), {}};
}

CSamples writtenAndReadBack(const std::string& strPath, const CSamples& samples)
{
    std::string strError;
    const auto pWriter = CAudioWriter::create(strPath, strError);
    EXPECT_TRUE(pWriter) << strPath << ": " << strError;
    // In pieces of an odd size, as recordings are written.
    for (size_t nBegin = 0; pWriter && nBegin < samples.size(); nBegin += 4097)
        EXPECT_TRUE(pWriter->write(slice(samples, nBegin, std::min(nBegin + 4097, samples.size()))));
    EXPECT_TRUE(pWriter && pWriter->close());
    CFd fd;
    struct stat status = {};
    EXPECT_TRUE(openAudioFile(strPath, O_RDONLY, fd, status, strError)) << strError;
    const auto pReader = CAudioReader::open(std::move(fd), strPath, strError);
    if (!pReader)
    {
        ADD_FAILURE() << strPath << ": " << strError;
        return {};
    }
    CSamples buffer(samples.size() + 1000);
    buffer.resize(pReader->read(buffer, strError));
    EXPECT_EQ(strError, "");
    return buffer;
}

// Negative zero has no linear form of its own.
CSamples withoutNegativeZero(CSamples samples)
{
    std::replace(samples.begin(), samples.end(), uint8_t{0x7F}, ULAW_SILENCE);
    return samples;
}
} // namespace

TEST(AudioFormat, IsByTheEndingInAnyCase)
{
    for (const std::string& strEnding : endings())
    {
        const auto format = audioFormatOf("some/folder.x/a" + strEnding);
        ASSERT_TRUE(format) << strEnding;
        std::string strUpper = strEnding;
        std::transform(strUpper.begin(), strUpper.end(), strUpper.begin(), [](char c) { return std::toupper(c); });
        ASSERT_TRUE(audioFormatOf("a" + strUpper)) << strUpper;
        EXPECT_EQ(audioFormatOf("a" + strUpper)->m_nSndFormat, format->m_nSndFormat) << strUpper;
        EXPECT_EQ(format->m_bHeaderless, (format->m_nSndFormat & SF_FORMAT_TYPEMASK) == SF_FORMAT_RAW) << strEnding;
    }
}

TEST(AudioFormat, EndingsAreListed)
{
    EXPECT_THAT(endings(), UnorderedElementsAre(".wav", ".au", ".snd", ".flac", ".ul", ".ulaw", ".raw", ".al", ".alaw",
                                                ".sln", ".pcm"));
}

TEST(AudioFormat, HasNoneForOtherEndings)
{
    for (const char* pPath : {"", "a", "wav", "a.", "a.wave", "a.wav ", "a.wav/b", "a.mp3", "awav", "a.ulaw.txt"})
        EXPECT_FALSE(audioFormatOf(pPath)) << pPath;
}

TEST(AudioFormat, EndingAloneIsNoName)
{
    for (const std::string& strEnding : endings())
        EXPECT_FALSE(audioFormatOf(strEnding)) << strEnding;
}

TEST(AudioFormat, ULawIsReadBackByteForByte)
{
    const CTempFolder folder;
    const CSamples noise = ::noise(100003);
    for (const char* pName : {"a.wav", "a.au", "a.snd", "a.ul", "a.ulaw", "a.raw", "b.WAV", "b.Ul"})
        EXPECT_EQ(writtenAndReadBack(folder.path(pName), noise), noise) << pName;
}

TEST(AudioFormat, LinearSamplesAreReadBackAsTheSameULaw)
{
    const CTempFolder folder;
    const CSamples noise = ::noise(100003);
    for (const char* pName : {"a.sln", "a.pcm", "a.flac", "b.SLN", "b.Flac"})
        EXPECT_EQ(writtenAndReadBack(folder.path(pName), noise), withoutNegativeZero(noise)) << pName;
}

TEST(AudioFormat, HeaderlessLinearSamplesAreLittleEndian)
{
    const CTempFolder folder;
    writtenAndReadBack(folder.path("a.sln"), {0x80, 0x00, ULAW_SILENCE});
    EXPECT_EQ(readBytes(folder.path("a.sln")), (CSamples{0x7C, 0x7D, 0x84, 0x82, 0x00, 0x00}));
}

TEST(AudioFormat, ALawIsReadBackAsWhatTheLawsLeave)
{
    const CTempFolder folder;
    const CSamples noise = withoutNegativeZero(::noise(100003));
    CSamples expected = noise;
    std::transform(noise.begin(), noise.end(), expected.begin(),
                   [](uint8_t sample) { return aLawToULaw()[uLawToALaw()[sample]]; });
    for (const char* pName : {"a.al", "a.alaw", "b.AL"})
        EXPECT_EQ(writtenAndReadBack(folder.path(pName), noise), expected) << pName;
}

TEST(AudioFormat, ALawIsReadBackTheSameTheSecondTime)
{
    const CTempFolder folder;
    const CSamples once = writtenAndReadBack(folder.path("a.al"), noise(5000));
    EXPECT_EQ(writtenAndReadBack(folder.path("b.al"), once), once);
}

TEST(AudioFormat, EmptyFilesOfEveryFormatCanBeRead)
{
    const CTempFolder folder;
    for (const std::string& strEnding : endings())
        EXPECT_TRUE(writtenAndReadBack(folder.path("empty" + strEnding), {}).empty()) << strEnding;
}
