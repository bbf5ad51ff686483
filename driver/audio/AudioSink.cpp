// Audio on its way into a file: the media tick puts it into memory, the disk's thread writes it.
#include "AudioSink.h"

#include <algorithm>
#include <exception>
#include <new>

namespace
{
constexpr std::size_t SERVICE_SAMPLES = CAudioSink::CAPACITY / 8;
} // namespace

void CAudioSink::Open(CExecutor& disk, const std::string& strPath, OpenFunction done)
{
    struct COpened
    {
        std::unique_ptr<CAudioWriter> m_pWriter;
        std::string m_strError;
    };
    const auto pOpened = std::make_shared<COpened>();
    disk.Post(
        [strPath, pOpened] {
            try
            {
                pOpened->m_pWriter = CAudioWriter::Create(strPath, pOpened->m_strError);
            }
            catch (const std::exception& exception)
            {
                pOpened->m_strError = exception.what();
            }
        },
        [&disk, pOpened, done = std::move(done)] {
            done(pOpened->m_pWriter ? std::make_shared<CAudioSink>(disk, std::move(pOpened->m_pWriter)) : nullptr,
                 pOpened->m_strError);
        });
}

CAudioSink::CAudioSink(CExecutor& disk, std::unique_ptr<CAudioWriter> pWriter)
    : m_disk(disk), m_pWriter(std::move(pWriter)), m_pbRing(std::make_unique_for_overwrite<std::uint8_t[]>(CAPACITY))
{
}

std::size_t CAudioSink::Put(std::span<const std::uint8_t> samples)
{
    const std::size_t nCount = std::min(samples.size(), Room());
    const std::size_t nPut = m_nPut.load(std::memory_order_relaxed);
    const std::size_t nAt = nPut % CAPACITY;
    const std::size_t nFirst = std::min(nCount, CAPACITY - nAt);
    std::copy_n(samples.data(), nFirst, m_pbRing.get() + nAt);
    std::copy_n(samples.data() + nFirst, nCount - nFirst, m_pbRing.get());
    m_nPut.store(nPut + nCount, std::memory_order_release);
    return nCount;
}

std::size_t CAudioSink::Room() const
{
    return CAPACITY - (m_nPut.load(std::memory_order_relaxed) - m_nWritten.load(std::memory_order_acquire));
}

bool CAudioSink::HasFailed() const
{
    return m_bFailed.load(std::memory_order_relaxed);
}

bool CAudioSink::WantsService() const
{
    return !m_bServicePosted && CAPACITY - Room() >= SERVICE_SAMPLES;
}

void CAudioSink::Service()
{
    m_bServicePosted = true;
    m_disk.Post([pThis = shared_from_this()] { pThis->Drain(); },
                [pThis = shared_from_this()] { pThis->m_bServicePosted = false; });
}

void CAudioSink::Update(DoneFunction done)
{
    PostDrain(&CAudioWriter::Update, std::move(done));
}

void CAudioSink::Close(DoneFunction done)
{
    PostDrain(&CAudioWriter::Close, std::move(done));
}

void CAudioSink::PostDrain(bool (CAudioWriter::*finish)(), DoneFunction done)
{
    m_disk.Post(
        [pThis = shared_from_this(), finish] {
            pThis->Drain();
            if (!(*pThis->m_pWriter.*finish)())
            {
                pThis->m_bFailed.store(true, std::memory_order_relaxed);
            }
        },
        [pThis = shared_from_this(), done = std::move(done)] { done(!pThis->HasFailed()); });
}

void CAudioSink::Drain()
{
    std::size_t nWritten = m_nWritten.load(std::memory_order_relaxed);
    const std::size_t nPut = m_nPut.load(std::memory_order_acquire);
    while (nWritten < nPut)
    {
        const std::size_t nAt = nWritten % CAPACITY;
        const std::size_t nCount = std::min(nPut - nWritten, CAPACITY - nAt);
        // A file that failed takes no more, so that it holds the beginning and not pieces.
        if (!HasFailed() && !Write({m_pbRing.get() + nAt, nCount}))
        {
            m_bFailed.store(true, std::memory_order_relaxed);
        }
        nWritten += nCount;
        m_nWritten.store(nWritten, std::memory_order_release);
    }
}

bool CAudioSink::Write(std::span<const std::uint8_t> samples)
{
    try
    {
        return m_pWriter->Write(samples);
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
}
