// The limits: what the pipes themselves cost to a program that does nothing but read and write them.
#include "BareClient.h"
#include "Probe.h"
#include "Semaphore.h"

#include <poll.h>

#include <thread>
#include <vector>

namespace
{
template <class TOnce> std::chrono::nanoseconds timed(int64_t nOperations, TOnce once)
{
    const auto start = monotonicNow();
    for (int64_t n = 0; n < nOperations; ++n)
        once();
    return monotonicNow() - start;
}

class CBareExchangeProbe : public CProbe
{
public:
    std::chrono::nanoseconds run(int64_t nOperations) override
    {
        structMICMD cmd = m_client.request(MICMD_PING);
        structMIRSP rsp;
        return timed(nOperations, [&] {
            m_client.write(cmd);
            m_client.readResponse(rsp);
        });
    }

private:
    CBareClient m_client;
};

// With the wait of a client that gives up some time.
class CBareWaitingExchangeProbe : public CProbe
{
public:
    std::chrono::nanoseconds run(int64_t nOperations) override
    {
        structMICMD cmd = m_client.request(MICMD_PING);
        structMIRSP rsp;
        return timed(nOperations, [&] {
            m_client.write(cmd);
            pollfd entry = {m_client.responseFd(), POLLIN, 0};
            ::poll(&entry, 1, 10000);
            m_client.readResponse(rsp);
        });
    }

private:
    CBareClient m_client;
};

// An exchange and one event, on one thread.
class CBarePlayProbe : public CProbe
{
public:
    std::chrono::nanoseconds run(int64_t nOperations) override
    {
        structMICMD cmd = m_client.play(m_nStreamID, PEER_PLAY_AT_ONCE);
        structMIRSP rsp;
        structMIEVT evt;
        return timed(nOperations, [&] {
            m_client.write(cmd);
            m_client.readResponse(rsp);
            m_client.readEvent(evt);
        });
    }

private:
    CBareClient m_client;
    const int32_t m_nStreamID = m_client.openStream();
};

// Reads the client's events on a thread of its own, and tells when so many have come.
class CEventReader
{
public:
    explicit CEventReader(CBareClient& client) : m_client(client), m_thread([this] { read(); }) {}
    ~CEventReader()
    {
        m_client.writeEvent(structMIEVT{MIEVT_NULL, 0, 0, 0});
        m_thread.join();
    }
    CEventReader(const CEventReader&) = delete;
    CEventReader& operator=(const CEventReader&) = delete;

    // Before the first of them can come.
    void expect(int64_t nEvents) { m_nLeft = nEvents; }

    // Returns when the last one was read.
    std::chrono::nanoseconds wait()
    {
        m_finished.wait();
        return m_end;
    }

private:
    void read()
    {
        structMIEVT evt;
        for (m_client.readEvent(evt); evt.s_mievt == MIEVT_DONE; m_client.readEvent(evt))
        {
            if (--m_nLeft > 0)
                continue;
            m_end = monotonicNow();
            m_finished.post();
        }
    }

    CBareClient& m_client;
    CSemaphore m_finished;
    int64_t m_nLeft = 0;
    std::chrono::nanoseconds m_end = {};
    std::thread m_thread;
};

// An exchange on one thread, its event on another, which tells the first.
class CBarePlayAndWaitProbe : public CProbe
{
public:
    std::chrono::nanoseconds run(int64_t nOperations) override
    {
        structMICMD cmd = m_client.play(m_nStreamID, PEER_PLAY_AT_ONCE);
        structMIRSP rsp;
        const auto start = monotonicNow();
        for (int64_t n = 0; n < nOperations; ++n)
        {
            m_reader.expect(1);
            m_client.write(cmd);
            m_client.readResponse(rsp);
            m_reader.wait();
        }
        return monotonicNow() - start;
    }

private:
    CBareClient m_client;
    const int32_t m_nStreamID = m_client.openStream();
    CEventReader m_reader{m_client};
};

// Bursts of events, one for each of so many streams, read one by one.
class CBareStormProbe : public CProbe
{
public:
    explicit CBareStormProbe(int nStreams)
    {
        for (int nStream = 0; nStream < nStreams; ++nStream)
            m_vStreams.push_back(m_client.openStream());
    }

    std::chrono::nanoseconds run(int64_t nOperations) override
    {
        const auto nStreams = static_cast<int64_t>(m_vStreams.size());
        std::chrono::nanoseconds time = {};
        int64_t nEvents = 0;
        for (; nEvents < nOperations; nEvents += nStreams)
            time += storm();
        return time * nOperations / nEvents;
    }

private:
    std::chrono::nanoseconds storm()
    {
        for (const int32_t nStreamID : m_vStreams)
        {
            structMICMD cmd = m_client.play(nStreamID, PEER_PLAY_HOLD);
            m_client.exchange(cmd);
        }
        m_reader.expect(static_cast<int64_t>(m_vStreams.size()));
        m_client.finish(m_client.connectId());
        const auto end = m_reader.wait();
        return end - std::chrono::nanoseconds(m_client.askTimes().nBurst);
    }

    CBareClient m_client;
    std::vector<int32_t> m_vStreams;
    CEventReader m_reader{m_client};
};

// From an event to the next request. The time is taken by the peer.
class CBareHandOverProbe : public CProbe
{
public:
    std::chrono::nanoseconds run(int64_t nOperations) override
    {
        structMICMD cmd = m_client.play(m_nStreamID, PEER_PLAY_HAND_OVER);
        structMIRSP rsp;
        structMIEVT evt;
        for (int64_t n = 0; n <= nOperations; ++n)
        {
            m_client.write(cmd);
            m_client.readResponse(rsp);
            m_client.readEvent(evt);
        }
        return std::chrono::nanoseconds(m_client.askTimes().nHandOverSum);
    }

private:
    CBareClient m_client;
    const int32_t m_nStreamID = m_client.openStream();
};
} // namespace

void addBareProbes(CProbeTable& table)
{
    table.add(
        "exchange/bare", [] { return std::make_unique<CBareExchangeProbe>(); });
    table.add(
        "exchange/bare-poll", [] { return std::make_unique<CBareWaitingExchangeProbe>(); });
    table.add(
        "play/bare", [] { return std::make_unique<CBarePlayProbe>(); });
    table.add("play/bare-wait", [] { return std::make_unique<CBarePlayAndWaitProbe>(); });
    for (const int nStreams : {1, 100, 10000})
    {
        table.add(
            "storm-" + std::to_string(nStreams) + "/bare",
            [nStreams] { return std::make_unique<CBareStormProbe>(nStreams); });
    }
    table.add("handover/bare", [] { return std::make_unique<CBareHandOverProbe>(); });
}
