// Lets a unit test hold the clock, move it, and keep or fail the start of threads.
//
// Works by the linker's --wrap, so only in programs that link the library's objects (target
// platform_seams).
#ifndef PLATFORM_SEAMS_H
#define PLATFORM_SEAMS_H

#include <cstdint>

namespace seams
{
// The tick as the library sees it: the real one, or a value that stands still until it is set
// again. Tests that run no second thread only.
void freezeTick(uint64_t ullTick);
void advanceTick(uint64_t ullMilliseconds);
void realTick();

enum class Threads
{
    Real,
    Pretend, // CreateThread succeeds and starts nothing
    Fail     // CreateThread returns 0
};
void setThreads(Threads threads);
const char* lastThreadName(); // of the last CreateThread, whatever it did

// The id with which the pipes are named; 0: the real one.
void setProcessID(int nProcessID);
} // namespace seams

#endif
