// The media tick: moves all streams that play or record by 20 ms.
#ifndef DRIVER_MEDIA_CLOCK_H
#define DRIVER_MEDIA_CLOCK_H

#include "Channel.h"

#include <cstddef>
#include <vector>

class CStream;

constexpr long TICK_MS = 20;
constexpr std::size_t TICK_SAMPLES = 160;

// Used on the loop's thread. The moving of the streams neither blocks, locks nor allocates; what came up
// on the way, such as ends and full buffers, is dealt with afterwards.
class CMediaClock
{
public:
    // The listener is called around each tick of real time and must outlive the clock.
    void AddListener(CTickListener& listener);

    // A stream is moved from Start to Stop. Both may be called at any time but from within a tick, also
    // while the ends of a tick are dealt with.
    void Start(CStream& stream);
    void Stop(CStream& stream);

    // Whether there is anything for TickRealTime and TickFast to move.
    bool HasRealTime() const;
    bool HasFast() const { return !m_fast.m_vStreams.empty(); }

    // Moves the streams on the real clock, or those that go as fast as the machine can. TickFast says
    // whether any of them could move.
    void TickRealTime();
    bool TickFast();

private:
    struct CLane
    {
        std::vector<CStream*> m_vStreams;
        std::vector<CStream*> m_vSettle; // as much room as m_vStreams has
    };

    CLane& LaneOf(const CStream& stream);
    static bool Move(CLane& lane); // whether any stream could move
    static void Settle(CLane& lane);

    CLane m_realTime;
    CLane m_fast;
    std::vector<CTickListener*> m_vListeners;
};

#endif
