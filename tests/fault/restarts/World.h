// A world: an application at work and the drivers that are killed under it, one after the other.
#ifndef WORLD_H
#define WORLD_H

#include "Application.h"
#include "Figures.h"
#include "Lives.h"
#include "Stalls.h"

#include <vector>

class CWorld
{
public:
    static constexpr std::chrono::milliseconds RECONNECT_LIMIT{2500};

    explicit CWorld(unsigned int nSeed);
    ~CWorld();

    // Kills so many drivers, or until something has gone wrong, which fails the test.
    void kill(size_t nTimes);

    CLedger& ledger() { return m_ledger; }
    CZelMediaServices& services() { return m_application.services(); }
    const CFigures& figures() const { return m_figures; }

private:
    using CClock = CLedger::CClock;

    CLife nextLife();
    void live(const CLife& life);
    bool waitEverybodyHere();
    void expectConnected();
    void expectNothingLeft();
    void expectNoViolation(const std::string& strLife);

    std::mt19937 m_random;
    CStalls m_stalls;
    CLedger m_ledger;
    CApplication m_application;
    CLivingDriver m_driver;
    std::vector<CLife> m_vToCome;
    CLife m_lifeBefore{};
    size_t m_nConnectionsBefore = 0;
    CClock::time_point m_readyAt;
    CFigures m_figures;
};

#endif
