// The library's clock and waits, made as fast as a test wants them; and the end of the library.
#include "CallNames.h"
#include "CallTally.h"
#include "MIntf.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <dlfcn.h>
#include <poll.h>

using namespace faults;

extern "C"
{
    int __real_clock_gettime(clockid_t, timespec*);
    int __real_clock_nanosleep(clockid_t, int, const timespec*, timespec*);
    int __real_nanosleep(const timespec*, timespec*);
    int __real_poll(pollfd*, nfds_t, int);
}

namespace
{
constexpr int64_t NANOSECONDS = 1000000000;
constexpr int64_t NANOSECONDS_PER_MS = 1000000;

std::atomic<int64_t> s_llSpeed{1};
std::atomic<int64_t> s_llRealBegin{0}; // of the present speed
std::atomic<int64_t> s_llBegin{0};     // the same moment by the library's clock
std::atomic<int> s_nAnswerWait{5000};  // milliseconds that the driver has

int64_t nanoseconds(const timespec& time)
{
    return static_cast<int64_t>(time.tv_sec) * NANOSECONDS + time.tv_nsec;
}

timespec timeOf(int64_t llNanoseconds)
{
    return {static_cast<time_t>(llNanoseconds / NANOSECONDS), static_cast<long>(llNanoseconds % NANOSECONDS)};
}

int64_t realNow()
{
    timespec now;
    __real_clock_gettime(CLOCK_MONOTONIC, &now);
    return nanoseconds(now);
}

int64_t libraryNow()
{
    return s_llBegin + (realNow() - s_llRealBegin) * s_llSpeed;
}

int64_t realDuration(int64_t llDuration)
{
    return llDuration / std::max<int64_t>(s_llSpeed, 1);
}
} // namespace

namespace faults
{
void setSpeed(int64_t llSpeed)
{
    s_llBegin = libraryNow();
    s_llRealBegin = realNow();
    s_llSpeed = llSpeed;
}

void advanceClock(int64_t llMilliseconds)
{
    s_llBegin += llMilliseconds * NANOSECONDS_PER_MS;
}

void setAnswerWait(int nMilliseconds)
{
    s_nAnswerWait = nMilliseconds;
}

uintptr_t imageBegin(const char** ppszPath)
{
    Dl_info info = {};
    dladdr(reinterpret_cast<const void*>(&imageBegin), &info);
    *ppszPath = info.dli_fname;
    return reinterpret_cast<uintptr_t>(info.dli_fbase);
}

void stopLibrary()
{
    delete g_pmintf;
    storeUnlocked(g_pmintf, static_cast<CMIntf*>(nullptr));
}
} // namespace faults

extern "C"
{
    // Cannot fail for the clocks that there are.
    int __wrap_clock_gettime(clockid_t nClock, timespec* pTime)
    {
        if (nClock != CLOCK_MONOTONIC && nClock != CLOCK_MONOTONIC_COARSE)
            return __real_clock_gettime(nClock, pTime);
        *pTime = timeOf(libraryNow());
        return 0;
    }

    // A signal that ends it comes when half of the time is over.
    int __wrap_clock_nanosleep(clockid_t nClock, int nFlags, const timespec* pTime, timespec* pLeft)
    {
        const int64_t llTime = nanoseconds(*pTime);
        const int nError = llTime > 0 ? nextFault({__builtin_return_address(0), Call::Sleep, Object::Other}) : 0;
        const timespec time = timeOf(realDuration(nError ? llTime / 2 : llTime));
        const int nResult = __real_clock_nanosleep(nClock, nFlags, &time, pLeft);
        if (nError)
            *pLeft = timeOf(llTime / 2);
        return nError ? nError : nResult;
    }

    int __wrap_nanosleep(const timespec* pTime, timespec* pLeft)
    {
        const int nError = nextFault({__builtin_return_address(0), Call::Sleep, Object::Other});
        const timespec time = timeOf(realDuration(nanoseconds(*pTime)));
        const int nResult = __real_nanosleep(&time, pLeft);
        if (nError == 0)
            return nResult;
        errno = nError;
        return -1;
    }

    int __wrap_poll(pollfd* pEntries, nfds_t nEntries, int nMilliseconds)
    {
        const int nError = nextFault({__builtin_return_address(0), Call::Poll, Object::Pipe});
        if (nError > 0)
            errno = nError;
        if (nError != 0)
            return nError == NOTHING ? 0 : -1;
        int nReal = nMilliseconds > 0 ? std::max(static_cast<int>(realDuration(nMilliseconds)), 1) : nMilliseconds;
        if (nMilliseconds > 1000)
            nReal = s_nAnswerWait;
        return __real_poll(pEntries, nEntries, nReal);
    }

    // The tests' alarms are not the operator's. They have no result that could be an error.
    void __wrap_syslog(int, const char*, ...) {}
    void __wrap___syslog_chk(int, int, const char*, ...) {}
}
