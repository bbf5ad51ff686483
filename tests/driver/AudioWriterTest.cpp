// Recorded files: formats by ending, bit-exact contents, headers, and failing disks.
#include "AudioWriter.h"
#include "DriverTestSupport.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

using testing::HasSubstr;

namespace
{
std::unique_ptr<CAudioWriter> MustCreate(const std::string& strPath)
{
    std::string strError;
    auto pWriter = CAudioWriter::Create(strPath, strError);
    EXPECT_TRUE(pWriter) << strError;
    return pWriter;
}

std::string ErrorOfCreating(const std::string& strPath)
{
    std::string strError;
    EXPECT_FALSE(CAudioWriter::Create(strPath, strError));
    return strError;
}

void WriteAll(const std::string& strPath, const CSamples& samples)
{
    const auto pWriter = MustCreate(strPath);
    ASSERT_TRUE(pWriter);
    EXPECT_TRUE(pWriter->Write(samples));
    EXPECT_TRUE(pWriter->Close());
}
} // namespace

TEST(AudioWriter, WritesTheFormatThatTheEndingNames)
{
    const CTempFolder folder;
    const CSamples noise = Noise(12345);
    WriteAll(folder.Path("a.wav"), noise);
    EXPECT_EQ(ReadULawFile(folder.Path("a.wav"), SF_FORMAT_WAV), noise);
    WriteAll(folder.Path("a.WAV"), noise);
    EXPECT_EQ(ReadULawFile(folder.Path("a.WAV"), SF_FORMAT_WAV), noise);
    WriteAll(folder.Path("a.au"), noise);
    EXPECT_EQ(ReadULawFile(folder.Path("a.au"), SF_FORMAT_AU), noise);
    WriteAll(folder.Path("a.snd"), noise);
    EXPECT_EQ(ReadULawFile(folder.Path("a.snd"), SF_FORMAT_AU), noise);
    for (const char* pName : {"a.ul", "a.ulaw", "a.raw"})
    {
        WriteAll(folder.Path(pName), noise);
        EXPECT_EQ(ReadBytes(folder.Path(pName)), noise) << pName;
    }
}

TEST(AudioWriter, RefusesOtherEndingsAndCreatesNothing)
{
    const CTempFolder folder;
    for (const char* pName : {"a.mp3", "a", "wav", ".wav.txt"})
    {
        EXPECT_THAT(ErrorOfCreating(folder.Path(pName)), HasSubstr("ending")) << pName;
        EXPECT_NE(::access(folder.Path(pName).c_str(), F_OK), 0) << pName;
    }
}

TEST(AudioWriter, LeavesAValidFileWithoutSamples)
{
    const CTempFolder folder;
    WriteAll(folder.Path("a.wav"), {});
    EXPECT_TRUE(ReadULawWav(folder.Path("a.wav")).empty());
}

TEST(AudioWriter, ReplacesTheFormerContents)
{
    const CTempFolder folder;
    WriteAll(folder.Path("a.wav"), Noise(5000));
    WriteAll(folder.Path("a.wav"), Noise(99, 2));
    EXPECT_EQ(ReadULawWav(folder.Path("a.wav")), Noise(99, 2));
}

TEST(AudioWriter, UpdateMakesTheFileCompleteWhileItGrows)
{
    const CTempFolder folder;
    const CSamples noise = Noise(1001);
    const auto pWriter = MustCreate(folder.Path("a.wav"));
    ASSERT_TRUE(pWriter);
    EXPECT_TRUE(ReadULawWav(folder.Path("a.wav")).empty());
    EXPECT_TRUE(pWriter->Write(noise));
    EXPECT_TRUE(pWriter->Update());
    EXPECT_EQ(ReadULawWav(folder.Path("a.wav")), noise);
    EXPECT_TRUE(pWriter->Write(noise));
    EXPECT_TRUE(pWriter->Update());
    EXPECT_EQ(ReadULawWav(folder.Path("a.wav")), noise + noise);
}

TEST(AudioWriter, DestructionMakesTheFileComplete)
{
    const CTempFolder folder;
    MustCreate(folder.Path("a.wav"))->Write(Noise(333));
    EXPECT_EQ(ReadULawWav(folder.Path("a.wav")), Noise(333));
}

TEST(AudioWriter, RefusesAFileThatIsBeingWritten)
{
    const CTempFolder folder;
    auto pWriter = MustCreate(folder.Path("a.wav"));
    ASSERT_TRUE(pWriter);
    EXPECT_TRUE(pWriter->Write(Noise(50)));
    EXPECT_THAT(ErrorOfCreating(folder.Path("a.wav")), HasSubstr("being written"));
    pWriter.reset();
    EXPECT_EQ(ReadULawWav(folder.Path("a.wav")), Noise(50));
    EXPECT_TRUE(MustCreate(folder.Path("a.wav")));
}

TEST(AudioWriter, RefusesWhatIsNoRegularFile)
{
    const CTempFolder folder;
    ASSERT_EQ(::mkfifo(folder.Path("fifo.wav").c_str(), 0600), 0);
    EXPECT_THAT(ErrorOfCreating(folder.Path("fifo.wav")), HasSubstr("not a regular file"));
    ASSERT_EQ(::mkdir(folder.Path("folder.wav").c_str(), 0700), 0);
    EXPECT_THAT(ErrorOfCreating(folder.Path("folder.wav")), HasSubstr("directory"));
    EXPECT_THAT(ErrorOfCreating(folder.Path("none/a.wav")), HasSubstr("No such file"));
}

TEST(AudioWriter, ReportsAFullDiskAndKeepsWhatGotThrough)
{
    const CTempFolder folder;
    const CSamples noise = Noise(1000);
    {
        const auto pWriter = MustCreate(folder.Path("a.wav"));
        ASSERT_TRUE(pWriter);
        const CFileSizeLimit limit(1500);
        EXPECT_TRUE(pWriter->Write(noise));
        EXPECT_FALSE(pWriter->Write(noise));
    }
    const CSamples kept = ReadULawWav(folder.Path("a.wav"));
    ASSERT_GE(kept.size(), 1000U);
    EXPECT_EQ(Slice(kept, 0, 1000), noise);
}
