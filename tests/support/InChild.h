// Parts of tests in child processes, which must not clean up what is their parent's.
#ifndef IN_CHILD_H
#define IN_CHILD_H

#include "Child.h"

#include <gtest/gtest.h>

// Begins an operation in a child process that ends without any cleaning up, as if it was killed then.
template <class OPERATION> void startChild(CChild& child, OPERATION operation)
{
    EXPECT_TRUE(child.start([&operation] {
        operation();
        return testing::Test::HasFailure() ? 1 : 0;
    }));
}

// Waits for the end. The signal that killed it, or 0; a failure of the test in there counts here.
inline int signalOf(CChild& child)
{
    const int nExit = child.waitExit(std::chrono::minutes(30)).value_or(1);
    EXPECT_LE(nExit, 0) << "the child process failed";
    return nExit < 0 ? -nExit : 0;
}

// The same to its end.
template <class OPERATION> int inChild(OPERATION operation)
{
    CChild child;
    startChild(child, operation);
    return signalOf(child);
}

#endif
