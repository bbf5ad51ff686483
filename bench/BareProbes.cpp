// The limits: what the pipes themselves cost to a program that does nothing but read and write them.
#include "BareClient.h"
#include "Probe.h"
#include "Semaphore.h"

#include <poll.h>

#include <thread>
#include <vector>

namespace
{
template <class TOnce> std::chrono::nanoseconds Timed(std::int64_t nOperations, TOnce once)
{
    const auto start = MonotonicNow();
    for (std::int64_t n = 0; n < nOperations; ++n)
        once();
    return MonotonicNow() - start;
}

class CBareExchangeProbe : public CProbe
{
public:
    std::chrono::nanoseconds Run(std::int64_t nOperations) override
    {
        structMICMD cmd = m_client.Request(MICMD_PING);
        structMIRSP rsp;
        return Timed(nOperations, [&] {
            m_client.Write(cmd);
            m_client.ReadResponse(rsp);
        });
    }

private:
    CBareClient m_client;
};

// With the wait of a client that gives up some time.
class CBareWaitingExchangeProbe : public CProbe
{
public:
    std::chrono::nanoseconds Run(std::int64_t nOperations) override
    {
        structMICMD cmd = m_client.Request(MICMD_PING);
        structMIRSP rsp;
        return Timed(nOperations, [&] {
            m_client.Write(cmd);
            pollfd entry = {m_client.ResponseFd(), POLLIN, 0};
            ::poll(&entry, 1, 10000);
            m_client.ReadResponse(rsp);
        });
    }

private:
    CBareClient m_client;
};

// An exchange and one event, on one thread.
class CBarePlayProbe : public CProbe
{
public:
    std::chrono::nanoseconds Run(std::int64_t nOperations) override
    {
        structMICMD cmd = m_client.Play(m_nStreamID, PEER_PLAY_AT_ONCE);
        structMIRSP rsp;
        structMIEVT evt;
        return Timed(nOperations, [&] {
            m_client.Write(cmd);
            m_client.ReadResponse(rsp);
            m_client.ReadEvent(evt);
        });
    }

private:
    CBareClient m_client;
    const std::int32_t m_nStreamID = m_client.OpenStream();
};

// Reads the client's events on a thread of its own, and tells when so many have come.
class CEventReader
{
public:
    explicit CEventReader(CBareClient& client) : m_client(client), m_thread([this] { Read(); }) {}
    ~CEventReader()
    {
        m_client.WriteEvent(structMIEVT{MIEVT_NULL, 0, 0, 0});
        m_thread.join();
    }
    CEventReader(const CEventReader&) = delete;
    CEventReader& operator=(const CEventReader&) = delete;

    // Before the first of them can come.
    void Expect(std::int64_t nEvents) { m_nLeft = nEvents; }

    // Returns when the last one was read.
    std::chrono::nanoseconds Wait()
    {
        m_finished.Wait();
        return m_end;
    }

private:
    void Read()
    {
        structMIEVT evt;
        for (m_client.ReadEvent(evt); evt.s_mievt == MIEVT_DONE; m_client.ReadEvent(evt))
        {
            if (--m_nLeft > 0)
                continue;
            m_end = MonotonicNow();
            m_finished.Post();
        }
    }

    CBareClient& m_client;
    CSemaphore m_finished;
    std::int64_t m_nLeft = 0;
    std::chrono::nanoseconds m_end = {};
    std::thread m_thread;
};

// An exchange on one thread, its event on another, which tells the first.
class CBarePlayAndWaitProbe : public CProbe
{
public:
    std::chrono::nanoseconds Run(std::int64_t nOperations) override
    {
        structMICMD cmd = m_client.Play(m_nStreamID, PEER_PLAY_AT_ONCE);
        structMIRSP rsp;
        const auto start = MonotonicNow();
        for (std::int64_t n = 0; n < nOperations; ++n)
        {
            m_reader.Expect(1);
            m_client.Write(cmd);
            m_client.ReadResponse(rsp);
            m_reader.Wait();
        }
        return MonotonicNow() - start;
    }

private:
    CBareClient m_client;
    const std::int32_t m_nStreamID = m_client.OpenStream();
    CEventReader m_reader{m_client};
};

// Bursts of events, one for each of so many streams, read one by one.
class CBareStormProbe : public CProbe
{
public:
    explicit CBareStormProbe(int nStreams)
    {
        for (int nStream = 0; nStream < nStreams; ++nStream)
            m_vStreams.push_back(m_client.OpenStream());
    }

    std::chrono::nanoseconds Run(std::int64_t nOperations) override
    {
        const auto nStreams = static_cast<std::int64_t>(m_vStreams.size());
        std::chrono::nanoseconds time = {};
        std::int64_t nEvents = 0;
        for (; nEvents < nOperations; nEvents += nStreams)
            time += Storm();
        return time * nOperations / nEvents;
    }

private:
    std::chrono::nanoseconds Storm()
    {
        for (const std::int32_t nStreamID : m_vStreams)
        {
            structMICMD cmd = m_client.Play(nStreamID, PEER_PLAY_HOLD);
            m_client.Exchange(cmd);
        }
        m_reader.Expect(static_cast<std::int64_t>(m_vStreams.size()));
        m_client.Finish(m_client.ConnectID());
        const auto end = m_reader.Wait();
        return end - std::chrono::nanoseconds(m_client.AskTimes().nBurst);
    }

    CBareClient m_client;
    std::vector<std::int32_t> m_vStreams;
    CEventReader m_reader{m_client};
};

// From an event to the next request. The time is taken by the peer.
class CBareHandOverProbe : public CProbe
{
public:
    std::chrono::nanoseconds Run(std::int64_t nOperations) override
    {
        structMICMD cmd = m_client.Play(m_nStreamID, PEER_PLAY_HAND_OVER);
        structMIRSP rsp;
        structMIEVT evt;
        for (std::int64_t n = 0; n <= nOperations; ++n)
        {
            m_client.Write(cmd);
            m_client.ReadResponse(rsp);
            m_client.ReadEvent(evt);
        }
        return std::chrono::nanoseconds(m_client.AskTimes().nHandOverSum);
    }

private:
    CBareClient m_client;
    const std::int32_t m_nStreamID = m_client.OpenStream();
};
} // namespace

void AddBareProbes(CProbeTable& table)
{
    table.Add("exchange/bare", [] { return std::make_unique<CBareExchangeProbe>(); });
    table.Add("exchange/bare-poll", [] { return std::make_unique<CBareWaitingExchangeProbe>(); });
    table.Add("play/bare", [] { return std::make_unique<CBarePlayProbe>(); });
    table.Add("play/bare-wait", [] { return std::make_unique<CBarePlayAndWaitProbe>(); });
    for (const int nStreams : {1, 100, 10000})
    {
        table.Add("storm-" + std::to_string(nStreams) + "/bare",
                  [nStreams] { return std::make_unique<CBareStormProbe>(nStreams); });
    }
    table.Add("handover/bare", [] { return std::make_unique<CBareHandOverProbe>(); });
}
