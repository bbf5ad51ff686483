// A tick that jumps, and one that passes 31, 32 and 63 bits.
#include "../../unit/EventThreadFixture.h"
#include "PlatformSeams.h"

namespace
{
class Ticks : public CEventThreadTest
{
protected:
    // A pass without events, in which the driver accepts that many requests.
    void idlePass(uint32_t nRequests)
    {
        for (uint32_t n = 0; n < nRequests; ++n)
            respondNext(MIRSP_STATUS, 0, n);
        m_pmintf->idlePass();
    }

    void startAt(uint64_t ullTick)
    {
        seams::freezeTick(ullTick);
        m_pmintf->m_ullLastResponseTick = ullTick;
    }

    std::vector<MICMD> requested()
    {
        std::vector<MICMD> vCodes;
        for (const structMICMD& request : takeRequests())
            vCodes.push_back(request.s_micmd);
        return vCodes;
    }
};
} // namespace

TEST_F(Ticks, DeadlinesAcrossEveryWidthAreKeptToTheMillisecond)
{
    for (const int nBits : {31, 32, 33, 63})
    {
        startAt((1ULL << nBits) - 500);
        m_handler.m_vReports.clear();
        sendCommand(5, MICMD_PLAYFILE, 1, &m_handler);
        seams::advanceTick(999);
        idlePass(0);
        EXPECT_EQ(CReports(), m_handler.m_vReports) << nBits;
        seams::advanceTick(1);
        idlePass(1);
        EXPECT_EQ((CReports{{5, MCS_TIMEDOUT, PLAY}}), m_handler.m_vReports) << nBits;
    }
    expectNothingLeft();
}

// Half a thousand million years from the start of a machine: nothing hangs and nothing is lost.
TEST_F(Ticks, CommandsWhoseDeadlineIsBeyondTheLastTickEndOnce)
{
    startAt(UINT64_MAX - 500);
    sendCommand(5, MICMD_PLAYFILE, 1, &m_handler);
    seams::freezeTick(1000);
    idlePass(1);
    EXPECT_EQ((CReports{{5, MCS_TIMEDOUT, PLAY}}), m_handler.m_vReports);
    expectNothingLeft();
}

TEST_F(Ticks, JumpOfADayEndsEverythingThatIsOverdueInOnePassWithOneAlarmAndOnePing)
{
    startAt(1000000);
    play(5);
    play(5); // waits, and is dropped
    record(5);
    play(6);
    takeRequests();
    seams::advanceTick(24 * 3600 * 1000);
    idlePass(4);
    EXPECT_EQ((CReports{{5, MCS_TIMEDOUT, PLAY}, {5, MCS_TIMEDOUT, RECORD}, {6, MCS_TIMEDOUT, PLAY}}),
              m_handler.m_vReports);
    EXPECT_EQ((std::vector<MICMD>{MICMD_PING, MICMD_CANCEL, MICMD_CANCEL, MICMD_CANCEL}), requested());
    EXPECT_EQ(1u, m_pLog->alarms().size());
    expectNothingLeft();
    idlePass(0);
    EXPECT_EQ(std::vector<MICMD>(), requested());
}

TEST_F(Ticks, HandlerThatTakesThirtySecondsIsFollowedByThePingAndTheTimeOutsThatWereDue)
{
    startAt(1000000);
    CCallingHandler slow([] { seams::advanceTick(30000); });
    sendCommand(4, MICMD_PLAYFILE, 300, &slow);
    const uint32_t nSlow = takeRequests().back().nSequenceNo;
    sendCommand(5, MICMD_PLAYFILE, 20, &m_handler);
    sendCommand(6, MICMD_PLAYFILE, 40, &m_handler);
    takeRequests();
    done(4, nSlow, MCS_OK);
    EXPECT_EQ(1u, slow.m_vReports.size());
    EXPECT_EQ(CReports(), m_handler.m_vReports);
    idlePass(2);
    EXPECT_EQ((std::vector<MICMD>{MICMD_PING, MICMD_CANCEL}), requested());
    EXPECT_EQ((CReports{{5, MCS_TIMEDOUT, PLAY}}), m_handler.m_vReports);
    seams::advanceTick(10000);
    idlePass(1);
    EXPECT_EQ((CReports{{5, MCS_TIMEDOUT, PLAY}, {6, MCS_TIMEDOUT, PLAY}}), m_handler.m_vReports);
    expectNothingLeft();
}
