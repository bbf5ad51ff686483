// The wrapped calls.
#include "SimSystem.h"

class CPipeWait;

namespace
{
CSimSystem* s_pSystem = nullptr;
}

void CSimSystem::set(CSimSystem* pSystem)
{
    s_pSystem = pSystem;
}

// The names are the linker's. It wants them seen by shared libraries, too, which go on calling the real ones.
#pragma GCC visibility push(default)
extern "C"
{
    ssize_t __real_write(int nDescriptor, const void* pBytes, size_t nBytes);
    ssize_t __real_read(int nDescriptor, void* pBytes, size_t nBytes);
    int __real__ZN9CPipeWait12waitReadableEv(CPipeWait* pThis);

    ssize_t __wrap_write(int nDescriptor, const void* pBytes, size_t nBytes)
    {
        return s_pSystem ? s_pSystem->onWrite(nDescriptor, pBytes, nBytes) : __real_write(nDescriptor, pBytes, nBytes);
    }

    ssize_t __wrap_read(int nDescriptor, void* pBytes, size_t nBytes)
    {
        return s_pSystem ? s_pSystem->onRead(nDescriptor, pBytes, nBytes) : __real_read(nDescriptor, pBytes, nBytes);
    }

    int __wrap__ZN9CPipeWait12waitReadableEv(CPipeWait* pThis)
    {
        return s_pSystem ? s_pSystem->onWait() : __real__ZN9CPipeWait12waitReadableEv(pThis);
    }
}
#pragma GCC visibility pop
