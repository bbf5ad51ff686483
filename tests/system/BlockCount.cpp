// Replaces operator new and delete by ones that count.
#include "BlockCount.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace
{
std::atomic<long> s_nBlocks{0};
} // namespace

long blockCount()
{
    return s_nBlocks;
}

#if !defined(ZELMEDIA_ASAN) && !defined(ZELMEDIA_TSAN)

void* operator new(size_t nBytes, const std::nothrow_t&) noexcept
{
    void* const p = malloc(nBytes ? nBytes : 1);
    if (p)
        ++s_nBlocks;
    return p;
}

void* operator new(size_t nBytes)
{
    void* const p = operator new(nBytes, std::nothrow);
    if (!p)
        throw std::bad_alloc();
    return p;
}

void operator delete(void* p) noexcept
{
    if (p)
        --s_nBlocks;
    free(p);
}

void operator delete(void* p, size_t) noexcept
{
    operator delete(p);
}

void operator delete(void* p, const std::nothrow_t&) noexcept
{
    operator delete(p);
}

#endif
