// Recordings for whose start there is no memory: refused once, with nothing left behind.
#include "FailingAllocations.h"
#include "StreamFixture.h"

#include <new>

namespace
{
class StreamMemory : public CStreamFixture
{
protected:
    std::shared_ptr<CStream> open()
    {
        std::shared_ptr<CStream> pStream;
        m_slowChannels.open("call", 1, [&](std::unique_ptr<CChannel> pChannel, const std::string& strError) {
            EXPECT_TRUE(pChannel) << strError;
            pStream = openOn(std::move(pChannel), m_disk);
        });
        runAll();
        return pStream;
    }

    void runAll()
    {
        m_loader.runAll();
        m_disk.runAll();
    }

    // False when it is refused at once, or by an exception as the request handler takes it.
    void startRecord(CStream& stream)
    {
        try
        {
            stream.startRecord(
                m_strPath, 8000, 9,
                [this](bool bOk, const std::string&) {
                    m_nStarted += bOk ? 1 : 0;
                    m_nRefused += bOk ? 0 : 1;
                });
        }
        catch (const std::bad_alloc&)
        {
            ++m_nRefused;
        }
    }

    void expectCancelIsAnswered(CStream& stream)
    {
        int nCancelled = 0;
        stream.cancelRecord([&nCancelled] { ++nCancelled; });
        runAll();
        EXPECT_EQ(nCancelled, 1);
        EXPECT_FALSE(stream.isRecording());
        EXPECT_FALSE(m_clock.hasFast());
    }

    const std::string m_strPath = m_folder.path("msg.wav");
    CManualExecutor m_loader;
    CManualExecutor m_disk;
    CClipStore m_slowStore{m_loader};
    CFileChannelFactory m_slowChannels{m_slowStore, m_disk, {m_folder.folder(), false, false}};
    int m_nStarted = 0;
    int m_nRefused = 0;
};
} // namespace

TEST_F(StreamMemory, IsShortAtTheStartOfARecording)
{
    callerSays(noise(8000));
    const auto pStream = open();
    for (CAttempts attempts(Failing::Once); attempts.next();)
    {
        m_nStarted = m_nRefused = 0;
        attempts.run([&] {
            startRecord(*pStream);
            return 0;
        });
        if (m_nRefused > 0)
            EXPECT_FALSE(pStream->isRecording()) << "at allocation " << attempts.nth();
        runAll();
        EXPECT_EQ(m_nStarted + m_nRefused, 1) << "at allocation " << attempts.nth();
        EXPECT_TRUE(attempts.failed() || m_nStarted == 1);
        expectCancelIsAnswered(*pStream);
    }
}

TEST_F(StreamMemory, OfAClipThatCannotBeMadeIsThereForTheNextOne)
{
    const std::string strPath = m_folder.path("a.ul");
    writeBytes(strPath, noise(100));
    CClipStore store(m_loader, 100);
    for (CAttempts attempts(Failing::Once); attempts.next();)
    {
        CClipPtr pLoaded;
        store.load(strPath, 0, [&pLoaded](CClipPtr pClip, const std::string&) { pLoaded = std::move(pClip); });
        attempts.run([&] {
            m_loader.runAll();
            return 0;
        });
        m_loader.runAll();
        EXPECT_TRUE(attempts.failed() || pLoaded) << "at allocation " << attempts.nth();
    }
}

TEST_F(StreamMemory, IsShortWhileTheFileIsOpened)
{
    callerSays(noise(8000));
    const auto pStream = open();
    for (CAttempts attempts(Failing::Once); attempts.next();)
    {
        m_nStarted = m_nRefused = 0;
        startRecord(*pStream);
        attempts.run([&] {
            runAll();
            return 0;
        });
        runAll();
        EXPECT_EQ(m_nStarted + m_nRefused, 1) << "at allocation " << attempts.nth();
        EXPECT_TRUE(attempts.failed() || m_nStarted == 1);
        expectCancelIsAnswered(*pStream);
    }
}
