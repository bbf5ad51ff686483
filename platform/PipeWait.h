// CPipeWait: waits for data on a descriptor, all its waits together within one time budget.
#ifndef PIPE_WAIT_H
#define PIPE_WAIT_H

#include <cstdint>

// Works for descriptors of any number. Signals neither end a wait nor stretch the budget, which
// runs on the monotonic clock from construction on and is kept to about 10 ms.
class CPipeWait
{
public:
    CPipeWait(int nDescriptor, unsigned int nBudgetMilliseconds);

    // Returns 1 when a read would not block, 0 when the budget is used up first, -1 with errno set
    // when waiting failed.
    int waitReadable();

private:
    int nextTimeout();

    const int m_nDescriptor;
    const int64_t m_llDeadline; // ms
    int m_nWholeBudget;         // ms, until the first wait
};

#endif
