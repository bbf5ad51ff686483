// The numbers of CMIntf's requests: one counter, in the order of sending, round at 32 bits.
#include "ExpectedLines.h"
#include "MIntfFixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

class MIntfTransportNumbers : public CMIntfTest
{
protected:
    MCSTATUS send(MICMD micmd, int nStreamID = 0)
    {
        structMICMD cmd = structMICMD();
        structMIRSP rsp;
        cmd.s_micmd = micmd;
        return m_pmintf->sendCommand(nStreamID, &cmd, &rsp, 10, nullptr, 0, 0);
    }
};

TEST_F(MIntfTransportNumbers, NumbersGrowByOnePerRecordInTheOrderOfSending)
{
    EXPECT_EQ(1u, m_pmintf->m_nNextSequenceNo);
    respondNext();
    send(MICMD_PING);
    sendCommand(1);
    sendCommand(1); // queued, takes no number
    sendCommand(1, MICMD_RECORDFILE);
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    send(MICMD_DUMP);
    respondNext();
    send(MICMD_PING);
    std::vector<uint32_t> vNumbers;
    for (const structMICMD& cmd : takeRequests())
        vNumbers.push_back(cmd.nSequenceNo);
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3, 4, 5}), vNumbers);
}

TEST_F(MIntfTransportNumbers, NumbersWrapAt32Bits)
{
    m_pmintf->m_nNextSequenceNo = 0xFFFFFFFF;
    respond(0xFFFFFFFF);
    respond(0);
    respond(1);
    EXPECT_EQ(MCS_OK, send(MICMD_PING));
    EXPECT_TRUE(m_pLog->has(numberLine(0, "MICMD_PING", 4294967295)));
    EXPECT_EQ(MCS_OK, send(MICMD_PING));
    EXPECT_EQ(MCS_OK, send(MICMD_PLAYFILE, 3));
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(3u, vRequests.size());
    EXPECT_EQ(0xFFFFFFFFu, vRequests[0].nSequenceNo);
    EXPECT_EQ(0u, vRequests[1].nSequenceNo);
    EXPECT_EQ(1u, vRequests[2].nSequenceNo);
}

TEST_F(MIntfTransportNumbers, NumbersGoOnAfterAReconnect)
{
    sendCommand(1);
    disconnect();
    ASSERT_EQ(0, mkfifo(MI_REQUEST_PIPE, 0600));
    const int nReader = open(MI_REQUEST_PIPE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    respondNext(MIRSP_CONNECT, 5);
    m_pmintf->idlePass();
    structMICMD cmd;
    ASSERT_EQ(280, read(nReader, &cmd, sizeof(cmd)));
    EXPECT_EQ(MICMD_CONNECT, cmd.s_micmd);
    EXPECT_EQ(2u, cmd.nSequenceNo);
    respondNext();
    EXPECT_EQ(MCS_OK, send(MICMD_PING));
    ASSERT_EQ(280, read(nReader, &cmd, sizeof(cmd)));
    EXPECT_EQ(3u, cmd.nSequenceNo);
    close(nReader);
    unlink(MI_REQUEST_PIPE);
}

// The number that means any, as a command's own: it must not take other commands of the stream along.
TEST_F(MIntfTransportNumbers, FailingCommandOfTheHighestNumberTakesNoOtherAlong)
{
    CMIntf::CCommand* const pplay = sendCommand(5);
    CMIntf::CCommand* const precord = sendCommand(5, MICMD_RECORDFILE);
    CMIntf::CCommand* const pplay6 = sendCommand(6);
    CMIntf::CCommand* const precord7 = sendCommand(7, MICMD_RECORDFILE);
    const struct
    {
        MICMD micmd;
        int nStreamID;
    } aFailing[] = {{MICMD_RECORDGETSTATUS, 5}, {MICMD_RECORDFILE, 6}, {MICMD_PLAYFILE, 7}};
    for (const auto& failing : aFailing)
    {
        m_pLog->clear();
        m_pmintf->m_nNextSequenceNo = 0xFFFFFFFF;
        respondNext(MIRSP_STATUS, MISTATUS_FAILED);
        EXPECT_EQ(MCS_REFUSED, send(failing.micmd, failing.nStreamID));
        EXPECT_EQ(1u,
                  m_pLog->count(text("remActiveCommand called, sid = %d, nSequenceIDParam = -1", failing.nStreamID)));
        EXPECT_EQ(0, commandsAlive()); // the failing one came and went
        EXPECT_EQ((std::map<int, CMIntf::CCommand*>{{5, pplay}, {6, pplay6}}),
                  m_pmintf->m_mapActiveCommandByStreamIDPlay);
        EXPECT_EQ((std::map<int, CMIntf::CCommand*>{{5, precord}, {7, precord7}}),
                  m_pmintf->m_mapActiveCommandByStreamIDRecord);
        EXPECT_EQ(4u, m_pmintf->m_mmapActiveCommandByTimeout.size());
    }
}
