// The session timer of a dialog: refreshed by one side, ended when it is not.
#ifndef SIP_SESSION_TIMER_H
#define SIP_SESSION_TIMER_H

#include "Loop.h"

#include <algorithm>
#include <functional>

class CSessionTimer
{
public:
    CSessionTimer(CLoop& loop, std::function<void()> refresh, std::function<void()> expired)
        : m_timer(loop), m_refresh(std::move(refresh)), m_expired(std::move(expired))
    {
    }

    // Anew after each 2xx that has an interval; 0: there is none.
    void start(unsigned uSeconds, bool bWeRefresh)
    {
        m_uSeconds = uSeconds;
        m_bWeRefresh = bWeRefresh;
        if (uSeconds == 0)
            m_timer.stop();
        else if (bWeRefresh)
            m_timer.start(std::chrono::milliseconds(uSeconds * 500ULL), [this] { refresh(); });
        else
            m_timer.start(std::chrono::seconds(deadline()), m_expired);
    }

    void stop() { m_timer.stop(); }
    unsigned seconds() const { return m_uSeconds; }
    bool weRefresh() const { return m_bWeRefresh; }
    // The refresh did not come through: the session ends in time all the same.
    unsigned deadline() const { return m_uSeconds - std::min(32U, m_uSeconds / 3); }

private:
    void refresh()
    {
        m_timer.start(std::chrono::milliseconds(deadline() * 1000ULL - m_uSeconds * 500ULL), m_expired);
        m_refresh();
    }

    CTimer m_timer;
    const std::function<void()> m_refresh;
    const std::function<void()> m_expired;
    unsigned m_uSeconds = 0;
    bool m_bWeRefresh = false;
};

#endif
