// The test support itself: a capture that took every line would hide what these tests are for.
#include "MIntfFixture.h"
#include "PlatformSeams.h"

TEST_F(CMIntfTest, CaptureKeepsMaskPriorityAndText)
{
    m_pmintf->trace(TRACE_INFO, OrvLogLib::LogLib_High, "x %d", 5);
    EXPECT_EQ((std::vector<CLogLine>{{1, 64, "x 5"}}), m_pLog->lines());
}

TEST_F(CMIntfTest, SentCommandIsOnTheRequestPipeAndActive)
{
    CMIntf::CCommand* const pcommand = sendCommand(5);
    EXPECT_EQ(1u, takeRequests().size());
    EXPECT_EQ(pcommand, m_pmintf->m_mapActiveCommandByStreamIDPlay.at(5));
    EXPECT_EQ(1, commandsAlive());
}

TEST_F(CMIntfTest, FrozenTickIsTheDeadlinesBase)
{
    seams::freezeTick(1000);
    EXPECT_EQ(1000u + 300000u, sendCommand(5)->m_ullTimeoutTick);
}
