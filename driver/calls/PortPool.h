// The UDP ports of calls: even ones, each with the odd one above it for reports.
#ifndef DRIVER_PORT_POOL_H
#define DRIVER_PORT_POOL_H

#include "TimerQueue.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>

// The one that was free for longest is taken first, and none sooner than five seconds after its last use: what
// is still on its way to the former call reaches nobody.
class CPortPool
{
public:
    static constexpr std::chrono::seconds QUARANTINE{5};

    // The ports from nFirst to nLast, both included.
    CPortPool(uint16_t nFirst, uint16_t nLast, const CClock& clock);

    std::optional<uint16_t> take();
    void giveBack(uint16_t nPort);

    size_t size() const { return m_nSize; }

private:
    struct CFree
    {
        uint16_t m_nPort;
        CClock::TimePoint m_since;
    };

    const CClock& m_clock;
    std::deque<CFree> m_vFree;
    size_t m_nSize = 0;
};

#endif
