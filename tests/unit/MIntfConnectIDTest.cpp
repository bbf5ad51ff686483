// The connection id of a request that was composed while the library was connecting.
#include "MIntfFixture.h"

class MIntfConnectID : public CMIntfTest
{
};

// A thread composes its request while the event thread holds the lock and connects: the id that it
// read before is no id of any client, and a driver could not even answer.
TEST_F(MIntfConnectID, RequestComposedBeforeTheConnectCarriesTheNewId)
{
    structMICMD cmd = {};
    structMIRSP rsp;
    cmd.s_micmd = MICMD_PING;
    cmd.nConnectID = -1;
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->sendImmediate(&cmd, &rsp));
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(CONNECT_ID, vRequests[0].nConnectID);
}

TEST_F(MIntfConnectID, ConnectIsSentAsComposed)
{
    structMICMD cmd = {};
    structMIRSP rsp;
    cmd.s_micmd = MICMD_CONNECT;
    cmd.nConnectID = -1;
    respondNext(MIRSP_CONNECT, 78);
    EXPECT_EQ(MCS_OK, m_pmintf->sendImmediate(&cmd, &rsp));
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(-1, vRequests[0].nConnectID);
}
