// The memory that a program has in use, as HeapGauge.cpp counts it, which is linked into the program or
// preloaded: in a file that others may map, if the environment variable ZELMEDIA_HEAP_GAUGE names one.
#ifndef HEAP_GAUGE_H
#define HEAP_GAUGE_H

#include <atomic>
#include <cstdint>

struct CHeapGauge
{
    std::atomic<int64_t> nBlocks{0};
    std::atomic<int64_t> nBytes{0};
};
static_assert(sizeof(CHeapGauge) == 16, "programs of both widths share it");

const CHeapGauge& ownHeapGauge();

#endif
