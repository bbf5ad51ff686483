// Stands between the library's objects and the system: lets the calls through, or fails them.
//
// The linker's --wrap turns each reference to a call into one to __wrap_CALL, and __real_CALL into the call.
#include "CallFaults.h"
#include "CallNames.h"
#include "CallTally.h"
#include "MediaProtocol.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

using namespace faults;

#define SITE(call, object)                                                                                             \
    {                                                                                                                  \
        __builtin_return_address(0), Call::call, object                                                                \
    }

extern "C"
{
    int __real_close(int);
    int __real_closedir(DIR*);
    int __real_faccessat(int, const char*, int, int);
    int __real_fallocate64(int, int, off_t, off_t);
    int __real_fcntl64(int, int, ...);
    int __real_fdatasync(int);
    int __real_flock(int, int);
    int __real_fstat64(int, struct stat*);
    int __real_fstatfs64(int, struct statfs*);
    int __real_ftruncate64(int, off_t);
    int __real_getrlimit64(int, rlimit*);
    off_t __real_lseek64(int, off_t, int);
    int __real_lstat64(const char*, struct stat*);
    int __real_mknod(const char*, mode_t, dev_t);
    void* __real_mmap64(void*, size_t, int, int, int, off_t);
    int __real_munmap(void*, size_t);
    int __real_open64(const char*, int, ...);
    DIR* __real_opendir(const char*);
    ssize_t __real_pread64(int, void*, size_t, off_t);
    int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    int __real_pthread_key_create(pthread_key_t*, void (*)(void*));
    int __real_pthread_setspecific(pthread_key_t, const void*);
    ssize_t __real_read(int, void*, size_t);
    dirent* __real_readdir64(DIR*);
    int __real_rename(const char*, const char*);
    sighandler_t __real_signal(int, sighandler_t);
    int __real_stat64(const char*, struct stat*);
    long __real_syscall(long, ...);
    int __real_unlink(const char*);
    ssize_t __real_write(int, const void*, size_t);
}

namespace
{
Object objectOf(int nDescriptor)
{
    const int nErrno = errno;
    struct stat status;
    Object object = Object::Other;
    if (nDescriptor == STDERR_FILENO)
        object = Object::StandardError;
    else if (__real_fstat64(nDescriptor, &status) != 0)
        object = Object::Other;
    else if (S_ISFIFO(status.st_mode))
        object = Object::Pipe;
    else if (S_ISREG(status.st_mode))
        object = Object::File;
    errno = nErrno;
    return object;
}

Object objectOf(const char* pszPath)
{
    return strstr(pszPath, "/OrvMediaIntf-") ? Object::Pipe : Object::File;
}

ssize_t notMade(int nError)
{
    if (nError == NOTHING)
        return 0;
    errno = nError;
    return -1;
}

bool isWakeUp(const void* p, size_t nSize)
{
    structMIEVT evt;
    if (nSize != sizeof(evt))
        return false;
    memcpy(&evt, p, nSize);
    return evt.s_mievt == MIEVT_NULL;
}

// The result of a call that fails without having been made.
template <class RESULT, class REAL> RESULT call(const CSite& site, RESULT failure, REAL real)
{
    const int nError = nextFault(site);
    if (nError == 0)
        return real();
    errno = nError;
    return failure;
}

// The result of a call that has its effect all the same, as closing has.
template <class REAL> int callAnyway(const CSite& site, REAL real)
{
    const int nError = nextFault(site);
    const int nResult = real();
    if (nError == 0)
        return nResult;
    errno = nError;
    return -1;
}
} // namespace

extern "C"
{
    int __wrap_close(int n)
    {
        return callAnyway(
            SITE(Close, objectOf(n)), [&] { return __real_close(n); });
    }

    int __wrap_closedir(DIR* p)
    {
        return callAnyway(
            SITE(CloseDir, Object::Other), [&] { return __real_closedir(p); });
    }

    int __wrap_faccessat(int n, const char* psz, int nMode, int nFlags)
    {
        return call(
            SITE(Faccessat, Object::File), -1, [&] { return __real_faccessat(n, psz, nMode, nFlags); });
    }

    int __wrap_fallocate64(int n, int nMode, off_t nBegin, off_t nLength)
    {
        return call(
            SITE(Fallocate, objectOf(n)), -1, [&] { return __real_fallocate64(n, nMode, nBegin, nLength); });
    }

    int __wrap_fcntl64(int n, int nCommand, long nArgument)
    {
        return call(
            SITE(Fcntl, objectOf(n)), -1, [&] { return __real_fcntl64(n, nCommand, nArgument); });
    }

    int __wrap_fdatasync(int n)
    {
        return call(
            SITE(Fdatasync, objectOf(n)), -1, [&] { return __real_fdatasync(n); });
    }

    int __wrap_flock(int n, int nOperation)
    {
        return call(
            SITE(Flock, objectOf(n)), -1, [&] { return __real_flock(n, nOperation); });
    }

    int __wrap_fstat64(int n, struct stat* p)
    {
        return call(
            SITE(Fstat, objectOf(n)), -1, [&] { return __real_fstat64(n, p); });
    }

    int __wrap_fstatfs64(int n, struct statfs* p)
    {
        return call(
            SITE(Fstatfs, objectOf(n)), -1, [&] { return __real_fstatfs64(n, p); });
    }

    int __wrap_ftruncate64(int n, off_t nLength)
    {
        return call(
            SITE(Ftruncate, objectOf(n)), -1, [&] { return __real_ftruncate64(n, nLength); });
    }

    int __wrap_getrlimit64(int nResource, rlimit* p)
    {
        return call(
            SITE(Getrlimit, Object::Other), -1, [&] { return __real_getrlimit64(nResource, p); });
    }

    off_t __wrap_lseek64(int n, off_t nOffset, int nWhence)
    {
        return call(
            SITE(Lseek, objectOf(n)), off_t(-1), [&] { return __real_lseek64(n, nOffset, nWhence); });
    }

    int __wrap_lstat64(const char* psz, struct stat* p)
    {
        return call(
            SITE(Lstat, objectOf(psz)), -1, [&] { return __real_lstat64(psz, p); });
    }

    int __wrap_mknod(const char* psz, mode_t nMode, dev_t nDevice)
    {
        return call(
            SITE(Mknod, objectOf(psz)), -1, [&] { return __real_mknod(psz, nMode, nDevice); });
    }

    void* __wrap_mmap64(void* p, size_t nSize, int nProtection, int nFlags, int n, off_t nOffset)
    {
        return call(
            SITE(Mmap, objectOf(n)), MAP_FAILED,
            [&] { return __real_mmap64(p, nSize, nProtection, nFlags, n, nOffset); });
    }

    int __wrap_munmap(void* p, size_t nSize)
    {
        return callAnyway(
            SITE(Munmap, Object::Other), [&] { return __real_munmap(p, nSize); });
    }

    int __wrap_open64(const char* psz, int nFlags, ...)
    {
        va_list arguments;
        va_start(arguments, nFlags);
        const mode_t nMode = nFlags & O_CREAT ? va_arg(arguments, mode_t) : 0;
        va_end(arguments);
        return call(SITE(Open, objectOf(psz)), -1, [&] { return __real_open64(psz, nFlags, nMode); });
    }

    DIR* __wrap_opendir(const char* psz)
    {
        return call(
            SITE(OpenDir, Object::File), static_cast<DIR*>(nullptr), [&] { return __real_opendir(psz); });
    }

    ssize_t __wrap_pread64(int n, void* p, size_t nSize, off_t nOffset)
    {
        const int nError = nextFault(SITE(Pread, objectOf(n)));
        if (nError > 0 || nError == NOTHING)
            return notMade(nError);
        return __real_pread64(n, p, nError == SHORT ? nSize / 2 : nSize, nOffset);
    }

    int __wrap_pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes, void* (*entry)(void*), void* p)
    {
        const int nError = nextFault(SITE(Thread, Object::Other));
        return nError ? nError : __real_pthread_create(pThread, pAttributes, entry, p);
    }

    int __wrap_pthread_key_create(pthread_key_t* pKey, void (*destructor)(void*))
    {
        const int nError = nextFault(SITE(Key, Object::Other));
        return nError ? nError : __real_pthread_key_create(pKey, destructor);
    }

    int __wrap_pthread_setspecific(pthread_key_t nKey, const void* p)
    {
        const int nError = nextFault(SITE(SetSpecific, Object::Other));
        return nError ? nError : __real_pthread_setspecific(nKey, p);
    }

    // A pipe moves a record whole or not at all: one that moved a part has lost the rest.
    ssize_t __wrap_read(int n, void* p, size_t nSize)
    {
        const int nError = nextFault(SITE(Read, objectOf(n)));
        if (nError > 0 || nError == NOTHING)
            return notMade(nError);
        const ssize_t nRead = __real_read(n, p, nSize);
        return nError == SHORT && nRead > 0 ? nRead / 2 : nRead;
    }

    ssize_t __wrap_write(int n, const void* p, size_t nSize)
    {
        const Object object = isWakeUp(p, nSize) ? Object::Wake : objectOf(n);
        const int nError = nextFault(SITE(Write, object));
        if (nError > 0 || nError == NOTHING)
            return notMade(nError);
        if (nError == SHORT && (object == Object::Pipe || object == Object::Wake))
            return static_cast<ssize_t>(nSize / 2);
        return __real_write(n, p, nError == SHORT ? nSize / 2 : nSize);
    }

    dirent* __wrap_readdir64(DIR* p)
    {
        return call(
            SITE(ReadDir, Object::File), static_cast<dirent*>(nullptr), [&] { return __real_readdir64(p); });
    }

    int __wrap_rename(const char* pszFrom, const char* pszTo)
    {
        return call(
            SITE(Rename, objectOf(pszFrom)), -1, [&] { return __real_rename(pszFrom, pszTo); });
    }

    sighandler_t __wrap_signal(int nSignal, sighandler_t handler)
    {
        return call(
            SITE(Signal, Object::Other), SIG_ERR, [&] { return __real_signal(nSignal, handler); });
    }

    int __wrap_stat64(const char* psz, struct stat* p)
    {
        return call(
            SITE(Stat, objectOf(psz)), -1, [&] { return __real_stat64(psz, p); });
    }

    long __wrap_syscall(long nNumber, long nFirst, long nSecond, long nThird)
    {
        if (nNumber != SYS_membarrier)
            return __real_syscall(nNumber, nFirst, nSecond, nThird);
        return call(SITE(Membarrier, Object::Other), -1L,
                    [&] { return __real_syscall(nNumber, nFirst, nSecond, nThird); });
    }

    int __wrap_unlink(const char* psz)
    {
        return call(
            SITE(Unlink, objectOf(psz)), -1, [&] { return __real_unlink(psz); });
    }
}
