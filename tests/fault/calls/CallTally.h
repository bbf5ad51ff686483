// What the wrappers ask at each call.
#ifndef CALL_TALLY_H
#define CALL_TALLY_H

#include "CallFaults.h"

namespace faults
{

// Counts a call; 0 when it is to be made, otherwise how it fails. Leaves errno as it was.
int nextFault(const CSite& site);

} // namespace faults

#endif
