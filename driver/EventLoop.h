// The one loop of the driver: what is ready, the media tick, timers and signals.
#ifndef DRIVER_EVENT_LOOP_H
#define DRIVER_EVENT_LOOP_H

#include "Fd.h"
#include "MediaClock.h"
#include "Poller.h"
#include "Statistics.h"
#include "TimerQueue.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

class CEventLoop
{
public:
    // The parts must outlive the loop.
    CEventLoop(CPoller& poller, CMediaClock& mediaClock, CTimerQueue& timers, const CClock& clock,
               CStatistics& statistics);

    // Blocks the signals that end the driver and those that it reacts to, for the whole process. Call it
    // before anything that they must not interrupt.
    static void blockSignals();

    // False, with the message in strError, when the system refuses what the loop needs.
    bool create(std::string& strError);

    // Called when the descriptor is readable, but not while the loop is frozen. False as above. Before run.
    bool addInput(int nFd, std::function<void()> ready, std::string& strError);

    struct CDuties
    {
        std::function<bool()> m_hasWork;     // there is something to do for m_endTurn without waiting
        std::function<void()> m_endTurn;     // at the end of each turn, also while frozen
        std::function<void()> m_everySecond; // likewise
        std::function<void()> m_reload;      // at SIGHUP
    };

    // Serves until SIGTERM or SIGINT. False, with the message in strError, when it had to give up.
    bool run(const CDuties& duties, std::string& strError);

    // Stops inputs, ticks and timers, for a time or until thaw; thawed is called then. The ticks of the
    // meantime are left out. Signals and what was given to the poller directly go on.
    void freeze(std::optional<std::chrono::milliseconds> time, std::function<void()> thawed);
    void thaw();
    bool isFrozen() const { return m_bFrozen; }

private:
    int waitTime(bool bBusy) const;
    void onSignal(const CDuties& duties);
    void armTick();
    void setTick(bool bOn);
    void move();
    void tickRealTime();

    CPoller& m_poller;
    CMediaClock& m_mediaClock;
    CTimerQueue& m_timers;
    const CClock& m_clock;
    CStatistics& m_statistics;

    CFd m_fdSignal;
    CFd m_fdTick;
    CFd m_fdSecond;
    CPoller::CWatch m_watchSignal;
    CPoller::CWatch m_watchSecond;
    std::vector<CPoller::CWatch> m_vInputs;

    bool m_bStop = false;
    bool m_bTickArmed = false;
    CClock::TimePoint m_nextTick; // when the tick that is to come next is due
    bool m_bFastWaits = false;    // no channel without a clock could move in the last turn
    bool m_bFrozen = false;
    std::optional<CClock::TimePoint> m_thawAt;
    std::function<void()> m_thawed;
};

#endif
