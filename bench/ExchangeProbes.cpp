// Requests and their answers, plays and their completions, through the library.
#include "BareClient.h"
#include "LibraryProbe.h"
#include "Semaphore.h"

#include <atomic>
#include <stdexcept>

namespace
{
class CPingProbe : public CLibraryProbe
{
    using CLibraryProbe::CLibraryProbe;

    std::chrono::nanoseconds measure(int64_t nOperations) override
    {
        CMIntf& interface = m_library.interface();
        const auto start = monotonicNow();
        for (int64_t n = 0; n < nOperations; ++n)
            if (interface.ping() != MCS_OK)
                throw std::runtime_error("a ping failed");
        return monotonicNow() - start;
    }
};

class CStreamProbe : public CLibraryProbe
{
public:
    explicit CStreamProbe(ETrace trace) : CLibraryProbe(trace), m_pStream(m_library.openStream()) {}
    ~CStreamProbe() override { m_library.closeStream(m_pStream); }

protected:
    CZelMediaStream* const m_pStream;
};

class CStatusProbe : public CStreamProbe
{
    using CStreamProbe::CStreamProbe;

    std::chrono::nanoseconds measure(int64_t nOperations) override
    {
        const auto start = monotonicNow();
        for (int64_t n = 0; n < nOperations; ++n)
            if (m_pStream->recordGetStatus() != 1)
                throw std::runtime_error("a status query failed");
        return monotonicNow() - start;
    }
};

// The completion of each play starts the next one, so that all is done by the library's event thread.
class CPlayFromCallbackProbe : public CStreamProbe, private CLibraryUnderTest::CListener
{
    using CStreamProbe::CStreamProbe;

    std::chrono::nanoseconds measure(int64_t nOperations) override
    {
        const CListening listening(m_library, *this);
        m_nLeft = nOperations;
        m_bFailed = false;
        const auto start = monotonicNow();
        m_library.play(m_pStream, PEER_PLAY_AT_ONCE);
        m_finished.wait();
        if (m_bFailed)
            throw std::runtime_error("a play failed");
        return m_end - start;
    }

    void onCompletion(CZelMediaStream*, MCSTATUS mcstatus) override
    {
        try
        {
            m_bFailed = mcstatus != MCS_OK;
            if (!m_bFailed && --m_nLeft > 0)
                return m_library.play(m_pStream, PEER_PLAY_AT_ONCE);
        }
        catch (const std::exception&)
        {
            m_bFailed = true;
        }
        m_end = monotonicNow();
        m_finished.post();
    }

    CSemaphore m_finished;
    int64_t m_nLeft = 0;
    std::chrono::nanoseconds m_end = {};
    bool m_bFailed = false;
};

// A thread of the application plays and waits for the completion.
class CPlayAndWaitProbe : public CStreamProbe, private CLibraryUnderTest::CListener
{
    using CStreamProbe::CStreamProbe;

    std::chrono::nanoseconds measure(int64_t nOperations) override
    {
        const CListening listening(m_library, *this);
        const auto start = monotonicNow();
        for (int64_t n = 0; n < nOperations; ++n)
        {
            m_library.play(m_pStream, PEER_PLAY_AT_ONCE);
            m_finished.wait();
        }
        const auto time = monotonicNow() - start;
        if (m_bFailed)
            throw std::runtime_error("a play failed");
        return time;
    }

    void onCompletion(CZelMediaStream*, MCSTATUS mcstatus) override
    {
        if (mcstatus != MCS_OK)
            m_bFailed = true;
        m_finished.post();
    }

    CSemaphore m_finished;
    std::atomic<bool> m_bFailed = false;
};
} // namespace

void addExchangeProbes(CProbeTable& table)
{
    addLibraryProbes<CPingProbe>(table, "exchange/ping");
    addLibraryProbes<CStatusProbe>(table, "exchange/status");
    addLibraryProbes<CPlayFromCallbackProbe>(table, "play/callback");
    addLibraryProbes<CPlayAndWaitProbe>(table, "play/wait");
}
