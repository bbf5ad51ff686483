// Asks whether there is a media driver and whether it answers, as a client of its own: connects, pings,
// disconnects. Never waits for longer than it was told to, whatever the driver does.
#ifndef DRIVER_PROBE_H
#define DRIVER_PROBE_H

#include <chrono>
#include <string>
#include <vector>

enum EDriverState
{
    DRIVER_ABSENT,  // nobody reads the request pipe
    DRIVER_SILENT,  // somebody does, but gives no answer
    DRIVER_REFUSES, // it does not let this client in
    DRIVER_ANSWERS
};
const char* driverStateToString(EDriverState state);

struct CDriverProbe
{
    EDriverState state = DRIVER_ABSENT;
    std::string strReason; // why it does not answer, for people
    double dConnectMs = 0; // how long the connect took
    std::vector<double> vPingMs;
};

// Throws CToolError when this process cannot have its pipes.
CDriverProbe probeDriver(std::chrono::milliseconds limit, unsigned int nPings);

#endif
