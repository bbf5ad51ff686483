// A long life leaves nothing behind: descriptors, threads and memory are the same after it.
#include "BlockCount.h"
#include "SystemFixture.h"

#include <atomic>

class Leak : public CSystemTest
{
protected:
    struct CUsage
    {
        size_t nDescriptors = namesIn("/proc/self/fd").size();
        size_t nThreads = namesIn("/proc/self/task").size();
        size_t nNamesInTmp = namesIn("/tmp").size();
        bool operator==(const CUsage& other) const = default;
    };
    friend std::ostream& operator<<(std::ostream& os, const CUsage& usage)
    {
        return os << usage.nDescriptors << " descriptors, " << usage.nThreads << " threads, " << usage.nNamesInTmp
                  << " names in /tmp";
    }

    Leak()
    {
        // A log that keeps nothing.
        auto* const pLogFile = new OrvLogLib::CLogFile("Quiet", nullptr, false, false, false);
        pLogFile->setTraceMask(0);
        m_pServices->setLogger(pLogFile, nullptr);
    }

    // Runs once to fill what is filled once, then nTimes more, after which everything must be as
    // before.
    void expectNothingLeftBehind(int nTimes, const std::function<void()>& run)
    {
        run();
        const CUsage usage;
        const long nBlocks = blockCount();
        for (int n = 0; n < nTimes && !HasFatalFailure(); ++n)
            run();
        // The last blocks may still be in the hands of the event thread or the driver's.
        waitUntil([&] { return blockCount() <= nBlocks && CUsage() == usage; }, std::chrono::seconds(5));
        EXPECT_EQ(usage, CUsage());
        EXPECT_GE(nBlocks, blockCount());
    }

    size_t count(MICMD micmd) const { return m_driver.count(micmd); }
};

// The driver's requests are counted by rules: looking through all of them takes ever longer.
TEST_F(Leak, ThousandCallsLeaveNothingBehind)
{
    const unsigned long ulPhrases = openPhraseFile("/p/a.ul");
    std::atomic<long> nCompletions{0};
    m_completions.m_onCompletion = [&](const CCompletion&) { ++nCompletions; };
    for (const MICMD micmd : {MICMD_PLAYFILE, MICMD_PLAYCLIP})
    {
        m_driver.onCommand(
            micmd,
            [this](const structMICMD& request) {
                m_driver.accept(request);
                m_driver.done(request, request.nSequenceNo % 7 == 0 ? 5 : MCS_OK);
            });
    }
    expectNothingLeftBehind(1000, [&] {
        const long nBefore = nCompletions;
        CZelMediaStream* const pStream = openStream();
        unsigned long ulFileID = 0;
        ASSERT_EQ(MCS_OK, m_pServices->openPhraseFile(text("/p/b.ul"), &ulFileID));
        ASSERT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
        ASSERT_TRUE(waitUntil([&] { return nCompletions > nBefore; }));
        // Still playing, waiting and recording when the stream is closed.
        play(pStream, "/p/2.wav");
        recordWithPrompt(pStream, ulPhrases, "/r/1.wav");
        record(pStream, "/r/2.wav");
        m_pServices->closePhraseFile(ulFileID);
        m_pServices->closeMediaStream(pStream);
    });
}

class LeakOfRestarts : public Leak, public testing::WithParamInterface<bool>
{
};

TEST_P(LeakOfRestarts, TenRestartsOfTheDriverLeaveNothingBehind)
{
    openPhraseFile("/p/a.ul");
    expectNothingLeftBehind(10, [&] {
        std::vector<CZelMediaStream*> vStreams;
        for (int n = 0; n < 10; ++n)
        {
            vStreams.push_back(openStream());
            if (GetParam())
            {
                ASSERT_EQ(MCS_OK, play(vStreams.back(), "/p/1.wav"));
                ASSERT_EQ(MCS_OK, play(vStreams.back(), "/p/2.wav"));
                ASSERT_EQ(MCS_OK, record(vStreams.back(), "/r/1.wav"));
                ASSERT_EQ(MCS_OK, record(vStreams.back(), "/r/2.wav"));
            }
        }
        const size_t nConnects = count(MICMD_CONNECT);
        const size_t nOpenFiles = count(MICMD_OPENFILE);
        loseDriver();
        m_driver.start();
        ASSERT_TRUE(m_driver.waitCount(MICMD_CONNECT, nConnects + 1));
        ASSERT_TRUE(m_driver.waitCount(MICMD_OPENFILE, nOpenFiles + 1));
        for (CZelMediaStream* const pStream : vStreams)
            m_pServices->closeMediaStream(pStream);
    });
}

INSTANTIATE_TEST_SUITE_P(With, LeakOfRestarts, testing::Bool(),
                         [](const auto& with) { return with.param ? "CommandsInFlight" : "IdleStreams"; });
