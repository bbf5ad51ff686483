// Completions that come in storms, and queues that move on, through the library.
#include "BareClient.h"
#include "LibraryProbe.h"
#include "Semaphore.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <vector>

namespace
{
// Counts completions and tells when all have come.
class CCompletionCounter : public CLibraryUnderTest::CListener
{
public:
    // Before the first of them can come.
    void expect(int64_t nCompletions) { m_nLeft = nCompletions; }

    // Returns when the last one came.
    std::chrono::nanoseconds wait()
    {
        m_finished.wait();
        if (m_bFailed)
            throw std::runtime_error("a play failed");
        return m_end;
    }

private:
    void onCompletion(CZelMediaStream*, MCSTATUS mcstatus) override
    {
        if (mcstatus != MCS_OK)
            m_bFailed = true;
        if (--m_nLeft > 0)
            return;
        m_end = monotonicNow();
        m_finished.post();
    }

    CSemaphore m_finished;
    int64_t m_nLeft = 0;
    std::chrono::nanoseconds m_end = {};
    bool m_bFailed = false;
};

// Open streams, which the probes of one size share.
class CStreams
{
public:
    static std::shared_ptr<CStreams> share(int nStreams)
    {
        static std::weak_ptr<CStreams> pShared;
        std::shared_ptr<CStreams> pStreams = pShared.lock();
        if (!pStreams || pStreams->m_vpStreams.size() != static_cast<size_t>(nStreams))
            pStreams = std::make_shared<CStreams>(nStreams);
        pShared = pStreams;
        return pStreams;
    }

    explicit CStreams(int nStreams)
    {
        for (int nStream = 0; nStream < nStreams; ++nStream)
            m_vpStreams.push_back(m_library.openStream());
    }
    ~CStreams()
    {
        for (CZelMediaStream* const pStream : m_vpStreams)
            m_library.closeStream(pStream);
    }
    CStreams(const CStreams&) = delete;
    CStreams& operator=(const CStreams&) = delete;

    const std::vector<CZelMediaStream*>& all() const { return m_vpStreams; }

private:
    CLibraryUnderTest& m_library = CLibraryUnderTest::get();
    std::vector<CZelMediaStream*> m_vpStreams;
};

// The plays of all streams end in one burst: from the first event's writing to the last callback.
class CStormProbe : public CLibraryProbe
{
public:
    CStormProbe(ETrace trace, int nStreams) : CLibraryProbe(trace), m_pStreams(CStreams::share(nStreams)) {}

private:
    std::chrono::nanoseconds measure(int64_t nOperations) override
    {
        const CListening listening(m_library, m_counter);
        const auto nStreams = static_cast<int64_t>(m_pStreams->all().size());
        std::chrono::nanoseconds time = {};
        int64_t nEvents = 0;
        for (; nEvents < nOperations; nEvents += nStreams)
            time += storm(nStreams);
        return time * nOperations / nEvents;
    }

    std::chrono::nanoseconds storm(int64_t nStreams)
    {
        for (CZelMediaStream* const pStream : m_pStreams->all())
            m_library.play(pStream, PEER_PLAY_HOLD);
        m_counter.expect(nStreams);
        m_peer.finish(m_library.interface().connectID());
        const auto end = m_counter.wait();
        return end - std::chrono::nanoseconds(m_peer.askTimes().nBurst);
    }

    const std::shared_ptr<CStreams> m_pStreams;
    CCompletionCounter m_counter;
    CBareClient m_peer;
};

// A stream with an active play and queued ones: from the end of one to the request of the next, with the callback in
// between. The time is taken by the peer.
class CHandOverProbe : public CLibraryProbe
{
public:
    explicit CHandOverProbe(ETrace trace) : CLibraryProbe(trace), m_pStream(m_library.openStream()) {}
    ~CHandOverProbe() override { m_library.closeStream(m_pStream); }

private:
    static constexpr int64_t LONGEST_QUEUE = 500;

    std::chrono::nanoseconds measure(int64_t nOperations) override
    {
        const CListening listening(m_library, m_counter);
        std::chrono::nanoseconds time = {};
        int64_t nHandOvers = 0;
        while (nHandOvers < nOperations)
        {
            const CPeerTimes times = emptyQueue(std::min(nOperations - nHandOvers, LONGEST_QUEUE) + 1);
            time += std::chrono::nanoseconds(times.nHandOverSum);
            nHandOvers += times.nHandOvers;
        }
        return time;
    }

    // The queue fills up behind a play that waits, and then empties by itself.
    CPeerTimes emptyQueue(int64_t nPlays)
    {
        m_counter.expect(nPlays + 1);
        m_library.play(m_pStream, PEER_PLAY_HOLD);
        for (int64_t nPlay = 0; nPlay < nPlays; ++nPlay)
            m_library.play(m_pStream, PEER_PLAY_HAND_OVER);
        m_peer.finish(m_library.interface().connectID());
        m_counter.wait();
        return m_peer.askTimes();
    }

    CZelMediaStream* const m_pStream;
    CCompletionCounter m_counter;
    CBareClient m_peer;
};
} // namespace

void addEventProbes(CProbeTable& table)
{
    for (const int nStreams : {1, 100, 10000})
        addLibraryProbes<CStormProbe>(table, "storm-" + std::to_string(nStreams) + "/library", nStreams);
    addLibraryProbes<CHandOverProbe>(table, "handover/library");
}
