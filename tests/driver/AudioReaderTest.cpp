// Audio files into memory: formats, mixing, resampling, and what is no audio.
#include "AudioReader.h"
#include "DriverTestSupport.h"
#include "G711.h"
#include "SndFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <array>
#include <cmath>
#include <random>
#include <set>

using testing::HasSubstr;

namespace
{
bool load(const std::string& strPath, CSamples& samples, std::string& strError)
{
    CFd fd;
    struct stat status = {};
    const auto pReader = openAudioFile(strPath, O_RDONLY, fd, status, strError)
                             ? CAudioReader::open(std::move(fd), strPath, strError)
                             : nullptr;
    if (!pReader)
        return false;
    // In odd pieces, of which the borders must not matter.
    std::array<uint8_t, 4999> abPiece;
    for (;;)
    {
        const size_t nCount = pReader->read(abPiece, strError);
        samples.insert(samples.end(), abPiece.begin(), abPiece.begin() + static_cast<std::ptrdiff_t>(nCount));
        if (nCount < abPiece.size())
        {
            EXPECT_LE(samples.size(), pReader->maxSamples());
            return strError.empty();
        }
    }
}

CSamples mustLoad(const std::string& strPath)
{
    CSamples samples;
    std::string strError;
    EXPECT_TRUE(load(strPath, samples, strError)) << strError;
    return samples;
}

std::string errorOf(const std::string& strPath)
{
    CSamples samples;
    std::string strError;
    EXPECT_FALSE(load(strPath, samples, strError));
    return strError;
}

std::vector<short> sine(int nRate, double dHertz, double dSeconds, double dPeak)
{
    std::vector<short> vShorts(static_cast<size_t>(nRate * dSeconds));
    for (size_t n = 0; n < vShorts.size(); ++n)
    {
        const double dPhase = 2.0 * M_PI * dHertz * static_cast<double>(n) / nRate;
        vShorts[n] = static_cast<short>(std::lrint(dPeak * std::sin(dPhase)));
    }
    return vShorts;
}

std::vector<short> interleave(const std::vector<short>& vLeft, const std::vector<short>& vRight)
{
    std::vector<short> vBoth;
    for (size_t n = 0; n < vLeft.size(); ++n)
    {
        vBoth.push_back(vLeft[n]);
        vBoth.push_back(vRight[n]);
    }
    return vBoth;
}

// The linear value of a µ-law byte, as libsndfile knows it.
std::vector<short> linear(const CTempFolder& folder, const CSamples& samples)
{
    const std::string strPath = folder.path("linear.au");
    writeULaw(strPath, SF_FORMAT_AU, samples);
    SF_INFO info = {};
    const CSndFile pFile(sf_open(strPath.c_str(), SFM_READ, &info));
    std::vector<short> vShorts(samples.size());
    EXPECT_EQ(sf_read_short(pFile.get(), vShorts.data(), static_cast<sf_count_t>(vShorts.size())),
              static_cast<sf_count_t>(samples.size()));
    return vShorts;
}

// Amplitude of one frequency in 8000 samples per second.
double toneAmplitude(const std::vector<short>& vShorts, double dHertz)
{
    double dSin = 0.0;
    double dCos = 0.0;
    for (size_t n = 0; n < vShorts.size(); ++n)
    {
        const double dPhase = 2.0 * M_PI * dHertz * static_cast<double>(n) / 8000.0;
        dSin += vShorts[n] * std::sin(dPhase);
        dCos += vShorts[n] * std::cos(dPhase);
    }
    return 2.0 * std::hypot(dSin, dCos) / static_cast<double>(vShorts.size());
}
} // namespace

TEST(AudioReader, TakesULawWavByteForByte)
{
    const CTempFolder folder;
    const CSamples noise = ::noise(70001);
    writeULaw(folder.path("a.wav"), SF_FORMAT_WAV, noise);
    EXPECT_EQ(mustLoad(folder.path("a.wav")), noise);
}

TEST(AudioReader, TakesULawAuByteForByte)
{
    const CTempFolder folder;
    const CSamples noise = ::noise(4001);
    writeULaw(folder.path("a.au"), SF_FORMAT_AU, noise);
    EXPECT_EQ(mustLoad(folder.path("a.au")), noise);
}

TEST(AudioReader, TakesHeaderlessFilesByTheirEndings)
{
    const CTempFolder folder;
    const CSamples noise = ::noise(70001);
    for (const char* pName : {"a.ul", "a.ulaw", "a.raw", "a.UL"})
    {
        writeBytes(folder.path(pName), noise);
        EXPECT_EQ(mustLoad(folder.path(pName)), noise) << pName;
    }
}

TEST(AudioReader, TakesAnEmptyHeaderlessFile)
{
    const CTempFolder folder;
    writeBytes(folder.path("a.ul"), {});
    EXPECT_TRUE(mustLoad(folder.path("a.ul")).empty());
}

TEST(AudioReader, EncodesLinearAndALawSamples)
{
    const CTempFolder folder;
    const std::vector<short> vSine = sine(8000, 440.0, 0.5, 12000.0);
    CSamples expected;
    for (const short nSample : vSine)
        expected.push_back(encodeULaw(nSample));
    writeShorts(folder.path("a.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 8000, 1, vSine);
    EXPECT_EQ(mustLoad(folder.path("a.wav")), expected);
    writeShorts(folder.path("a.flac"), SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 8000, 1, vSine);
    EXPECT_EQ(mustLoad(folder.path("a.flac")), expected);

    writeShorts(folder.path("alaw.wav"), SF_FORMAT_WAV | SF_FORMAT_ALAW, 8000, 1, vSine);
    const std::vector<short> vLinear = linear(folder, mustLoad(folder.path("alaw.wav")));
    EXPECT_EQ(vLinear.size(), vSine.size());
    EXPECT_NEAR(toneAmplitude(vLinear, 440.0), 12000.0, 200.0);
}

TEST(AudioReader, MixesStereoToMono)
{
    const CTempFolder folder;
    const std::vector<short> vLeft(100, 4000);
    const std::vector<short> vRight(100, 2000);
    writeShorts(folder.path("a.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 8000, 2, interleave(vLeft, vRight));
    EXPECT_EQ(mustLoad(folder.path("a.wav")), CSamples(100, encodeULaw(3000)));
}

TEST(AudioReader, ResamplesStereoOfAnotherRate)
{
    const CTempFolder folder;
    // One ear has what must stay, the other what 8000 samples per second cannot carry: it would come
    // out at 2000 Hz if it were not removed.
    const std::vector<short> vKept = sine(44100, 997.0, 1.5, 10000.0);
    const std::vector<short> vRemoved = sine(44100, 10000.0, 1.5, 10000.0);
    writeShorts(folder.path("a.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 2, interleave(vKept, vRemoved));
    const CSamples samples = mustLoad(folder.path("a.wav"));
    EXPECT_NEAR(static_cast<double>(samples.size()), 12000.0, 2.0);

    const std::vector<short> vLinear = linear(folder, slice(samples, 1000, 9000));
    EXPECT_NEAR(toneAmplitude(vLinear, 997.0), 5000.0, 100.0);
    EXPECT_LT(toneAmplitude(vLinear, 2000.0), 25.0);
}

TEST(AudioReader, ResamplingUpKeepsTheLength)
{
    const CTempFolder folder;
    writeShorts(folder.path("a.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 6000, 1, sine(6000, 500.0, 2.0, 9000.0));
    EXPECT_NEAR(static_cast<double>(mustLoad(folder.path("a.wav")).size()), 16000.0, 2.0);
}

TEST(AudioReader, ClipsLoudFloatSamplesAndSurvivesWhatIsNoNumber)
{
    const CTempFolder folder;
    SF_INFO info = {};
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    info.samplerate = 8000;
    info.channels = 1;
    const float afSamples[] = {3.0F, -3.0F, NAN, INFINITY, -INFINITY};
    CSndFile pFile(sf_open(folder.path("a.wav").c_str(), SFM_WRITE, &info));
    ASSERT_EQ(sf_write_float(pFile.get(), afSamples, 5), 5);
    pFile.reset();
    EXPECT_EQ(mustLoad(folder.path("a.wav")), (CSamples{0x80, 0x00, 0xFF, 0x80, 0x00}));
}

TEST(AudioReader, RefusesWhatIsNoRegularFile)
{
    const CTempFolder folder;
    ASSERT_EQ(::mkfifo(folder.path("fifo.wav").c_str(), 0600), 0);
    EXPECT_THAT(errorOf(folder.path("fifo.wav")), HasSubstr("not a regular file"));
    EXPECT_THAT(errorOf(folder.folder()), HasSubstr("not a regular file"));
    EXPECT_THAT(errorOf("/dev/zero"), HasSubstr("not a regular file"));
    EXPECT_THAT(errorOf(folder.path("none.wav")), HasSubstr("No such file"));
}

TEST(AudioReader, RefusesWhatIsNoAudio)
{
    const CTempFolder folder;
    writeBytes(folder.path("text.wav"), {'h', 'e', 'l', 'l', 'o'});
    EXPECT_FALSE(errorOf(folder.path("text.wav")).empty());
    writeBytes(folder.path("empty.wav"), {});
    EXPECT_FALSE(errorOf(folder.path("empty.wav")).empty());
}

TEST(AudioReader, RefusesAudioThatIsTooLong)
{
    const CTempFolder folder;
    writeBytes(folder.path("long.ul"), {});
    ASSERT_EQ(::truncate(folder.path("long.ul").c_str(), static_cast<off_t>(MAX_CLIP_SAMPLES) + 1), 0);
    EXPECT_THAT(errorOf(folder.path("long.ul")), HasSubstr("two hours"));
}

TEST(AudioReader, RefusesOggFilesAlsoBehindTags)
{
    const CTempFolder folder;
    const std::string strOgg = "OggS and more";
    const std::string strTag = std::string("ID3\x04\0\0\0\0\0\x03", 10) + "tag";
    std::string strTags;
    while (strTags.size() < 10000)
        strTags += strTag;
    for (const std::string& strContent : {strOgg, strTag + strOgg, strTag + strTag + strOgg, strTags})
    {
        writeBytes(folder.path("prompt.wav"), CSamples(strContent.begin(), strContent.end()));
        EXPECT_EQ(errorOf(folder.path("prompt.wav")), "Ogg files are not read");
    }
    writeBytes(folder.path("prompt.wav"), CSamples(strTag.begin(), strTag.end()));
    EXPECT_NE(errorOf(folder.path("prompt.wav")), "Ogg files are not read");
}

TEST(AudioReader, SurvivesDamagedFilesOfEveryKind)
{
    const CTempFolder folder;
    const std::vector<short> vSine = sine(16000, 440.0, 0.1, 12000.0);
    writeShorts(folder.path("0"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16000, 1, vSine);
    writeShorts(folder.path("1"), SF_FORMAT_AU | SF_FORMAT_ULAW, 8000, 1, vSine);
    writeShorts(folder.path("2"), SF_FORMAT_WAV | SF_FORMAT_ULAW, 8000, 1, vSine);
    writeShorts(folder.path("3"), SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 16000, 1, vSine);
    std::mt19937 random(7);
    for (int nRound = 0; nRound < 400; ++nRound)
    {
        CSamples bytes = readBytes(folder.path(std::to_string(nRound % 4)));
        for (int nByte = 0; nByte < 4; ++nByte)
            bytes[random() % 64] = static_cast<uint8_t>(random() >> 24);
        const size_t nKept = bytes.size() - random() % (bytes.size() / 2);
        writeBytes(folder.path("damaged"), slice(bytes, 0, nKept));
        CSamples samples;
        std::string strError;
        // Either outcome is right; when it fails it must say so.
        EXPECT_TRUE(load(folder.path("damaged"), samples, strError) || !strError.empty());
        EXPECT_LE(samples.size(), MAX_CLIP_SAMPLES);
    }
}
