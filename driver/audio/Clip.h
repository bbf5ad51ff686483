// An audio file in memory, which can be played while it is still being decoded.
#ifndef DRIVER_CLIP_H
#define DRIVER_CLIP_H

#include "ClipBudget.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

// µ-law, 8000 samples per second. One thread appends, any number of others reads. What is there never
// changes; whoever holds the clip may go on playing after the file was closed, changed or deleted.
class CClip
{
public:
    // The memory is given back to the budget, if there is one: what is not needed at the end of the decoding, and
    // the rest with the clip. nCapacity was taken of it.
    CClip(std::string strPath, size_t nCapacity, std::shared_ptr<CClipBudget> pBudget = nullptr)
        : m_strPath(std::move(strPath)), m_nCapacity(nCapacity), m_pBudget(std::move(pBudget)),
          m_pbSamples(std::make_unique_for_overwrite<uint8_t[]>(nCapacity))
    {
    }
    ~CClip()
    {
        if (m_pBudget)
            m_pBudget->giveBack(isDecoded() ? ready() : m_nCapacity);
    }
    CClip(const CClip&) = delete;
    CClip& operator=(const CClip&) = delete;

    const std::string& path() const { return m_strPath; }

    // Number of samples that can be played so far.
    size_t ready() const { return m_nReady.load(std::memory_order_acquire); }
    const uint8_t* samples() const { return m_pbSamples.get(); }

    // No more samples will come: Ready, asked for after this, is the length. A broken clip has lost its
    // end to an error of the file.
    bool isDecoded() const { return m_eState.load(std::memory_order_acquire) != EState::Decoding; }
    bool isBroken() const { return m_eState.load(std::memory_order_acquire) == EState::Broken; }

    // For the decoding thread: room for the next samples, their publication, and the end.
    std::span<uint8_t> room() { return {m_pbSamples.get() + ready(), m_nCapacity - ready()}; }
    void publish(size_t nSamples) { m_nReady.fetch_add(nSamples, std::memory_order_release); }
    void end(bool bBroken)
    {
        if (m_pBudget)
            m_pBudget->giveBack(m_nCapacity - ready());
        m_eState.store(bBroken ? EState::Broken : EState::Complete, std::memory_order_release);
    }

private:
    enum class EState
    {
        Decoding,
        Complete,
        Broken
    };

    const std::string m_strPath;
    const size_t m_nCapacity;
    const std::shared_ptr<CClipBudget> m_pBudget;
    const std::unique_ptr<uint8_t[]> m_pbSamples; // memory that is not written yet is not in use
    std::atomic<size_t> m_nReady = 0;
    std::atomic<EState> m_eState = EState::Decoding;
};

using CClipPtr = std::shared_ptr<const CClip>;

#endif
