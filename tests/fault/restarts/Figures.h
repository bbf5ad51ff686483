// What a run has to show for itself: plain data, which processes can share and which can be added up.
#ifndef FIGURES_H
#define FIGURES_H

#include "Ledger.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <ostream>

struct CFigures
{
    static constexpr size_t LONGEST_MS = 20000;

    size_t nKills = 0;
    size_t nStreams = 0;
    CLedger::CTotals totals;
    std::array<size_t, LONGEST_MS + 1> anReconnects{}; // how many took so many milliseconds
    size_t nStalled = 0;                               // reconnects that were late by no more than the machine's stalls
    size_t nStalledMs = 0;                             // of all reconnects, that the machine stalled

    void reconnected(std::chrono::milliseconds took)
    {
        ++anReconnects[std::min(static_cast<size_t>(std::max(took.count(), decltype(took.count()){0})), LONGEST_MS)];
    }

    void add(const CFigures& other)
    {
        nKills += other.nKills;
        nStreams += other.nStreams;
        totals.add(other.totals);
        for (size_t n = 0; n < anReconnects.size(); ++n)
            anReconnects[n] += other.anReconnects[n];
        nStalled += other.nStalled;
        nStalledMs += other.nStalledMs;
    }

    // The time within which this many hundredths of the reconnects were done.
    size_t reconnectMs(size_t nPercent) const
    {
        size_t nAll = 0;
        for (const size_t nTimes : anReconnects)
            nAll += nTimes;
        size_t nMs = 0;
        for (size_t nSeen = anReconnects[0]; nSeen * 100 < nAll * nPercent;)
            nSeen += anReconnects[++nMs];
        return nMs;
    }
};

inline std::ostream& operator<<(std::ostream& os, const CFigures& figures)
{
    const CLedger::CTotals& totals = figures.totals;
    os << figures.nKills << " kills, " << figures.nStreams << " streams; accepted " << totals.nAccepted << " (+"
       << totals.nOfLibrary << "), refused " << totals.nRefused << "; completed " << totals.nCompleted
       << ", steps done " << totals.nStepsDone << ", lost " << totals.nLost << ", dropped " << totals.nDropped
       << ", behind a failed one " << totals.nBehind << ", cancelled " << totals.nCancelled << ", closed "
       << totals.nClosed << "\ncompleted with";
    for (size_t nStatus = 0; nStatus < totals.anCompletedWith.size(); ++nStatus)
        if (totals.anCompletedWith[nStatus] != 0)
            os << ' ' << nStatus << ": " << totals.anCompletedWith[nStatus];
    return os << "\nreconnects: median " << figures.reconnectMs(50) << " ms, 99 % " << figures.reconnectMs(99)
              << " ms, longest " << figures.reconnectMs(100) << " ms; the machine stalled for " << figures.nStalledMs
              << " ms of them, which made " << figures.nStalled << " of them late";
}

#endif
