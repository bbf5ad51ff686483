// Audio on its way into a file: what waits in memory, when it is written, and failing disks.
#include "AudioSink.h"
#include "DriverTestSupport.h"

#include <gmock/gmock.h>
#include <poll.h>

#include <random>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
constexpr std::size_t CAPACITY = CAudioSink::CAPACITY;

std::span<const std::uint8_t> Part(const CSamples& samples, std::size_t nBegin, std::size_t nCount)
{
    return std::span(samples).subspan(nBegin, std::min(nCount, samples.size() - nBegin));
}

class AudioSink : public testing::Test
{
protected:
    std::shared_ptr<CAudioSink> Open(const std::string& strName)
    {
        std::shared_ptr<CAudioSink> pOpened;
        CAudioSink::Open(m_disk, m_folder.Path(strName),
                         [&](std::shared_ptr<CAudioSink> pSink, const std::string& strError) {
                             pOpened = std::move(pSink);
                             m_strError = strError;
                         });
        EXPECT_FALSE(pOpened) << "opened without the disk";
        m_disk.RunAll();
        return pOpened;
    }

    // Notes "ok" or "failed".
    CAudioSink::DoneFunction Note()
    {
        return [this](bool bOk) { m_vDone.push_back(bOk ? "ok" : "failed"); };
    }

    CTempFolder m_folder;
    CManualExecutor m_disk;
    std::string m_strError;
    std::vector<std::string> m_vDone;
};
} // namespace

TEST_F(AudioSink, TakesNoMoreThanThereIsRoomFor)
{
    const CSamples noise = Noise(CAPACITY + 1000);
    const auto pSink = Open("a.ul");
    ASSERT_TRUE(pSink) << m_strError;
    EXPECT_EQ(pSink->Room(), CAPACITY);
    EXPECT_EQ(pSink->Put(Part(noise, 0, 100)), 100U);
    EXPECT_EQ(pSink->Put(Part(noise, 100, noise.size())), CAPACITY - 100);
    EXPECT_EQ(pSink->Room(), 0U);
    EXPECT_EQ(pSink->Put(Part(noise, CAPACITY, 1000)), 0U);
    pSink->Service();
    EXPECT_EQ(pSink->Room(), 0U);
    m_disk.RunAll();
    EXPECT_EQ(pSink->Room(), CAPACITY);
    EXPECT_EQ(pSink->Put(Part(noise, CAPACITY, 1000)), 1000U);
    pSink->Close(Note());
    m_disk.RunAll();
    EXPECT_THAT(m_vDone, ElementsAre("ok"));
    EXPECT_EQ(ReadBytes(m_folder.Path("a.ul")), noise);
}

TEST_F(AudioSink, LosesAndDoublesNothingOverManyRounds)
{
    std::mt19937 random(7);
    const CSamples noise = Noise(5 * CAPACITY + 4711);
    const auto pSink = Open("a.ul");
    ASSERT_TRUE(pSink) << m_strError;
    std::size_t nStalls = 0;
    for (std::size_t nPut = 0; nPut < noise.size();)
    {
        const std::size_t nCount = 1 + random() % 4999;
        const std::size_t nTaken = pSink->Put(Part(noise, nPut, nCount));
        nPut += nTaken;
        nStalls += nTaken == 0 ? 1 : 0;
        if (pSink->WantsService())
        {
            pSink->Service();
        }
        if (random() % 6 == 0)
        {
            m_disk.RunOne();
        }
    }
    EXPECT_GT(nStalls, 0U) << "the disk was never behind";
    pSink->Close(Note());
    m_disk.RunAll();
    EXPECT_EQ(ReadBytes(m_folder.Path("a.ul")), noise);
}

TEST_F(AudioSink, WantsServiceWhenEnoughHasComeTogetherAndOnlyOnce)
{
    const CSamples noise = Noise(CAPACITY / 8);
    const auto pSink = Open("a.ul");
    ASSERT_TRUE(pSink) << m_strError;
    pSink->Put(Part(noise, 0, CAPACITY / 8 - 1));
    EXPECT_FALSE(pSink->WantsService());
    pSink->Put(Part(noise, 0, 1));
    EXPECT_TRUE(pSink->WantsService());
    pSink->Service();
    EXPECT_FALSE(pSink->WantsService());
    pSink->Put(noise);
    EXPECT_FALSE(pSink->WantsService());
    EXPECT_TRUE(m_disk.RunOne());
    EXPECT_FALSE(pSink->WantsService());
    EXPECT_FALSE(m_disk.RunOne()) << "there was one piece of work";
    pSink->Put(noise);
    EXPECT_TRUE(pSink->WantsService());
}

TEST_F(AudioSink, UpdateMakesTheFileCompleteWhileItGrows)
{
    const CSamples noise = Noise(2002);
    const auto pSink = Open("a.wav");
    ASSERT_TRUE(pSink) << m_strError;
    pSink->Put(Part(noise, 0, 1001));
    pSink->Update(Note());
    EXPECT_THAT(m_vDone, IsEmpty());
    EXPECT_THAT(ReadULawWav(m_folder.Path("a.wav")), IsEmpty());
    m_disk.RunAll();
    EXPECT_THAT(m_vDone, ElementsAre("ok"));
    EXPECT_EQ(ReadULawWav(m_folder.Path("a.wav")), Slice(noise, 0, 1001));
    pSink->Put(Part(noise, 1001, 1001));
    EXPECT_EQ(ReadULawWav(m_folder.Path("a.wav")).size(), 1001U);
    pSink->Update(Note());
    m_disk.RunAll();
    EXPECT_EQ(ReadULawWav(m_folder.Path("a.wav")), noise);
}

TEST_F(AudioSink, CloseCompletesTheFileAndLetsOthersHaveIt)
{
    const CSamples noise = Noise(333);
    const auto pSink = Open("a.wav");
    ASSERT_TRUE(pSink) << m_strError;
    EXPECT_FALSE(Open("a.wav"));
    EXPECT_THAT(m_strError, HasSubstr("being written already"));
    pSink->Put(noise);
    pSink->Close(Note());
    EXPECT_THAT(m_vDone, IsEmpty());
    m_disk.RunAll();
    EXPECT_THAT(m_vDone, ElementsAre("ok"));
    EXPECT_EQ(ReadULawWav(m_folder.Path("a.wav")), noise);
    EXPECT_TRUE(Open("a.wav")) << m_strError;
}

TEST_F(AudioSink, FileThatIsClosedIsCompleteBeforeItIsOpenedAgain)
{
    auto pSink = Open("a.wav");
    ASSERT_TRUE(pSink) << m_strError;
    pSink->Close(Note());
    pSink.reset();
    EXPECT_TRUE(Open("a.wav")) << m_strError;
    EXPECT_THAT(m_vDone, ElementsAre("ok"));
}

TEST_F(AudioSink, SaysWhyAFileCannotBeOpened)
{
    EXPECT_FALSE(Open("a.mp3"));
    EXPECT_THAT(m_strError, HasSubstr("its ending is none of"));
    EXPECT_FALSE(Open("none/a.wav"));
    EXPECT_THAT(m_strError, HasSubstr("No such file"));
}

TEST_F(AudioSink, NoticesAFullDiskAndKeepsTheBeginning)
{
    const CSamples noise = Noise(10000);
    const auto pSink = Open("a.ul");
    ASSERT_TRUE(pSink) << m_strError;
    {
        const CFileSizeLimit limit(6000);
        pSink->Put(Part(noise, 0, 5000));
        pSink->Service();
        m_disk.RunAll();
        EXPECT_FALSE(pSink->HasFailed());
        pSink->Put(Part(noise, 5000, 2000));
        pSink->Service();
        m_disk.RunAll();
        EXPECT_TRUE(pSink->HasFailed());
    }
    // There is room again, but what is missing would leave a hole.
    EXPECT_EQ(pSink->Put(Part(noise, 7000, 3000)), 3000U);
    pSink->Update(Note());
    pSink->Close(Note());
    m_disk.RunAll();
    EXPECT_THAT(m_vDone, ElementsAre("failed", "failed"));
    const CSamples kept = ReadBytes(m_folder.Path("a.ul"));
    ASSERT_GE(kept.size(), 5000U);
    ASSERT_LE(kept.size(), 6000U);
    EXPECT_EQ(kept, Slice(noise, 0, kept.size()));
}

TEST_F(AudioSink, NoticesADiskThatIsFullOnlyAtTheEnd)
{
    const auto pSink = Open("a.flac");
    ASSERT_TRUE(pSink) << m_strError;
    pSink->Put(Noise(3000));
    {
        const CFileSizeLimit limit(50);
        pSink->Close(Note());
        m_disk.RunAll();
    }
    EXPECT_THAT(m_vDone, ElementsAre("failed"));
}

TEST_F(AudioSink, SeveralSinksOnOneThreadWriteTheirOwnSamplesInOrder)
{
    CThreadExecutor disk;
    std::string strError;
    ASSERT_TRUE(disk.Start("disk", strError)) << strError;
    struct CSource
    {
        std::shared_ptr<CAudioSink> m_pSink;
        CSamples m_noise;
        std::size_t m_nPut = 0;
    };
    std::vector<CSource> vSources(4);
    for (unsigned n = 0; n < vSources.size(); ++n)
    {
        vSources[n].m_noise = Noise(6 * CAPACITY + n, n + 1);
        CAudioSink::Open(disk, m_folder.Path(std::to_string(n) + ".ul"),
                         [&vSources, n](std::shared_ptr<CAudioSink> pSink, const std::string&) {
                             vSources[n].m_pSink = std::move(pSink);
                         });
    }
    disk.Finish();
    std::mt19937 random(11);
    for (bool bMore = true; bMore;)
    {
        bMore = false;
        for (CSource& source : vSources)
        {
            ASSERT_TRUE(source.m_pSink);
            const std::size_t nCount = 1 + random() % 1999;
            source.m_nPut += source.m_pSink->Put(Part(source.m_noise, source.m_nPut, nCount));
            bMore |= source.m_nPut < source.m_noise.size();
            if (source.m_pSink->WantsService())
            {
                source.m_pSink->Service();
            }
        }
        pollfd poll = {disk.Fd(), POLLIN, 0};
        if (::poll(&poll, 1, 0) == 1)
        {
            disk.RunDone();
        }
    }
    for (CSource& source : vSources)
    {
        source.m_pSink->Close(Note());
    }
    disk.Finish();
    EXPECT_THAT(m_vDone, ElementsAre("ok", "ok", "ok", "ok"));
    for (unsigned n = 0; n < vSources.size(); ++n)
    {
        EXPECT_EQ(ReadBytes(m_folder.Path(std::to_string(n) + ".ul")), vSources[n].m_noise) << n;
    }
}
