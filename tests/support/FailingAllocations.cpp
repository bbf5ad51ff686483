#include "FailingAllocations.h"
#include "AllocationHooks.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/prctl.h>

#if ALLOCATIONS_ARE_HOOKED
extern "C" void* __libc_malloc(size_t);
#endif

namespace
{
thread_local int t_nUntilFailure = 0; // 0: none is going to fail
thread_local bool t_bFromThenOn = false;
thread_local bool t_bHappened = false;
thread_local int t_nSpared = 0;

std::atomic<bool> s_bArmed{false};
std::atomic<int> s_nth{0};
std::atomic<bool> s_bFromThenOn{false};
std::atomic<int> s_nCounted{0};
std::atomic<bool> s_bHappened{false};
std::atomic<long> s_nBlocks{0};

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

bool isLibraryThread()
{
    char szName[16];
    return prctl(PR_GET_NAME, szName) == 0 && strcmp(szName, "ZelMedia") == 0;
}

bool failsInLibrary()
{
    if (!s_bArmed || t_nSpared > 0 || !(CInsideLibrary::isInside() || isLibraryThread()))
        return false;
    const int nth = ++s_nCounted;
    if (s_nth == 0 || nth < s_nth || (nth > s_nth && !s_bFromThenOn))
        return false;
    s_bHappened = true;
    errno = ENOMEM;
    return true;
}

// Without being asked again whether it fails.
void* memory(size_t nBytes)
{
#if ALLOCATIONS_ARE_HOOKED
    return __libc_malloc(nBytes);
#else
    return malloc(nBytes);
#endif
}

void* counted(void* p)
{
    s_nBlocks += p != nullptr;
    return p;
}

void* allocate(size_t nBytes)
{
    return failsNow() || failsInLibrary() ? nullptr : counted(memory(nBytes ? nBytes : 1));
}

void* allocateAligned(size_t nBytes, size_t nAlignment)
{
    return failsNow() || failsInLibrary()
               ? nullptr
               : counted(aligned_alloc(nAlignment, (nBytes + nAlignment - 1) / nAlignment * nAlignment));
}

void release(void* p)
{
    s_nBlocks -= p != nullptr;
    free(p);
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

void CLibraryAllocations::arm(int nth, Failing failing)
{
    s_nth = nth;
    s_bFromThenOn = failing == Failing::FromThenOn;
    s_nCounted = 0;
    s_bHappened = false;
    s_bArmed = true;
}

void CLibraryAllocations::disarm()
{
    s_bArmed = false;
}

bool CLibraryAllocations::isArmed()
{
    return s_bArmed;
}

int CLibraryAllocations::counted()
{
    return s_nCounted;
}

bool CLibraryAllocations::happened()
{
    return s_bHappened;
}

long CLibraryAllocations::blocks()
{
    return s_nBlocks;
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
    release(p);
}

void operator delete(void* p, size_t) noexcept
{
    release(p);
}

void operator delete(void* p, const std::nothrow_t&) noexcept
{
    release(p);
}

void operator delete(void* p, std::align_val_t) noexcept
{
    release(p);
}

void operator delete(void* p, size_t, std::align_val_t) noexcept
{
    release(p);
}

void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept
{
    release(p);
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
    release(p);
}

void operator delete[](void* p, size_t) noexcept
{
    release(p);
}

void operator delete[](void* p, const std::nothrow_t&) noexcept
{
    release(p);
}

// What the system's own libraries allocate on the library's behalf.
bool allocationFails()
{
    return failsInLibrary();
}
