// CRacesDriver: a media driver that answers many threads, ends what it plays, and is now and then replaced.
#ifndef RACES_DRIVER_H
#define RACES_DRIVER_H

#include "Choices.h"
#include "ScriptedPlayer.h"

// Accepts nearly everything; refuses, is late or silent for a moment now and then. A play ends within
// some milliseconds, a cancelled one at once. Stream and file ids are never given twice. No request is
// lost when the driver is replaced, so that nobody waits ten seconds for a response: it goes away with
// a request in hand, and answers that either well, as its last act, or with a torn record.
class CRacesDriver
{
public:
    explicit CRacesDriver(uint64_t ullSeed);
    ~CRacesDriver() { m_driver.die(); } // before its player goes

    void allowRestarts(bool bAllowed) { m_bRestarts = bAllowed; }
    unsigned int connects() const { return m_nConnects; }
    uint64_t requests() const { return m_ullRequests; }

private:
    bool disturb(const structMICMD& request);
    void connect(const structMICMD& request);
    void play(const structMICMD& request);
    void goAway(const structMICMD& request);

    CRandomChoices m_random;
    std::chrono::steady_clock::time_point m_restart = std::chrono::steady_clock::time_point::max();
    std::atomic<bool> m_bRestarts{false};
    std::atomic<unsigned int> m_nConnects{0};
    std::atomic<uint64_t> m_ullRequests{0};
    CScriptedDriver m_driver{false};
    CScriptedPlayer m_player{m_driver};
};

#endif
