// CPortable: the few operating system services that the library needs, in one form.
#ifndef PORTABLE_H
#define PORTABLE_H

#include <cstdint>
#include <pthread.h>
#include <string>

class CPortable
{
public:
    typedef void* (*ThreadEntry)(void* pArgument);

    // Starts a detached thread that runs entry(pArgument). The thread starts with every signal
    // blocked, so that the application's handlers never run on it. pThreadID receives the id and
    // may be null; pszName names the thread for debuggers, 15 characters at most, "ZelMedia" when
    // empty or null. Returns non-zero on success, 0 on failure.
    static int CreateThread(ThreadEntry entry, void* pArgument, pthread_t* pThreadID, const char* pszName);

    // Milliseconds of the monotonic clock, which no change of the date touches.
    static uint64_t GetTickCountULL();

    static int GetCurrentProcessId();

    // Blocks the calling thread for the whole time, signals or not.
    static void Sleep(unsigned int nMilliseconds);

    // Decimal text of a number.
    static std::string ulltos(uint64_t ullNumber);
};

#endif
