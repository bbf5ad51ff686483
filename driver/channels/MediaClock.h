// The media tick: moves all streams that play or record by 20 ms.
#ifndef DRIVER_MEDIA_CLOCK_H
#define DRIVER_MEDIA_CLOCK_H

#include "TickListener.h"

#include <cstddef>
#include <cstdint>
#include <vector>

class CStream;

constexpr long TICK_MS = 20;
constexpr size_t TICK_SAMPLES = 160;

// Used on the loop's thread. The moving of the streams neither blocks, locks nor allocates; what came up
// on the way, such as ends and full buffers, is dealt with afterwards.
class CMediaClock
{
public:
    // The listener is called around each tick of real time and must outlive the clock.
    void addListener(CTickListener& listener);

    // A stream is moved from start to stop. Both may be called at any time but from within a tick, also
    // while the ends of a tick are dealt with.
    void start(CStream& stream);
    void stop(CStream& stream);

    // Whether there is anything for tickRealTime and tickFast to move.
    bool hasRealTime() const;
    bool hasFast() const { return !m_fast.m_vStreams.empty(); }

    // Moves the streams on the real clock, or those that go as fast as the machine can. tickFast says
    // whether any of them could move.
    void tickRealTime();
    bool tickFast();

    // Ticks of real time that come too late to be made up for. Plays stand still; recordings go on with what
    // the callers said meanwhile, as far as that is still to be had.
    void skipRealTime(uint64_t ullTicks);

private:
    struct CLane
    {
        std::vector<CStream*> m_vStreams;
        std::vector<CStream*> m_vSettle; // as much room as m_vStreams has
    };

    CLane& laneOf(const CStream& stream);
    static bool move(CLane& lane, bool bSkipped = false); // whether any stream could move
    static void settle(CLane& lane);
    void settleRealTime();

    CLane m_realTime;
    CLane m_fast;
    std::vector<CTickListener*> m_vListeners;
};

#endif
