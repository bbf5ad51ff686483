// Clips in memory: shared while held, renewed when the file has changed, played before they are decoded.
#include "ClipStore.h"
#include "DriverTestSupport.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
class ClipStore : public testing::Test
{
protected:
    CClipPtr Load(const std::string& strPath)
    {
        CClipPtr pLoaded;
        m_store.Load(strPath, 0, [&](CClipPtr pClip, const std::string& strError) {
            pLoaded = std::move(pClip);
            m_strError = strError;
        });
        return pLoaded;
    }

    static CSamples SamplesOf(const CClip& clip) { return {clip.Samples(), clip.Samples() + clip.Ready()}; }

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
    void Load(const std::string& strName, std::size_t nPosition = 0)
    {
        m_store.Load(m_folder.Path(strName), nPosition, [this, strName](CClipPtr pClip, const std::string& strError) {
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
    WriteULaw(m_folder.Path("a.wav"), SF_FORMAT_WAV, Noise(100));
    const CClipPtr pFirst = Load(m_folder.Path("a.wav"));
    ASSERT_TRUE(pFirst);
    EXPECT_EQ(Load(m_folder.Path("a.wav")), pFirst);
    EXPECT_EQ(SamplesOf(*pFirst), Noise(100));
    EXPECT_EQ(m_store.Count(), 1U);
    EXPECT_EQ(m_store.Samples(), 100U);
}

TEST_F(ClipStore, ReleasesAFileWithItsLastHolder)
{
    WriteULaw(m_folder.Path("a.wav"), SF_FORMAT_WAV, Noise(100));
    CClipPtr pClip = Load(m_folder.Path("a.wav"));
    const std::weak_ptr<const CClip> pWatch = pClip;
    pClip.reset();
    EXPECT_TRUE(pWatch.expired());
    EXPECT_EQ(m_store.Count(), 0U);
}

TEST_F(ClipStore, DecodesAChangedFileAnewWhileTheFormerIsHeld)
{
    WriteULaw(m_folder.Path("a.wav"), SF_FORMAT_WAV, Noise(100));
    const CClipPtr pFormer = Load(m_folder.Path("a.wav"));
    ASSERT_TRUE(pFormer);
    WriteULaw(m_folder.Path("a.wav"), SF_FORMAT_WAV, Noise(200, 2));
    const CClipPtr pNew = Load(m_folder.Path("a.wav"));
    ASSERT_TRUE(pNew);
    EXPECT_EQ(SamplesOf(*pNew), Noise(200, 2));
    EXPECT_EQ(SamplesOf(*pFormer), Noise(100));
}

TEST_F(ClipStore, SaysWhyAFileCannotBeLoaded)
{
    EXPECT_FALSE(Load(m_folder.Path("none.wav")));
    EXPECT_THAT(m_strError, HasSubstr("none.wav\" cannot be opened: No such file"));
    WriteBytes(m_folder.Path("text.wav"), {'h', 'e', 'l', 'l', 'o'});
    EXPECT_FALSE(Load(m_folder.Path("text.wav")));
    EXPECT_THAT(m_strError, HasSubstr("text.wav\" is no audio file that can be read"));
}

TEST_F(SlowClipStore, GivesALongFileOutBeforeAllOfItIsDecoded)
{
    WriteULaw(m_folder.Path("long.wav"), SF_FORMAT_WAV, Noise(200000));
    Load("long.wav");
    m_executor.RunOne(); // the header
    EXPECT_THAT(m_vDone, IsEmpty());
    m_executor.RunOne(); // the first piece
    ASSERT_THAT(m_vDone, ElementsAre("long.wav"));
    EXPECT_FALSE(m_vClips[0]->IsDecoded());
    EXPECT_LT(m_vClips[0]->Ready(), 200000U);
    m_executor.RunAll();
    EXPECT_TRUE(m_vClips[0]->IsDecoded());
    EXPECT_EQ(CSamples(m_vClips[0]->Samples(), m_vClips[0]->Samples() + m_vClips[0]->Ready()), Noise(200000));
}

TEST_F(SlowClipStore, LetsAShortFileOvertakeALongOne)
{
    WriteULaw(m_folder.Path("long.wav"), SF_FORMAT_WAV, Noise(1000000));
    WriteULaw(m_folder.Path("short.wav"), SF_FORMAT_WAV, Noise(100));
    Load("long.wav", 900000);
    Load("short.wav");
    m_executor.RunAll();
    EXPECT_THAT(m_vDone, ElementsAre("short.wav", "long.wav"));
}

TEST_F(SlowClipStore, WaitsUntilOneSecondFromThePositionIsDecoded)
{
    WriteULaw(m_folder.Path("long.wav"), SF_FORMAT_WAV, Noise(400000));
    Load("long.wav", 100000);
    while (m_vDone.empty() && m_executor.RunOne())
    {
    }
    ASSERT_THAT(m_vDone, ElementsAre("long.wav"));
    EXPECT_GE(m_vClips[0]->Ready(), 108000U);
    EXPECT_FALSE(m_vClips[0]->IsDecoded());
}

TEST_F(SlowClipStore, DecodesAFileOnceForAllWhoAskMeanwhile)
{
    WriteULaw(m_folder.Path("long.wav"), SF_FORMAT_WAV, Noise(200000));
    Load("long.wav");
    Load("long.wav");
    m_executor.RunOne();
    Load("long.wav", 199000);
    m_executor.RunAll();
    ASSERT_EQ(m_vClips.size(), 3U);
    EXPECT_EQ(m_vClips[0], m_vClips[1]);
    EXPECT_EQ(m_vClips[0], m_vClips[2]);
    EXPECT_EQ(m_store.Count(), 1U);
}

TEST_F(SlowClipStore, StopsDecodingWhatNobodyHoldsAnyMore)
{
    WriteULaw(m_folder.Path("long.wav"), SF_FORMAT_WAV, Noise(10000000));
    Load("long.wav");
    m_executor.RunOne();
    m_executor.RunOne();
    ASSERT_EQ(m_vClips.size(), 1U);
    m_vClips.clear();
    int nPieces = 0;
    while (m_executor.RunOne())
    {
        ++nPieces;
    }
    EXPECT_LE(nPieces, 1);
    EXPECT_EQ(m_store.Count(), 0U);
}

TEST_F(SlowClipStore, TellsThatAFileIsDamagedBehindItsBeginning)
{
    WriteDamagedFlac(m_folder.Path("damaged.flac"));
    Load("damaged.flac");
    m_executor.RunAll();
    ASSERT_THAT(m_vDone, ElementsAre("damaged.flac"));
    EXPECT_TRUE(m_vClips[0]->IsBroken());
    EXPECT_GT(m_vClips[0]->Ready(), 50000U);
    EXPECT_LT(m_vClips[0]->Ready(), 200000U);
    EXPECT_THAT(m_log.Text(), HasSubstr("damaged.flac\" is damaged behind"));
    // It is not taken for good by those who come later.
    EXPECT_EQ(m_store.Count(), 0U);
}
