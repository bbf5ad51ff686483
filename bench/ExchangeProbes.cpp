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

    std::chrono::nanoseconds Measure(std::int64_t nOperations) override
    {
        CMIntf& interface = m_library.Interface();
        const auto start = MonotonicNow();
        for (std::int64_t n = 0; n < nOperations; ++n)
        {
            if (interface.ping() != MCS_OK)
                throw std::runtime_error("a ping failed");
        }
        return MonotonicNow() - start;
    }
};

class CStreamProbe : public CLibraryProbe
{
public:
    explicit CStreamProbe(ETrace trace) : CLibraryProbe(trace), m_pStream(m_library.OpenStream()) {}
    ~CStreamProbe() override { m_library.CloseStream(m_pStream); }

protected:
    CZelMediaStream* const m_pStream;
};

class CStatusProbe : public CStreamProbe
{
    using CStreamProbe::CStreamProbe;

    std::chrono::nanoseconds Measure(std::int64_t nOperations) override
    {
        const auto start = MonotonicNow();
        for (std::int64_t n = 0; n < nOperations; ++n)
        {
            if (m_pStream->recordGetStatus() != 1)
                throw std::runtime_error("a status query failed");
        }
        return MonotonicNow() - start;
    }
};

// The completion of each play starts the next one, so that all is done by the library's event thread.
class CPlayFromCallbackProbe : public CStreamProbe, private CLibraryUnderTest::CListener
{
    using CStreamProbe::CStreamProbe;

    std::chrono::nanoseconds Measure(std::int64_t nOperations) override
    {
        const CListening listening(m_library, *this);
        m_nLeft = nOperations;
        m_bFailed = false;
        const auto start = MonotonicNow();
        m_library.Play(m_pStream, PEER_PLAY_AT_ONCE);
        m_finished.Wait();
        if (m_bFailed)
            throw std::runtime_error("a play failed");
        return m_end - start;
    }

    void OnCompletion(CZelMediaStream*, MCSTATUS mcstatus) override
    {
        try
        {
            m_bFailed = mcstatus != MCS_OK;
            if (!m_bFailed && --m_nLeft > 0)
                return m_library.Play(m_pStream, PEER_PLAY_AT_ONCE);
        }
        catch (const std::exception&)
        {
            m_bFailed = true;
        }
        m_end = MonotonicNow();
        m_finished.Post();
    }

    CSemaphore m_finished;
    std::int64_t m_nLeft = 0;
    std::chrono::nanoseconds m_end = {};
    bool m_bFailed = false;
};

// A thread of the application plays and waits for the completion.
class CPlayAndWaitProbe : public CStreamProbe, private CLibraryUnderTest::CListener
{
    using CStreamProbe::CStreamProbe;

    std::chrono::nanoseconds Measure(std::int64_t nOperations) override
    {
        const CListening listening(m_library, *this);
        const auto start = MonotonicNow();
        for (std::int64_t n = 0; n < nOperations; ++n)
        {
            m_library.Play(m_pStream, PEER_PLAY_AT_ONCE);
            m_finished.Wait();
        }
        const auto time = MonotonicNow() - start;
        if (m_bFailed)
            throw std::runtime_error("a play failed");
        return time;
    }

    void OnCompletion(CZelMediaStream*, MCSTATUS mcstatus) override
    {
        if (mcstatus != MCS_OK)
            m_bFailed = true;
        m_finished.Post();
    }

    CSemaphore m_finished;
    std::atomic<bool> m_bFailed = false;
};
} // namespace

void AddExchangeProbes(CProbeTable& table)
{
    AddLibraryProbes<CPingProbe>(table, "exchange/ping");
    AddLibraryProbes<CStatusProbe>(table, "exchange/status");
    AddLibraryProbes<CPlayFromCallbackProbe>(table, "play/callback");
    AddLibraryProbes<CPlayAndWaitProbe>(table, "play/wait");
}
