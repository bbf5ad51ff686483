// How much memory all clips together may take.
#ifndef DRIVER_CLIP_BUDGET_H
#define DRIVER_CLIP_BUDGET_H

#include <atomic>
#include <cstddef>

// Used from any thread. The clips that take of it hold it.
class CClipBudget
{
public:
    explicit CClipBudget(size_t nMax) : m_nMax(nMax) {}

    // False, and nothing is taken, when there is not as much.
    bool take(size_t nBytes)
    {
        size_t nTaken = m_nTaken.load();
        do
            if (nBytes > m_nMax - nTaken)
                return false;
        while (!m_nTaken.compare_exchange_weak(nTaken, nTaken + nBytes));
        return true;
    }

    void giveBack(size_t nBytes) { m_nTaken -= nBytes; }

    size_t taken() const { return m_nTaken; }
    size_t max() const { return m_nMax; }

private:
    const size_t m_nMax;
    std::atomic<size_t> m_nTaken = 0;
};

#endif
