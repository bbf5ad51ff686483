#include "FailingAllocations.h"

#include <cstdlib>
#include <new>

namespace
{
thread_local int t_nUntilFailure = 0; // 0: none is going to fail
thread_local bool t_bFromThenOn = false;
thread_local bool t_bHappened = false;
thread_local int t_nSpared = 0;

bool failsNow()
{
    if (t_nUntilFailure == 0 || t_nSpared > 0)
        return false;
    if (t_nUntilFailure > 1)
    {
        --t_nUntilFailure;
        return false;
    }
    t_bHappened = true;
    if (!t_bFromThenOn)
        t_nUntilFailure = 0;
    return true;
}

void* allocate(size_t nBytes)
{
    return failsNow() ? nullptr : malloc(nBytes ? nBytes : 1);
}

void* allocateAligned(size_t nBytes, size_t nAlignment)
{
    return failsNow() ? nullptr : aligned_alloc(nAlignment, (nBytes + nAlignment - 1) / nAlignment * nAlignment);
}
} // namespace

CAllocationFailure::CAllocationFailure(int nth, Failing failing)
{
    t_bHappened = false;
    t_bFromThenOn = failing == Failing::FromThenOn;
    t_nUntilFailure = nth;
}

CAllocationFailure::~CAllocationFailure()
{
    t_nUntilFailure = 0;
}

bool CAllocationFailure::happened()
{
    return t_bHappened;
}

CAllocationsSpared::CAllocationsSpared()
{
    ++t_nSpared;
}

CAllocationsSpared::~CAllocationsSpared()
{
    --t_nSpared;
}

void* operator new(size_t nBytes)
{
    if (void* const p = allocate(nBytes))
        return p;
    throw std::bad_alloc();
}

void* operator new(size_t nBytes, const std::nothrow_t&) noexcept
{
    return allocate(nBytes);
}

void* operator new(size_t nBytes, std::align_val_t alignment)
{
    if (void* const p = allocateAligned(nBytes, static_cast<size_t>(alignment)))
        return p;
    throw std::bad_alloc();
}

void* operator new(size_t nBytes, std::align_val_t alignment, const std::nothrow_t&) noexcept
{
    return allocateAligned(nBytes, static_cast<size_t>(alignment));
}

void operator delete(void* p) noexcept
{
    free(p);
}

void operator delete(void* p, size_t) noexcept
{
    free(p);
}

void operator delete(void* p, const std::nothrow_t&) noexcept
{
    free(p);
}

void operator delete(void* p, std::align_val_t) noexcept
{
    free(p);
}

void operator delete(void* p, size_t, std::align_val_t) noexcept
{
    free(p);
}

void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept
{
    free(p);
}

void* operator new[](size_t nBytes)
{
    return operator new(nBytes);
}

void* operator new[](size_t nBytes, const std::nothrow_t& nothrow) noexcept
{
    return operator new(nBytes, nothrow);
}

void operator delete[](void* p) noexcept
{
    free(p);
}

void operator delete[](void* p, size_t) noexcept
{
    free(p);
}

void operator delete[](void* p, const std::nothrow_t&) noexcept
{
    free(p);
}
