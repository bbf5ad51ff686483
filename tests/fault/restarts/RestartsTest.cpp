// Kills the driver again and again under an application at work, at every step of the protocol.
//
// ZELMEDIA_KILLS: how often; ZELMEDIA_WORLDS: in how many processes at a time; ZELMEDIA_SEED: the random
// numbers, as an earlier run has printed them. The second process has the seed that follows, and so on.
#include "RandomRun.h"
#include "World.h"
#include "Worlds.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iostream>

TEST(Restarts, EveryAcceptedCommandEndsExactlyOnceWhereverTheDriverIsKilled)
{
    const unsigned int nKills = setting("ZELMEDIA_KILLS", 6U);
    const unsigned int nWorlds = setting("ZELMEDIA_WORLDS", std::clamp(nKills / 50, 1U, 5U));
    const unsigned int nSeed = setting("ZELMEDIA_SEED", std::random_device()());
    std::cout << "ZELMEDIA_SEED=" << nSeed << ", " << nWorlds << " at a time" << std::endl;
    CShared<CFigures> worlds(nWorlds);
    inWorlds(nWorlds, [&](size_t nWorld) {
        const unsigned int nSeedOfWorld = nSeed + static_cast<unsigned int>(nWorld);
        CWorld world(nSeedOfWorld);
        world.kill(nKills / nWorlds + (nWorld < nKills % nWorlds));
        worlds[nWorld] = world.figures();
        if (HasFailure())
            std::cout << "failed in the world of seed " << nSeedOfWorld << ": " << world.figures() << std::endl;
    });
    CFigures figures;
    for (size_t nWorld = 0; nWorld < nWorlds; ++nWorld)
        figures.add(worlds[nWorld]);
    std::cout << figures << std::endl;
    EXPECT_EQ(nKills, figures.nKills);
    EXPECT_GT(figures.totals.nCompleted, 0u);
    EXPECT_TRUE(figures.totals.isEven());
}

// A request pipe that is open counts as a driver that is there, and only a write that fails closes it.
TEST(Restarts, ConnectThatTheKilledDriverHadReadIsNotTriedAgain)
{
    std::mt19937 random;
    CWorld world(0);
    CLivingDriver driver;
    ASSERT_TRUE(driver.start({"", CLife::EEnd::WhileReopening, false, "", MICMD_CONNECT, "read"}, 1, random));
    ASSERT_TRUE(driver.waitDead());
    ASSERT_TRUE(driver.start({"", CLife::EEnd::Kill, false, "", MICMD_NULL, ""}, 2, random));
    EXPECT_FALSE(world.ledger().waitConnected(1, CWorld::RECONNECT_LIMIT));
    EXPECT_EQ(MCS_NOTCONNECTED, world.services().dump());
}
