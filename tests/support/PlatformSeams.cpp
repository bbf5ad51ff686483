#include "PlatformSeams.h"
#include "Portable.h"

#include <string>

namespace
{
bool s_bFrozen = false;
uint64_t s_ullTick = 0;
seams::Threads s_threads = seams::Threads::Real;
std::string s_strThreadName;
int s_nProcessID = 0;
} // namespace

// The names are the linker's: the mangled CPortable operations behind __real_ and __wrap_.
extern "C"
{
    uint64_t __real__ZN9CPortable15GetTickCountULLEv();
    int __real__ZN9CPortable12CreateThreadEPFPvS0_ES0_PmPKc(CPortable::ThreadEntry, void*, pthread_t*, const char*);
    int __real__ZN9CPortable19GetCurrentProcessIdEv();

    uint64_t __wrap__ZN9CPortable15GetTickCountULLEv()
    {
        return s_bFrozen ? s_ullTick : __real__ZN9CPortable15GetTickCountULLEv();
    }

    int __wrap__ZN9CPortable12CreateThreadEPFPvS0_ES0_PmPKc(CPortable::ThreadEntry entry, void* pArgument,
                                                            pthread_t* pThreadID, const char* pszName)
    {
        s_strThreadName = pszName;
        switch (s_threads)
        {
        case seams::Threads::Pretend: return 1;
        case seams::Threads::Fail: return 0;
        default: return __real__ZN9CPortable12CreateThreadEPFPvS0_ES0_PmPKc(entry, pArgument, pThreadID, pszName);
        }
    }

    int __wrap__ZN9CPortable19GetCurrentProcessIdEv()
    {
        return s_nProcessID ? s_nProcessID : __real__ZN9CPortable19GetCurrentProcessIdEv();
    }
}

namespace seams
{
void freezeTick(uint64_t ullTick)
{
    s_bFrozen = true;
    s_ullTick = ullTick;
}

void advanceTick(uint64_t ullMilliseconds)
{
    s_ullTick += ullMilliseconds;
}

void realTick()
{
    s_bFrozen = false;
}

void setThreads(Threads threads)
{
    s_threads = threads;
}

const char* lastThreadName()
{
    return s_strThreadName.c_str();
}

void setProcessID(int nProcessID)
{
    s_nProcessID = nProcessID;
}
} // namespace seams
