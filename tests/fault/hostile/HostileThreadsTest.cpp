// The application's view of hostile bytes: several threads, the event thread, and a driver that answers each
// request in some wrong way and the right one.
//
// ZELMEDIA_SEED     the driver's seed (1)
// ZELMEDIA_RECORDS  five times as many as the driver writes here
#include "HostilePeer.h"
#include "OrvLogLib.h"
#include "RandomRun.h"
#include "ZelMediaServices.h"

#include <condition_variable>
#include <cstdio>
#include <gtest/gtest.h>

using std::chrono::milliseconds;

namespace
{
const int THREADS = 4;
const std::chrono::seconds LIMIT(60);
const uint32_t REQUESTS_PER_TEAR = 10000;

// Keeps the completions of each stream until they are taken.
class CHostileCompletions : public CZelMediaStreamCompletionHandler
{
public:
    void OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason) override
    {
        EXPECT_EQ(MCCR_PLAY, reason);
        const std::lock_guard hold(m_mutex);
        m_mapStatuses[pStream].push_back(mcstatus);
        m_changed.notify_all();
    }

    std::vector<MCSTATUS> take(CZelMediaStream* pStream)
    {
        const std::lock_guard hold(m_mutex);
        const auto node = m_mapStatuses.extract(pStream);
        return node ? node.mapped() : std::vector<MCSTATUS>();
    }

    bool wait(CZelMediaStream* pStream, milliseconds limit)
    {
        std::unique_lock hold(m_mutex);
        return m_changed.wait_for(hold, limit, [&] { return m_mapStatuses.contains(pStream); });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<CZelMediaStream*, std::vector<MCSTATUS>> m_mapStatuses;
};

class HostileThreads : public testing::Test
{
protected:
    // One thread's stream, which is opened again when it was lost.
    struct CCall
    {
        std::string strName;
        CZelMediaStream* pStream = nullptr;
        bool bLost = false;
        uint64_t ullPlays = 0;
    };

    HostileThreads() : m_services(&m_completions)
    {
        // A log without lines.
        auto* const pLogFile = new OrvLogLib::CLogFile("Hostile", nullptr, false, false, false);
        pLogFile->setTraceMask(0);
        m_services.setLogger(pLogFile, nullptr);
    }

    void live(int nThread);
    bool open(CCall& call);
    void ask(CCall& call);
    void play(CCall& call);
    void close(CCall& call);
    bool expectFate(CCall& call, MICMD micmd, int nStatus, CHostilePeer::CFate& fate);
    bool waitConnected() const;

    const uint64_t m_ullSeed = setting("ZELMEDIA_SEED", uint64_t{1});
#if defined(ZELMEDIA_TSAN) || defined(ZELMEDIA_ASAN)
    const uint64_t m_ullRecords = setting("ZELMEDIA_RECORDS", uint64_t{100000}) / 5;
#else
    const uint64_t m_ullRecords = setting("ZELMEDIA_RECORDS", uint64_t{400000}) / 5;
#endif
    CHostileCompletions m_completions;
    CHostilePeer m_peer{m_ullSeed, REQUESTS_PER_TEAR};
    CZelMediaServices m_services;
    std::atomic<uint64_t> m_ullCompletions{0};
};

bool HostileThreads::waitConnected() const
{
    const auto end = std::chrono::steady_clock::now() + LIMIT;
    while (!m_peer.connected() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(milliseconds(5));
    return m_peer.connected();
}

// A request that met a connection that was just lost has no fate.
bool HostileThreads::expectFate(CCall& call, MICMD micmd, int nStatus, CHostilePeer::CFate& fate)
{
    if (nStatus == MCS_NOTCONNECTED || nStatus == MCS_NOTINITIALIZED || nStatus == MCS_PIPEWRITE)
    {
        call.bLost = true;
        return false;
    }
    const auto found = m_peer.waitFate(call.strName, LIMIT);
    if (!found)
    {
        ADD_FAILURE() << "status " << nStatus << " of a request that the driver never saw";
        return false;
    }
    fate = *found;
    EXPECT_EQ(micmd, fate.micmd);
    EXPECT_EQ(fate.nStatus, nStatus);
    call.bLost = call.bLost || fate.nStatus == MCS_PIPEREAD;
    return nStatus == MCS_OK;
}

bool HostileThreads::open(CCall& call)
{
    if (!waitConnected())
        return false;
    const int nStatus = m_services.openMediaStream(&call.pStream, call.strName, 1);
    CHostilePeer::CFate fate;
    expectFate(call, MICMD_OPENSTREAM, nStatus, fate);
    if (nStatus != MCS_OK)
        std::this_thread::sleep_for(milliseconds(1));
    return nStatus == MCS_OK;
}

void HostileThreads::close(CCall& call)
{
    EXPECT_EQ(std::vector<MCSTATUS>(), m_completions.take(call.pStream)) << "completions that nobody waited for";
    m_services.closeMediaStream(call.pStream);
    call.pStream = nullptr;
    call.bLost = false;
}

void HostileThreads::ask(CCall& call)
{
    unsigned long ulMilliSeconds = 0;
    const int nStatus = call.pStream->recordGetTimeMilliseconds(&ulMilliSeconds);
    CHostilePeer::CFate fate;
    if (expectFate(call, MICMD_RECORDGETTIME, nStatus, fate))
        EXPECT_EQ(static_cast<uint32_t>(fate.nWord), ulMilliSeconds);
}

// One completion comes for each play that was accepted, with the status that was meant for it; or, once the
// connection is lost, perhaps none.
void HostileThreads::play(CCall& call)
{
    const unsigned int nLosses = m_peer.losses();
    char szFile[] = "/p/1.wav";
    const int nStatus = call.pStream->playAddFile(szFile, 0, 0xFFFFFFFF, 0, 0, 0);
    CHostilePeer::CFate fate;
    if (!expectFate(call, MICMD_PLAYFILE, nStatus, fate))
        return;
    ++call.ullPlays;
    const auto end = std::chrono::steady_clock::now() + LIMIT;
    while (!m_completions.wait(call.pStream, milliseconds(20)))
    {
        if (m_peer.losses() != nLosses)
        {
            // When it is connected again, all events of before have been read.
            EXPECT_TRUE(waitConnected());
            call.bLost = true;
            break;
        }
        if (std::chrono::steady_clock::now() > end)
        {
            ADD_FAILURE() << "a play of " << call.strName << " does not end";
            call.bLost = true;
            return;
        }
    }
    const std::vector<MCSTATUS> vStatuses = m_completions.take(call.pStream);
    if (!vStatuses.empty() || !call.bLost)
        EXPECT_EQ(std::vector<MCSTATUS>{fate.nCompletion}, vStatuses);
    m_ullCompletions += vStatuses.size();
    call.bLost = call.bLost || m_peer.losses() != nLosses;
}

void HostileThreads::live(int nThread)
{
    CRandomChoices choices(m_ullSeed * 1000 + static_cast<unsigned int>(nThread));
    CCall call;
    call.strName = "call-" + std::to_string(nThread);
    while (m_peer.records() < m_ullRecords && !HasFailure())
    {
        if (!call.pStream && !open(call))
            continue;
        if (choices.oneIn(3))
            play(call);
        else
            ask(call);
        if (call.bLost)
            EXPECT_TRUE(waitConnected());
        if (call.bLost || choices.oneIn(200))
            close(call);
    }
    if (call.pStream)
        close(call);
}
} // namespace

TEST_F(HostileThreads, GetTheirOwnAnswersAndCompletionsAndNoneTwice)
{
    printf("hostile bytes: driver's seed %llu\n", static_cast<unsigned long long>(m_ullSeed));
    fflush(stdout);
    std::vector<std::thread> vThreads;
    for (int n = 0; n < THREADS; ++n)
        vThreads.emplace_back([this, n] { live(n); });
    for (std::thread& thread : vThreads)
        thread.join();
    printf("hostile bytes: %llu records, %llu completions, %u connections lost\n",
           static_cast<unsigned long long>(m_peer.records()), static_cast<unsigned long long>(m_ullCompletions.load()),
           m_peer.losses());

    m_peer.setHonest();
    CCall call;
    call.strName = "last";
    const auto end = std::chrono::steady_clock::now() + LIMIT;
    while (!call.pStream && std::chrono::steady_clock::now() < end)
        open(call);
    ASSERT_NE(nullptr, call.pStream);
    play(call);
    ask(call);
    EXPECT_EQ(1u, call.ullPlays);
    EXPECT_FALSE(call.bLost);
    close(call);
}
