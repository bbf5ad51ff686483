// What the control socket can see and do: the driver's side of it.
#ifndef DRIVER_DRIVER_CONTROL_H
#define DRIVER_DRIVER_CONTROL_H

#include "DriverState.h"
#include "FaultRules.h"
#include "Statistics.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Used on the loop's thread only.
class CDriverControl
{
public:
    virtual ~CDriverControl() = default;

    virtual std::vector<CClientState> clients() const = 0;
    virtual std::vector<CStreamState> streams() const = 0;
    virtual CStatistics statistics() const = 0; // m_now is filled
    virtual CFaultRules& faults() = 0;

    // Ends the call as the far end would, on one leg or on all. Returns how many streams it had.
    virtual size_t hangUp(const std::string& strCallID, std::optional<uint32_t> nLegID) = 0;

    // False when there is no such client.
    virtual bool dropClient(int nConnectID) = 0;

    // Stops requests, events and audio, for some time or until thaw, but not the control socket.
    virtual void freeze(std::optional<std::chrono::milliseconds> time) = 0;
    virtual void thaw() = 0;

    // Kills the process as a crash would: not within this call but at the next turn of the loop, so
    // that the answer can leave.
    virtual void die() = 0;
};

#endif
