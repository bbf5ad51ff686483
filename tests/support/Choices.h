// CChoices: where a random run takes its decisions from, a generator or a fuzzer.
#ifndef CHOICES_H
#define CHOICES_H

#include <cstddef>
#include <cstdint>
#include <vector>

class CChoices
{
public:
    virtual ~CChoices() = default;

    virtual uint32_t below(uint32_t nLimit) = 0; // 0 once there is nothing left to draw from
    virtual std::vector<uint8_t> bytes(size_t nBytes) = 0;

    bool oneIn(uint32_t nTimes) { return below(nTimes) == nTimes - 1; }
    bool perMille(uint32_t nPerMille) { return below(1000) < nPerMille; }
    uint32_t word()
    {
        const uint32_t nHigh = below(0x10000);
        return nHigh << 16 | below(0x10000);
    }
    template <class T, size_t SIZE> T pick(const T (&aValues)[SIZE]) { return aValues[below(SIZE)]; }
};

class CRandomChoices : public CChoices
{
public:
    explicit CRandomChoices(uint64_t ullSeed) : m_ullState(ullSeed) {}

    uint32_t below(uint32_t nLimit) override { return static_cast<uint32_t>(next() % nLimit); }
    std::vector<uint8_t> bytes(size_t nBytes) override
    {
        std::vector<uint8_t> vBytes(nBytes);
        for (uint8_t& b : vBytes)
            b = static_cast<uint8_t>(next());
        return vBytes;
    }

    uint64_t next()
    {
        uint64_t ull = m_ullState += 0x9E3779B97F4A7C15u;
        ull = (ull ^ (ull >> 30)) * 0xBF58476D1CE4E5B9u;
        ull = (ull ^ (ull >> 27)) * 0x94D049BB133111EBu;
        return ull ^ (ull >> 31);
    }

private:
    uint64_t m_ullState;
};

#endif
