// Who takes part in the media tick besides the streams.
#ifndef DRIVER_TICK_LISTENER_H
#define DRIVER_TICK_LISTENER_H

#include <cstdint>

// What many channels do together around the media tick, such as sending their packets in one call.
// All but settle neither block, lock nor allocate.
class CTickListener
{
public:
    virtual ~CTickListener() = default;

    // Whether it wants ticks even while no stream plays or records.
    virtual bool needsTicks() const = 0;

    virtual void beforeTick() = 0;
    virtual void afterTick() = 0;

    // Instead of the two above, for a tick that comes too late to be made up for: its time passes, what the
    // callers said in it is still to be heard, nothing is sent.
    virtual void skipTick() {}

    // So many ticks that even what was said in them is gone.
    virtual void jump(uint64_t) {}

    // After the tick, and after the streams have dealt with their ends.
    virtual void settle() {}
};

#endif
