#include "World.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

using std::chrono::milliseconds;

namespace
{
#if defined(ZELMEDIA_ASAN) || defined(ZELMEDIA_TSAN)
const milliseconds MARGIN{7500};
#else
const milliseconds MARGIN{0};
#endif
const std::chrono::seconds LIMIT{120};
} // namespace

CWorld::CWorld(unsigned int nSeed) : m_random(nSeed), m_application(m_ledger, nSeed)
{
    m_application.start();
}

CWorld::~CWorld()
{
    m_application.finish();
}

void CWorld::kill(size_t nTimes)
{
    while (m_figures.nKills < nTimes && !testing::Test::HasFailure())
    {
        const CLife life = nextLife();
        ++m_figures.nKills;
        live(life);
        expectNoViolation(life.strName);
    }
    EXPECT_TRUE(waitEverybodyHere());
    expectNothingLeft();
    m_figures.nStreams = m_application.episodes();
    m_figures.totals = m_ledger.totals();
    expectNoViolation("the end");
}

// All ways to die in turn, in an order that is new each time; one of each kind comes before the others.
CLife CWorld::nextLife()
{
    if (m_vToCome.empty())
    {
        m_vToCome = allLives();
        std::shuffle(m_vToCome.begin(), m_vToCome.end(), m_random);
        std::set<CLife::EEnd> kinds;
        std::stable_partition(m_vToCome.begin(), m_vToCome.end(),
                              [&](const CLife& life) { return !kinds.insert(life.eEnd).second; });
    }
    const CLife life = m_vToCome.back();
    m_vToCome.pop_back();
    return life;
}

void CWorld::live(const CLife& life)
{
    SCOPED_TRACE("life " + std::to_string(m_figures.nKills) + ": " + life.strName);
    if (life.sharesNumbersWith(m_lifeBefore))
        ASSERT_TRUE(waitEverybodyHere());
    m_lifeBefore = life;
    ASSERT_TRUE(m_driver.start(life, static_cast<int>(m_figures.nKills), m_random));
    m_readyAt = CClock::now();
    if (!life.isUsed())
    {
        // The loss of the one before may not be noticed yet.
        ASSERT_TRUE(m_driver.waitDead([this] { services().dump(); }));
        return;
    }
    ASSERT_TRUE(waitEverybodyHere());
    expectConnected();
    expectNothingLeft();
    EXPECT_TRUE(m_application.phrasesPlay());
    m_nConnectionsBefore = m_ledger.connections();
    m_application.gate().open();
    ASSERT_TRUE(m_driver.die(life, m_application, m_random));
}

// Everybody has closed his streams. Somebody has to ask for a loss to be noticed at all.
bool CWorld::waitEverybodyHere()
{
    const auto end = CClock::now() + LIMIT;
    while (!m_application.gate().waitAllHere(milliseconds(20)))
    {
        services().dump();
        if (CClock::now() > end)
            return false;
    }
    return true;
}

// The event thread may still be busy with phrase files, or with the last of what is closed.
void CWorld::expectNothingLeft()
{
    const auto end = CClock::now() + LIMIT;
    while (m_ledger.recordsAlive() != 0 && CClock::now() < end)
        std::this_thread::sleep_for(milliseconds(5));
    EXPECT_EQ(0, m_ledger.recordsAlive()) << m_ledger.describe();
}

void CWorld::expectConnected()
{
    // Lives that end while the library connects leave it to whoever asks next to notice it.
    const auto end = CClock::now() + LIMIT;
    while (m_ledger.connections() == m_nConnectionsBefore || services().dump() != MCS_OK)
    {
        ASSERT_LT(CClock::now(), end) << "never connected again";
        std::this_thread::sleep_for(milliseconds(5));
    }
    const auto from = std::max(m_readyAt, m_ledger.lostAt());
    const auto to = m_ledger.connectedAt();
    const auto took = std::chrono::duration_cast<milliseconds>(to - from);
    const milliseconds stalled = m_stalls.within(from, to);
    EXPECT_LE(took, RECONNECT_LIMIT + MARGIN + stalled) << "the machine stalled for " << stalled.count() << " ms";
    m_figures.reconnected(took);
    m_figures.nStalled += took > RECONNECT_LIMIT;
    m_figures.nStalledMs += static_cast<size_t>(stalled.count());
}

void CWorld::expectNoViolation(const std::string& strLife)
{
    for (const std::string& strViolation : m_ledger.violations())
        ADD_FAILURE() << "life " << m_figures.nKills << " (" << strLife << "): " << strViolation;
}
