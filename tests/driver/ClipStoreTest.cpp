// Clips in memory: shared while held, renewed when the file has changed.
#include "ClipStore.h"
#include "DriverTestSupport.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

TEST(ClipStore, SharesAFileAmongAllWhoHoldIt)
{
    const CTempFolder folder;
    const CLogCapture log;
    WriteULaw(folder.Path("a.wav"), SF_FORMAT_WAV, Noise(100));
    CClipStore store;
    std::string strError;
    const CClipPtr pFirst = store.Load(folder.Path("a.wav"), strError);
    ASSERT_TRUE(pFirst);
    EXPECT_EQ(store.Load(folder.Path("a.wav"), strError), pFirst);
    EXPECT_EQ(pFirst->m_samples, Noise(100));
    EXPECT_EQ(store.Size(), 1U);
}

TEST(ClipStore, ReleasesAFileWithItsLastHolder)
{
    const CTempFolder folder;
    const CLogCapture log;
    WriteULaw(folder.Path("a.wav"), SF_FORMAT_WAV, Noise(100));
    CClipStore store;
    std::string strError;
    CClipPtr pClip = store.Load(folder.Path("a.wav"), strError);
    const std::weak_ptr<const CClip> pWatch = pClip;
    pClip.reset();
    EXPECT_TRUE(pWatch.expired());
    EXPECT_EQ(store.Size(), 0U);
}

TEST(ClipStore, DecodesAChangedFileAnewWhileTheFormerIsHeld)
{
    const CTempFolder folder;
    const CLogCapture log;
    WriteULaw(folder.Path("a.wav"), SF_FORMAT_WAV, Noise(100));
    CClipStore store;
    std::string strError;
    const CClipPtr pFormer = store.Load(folder.Path("a.wav"), strError);
    ASSERT_TRUE(pFormer);
    WriteULaw(folder.Path("a.wav"), SF_FORMAT_WAV, Noise(200, 2));
    const CClipPtr pNew = store.Load(folder.Path("a.wav"), strError);
    ASSERT_TRUE(pNew);
    EXPECT_EQ(pNew->m_samples, Noise(200, 2));
    EXPECT_EQ(pFormer->m_samples, Noise(100));
}

TEST(ClipStore, SaysWhyAFileCannotBeLoaded)
{
    const CTempFolder folder;
    CClipStore store;
    std::string strError;
    EXPECT_FALSE(store.Load(folder.Path("none.wav"), strError));
    EXPECT_THAT(strError, HasSubstr("none.wav\" cannot be opened: No such file"));
    WriteBytes(folder.Path("text.wav"), {'h', 'e', 'l', 'l', 'o'});
    EXPECT_FALSE(store.Load(folder.Path("text.wav"), strError));
    EXPECT_THAT(strError, HasSubstr("text.wav\" is no audio file that can be read"));
}
