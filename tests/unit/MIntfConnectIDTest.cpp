// The connection id of a request: always that of the connection on which it is written.
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

TEST_F(MIntfConnectID, QueuedCommandCarriesTheIdOfTheConnectionThatItIsSentOn)
{
    sendCommand(5);
    CMIntf::CCommand* const pcommandQueued = sendCommand(5);
    pcommandQueued->m_cmd.nConnectID = CONNECT_ID - 1;
    takeRequests();

    respondNext();
    structMIEVT evt = {MIEVT_DONE, 5, m_pmintf->m_nNextSequenceNo - 1, 0};
    m_pmintf->doneEventPass(evt);
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(CONNECT_ID, vRequests[0].nConnectID);
}

TEST_F(MIntfConnectID, ConnectIsSentAsComposed)
{
    structMICMD cmd = {};
    structMIRSP rsp;
    cmd.s_micmd = MICMD_CONNECT;
    cmd.nConnectID = 0;
    respondNext(MIRSP_CONNECT, 78);
    EXPECT_EQ(MCS_OK, m_pmintf->sendImmediate(&cmd, &rsp));
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(0, vRequests[0].nConnectID);
}
