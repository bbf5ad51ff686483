// Lets the ten seconds that a request waits for its response pass at once where no response can come.
//
// Works by standing in front of poll: link ResponseBudget.cpp into the test program.
#ifndef RESPONSE_BUDGET_H
#define RESPONSE_BUDGET_H

namespace response_budget
{
// From driverDied to driverStarts, a wait for a response ends as soon as it finds none.
void driverDied();
void driverStarts();

// Ends the wait that is going on, if there is one, and returns when it has ended.
void expire();

// How many threads wait for a response now: 1 at most in one process.
int waiting();
} // namespace response_budget

#endif
