// Ends a child process of a test, which must not clean up what is its parent's.
#ifndef _ENDCHILD_H_
#define _ENDCHILD_H_

#include <sys/resource.h>
#include <unistd.h>

#ifdef ZELMEDIA_COVERAGE
extern "C" void __gcov_dump();
#endif

[[noreturn]] inline void endChild(int nStatus)
{
#ifdef ZELMEDIA_COVERAGE
    const rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &unlimited);
    __gcov_dump(); // what it has covered
#endif
    _exit(nStatus);
}

#endif
