// Recorded files: formats by ending, bit-exact contents, headers, and failing disks.
#include "AudioWriter.h"
#include "DriverTestSupport.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

using testing::HasSubstr;

namespace
{
std::unique_ptr<CAudioWriter> mustCreate(const std::string& strPath)
{
    std::string strError;
    auto pWriter = CAudioWriter::create(strPath, strError);
    EXPECT_TRUE(pWriter) << strError;
    return pWriter;
}

std::string errorOfCreating(const std::string& strPath)
{
    std::string strError;
    EXPECT_FALSE(CAudioWriter::create(strPath, strError));
    return strError;
}

void writeAll(const std::string& strPath, const CSamples& samples)
{
    const auto pWriter = mustCreate(strPath);
    ASSERT_TRUE(pWriter);
    EXPECT_TRUE(pWriter->write(samples));
    EXPECT_TRUE(pWriter->close());
}
} // namespace

TEST(AudioWriter, WritesTheFormatThatTheEndingNames)
{
    const CTempFolder folder;
    const CSamples noise = ::noise(12345);
    writeAll(folder.path("a.wav"), noise);
    EXPECT_EQ(readULawFile(folder.path("a.wav"), SF_FORMAT_WAV), noise);
    writeAll(folder.path("a.WAV"), noise);
    EXPECT_EQ(readULawFile(folder.path("a.WAV"), SF_FORMAT_WAV), noise);
    writeAll(folder.path("a.au"), noise);
    EXPECT_EQ(readULawFile(folder.path("a.au"), SF_FORMAT_AU), noise);
    writeAll(folder.path("a.snd"), noise);
    EXPECT_EQ(readULawFile(folder.path("a.snd"), SF_FORMAT_AU), noise);
    for (const char* pName : {"a.ul", "a.ulaw", "a.raw"})
    {
        writeAll(folder.path(pName), noise);
        EXPECT_EQ(readBytes(folder.path(pName)), noise) << pName;
    }
}

TEST(AudioWriter, RefusesOtherEndingsAndCreatesNothing)
{
    const CTempFolder folder;
    for (const char* pName : {"a.mp3", "a", "wav", ".wav.txt"})
    {
        EXPECT_THAT(errorOfCreating(folder.path(pName)), HasSubstr("ending")) << pName;
        EXPECT_NE(::access(folder.path(pName).c_str(), F_OK), 0) << pName;
    }
}

TEST(AudioWriter, LeavesAValidFileWithoutSamples)
{
    const CTempFolder folder;
    writeAll(folder.path("a.wav"), {});
    EXPECT_TRUE(readULawWav(folder.path("a.wav")).empty());
}

TEST(AudioWriter, ReplacesTheFormerContents)
{
    const CTempFolder folder;
    writeAll(folder.path("a.wav"), noise(5000));
    writeAll(folder.path("a.wav"), noise(99, 2));
    EXPECT_EQ(readULawWav(folder.path("a.wav")), noise(99, 2));
}

TEST(AudioWriter, UpdateMakesTheFileCompleteWhileItGrows)
{
    const CTempFolder folder;
    const CSamples noise = ::noise(1001);
    const auto pWriter = mustCreate(folder.path("a.wav"));
    ASSERT_TRUE(pWriter);
    EXPECT_TRUE(readULawWav(folder.path("a.wav")).empty());
    EXPECT_TRUE(pWriter->write(noise));
    EXPECT_TRUE(pWriter->update());
    EXPECT_EQ(readULawWav(folder.path("a.wav")), noise);
    EXPECT_TRUE(pWriter->write(noise));
    EXPECT_TRUE(pWriter->update());
    EXPECT_EQ(readULawWav(folder.path("a.wav")), noise + noise);
}

TEST(AudioWriter, DestructionMakesTheFileComplete)
{
    const CTempFolder folder;
    mustCreate(folder.path("a.wav"))->write(noise(333));
    EXPECT_EQ(readULawWav(folder.path("a.wav")), noise(333));
}

TEST(AudioWriter, RefusesAFileThatIsBeingWritten)
{
    const CTempFolder folder;
    auto pWriter = mustCreate(folder.path("a.wav"));
    ASSERT_TRUE(pWriter);
    EXPECT_TRUE(pWriter->write(noise(50)));
    EXPECT_THAT(errorOfCreating(folder.path("a.wav")), HasSubstr("being written"));
    pWriter.reset();
    EXPECT_EQ(readULawWav(folder.path("a.wav")), noise(50));
    EXPECT_TRUE(mustCreate(folder.path("a.wav")));
}

TEST(AudioWriter, RefusesWhatIsNoRegularFile)
{
    const CTempFolder folder;
    ASSERT_EQ(::mkfifo(folder.path("fifo.wav").c_str(), 0600), 0);
    EXPECT_THAT(errorOfCreating(folder.path("fifo.wav")), HasSubstr("not a regular file"));
    ASSERT_EQ(::mkdir(folder.path("folder.wav").c_str(), 0700), 0);
    EXPECT_THAT(errorOfCreating(folder.path("folder.wav")), HasSubstr("directory"));
    EXPECT_THAT(errorOfCreating(folder.path("none/a.wav")), HasSubstr("No such file"));
}

TEST(AudioWriter, ReportsAFullDiskAndKeepsWhatGotThrough)
{
    const CTempFolder folder;
    const CSamples noise = ::noise(1000);
    {
        const auto pWriter = mustCreate(folder.path("a.wav"));
        ASSERT_TRUE(pWriter);
        const CFileSizeLimit limit(1500);
        EXPECT_TRUE(pWriter->write(noise));
        EXPECT_FALSE(pWriter->write(noise));
    }
    const CSamples kept = readULawWav(folder.path("a.wav"));
    ASSERT_GE(kept.size(), 1000U);
    EXPECT_EQ(slice(kept, 0, 1000), noise);
}
