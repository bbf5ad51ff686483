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
bool Load(const std::string& strPath, CSamples& samples, std::string& strError)
{
    CFd fd;
    struct stat status = {};
    const auto pReader = OpenAudioFile(strPath, O_RDONLY, fd, status, strError)
                             ? CAudioReader::Open(std::move(fd), strPath, strError)
                             : nullptr;
    if (!pReader)
    {
        return false;
    }
    // In odd pieces, of which the borders must not matter.
    std::array<std::uint8_t, 4999> abPiece;
    for (;;)
    {
        const std::size_t nCount = pReader->Read(abPiece, strError);
        samples.insert(samples.end(), abPiece.begin(), abPiece.begin() + static_cast<std::ptrdiff_t>(nCount));
        if (nCount < abPiece.size())
        {
            EXPECT_LE(samples.size(), pReader->MaxSamples());
            return strError.empty();
        }
    }
}

CSamples MustLoad(const std::string& strPath)
{
    CSamples samples;
    std::string strError;
    EXPECT_TRUE(Load(strPath, samples, strError)) << strError;
    return samples;
}

std::string ErrorOf(const std::string& strPath)
{
    CSamples samples;
    std::string strError;
    EXPECT_FALSE(Load(strPath, samples, strError));
    return strError;
}

std::vector<short> Sine(int nRate, double dHertz, double dSeconds, double dPeak)
{
    std::vector<short> vShorts(static_cast<std::size_t>(nRate * dSeconds));
    for (std::size_t n = 0; n < vShorts.size(); ++n)
    {
        const double dPhase = 2.0 * M_PI * dHertz * static_cast<double>(n) / nRate;
        vShorts[n] = static_cast<short>(std::lrint(dPeak * std::sin(dPhase)));
    }
    return vShorts;
}

std::vector<short> Interleave(const std::vector<short>& vLeft, const std::vector<short>& vRight)
{
    std::vector<short> vBoth;
    for (std::size_t n = 0; n < vLeft.size(); ++n)
    {
        vBoth.push_back(vLeft[n]);
        vBoth.push_back(vRight[n]);
    }
    return vBoth;
}

// The linear value of a µ-law byte, as libsndfile knows it.
std::vector<short> Linear(const CTempFolder& folder, const CSamples& samples)
{
    const std::string strPath = folder.Path("linear.au");
    WriteULaw(strPath, SF_FORMAT_AU, samples);
    SF_INFO info = {};
    const CSndFile pFile(sf_open(strPath.c_str(), SFM_READ, &info));
    std::vector<short> vShorts(samples.size());
    EXPECT_EQ(sf_read_short(pFile.get(), vShorts.data(), static_cast<sf_count_t>(vShorts.size())),
              static_cast<sf_count_t>(samples.size()));
    return vShorts;
}

// Amplitude of one frequency in 8000 samples per second.
double ToneAmplitude(const std::vector<short>& vShorts, double dHertz)
{
    double dSin = 0.0;
    double dCos = 0.0;
    for (std::size_t n = 0; n < vShorts.size(); ++n)
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
    const CSamples noise = Noise(70001);
    WriteULaw(folder.Path("a.wav"), SF_FORMAT_WAV, noise);
    EXPECT_EQ(MustLoad(folder.Path("a.wav")), noise);
}

TEST(AudioReader, TakesULawAuByteForByte)
{
    const CTempFolder folder;
    const CSamples noise = Noise(4001);
    WriteULaw(folder.Path("a.au"), SF_FORMAT_AU, noise);
    EXPECT_EQ(MustLoad(folder.Path("a.au")), noise);
}

TEST(AudioReader, TakesHeaderlessFilesByTheirEndings)
{
    const CTempFolder folder;
    const CSamples noise = Noise(70001);
    for (const char* pName : {"a.ul", "a.ulaw", "a.raw", "a.UL"})
    {
        WriteBytes(folder.Path(pName), noise);
        EXPECT_EQ(MustLoad(folder.Path(pName)), noise) << pName;
    }
}

TEST(AudioReader, TakesAnEmptyHeaderlessFile)
{
    const CTempFolder folder;
    WriteBytes(folder.Path("a.ul"), {});
    EXPECT_TRUE(MustLoad(folder.Path("a.ul")).empty());
}

TEST(AudioReader, EncodesLinearAndALawSamples)
{
    const CTempFolder folder;
    const std::vector<short> vSine = Sine(8000, 440.0, 0.5, 12000.0);
    CSamples expected;
    for (const short nSample : vSine)
    {
        expected.push_back(EncodeULaw(nSample));
    }
    WriteShorts(folder.Path("a.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 8000, 1, vSine);
    EXPECT_EQ(MustLoad(folder.Path("a.wav")), expected);
    WriteShorts(folder.Path("a.flac"), SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 8000, 1, vSine);
    EXPECT_EQ(MustLoad(folder.Path("a.flac")), expected);

    WriteShorts(folder.Path("alaw.wav"), SF_FORMAT_WAV | SF_FORMAT_ALAW, 8000, 1, vSine);
    const std::vector<short> vLinear = Linear(folder, MustLoad(folder.Path("alaw.wav")));
    EXPECT_EQ(vLinear.size(), vSine.size());
    EXPECT_NEAR(ToneAmplitude(vLinear, 440.0), 12000.0, 200.0);
}

TEST(AudioReader, MixesStereoToMono)
{
    const CTempFolder folder;
    const std::vector<short> vLeft(100, 4000);
    const std::vector<short> vRight(100, 2000);
    WriteShorts(folder.Path("a.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 8000, 2, Interleave(vLeft, vRight));
    EXPECT_EQ(MustLoad(folder.Path("a.wav")), CSamples(100, EncodeULaw(3000)));
}

TEST(AudioReader, ResamplesStereoOfAnotherRate)
{
    const CTempFolder folder;
    // One ear has what must stay, the other what 8000 samples per second cannot carry: it would come
    // out at 2000 Hz if it were not removed.
    const std::vector<short> vKept = Sine(44100, 997.0, 1.5, 10000.0);
    const std::vector<short> vRemoved = Sine(44100, 10000.0, 1.5, 10000.0);
    WriteShorts(folder.Path("a.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 2, Interleave(vKept, vRemoved));
    const CSamples samples = MustLoad(folder.Path("a.wav"));
    EXPECT_NEAR(static_cast<double>(samples.size()), 12000.0, 2.0);

    const std::vector<short> vLinear = Linear(folder, Slice(samples, 1000, 9000));
    EXPECT_NEAR(ToneAmplitude(vLinear, 997.0), 5000.0, 100.0);
    EXPECT_LT(ToneAmplitude(vLinear, 2000.0), 25.0);
}

TEST(AudioReader, ResamplingUpKeepsTheLength)
{
    const CTempFolder folder;
    WriteShorts(folder.Path("a.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 6000, 1, Sine(6000, 500.0, 2.0, 9000.0));
    EXPECT_NEAR(static_cast<double>(MustLoad(folder.Path("a.wav")).size()), 16000.0, 2.0);
}

TEST(AudioReader, ClipsLoudFloatSamplesAndSurvivesWhatIsNoNumber)
{
    const CTempFolder folder;
    SF_INFO info = {};
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    info.samplerate = 8000;
    info.channels = 1;
    const float afSamples[] = {3.0F, -3.0F, NAN, INFINITY, -INFINITY};
    CSndFile pFile(sf_open(folder.Path("a.wav").c_str(), SFM_WRITE, &info));
    ASSERT_EQ(sf_write_float(pFile.get(), afSamples, 5), 5);
    pFile.reset();
    EXPECT_EQ(MustLoad(folder.Path("a.wav")), (CSamples{0x80, 0x00, 0xFF, 0x80, 0x00}));
}

TEST(AudioReader, RefusesWhatIsNoRegularFile)
{
    const CTempFolder folder;
    ASSERT_EQ(::mkfifo(folder.Path("fifo.wav").c_str(), 0600), 0);
    EXPECT_THAT(ErrorOf(folder.Path("fifo.wav")), HasSubstr("not a regular file"));
    EXPECT_THAT(ErrorOf(folder.Folder()), HasSubstr("not a regular file"));
    EXPECT_THAT(ErrorOf("/dev/zero"), HasSubstr("not a regular file"));
    EXPECT_THAT(ErrorOf(folder.Path("none.wav")), HasSubstr("No such file"));
}

TEST(AudioReader, RefusesWhatIsNoAudio)
{
    const CTempFolder folder;
    WriteBytes(folder.Path("text.wav"), {'h', 'e', 'l', 'l', 'o'});
    EXPECT_FALSE(ErrorOf(folder.Path("text.wav")).empty());
    WriteBytes(folder.Path("empty.wav"), {});
    EXPECT_FALSE(ErrorOf(folder.Path("empty.wav")).empty());
}

TEST(AudioReader, RefusesAudioThatIsTooLong)
{
    const CTempFolder folder;
    WriteBytes(folder.Path("long.ul"), {});
    ASSERT_EQ(::truncate(folder.Path("long.ul").c_str(), static_cast<off_t>(MAX_CLIP_SAMPLES) + 1), 0);
    EXPECT_THAT(ErrorOf(folder.Path("long.ul")), HasSubstr("two hours"));
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
        WriteBytes(folder.Path("prompt.wav"), CSamples(strContent.begin(), strContent.end()));
        EXPECT_EQ(ErrorOf(folder.Path("prompt.wav")), "Ogg files are not read");
    }
    WriteBytes(folder.Path("prompt.wav"), CSamples(strTag.begin(), strTag.end()));
    EXPECT_NE(ErrorOf(folder.Path("prompt.wav")), "Ogg files are not read");
}

TEST(AudioReader, SurvivesDamagedFilesOfEveryKind)
{
    const CTempFolder folder;
    const std::vector<short> vSine = Sine(16000, 440.0, 0.1, 12000.0);
    WriteShorts(folder.Path("0"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16000, 1, vSine);
    WriteShorts(folder.Path("1"), SF_FORMAT_AU | SF_FORMAT_ULAW, 8000, 1, vSine);
    WriteShorts(folder.Path("2"), SF_FORMAT_WAV | SF_FORMAT_ULAW, 8000, 1, vSine);
    WriteShorts(folder.Path("3"), SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 16000, 1, vSine);
    std::mt19937 random(7);
    for (int nRound = 0; nRound < 400; ++nRound)
    {
        CSamples bytes = ReadBytes(folder.Path(std::to_string(nRound % 4)));
        for (int nByte = 0; nByte < 4; ++nByte)
        {
            bytes[random() % 64] = static_cast<std::uint8_t>(random() >> 24);
        }
        const std::size_t nKept = bytes.size() - random() % (bytes.size() / 2);
        WriteBytes(folder.Path("damaged"), Slice(bytes, 0, nKept));
        CSamples samples;
        std::string strError;
        // Either outcome is right; when it fails it must say so.
        EXPECT_TRUE(Load(folder.Path("damaged"), samples, strError) || !strError.empty());
        EXPECT_LE(samples.size(), MAX_CLIP_SAMPLES);
    }
}
