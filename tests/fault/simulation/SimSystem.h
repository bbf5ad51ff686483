// Stands between the library and its pipes: a simulation answers the system calls itself.
#ifndef SIM_SYSTEM_H
#define SIM_SYSTEM_H

#include <cstddef>
#include <sys/types.h>

// While one is set, all reads, writes and pipe waits of the program come here. Works by the linker's
// --wrap, for programs of one thread.
class CSimSystem
{
public:
    virtual ~CSimSystem() = default;
    virtual ssize_t onWrite(int nDescriptor, const void* pBytes, size_t nBytes) = 0;
    virtual ssize_t onRead(int nDescriptor, void* pBytes, size_t nBytes) = 0;
    virtual int onWait() = 0; // CPipeWait::waitReadable

    static void set(CSimSystem* pSystem); // null: the real calls
};

#endif
