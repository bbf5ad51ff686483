// Stands before the C library's allocations for the whole process, its libraries included: for programs that
// link AllocationHooks.cpp and define one of these. Nothing is called with sanitizers, which have their own.
#ifndef ALLOCATION_HOOKS_H
#define ALLOCATION_HOOKS_H

#if !defined(ZELMEDIA_ASAN) && !defined(ZELMEDIA_TSAN)
#define ALLOCATIONS_ARE_HOOKED 1
#else
#define ALLOCATIONS_ARE_HOOKED 0
#endif

extern "C"
{
    // Whether the next one is to fail.
    __attribute__((weak)) bool allocationFails();
    // A block was given (nSign 1), or is about to be taken back (-1). Never null.
    __attribute__((weak)) void allocationCounts(void* p, int nSign);
}

#endif
