// Counts the memory that the program has in use. Sanitizers watch it themselves, and have their own malloc.
#include "HeapGauge.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#define EXPORTED extern "C" __attribute__((visibility("default")))

extern "C"
{
    void* __libc_malloc(size_t nBytes);
    void* __libc_calloc(size_t nItems, size_t nBytes);
    void* __libc_realloc(void* p, size_t nBytes);
    void* __libc_memalign(size_t nAlignment, size_t nBytes);
    void __libc_free(void* p);
}

namespace
{
CHeapGauge s_early; // until the file is mapped
CHeapGauge* s_pGauge = &s_early;

[[maybe_unused]] void count(void* p, int nSign)
{
    if (!p)
        return;
    s_pGauge->nBlocks += nSign;
    s_pGauge->nBytes += nSign * static_cast<int64_t>(malloc_usable_size(p));
}

[[maybe_unused]] void* counted(void* p)
{
    count(p, 1);
    return p;
}

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

#if !defined(ZELMEDIA_ASAN) && !defined(ZELMEDIA_TSAN)

EXPORTED void* malloc(size_t nBytes)
{
    return counted(__libc_malloc(nBytes));
}

EXPORTED void* calloc(size_t nItems, size_t nBytes)
{
    return counted(__libc_calloc(nItems, nBytes));
}

EXPORTED void* realloc(void* p, size_t nBytes)
{
    count(p, -1);
    void* const pNew = __libc_realloc(p, nBytes);
    count(pNew ? pNew : nBytes != 0 ? p : nullptr, 1); // where it failed, the old one is still there
    return pNew;
}

EXPORTED void* memalign(size_t nAlignment, size_t nBytes)
{
    return counted(__libc_memalign(nAlignment, nBytes));
}

EXPORTED void* aligned_alloc(size_t nAlignment, size_t nBytes)
{
    return counted(__libc_memalign(nAlignment, nBytes));
}

EXPORTED int posix_memalign(void** pp, size_t nAlignment, size_t nBytes)
{
    *pp = counted(__libc_memalign(nAlignment, nBytes));
    return *pp ? 0 : ENOMEM;
}

EXPORTED void free(void* p)
{
    count(p, -1);
    __libc_free(p);
}

#endif
