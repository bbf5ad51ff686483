// Counts the memory that the program has in use. Sanitizers watch it themselves.
#include "HeapGauge.h"
#include "AllocationHooks.h"

#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{
CHeapGauge s_early; // until the file is mapped
CHeapGauge* s_pGauge = &s_early;

__attribute__((constructor)) void mapFile()
{
    const char* const pszFile = getenv("ZELMEDIA_HEAP_GAUGE");
    const int nFile = pszFile ? open(pszFile, O_RDWR | O_CLOEXEC) : -1;
    if (nFile < 0)
        return;
    void* const p = mmap(nullptr, sizeof(CHeapGauge), PROT_READ | PROT_WRITE, MAP_SHARED, nFile, 0);
    close(nFile);
    if (p == MAP_FAILED)
        return;
    CHeapGauge* const pGauge = static_cast<CHeapGauge*>(p);
    pGauge->nBlocks = s_early.nBlocks.load();
    pGauge->nBytes = s_early.nBytes.load();
    s_pGauge = pGauge;
}
} // namespace

const CHeapGauge& ownHeapGauge()
{
    return *s_pGauge;
}

void allocationCounts(void* p, int nSign)
{
    s_pGauge->nBlocks += nSign;
    s_pGauge->nBytes += nSign * static_cast<int64_t>(malloc_usable_size(p));
}
