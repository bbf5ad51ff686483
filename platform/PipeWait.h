// CPipeWait: waits for data on a descriptor, all its waits together within one time budget.
#ifndef PIPE_WAIT_H
#define PIPE_WAIT_H

#include <cstdint>

// Works for descriptors of any number. Signals neither end a wait nor stretch the budget, which
// runs on the monotonic clock from construction on.
class CPipeWait
{
public:
    CPipeWait(int nDescriptor, unsigned int nBudgetMilliseconds);

    // Returns 1 when a read would not block, 0 when the budget is used up first, -1 with errno set
    // when waiting failed.
    int waitReadable();

private:
    const int m_nDescriptor;
    const int64_t m_llDeadline; // nanoseconds of the monotonic clock
};

#endif
