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
    void Expect(std::int64_t nCompletions) { m_nLeft = nCompletions; }

    // Returns when the last one came.
    std::chrono::nanoseconds Wait()
    {
        m_finished.Wait();
        if (m_bFailed)
            throw std::runtime_error("a play failed");
        return m_end;
    }

private:
    void OnCompletion(CZelMediaStream*, MCSTATUS mcstatus) override
    {
        if (mcstatus != MCS_OK)
            m_bFailed = true;
        if (--m_nLeft > 0)
            return;
        m_end = MonotonicNow();
        m_finished.Post();
    }

    CSemaphore m_finished;
    std::int64_t m_nLeft = 0;
    std::chrono::nanoseconds m_end = {};
    bool m_bFailed = false;
};

// Open streams, which the probes of one size share.
class CStreams
{
public:
    static std::shared_ptr<CStreams> Share(int nStreams)
    {
        static std::weak_ptr<CStreams> pShared;
        std::shared_ptr<CStreams> pStreams = pShared.lock();
        if (!pStreams || pStreams->m_vpStreams.size() != static_cast<std::size_t>(nStreams))
            pStreams = std::make_shared<CStreams>(nStreams);
        pShared = pStreams;
        return pStreams;
    }

    explicit CStreams(int nStreams)
    {
        for (int nStream = 0; nStream < nStreams; ++nStream)
            m_vpStreams.push_back(m_library.OpenStream());
    }
    ~CStreams()
    {
        for (CZelMediaStream* const pStream : m_vpStreams)
            m_library.CloseStream(pStream);
    }
    CStreams(const CStreams&) = delete;
    CStreams& operator=(const CStreams&) = delete;

    const std::vector<CZelMediaStream*>& All() const { return m_vpStreams; }

private:
    CLibraryUnderTest& m_library = CLibraryUnderTest::Get();
    std::vector<CZelMediaStream*> m_vpStreams;
};

// The plays of all streams end in one burst: from the first event's writing to the last callback.
class CStormProbe : public CLibraryProbe
{
public:
    CStormProbe(ETrace trace, int nStreams) : CLibraryProbe(trace), m_pStreams(CStreams::Share(nStreams)) {}

private:
    std::chrono::nanoseconds Measure(std::int64_t nOperations) override
    {
        const CListening listening(m_library, m_counter);
        const auto nStreams = static_cast<std::int64_t>(m_pStreams->All().size());
        std::chrono::nanoseconds time = {};
        std::int64_t nEvents = 0;
        for (; nEvents < nOperations; nEvents += nStreams)
            time += Storm(nStreams);
        return time * nOperations / nEvents;
    }

    std::chrono::nanoseconds Storm(std::int64_t nStreams)
    {
        for (CZelMediaStream* const pStream : m_pStreams->All())
            m_library.Play(pStream, PEER_PLAY_HOLD);
        m_counter.Expect(nStreams);
        m_peer.Finish(m_library.Interface().connectID());
        const auto end = m_counter.Wait();
        return end - std::chrono::nanoseconds(m_peer.AskTimes().nBurst);
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
    explicit CHandOverProbe(ETrace trace) : CLibraryProbe(trace), m_pStream(m_library.OpenStream()) {}
    ~CHandOverProbe() override { m_library.CloseStream(m_pStream); }

private:
    static constexpr std::int64_t LONGEST_QUEUE = 500;

    std::chrono::nanoseconds Measure(std::int64_t nOperations) override
    {
        const CListening listening(m_library, m_counter);
        std::chrono::nanoseconds time = {};
        std::int64_t nHandOvers = 0;
        while (nHandOvers < nOperations)
        {
            const CPeerTimes times = EmptyQueue(std::min(nOperations - nHandOvers, LONGEST_QUEUE) + 1);
            time += std::chrono::nanoseconds(times.nHandOverSum);
            nHandOvers += times.nHandOvers;
        }
        return time;
    }

    // The queue fills up behind a play that waits, and then empties by itself.
    CPeerTimes EmptyQueue(std::int64_t nPlays)
    {
        m_counter.Expect(nPlays + 1);
        m_library.Play(m_pStream, PEER_PLAY_HOLD);
        for (std::int64_t nPlay = 0; nPlay < nPlays; ++nPlay)
            m_library.Play(m_pStream, PEER_PLAY_HAND_OVER);
        m_peer.Finish(m_library.Interface().connectID());
        m_counter.Wait();
        return m_peer.AskTimes();
    }

    CZelMediaStream* const m_pStream;
    CCompletionCounter m_counter;
    CBareClient m_peer;
};
} // namespace

void AddEventProbes(CProbeTable& table)
{
    for (const int nStreams : {1, 100, 10000})
        AddLibraryProbes<CStormProbe>(table, "storm-" + std::to_string(nStreams) + "/library", nStreams);
    AddLibraryProbes<CHandOverProbe>(table, "handover/library");
}
