#include "AllocationHooks.h"

#include <cerrno>
#include <cstddef>

#if ALLOCATIONS_ARE_HOOKED

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
bool isToFail()
{
    return allocationFails && allocationFails();
}

void tell(void* p, int nSign)
{
    if (p && allocationCounts)
        allocationCounts(p, nSign);
}

void* given(void* p)
{
    tell(p, 1);
    return p;
}
} // namespace

EXPORTED void* malloc(size_t nBytes)
{
    return isToFail() ? nullptr : given(__libc_malloc(nBytes));
}

EXPORTED void* calloc(size_t nItems, size_t nBytes)
{
    return isToFail() ? nullptr : given(__libc_calloc(nItems, nBytes));
}

EXPORTED void* realloc(void* p, size_t nBytes)
{
    if (isToFail())
        return nullptr;
    tell(p, -1);
    void* const pNew = __libc_realloc(p, nBytes);
    tell(pNew ? pNew : nBytes != 0 ? p : nullptr, 1); // where it failed, the old one is still there
    return pNew;
}

EXPORTED void* memalign(size_t nAlignment, size_t nBytes)
{
    return isToFail() ? nullptr : given(__libc_memalign(nAlignment, nBytes));
}

EXPORTED void* aligned_alloc(size_t nAlignment, size_t nBytes)
{
    return memalign(nAlignment, nBytes);
}

EXPORTED int posix_memalign(void** pp, size_t nAlignment, size_t nBytes)
{
    *pp = memalign(nAlignment, nBytes);
    return *pp ? 0 : ENOMEM;
}

EXPORTED void free(void* p)
{
    tell(p, -1);
    __libc_free(p);
}

#endif
