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
constexpr size_t CAPACITY = CAudioSink::CAPACITY;

std::span<const uint8_t> part(const CSamples& samples, size_t nBegin, size_t nCount)
{
    return std::span(samples).subspan(nBegin, std::min(nCount, samples.size() - nBegin));
}

class AudioSink : public testing::Test
{
protected:
    std::shared_ptr<CAudioSink> open(const std::string& strName)
    {
        std::shared_ptr<CAudioSink> pOpened;
        CAudioSink::open(m_disk, m_folder.path(strName),
                         [&](std::shared_ptr<CAudioSink> pSink, const std::string& strError) {
                             pOpened = std::move(pSink);
                             m_strError = strError;
                         });
        EXPECT_FALSE(pOpened) << "opened without the disk";
        m_disk.runAll();
        return pOpened;
    }

    // Notes "ok" or "failed".
    CAudioSink::DoneFunction note()
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
    const CSamples noise = ::noise(CAPACITY + 1000);
    const auto pSink = open("a.ul");
    ASSERT_TRUE(pSink) << m_strError;
    EXPECT_EQ(pSink->room(), CAPACITY);
    EXPECT_EQ(pSink->put(part(noise, 0, 100)), 100U);
    EXPECT_EQ(pSink->put(part(noise, 100, noise.size())), CAPACITY - 100);
    EXPECT_EQ(pSink->room(), 0U);
    EXPECT_EQ(pSink->put(part(noise, CAPACITY, 1000)), 0U);
    pSink->service();
    EXPECT_EQ(pSink->room(), 0U);
    m_disk.runAll();
    EXPECT_EQ(pSink->room(), CAPACITY);
    EXPECT_EQ(pSink->put(part(noise, CAPACITY, 1000)), 1000U);
    pSink->close(note());
    m_disk.runAll();
    EXPECT_THAT(m_vDone, ElementsAre("ok"));
    EXPECT_EQ(readBytes(m_folder.path("a.ul")), noise);
}

TEST_F(AudioSink, LosesAndDoublesNothingOverManyRounds)
{
    std::mt19937 random(7);
    const CSamples noise = ::noise(5 * CAPACITY + 4711);
    const auto pSink = open("a.ul");
    ASSERT_TRUE(pSink) << m_strError;
    size_t nStalls = 0;
    for (size_t nPut = 0; nPut < noise.size();)
    {
        const size_t nCount = 1 + random() % 4999;
        const size_t nTaken = pSink->put(part(noise, nPut, nCount));
        nPut += nTaken;
        nStalls += nTaken == 0 ? 1 : 0;
        if (pSink->wantsService())
            pSink->service();
        if (random() % 6 == 0)
            m_disk.runOne();
    }
    EXPECT_GT(nStalls, 0U) << "the disk was never behind";
    pSink->close(note());
    m_disk.runAll();
    EXPECT_EQ(readBytes(m_folder.path("a.ul")), noise);
}

TEST_F(AudioSink, WantsServiceWhenEnoughHasComeTogetherAndOnlyOnce)
{
    const CSamples noise = ::noise(CAPACITY / 8);
    const auto pSink = open("a.ul");
    ASSERT_TRUE(pSink) << m_strError;
    pSink->put(part(noise, 0, CAPACITY / 8 - 1));
    EXPECT_FALSE(pSink->wantsService());
    pSink->put(part(noise, 0, 1));
    EXPECT_TRUE(pSink->wantsService());
    pSink->service();
    EXPECT_FALSE(pSink->wantsService());
    pSink->put(noise);
    EXPECT_FALSE(pSink->wantsService());
    EXPECT_TRUE(m_disk.runOne());
    EXPECT_FALSE(pSink->wantsService());
    EXPECT_FALSE(m_disk.runOne()) << "there was one piece of work";
    pSink->put(noise);
    EXPECT_TRUE(pSink->wantsService());
}

TEST_F(AudioSink, UpdateMakesTheFileCompleteWhileItGrows)
{
    const CSamples noise = ::noise(2002);
    const auto pSink = open("a.wav");
    ASSERT_TRUE(pSink) << m_strError;
    pSink->put(part(noise, 0, 1001));
    pSink->update(note());
    EXPECT_THAT(m_vDone, IsEmpty());
    EXPECT_THAT(readULawWav(m_folder.path("a.wav")), IsEmpty());
    m_disk.runAll();
    EXPECT_THAT(m_vDone, ElementsAre("ok"));
    EXPECT_EQ(readULawWav(m_folder.path("a.wav")), slice(noise, 0, 1001));
    pSink->put(part(noise, 1001, 1001));
    EXPECT_EQ(readULawWav(m_folder.path("a.wav")).size(), 1001U);
    pSink->update(note());
    m_disk.runAll();
    EXPECT_EQ(readULawWav(m_folder.path("a.wav")), noise);
}

TEST_F(AudioSink, CloseCompletesTheFileAndLetsOthersHaveIt)
{
    const CSamples noise = ::noise(333);
    const auto pSink = open("a.wav");
    ASSERT_TRUE(pSink) << m_strError;
    EXPECT_FALSE(open("a.wav"));
    EXPECT_THAT(m_strError, HasSubstr("being written already"));
    pSink->put(noise);
    pSink->close(note());
    EXPECT_THAT(m_vDone, IsEmpty());
    m_disk.runAll();
    EXPECT_THAT(m_vDone, ElementsAre("ok"));
    EXPECT_EQ(readULawWav(m_folder.path("a.wav")), noise);
    EXPECT_TRUE(open("a.wav")) << m_strError;
}

TEST_F(AudioSink, FileThatIsClosedIsCompleteBeforeItIsOpenedAgain)
{
    auto pSink = open("a.wav");
    ASSERT_TRUE(pSink) << m_strError;
    pSink->close(note());
    pSink.reset();
    EXPECT_TRUE(open("a.wav")) << m_strError;
    EXPECT_THAT(m_vDone, ElementsAre("ok"));
}

TEST_F(AudioSink, SaysWhyAFileCannotBeOpened)
{
    EXPECT_FALSE(open("a.mp3"));
    EXPECT_THAT(m_strError, HasSubstr("its ending is none of"));
    EXPECT_FALSE(open("none/a.wav"));
    EXPECT_THAT(m_strError, HasSubstr("No such file"));
}

TEST_F(AudioSink, NoticesAFullDiskAndKeepsTheBeginning)
{
    const CSamples noise = ::noise(10000);
    const auto pSink = open("a.ul");
    ASSERT_TRUE(pSink) << m_strError;
    {
        const CFileSizeLimit limit(6000);
        pSink->put(part(noise, 0, 5000));
        pSink->service();
        m_disk.runAll();
        EXPECT_FALSE(pSink->hasFailed());
        pSink->put(part(noise, 5000, 2000));
        pSink->service();
        m_disk.runAll();
        EXPECT_TRUE(pSink->hasFailed());
    }
    // There is room again, but what is missing would leave a hole.
    EXPECT_EQ(pSink->put(part(noise, 7000, 3000)), 3000U);
    pSink->update(note());
    pSink->close(note());
    m_disk.runAll();
    EXPECT_THAT(m_vDone, ElementsAre("failed", "failed"));
    const CSamples kept = readBytes(m_folder.path("a.ul"));
    ASSERT_GE(kept.size(), 5000U);
    ASSERT_LE(kept.size(), 6000U);
    EXPECT_EQ(kept, slice(noise, 0, kept.size()));
}

TEST_F(AudioSink, NoticesADiskThatIsFullOnlyAtTheEnd)
{
    const auto pSink = open("a.flac");
    ASSERT_TRUE(pSink) << m_strError;
    pSink->put(noise(3000));
    {
        const CFileSizeLimit limit(50);
        pSink->close(note());
        m_disk.runAll();
    }
    EXPECT_THAT(m_vDone, ElementsAre("failed"));
}

TEST_F(AudioSink, SeveralSinksOnOneThreadWriteTheirOwnSamplesInOrder)
{
    CThreadExecutor disk;
    std::string strError;
    ASSERT_TRUE(disk.start("disk", strError)) << strError;
    struct CSource
    {
        std::shared_ptr<CAudioSink> m_pSink;
        CSamples m_noise;
        size_t m_nPut = 0;
    };
    std::vector<CSource> vSources(4);
    for (unsigned n = 0; n < vSources.size(); ++n)
    {
        vSources[n].m_noise = noise(6 * CAPACITY + n, n + 1);
        CAudioSink::open(disk, m_folder.path(std::to_string(n) + ".ul"),
                         [&vSources, n](std::shared_ptr<CAudioSink> pSink, const std::string&) {
                             vSources[n].m_pSink = std::move(pSink);
                         });
    }
    disk.finish();
    std::mt19937 random(11);
    for (bool bMore = true; bMore;)
    {
        bMore = false;
        for (CSource& source : vSources)
        {
            ASSERT_TRUE(source.m_pSink);
            const size_t nCount = 1 + random() % 1999;
            source.m_nPut += source.m_pSink->put(part(source.m_noise, source.m_nPut, nCount));
            bMore |= source.m_nPut < source.m_noise.size();
            if (source.m_pSink->wantsService())
                source.m_pSink->service();
        }
        pollfd poll = {disk.fd(), POLLIN, 0};
        if (::poll(&poll, 1, 0) == 1)
            disk.runDone();
    }
    for (CSource& source : vSources)
        source.m_pSink->close(note());
    disk.finish();
    EXPECT_THAT(m_vDone, ElementsAre("ok", "ok", "ok", "ok"));
    for (unsigned n = 0; n < vSources.size(); ++n)
        EXPECT_EQ(readBytes(m_folder.path(std::to_string(n) + ".ul")), vSources[n].m_noise) << n;
}
