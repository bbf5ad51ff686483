// CSimRandom: the small generator from which a simulation draws everything that is left to chance.
#ifndef SIM_RANDOM_H
#define SIM_RANDOM_H

#include <cstdint>

class CSimRandom
{
public:
    explicit CSimRandom(uint64_t ullSeed) : m_ullState(ullSeed) {}

    uint64_t next()
    {
        uint64_t ull = m_ullState += 0x9E3779B97F4A7C15u;
        ull = (ull ^ (ull >> 30)) * 0xBF58476D1CE4E5B9u;
        ull = (ull ^ (ull >> 27)) * 0x94D049BB133111EBu;
        return ull ^ (ull >> 31);
    }
    unsigned int below(unsigned int nLimit) { return static_cast<unsigned int>(next() % nLimit); }
    bool oneIn(unsigned int nTimes) { return below(nTimes) == 0; }
    bool perMille(unsigned int nPerMille) { return below(1000) < nPerMille; }

    template <class T, unsigned int SIZE> T pick(const T (&aValues)[SIZE]) { return aValues[below(SIZE)]; }

private:
    uint64_t m_ullState;
};

#endif
