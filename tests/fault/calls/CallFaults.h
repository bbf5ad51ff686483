// Which of the library's system calls fails, and how; and what was seen of them.
//
// The calls of the library's own objects go through wrappers (CallWrappers.cpp) in a shared library that is
// made for this test. Nobody else's calls are counted or fail.
#ifndef CALL_FAULTS_H
#define CALL_FAULTS_H

#include <atomic>
#include <cstdint>
#include <vector>

#define FAULTS_API __attribute__((visibility("default")))

namespace faults
{

enum class Call : uint8_t
{
    Close,
    CloseDir,
    Faccessat,
    Fallocate,
    Fcntl,
    Fdatasync,
    Flock,
    Fstat,
    Fstatfs,
    Ftruncate,
    Getrlimit,
    Key,
    Lseek,
    Lstat,
    Membarrier,
    Mknod,
    Mmap,
    Munmap,
    Open,
    OpenDir,
    Poll,
    Pread,
    Read,
    ReadDir,
    Rename,
    SetSpecific,
    Signal,
    Sleep,
    Stat,
    Thread,
    Unlink,
    Write
};

// What a call is about; the errors that it may have depend on it.
enum class Object : uint8_t
{
    Other,
    Pipe,
    Wake, // the record that stops the event thread, into its pipe
    File,
    StandardError
};

// Ways to fail that are no errno.
enum : int
{
    SHORT = -1,  // half of what was asked for
    NOTHING = -2 // 0: the end of a file, a time-out, no byte written
};

struct CSite
{
    const void* pAddress; // to which the call returns
    Call call;
    Object object;
    bool operator==(const CSite& other) const = default;
    auto operator<=>(const CSite& other) const = default;
};

struct CFault
{
    CSite site;
    unsigned int nth; // call of the site, from 1
    int nError;
    bool bForEver; // from there on every such call for such an object, whatever its site
};

// Usually one fault. Calls that are made only after a fault fail as a second one.
struct CPlan
{
    CFault aFaults[2];
    unsigned int nFaults;
    int nAllocation; // or this one of the library's allocations, from 1
    bool bFromThenOn;
};

// Lies in memory that parent and child process share.
struct CBoard
{
    struct CSeen
    {
        CSite site;
        unsigned int nCalls;
    };
    static constexpr unsigned int MAX_SITES = 200;
    CSeen aSeen[MAX_SITES];
    unsigned int nSeen;
    bool abFired[2];
    int nAllocations;
    bool bAllocationFailed;
    long nBlocksLeft;
};

// Results of this call that are to be tried.
const std::vector<int>& errorsOf(Call call, Object object);
const char* nameOf(Call call);
const char* nameOf(Object object);

// Counts calls from now on and makes them fail, until disarm.
FAULTS_API void arm(CBoard& board, const CPlan& plan);
FAULTS_API void disarm();
FAULTS_API bool hasFired(); // the first fault of the plan

// How fast time goes by for the library from now on: it waits that much shorter and its clock runs that
// much faster. 0: its clock stands still.
FAULTS_API void setSpeed(int64_t llSpeed);
FAULTS_API void advanceClock(int64_t llMilliseconds);
// How long the library waits for an answer, in real time: the driver is not faster on a busy machine.
FAULTS_API void setAnswerWait(int nMilliseconds);

// Where the library's objects are in memory, for addr2line.
FAULTS_API uintptr_t imageBegin(const char** ppszPath);

// Ends the process's driver interface, which the library itself never does.
FAULTS_API void stopLibrary();

// Ends a child process, from within the library: only there is known what of it was covered.
[[noreturn]] FAULTS_API void endRun(int nStatus);

} // namespace faults

#endif
