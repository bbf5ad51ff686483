// Audio on its way into a file: the media tick puts it into memory, the disk's thread writes it.
#include "AudioSink.h"

#include "OpenFile.h"

#include <algorithm>
#include <new>

namespace
{
constexpr size_t SERVICE_SAMPLES = CAudioSink::CAPACITY / 8;
} // namespace

void CAudioSink::open(CExecutor& disk, const std::string& strPath, OpenFunction done, unsigned nChannels)
{
    std::string strError;
    if (!CAudioWriter::hasFormat(strPath, strError))
    {
        done(nullptr, strError);
        return;
    }
    const auto ppSink = std::make_shared<std::shared_ptr<CAudioSink>>();
    openFile(
        disk, strPath, CAudioWriter::OPEN_FLAGS,
        [strPath, ppSink, nChannels](CFd fd, const struct stat&, std::string& strReason) {
            if (auto pWriter = CAudioWriter::create(std::move(fd), strPath, strReason, nChannels))
                *ppSink = std::make_shared<CAudioSink>(std::move(pWriter));
            return *ppSink != nullptr;
        },
        [ppSink, done = std::move(done)](const COpenResult& result) {
            if (*ppSink)
                (*ppSink)->m_pLane = result.m_pLane;
            done(std::move(*ppSink), result.m_strError);
        });
}

CAudioSink::CAudioSink(std::unique_ptr<CAudioWriter> pWriter)
    : m_pWriter(std::move(pWriter)), m_pbRing(std::make_unique_for_overwrite<uint8_t[]>(CAPACITY))
{
}

size_t CAudioSink::put(std::span<const uint8_t> samples)
{
    const size_t nCount = std::min(samples.size(), room());
    const size_t nPut = m_nPut.load(std::memory_order_relaxed);
    const size_t nAt = nPut % CAPACITY;
    const size_t nFirst = std::min(nCount, CAPACITY - nAt);
    std::copy_n(samples.data(), nFirst, m_pbRing.get() + nAt);
    std::copy_n(samples.data() + nFirst, nCount - nFirst, m_pbRing.get());
    m_nPut.store(nPut + nCount, std::memory_order_release);
    return nCount;
}

size_t CAudioSink::room() const
{
    return CAPACITY - (m_nPut.load(std::memory_order_relaxed) - m_nWritten.load(std::memory_order_acquire));
}

bool CAudioSink::hasFailed() const
{
    return m_bFailed.load(std::memory_order_relaxed);
}

bool CAudioSink::wantsService() const
{
    return !m_bServicePosted && CAPACITY - room() >= SERVICE_SAMPLES;
}

void CAudioSink::service()
{
    m_bServicePosted = true;
    m_pLane->post([pThis = shared_from_this()] { pThis->drain(); },
                  [pThis = shared_from_this()] { pThis->m_bServicePosted = false; });
}

void CAudioSink::update(DoneFunction done)
{
    postDrain(&CAudioWriter::update, std::move(done));
}

void CAudioSink::close(DoneFunction done)
{
    postDrain(&CAudioWriter::close, std::move(done));
}

void CAudioSink::postDrain(bool (CAudioWriter::*finish)(), DoneFunction done)
{
    m_pLane->post(
        [pThis = shared_from_this(), finish] {
            pThis->drain();
            if (!(*pThis->m_pWriter.*finish)())
                pThis->m_bFailed.store(true, std::memory_order_relaxed);
        },
        [pThis = shared_from_this(), done = std::move(done)] { done(!pThis->hasFailed()); });
}

void CAudioSink::drain()
{
    size_t nWritten = m_nWritten.load(std::memory_order_relaxed);
    const size_t nPut = m_nPut.load(std::memory_order_acquire);
    while (nWritten < nPut)
    {
        const size_t nAt = nWritten % CAPACITY;
        const size_t nCount = std::min(nPut - nWritten, CAPACITY - nAt);
        // A file that failed takes no more, so that it holds the beginning and not pieces.
        if (!hasFailed() && !write({m_pbRing.get() + nAt, nCount}))
            m_bFailed.store(true, std::memory_order_relaxed);
        nWritten += nCount;
        m_nWritten.store(nWritten, std::memory_order_release);
    }
}

bool CAudioSink::write(std::span<const uint8_t> samples)
{
    try
    {
        return m_pWriter->write(samples);
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
}
