// Plays a row of files or phrases on a channel, tells how it goes, and ends it properly when interrupted.
#ifndef PLAYER_H
#define PLAYER_H

#include "media/MediaSession.h"
#include "media/ProgressLine.h"

#include <functional>
#include <string>
#include <vector>

struct CPlayItem
{
    std::string m_strName; // as the user gave it
    std::optional<CMilliseconds> m_total;
    CMilliseconds m_from{0};
    std::string m_strRemark;                           // what an error message adds
    std::function<MCSTATUS(CZelMediaStream&)> m_queue; // plays it, or queues it behind what plays
};

// The time-out of a play that is to end by itself, in seconds.
unsigned long playTimeout(const std::optional<std::chrono::seconds>& wanted, std::optional<CMilliseconds> total);

class CPlayer
{
public:
    CPlayer(CMediaSession& session, const std::vector<CPlayItem>& vItems, bool bJson);

    // Gives EXIT_CODE_OK when all have been played, or EXIT_CODE_INTERRUPTED; throws CToolError for the
    // first that was not.
    int run();

private:
    using Clock = std::chrono::steady_clock;

    void queueAll();
    void waitAll();
    void cancel();
    bool wasCancelled() const { return m_session.interrupts() > 0; }
    void tellStarted();
    void completed(MCSTATUS mcstatus);
    [[noreturn]] void failed(size_t nItem, MCSTATUS mcstatus);
    void showProgress();

    CMediaSession& m_session;
    const std::vector<CPlayItem>& m_vItems;
    const bool m_bJson;
    CProgressLine m_progress;
    size_t m_nQueued = 0;
    size_t m_nEnded = 0;                   // the index of the one that plays
    MCSTATUS m_mcstatusNotQueued = MCS_OK; // of the one behind the queued ones
    Clock::time_point m_start;             // of the one that plays
};

#endif
