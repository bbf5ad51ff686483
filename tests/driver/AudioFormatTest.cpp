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
std::vector<std::string> Endings()
{
    std::istringstream stream(AUDIO_ENDINGS);
    return {std::istream_iterator<std::string>(stream), {}};
}

CSamples WrittenAndReadBack(const std::string& strPath, const CSamples& samples)
{
    std::string strError;
    const auto pWriter = CAudioWriter::Create(strPath, strError);
    EXPECT_TRUE(pWriter) << strPath << ": " << strError;
    // In pieces of an odd size, as recordings are written.
    for (std::size_t nBegin = 0; pWriter && nBegin < samples.size(); nBegin += 4097)
    {
        EXPECT_TRUE(pWriter->Write(Slice(samples, nBegin, std::min(nBegin + 4097, samples.size()))));
    }
    EXPECT_TRUE(pWriter && pWriter->Close());
    CFd fd;
    struct stat status = {};
    EXPECT_TRUE(OpenAudioFile(strPath, O_RDONLY, fd, status, strError)) << strError;
    const auto pReader = CAudioReader::Open(std::move(fd), strPath, strError);
    if (!pReader)
    {
        ADD_FAILURE() << strPath << ": " << strError;
        return {};
    }
    CSamples buffer(samples.size() + 1000);
    buffer.resize(pReader->Read(buffer, strError));
    EXPECT_EQ(strError, "");
    return buffer;
}

// Negative zero has no linear form of its own.
CSamples WithoutNegativeZero(CSamples samples)
{
    std::replace(samples.begin(), samples.end(), std::uint8_t{0x7F}, ULAW_SILENCE);
    return samples;
}
} // namespace

TEST(AudioFormat, IsByTheEndingInAnyCase)
{
    for (const std::string& strEnding : Endings())
    {
        const auto format = AudioFormatOf("some/folder.x/a" + strEnding);
        ASSERT_TRUE(format) << strEnding;
        std::string strUpper = strEnding;
        std::transform(strUpper.begin(), strUpper.end(), strUpper.begin(), [](char c) { return std::toupper(c); });
        ASSERT_TRUE(AudioFormatOf("a" + strUpper)) << strUpper;
        EXPECT_EQ(AudioFormatOf("a" + strUpper)->m_nSndFormat, format->m_nSndFormat) << strUpper;
        EXPECT_EQ(format->m_bHeaderless, (format->m_nSndFormat & SF_FORMAT_TYPEMASK) == SF_FORMAT_RAW) << strEnding;
    }
}

TEST(AudioFormat, EndingsAreListed)
{
    EXPECT_THAT(Endings(), UnorderedElementsAre(".wav", ".au", ".snd", ".flac", ".ul", ".ulaw", ".raw", ".al", ".alaw",
                                                ".sln", ".pcm"));
}

TEST(AudioFormat, HasNoneForOtherEndings)
{
    for (const char* pPath : {"", "a", "wav", "a.", "a.wave", "a.wav ", "a.wav/b", "a.mp3", "awav", "a.ulaw.txt"})
    {
        EXPECT_FALSE(AudioFormatOf(pPath)) << pPath;
    }
}

TEST(AudioFormat, EndingAloneIsNoName)
{
    for (const std::string& strEnding : Endings())
    {
        EXPECT_FALSE(AudioFormatOf(strEnding)) << strEnding;
    }
}

TEST(AudioFormat, ULawIsReadBackByteForByte)
{
    const CTempFolder folder;
    const CSamples noise = Noise(100003);
    for (const char* pName : {"a.wav", "a.au", "a.snd", "a.ul", "a.ulaw", "a.raw", "b.WAV", "b.Ul"})
    {
        EXPECT_EQ(WrittenAndReadBack(folder.Path(pName), noise), noise) << pName;
    }
}

TEST(AudioFormat, LinearSamplesAreReadBackAsTheSameULaw)
{
    const CTempFolder folder;
    const CSamples noise = Noise(100003);
    for (const char* pName : {"a.sln", "a.pcm", "a.flac", "b.SLN", "b.Flac"})
    {
        EXPECT_EQ(WrittenAndReadBack(folder.Path(pName), noise), WithoutNegativeZero(noise)) << pName;
    }
}

TEST(AudioFormat, HeaderlessLinearSamplesAreLittleEndian)
{
    const CTempFolder folder;
    WrittenAndReadBack(folder.Path("a.sln"), {0x80, 0x00, ULAW_SILENCE});
    EXPECT_EQ(ReadBytes(folder.Path("a.sln")), (CSamples{0x7C, 0x7D, 0x84, 0x82, 0x00, 0x00}));
}

TEST(AudioFormat, ALawIsReadBackAsWhatTheLawsLeave)
{
    const CTempFolder folder;
    const CSamples noise = WithoutNegativeZero(Noise(100003));
    CSamples expected = noise;
    std::transform(noise.begin(), noise.end(), expected.begin(),
                   [](std::uint8_t sample) { return ALawToULaw()[ULawToALaw()[sample]]; });
    for (const char* pName : {"a.al", "a.alaw", "b.AL"})
    {
        EXPECT_EQ(WrittenAndReadBack(folder.Path(pName), noise), expected) << pName;
    }
}

TEST(AudioFormat, ALawIsReadBackTheSameTheSecondTime)
{
    const CTempFolder folder;
    const CSamples once = WrittenAndReadBack(folder.Path("a.al"), Noise(5000));
    EXPECT_EQ(WrittenAndReadBack(folder.Path("b.al"), once), once);
}

TEST(AudioFormat, EmptyFilesOfEveryFormatCanBeRead)
{
    const CTempFolder folder;
    for (const std::string& strEnding : Endings())
    {
        EXPECT_TRUE(WrittenAndReadBack(folder.Path("empty" + strEnding), {}).empty()) << strEnding;
    }
}
