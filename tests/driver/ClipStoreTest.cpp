// Clips in memory: shared while held, renewed when the file has changed, played before they are decoded.
#include "ClipStore.h"
#include "DriverTestSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
class ClipStore : public testing::Test
{
protected:
    CClipPtr load(const std::string& strPath)
    {
        CClipPtr pLoaded;
        m_store.load(strPath, 0, [&](CClipPtr pClip, const std::string& strError) {
            pLoaded = std::move(pClip);
            m_strError = strError;
        });
        return pLoaded;
    }

    static CSamples samplesOf(const CClip& clip) { return {clip.samples(), clip.samples() + clip.ready()}; }

    CTempFolder m_folder;
    CLogCapture m_log;
    CInlineExecutor m_inline;
    CClipStore m_store{m_inline};
    std::string m_strError;
};

// Loads only as far as the test lets it.
class SlowClipStore : public testing::Test
{
protected:
    // Notes the name when the clip, or the refusal, is there.
    void load(const std::string& strName, size_t nPosition = 0)
    {
        m_store.load(
            m_folder.path(strName), nPosition,
            [this, strName](CClipPtr pClip, const std::string& strError) {
                m_vDone.push_back(pClip ? strName : strError);
                m_vClips.push_back(std::move(pClip));
            });
    }

    CTempFolder m_folder;
    CLogCapture m_log;
    CManualExecutor m_executor;
    CClipStore m_store{m_executor};
    std::vector<std::string> m_vDone;
    std::vector<CClipPtr> m_vClips;
};
} // namespace

TEST_F(ClipStore, SharesAFileAmongAllWhoHoldIt)
{
    writeULaw(m_folder.path("a.wav"), SF_FORMAT_WAV, noise(100));
    const CClipPtr pFirst = load(m_folder.path("a.wav"));
    ASSERT_TRUE(pFirst);
    EXPECT_EQ(load(m_folder.path("a.wav")), pFirst);
    EXPECT_EQ(samplesOf(*pFirst), noise(100));
    EXPECT_EQ(m_store.count(), 1U);
    EXPECT_EQ(m_store.samples(), 100U);
}

TEST_F(ClipStore, ReleasesAFileWithItsLastHolder)
{
    writeULaw(m_folder.path("a.wav"), SF_FORMAT_WAV, noise(100));
    CClipPtr pClip = load(m_folder.path("a.wav"));
    const std::weak_ptr<const CClip> pWatch = pClip;
    pClip.reset();
    EXPECT_TRUE(pWatch.expired());
    EXPECT_EQ(m_store.count(), 0U);
}

TEST_F(ClipStore, DecodesAChangedFileAnewWhileTheFormerIsHeld)
{
    writeULaw(m_folder.path("a.wav"), SF_FORMAT_WAV, noise(100));
    const CClipPtr pFormer = load(m_folder.path("a.wav"));
    ASSERT_TRUE(pFormer);
    writeULaw(m_folder.path("a.wav"), SF_FORMAT_WAV, noise(200, 2));
    const CClipPtr pNew = load(m_folder.path("a.wav"));
    ASSERT_TRUE(pNew);
    EXPECT_EQ(samplesOf(*pNew), noise(200, 2));
    EXPECT_EQ(samplesOf(*pFormer), noise(100));
}

TEST_F(ClipStore, SaysWhyAFileCannotBeLoaded)
{
    EXPECT_FALSE(load(m_folder.path("none.wav")));
    EXPECT_THAT(m_strError, HasSubstr("none.wav\" cannot be opened: No such file"));
    writeBytes(m_folder.path("text.wav"), {'h', 'e', 'l', 'l', 'o'});
    EXPECT_FALSE(load(m_folder.path("text.wav")));
    EXPECT_THAT(m_strError, HasSubstr("text.wav\" is no audio file that can be read"));
}

TEST_F(ClipStore, DecodesAFileOnceWhateverItsNames)
{
    std::filesystem::create_directory(m_folder.path("sub"));
    writeULaw(m_folder.path("a.wav"), SF_FORMAT_WAV, noise(8000));
    std::filesystem::create_symlink("a.wav", m_folder.path("link.wav"));
    std::filesystem::create_symlink(m_folder.folder(), m_folder.path("sub/folder"));
    std::filesystem::create_hard_link(m_folder.path("a.wav"), m_folder.path("second.wav"));
    std::vector<CClipPtr> vClips;
    for (const char* pName : {"a.wav", "link.wav", "second.wav", "sub/folder/a.wav", "sub/folder/link.wav"})
        vClips.push_back(load(m_folder.path(pName)));
    std::string strDetour = m_folder.folder();
    for (int n = 0; n < 200; ++n)
    {
        strDetour += n % 2 == 0 ? "/." : "//sub/..";
        vClips.push_back(load(strDetour + "/a.wav"));
    }
    for (const CClipPtr& pClip : vClips)
        ASSERT_EQ(pClip, vClips[0]);
    EXPECT_EQ(m_store.count(), 1U);
    EXPECT_EQ(m_store.bytes(), 8000U);
}

TEST_F(ClipStore, DecodesOneFileTwiceWhenItsEndingsMeanDifferentFormats)
{
    writeBytes(m_folder.path("a.ul"), noise(500));
    std::filesystem::create_hard_link(m_folder.path("a.ul"), m_folder.path("a.al"));
    const CClipPtr pULaw = load(m_folder.path("a.ul"));
    const CClipPtr pALaw = load(m_folder.path("a.al"));
    ASSERT_TRUE(pULaw && pALaw);
    EXPECT_EQ(samplesOf(*pULaw), noise(500));
    EXPECT_NE(samplesOf(*pALaw), noise(500));
}

TEST_F(ClipStore, KnowsAFileOfTheSameSizeByItsTime)
{
    const std::string strPath = m_folder.path("a.ul");
    const auto writeAt = [&strPath](unsigned nSeed, timespec time) {
        writeBytes(strPath, noise(100, nSeed));
        const timespec times[] = {time, time};
        ASSERT_EQ(::utimensat(AT_FDCWD, strPath.c_str(), times, 0), 0);
    };
    writeAt(1, {1000, 5});
    const CClipPtr pFirst = load(strPath);
    writeAt(2, {1000, 6});
    const CClipPtr pSecond = load(strPath);
    writeAt(3, {1001, 6});
    const CClipPtr pThird = load(strPath);
    EXPECT_EQ(samplesOf(*pFirst), noise(100, 1));
    EXPECT_EQ(samplesOf(*pSecond), noise(100, 2)) << "a nanosecond later";
    EXPECT_EQ(samplesOf(*pThird), noise(100, 3)) << "a second later";
    EXPECT_EQ(m_store.count(), 3U) << "all are held";
}

TEST_F(ClipStore, RefusesWhatWouldTakeTooMuchMemoryUntilThereIsSomeAgain)
{
    CClipStore store(m_inline, 1000);
    const auto load = [&](const char* pName) {
        CClipPtr pLoaded;
        store.load(m_folder.path(pName), 0, [&](CClipPtr pClip, const std::string& strError) {
            pLoaded = std::move(pClip);
            m_strError = strError;
        });
        return pLoaded;
    };
    writeBytes(m_folder.path("a.ul"), noise(600));
    writeBytes(m_folder.path("b.ul"), noise(401));
    writeBytes(m_folder.path("c.ul"), noise(400));
    CClipPtr pFirst = load("a.ul");
    ASSERT_TRUE(pFirst);
    EXPECT_EQ(store.bytes(), 600U);
    EXPECT_FALSE(load("b.ul"));
    EXPECT_THAT(m_strError, HasSubstr("b.ul\" cannot be opened: all files in memory would take more than 1000 bytes"));
    EXPECT_TRUE(load("c.ul"));
    pFirst.reset();
    EXPECT_EQ(store.bytes(), 0U);
    EXPECT_TRUE(load("b.ul")) << m_strError;
}

TEST_F(ClipStore, CountsWhatIsHeldOfAFormerVersion)
{
    writeBytes(m_folder.path("a.ul"), noise(100));
    const CClipPtr pFormer = load(m_folder.path("a.ul"));
    writeBytes(m_folder.path("a.ul"), noise(250));
    const CClipPtr pNew = load(m_folder.path("a.ul"));
    EXPECT_EQ(m_store.bytes(), 350U);
    EXPECT_EQ(m_store.count(), 2U);
}

TEST_F(SlowClipStore, CountsTheWholeLengthWhileItDecodes)
{
    writeULaw(m_folder.path("long.wav"), SF_FORMAT_WAV, noise(200000));
    load("long.wav");
    m_executor.runOne();
    EXPECT_EQ(m_store.bytes(), 200000U);
    m_executor.runAll();
    EXPECT_EQ(m_store.bytes(), 200000U);
    m_vClips.clear();
    EXPECT_EQ(m_store.bytes(), 0U);
}

TEST_F(SlowClipStore, GivesBackAtOnceWhatADamagedFileOnlyPromised)
{
    writeDamagedFlac(m_folder.path("damaged.flac"));
    load("damaged.flac");
    m_executor.runAll();
    ASSERT_TRUE(m_vClips[0]);
    EXPECT_EQ(m_store.bytes(), m_vClips[0]->ready());
    EXPECT_LT(m_store.bytes(), 200000U);
    m_vClips.clear();
    EXPECT_EQ(m_store.bytes(), 0U);
}

TEST_F(ClipStore, NeedNotFindAFileThatMayBeMissing)
{
    const auto load = [this](const std::string& strPath) {
        std::string strResult = "not answered";
        m_store.loadIfThere(strPath, 0, [&](const CClipPtr& pClip, const std::string& strError) {
            strResult = pClip ? "there" : strError;
        });
        return strResult;
    };
    writeBytes(m_folder.path("a.ul"), noise(100));
    writeBytes(m_folder.path("text.wav"), {'h'});
    EXPECT_EQ(load(m_folder.path("a.ul")), "there");
    EXPECT_EQ(load(m_folder.path("none.ul")), "");
    EXPECT_EQ(load(m_folder.path("none/a.ul")), "");
    EXPECT_THAT(load(m_folder.path("text.wav")), HasSubstr("no audio file"));
    EXPECT_THAT(load(m_folder.folder()), HasSubstr("not a regular file"));
}

TEST_F(SlowClipStore, GivesALongFileOutBeforeAllOfItIsDecoded)
{
    writeULaw(m_folder.path("long.wav"), SF_FORMAT_WAV, noise(200000));
    load("long.wav");
    m_executor.runOne(); // the header
    EXPECT_THAT(m_vDone, IsEmpty());
    m_executor.runOne(); // the first piece
    ASSERT_THAT(m_vDone, ElementsAre("long.wav"));
    EXPECT_FALSE(m_vClips[0]->isDecoded());
    EXPECT_LT(m_vClips[0]->ready(), 200000U);
    m_executor.runAll();
    EXPECT_TRUE(m_vClips[0]->isDecoded());
    EXPECT_EQ(CSamples(m_vClips[0]->samples(), m_vClips[0]->samples() + m_vClips[0]->ready()), noise(200000));
}

TEST_F(SlowClipStore, LetsAShortFileOvertakeALongOne)
{
    writeULaw(m_folder.path("long.wav"), SF_FORMAT_WAV, noise(1000000));
    writeULaw(m_folder.path("short.wav"), SF_FORMAT_WAV, noise(100));
    load("long.wav", 900000);
    load("short.wav");
    m_executor.runAll();
    EXPECT_THAT(m_vDone, ElementsAre("short.wav", "long.wav"));
}

TEST_F(SlowClipStore, WaitsUntilOneSecondFromThePositionIsDecoded)
{
    writeULaw(m_folder.path("long.wav"), SF_FORMAT_WAV, noise(400000));
    load("long.wav", 100000);
    while (m_vDone.empty() && m_executor.runOne())
    {
    }
    ASSERT_THAT(m_vDone, ElementsAre("long.wav"));
    EXPECT_GE(m_vClips[0]->ready(), 108000U);
    EXPECT_FALSE(m_vClips[0]->isDecoded());
}

TEST_F(SlowClipStore, DecodesAFileOnceForAllWhoAskMeanwhile)
{
    writeULaw(m_folder.path("long.wav"), SF_FORMAT_WAV, noise(200000));
    load("long.wav");
    load("long.wav");
    m_executor.runOne();
    load("long.wav", 199000);
    m_executor.runAll();
    ASSERT_EQ(m_vClips.size(), 3U);
    EXPECT_EQ(m_vClips[0], m_vClips[1]);
    EXPECT_EQ(m_vClips[0], m_vClips[2]);
    EXPECT_EQ(m_store.count(), 1U);
}

TEST_F(SlowClipStore, StopsDecodingWhatNobodyHoldsAnyMore)
{
    writeULaw(m_folder.path("long.wav"), SF_FORMAT_WAV, noise(10000000));
    load("long.wav");
    m_executor.runOne();
    m_executor.runOne();
    ASSERT_EQ(m_vClips.size(), 1U);
    m_vClips.clear();
    int nPieces = 0;
    while (m_executor.runOne())
        ++nPieces;
    EXPECT_LE(nPieces, 1);
    EXPECT_EQ(m_store.count(), 0U);
}

TEST_F(SlowClipStore, TellsThatAFileIsDamagedBehindItsBeginning)
{
    writeDamagedFlac(m_folder.path("damaged.flac"));
    load("damaged.flac");
    m_executor.runAll();
    ASSERT_THAT(m_vDone, ElementsAre("damaged.flac"));
    EXPECT_TRUE(m_vClips[0]->isBroken());
    EXPECT_GT(m_vClips[0]->ready(), 50000U);
    EXPECT_LT(m_vClips[0]->ready(), 200000U);
    EXPECT_THAT(m_log.text(), HasSubstr("damaged.flac\" is damaged behind"));
    // It is not taken for good by those who come later.
    EXPECT_EQ(m_store.count(), 0U);
}
