// Parts of tests in child processes, which must not clean up what is their parent's.
#ifndef CHILD_H
#define CHILD_H

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
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

// Waits for the end. The signal that killed it, or 0; a failure of the test in there counts here.
inline int signalOf(pid_t nChild)
{
    int nStatus = 0;
    EXPECT_EQ(waitpid(nChild, &nStatus, 0), nChild);
    EXPECT_TRUE(WIFSIGNALED(nStatus) || WEXITSTATUS(nStatus) == 0) << "the child process failed";
    return WIFSIGNALED(nStatus) ? WTERMSIG(nStatus) : 0;
}

// Begins an operation in a child process that ends without any cleaning up, as if it was killed then.
template <class OPERATION> pid_t startChild(OPERATION operation)
{
    fflush(stdout);
    const pid_t nChild = fork();
    if (nChild == 0)
    {
        operation();
        endChild(testing::Test::HasFailure() ? 1 : 0);
    }
    return nChild;
}

// The same to its end.
template <class OPERATION> int inChild(OPERATION operation)
{
    return signalOf(startChild(operation));
}

#endif
